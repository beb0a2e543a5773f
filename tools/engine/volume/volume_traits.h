// What volumes do with what belongs to a file, by their type codes. The one place of the engine that knows the codes.
#pragma once

#include <cstdint>

namespace engine {

// The ways in which volumes keep what belongs to a file.
enum class StoreKind { apple_double, native, ea_directory, file_ea, none };

struct VolumeTraits {
    StoreKind store = StoreKind::none;
    bool links = false;      // the library makes symbolic links there
    bool owners = true;      // files have owners
    bool fatNames = false;   // names change as the FAT family has it
    bool wholeTrees = false; // names stay as they are, links are taken, and stores lie in "@eaDir"
};

// The size from which on a file is too large for the volume of an open directory; 0: no limit is known.
uint64_t largest_file(int directory, int typeCode);

// Of a type that nobody knows: nothing beside a file, no links, owners.
VolumeTraits volume_traits(int typeCode);

inline StoreKind store_kind(int typeCode) {
    return volume_traits(typeCode).store;
}

// Whether volumes of a file system, by its magic number (statfs), list every attribute that a file has: those of this
// kernel's own do, where a server may leave some out.
bool lists_all_attributes(uint32_t magic);

// "\"@eaDir\"": where it is, for people.
const char *kind_text(StoreKind kind);

} // namespace engine
