// Moving a tree to another volume in two phases, so that the destination is never half filled: copy it into a staging
// directory "@tmp" beside the destination, then empty the destination and move the staged copy into place.
#pragma once

#include "support/callback.h"
#include "support/report.h"

namespace vexo {

// What the two front doors say differently. Each is one log line, with the two paths that it names.
enum class RelocationEvent {
    staging_not_made,        // the staging directory
    staging_not_cleaned,     // the staged path
    destination_not_cleaned, // the destination
    not_copied,              // the source, the staged path
    stage_failed,            // the source, the destination
    not_moved,               // the staged path, the destination
    source_not_removed,      // the source
    staged_not_removed,      // the staged path
    commit_failed,           // the source, the destination
    bad_arguments,
};

struct RelocationRequest {
    bool keepSource;
    bool openDestination; // the moved directory gets mode 0777
    // Copies the source to the staged path; `cancelled` becomes true when the cancel callback stopped it.
    Callback<int(const char *src, const char *staged, bool *cancelled)> copy;
    void (*log)(RelocationEvent event, Place place, const char *first, const char *second);
    const char *source; // the front door's name in log lines
};

// 0, or -1 with the last error, the source untouched and the staged copy removed.
int relocate(const char *src, const char *dst, const RelocationRequest &request);

} // namespace vexo
