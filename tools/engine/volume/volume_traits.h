// The ways in which volumes keep what belongs to a file.
#pragma once

namespace tool {

enum class StoreKind { apple_double, native, ea_directory, file_ea, none };

// By the type code of the volume.
StoreKind store_kind(int typeCode);

// "\"@eaDir\"": where it is, for people.
const char *kind_text(StoreKind kind);

} // namespace tool
