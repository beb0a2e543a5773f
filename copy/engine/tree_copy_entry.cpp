// One entry of a directory: its two paths, its type, and the entries that are links.
#include "copy/engine/tree_copy_steps.h"

#include "support/fs_type.h"
#include "support/text.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace vexo {
namespace {

constexpr int32_t kSymbolicLinks[] = {1, 2, 3, 5, 6, 7};

} // namespace

TreeWalk::EntryType TreeWalk::type_of(const Listing::Entry &entry) {
    mode_t mode = static_cast<mode_t>(DTTOIF(entry.type));
    if (entry.type == DT_UNKNOWN) {
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
bool TreeWalk::enter(const Listing::Entry &entry) {
    const char *name = entry.name;
    if (m_request.dstName && m_request.dstName(entry.name, m_scratch.fill(), PathBuffer::kSize) >= 0) {
        m_scratch.adopt();
        name = m_scratch.c_str();
    }
    m_src.append("/").append(entry.name);
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

// An entry that cannot be named has failed like any other. The report names it as far as a path can.
int TreeWalk::entry_too_long(size_t srcLength, size_t dstLength) {
    set_error(Error::name_too_long, here(__LINE__));
    VEXO_LOG_ERROR(here(__LINE__), "path too long: [%s] to [%.*s/%s]", src(), static_cast<int>(dstLength), dst(),
                   src() + (srcLength < m_src.length() ? srcLength + 1 : srcLength));
    report(src());
    m_aborted = m_aborted || m_request.pathsMustFit;
    return -1;
}

// The top of the destination may lie in the source. It is known by its inode, which proves nothing on remote volumes.
void TreeWalk::note_destination_root() {
    struct stat status;
    if (is_type(m_request.srcKind, FsType::remote)) {
        note_resolved_roots();
    } else if (::stat(dst(), &status) == 0) {
        m_root = status;
    }
}

void TreeWalk::note_resolved_roots() {
    PathBuffer destination;
    if (::realpath(src(), m_resolved.fill()) == nullptr || ::realpath(dst(), destination.fill()) == nullptr) {
        m_resolved.clear();
        return;
    }
    m_resolved.adopt();
    destination.adopt();
    if (m_resolved.view() == "/") {
        m_resolved.clear();
    }
    std::string_view below = destination.view();
    if (!below.starts_with(m_resolved.view())) {
        return;
    }
    below.remove_prefix(m_resolved.length());
    m_ontoItself = below.empty();
    if (below.starts_with('/')) {
        m_rootBelowTop.append(below);
    }
}

bool TreeWalk::is_destination_root() const {
    if (!m_rootBelowTop.empty()) {
        return below_top() == m_rootBelowTop.view();
    }
    struct stat status;
    return m_root && ::stat(src(), &status) == 0 && status.st_dev == m_root->st_dev && status.st_ino == m_root->st_ino;
}

// On remote volumes: no link has taken the place of a directory on the way here.
bool TreeWalk::is_where_it_was() const {
    PathBuffer now;
    if (::realpath(src(), now.fill()) == nullptr) {
        return false;
    }
    now.adopt();
    return now.view().starts_with(m_resolved.view()) && behind(now.view(), m_resolved.length()) == below_top();
}

} // namespace vexo
