// Makes an "@eaDir", or the directory of one file in it, so that everybody who may write the files beside it can write
// there: as root, open to all, and with the ACL that such directories have.
#include "ea/ea.h"

#include "ea/names/argument.h"
#include "platform/acl.h"
#include "platform/sdk.h"
#include "support/fs_type.h"
#include "support/guards.h"
#include "support/heap.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

using namespace vexo;

namespace {

constexpr mode_t kOpenToAll = 0777;

// The Finder Info of something that Mac clients do not show: zero but for the Finder flags, big-endian at byte 8, which
// hold kIsInvisible.
constexpr std::array<uint8_t, 32> kInvisible = [] {
    std::array<uint8_t, 32> info{};
    info[8] = 0x40;
    return info;
}();

int make_one(const char *path) {
    if (::mkdir(path, kOpenToAll) != 0) {
        // One that is there already, perhaps since a moment ago, stays as it is.
        return errno == EEXIST ? 0 : fail(Error::make_directory, VEXO_HERE);
    }
    if (::chmod(path, kOpenToAll) != 0) { // mkdir's mode was cut by the umask
        return fail(Error::file_operation, VEXO_HERE);
    }
    if (is_type(VEXOGetFSType(path, 0), FsType::hfsplus) &&
        VEXOEAXattrSet(path, "com.apple.FinderInfo", kInvisible.data(), kInvisible.size(), 0) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    (void)VEXOACLSetEADirACL(path); // volumes without ACLs refuse
    return 0;
}

int make_parent_and_one(char *path) {
    char *const slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (slash != path) { // else the parent is the root
        *slash = '\0';
        if (make_one(path) != 0) {
            return -1;
        }
        *slash = '/';
    }
    return make_one(path);
}

int make(int parentToo, const char *eaDirPath) {
    HeapString path(eaDirPath);
    if (!path) {
        return fail(Error::out_of_memory_ea, VEXO_HERE);
    }
    return parentToo != 0 ? make_parent_and_one(path.get()) : make_one(path.get());
}

} // namespace

int VEXOEAMKDir(int parentToo, const char *eaDirPath) {
    if (eaDirPath == nullptr) {
        return refuse_argument("((void *)0) != szEADirPath", VEXO_HERE);
    }
    RootPeriod root;
    if (!root.become_root()) {
        VEXO_LOG_DEBUG(VEXO_HERE, "Failed to seteuid to %d(errno:%d %m)", 0, errno);
        return fail(Error::make_directory, VEXO_HERE);
    }
    const int result = make(parentToo, eaDirPath);
    const KeepErrno keep;
    if (!root.restore()) {
        VEXO_LOG_DEBUG(VEXO_HERE, "Failed to seteuid %d(errno:%d %m)", static_cast<int>(root.before()), errno);
    }
    return result;
}
