// The copy of what belongs to a file, for a walk that has looked for the stores of a whole directory.
#pragma once

#include "ea/ea.h"
#include "support/file_ref.h"

#include <string_view>

namespace vexo {

// What a walk has seen of the "@eaDir" of the two directories when it came to their first file.
enum class StoreSeen {
    unknown,
    neither, // nothing in one needs to be looked for
    source,  // whether there is one need not be asked
};

// VEXOEACopyInternal, with what the caller has seen.
int copy_ea(const FileRef &src, const FileRef &dst, int move, int fullDir, int srcKind, int dstKind,
            VEXOCopyArgsEx *options, VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp, StoreSeen seen);

// Whether there is certainly no "@eaDir" in a directory. Leaves errno alone.
bool lacks_ea_directory(std::string_view directory);

} // namespace vexo
