// Where a volume keeps what belongs to a file: the four kinds of store, and the names of the streams in "@eaDir".
#pragma once

#include <cstdint>

namespace vexo {

enum class StoreKind {
    apple_double, // a "._" file beside the file
    native_xattr, // the file's own attributes, Apple's among them
    ea_directory, // everything in "@eaDir"
    file_ea,      // metadata header in an attribute, streams in "@eaDir"
    other,        // keeps nothing of it
};

// The kind of store on a volume of that type code.
constexpr StoreKind store_kind(int32_t code) {
    switch (code) {
    case 0:
    case 5:
    case 18:
        return StoreKind::apple_double;
    case 7:
        return StoreKind::native_xattr;
    case 1:
    case 6:
    case 10:
    case 19:
    case 22:
        return StoreKind::ea_directory;
    case 2:
    case 3:
        return StoreKind::file_ea;
    default:
        return StoreKind::other;
    }
}

// Streams lie in "@eaDir": every kind but the AppleDouble kind can have them there.
constexpr bool keeps_streams(StoreKind kind) {
    return kind == StoreKind::native_xattr || kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
}

inline constexpr char kEaDirectoryName[] = "@eaDir";
inline constexpr char kResourceStream[] = "VexoResource";
inline constexpr char kEaStream[] = "VexoEAStream";

// Arguments of VEXOEAPath and VEXOEADirPath: the current layout, the older one, and which directory is meant.
inline constexpr int kCurrentLayout = 1;
inline constexpr int kOlderLayout = 0;
inline constexpr int kStreamCompanion = 0;
inline constexpr int kAppleDoubleCompanion = 1;
inline constexpr int kSharedDirectory = 1;
inline constexpr int kPerFileDirectory = 0;

} // namespace vexo
