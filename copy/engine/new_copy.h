// What may be said of a new file or directory at once, which takes a call for each word otherwise.
#pragma once

#include "ea/carry/known.h"
#include "platform/core.h"
#include "support/attribute_names.h"
#include "support/file_ref.h"

#include <cstdint>

namespace vexo {

// A copy that was made a moment ago, and its source; both are open.
struct NewCopy {
    FileRef src, dst;
    int32_t srcType, dstType;
    const AttributeNames &names; // the source's, on a volume that lists all of them
    StoreSeen seen;
};

// Gives times, DOS attributes, locked state and archive bit to a copy that nothing else belongs to, where the platform
// writes them in one step: true when it has. They are those of `source`, the source as it was looked at, like its owner
// and mode. `withMetadata`: what carrying the metadata comes to is among them, but for the users' attributes. Says
// nothing where anything is in the way: the steps follow one by one, and tell what it was.
bool set_record_at_once(const NewCopy &copy, const VLIBCStat &source, bool withMetadata);

// Gives the copy the ACL and the archived ACL of its source. 0, or what the platform answered.
int copy_acls_to_new(const NewCopy &copy, mode_t modeOfSource);

} // namespace vexo
