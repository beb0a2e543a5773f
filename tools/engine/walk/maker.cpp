#include "tools/engine/walk/maker.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/text_hash.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/types.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr size_t kBootDigits = 16, kOtherDigits = 8;
constexpr uint64_t kOther = 0xffffffffU;

std::string content_of(const std::string &path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text{};
    const ssize_t size = file.get() < 0 ? -1 : ::read(file.get(), text.data(), text.size());
    return size <= 0 ? std::string() : std::string(text.data(), static_cast<size_t>(size));
}

std::string target_of(const char *link) {
    std::array<char, 256> text{};
    const ssize_t size = ::readlink(link, text.data(), text.size());
    return size <= 0 ? std::string() : std::string(text.data(), static_cast<size_t>(size));
}

template <typename Number>
bool take_field(std::string_view &text, Number &number, int base = 10, size_t digits = 0) {
    const char *const end = text.data() + (digits == 0 ? text.size() : std::min(digits, text.size()));
    const auto [used, error] = std::from_chars(text.data(), end, number, base);
    const auto count = static_cast<size_t>(used - text.data());
    if (error != std::errc() || (digits != 0 && count != digits) || count >= text.size() || text[count] != '-') {
        return false;
    }
    text.remove_prefix(count + 1);
    return true;
}

// What the kernel says of a process: words behind its name, which stands in brackets and may hold blanks.
struct Condition {
    uint64_t begun = 0; // when it was started; 0: it cannot be told
    bool ended = false; // what is left of it waits for its parent, or goes
};

Condition condition_of(const std::string &process) {
    constexpr int state = 3, threads = 20, begin = 22;
    const std::string text = content_of("/proc/" + process + "/stat");
    const char *const end = text.data() + text.size();
    Condition found;
    uint64_t running = 0;
    size_t at = text.rfind(')');
    for (int word = 2; word < begin && at != std::string::npos; at = text.find(' ', at + 1)) {
        const char *const begun = text.data() + std::min(at + 1, text.size());
        if (word == state) {
            found.ended = begun != end && (*begun == 'Z' || *begun == 'X');
        } else if (word == threads) {
            (void)std::from_chars(begun, end, running);
        }
        ++word;
    }
    if (at != std::string::npos) {
        (void)std::from_chars(text.data() + at + 1, end, found.begun);
    }
    found.ended = found.ended && running < 2; // others of its threads may still be at work
    return found;
}

// 0 for what says nothing of itself.
uint64_t hash_of(const std::string &text) {
    return text.empty() ? 0 : text_hash(text);
}

uint64_t machine() {
    const std::string firmware = content_of("/sys/class/dmi/id/product_uuid");
    const std::string installation = content_of("/etc/machine-id");
    return firmware.empty() || installation.empty() ? 0 : hash_of(firmware + installation) & kOther;
}

Maker find_self() {
    const std::string processes = target_of("/proc/self/ns/pid"), clocks = target_of("/proc/self/ns/time");
    return {.process = ::getpid(),
            .begun = condition_of("self").begun,
            .boot = hash_of(content_of("/proc/sys/kernel/random/boot_id")),
            .space = processes.empty() ? 0 : hash_of(processes + clocks) & kOther,
            .machine = machine()};
}

// Whether "/proc" has the numbers that this process knows: it may be that of another namespace.
bool has_our_numbers() {
    return target_of("/proc/self") == std::to_string(::getpid());
}

} // namespace

const Maker &own_maker() {
    static Maker self = find_self();
    if (self.process != ::getpid()) { // forked since
        self = find_self();
    }
    return self;
}

MakerState state_of(const Maker &maker, const Maker &self) {
    if (maker.process <= 0 || maker.process > INT_MAX || maker.boot == 0 || self.boot == 0) {
        return MakerState::unknown;
    }
    if (maker.boot != self.boot) {
        return maker.machine != 0 && maker.machine == self.machine ? MakerState::gone : MakerState::unknown;
    }
    if (maker.space == 0 || maker.space != self.space) {
        return MakerState::unknown;
    }
    if (::kill(static_cast<pid_t>(maker.process), 0) != 0 && errno == ESRCH) {
        return MakerState::gone;
    }
    const Condition now = has_our_numbers() ? condition_of(std::to_string(maker.process)) : Condition{};
    const bool another = now.begun != 0 && maker.begun != 0 && now.begun != maker.begun;
    return another || now.ended ? MakerState::gone : MakerState::running;
}

std::string text_of(const Maker &maker) {
    return fmt::format("{}-{}-{:0{}x}-{:0{}x}-{:0{}x}", maker.process, maker.begun, maker.boot, kBootDigits,
                       maker.space, kOtherDigits, maker.machine, kOtherDigits);
}

std::optional<Maker> take_maker(std::string_view &text) {
    Maker maker;
    std::string_view rest = text;
    if (!take_field(rest, maker.process) || maker.process <= 0 || !take_field(rest, maker.begun) ||
        !take_field(rest, maker.boot, 16, kBootDigits) || !take_field(rest, maker.space, 16, kOtherDigits) ||
        !take_field(rest, maker.machine, 16, kOtherDigits)) {
        return std::nullopt;
    }
    text = rest;
    return maker;
}

} // namespace engine
