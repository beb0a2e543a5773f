#include "tools/engine/walk/private_name.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr std::string_view kPrefix = ".vexofileop-";

struct Parts {
    Maker maker;
    std::string_view suffix;
};

// Nothing: it is not of the form that anybody may remove.
std::optional<Parts> parts_of(std::string_view name) {
    if (!is_private_name(name)) {
        return std::nullopt;
    }
    name.remove_prefix(kPrefix.size());
    const auto maker = take_maker(name);
    int32_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (!maker || error != std::errc() || number <= 0) {
        return std::nullopt;
    }
    name.remove_prefix(static_cast<size_t>(end - name.data()));
    return name.empty() || name.front() == '.' ? std::optional(Parts{*maker, name}) : std::nullopt;
}

bool remove_tree(int parent, const std::string &name, dev_t device) {
    const Descriptor directory = open_directory(parent, name);
    struct stat found {};
    if (directory.get() < 0 || ::fstat(directory.get(), &found) != 0) {
        return false;
    }
    if (found.st_dev != device) {
        errno = EBUSY;
        return false;
    }
    const auto names = names_in(directory.get());
    if (!names) {
        return false;
    }
    for (const std::string &entry : *names) {
        const bool gone = ::unlinkat(directory.get(), entry.c_str(), 0) == 0 ||
                          (errno == EISDIR && remove_tree(directory.get(), entry, device));
        if (!gone) {
            return false;
        }
    }
    return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0;
}

} // namespace

std::string private_name(const Maker &maker, int number) {
    return fmt::format("{}{}-{}", kPrefix, text_of(maker), number);
}

std::string next_private_name() {
    static std::atomic<int> last = 0;
    return private_name(own_maker(), ++last);
}

bool is_private_name(std::string_view name) {
    return name.starts_with(kPrefix);
}

std::optional<Maker> maker_of(std::string_view privateName) {
    const auto parts = parts_of(privateName);
    return parts ? std::optional(parts->maker) : std::nullopt;
}

bool is_left_over(std::string_view name) {
    const auto parts = parts_of(name);
    return parts && state_of(parts->maker) == MakerState::gone;
}

bool may_be_under_way(int directory, const std::string &name) {
    if (!is_private_name(name)) {
        return false;
    }
    if (const auto parts = parts_of(name)) {
        return state_of(parts->maker) != MakerState::gone;
    }
    struct stat found {};
    if (::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 ||
        (!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode))) {
        return false;
    }
    const Descriptor entry(
        ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return entry.get() >= 0 && ::flock(entry.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

std::string_view without_suffix(std::string_view privateName) {
    const auto parts = parts_of(privateName);
    if (!parts) {
        return {};
    }
    privateName.remove_suffix(parts->suffix.size());
    return privateName;
}

LeftOvers left_overs_in(int directory) {
    auto names = names_in(directory).value_or(std::vector<std::string>());
    std::ranges::sort(names);
    LeftOvers found;
    for (std::string &name : names) {
        const auto parts = parts_of(name);
        const MakerState state = parts ? state_of(parts->maker) : MakerState::running;
        if (state != MakerState::running) {
            (state == MakerState::gone ? found.gone : found.unknown).push_back(std::move(name));
        }
    }
    return found;
}

bool is_trial_left_over(int directory, const std::string &name) {
    constexpr mode_t bits = 07777, closed = 0700;
    constexpr std::string_view made[] = {"Aa", "@eaDir", "._entry", "entry", "linked", "names"};
    const auto parts = parts_of(name);
    if (!parts || parts->suffix != kTrialSuffix || state_of(parts->maker) != MakerState::gone) {
        return false;
    }
    const Descriptor place = open_directory(directory, name);
    struct stat found {};
    if (place.get() < 0 || ::fstat(place.get(), &found) != 0 || (found.st_mode & bits) != closed ||
        (found.st_uid != ::geteuid() && ::geteuid() != 0)) {
        return false;
    }
    const auto names = names_in(place.get());
    return names && std::ranges::all_of(*names, [&](const std::string &one) {
               return std::ranges::find(made, one) != std::end(made) || maker_of(one);
           });
}

bool remove_left_over(int directory, const std::string &name) {
    struct stat around {};
    if (::unlinkat(directory, name.c_str(), 0) == 0) { // without a look before it, which may be wrong
        return true;
    }
    return errno == EISDIR && // a directory, which mostly is empty by now
           (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) == 0 ||
            (::fstat(directory, &around) == 0 && remove_tree(directory, name, around.st_dev)));
}

// Asked twice: an error may be one that is told only once.
std::optional<Problem> clear_away(int directory, const std::string &name) {
    if (remove_left_over(directory, name) || remove_left_over(directory, name) || errno == ENOENT) {
        return std::nullopt;
    }
    const int number = errno;
    Problem problem = problem_of_errno(number);
    problem.reason = fmt::format("{}, which stood there meanwhile, could not be removed: {}", name, problem.reason);
    return problem;
}

} // namespace engine
