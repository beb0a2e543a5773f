// The copy of what belongs to a file, for an engine that knows some of it already: what it was told is not asked again.
#pragma once

#include "copy/copy.h"

#include <optional>
#include <string_view>

namespace vexo {

// The defaults know nothing.
struct KnownOfFile {
    // Neither of the two directories had an "@eaDir" when it was looked for.
    bool noStore = false;
    // The platform's locked flag of the source, from its status.
    std::optional<bool> locked = {};
};

// VEXOEACopyInternal with that knowledge.
int copy_ea(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind, VEXOCopyArgsEx *options,
            VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp, const KnownOfFile &known);

// Whether there is certainly no "@eaDir" in a directory. Leaves errno alone.
bool lacks_ea_directory(std::string_view directory);

} // namespace vexo
