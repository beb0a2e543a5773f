// The directories and files that stores consist of, as whoever checks or mends them opens them: by descriptor, no link
// followed, nothing waited for, and no access time changed where that can be had.
#pragma once

#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/descriptor.h"

#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

// An open directory of users' files.
struct StorePlace {
    int directory;
    std::string path; // as the user knows it
    std::string top;  // the operand that it was found below, or is; `below` leads from there, "" or "a/b"
    std::string below;
    StoreKind kind;
};

// "@eaDir" of an open directory. A descriptor of -1, with errno, where there is none.
Descriptor open_stores(int directory);

struct StoreFileHeld {
    Descriptor file{-1};
    struct stat status {};
};
// A regular file, looked at before it is opened. `flags`: O_RDONLY or O_RDWR. A descriptor of -1, with errno: EINVAL
// for what is no regular file.
StoreFileHeld open_store_file(int directory, const std::string &name, int flags);

// Whether the name still is that of the open file.
bool is_still(int directory, const std::string &name, const struct stat &file);

// Holds the file's lock (F_RDLCK, F_WRLCK) until it is closed. False: somebody else has it.
bool lock_store_file(int fd, int kind);

// The value of the metadata attribute of an entry of an open directory; no link is followed. Nothing: it has none.
// Throws Failure.
std::optional<std::string> metadata_of(int directory, const std::string &name);

} // namespace engine
