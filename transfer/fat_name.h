// A destination path that a volume of the FAT family takes.
#pragma once

namespace vexo {

// Leaves `path` in `out` (of `size` bytes, cut to it) with the characters that such a volume reserves replaced in the
// last component. 0, or -1 with the last error.
int replace_fat_reserved(const char *path, char *out, int size);

} // namespace vexo
