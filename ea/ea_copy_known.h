// The copy of what belongs to a file, for a walk that has looked for the stores of a whole directory.
#pragma once

#include "copy/copy.h"
#include "support/file_ref.h"

#include <string_view>

namespace vexo {

// VEXOEACopyInternal; `noStore`: neither of the two directories had an "@eaDir" when the caller looked.
int copy_ea(const FileRef &src, const FileRef &dst, int move, int fullDir, int srcKind, int dstKind,
            VEXOCopyArgsEx *options, VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp, bool noStore);

// Whether there is certainly no "@eaDir" in a directory. Leaves errno alone.
bool lacks_ea_directory(std::string_view directory);

} // namespace vexo
