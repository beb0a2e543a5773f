// The shares of this machine as Samba's configuration has them: /etc/samba/smb.conf, or the file that the environment
// variable VEXOFILEOP_SMB_CONF names in a program that runs with no more rights than its user.
//
// Of a share these parameters are read: "path" (also "directory"), "vexo:index", "vexo:encrypted", "vfs objects" and
// "recycle:repository"; those in [global] stand for the shares that come after. Names of shares and parameters are
// compared without case, blanks in parameter names do not count, a "\" at the end of a line continues it, and files
// named by "include" are read in place. Of the substitutions only "%S" (the share's name) is made: a path with another
// one is a different folder for everybody who connects, and so no folder that could be looked up. In [homes] "%S", "%U"
// and "%u" are the user.
#pragma once

#include "support/callback.h"
#include "support/path_buffer.h"

#include <cstdint>
#include <string_view>

namespace vexo {

// Room for a share's name, NUL included. The protocol has 80 letters of up to 4 bytes.
inline constexpr size_t kShareNameSize = 81 * 4;

struct ShareSection {
    char name[kShareNameSize] = {};
    PathBuffer path;       // empty: it has none
    PathBuffer repository; // of the recycle bin, below the path; empty: it has none
    bool indexed = false;
    bool encrypted = false;

    std::string_view name_view() const { return name; }
    bool is_homes() const;
    // A folder that can be looked up: it has a path from the root, the same for everybody.
    bool is_folder() const;
};

enum class SmbConf {
    read,   // all sections seen, or the visitor had enough
    none,   // there is no such file: no shares
    broken, // it cannot be read or understood to the end; errno tells
};

// Calls `visit` for each section but [global], until it answers false. Says nothing.
SmbConf visit_shares(Callback<bool(const ShareSection &)> visit);

// Whether two names are the same share: all blanks inside count, case does not.
bool same_share(std::string_view one, std::string_view other);

// Whether the share holds `path`, by the text of the path as it is configured or of what that resolves to; `sharePath`
// is then the one of the two that matched.
bool share_holds(const ShareSection &share, std::string_view path, PathBuffer &sharePath);

} // namespace vexo
