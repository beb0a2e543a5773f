#include "tools/vexofileop/output/finding_json.h"

#include "tools/engine/report/names.h"

namespace tool {

Json finding_event(const std::string &command, const engine::Finding &finding) {
    Json event;
    event.add_text("event", "finding");
    event.add_text("operation", command);
    event.add_text("finding", engine::finding_row(finding.kind).name);
    event.add_text("state", engine::state_name(finding.state));
    event.add_name("place", finding.place);
    for (const auto &[member, path] : {std::pair{"file", &finding.file}, {"belongs", &finding.belongs}}) {
        if (!path->empty()) {
            event.add_name(member, *path);
        }
    }
    event.add_text("detail", engine::as_utf8(finding.detail));
    for (const auto &[member, text] : {std::pair{"remedy", &finding.remedy}, {"reason", &finding.reason}}) {
        if (!text->empty()) {
            event.add_text(member, engine::as_utf8(*text));
        }
    }
    return event;
}

} // namespace tool
