// Writing a whole buffer to a descriptor.
#pragma once

#include <cstdint>

namespace vexo {

// Writes everything, however many calls it takes. The number of bytes, cut to an int, or -1 with errno.
int write_file(int fd, const void *bytes, int64_t length);

} // namespace vexo
