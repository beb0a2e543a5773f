#include "tools/vexofileop/commands/store/store_telling.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"

#include <fmt/format.h>

namespace tool {

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
