// The copy of what belongs to a file, for a walk that has looked for the stores of a whole directory.
#pragma once

#include "ea/ea.h"
#include "support/attribute_names.h"
#include "support/file_ref.h"

#include <string_view>

namespace vexo {

// What a walk has seen of the "@eaDir" of the two directories when it came to their first file.
enum class StoreSeen {
    unknown,
    neither, // nothing in one needs to be looked for
    source,  // whether there is one need not be asked
};

// What a copy knows of a file by the time its metadata are carried.
struct KnownOfFile {
    StoreSeen seen = StoreSeen::unknown;
    // The source's attributes, on a volume that lists all of them; null where they are not known.
    const AttributeNames *names = nullptr;
    // Source and destination have been seen to be two files.
    bool apart = false;
    // The file is plain, and its copy has been given locked state, archive bit and what the platform's record says.
    bool recordSet = false;
};

// Whether what belongs to a file or directory comes to its attributes, its locked state and the archive bit of the
// copy: it has no store, nor has one of the copy's name. Where that is unknown it is looked for.
bool is_plain_file(const char *src, const char *dst, int srcKind, int dstKind, StoreSeen seen,
                   const AttributeNames &names);

// VEXOEACopyInternal, with what the caller knows.
int copy_ea(const FileRef &src, const FileRef &dst, int move, int fullDir, int srcKind, int dstKind,
            VEXOCopyArgsEx *options, VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp, const KnownOfFile &known);

// Whether there is certainly no "@eaDir" in a directory. Leaves errno alone.
bool lacks_ea_directory(std::string_view directory);

} // namespace vexo
