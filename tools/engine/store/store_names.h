// Which names in a directory are entries of their own, and which hold what belongs to others.
#pragma once

#include <string>

namespace engine {

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
