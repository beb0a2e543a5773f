#include "ea/files/remove_tree.h"

#include "ea/files/store_place.h"
#include "support/dir.h"
#include "support/heap.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vexo {
namespace {

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A directory that is being emptied, on the way from the top: which it is, so that the way back up can be trusted, and
// where the text of its path ends.
struct Level {
    dev_t device;
    ino_t inode;
    size_t pathLength;
};

class TreeRemoval {
  public:
    TreeRemoval(const StorePlace &top, const char *source) : m_top(top), m_source(source) {}

    // Only one directory is open at a time. What was left to read in those above is read anew on the way back, from the
    // start, where by then is nothing but what has not been seen.
    int run(const char *path) {
        if (!set_path(path)) {
            return -1;
        }
        if (step_into(m_top.directory(), m_top.name()) != Step::inside) {
            return m_result;
        }
        while (m_depth > 0 && m_result == 0) {
            errno = 0;
            const dirent *entry = m_directory.read();
            if (entry == nullptr) {
                m_result = errno == 0 ? leave() : -1;
            } else if (!is_dots(entry->d_name)) {
                m_result = remove_entry(*entry);
            }
        }
        return m_result;
    }

  private:
    enum class Step { inside, removed, failed };

    static bool is_dots(std::string_view name) { return name == "." || name == ".."; }

    Level *levels() { return reinterpret_cast<Level *>(m_levels.data()); }
    const char *path() { return reinterpret_cast<const char *>(m_path.data()); }

    bool set_path(std::string_view text) {
        m_path = HeapBuffer::uninitialised(text.size() + 1);
        m_length = 0;
        return m_path && append(text);
    }
    bool append(std::string_view text) {
        if (m_path.size() < m_length + text.size() + 1 && !m_path.resize((m_length + text.size() + 1) * 2)) {
            return false;
        }
        std::memcpy(m_path.data() + m_length, text.data(), text.size());
        cut(m_length + text.size());
        return true;
    }
    void cut(size_t length) {
        m_length = length;
        m_path.data()[length] = '\0';
    }

    int refused() {
        VEXO_LOG_ERROR(VEXO_AT(m_source), "Fail to remove (%s) (%d)(%s)", path(), errno, ::strerror(errno));
        return -1;
    }
    int unlink_here(int directory, const char *name, int flags) {
        return ::unlinkat(directory, name, flags) == 0 ? 0 : refused();
    }

    int remove_entry(const dirent &entry) {
        const size_t before = m_length;
        if (!append("/") || !append(entry.d_name)) {
            return -1;
        }
        const int inside = ::dirfd(m_directory.get());
        const Step step = entry.d_type == DT_DIR || entry.d_type == DT_UNKNOWN
                              ? step_into(inside, entry.d_name)
                              : (unlink_here(inside, entry.d_name, 0) == 0 ? Step::removed : Step::failed);
        if (step == Step::removed) {
            cut(before);
        }
        return step == Step::failed ? -1 : 0;
    }

    // Opens the directory of that name, or removes what is none, or cannot be opened and may be empty.
    Step step_into(int above, const char *name) {
        Fd opened(::openat(above, name, kDirectory));
        if (!opened) {
            const bool isDirectory = errno == EACCES;
            const bool isOther = errno == ENOTDIR || errno == ELOOP;
            m_result = !isDirectory && !isOther ? -1 : unlink_here(above, name, isDirectory ? AT_REMOVEDIR : 0);
            return m_result == 0 ? Step::removed : Step::failed;
        }
        struct stat status;
        Dir directory;
        if (::fstat(opened.get(), &status) == 0 && add_level({status.st_dev, status.st_ino, m_length})) {
            directory = Dir::of(std::move(opened));
        }
        if (!directory) {
            m_result = -1;
            return Step::failed;
        }
        m_directory = std::move(directory);
        return Step::inside;
    }
    bool add_level(const Level &level) {
        const size_t needed = (m_depth + 1) * sizeof(Level);
        if (m_levels.size() < needed && !m_levels.resize(needed * 2)) {
            return false;
        }
        levels()[m_depth++] = level;
        return true;
    }

    // Up from a directory that is empty by now, which goes. A directory that was moved meanwhile has something else
    // above it.
    int leave() {
        const Level left = levels()[--m_depth];
        cut(left.pathLength);
        if (m_depth == 0) {
            m_directory.close();
            return unlink_here(m_top.directory(), m_top.name(), AT_REMOVEDIR);
        }
        Fd above(::openat(::dirfd(m_directory.get()), "..", kDirectory));
        struct stat status;
        if (!above || ::fstat(above.get(), &status) != 0) {
            return -1;
        }
        const Level &expected = levels()[m_depth - 1];
        if (status.st_dev != expected.device || status.st_ino != expected.inode) {
            errno = ESTALE;
            return refused();
        }
        const char *const name = path() + expected.pathLength + 1;
        if (unlink_here(above.get(), name, AT_REMOVEDIR) != 0) {
            return -1;
        }
        m_directory = Dir::of(std::move(above));
        cut(expected.pathLength);
        return m_directory ? 0 : -1;
    }

    const StorePlace &m_top;
    const char *m_source;
    HeapBuffer m_path; // of what is being removed, for the log lines and for the way back
    size_t m_length = 0;
    HeapBuffer m_levels;
    size_t m_depth = 0;
    Dir m_directory;
    int m_result = 0;
};

} // namespace

int remove_tree(const char *path, const char *source) {
    const StorePlace place(path);
    return place ? TreeRemoval(place, source).run(path) : -1;
}

} // namespace vexo
