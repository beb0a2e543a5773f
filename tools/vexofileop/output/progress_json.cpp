#include "tools/vexofileop/output/progress_json.h"

#include "tools/vexofileop/output/json.h"

namespace tool {

Console::ProgressText progress_text(const char *command, const char *first) {
    return [command, first](const ProgressNow &now) {
        Json line;
        line.add_text("event", "progress");
        line.add_text("operation", command);
        line.add_text("phase", now.phase.empty() ? first : now.phase);
        line.add_number("files", now.files);
        line.add_number("files_total", now.totalFiles);
        line.add_number("bytes", now.bytes);
        line.add_number("bytes_total", now.totalBytes);
        if (now.removed > 0) {
            line.add_number("removed", now.removed);
        }
        line.add_number("milliseconds", static_cast<int64_t>(now.seconds * 1000));
        if (now.rate) {
            line.add_number("bytes_per_second", static_cast<int64_t>(*now.rate));
        }
        if (now.left) {
            line.add_number("milliseconds_left", static_cast<int64_t>(*now.left * 1000));
        }
        return line.line();
    };
}

} // namespace tool
