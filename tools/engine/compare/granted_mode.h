// What the mode of an entry with an ACL does not say: there the group's bits are those of the mask.
#pragma once

#include <string>
#include <sys/types.h>

namespace engine {

// `mode`, that of the entry `path`, with what the owning group may do: its own entry, as far as the mask lets it. The
// mode itself where there is no ACL; no rights for the group where the ACL cannot be read. A link is followed.
mode_t granted_mode(const std::string &path, mode_t mode);

// The mode for a copy `to` of an entry `from` of the mode `mode`, which has got the ACL of that or has not: never more
// for the owning group than the source gives it.
mode_t mode_for_copy(const std::string &from, mode_t mode, const std::string &to);

} // namespace engine
