// Walking directories: names, totals, and where one directory lies in another.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace engine {

// The names in a directory, without "." and ".."; nothing, with errno, when it cannot be read. A symbolic link is not
// followed. No descriptor stays open, so that the depth of a tree costs none.
std::optional<std::vector<std::string>> names_in(const std::string &directory);
// Of one that is open, for whatever purpose (O_PATH too).
std::optional<std::vector<std::string>> names_in(int directory);

// The same of an open one, with what each entry is: DT_REG, DT_DIR …; DT_UNKNOWN for one that is gone again.
struct Entry {
    std::string name;
    unsigned char type;
};
std::optional<std::vector<Entry>> entries_in(int directory);

// The same one by one, so that a directory of any size takes no memory. False, with errno, when not all could be read.
bool each_entry(int directory, const std::function<void(const char *name, unsigned char type)> &visitor);

// What a tree holds for somebody who copies it: regular files and links, and the bytes of the files.
struct Totals {
    int64_t files = 0, bytes = 0;
    Totals &operator+=(const Totals &other) {
        files += other.files;
        bytes += other.bytes;
        return *this;
    }
};
// Entries that cannot be looked at count nothing. Ends early, with what it has, when `stopped` says so. `takes`: which
// entries are meant, with what lstat says of them; nothing in a directory that is not meant is counted.
using TakesEntry = std::function<bool(const std::string &path, const struct stat &entry)>;
Totals totals_of(const std::string &path, const std::function<bool()> &stopped, const TakesEntry &takes = {});

// Whether `path`, which need not exist, is the directory `directory` or lies below it, by whatever name: symbolic links
// and bind mounts are seen through.
bool lies_in(const std::string &path, const std::string &directory);

// Lets this process open as many files as it may.
void raise_descriptor_limit();

} // namespace engine
