// What an AppleDouble file and a stream hold, brought into another file.
#pragma once

namespace vexo {

// Copies one AppleDouble file into another in the form of two entries: Finder Info and resource fork. Attributes in the
// source are not carried. Results below 0 as the routines log them; kOneFile where both are one file, under two names,
// and nothing was done.
enum class ConvertMode { checked = 0, plain = 1, as_is = 2, checked_as_is = 3 };
int convert_apple_double(const char *from, const char *to, ConvertMode mode);

// The same for the routines of a copy, which log a failure.
int convert_or_log(const char *from, const char *to, ConvertMode mode);

// How many attributes an AppleDouble file holds: none where it has no entry for Finder Info, behind which they would
// lie. -1 with the error.
int attribute_count(int fd);

// Writes all attributes of one stream into another, over those of the same names. 0, or -1 when any failed; how many is
// not told, since it could be taken for "cannot be converted".
int write_attributes(int from, int to);

} // namespace vexo
