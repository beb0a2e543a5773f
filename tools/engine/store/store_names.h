// Names of what holds what belongs to entries, and which names in a directory are entries of their own.
#pragma once

#include <string>

namespace engine {

inline constexpr char kStoreName[] = "@eaDir";      // what holds what belongs to the entries beside it
inline constexpr char kEaStream[] = "VexoEAStream"; // the stream file with the attributes
inline constexpr int kCurrentLayout = 1;            // of a store, to the library

enum class NameKind {
    ordinary,
    store,     // "@eaDir": what it holds belongs to the entries beside it
    companion, // "._name" of an entry `name` on a volume that keeps metadata so
    stray,     // "._name" of anything else; "@eaDir" that is no directory; "@EADIR" where that is another name
    system,    // "@tmp", "@sharebin": of the appliance; and what a command that is gone has left unfinished
};
// What a name in `directory`, on a volume of the type `volumeType`, is to a copy of the tree.
NameKind name_kind(const std::string &directory, const std::string &name, int volumeType);

// Whether a name is "@eaDir" to a volume that tells letter cases apart, or to one that does not.
bool is_store_name(const std::string &name);

} // namespace engine
