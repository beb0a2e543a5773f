// What a file's store of extended metadata consists of, so that a copy can be asked whether it has all of it: the
// library tolerates a store that it cannot carry, with a log line.
#pragma once

#include <string>

namespace engine {

struct StoreParts {
    bool stream = false;      // named attributes: "@eaDir/<name>@VexoEAStream"
    bool resource = false;    // Finder Info and resource fork: "@eaDir/<name>@VexoResource"
    bool appleDouble = false; // all of it in "._<name>", on a volume of that kind
    bool attribute = false;   // Finder Info in "user.netatalk.Metadata"

    bool any() const { return stream || resource || appleDouble || attribute; }
};

// What is kept for `path`, on a volume of the type `volumeType`. `noDirectory`: there is no "@eaDir" beside it.
StoreParts store_parts(const std::string &path, int volumeType, bool noDirectory = false);

// Whether "user.netatalk.Metadata" of a file or directory has anything in it.
bool has_metadata_attribute(const std::string &path);

// Whether a part of `before` has no counterpart in what is there at `destination`. Volumes of native attributes (type
// 7) are not judged: there every part can take any name.
bool parts_missing(const StoreParts &before, const std::string &destination, int volumeType);

} // namespace engine
