// Makes an "@eaDir", or the directory of one file in it, so that everybody who may write the files beside it can write
// there: as root, open to all, and with the ACL that such directories have.
#include "ea/ea.h"

#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/argument.h"
#include "ea/names/entry.h"
#include "platform/acl.h"
#include "platform/sdk.h"
#include "support/file_ref.h"
#include "support/fs_type.h"
#include "support/guards.h"
#include "support/heap.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
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

// By way of the open directory, for by its path it may be something else by now. Volumes without ACLs refuse.
void set_acl(int fd, const char *path) {
    std::array<char, sizeof "/proc/self/fd/" + 10> open{};
    std::snprintf(open.data(), open.size(), "/proc/self/fd/%d", fd);
    if (VEXOACLSetEADirACL(open.data()) < 0 && errno == ENOENT) { // a root without /proc
        (void)VEXOACLSetEADirACL(path);
    }
}

int make_one(const char *path) {
    if (make_store_directory(path, kOpenToAll) != 0) {
        // One that is there already, perhaps since a moment ago, stays as it is.
        return errno == EEXIST ? 0 : fail(Error::make_directory, VEXO_HERE);
    }
    // Whoever may write beside it may have put something else in its place since: what is opened to all is a directory
    // and no link, and stays the same to the end.
    const Fd directory = open_store_directory(path);
    const FileRef made(path, directory.get());
    if (!directory || made.change_mode(kOpenToAll) != 0) { // mkdir's mode was cut by the umask
        return fail(Error::file_operation, VEXO_HERE);
    }
    if (is_type(VEXOGetFSType(path, 0), FsType::hfsplus) &&
        made.set_attribute("com.apple.FinderInfo", kInvisible.data(), kInvisible.size(), 0) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    set_acl(directory.get(), path);
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
    if (parentToo != 0) {
        return make_parent_and_one(path.get());
    }
    for (size_t length = std::strlen(path.get()); length > 1 && path.get()[length - 1] == '/';) {
        path.get()[--length] = '\0'; // behind it a link would be followed
    }
    return make_one(path.get());
}

} // namespace

int VEXOEAMKDir(int parentToo, const char *eaDirPath) {
    if (eaDirPath == nullptr) {
        return refuse_argument("((void *)0) != szEADirPath", VEXO_HERE);
    }
    if (!names_entry(eaDirPath) && *eaDirPath != '\0') { // an empty path is a directory that cannot be made
        return fail(Error::invalid_argument, VEXO_HERE);
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
