// Looking at an entry.
#pragma once

#include <optional>
#include <string>
#include <sys/stat.h>
#include <time.h>

namespace engine {

// The entry itself, where a symbolic link is a link; nothing, with errno, where there is none.
inline std::optional<struct stat> look(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 ? std::optional(found) : std::nullopt;
}

// What it leads to.
inline std::optional<struct stat> look_through(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 ? std::optional(found) : std::nullopt;
}

inline bool exists(const std::string &path) {
    return look(path).has_value();
}

// Whether both are there and are one thing.
inline bool same(const std::optional<struct stat> &left, const std::optional<struct stat> &right) {
    return left && right && left->st_dev == right->st_dev && left->st_ino == right->st_ino;
}

inline timespec older_of(const timespec &one, const timespec &other) {
    const bool first = one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
    return first ? one : other;
}

} // namespace engine
