#include "tools/engine/stores/store_walk.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/descent.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_chain.h"
#include "tools/engine/walk/mount_table.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>

namespace engine {
namespace {

class StoreWalker {
  public:
    StoreWalker(const HeldEntry &entry, const SurveyOptions &options, const StoreWalk &walk)
        : m_entry(entry), m_options(options), m_walk(walk), m_descent(entry.given()) {}

    void run() {
        const bool isDirectory = S_ISDIR(m_entry.status().st_mode);
        if (!isDirectory && !S_ISREG(m_entry.status().st_mode)) {
            throw Failure("it is neither a file nor a directory, and has no store");
        }
        if (VEXOEAIsHiddenDir(m_entry.name().c_str()) == 1 || m_entry.name().starts_with("._")) {
            throw Failure("it belongs to a store; name the file or the directory that it is kept for");
        }
        if (m_entry.name() != ".") {
            beside();
        }
        if (isDirectory) {
            below();
        }
    }

  private:
    // What is kept for the operand itself lies beside it.
    void beside() {
        const std::string parent = parent_of(m_entry.given());
        // One that can be made durable, where this process may read it.
        const Descriptor opened(
            ::open(fmt::format("/proc/self/fd/{}/.", m_entry.directory()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const int directory = opened.get() >= 0 ? opened.get() : m_entry.directory();
        m_walk.visit({directory, parent, parent, "", StoreKind::none}, m_entry.name());
    }

    void below() {
        Descriptor top(::open((m_entry.itself() + "/.").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (top.get() < 0 || !m_way.start(std::move(top))) {
            return trouble(m_entry.given());
        }
        look_at_lowest("");
        enter("");
        while (!m_descent.empty() && !m_walk.stopped()) {
            const std::string *const name = m_descent.next();
            if (name == nullptr) {
                leave();
                continue;
            }
            go_down(std::string(*name));
        }
    }

    void go_down(const std::string &name) {
        const std::string path = joined(m_descent.path, name);
        Descriptor directory = open_directory(m_way.lowest(), name);
        struct stat found {};
        if (directory.get() < 0 || ::fstat(directory.get(), &found) != 0) {
            return errno == ENOENT ? void() : trouble(path);
        }
        const bool passed = (m_walk.passed && m_walk.passed(found)) ||
                            (m_options.oneVolume && is_mount(m_way.lowest(), directory.get()));
        if (passed) {
            return;
        }
        if (!m_way.descend(std::move(directory), name)) {
            return trouble(path);
        }
        m_descent.path = path;
        m_belows.push_back(m_belows.empty() || m_belows.back().empty() ? name : m_belows.back() + "/" + name);
        look_at_lowest(m_belows.back());
        enter(m_belows.back());
    }

    void enter(const std::string &below) {
        std::vector<std::string> names;
        if (m_options.recursive) {
            const auto entries = entries_in(m_way.lowest());
            if (!entries) {
                trouble(m_descent.path);
            }
            for (const Entry &entry : entries.value_or(std::vector<Entry>())) {
                if (entry.type == DT_DIR && VEXOEAIsHiddenDir(entry.name.c_str()) != 1 && !is_left_over(entry.name)) {
                    names.push_back(entry.name);
                }
            }
            std::ranges::sort(names);
        }
        if (m_belows.empty()) {
            m_belows.push_back(below);
        }
        m_descent.enter(std::move(names));
    }

    void leave() {
        const bool top = m_descent.is_at_top();
        const bool held = top || m_way.hold_above();
        m_descent.leave();
        m_way.ascend();
        m_belows.pop_back();
        if (!held) {
            errno = ESTALE; // somebody has moved it
            trouble(m_descent.path);
            while (!m_descent.empty()) {
                m_descent.leave();
            }
        }
    }

    void look_at_lowest(const std::string &below) {
        m_walk.visit({m_way.lowest(), m_descent.path, m_entry.given(), below, StoreKind::none}, "");
    }
    void trouble(const std::string &path) const { m_walk.unreadable(path, std::strerror(errno)); }

    const HeldEntry &m_entry;
    const SurveyOptions &m_options;
    const StoreWalk &m_walk;
    Descent<std::string> m_descent;
    DirectoryChain m_way;
    std::vector<std::string> m_belows; // of the directories on the way, from the operand on
};

} // namespace

void walk_stores(const HeldEntry &entry, const SurveyOptions &options, const StoreWalk &walk) {
    StoreWalker(entry, options, walk).run();
}

} // namespace engine
