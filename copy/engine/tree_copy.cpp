#include "copy/engine/tree_copy.h"

#include "backup/backup.h"
#include "copy/copy.h"
#include "ea/carry/known.h"
#include "ea/ea.h"
#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "support/dir.h"
#include "support/dos_attributes.h"
#include "support/errno_table.h"
#include "support/fs_type.h"
#include "support/guards.h"
#include "support/own_volume.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace vexo {
namespace {

constexpr ErrnoRow kRenameErrors[] = {
    {EPERM, Error::permission},      {EACCES, Error::permission}, {EROFS, Error::permission},
    {ENOENT, Error::source_missing}, {EIO, Error::device},        {ENXIO, Error::device},
};
// A source directory or entry that cannot be opened or looked at.
constexpr ErrnoRow kSourceErrors[] = {
    {EACCES, Error::permission}, {ENOENT, Error::source_missing}, {EIO, Error::device},
    {ENXIO, Error::device},      {EHOSTDOWN, Error::host_down},
};
constexpr ErrnoRow kMakeDirectoryErrors[] = {
    {EPERM, Error::permission}, {EACCES, Error::permission}, {ENOENT, Error::io},
    {EIO, Error::device},       {ENXIO, Error::device},      {ENAMETOOLONG, Error::name_too_long},
    {ENOSPC, Error::no_space},  {EROFS, Error::read_only},   {EHOSTDOWN, Error::host_down},
    {EDQUOT, Error::quota},
};
constexpr ErrnoRow kAfterWalkErrors[] = {
    {EACCES, Error::permission},
    {ENOENT, Error::source_missing},
};
constexpr ErrnoRow kDestinationOpenErrors[] = {
    {EACCES, Error::permission}, {ENOENT, Error::io},           {EIO, Error::device},
    {ENXIO, Error::device},      {EHOSTDOWN, Error::host_down},
};

constexpr uid_t kDefaultUser = 1024;
constexpr gid_t kDefaultGroup = 100;

constexpr int32_t kNoOwners[] = {0, 12, 18};
constexpr int32_t kSymbolicLinks[] = {1, 2, 3, 5, 6, 7};

template <size_t Count>
constexpr bool is_one_of(int32_t kind, const int32_t (&kinds)[Count]) {
    for (const int32_t one : kinds) {
        if (one == kind) {
            return true;
        }
    }
    return false;
}

// The kinds of entries that are carried.
enum class EntryType { regular, link, directory, other, unreadable };

// What came of the rename that a move begins with.
enum class Rename { done, copy_instead, failed };

// The walk of one tree. The two paths are kept here and grow and shrink with the level, so that a level costs little
// stack and a tree can be as deep as a path can be long.
class TreeWalk {
  public:
    TreeWalk(const TreeRequest &request, bool *cancelled) : m_request(request), m_cancelled(cancelled) {}

    int run(const char *src, const char *dst) {
        m_src.append(src);
        m_dst.append(dst);
        if (m_src.overflowed() || m_dst.overflowed()) {
            return fail(Error::name_too_long, here(__LINE__));
        }
        return copy_level(true);
    }

  private:
    // What one level keeps while its entries are walked.
    struct Level {
        Dir directory;
        VLIBCStat status;                          // of the source directory, before the walk
        std::optional<WalkedDirectory> known = {}; // once it has been asked for
        bool asked = false;
        bool keepSource = false; // the destination was there, and the conflict mode does not replace
        bool cancelled = false;
        int lastResult = 0;
    };
    // How a level goes on after an entry.
    enum class Step { next, stop_walk, leave };

    Place here(uint32_t line) const { return {m_request.source, line}; }
    const char *src() const { return m_src.c_str(); }
    const char *dst() const { return m_dst.c_str(); }

