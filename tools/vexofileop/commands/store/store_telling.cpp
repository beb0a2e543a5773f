#include "tools/vexofileop/commands/store/store_telling.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>

namespace tool {

void for_each_path(const std::vector<std::string> &paths, const std::function<void(const engine::HeldEntry &)> &work,
                   const std::function<void(const std::string &path, const std::string &reason)> &trouble) {
    engine::raise_descriptor_limit();
    for (const std::string &given : paths) {
        if (stop_signal() != 0) {
            break;
        }
        const std::string path = engine::absolute_path(given);
        try {
            work(engine::HeldEntry(path));
        } catch (const engine::Failure &failure) {
            trouble(path, failure.what());
        }
    }
}

void tell_trouble(Console &console, const std::string &command, const std::string &path, const std::string &reason,
                  bool json) {
    console.message(fmt::format("{}: {}", engine::displayed(path), reason));
    if (json) {
        Json event;
        event.add_text("event", "trouble");
        event.add_text("operation", command);
        event.add_name("path", path);
        event.add_text("reason", engine::as_utf8(reason));
        console.line(event.line());
    }
}

int write_store_report(Console &console, const Report &report, const std::string &path, int status) {
    if (path.empty()) {
        return status;
    }
    try {
        report.write(path, status);
    } catch (const engine::Failure &failure) {
        console.message(failure.what());
        return status | exitStoreTrouble;
    }
    return status;
}

} // namespace tool
