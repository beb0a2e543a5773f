// What a call must leave in the process as it found it.
#pragma once

#include <ostream>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kit {

// From here on descriptors are the kit's own: above what a test counts or closes.
inline constexpr int kLeastUncountedDescriptor = 900;

struct ProcessState {
    std::vector<std::string> descriptors; // "3 -> /path"
    mode_t umask;
    uid_t effectiveUser;
    gid_t effectiveGroup;
    std::string workingDirectory;

    static ProcessState now();
    bool operator==(const ProcessState &) const = default;
};

std::ostream &operator<<(std::ostream &out, const ProcessState &state);

} // namespace kit
