// The rename that a move begins with at every level, and what a move that copied removes at the source.
#include "copy/engine/tree_copy_steps.h"

#include "platform/sdk.h"
#include "support/fs_type.h"

#include <cerrno>
#include <cstdio>

namespace vexo {
namespace {

constexpr ErrnoRow kRenameErrors[] = {
    {EPERM, Error::permission},      {EACCES, Error::permission}, {EROFS, Error::permission},
    {ENOENT, Error::source_missing}, {EIO, Error::device},        {ENXIO, Error::device},
};

} // namespace

// The rename that a move begins with, at every level.
TreeWalk::Rename TreeWalk::move_by_rename() {
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

void TreeWalk::clean_up_moved(Level &level) {
    if (!m_request.move || level.lastResult != 0 || level.keepSource) {
        return;
    }
    // The store of an entry that stayed behind stays with it: one that failed, was skipped or cancelled, or is new.
    if (!is_type(m_request.srcKind, FsType::remote) && !level.cancelled && !level.entries.holds_entries()) {
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

} // namespace vexo
