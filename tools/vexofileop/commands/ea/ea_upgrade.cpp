// vexofileop ea upgrade: from the layout with a small file for each attribute to the current one.
#include "tools/vexofileop/commands/ea/ea_commands.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/path_work.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>

namespace tool {
namespace {

mode_t kind_at(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 ? found.st_mode & S_IFMT : 0;
}

// What other services keep in the same directory, which stays there.
bool is_of_others(std::string_view name) {
    const bool picture = name.ends_with(".jpg") || name.ends_with(".png");
    return name == "offset" || name == "ART_MXAUDIO.jpg" || (picture && name.find("APIC") != std::string_view::npos);
}

// The stores of the old layout that a file has, by the names that convert them.
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

class Upgrade {
  public:
    Upgrade(PathWork &work, bool dryRun) : m_work(work), m_dryRun(dryRun) {}

    void file(const std::string &path) {
        m_work.one(path, [this](const std::string &one) {
            check_there(one);
            convert(one);
        });
    }

    void tree(const std::string &path) {
        file(path);
        if (kind_at(path) != S_IFDIR || stop_signal() != 0) {
            return;
        }
        const auto names = names_in(path);
        if (!names) {
            m_work.one(path, [](const std::string &) { throw_errno("cannot be read"); });
            return;
        }
        for (const std::string &name : *names) {
            const std::string inner = joined(path, name);
            const mode_t kind = kind_at(inner);
            if ((kind == S_IFREG || kind == S_IFDIR) && VEXOEAIsHiddenDirName(name.c_str()) <= 0) {
                tree(inner);
            }
        }
    }

  private:
    void say(const std::string &path, const std::string &store, const char *what) {
        m_work.console().line(fmt::format("{}: {} {}", displayed(path), displayed(store), what));
    }

    void convert(const std::string &path) {
        std::string failure;
        for (const std::string &store : old_stores(path)) {
            if (m_dryRun) {
                say(path, store, "would be converted");
                continue;
            }
            const std::string reason = convert(path, store);
            failure = reason.empty() ? failure : fmt::format("{}: {}", displayed(store), reason);
        }
        if (!failure.empty()) {
            throw Failure(failure);
        }
    }

    // Why it was not converted with everything; empty: it was, or is there already.
    std::string convert(const std::string &path, const std::string &store) {
        forget_last_error();
        const int result = VEXOEAUpgrade(path.c_str(), store.c_str());
        const uint32_t code = VLIBCErrGet();
        if (result < 0) {
            return fmt::format("{} ({})", reason_of(code), code_text(code));
        }
        if (result == 1) {
            say(path, store, "is there in the current layout already");
            return "";
        }
        // The last error may be that of a search; that something stayed shows.
        const std::vector<std::string> left = old_stores(path);
        if (std::ranges::find(left, store) != left.end()) {
            return "not all of it could be converted; the rest is where it was";
        }
        if (store == "VexoResource" && code != 0) {
            return fmt::format("converted, but whether the file is locked or hidden could not be read: {} ({})",
                               reason_of(code), code_text(code));
        }
        say(path, store, "converted");
        return "";
    }

    PathWork &m_work;
    bool m_dryRun;
};

} // namespace

void add_ea_upgrade_command(const Command &ea, int &status) {
    struct Options {
        bool recursive = false, dryRun = false;
    };
    const auto options = std::make_shared<Options>();
    const Command command = ea.add_command("upgrade", "Convert stores of the old layout");
    command.add_flag("-r,--recursive", options->recursive, "every file and directory of a tree");
    command.add_flag("--dry-run", options->dryRun, "only list what would be converted");
    const PathOperands paths(command, "PATH", "PATH...");
    command.set_footer("\nExample:\n  vexofileop ea upgrade -r --dry-run /volume1/photos");
    command.set_work([&status, options, paths] {
        PathWork work;
        Upgrade upgrade(work, options->dryRun);
        for (const std::string &given : paths.all()) {
            if (options->recursive) {
                upgrade.tree(absolute_path(given));
            } else {
                upgrade.file(given);
            }
        }
        status = work.finish();
    });
}

} // namespace tool
