// The list of a file's attributes, for callers that may have the file open.
#pragma once

#include "platform/core.h"
#include "support/file_ref.h"

namespace vexo {

// VEXOEAXattrEnum with a list that is there.
int list_attributes(const FileRef &file, VLIBCSzList **list);

} // namespace vexo
