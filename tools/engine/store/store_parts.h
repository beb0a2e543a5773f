// What a file's store of extended metadata consists of.
#pragma once

#include <string>
#include <string_view>

namespace engine {

struct StoreParts {
    bool stream = false;      // named attributes: "@eaDir/<name>@VexoEAStream"
    bool resource = false;    // Finder Info and resource fork: "@eaDir/<name>@VexoResource"
    bool appleDouble = false; // all of it in "._<name>", on a volume of that kind
    bool attribute = false;   // Finder Info in "user.netatalk.Metadata"
    int trouble = 0;          // why some of it could not be looked for, as errno has it

    bool any() const { return is_beside() || attribute; }
    bool is_beside() const { return stream || resource || appleDouble; } // of the file
};

// What is kept for `path`, on a volume of the type `volumeType`. `noDirectory`: there is no "@eaDir" beside it.
StoreParts store_parts(const std::string &path, int volumeType, bool noDirectory = false);
// The same of a file without an "@eaDir" beside it, by the names of its attributes as listxattr() gives them; not for
// volumes of AppleDouble files.
StoreParts store_parts_in(std::string_view names);
bool is_listed(std::string_view names, std::string_view name);

// Whether a directory on a volume of "._" files takes the name of the one beside an entry.
bool takes_companion(int directory, const std::string &name);

} // namespace engine
