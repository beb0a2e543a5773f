// Writing a whole buffer to a descriptor.
#pragma once

#include <cstdint>

namespace vexo {

// Writes everything, however many calls it takes. The number of bytes that were
// taken, cut to an int, or -1 with errno. A length below 1 is answered as it is.
int write_file(int fd, const void *bytes, int64_t length);

} // namespace vexo
