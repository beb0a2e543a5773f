// Keeping the metadata attribute of a volume that has one in step with the resource file, before and after a copy.
#pragma once

#include "ea/carry/job.h"

namespace vexo {

// What every routine from a file-EA source begins with: brings the source's metadata attribute back into its resource
// file, and carries its users' attributes where the destination takes them. 1: there are streams to carry; 0: none;
// negative: failed, reported.
int begin_file_ea(const EaCopyJob &job, bool userAttributes);

// Brings the destination's metadata attribute up to date with its resource file, where it has one. 0 or -1, reported.
int sync_destination(const EaCopyJob &job);

// The metadata attribute of a moved source goes. 0 or -1, reported.
int drop_metadata_attribute(const EaCopyJob &job);

} // namespace vexo
