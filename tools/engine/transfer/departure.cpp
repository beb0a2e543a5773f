#include "tools/engine/transfer/departure.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <unistd.h>

namespace engine {
namespace {

constexpr std::string_view kTimes = ".times";
constexpr size_t kLongestTimes = PATH_MAX + 128;

// Empty where the kernel tells none.
std::string kernels_path(const HeldDirectory &directory) {
    std::array<char, PATH_MAX> path{};
    const std::string link = fmt::format("/proc/self/fd/{}", directory.fd());
    const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
    return length > 0 && static_cast<size_t>(length) < path.size()
               ? std::string(path.data(), static_cast<size_t>(length))
               : std::string();
}

std::optional<Departure> parse_departure(std::string_view text) {
    std::array<int64_t, 5> numbers{};
    for (int64_t &number : numbers) {
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        const auto used = static_cast<size_t>(end - text.data());
        if (error != std::errc() || used >= text.size() || text[used] != '\n') {
            return std::nullopt;
        }
        text.remove_prefix(used + 1);
    }
    Departure found;
    found.inode = static_cast<ino_t>(numbers[0]);
    found.accessed = {numbers[1], numbers[2]};
    found.modified = {numbers[3], numbers[4]};
    found.source = text;
    return found.source.starts_with('/') ? std::optional(found) : std::nullopt;
}

std::optional<Departure> read_departure(const HeldDirectory &directory, const std::string &name) {
    const Descriptor file(::openat(directory.fd(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat found {};
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink != 1 ||
        found.st_uid != ::geteuid()) {
        return std::nullopt;
    }
    std::array<char, kLongestTimes> text{};
    const ssize_t size = ::read(file.get(), text.data(), text.size());
    auto departure = parse_departure({text.data(), size < 0 ? 0 : static_cast<size_t>(size)});
    // Half of one was written before anything left: it keeps nothing.
    Departure half;
    half.note = name;
    if (departure) {
        departure->note = name;
    }
    return departure ? departure : std::optional(half);
}

} // namespace

bool Departure::is_of(const HeldDirectory &directory) const {
    struct stat found {};
    return ::fstat(directory.fd(), &found) == 0 && found.st_ino == inode && !source.empty() &&
           kernels_path(directory) == source;
}

bool Departure::is_over() const {
    struct stat found {};
    return source.empty() || ::lstat(source.c_str(), &found) != 0 || !S_ISDIR(found.st_mode) || found.st_ino != inode;
}

std::string note_departure(const HeldDirectory &beside, const HeldDirectory &source, const struct stat &before) {
    const std::string path = kernels_path(source), name = next_private_name() + std::string(kTimes);
    const Descriptor file(
        path.empty() ? -1
                     : ::openat(beside.fd(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.get() < 0) {
        return {};
    }
    const std::string text =
        fmt::format("{}\n{}\n{}\n{}\n{}\n{}", static_cast<int64_t>(before.st_ino), before.st_atim.tv_sec,
                    before.st_atim.tv_nsec, before.st_mtim.tv_sec, before.st_mtim.tv_nsec, path);
    if (::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        ::unlinkat(beside.fd(), name.c_str(), 0);
        return {};
    }
    return name;
}

std::vector<Departure> departures_in(const HeldDirectory &directory) {
    auto [names, unknown] = left_overs_in(directory.fd());
    names.insert(names.end(), unknown.begin(), unknown.end());
    std::vector<Departure> found;
    for (const std::string &name : names) {
        auto departure = is_departure(name) ? read_departure(directory, name) : std::nullopt;
        if (departure) {
            found.push_back(std::move(*departure));
        }
    }
    return found;
}

bool is_departure(std::string_view privateName) {
    return is_private_name(privateName) && privateName.ends_with(kTimes);
}

void keep_times(const HeldDirectory &source, const struct stat &before, const std::vector<std::string> &names,
                bool left) {
    const Descriptor opened = open_directory(source.fd(), ".");
    const auto now = opened.get() < 0 ? std::nullopt : names_in(opened.get());
    const std::set<std::string_view> known(names.begin(), names.end());
    const auto is_known = [&](const std::string &name) { return known.contains(name); };
    if (now && (left || now->size() < names.size()) && std::ranges::all_of(*now, is_known)) {
        const timespec times[] = {before.st_atim, before.st_mtim};
        (void)::futimens(opened.get(), times);
    }
}

} // namespace engine
