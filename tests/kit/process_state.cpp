#include "tests/kit/process_state.h"

#include "tests/kit/scratch.h"

#include <array>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace kit {

ProcessState ProcessState::now() {
    ProcessState state{};
    for (const std::string &number : namesIn("/proc/self/fd")) {
        if (std::stoi(number) >= kLeastUncountedDescriptor) {
            continue;
        }
        std::array<char, PATH_MAX> target{};
        const std::string link = "/proc/self/fd/" + number;
        if (::readlink(link.c_str(), target.data(), target.size() - 1) > 0) { // not the stream that listed them
            // That somebody removed the file meanwhile is no change of the descriptor.
            const std::string text = target.data();
            state.descriptors.push_back(number + " -> " + text.substr(0, text.rfind(" (deleted)")));
        }
    }
    state.umask = ::umask(0);
    ::umask(state.umask);
    state.effectiveUser = ::geteuid();
    state.effectiveGroup = ::getegid();
    std::array<char, PATH_MAX> directory{};
    if (::getcwd(directory.data(), directory.size()) != nullptr) {
        state.workingDirectory = directory.data();
    }
    return state;
}

std::ostream &operator<<(std::ostream &out, const ProcessState &state) {
    out << "umask " << std::oct << state.umask << std::dec << ", user " << state.effectiveUser << ", group "
        << state.effectiveGroup << ", in " << state.workingDirectory << ", open:";
    for (const std::string &descriptor : state.descriptors) {
        out << "\n  " << descriptor;
    }
    return out;
}

} // namespace kit
