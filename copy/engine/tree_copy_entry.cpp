// One entry of a directory: its two paths, its type, and the entries that are links.
#include "copy/engine/tree_copy_steps.h"

#include "support/fs_type.h"

#include <cerrno>
#include <unistd.h>

namespace vexo {
namespace {

constexpr int32_t kSymbolicLinks[] = {1, 2, 3, 5, 6, 7};

} // namespace

TreeWalk::EntryType TreeWalk::type_of(const dirent &entry) {
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

} // namespace vexo
