// The single-file engine's names and open files.
#include "copy/engine/file_copy_steps.h"

#include "copy/copy.h"
#include "copy/engine/open_regular.h"
#include "support/fs_type.h"
#include "support/guards.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace vexo {
namespace {

constexpr ErrnoRow kSourceOpenErrors[] = {
    {EIO, Error::device},
    {ENXIO, Error::device},
    {EHOSTDOWN, Error::host_down},
    {EACCES, Error::permission},
};

constexpr ErrnoRow kDestinationOpenErrors[] = {
    {EISDIR, Error::is_directory},
    {EIO, Error::device},
    {ENXIO, Error::device},
    {EPERM, Error::permission},
    {EACCES, Error::permission},
    {EINVAL, Error::permission}, // a name that the volume does not take
    {EROFS, Error::read_only},
    {ENOSPC, Error::no_space},
    {EHOSTDOWN, Error::host_down},
    {EDQUOT, Error::quota},
    {ENAMETOOLONG, Error::name_too_long},
};

// Whether two paths lead to the same place. In a function of its own for its buffers, which few calls need.
[[gnu::noinline]] bool resolve_alike(const char *one, const char *other) {
    PathBuffer first;
    PathBuffer second;
    return ::realpath(one, first.fill()) != nullptr && ::realpath(other, second.fill()) != nullptr &&
           std::strcmp(first.fill(), second.fill()) == 0;
}

} // namespace

const char *FileCopy::name_in(const char *path) {
    const char *const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

FileCopy::Next FileCopy::fix_destination_name() {
    if (!reserves_characters(destination_type())) {
        return Next::step;
    }
    // The fix-up cuts what does not fit, which would be another file.
    if (::strnlen(m_dst, PathBuffer::kSize) >= PathBuffer::kSize) {
        return refuse(Error::name_too_long, VEXO_AT(m_request.source));
    }
    if (VEXOStrReplaceFATReservedChar(m_dst, m_fixedDst.fill(), PathBuffer::kSize) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to replace FAT filename = %s, reason=[0x%04X]", m_dst,
                       code_of(last_error()));
        return refuse(Error::other, VEXO_AT(m_request.source));
    }
    m_fixedDst.adopt();
    m_dst = m_fixedDst.c_str();
    return Next::step;
}

FileCopy::Next FileCopy::open_source() {
    errno = 0; // a source of another type leaves it alone, and an old one would be taken for the reason
    // What a walk has seen as a file may be a link by now, to where the owner of the tree may not look.
    const int flags = O_RDONLY | (m_request.directory != nullptr ? O_NOFOLLOW : 0);
    m_srcFd.reset(has_open_directories()
                      ? open_regular(m_request.directory->from, name_in(m_request.src), m_request.src, flags, 0644,
                                     nullptr, &m_srcStat)
                      : VEXOCopyOpenAndCheckIsRegular(m_request.src, flags, 0644, nullptr, &m_srcStat));
    const bool opened = static_cast<bool>(m_srcFd);
    if (confirm_source_type(opened) == Next::failure) {
        return Next::failure;
    }
    if (opened) {
        return Next::step;
    }
    if (const std::optional<Error> error = find_error(kSourceOpenErrors, errno)) {
        return refuse(*error, VEXO_AT(m_request.source));
    }
    VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to check [%s] [(%d)%m]", m_request.src, errno);
    return refuse(Error::other, VEXO_AT(m_request.source));
}

// In a tree most destinations are new: one that can be made exclusively is no other file, nor anything special, and the
// looks at what might stand there already are saved. Where it cannot be made, for whatever reason, the steps that
// follow find out, and so they do where the file is too large. Volumes that have to be asked for that take the long
// way.
FileCopy::Next FileCopy::create_destination() {
    const int32_t type = destination_type();
    if (m_request.directory == nullptr || m_request.move || reserves_characters(type) ||
        is_type(type, FsType::remote) || is_type(type, FsType::k7fs)) {
        return Next::step;
    }
    const KeepErrors keep;
    if (m_request.isTooLarge(m_dst, type, static_cast<uint64_t>(m_srcStat.st.st_size)) == 1) {
        return Next::step;
    }
    const bool byName = has_open_directories() && m_dst == m_request.dst;
    m_dstFd.reset(::openat(byName ? m_request.directory->to : AT_FDCWD, byName ? name_in(m_dst) : m_dst,
                           O_WRONLY | O_CREAT | O_EXCL | O_NONBLOCK, m_srcStat.st.st_mode));
    m_madeInTree = static_cast<bool>(m_dstFd);
    m_madeByName = m_madeInTree && byName;
    return Next::step;
}

