#include "tools/vexofileop/output/loss_json.h"

#include "tools/engine/report/names.h"

namespace tool {

Json loss_event(const std::string &source, const std::string &destination, const engine::Loss &loss) {
    const engine::LossRow &row = engine::loss_row(loss.cls);
    Json event;
    event.add_text("event", "loss");
    event.add_text("class", row.name);
    event.add_text("severity", engine::severity_name(row.severity));
    event.add_name("source", source);
    event.add_name("destination", destination);
    event.add_text("detail", engine::as_utf8(loss.text()));
    return event;
}

} // namespace tool
