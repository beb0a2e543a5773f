// vexofileop ea upgrade: from the layout with a small file for each attribute to the current one.
#include "tools/vexofileop/commands/ea/ea_commands.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_upgrade.h"
#include "tools/engine/walk/held_entry.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/commands/path_work.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>
#include <memory>

namespace tool {
namespace {

class Upgrade {
  public:
    Upgrade(PathWork &work, bool dryRun) : m_work(work), m_dryRun(dryRun) {}

    // `held`: the same by another path, for what is done with it.
    void file(const std::string &path, const std::string &held) {
        m_work.one(path, [&](const std::string &one) {
            engine::check_there(held);
            convert(one, held);
        });
    }

    void single(const std::string &path) {
        m_work.one(path, [&](const std::string &one) {
            const engine::HeldEntry entry(one);
            convert(one, entry.path());
        });
    }

    void tree(const std::string &path) {
        std::unique_ptr<const engine::HeldEntry> entry;
        m_work.one(path, [&](const std::string &one) {
            entry = std::make_unique<engine::HeldEntry>(one);
            convert(one, entry->path());
        });
        if (entry == nullptr) {
            return;
        }
        engine::walk_for_upgrade(
            *entry, {.visit = [this](const std::string &inner, const std::string &held) { file(inner, held); },
                     .unreadable =
                         [this](const std::string &directory) {
                             m_work.one(directory, [](const std::string &) { engine::throw_errno("cannot be read"); });
                         },
                     .stopped = [] { return stop_signal() != 0; }});
    }

  private:
    void say(const std::string &path, const std::string &store, const char *what) {
        m_work.console().line(fmt::format("{}: {} {}", engine::displayed(path), engine::displayed(store), what));
    }

    void convert(const std::string &path, const std::string &held) {
        std::string failure;
        for (const std::string &store : engine::old_stores(held)) {
            if (m_dryRun) {
                say(path, store, "would be converted");
                continue;
            }
            const std::string reason = convert_store(path, held, store);
            failure = reason.empty() ? failure : fmt::format("{}: {}", engine::displayed(store), reason);
        }
        if (!failure.empty()) {
            throw engine::Failure(failure);
        }
        if (!m_dryRun) {
            engine::finish_upgrade(held);
        }
    }

    // Why it was not converted with everything; empty: it was, or is there already.
    std::string convert_store(const std::string &path, const std::string &held, const std::string &store) {
        const engine::UpgradeResult result = engine::upgrade_store(held, store);
        if (result.what != engine::Upgraded::failed) {
            say(path, store,
                result.what == engine::Upgraded::converted ? "converted" : "is there in the current layout already");
        }
        return result.reason;
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
    command.set_footer("\nOne that was stopped goes on where it was. An attribute that the current layout\n"
                       "has with another value stays where it is, and is told.\n"
                       "Example:\n  vexofileop ea upgrade -r --dry-run /volume1/photos");
    command.set_work([&status, options, paths] {
        PathWork work;
        Upgrade upgrade(work, options->dryRun);
        for (const std::string &given : paths.all()) {
            if (options->recursive) {
                upgrade.tree(given);
            } else {
                upgrade.single(given);
            }
        }
        status = work.finish();
    });
}

} // namespace tool
