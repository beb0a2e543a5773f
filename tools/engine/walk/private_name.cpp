#include "tools/engine/walk/private_name.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr std::string_view kPrefix = ".vexofileop-";

// Takes a number off the front; below 0: there is none, or one that no process has.
int64_t take_number(std::string_view &text) {
    int64_t number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number <= 0 || number > INT32_MAX) {
        return -1;
    }
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return number;
}

// The process that has made the name; 0: it is not of the form that anybody may remove. `suffix` gets what is behind.
pid_t maker_of(std::string_view name, std::string_view &suffix) {
    if (!is_private_name(name)) {
        return 0;
    }
    name.remove_prefix(kPrefix.size());
    const int64_t process = take_number(name);
    if (process < 0 || !name.starts_with('-')) {
        return 0;
    }
    name.remove_prefix(1);
    if (take_number(name) < 0 || !(name.empty() || name.front() == '.')) {
        return 0;
    }
    suffix = name;
    return static_cast<pid_t>(process);
}

bool is_running(pid_t process) {
    return ::kill(process, 0) == 0 || errno != ESRCH;
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

std::string next_private_name() {
    static std::atomic<int> last = 0;
    return fmt::format("{}{}-{}", kPrefix, ::getpid(), ++last);
}

bool is_private_name(std::string_view name) {
    return name.starts_with(kPrefix);
}

std::string_view without_suffix(std::string_view privateName) {
    std::string_view suffix;
    if (maker_of(privateName, suffix) == 0) {
        return {};
    }
    privateName.remove_suffix(suffix.size());
    return privateName;
}

std::vector<std::string> left_overs_in(int directory) {
    auto names = names_in(directory).value_or(std::vector<std::string>());
    std::erase_if(names, [](const std::string &name) {
        std::string_view suffix;
        const pid_t maker = maker_of(name, suffix);
        return maker == 0 || is_running(maker);
    });
    std::ranges::sort(names);
    return names;
}

bool remove_left_over(int directory, const std::string &name) {
    struct stat found {
    }, around{};
    if (::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 || ::fstat(directory, &around) != 0) {
        return false;
    }
    return S_ISDIR(found.st_mode) ? remove_tree(directory, name, around.st_dev)
                                  : ::unlinkat(directory, name.c_str(), 0) == 0;
}

} // namespace engine
