// Named pipes, device nodes and sockets, which are made anew and never opened: the one waits for its other end, and a
// device may do something as soon as it is open.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/report/problem.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace engine {

constexpr bool is_special(mode_t mode) {
    return S_ISFIFO(mode) || S_ISCHR(mode) || S_ISBLK(mode) || S_ISSOCK(mode);
}

struct SpecialRefusal {
    Problem problem;
    std::vector<Loss> losses = {}; // "special-file" where the volume or the rights of this user are the reason
};

// Makes `made`, in an open directory, as what the entry of another one is, with its owner, mode, ACL, attributes of the
// system and times, as far as they go: what of that is not there a comparison tells. Nothing: it is made. EEXIST as a
// problem: something stands under that name.
std::optional<SpecialRefusal> make_special(int from, const std::string &source, const struct stat &entry, int to,
                                           const std::string &made);

} // namespace engine