// Copying a file onto itself would empty it.
FileCopy::Next FileCopy::recognise_same_file() {
    if (m_dstFd) {
        return Next::step;
    }
    struct stat existing;
    if (::stat(m_dst, &existing) != 0) {
        return Next::step;
    }
    m_dstExisted = true;
    m_dstWasSpecial = !S_ISREG(existing.st_mode);
    m_dstWasPipe = S_ISFIFO(existing.st_mode);
    // There the inode number proves nothing.
    const bool same = is_type(destination_type(), FsType::remote)
                          ? resolve_alike(m_request.src, m_dst)
                          : existing.st_dev == m_srcStat.st.st_dev && existing.st_ino == m_srcStat.st.st_ino;
    return same ? Next::success : Next::step;
}

FileCopy::Next FileCopy::check_size_limit() {
    const auto size = static_cast<uint64_t>(m_srcStat.st.st_size);
    return m_request.isTooLarge(m_dst, destination_type(), size) == 1 ? Next::failure : Next::step;
}

FileCopy::Next FileCopy::open_destination() {
    if (m_dstFd) {
        set_error(Error::none, VEXO_AT(m_request.source));
        return Next::step;
    }
    const int flags = O_WRONLY | O_CREAT | (m_request.overwrite == Overwrite::replace ? O_TRUNC : O_EXCL);
    for (;;) {
        struct stat opened;
        set_error(Error::none, VEXO_AT(m_request.source)); // tells below whether it was open() that failed
        errno = 0;
        m_dstFd.reset(VEXOCopyOpenAndCheckIsRegular(m_dst, flags, m_srcStat.st.st_mode, &opened, nullptr));
        if (m_dstFd) {
            return Next::step;
        }
        if (errno != EEXIST) {
            return refuse_destination(flags);
        }
        if (const Next next = settle_conflict(); next != Next::step) {
            return next;
        }
    }
}

// The destination exists and is not to be replaced: another name, once, or what the policy says.
FileCopy::Next FileCopy::settle_conflict() {
    if (!m_request.rename) {
        return m_request.overwrite == Overwrite::fail ? refuse(Error::destination_exists, VEXO_AT(m_request.source))
                                                      : Next::success;
    }
    if (m_renamedOnce || m_request.rename(m_dst, m_renamedDst.fill(), PathBuffer::kSize) != 0) {
        return refuse(Error::rename_callback, VEXO_AT(m_request.source));
    }
    m_renamedDst.adopt();
    m_dst = m_renamedDst.c_str();
    m_renamedOnce = true;
    m_dstExisted = false;
    m_dstWasSpecial = false;
    m_dstWasPipe = false;
    return Next::step;
}

FileCopy::Next FileCopy::refuse_destination(int flags) {
    const bool opened = last_error() == Error::none;
    const bool ours = (flags & O_EXCL) != 0 || !m_dstWasSpecial;
    if (opened && ours) {
        const KeepErrors keep;
        remove_destination();
    }
    const bool nobodyReads = m_dstWasPipe && errno == ENXIO; // it is not waited for
    const std::optional<Error> error = find_error(kDestinationOpenErrors, errno);
    if (error && !nobodyReads) {
        return refuse(*error, VEXO_AT(m_request.source));
    }
    if (opened || nobodyReads) {
        set_error(Error::other, VEXO_AT(m_request.source));
    }
    VEXO_LOG_ERROR(VEXO_AT(m_request.source), "[0x%04X %s:%d] open dst: [%s] is not a regular file [(%d)%m]",
                   code_of(last_error()), VLIBCErrorGetFile(), static_cast<int>(VLIBCErrorGetLine()), m_dst, errno);
    return Next::failure;
}

} // namespace vexo
