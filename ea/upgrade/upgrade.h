// Converting one store of a file from the old layout, which kept every attribute as a small file of its own in the
// file's directory in "@eaDir" and named streams with ":", into the current one.
//
// Everything reports under the name of the front door, and gives one of the results below or -1 with the last error.
#pragma once

namespace vexo {

inline constexpr char kUpgradeSource[] = "ea/ea_upgrade.c";
#define VEXO_UPGRADE_HERE VEXO_AT(::vexo::kUpgradeSource)

inline constexpr int kConverted = 0;
inline constexpr int kAlreadyCurrent = 1;
inline constexpr int kNothingOld = 2;

// What all names of streams begin with in the old layout.
inline constexpr char kOldPrefix[] = "VEXO";

// The attribute files, or the "._" file where that is newer, become the attribute stream.
int upgrade_attributes(const char *path);
// The resource becomes the resource stream, and what it says of the file itself becomes the file's.
int upgrade_resource(const char *path);
// Any other stream gets its name of the current layout.
int upgrade_stream(const char *path, const char *streamName);

// Whether something stands there: 1 or 0; -1 with the error where that cannot be told.
int look_for_store(const char *path);
// What was emptied goes; what still holds something stays. The result of the conversion, whose errno stays, or -1.
int remove_old_directory(const char *directory, int result);

// Carries what an AppleDouble resource says of the file itself, that it is locked or hidden, into the file. Best
// effort: a failure leaves its code, and the file as far as it got.
void carry_file_flags(const char *resource, const char *path);

} // namespace vexo
