#include "copy/engine/relocation.h"

#include "copy/copy.h"
#include "copy/engine/relocation_texts.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <libgen.h>
#include <string_view>
#include <sys/stat.h>

namespace vexo {
namespace {

class Relocation {
  public:
    Relocation(const char *src, const char *dst, const RelocationRequest &request)
        : m_src(src), m_dst(dst), m_request(request) {}

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
            if (!remove_tree(staged())) {
                log(RelocationEvent::staged_not_removed, __LINE__, staged(), nullptr);
            }
        }
        log(RelocationEvent::commit_failed, __LINE__, m_src, m_dst);
        return -1;
    }

  private:
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

    // "<parent>/@tmp", and "<parent>/@tmp/<name>" of the destination.
    int build_paths() {
        HeapString forParent(m_dst);
        HeapString forName(m_dst);
        if (!forParent || !forName) {
            return fail(Error::out_of_memory, here(__LINE__));
        }
        m_stagingDirectory.join(::dirname(forParent.get()), "@tmp");
        const std::string_view name = ::basename(forName.get());
        if (name == "." || name == ".." || name == "/") {
            return refuse(); // the "staged" path would be a directory that is in use
        }
        m_staged.join(m_stagingDirectory.view(), name);
        return m_staged.overflowed() ? fail(Error::name_too_long, here(__LINE__)) : 0;
    }

    // A relocation empties its destination and its staging directory, and removes its source at the end. Where one of
    // them holds another, that would take the only copy along.
    int check_apart() const {
        PathBuffer source;
        PathBuffer staging; // resolved through the parent, which is there when "@tmp" is not yet
        std::string_view parent = m_stagingDirectory.view();
        parent.remove_suffix(std::string_view("/@tmp").size());
        std::string_view name = m_staged.view();
        name.remove_prefix(m_stagingDirectory.length() + 1);
        if (::realpath(m_src, source.fill()) == nullptr ||
            ::realpath(parent.empty() ? "/" : PathBuffer(parent).c_str(), staging.fill()) == nullptr) {
            return 0; // not there: the steps that need it say so
        }
        source.adopt();
        staging.adopt();
        PathBuffer destination;
        destination.join(staging.view() == "/" ? std::string_view() : staging.view(), name);
        if (staging.view() == "/") {
            staging.clear();
        }
        staging.append("/@tmp");
        const bool apart = !holds(source.view(), destination.view()) && !holds(destination.view(), source.view()) &&
                           !holds(staging.view(), source.view());
        return apart ? 0 : refuse();
    }
    static bool holds(std::string_view directory, std::string_view path) {
        return directory == "/" ||
               (path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/'));
    }

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
        if (clean_staged() == 0) {
            set_error(cause, here(__LINE__)); // the removal may have left another
        }
        if (copied != 0) {
            log(RelocationEvent::not_copied, __LINE__, m_src, staged());
        }
        return -1;
    }

    int move_into_place() {
        if (!remove_tree(m_dst)) {
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
        if (!m_request.keepSource && !remove_tree(m_src)) {
            log(RelocationEvent::source_not_removed, __LINE__, m_src, nullptr);
        }
        return 0;
    }

    const char *m_src;
    const char *m_dst;
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
