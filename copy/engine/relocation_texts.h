// What a relocation says in the log: one line an event, in the words of the front door that runs it.
#pragma once

#include "copy/engine/relocation.h"
#include "support/report.h"

namespace vexo {

// Each with the two paths that it names.
enum class RelocationEvent {
    bad_arguments,
    staging_not_made,        // the staging directory
    staging_not_cleaned,     // the staged path
    destination_not_cleaned, // the destination
    not_copied,              // the source, the staged path
    stage_failed,            // the source, the destination
    not_moved,               // the staged path, the destination
    source_not_removed,      // the source
    staged_not_removed,      // the staged path
    commit_failed,           // the source, the destination
};

void log_relocation(RelocationTexts texts, RelocationEvent event, Place place, const char *first, const char *second);

} // namespace vexo
