#include "tools/engine/walk/directory.h"

#include "ea/ea.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

struct CloseDirectory {
    void operator()(DIR *directory) const { ::closedir(directory); }
};

// Calls `task` with the open directory and each entry. False, with errno, when not all could be read.
template <typename Task>
bool visit(int parent, const char *directory, int flags, const Task &task) {
    const int fd = ::openat(parent, directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | flags);
    if (fd < 0) {
        return false;
    }
    const std::unique_ptr<DIR, CloseDirectory> stream(::fdopendir(fd));
    if (stream == nullptr) {
        const int number = errno;
        ::close(fd);
        errno = number;
        return false;
    }
    errno = 0;
    while (const dirent *const entry = ::readdir(stream.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            task(fd, *entry);
        }
        errno = 0;
    }
    return errno == 0;
}

// Of an open one. A look that leaves no trace is for the owner and for root.
template <typename Found, typename Task>
bool visit_without_trace(int directory, Found &found, const Task &task) {
    if (visit(directory, ".", O_NOATIME, task)) {
        return true;
    }
    found.clear();
    return errno == EPERM && visit(directory, ".", 0, task);
}

// For a volume that does not tell it along with the name.
unsigned char type_of(int directory, const char *name) {
    struct stat found {};
    const bool there = ::fstatat(directory, name, &found, AT_SYMLINK_NOFOLLOW) == 0;
    return there ? static_cast<unsigned char>(IFTODT(found.st_mode)) : static_cast<unsigned char>(DT_UNKNOWN);
}

bool same_file(const struct stat &left, const struct stat &right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// The nearest directory on the way to `path` that exists.
std::string existing_part(std::string path) {
    struct stat found {};
    while (path != "/" && (::stat(path.c_str(), &found) != 0 || !S_ISDIR(found.st_mode))) {
        path = parent_of(path);
    }
    return path;
}

std::string resolved(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? path : real.get();
}

// From `from` to the root by "..", which nothing can disguise.
bool passes_through(const std::string &from, const struct stat &wanted) {
    constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    Descriptor at(::open(from.c_str(), flags));
    struct stat here {};
    if (at.get() < 0 || ::fstat(at.get(), &here) != 0) {
        return false;
    }
    while (!same_file(here, wanted)) {
        Descriptor above(::openat(at.get(), "..", flags));
        struct stat next {};
        if (above.get() < 0 || ::fstat(above.get(), &next) != 0 || same_file(next, here)) {
            return false;
        }
        here = next;
        at.swap(above);
    }
    return true;
}

} // namespace

std::optional<std::vector<std::string>> names_in(const std::string &directory) {
    std::vector<std::string> names;
    const auto add = [&](int, const dirent &entry) { names.emplace_back(entry.d_name); };
    return visit(AT_FDCWD, directory.c_str(), 0, add) ? std::optional(std::move(names)) : std::nullopt;
}

std::optional<std::vector<std::string>> names_in(int directory) {
    std::vector<std::string> names;
    const auto add = [&](int, const dirent &entry) { names.emplace_back(entry.d_name); };
    return visit_without_trace(directory, names, add) ? std::optional(std::move(names)) : std::nullopt;
}

std::optional<std::vector<Entry>> entries_in(int directory) {
    std::vector<Entry> entries;
    const auto add = [&](int fd, const dirent &entry) {
        entries.push_back({entry.d_name, entry.d_type == DT_UNKNOWN ? type_of(fd, entry.d_name) : entry.d_type});
    };
    return visit_without_trace(directory, entries, add) ? std::optional(std::move(entries)) : std::nullopt;
}

bool each_entry(int directory, const std::function<void(const char *name, unsigned char type)> &visitor) {
    bool any = false;
    const auto tell = [&](int fd, const dirent &entry) {
        any = true;
        visitor(entry.d_name, entry.d_type == DT_UNKNOWN ? type_of(fd, entry.d_name) : entry.d_type);
    };
    return visit(directory, ".", O_NOATIME, tell) || (!any && errno == EPERM && visit(directory, ".", 0, tell));
}

Totals totals_of(const std::string &path, const std::function<bool()> &stopped, const TakesEntry &takes) {
    Totals totals;
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0 || stopped() || (takes && !takes(path, found))) {
        return totals;
    }
    if (!S_ISDIR(found.st_mode)) {
        totals.files = S_ISREG(found.st_mode) || S_ISLNK(found.st_mode) ? 1 : 0;
        totals.bytes = S_ISREG(found.st_mode) ? found.st_size : 0;
        return totals;
    }
    for (const std::string &name : names_in(path).value_or(std::vector<std::string>())) {
        if (VEXOEAIsHiddenDir(name.c_str()) != 1 && !name.starts_with("._")) {
            totals += totals_of(joined(path, name), stopped, takes);
        }
    }
    return totals;
}

bool lies_in(const std::string &path, const std::string &directory) {
    struct stat wanted {};
    if (::stat(directory.c_str(), &wanted) != 0) {
        return false;
    }
    const std::string from = existing_part(path);
    const std::string above = resolved(directory), below = resolved(from);
    return below == above || below.starts_with(above == "/" ? above : above + "/") || passes_through(from, wanted);
}

void raise_descriptor_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        (void)::setrlimit(RLIMIT_NOFILE, &limit); // Less deep trees still work.
    }
}

} // namespace engine
