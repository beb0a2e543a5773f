// One directory of a tree: opening it and making its copy, and what the copy gets once its entries are there.
#include "copy/engine/tree_copy_steps.h"

#include "copy/copy.h"
#include "platform/acl.h"
#include "support/dos_attributes.h"
#include "support/file_calls.h"
#include "support/fs_type.h"
#include "support/own_volume.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace vexo {
namespace {

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

constexpr int32_t kNoOwners[] = {0, 12, 18};

} // namespace

// What was a directory when its entry was read may be a link by now, to where its owner may not look. The top may be
// one.
Dir TreeWalk::open_directory(const Level &level) const {
    return level.above == nullptr ? Dir(src()) : Dir::of_no_link(src());
}

int TreeWalk::open_source(Level &level) {
    level.entries = Listing(open_directory(level));
    if (!level.entries.is_open()) {
        return source_not_opened();
    }
    ++m_openLevels;
    return 0;
}

int TreeWalk::source_not_opened() {
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
            const struct stat &source = level.status.st;
            const bool inodesProve = !is_type(m_request.srcKind, FsType::remote);
            // A directory that is moved onto itself, by another name, is not removed at the first.
            const bool itself = inodesProve && status.st_dev == source.st_dev && status.st_ino == source.st_ino;
            level.keepSource = !m_request.replaces || itself || m_ontoItself;
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
        level.made = true;
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

void TreeWalk::copy_acl(const NewCopy &copy, mode_t mode) {
    if (!m_request.copyAcl ||
        (copy.names.known() && VEXOACLFCopyToNew != nullptr && copy_acls_to_new(copy, mode) == 0)) {
        return;
    }
    if (VEXOACLCopy(src(), dst()) < 0 || VEXOACLArchiveCopy(src(), dst()) < 0) {
        VEXO_LOG_ERROR(here(__LINE__), "Failed to copy ACL from [%s] to [%s]", src(), dst());
    }
}

// Whether it has been set.
bool TreeWalk::set_owner(int fd, const VLIBCStat &status) {
    if (is_one_of(m_request.dstKind, kNoOwners) || (!m_request.keepOwner && ::geteuid() != 0)) {
        return false;
    }
    uid_t uid = status.st.st_uid;
    gid_t gid = status.st.st_gid;
    if (!m_request.keepOwner) {
        const OwnerPolicy chosen{.uid = m_request.uid, .gid = m_request.gid};
        uid = chosen.user();
        gid = chosen.group();
    }
    if (::fchown(fd, uid, gid) != 0) {
        VEXO_LOG_ERROR(here(__LINE__), "failed to fchown destination to uid=%u, gid=%u, errno=%d/%m", uid, gid, errno);
        return false;
    }
    return true;
}

// mkdir takes the other bits of a mode only. They would speak of somebody else while the owner was the process's.
void TreeWalk::restore_set_id_bits(int fd, const VLIBCStat &status) {
    const mode_t bits = status.st.st_mode & (S_ISUID | S_ISGID);
    struct stat made;
    if (bits == 0 || ::fstat(fd, &made) != 0) {
        return;
    }
    const mode_t mode = (made.st_mode & 07777) | bits; // the umask has been at it, and so has the ACL
    if (::fchmod(fd, mode) != 0) {
        VEXO_LOG_ERROR(here(__LINE__), "failed to fchmod destination to mode=%04o, errno=%d/%m", mode, errno);
    }
}

void TreeWalk::set_times(const VLIBCStat &status) {
    const struct timespec times[] = {status.st.st_atim, status.st.st_mtim, status.createTime};
    if (VLIBCFileUTime(dst(), 3, times) != 0 && errno != EOPNOTSUPP) {
        VEXO_LOG_ERROR(here(__LINE__), "VLIBCFileUTime(%s) (errno:%d %m)", dst(), errno);
    }
}

// As of a file that was made: one list answers for what would be asked for by name. Only where this walk has made the
// directory, and where both volumes are the kernel's own.
void TreeWalk::list_source_attributes(const Level &level, int dstFd, AttributeNames &names) const {
    if (!level.made || m_request.move) {
        return;
    }
    const KeepErrors keep;
    const bool own = level.known ? level.known->listsAll && level.known->timesStay
                                 : is_on_own_volume(level.entries.fd()) && is_on_own_volume(dstFd);
    if (own) {
        names.list({src(), level.entries.fd()});
    }
}

// A directory that not even a user's attribute belongs to: then there is nothing left to carry. Times are those from
// before the walk, whose reading has changed them.
bool TreeWalk::set_record_now(const NewCopy &copy, const VLIBCStat &before, const VLIBCStat &now) const {
    const auto isUsers = [](std::string_view name) { return name.starts_with("user.") && !is_record(name.data()); };
    if (!copy.names.known() || copy.names.any(isUsers)) {
        return false;
    }
    VLIBCStat source = before;
    source.attributes = now.attributes;
    return set_record_at_once(copy, source, m_request.carriesMetadata);
}

// What the destination directory gets once its entries are there: an entry made later would change its times again.
int TreeWalk::finish_directory(Level &level) {
    VLIBCStat status;
    if (VLIBCFileFStat(level.entries.fd(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status, 0) != 0) {
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
        set_error(Error::other, here(__LINE__));
        if (number == EMFILE || number == ENFILE) {
            report(dst());
            level.lastResult = -1; // nothing is wrong with the directory: it is worth another attempt
        }
        return -1;
    }
    give_what_belongs(level, ::dirfd(destination.get()), status);
    return 0;
}

// `status`: of the source, after the walk.
void TreeWalk::give_what_belongs(const Level &level, int fd, const VLIBCStat &status) {
    AttributeNames names;
    list_source_attributes(level, fd, names);
    const NewCopy copy = {{src(), level.entries.fd()}, {dst(), fd}, m_request.srcKind,
                          m_request.dstKind,           names,       StoreSeen::unknown};
    const bool recordSet = set_record_now(copy, level.status, status);
    if (!recordSet) {
        copy_attributes(fd, status);
    }
    copy_acl(copy, level.status.st.st_mode);
    if (!recordSet) {
        (void)m_request.copyMetadata(src(), dst());
    }
    if (set_owner(fd, status) && level.made) {
        restore_set_id_bits(fd, level.status);
    }
    if (!recordSet) {
        set_times(level.status);
    }
}

} // namespace vexo
