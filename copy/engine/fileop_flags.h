// The flag word of the file-operation entry points.
#pragma once

#include <cstdint>

namespace vexo {

enum FileOpFlag : uint32_t {
    kFileOpFailIfExists = 1,    // wins over the next
    kFileOpReplace = 2,         // neither of the two: an existing destination stays as it is
    kFileOpMove = 4,            // rename; across volumes copy, then remove the source
    kFileOpKeepOwner = 8,       // the source's owner and group; else those of the record
    kFileOpAsCaller = 16,       // owner and times as the current user; an owner not set makes a success 0xFA00
    kFileOpCopyAcl = 32,        // with the archive ACL
    kFileOpEnforceInherit = 64, // after a success
    kFileOpStopOnError = 128,   // trees: a failed entry ends the walk
    kFileOpNoMetadata = 256,    // the extended-attribute store stays behind
    kFileOpWholeEaDir = 512,    // carry everything in the source's EA directory along
    kFileOpClone = 1024,        // share extents where the volume can
    kFileOpRelocate = 2048,     // trees: through "@tmp" beside the destination; there kFileOpMove keeps the source
};

} // namespace vexo
