// The single-file engine before anything is opened: the types of the volumes, and the move by rename.
#include "copy/engine/file_copy_steps.h"

#include "platform/sdk.h"
#include "support/fs_type.h"
#include "support/heap.h"

#include <cerrno>
#include <cstdio>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

constexpr ErrnoRow kRenameErrors[] = {
    {EISDIR, Error::is_directory},   {EPERM, Error::permission},
    {EACCES, Error::permission},     {EROFS, Error::permission},
    {ENOENT, Error::source_missing}, {ENAMETOOLONG, Error::name_too_long},
    {ENOSPC, Error::no_space},       {EIO, Error::device},
    {ENXIO, Error::device},          {EHOSTDOWN, Error::host_down},
};

// Looks up the type of the volume that holds `path`; negative after a failure, which it reports. An errno without a row
// leaves the last error as the platform set it.
int32_t look_up_type(const char *path, const char *source) {
    const int32_t type = VEXOGetFSType(path, 0);
    if (type < 0) {
        const int number = errno;
        VEXO_LOG_ERROR(VEXO_AT(source), "failed to statfs %s, reason=[(%d)%m]", path, number);
        if (const std::optional<Error> error = find_error(kTypeLookupErrors, number)) {
            set_error(*error, VEXO_AT(source));
        }
    }
    return type;
}

// Files of these volumes have no Unix owner to change after a rename.
constexpr bool has_no_owner(int32_t type) {
    return is_type(type, FsType::fat) || is_type(type, FsType::remote) || is_type(type, FsType::exfat);
}

} // namespace

FileCopy::Next FileCopy::find_source_type() {
    if (!is_type(source_type(), FsType::unknown)) {
        return Next::step;
    }
    if (m_request.directory != nullptr && !m_request.move) {
        *m_request.srcType = m_request.directory->type;
        m_typeAssumed = true;
        return Next::step;
    }
    const int32_t type = look_up_type(m_request.src, m_request.source);
    if (type < 0) {
        return Next::failure;
    }
    *m_request.srcType = type;
    return Next::step;
}

// Looks up a type that was assumed where the source could not be opened, as it may have vanished, which the look-up
// tells, and where it is on another volume than the directory that names it.
FileCopy::Next FileCopy::confirm_source_type(bool opened) {
    if (!m_typeAssumed || (opened && m_srcStat.st.st_dev == m_request.directory->device)) {
        return Next::step;
    }
    const int number = errno;
    const int32_t type = look_up_type(m_request.src, m_request.source);
    if (type < 0) {
        return Next::failure;
    }
    *m_request.srcType = type;
    errno = number;
    return Next::step;
}

FileCopy::Next FileCopy::move_by_rename() {
    if (!m_request.move) {
        return Next::step;
    }
    if (m_request.overwrite != Overwrite::replace && ::access(m_dst, F_OK) == 0) {
        if (m_request.overwrite == Overwrite::fail) {
            return refuse(Error::destination_exists, VEXO_AT(m_request.source));
        }
        if (m_request.overwrite == Overwrite::leave) {
            return Next::success;
        }
    }
    if (::rename(m_request.src, m_dst) == 0) {
        return finish_rename();
    }
    if (errno == EXDEV) {
        return Next::step;
    }
    if (const std::optional<Error> error = find_error(kRenameErrors, errno)) {
        return refuse(*error, VEXO_AT(m_request.source));
    }
    VEXO_LOG_ERROR(VEXO_AT(m_request.source), "rename [%s] to [%s] fail (%d)%m", m_request.src, m_dst, errno);
    return refuse(Error::other, VEXO_AT(m_request.source));
}

// The file is at its new place for good: nothing here may remove it.
FileCopy::Next FileCopy::finish_rename() {
    struct stat moved;
    if (::stat(m_dst, &moved) != 0) {
        const int number = errno;
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to get size of [%s], reason=[(%d)%m]", m_dst, number);
        if (const std::optional<Error> error = find_error(kStorageErrors, number)) {
            set_error(*error, VEXO_AT(m_request.source));
        }
        return Next::failure;
    }
    if (m_request.owner.mode == OwnerPolicy::kChosen && !has_no_owner(source_type()) && may_choose_owner()) {
        const uid_t user = m_request.owner.user();
        const gid_t group = m_request.owner.group();
        if (::chown(m_dst, user, group) != 0) {
            VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to chown destination to uid=%u, gid=%u, errno=%d/%m",
                           user, group, errno);
            m_ownerPending = m_request.asCaller;
        }
    }
    if (m_request.progress) {
        m_request.progress(moved.st_size, 0);
    }
    if (m_request.renameMetadata) {
        (void)m_request.renameMetadata(m_request.src, m_dst, source_type());
    }
    return Next::success;
}

FileCopy::Next FileCopy::find_destination_type() {
    if (!is_type(destination_type(), FsType::unknown)) {
        return Next::step;
    }
    HeapString path(m_dst);
    if (!path) {
        return refuse(Error::out_of_memory, VEXO_AT(m_request.source));
    }
    // Written back before it is looked at: a record keeps the negative answer too.
    *m_request.dstType = look_up_type(::dirname(path.get()), m_request.source);
    return destination_type() < 0 ? Next::failure : Next::step;
}

} // namespace vexo
