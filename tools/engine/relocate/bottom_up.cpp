#include "tools/engine/relocate/bottom_up.h"

#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_chain.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <vector>

namespace engine {
namespace {

class Removing {
  public:
    Removing(int parent, std::string path, const BottomUp &steps)
        : m_parent(parent), m_path(std::move(path)), m_steps(steps) {}

    bool run(const std::string &name) {
        m_complete = visit(m_parent, name);
        while (!m_levels.empty()) {
            Level &level = m_levels.back();
            m_path.resize(level.pathLength);
            if (level.next == level.names.size() || m_steps.stopped()) {
                if (!leave()) {
                    return false;
                }
                continue;
            }
            const std::string inner = level.names[level.next++];
            m_path = joined(m_path, inner);
            const size_t at = m_levels.size() - 1;
            const bool fine = visit(m_way.lowest(), inner);
            m_levels[at].complete = fine && m_levels[at].complete;
        }
        return m_complete;
    }

  private:
    struct Level {
        std::string name;
        std::vector<std::string> names;
        size_t pathLength;
        size_t next = 0;
        bool complete = true;
    };

    // False: it stays. Of a directory that was entered that turns out when it is left.
    bool visit(int parent, const std::string &name) {
        struct stat found {};
        const auto look = [&] { return ::fstatat(parent, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0; };
        if (!look() && (errno != ENOENT || !look())) { // that it is not there is believed when it is told twice
            return errno == ENOENT || stays(problem_of_errno(errno));
        }
        if (!S_ISDIR(found.st_mode)) {
            return m_steps.unlink(parent, name, m_path);
        }
        if (!m_steps.enter(parent, name, found, m_path)) {
            return false;
        }
        Descriptor directory = open_directory(parent, name);
        auto names = directory.get() < 0 ? std::nullopt : names_in(fmt::format("/proc/self/fd/{}/.", directory.get()));
        if (!names ||
            !(m_levels.empty() ? m_way.start(std::move(directory)) : m_way.descend(std::move(directory), name))) {
            return stays(problem_of_errno(errno));
        }
        m_levels.push_back({name, std::move(*names), m_path.size()});
        return true;
    }

    // False: nothing more can be done.
    bool leave() {
        const Level &level = m_levels.back();
        const bool top = m_levels.size() == 1;
        if (!top && !m_way.hold_above()) {
            return stays({"somebody has moved it meanwhile"});
        }
        const bool whole = level.complete && level.next == level.names.size();
        const bool gone = whole && m_steps.finish(top ? m_parent : m_way.fd(m_way.size() - 2), level.name, m_path);
        m_levels.pop_back();
        if (top) {
            m_complete = gone;
            return true;
        }
        m_way.ascend();
        m_levels.back().complete = gone && m_levels.back().complete;
        return true;
    }

    bool stays(const Problem &problem) const {
        m_steps.left(m_path, problem);
        return false;
    }

    int m_parent;
    std::string m_path;
    const BottomUp &m_steps;
    DirectoryChain m_way;
    std::vector<Level> m_levels;
    bool m_complete = true;
};

} // namespace

bool remove_bottom_up(int parent, const std::string &name, const std::string &path, const BottomUp &steps) {
    return Removing(parent, path, steps).run(name);
}

} // namespace engine
