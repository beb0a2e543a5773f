// Moving a tree to another volume in two phases, so that the destination is never half filled: copy it into a staging
// directory "@tmp" beside the destination, then empty the destination and move the staged copy into place.
#pragma once

#include "support/callback.h"

namespace vexo {

// The texts of the two front doors, which differ in small things that log readers search for.
enum class RelocationTexts { share, file_operation };

struct RelocationRequest {
    bool keepSource;
    bool openDestination; // the moved directory gets mode 0777
    // Copies the source to the staged path; `cancelled` becomes true when the cancel callback stopped it.
    Callback<int(const char *src, const char *staged, bool *cancelled)> copy;
    RelocationTexts texts;
    const char *source; // the front door's name in log lines
};

// 0, or -1 with the last error, the source untouched and the staged copy removed.
int relocate(const char *src, const char *dst, const RelocationRequest &request);

} // namespace vexo
