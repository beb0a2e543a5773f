#include "tools/engine/store/store_upgrade.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/old_attributes.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_chain.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <string_view>

namespace engine {
namespace {

// Whether the library has something to decide: beside the attribute files there is a "._" file, and the newer counts.
bool has_apple_double(const std::string &path) {
    constexpr int genuine = 0;
    char companion[PATH_MAX] = "";
    return VEXOEAADPath(path.c_str(), companion, sizeof companion - 1) == 0 && VEXOEACheckADFile(companion) == genuine;
}

UpgradeResult upgrade_attributes(const std::string &path) {
    try {
        const OldAttributes::Moved moved = OldAttributes(path).move_to_stream();
        if (moved.all) {
            return {Upgraded::converted};
        }
        return {Upgraded::failed,
                moved.other.empty()
                    ? "not all of it could be converted; the rest is where it was"
                    : fmt::format("the attribute {} is there with another value; the old one is where it was",
                                  displayed(moved.other))};
    } catch (const Failure &failure) {
        return {Upgraded::failed, failure.what()};
    }
}

// The entries of a tree, directories before what is in them.
class TreeWalk {
  public:
    TreeWalk(const HeldEntry &top, const UpgradeWalk &walk) : m_path(top.given()), m_top(top), m_walk(walk) {}

    void run() {
        Descriptor top(::open((m_top.itself() + "/.").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        auto entries = top.get() < 0 ? std::nullopt : entries_in(top.get());
        if (!entries || !m_way.start(std::move(top))) {
            m_walk.unreadable(m_path);
            return;
        }
        m_levels.push_back({std::move(*entries), m_path.size()});
        while (!m_levels.empty() && !m_walk.stopped()) {
            Level &level = m_levels.back();
            m_path.resize(level.pathLength);
            if (level.next < level.entries.size()) {
                visit(level.entries[level.next++]);
            } else {
                leave();
            }
        }
    }

  private:
    struct Level {
        std::vector<Entry> entries;
        size_t pathLength;
        size_t next = 0;
    };

    void visit(const Entry &entry) {
        if ((entry.type != DT_REG && entry.type != DT_DIR) || VEXOEAIsHiddenDirName(entry.name.c_str()) > 0) {
            return;
        }
        const std::string name = entry.name; // which goes when a level is added
        m_path = joined(m_path, name);
        m_walk.visit(m_path, m_way.path_of(name));
        if (entry.type != DT_DIR) {
            return;
        }
        Descriptor directory = open_directory(m_way.lowest(), name);
        auto entries = directory.get() < 0 ? std::nullopt : entries_in(directory.get());
        if (entries && m_way.descend(std::move(directory), name)) {
            m_levels.push_back({std::move(*entries), m_path.size()});
        } else if (errno != ENOENT) {
            m_walk.unreadable(m_path);
        }
    }

    void leave() {
        const bool held = m_levels.size() == 1 || m_way.hold_above();
        m_levels.pop_back();
        m_way.ascend();
        if (!held) {
            m_path.resize(m_levels.back().pathLength);
            m_levels.back().next = m_levels.back().entries.size();
            errno = ESTALE; // somebody has moved it
            m_walk.unreadable(m_path);
        }
    }

    std::string m_path;
    const HeldEntry &m_top;
    const UpgradeWalk &m_walk;
    std::vector<Level> m_levels;
    DirectoryChain m_way;
};

} // namespace

std::vector<std::string> old_stores(const std::string &path) {
    const OldAttributes old(path);
    std::vector<std::string> stores;
    for (const std::string &name : old.names()) {
        if (name == "VEXO:Resource") {
            stores.emplace_back("VexoResource");
        } else if (name.starts_with("VEXO") && name.find(':') != std::string::npos) {
            stores.push_back(name);
        }
    }
    if (old.any()) {
        stores.emplace_back(kEaStream);
    }
    std::ranges::sort(stores);
    return stores;
}

UpgradeResult upgrade_store(const std::string &path, const std::string &store) {
    forget_last_error();
    // The library takes a stream that is there for all there is to convert, also one that a stopped run left.
    if (store == kEaStream &&
        (exists(stream_path(path, StoreKind::ea_directory, kEaStream)) || !has_apple_double(path))) {
        return upgrade_attributes(path);
    }
    const int result = VEXOEAUpgrade(path.c_str(), store.c_str());
    const uint32_t code = VLIBCErrGet();
    if (result < 0) {
        return {Upgraded::failed, fmt::format("{} ({})", reason_of(code), code_text(code))};
    }
    if (result == 1) {
        return {Upgraded::was_current};
    }
    // The last error may be that of a search; that something stayed shows.
    const std::vector<std::string> left = old_stores(path);
    if (std::ranges::find(left, store) != left.end()) {
        return {Upgraded::failed, "not all of it could be converted; the rest is where it was"};
    }
    if (store == "VexoResource" && code != 0) {
        return {Upgraded::failed,
                fmt::format("converted, but whether the file is locked or hidden could not be read: {} ({})",
                            reason_of(code), code_text(code))};
    }
    return {Upgraded::converted};
}

void finish_upgrade(const std::string &path) {
    OldAttributes(path).remove_if_empty();
}

void walk_for_upgrade(const HeldEntry &top, const UpgradeWalk &walk) {
    if (S_ISDIR(top.status().st_mode) && !walk.stopped()) {
        TreeWalk(top, walk).run();
    }
}

} // namespace engine
