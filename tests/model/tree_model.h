// The copy and the move of a directory tree, as plainly as they can be said: both families. Files, stores and what the
// platform does are other operations, which the model calls.
#pragma once

#include "copy/copy.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace model {

// What a call was given. Of the records those that the family has, or null.
struct TreeCall {
    bool fileOperation = false, clone = false;
    int srcKind = 0, dstKind = 0;
    uint32_t flags = 0;
    VEXOCopyOpt *opt = nullptr;
    VEXOCopyArgsEx *ex = nullptr;
    VEXOCopyArgs *args = nullptr; // never null in the family of the flag word

    std::string source() const {
        return fileOperation ? "copy/fileop_copy_file_directory.c" : "copy/copy_file_copy_directory.c";
    }
    bool move() const { return fileOperation ? (flags & 4) != 0 : opt != nullptr && opt->move != 0; }
    bool replaces() const { return fileOperation ? (flags & 3) == 2 : opt != nullptr && opt->overwrite == 1; }
    bool stops() const { return fileOperation ? (flags & 0x80) != 0 : opt != nullptr && opt->stopOnError != 0; }
    bool keepsOwner() const { return fileOperation ? (flags & 8) != 0 : opt != nullptr && opt->ownerMode == 1; }
    bool copiesAcl() const { return fileOperation ? (flags & 0x20) != 0 : opt != nullptr && opt->copyAcl != 0; }
    bool cleans() const { return fileOperation ? args->cleanArchive != 0 : opt != nullptr && opt->cleanArchive != 0; }
    uint32_t uid() const { return fileOperation ? args->uid : opt != nullptr ? opt->uid : 0; }
    uint32_t gid() const { return fileOperation ? args->gid : opt != nullptr ? opt->gid : 0; }
};

// 0, or -1 with the last error set.
int copyTree(std::string src, std::string dst, const TreeCall &call);

} // namespace model
