#include "copy/engine/relocation.h"

#include "copy/copy.h"
#include "copy/engine/relocation_apart.h"
#include "copy/engine/relocation_texts.h"
#include "copy/engine/tree_copy_listing.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <cstring>
#include <fts.h>
#include <libgen.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace vexo {
namespace {

// Whether `tree` has every entry that `copy` has, of the same type and the files of the same size.
bool holds_tree(const char *tree, const char *copy) {
    char *const roots[] = {const_cast<char *>(copy), nullptr};
    FTS *const walk = ::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
    if (walk == nullptr) {
        return false;
    }
    const size_t length = std::strlen(copy);
    bool whole = true;
    FTSENT *entry = nullptr;
    while (whole && (entry = ::fts_read(walk)) != nullptr) {
        PathBuffer path(tree);
        path.append(entry->fts_path + length);
        struct stat status;
        if (entry->fts_level > 0 && is_never_carried(entry->fts_name)) { // stores look otherwise on other volumes
            (void)::fts_set(walk, entry, FTS_SKIP);
            continue;
        }
        switch (entry->fts_info) {
        case FTS_DP:
            break;
        case FTS_D:
            whole = entry->fts_level == 0 || (::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
            break;
        case FTS_F:
        case FTS_SL:
        case FTS_SLNONE:
            whole = ::lstat(path.c_str(), &status) == 0 &&
                    (status.st_mode & S_IFMT) == (entry->fts_statp->st_mode & S_IFMT) &&
                    (!S_ISREG(status.st_mode) || status.st_size == entry->fts_statp->st_size);
            break;
        default: // what cannot be looked at is not known
            whole = false;
        }
    }
    ::fts_close(walk);
    return whole;
}

class Relocation {
  public:
    Relocation(const char *src, const char *dst, const RelocationRequest &request)
        : m_srcPath(text_of(src)), m_dstPath(text_of(dst)), m_src(src), m_dst(dst), m_request(request) {
        // A slash behind the name would hide the store that belongs to it.
        m_srcPath.trim_slashes();
        m_dstPath.trim_slashes();
        m_src = src == nullptr || m_srcPath.overflowed() ? src : m_srcPath.c_str();
        m_dst = dst == nullptr || m_dstPath.overflowed() ? dst : m_dstPath.c_str();
    }

    int stage() {
        if (check_arguments() < 0 || build_paths() < 0 || check_apart() < 0 || copy_to_staging() < 0) {
            log(RelocationEvent::stage_failed, __LINE__, m_src, m_dst);
            return -1;
        }
        return 0;
    }

    int commit() {
        if (move_into_place() == 0) {
            return 0;
        }
        {
            const KeepErrors keep;
            if (!is_source_whole()) {
                VEXO_LOG_ERROR(here(__LINE__), "the source [%s] is not known to be whole, kept its copy [%s]", m_src,
                               staged());
            } else if (!remove_tree(staged())) {
                log(RelocationEvent::staged_not_removed, __LINE__, staged(), nullptr);
            }
        }
        log(RelocationEvent::commit_failed, __LINE__, m_src, m_dst);
        return -1;
    }

  private:
    static const char *text_of(const char *path) { return path == nullptr ? "" : path; }
    Place here(uint32_t line) const { return {m_request.source, line}; }
    const char *staged() const { return m_staged.c_str(); }
    void log(RelocationEvent event, uint32_t line, const char *first, const char *second) const {
        log_relocation(m_request.texts, event, here(line), first == nullptr ? "(null)" : first,
                       second == nullptr ? "(null)" : second);
    }

    int check_arguments() const {
        if (m_src != nullptr && m_dst != nullptr && *m_src != '\0' && *m_dst != '\0') {
            return 0;
        }
        return refuse();
    }
    int refuse() const {
        set_error(Error::invalid_argument, here(__LINE__));
        log(RelocationEvent::bad_arguments, __LINE__, nullptr, nullptr);
        return -1;
    }

    static bool is_no_name(std::string_view name) { return name == "." || name == ".." || name == "/"; }

    // "<parent>/@tmp", and "<parent>/@tmp/<name>" of the destination.
    int build_paths() {
        HeapString forParent(m_dst);
        HeapString forName(m_dst);
        HeapString forSource(m_src);
        if (!forParent || !forName || !forSource) {
            return fail(Error::out_of_memory, here(__LINE__));
        }
        m_stagingDirectory.join(::dirname(forParent.get()), "@tmp");
        const std::string_view name = ::basename(forName.get());
        const std::string_view sourceName = ::basename(forSource.get());
        if (is_no_name(name) || is_no_name(sourceName)) {
            return refuse(); // the "staged" path would be a directory that is in use
        }
        m_staged.join(m_stagingDirectory.view(), name);
        return m_staged.overflowed() ? fail(Error::name_too_long, here(__LINE__)) : 0;
    }

    // Looked at before each step that removes something: what a path leads to may have changed.
    bool all_apart() const {
        return are_apart(m_src, m_dst) && are_apart(m_src, m_stagingDirectory.c_str()) &&
               are_apart(m_dst, m_stagingDirectory.c_str());
    }
    int check_apart() {
        struct stat status;
        if (::stat(m_src, &status) == 0) {
            m_source = status;
        }
        return all_apart() ? 0 : refuse();
    }
    // The source is the directory that it was at the beginning.
    bool is_source_itself() const {
        struct stat status;
        return m_source && ::stat(m_src, &status) == 0 && S_ISDIR(status.st_mode) &&
               status.st_dev == m_source->st_dev && status.st_ino == m_source->st_ino;
    }
    // And it holds what was staged of it, which the emptying of a destination that nobody knew to be the source, under
    // the name of a server for example, would have changed.
    bool is_source_whole() const { return is_source_itself() && all_apart() && holds_tree(m_src, staged()); }

    // VLIBCopyRemoveDir answers 0 even when the removal failed: that is told by the last error alone.
    bool remove_tree(const char *path) const {
        set_error(Error::none, here(__LINE__));
        if (VLIBCopyRemoveDir(path) < 0) {
            return false;
        }
        struct stat status;
        return last_error() != Error::write || ::lstat(path, &status) != 0;
    }

    int clean_staged() {
        if (remove_tree(staged())) {
            return 0;
        }
        set_error(Error::remove, here(__LINE__));
        log(RelocationEvent::staging_not_cleaned, __LINE__, staged(), nullptr);
        return -1;
    }

    int copy_to_staging() {
        if (VLIBCopyCreateTmpDir(m_stagingDirectory.c_str(), 0, 0777) < 0) {
            set_error(Error::make_directory, here(__LINE__));
            log(RelocationEvent::staging_not_made, __LINE__, m_stagingDirectory.c_str(), nullptr);
            return -1;
        }
        if (clean_staged() < 0) {
            return -1;
        }
        bool cancelled = false;
        const int copied = m_request.copy(m_src, staged(), &cancelled);
        if (copied == 0 && !cancelled) {
            return 0;
        }
        const Error cause = copied == 0 ? Error::cancelled : Error::short_write;
        set_error(cause, here(__LINE__));
        if (m_source && !is_source_itself()) {
            VEXO_LOG_ERROR(here(__LINE__), "the source [%s] is not known to be whole, kept its copy [%s]", m_src,
                           staged());
        } else if (clean_staged() == 0) {
            set_error(cause, here(__LINE__)); // the removal may have left another
        }
        if (copied != 0) {
            log(RelocationEvent::not_copied, __LINE__, m_src, staged());
        }
        return -1;
    }

    int move_into_place() {
        if (!is_source_itself() || !all_apart()) {
            return refuse();
        }
        // A directory that is still there would get the staged one as an entry.
        struct stat status;
        if (!remove_tree(m_dst) || (::stat(m_dst, &status) == 0 && S_ISDIR(status.st_mode))) {
            log(RelocationEvent::destination_not_cleaned, __LINE__, m_dst, nullptr);
            return fail(Error::remove, here(__LINE__));
        }
        if (VLIBCExec("/bin/mv", "-f", staged(), m_dst, nullptr) != 0) {
            log(RelocationEvent::not_moved, __LINE__, staged(), m_dst);
            return fail(Error::relocation_move, here(__LINE__));
        }
        if (m_request.openDestination && ::chmod(m_dst, 0777) != 0) {
            VEXO_LOG_ERROR(here(__LINE__), "Failed to chmod %s", m_dst);
        }
        if (!m_request.keepSource && (!is_source_itself() || !are_apart(m_src, m_dst) || !remove_tree(m_src))) {
            log(RelocationEvent::source_not_removed, __LINE__, m_src, nullptr);
        }
        return 0;
    }

    PathBuffer m_srcPath;
    PathBuffer m_dstPath;
    const char *m_src; // the trimmed one; null as it was given
    const char *m_dst;
    std::optional<struct stat> m_source = {}; // at the beginning
    const RelocationRequest &m_request;
    PathBuffer m_stagingDirectory;
    PathBuffer m_staged;
};

} // namespace

int relocate(const char *src, const char *dst, const RelocationRequest &request) {
    Relocation relocation(src, dst, request);
    return relocation.stage() < 0 ? -1 : relocation.commit();
}

} // namespace vexo
