#include "tools/engine/store/store_upgrade.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <string_view>

namespace engine {
namespace {

mode_t kind_at(const std::string &path) {
    const auto found = look(path);
    return found ? found->st_mode & S_IFMT : 0;
}

// What other services keep in the same directory, which stays there.
bool is_of_others(std::string_view name) {
    const bool picture = name.ends_with(".jpg") || name.ends_with(".png");
    return name == "offset" || name == "ART_MXAUDIO.jpg" || (picture && name.find("APIC") != std::string_view::npos);
}

} // namespace

std::vector<std::string> old_stores(const std::string &path) {
    char directory[PATH_MAX] = "";
    std::vector<std::string> stores;
    if (VEXOEADirPath(0, path.c_str(), directory, sizeof directory - 1) != 0) {
        return stores;
    }
    bool attributes = false;
    for (const std::string &name : names_in(directory).value_or(std::vector<std::string>())) {
        const bool ofService = name.starts_with("VEXO");
        if (name == "VEXO:Resource") {
            stores.emplace_back("VexoResource");
        } else if (name.find(':') != std::string::npos) {
            if (ofService) {
                stores.push_back(name);
            }
        } else if (!ofService && !is_of_others(name) && kind_at(joined(directory, name)) == S_IFREG) {
            attributes = true;
        }
    }
    if (attributes) {
        stores.emplace_back("VexoEAStream");
    }
    std::ranges::sort(stores);
    return stores;
}

UpgradeResult upgrade_store(const std::string &path, const std::string &store) {
    forget_last_error();
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

void walk_for_upgrade(const std::string &path, const UpgradeWalk &walk) {
    walk.visit(path);
    if (kind_at(path) != S_IFDIR || walk.stopped()) {
        return;
    }
    const auto names = names_in(path);
    if (!names) {
        walk.unreadable(path);
        return;
    }
    for (const std::string &name : *names) {
        const std::string inner = joined(path, name);
        const mode_t kind = kind_at(inner);
        if ((kind == S_IFREG || kind == S_IFDIR) && VEXOEAIsHiddenDirName(name.c_str()) <= 0) {
            walk_for_upgrade(inner, walk);
        }
    }
}

} // namespace engine