    int copy_level(bool isTop = false);
    Rename move_by_rename();
    int finish_rename();
    int open_source(Level &level, bool isTop);
    int fix_destination_name();
    int stat_source(Level &level);
    int make_destination(Level &level);
    int merge_into_existing(Level &level);
    void note_destination_root();
    bool is_destination_root() const;
    StoreSeen look_for_stores() const;
    void look_up_directory(Level &level);
    Step walk(Level &level);
    Step walk_unreadable(Level &level);
    Step copy_entry(Level &level, const dirent &entry);
    bool enter(const dirent &entry);
    EntryType type_of(const dirent &entry);
    int entry_unreadable();
    int copy_link();
    Step after_entry(Level &level, int result);
    int finish_directory(Level &level);
    void copy_attributes(int fd, const VLIBCStat &status);
    void copy_acl();
    void set_owner(int fd, const VLIBCStat &status);
    void set_times(const VLIBCStat &status);
    void clean_up_moved(Level &level);
    void report(const char *path) {
        if (m_request.errReport) {
            const KeepErrors keep; // the caller sees the cause, whatever its callback does
            m_request.errReport(path, VLIBCErrGet());
        }
    }

    const TreeRequest &m_request;
    bool *m_cancelled;
    bool m_aborted = false;            // an unsupported link ends the whole tree, through every level
    std::optional<struct stat> m_root; // the top directory of the destination
    PathBuffer m_src;
    PathBuffer m_dst;
    PathBuffer m_scratch; // a translated name, a link's target, a fixed path: never across a level
};

// The rename that a move begins with, at every level.
Rename TreeWalk::move_by_rename() {
    if (::rename(src(), dst()) == 0) {
        return Rename::done;
    }
    const int number = errno;
    if (number == EBUSY || number == EEXIST || number == EXDEV || number == ENOTEMPTY) {
        return Rename::copy_instead;
    }
    if (const std::optional<Error> error = find_error(kRenameErrors, number)) {
        set_error(*error, here(__LINE__));
        VEXO_LOG_ERROR(here(__LINE__), "rename fail from(%s) to(%s) reason[(%d)%m]", src(), dst(), number);
    } else {
        set_error(number == EHOSTDOWN ? Error::host_down : Error::other, here(__LINE__));
        VEXO_LOG_ERROR(here(__LINE__), "rename [%s] to [%s] fail reason[(%d)%m]", src(), dst(), number);
    }
    return Rename::failed;
}

int TreeWalk::finish_rename() {
    struct stat status;
    if (::stat(dst(), &status) != 0) {
        const int number = errno;
        if (const std::optional<Error> error = find_error(kStorageErrors, number)) {
            set_error(*error, here(__LINE__));
        }
        errno = number;
        VEXO_LOG_ERROR(here(__LINE__), "failed to get size of [%s], reason=[(%d)%m]", dst(), number);
        return -1;
    }
    if (m_request.progress) {
        const int64_t total = m_request.dirSize ? m_request.dirSize(src(), dst()) : VLIBGetFullDirSize(dst());
        m_request.progress(total, 0);
    }
    if (m_request.renameMetadata) {
        (void)m_request.renameMetadata(src(), dst());
    }
    return 0;
}

// What was a directory when its entry was read may be a link by now, to where its owner may not look. The top may be
// one.
int TreeWalk::open_source(Level &level, bool isTop) {
    level.directory = isTop ? Dir(src()) : Dir::of_no_link(src());
    if (level.directory) {
        return 0;
    }
    const int number = errno;
    if (const std::optional<Error> error = find_error(kSourceErrors, number)) {
        set_error(*error, here(__LINE__));
    } else {
        VEXO_LOG_ERROR(here(__LINE__), "failed to opendir: source dir name = %s, reason=[(%d)%m]", src(), number);
        set_error(Error::other, here(__LINE__));
    }
    report(src());
    return -1;
}

int TreeWalk::fix_destination_name() {
    if (!reserves_characters(m_request.dstKind)) {
        return 0;
    }
    if (VEXOStrReplaceFATReservedChar(dst(), m_scratch.fill(), PathBuffer::kSize) < 0) {
        VEXO_LOG_ERROR(here(__LINE__), "failed to replace FAT filename=[%s], reason=[0x%04X]", dst(), VLIBCErrGet());
        return fail(Error::other, here(__LINE__));
    }
    m_scratch.adopt();
    m_dst.clear();
    m_dst.append(m_scratch.view());
    return 0;
}

int TreeWalk::stat_source(Level &level) {
    if (VLIBCFileStat(src(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &level.status) == 0) {
        return 0;
    }
    const int number = errno;
    VEXO_LOG_ERROR(here(__LINE__), "VLIBCFileStat: (%s), %s, vexoerr=%x.", src(), ::strerror(number), VLIBCErrGet());
    return fail(find_error(kSourceErrors, number).value_or(Error::stat), here(__LINE__));
}

// What stands at the destination already: a directory is merged into.
int TreeWalk::merge_into_existing(Level &level) {
    struct stat status;
    if (::stat(dst(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            level.keepSource = !m_request.replaces;
            return 0;
        }
    } else if (errno != ENOENT && errno != EACCES) {
        VEXO_LOG_ERROR(here(__LINE__), "failed to stat destination path = %s, reason=[(%d)%m]", dst(), errno);
    }
    // Whatever kept it from being looked at, it is no directory that could be merged into.
    return fail(Error::not_a_directory, here(__LINE__));
}

int TreeWalk::make_destination(Level &level) {
    if (::mkdir(dst(), level.status.st.st_mode & 07777) == 0) {
        return 0;
    }
    const int number = errno;
    if (number == EEXIST) {
        if (merge_into_existing(level) == 0) {
            return 0;
        }
    } else if (const std::optional<Error> error = find_error(kMakeDirectoryErrors, number)) {
        set_error(*error, here(__LINE__));
    } else {
        VEXO_LOG_ERROR(here(__LINE__), "failed to mkdir path = %s, reason=[(%d)/%m]", dst(), number);
        set_error(Error::other, here(__LINE__));
    }
    report(dst());
    return -1;
}

// The top of the destination may lie in the source. It is known by its inode, which proves nothing on remote volumes.
void TreeWalk::note_destination_root() {
    struct stat status;
    if (!is_type(m_request.srcKind, FsType::remote) && ::stat(dst(), &status) == 0) {
        m_root = status;
    }
}

bool TreeWalk::is_destination_root() const {
    struct stat status;
    return m_root && ::stat(src(), &status) == 0 && status.st_dev == m_root->st_dev && status.st_ino == m_root->st_ino;
}

// Names that belong to a store, and the directory's own two.
bool is_passed_over(const char *entry) {
    const std::string_view name = entry;
    return name == "." || name == ".." || VEXOEAIsHiddenDir(entry) != 0 || name.starts_with("._");
}

// Whether a directory that was moved still holds entries of its user: failed, skipped, cancelled or new ones.
bool holds_entries(Dir &directory) {
    ::rewinddir(directory.get());
    errno = 0;
    while (const dirent *entry = directory.read()) {
        if (!is_passed_over(entry->d_name)) {
            return true;
        }
        errno = 0;
    }
    return errno != 0; // not known: take it that it does
}

EntryType TreeWalk::type_of(const dirent &entry) {
    mode_t mode = static_cast<mode_t>(DTTOIF(entry.d_type));
    if (entry.d_type == DT_UNKNOWN) {
        VLIBCStat status;
        if (VLIBCFileLStat(src(), VLIBC_STAT_BASIC, &status) != 0) {
            return EntryType::unreadable;
        }
        mode = status.st.st_mode;
    }
    switch (mode & S_IFMT) {
    case S_IFREG:
        return EntryType::regular;
    case S_IFLNK:
        return EntryType::link;
    case S_IFDIR:
        return EntryType::directory;
    default:
        return EntryType::other;
    }
}

// Appends the entry to both paths. false: they would be too long.
bool TreeWalk::enter(const dirent &entry) {
    const char *name = entry.d_name;
    if (m_request.dstName && m_request.dstName(entry.d_name, m_scratch.fill(), PathBuffer::kSize) >= 0) {
        m_scratch.adopt();
        name = m_scratch.c_str();
    }
    m_src.append("/").append(entry.d_name);
    m_dst.append("/").append(name);
    return !m_src.overflowed() && !m_dst.overflowed();
}

int TreeWalk::entry_unreadable() {
    const int number = errno;
    if (const std::optional<Error> error = find_error(kSourceErrors, number)) {
        return fail(*error, here(__LINE__));
    }
    VEXO_LOG_ERROR(here(__LINE__), "failed to stat source path = %s, reason=[(%d)%m]", src(), number);
    return fail(Error::other, here(__LINE__));
}

int TreeWalk::copy_link() {
    if (!is_one_of(m_request.dstKind, kSymbolicLinks)) {
        VEXO_LOG_ERROR(here(__LINE__), "File system of Destination not support copy Symbolic link");
        m_aborted = true;
        return -1;
    }
    const ssize_t length = ::readlink(src(), m_scratch.fill(), PathBuffer::kSize - 1);
    if (length < 0) {
        VEXO_LOG_ERROR(here(__LINE__), "readlink %s get error. reason=[(%d)%m]", src(), errno);
        return -1;
    }
    m_scratch.cut(static_cast<size_t>(length));
    if (::symlink(m_scratch.c_str(), dst()) != 0) {
        VEXO_LOG_ERROR(here(__LINE__), "Failed to create a symbolic link %s -> %s. reason=[(%d)%m]", dst(),
                       m_scratch.c_str(), errno);
        return -1;
    }
    if (m_request.move && ::unlink(src()) != 0) {
        VEXO_LOG_ERROR(here(__LINE__), "Failed to remove source link %s", src());
    }
    return 0;
}

TreeWalk::Step TreeWalk::after_entry(Level &level, int result) {
    level.lastResult = result;
    if (result >= 0) {
        if (m_request.cleanArchive && VEXOBackupCleanDirArchiveBit(src()) != 0) {
            VEXO_LOG_ERROR(here(__LINE__), "VEXOBackupCleanDirArchiveBit() failed!! szDir=[%s], vexoerr=[0x%04X]",
                           src(), VLIBCErrGet());
        }
        return Step::next;
    }
    // An entry that vanished meanwhile is not worth the whole tree.
    return !m_request.stopOnError || last_error() == Error::io ? Step::next : Step::leave;
}

// One entry: both paths name it while it is copied, and the directory again afterwards.
TreeWalk::Step TreeWalk::copy_entry(Level &level, const dirent &entry) {
    const size_t srcLength = m_src.length();
    const size_t dstLength = m_dst.length();
    int result = -1;
    bool endsLevel = false;
    bool passedOver = false;
    if (!enter(entry)) {
        set_error(Error::name_too_long, here(__LINE__));
    } else {
        switch (type_of(entry)) {
        case EntryType::regular:
            result = m_request.copyFile(src(), dst(), level.known ? &*level.known : nullptr);
            break;
        case EntryType::link:
            result = copy_link();
            endsLevel = result < 0;
            break;
        case EntryType::directory:
            // The copy itself, which would be copied into itself without end, is passed over as special files are.
            passedOver = is_destination_root();
            result = passedOver ? -1 : copy_level();
            break;
        case EntryType::unreadable:
            if (m_request.stopOnError) {
                result = entry_unreadable();
                endsLevel = true;
            }
            break;
        case EntryType::other: // devices, FIFOs, sockets: passed over, even where an error stops
            passedOver = true;
            break;
        }
    }
    m_src.shorten(srcLength);
    m_dst.shorten(dstLength);
    if (endsLevel || m_aborted || passedOver) {
        level.lastResult = result;
        return passedOver ? Step::next : Step::leave;
    }
    return after_entry(level, result);
}

// Volumes that are not this kernel's own, such as those of a server, may set a file's times when it is closed.
bool keeps_times(const char *directory) {
    struct statfs volume {};
    return ::statfs(directory, &volume) == 0 && is_own_volume(volume);
}

StoreSeen TreeWalk::look_for_stores() const {
    if (m_request.move) {
        return StoreSeen::unknown;
    }
    if (!lacks_ea_directory(src())) {
        return StoreSeen::source;
    }
    return lacks_ea_directory(dst()) ? StoreSeen::neither : StoreSeen::unknown;
}

// What is the same for every file of the directory is looked up with the first one. Where it cannot be, each file asks
// for itself, and so does each that is moved: what others put into an "@eaDir" meanwhile is the only copy.
void TreeWalk::look_up_directory(Level &level) {
    if (level.asked) {
        return;
    }
    level.asked = true;
    const KeepErrors keep;
    const int type = VEXOGetFSType(src(), 0);
    if (type >= 0) {
        level.known = WalkedDirectory{level.status.st.st_dev, type, look_for_stores(), keeps_times(dst())};
    }
}

// A directory that cannot be read to its end has failed: nobody knows what else it holds.
TreeWalk::Step TreeWalk::walk_unreadable(Level &level) {
    const int number = errno;
    VEXO_LOG_ERROR(here(__LINE__), "failed to readdir: source dir name = %s, reason=[(%d)%m]", src(), number);
    level.lastResult = fail(find_error(kSourceErrors, number).value_or(Error::other), here(__LINE__));
    report(src());
    return Step::leave;
}

TreeWalk::Step TreeWalk::walk(Level &level) {
    for (;;) {
        errno = 0;
        const dirent *entry = level.directory.read();
        if (entry == nullptr) {
            return errno == 0 ? Step::next : walk_unreadable(level);
        }
        if (is_passed_over(entry->d_name)) {
            continue;
        }
        if (m_request.isCancel && m_request.isCancel() != 0) {
            level.cancelled = true;
            *m_cancelled = true;
            return Step::stop_walk;
        }
        if (entry->d_type == DT_REG) {
            look_up_directory(level);
        }
        if (copy_entry(level, *entry) == Step::leave) {
            return Step::leave;
        }
    }
}

void TreeWalk::copy_attributes(int fd, const VLIBCStat &status) {
    if ((status.attributes & VLIBC_ATTR_ARCHIVE) != 0 && request_attribute(fd, AttributeRequest::set_archive) < 0) {
        VEXO_LOG_DEBUG(here(__LINE__), "F_SETSMB_ARCHIVE(%s): (errno:%d %m)", dst(), errno);
    }
    if ((status.attributes & VLIBC_ATTR_HIDDEN) != 0 && request_attribute(fd, AttributeRequest::set_hidden) < 0) {
        VEXO_LOG_DEBUG(here(__LINE__), "F_SETSMB_HIDDEN(%s): (errno:%d %m)", dst(), errno);
    }
    if ((status.attributes & VLIBC_ATTR_SYSTEM) != 0 && request_attribute(fd, AttributeRequest::set_system) < 0) {
        VEXO_LOG_DEBUG(here(__LINE__), "F_SETSMB_SYSTEM(%s): (errno:%d %m)", dst(), errno);
    }
}

void TreeWalk::copy_acl() {
    if (m_request.copyAcl && (VEXOACLCopy(src(), dst()) < 0 || VEXOACLArchiveCopy(src(), dst()) < 0)) {
        VEXO_LOG_ERROR(here(__LINE__), "Failed to copy ACL from [%s] to [%s]", src(), dst());
    }
}

void TreeWalk::set_owner(int fd, const VLIBCStat &status) {
    if (is_one_of(m_request.dstKind, kNoOwners) || (!m_request.keepOwner && ::geteuid() != 0)) {
        return;
    }
    uid_t uid = status.st.st_uid;
    gid_t gid = status.st.st_gid;
    if (!m_request.keepOwner) {
        uid = m_request.uid == 0 ? kDefaultUser : m_request.uid;
        gid = m_request.gid == 0 ? kDefaultGroup : m_request.gid;
    }
    if (::fchown(fd, uid, gid) != 0) {
        VEXO_LOG_ERROR(here(__LINE__), "failed to fchown destination to uid=%u, gid=%u, errno=%d/%m", uid, gid, errno);
    }
}

void TreeWalk::set_times(const VLIBCStat &status) {
    const struct timespec times[] = {status.st.st_atim, status.st.st_mtim, status.createTime};
    if (VLIBCFileUTime(dst(), 3, times) != 0 && errno != EOPNOTSUPP) {
        VEXO_LOG_ERROR(here(__LINE__), "VLIBCFileUTime(%s) (errno:%d %m)", dst(), errno);
    }
}

// What the destination directory gets once its entries are there: an entry made later would change its times again.
int TreeWalk::finish_directory(Level &level) {
    VLIBCStat status;
    if (VLIBCFileFStat(::dirfd(level.directory.get()), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status, 0) != 0) {
        const int number = errno;
        // The line names the destination, on purpose: log readers look for it.
        VEXO_LOG_ERROR(here(__LINE__), "failed to stat source path = %s, reason=[(%d)%m]", dst(), number);
        return fail(find_error(kAfterWalkErrors, number).value_or(Error::stat), here(__LINE__));
    }
    const Dir destination(dst());
    if (!destination) {
        const int number = errno;
        if (const std::optional<Error> error = find_error(kDestinationOpenErrors, number)) {
            return fail(*error, here(__LINE__));
        }
        VEXO_LOG_ERROR(here(__LINE__), "failed to open dest path = %s, reason=[(%d)%m]", dst(), number);
        return fail(Error::other, here(__LINE__));
    }
    const int fd = ::dirfd(destination.get());
    copy_attributes(fd, status);
    copy_acl();
    (void)m_request.copyMetadata(src(), dst());
    set_owner(fd, status);
    set_times(level.status);
    return 0;
}

void TreeWalk::clean_up_moved(Level &level) {
    if (!m_request.move || level.lastResult != 0 || level.keepSource) {
        return;
    }
    // The store of an entry that stayed behind stays with it.
    if (!is_type(m_request.srcKind, FsType::remote) && !level.cancelled && !holds_entries(level.directory)) {
        const size_t length = m_src.length();
        m_src.append("/@eaDir");
        if (!m_src.overflowed()) {
            (void)VLIBCExec("/bin/rm", "-rf", src(), nullptr);
        }
        m_src.shorten(length);
    }
    if (::remove(src()) != 0 && errno != ENOENT && errno != EBUSY) {
        VEXO_LOG_ERROR(here(__LINE__), "failed to remove(%s), reason=[(%d)%m]", src(), errno);
    }
}

// One level: the directory that the two paths name.
int TreeWalk::copy_level(bool isTop) {
    if (m_request.move) {
        const Rename renamed = move_by_rename();
        if (renamed != Rename::copy_instead) {
            return renamed == Rename::done ? finish_rename() : -1;
        }
    }
    Level level;
    if (open_source(level, isTop) < 0 || fix_destination_name() < 0 || stat_source(level) < 0 ||
        make_destination(level) < 0) {
        return -1;
    }
    if (isTop) {
        note_destination_root();
    }
    const Step walked = walk(level);
    if (walked == Step::leave) {
        return level.lastResult;
    }
    if (walked == Step::stop_walk) {
        clean_up_moved(level);
        return 0;
    }
    if (finish_directory(level) < 0) {
        clean_up_moved(level);
        return level.lastResult;
    }
    clean_up_moved(level);
    return 0;
}

} // namespace

int copy_tree(const char *src, const char *dst, const TreeRequest &request, bool *cancelled) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_AT(request.source));
    }
    return TreeWalk(request, cancelled).run(src, dst);
}

} // namespace vexo
