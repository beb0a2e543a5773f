// The routines that carry everything between one pair of kinds of store, and the steps that every pair has in common. A
// routine reports what went wrong itself and returns 0, or a negative number; errno is that of the failure.
#pragma once

#include "ea/carry/job.h"

namespace vexo {

int copy_adfs_to_adfs(const EaCopyJob &job);
int copy_adfs_to_xattrs(const EaCopyJob &job);
int copy_adfs_to_ea_directory(const EaCopyJob &job);
int copy_adfs_to_file_ea(const EaCopyJob &job);
int copy_xattrs_to_adfs(const EaCopyJob &job);
int copy_xattrs_to_xattrs(const EaCopyJob &job);
int copy_xattrs_to_ea_directory(const EaCopyJob &job);
int copy_xattrs_to_file_ea(const EaCopyJob &job);
int copy_ea_directory_to_adfs(const EaCopyJob &job);
int copy_ea_directory_to_xattrs(const EaCopyJob &job);
int copy_ea_directory_to_ea_directory(const EaCopyJob &job);
int copy_ea_directory_to_file_ea(const EaCopyJob &job);
int copy_file_ea_to_adfs(const EaCopyJob &job);
int copy_file_ea_to_xattrs(const EaCopyJob &job);
int copy_file_ea_to_ea_directory(const EaCopyJob &job);
int copy_file_ea_to_file_ea(const EaCopyJob &job);

// The rest of the source's directory in "@eaDir", and what a move leaves behind.
int carry_rest(const EaCopyJob &job);

// Carries the locked state; kinds of -1 are looked up. 0 or -1, reported.
int copy_lock(EaCopyJob job);

} // namespace vexo
