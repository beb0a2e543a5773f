// What an entry has that another has not, whatever the two volumes keep it in.
#pragma once

#include "platform/core.h"
#include "tools/engine/compare/side.h"
#include "tools/engine/losses/loss.h"

#include <functional>
#include <sys/stat.h>
#include <vector>

namespace engine {

struct CompareOptions {
    bool data = false;  // content, and values of any length, are read; else sizes and short values decide
    bool times = true;  // modification and creation time
    bool begun = false; // some of `a` was removed already: times of directories in "@eaDir" say nothing
    bool rest = false;  // of what `a` keeps only some may be left: what only `b` keeps is no difference
    bool costs = false; // what only takes more room: holes that were filled, links that became files
    // No access time of a symbolic link changes. Where that takes a private mount that this user may not make, one of
    // the same length is taken for the same.
    bool traceless = false;
    bool kept = true; // what lies in "@eaDir" for the entry and is no part of a store
    // The source as it was before its times were touched: those of its status count then. Null: as it is.
    const VLIBCStat *before = nullptr;
    std::function<bool()> stopped = {}; // asked while data are read; an end by it is a loss of the class "unreadable"
    std::function<void(int64_t bytes)> progress = {}; // so many more bytes of the content of `a` are done
};

// What differs between the source `a` and what stands at `b`; nothing: `b` has all of it. Directories are compared
// without what is in them. An entry that is missing at `b` is one loss, of "data", "symbolic-link" or "special-file";
// one that is missing at `a`, and whatever cannot be read at either side, is "unreadable". Throws nothing.
//
// With an entry goes what other services keep for it in a directory of its own in "@eaDir", and with a directory an
// "@eaDir" in it that holds nothing: what differs there is a loss of the entry.
//
// What a copy sets on purpose is no difference: the archive attribute that only `b` has. Where `a`'s volume has no
// owners none can be lost. Access times are not compared; labels of security modules (SELinux, Smack, EVM) and settings
// of a volume ("btrfs.") neither, since the system gives them to a file where it lies.
//
// Two names of one file differ in nothing: that they are two is for the caller to see before it removes one.
//
// A pair of plain files, without attributes and with nothing beside them, costs for each side the platform's extended
// stat and a list of attributes, and no descriptor. Of more than that the entries are opened (O_PATH) and asked by
// descriptor, and it is told when they are no longer those that were looked at.
std::vector<Loss> compare_entries(const Side &a, const Side &b, const CompareOptions &options = {});

// The same for a caller that wants to know what was seen at the first look, when both are there, and may end it by
// false.
using FirstLook = std::function<bool(const struct stat &a, const struct stat &b)>;
std::vector<Loss> compare_entries(const Side &a, const Side &b, const CompareOptions &options, const FirstLook &look);

// Says why where a copy has no store since the name of the "._" file beside `name`, its own, would be too long.
void add_companion_too_long(const Side &copy, const std::string &name, std::vector<Loss> &losses);

// Of an entry that finds another one under its name, which is not to be replaced: two names have become one, unless the
// volume may just hold no entries of its type.
LossClass class_of_clash(mode_t entry, mode_t there);

// How many bytes of a file are data at most, where its volume does not tell where the holes are. Copies fill those.
int64_t most_data(const struct stat &file, const VolumeFacts &volume);

} // namespace engine
