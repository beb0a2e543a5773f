#include "tools/vexofileop/output/conversion_json.h"

#include "tools/engine/report/names.h"

#include <fmt/format.h>

namespace tool {

Json conversion_event(const engine::Conversion &conversion) {
    Json event;
    event.add_text("event", "conversion");
    event.add_text("operation", "store convert");
    event.add_text("state", engine::state_name(conversion.state));
    event.add_name("path", conversion.file);
    event.add_text("from", engine::form_name(conversion.from));
    event.add_text("to", engine::form_name(conversion.to));
    if (!conversion.reason.empty()) {
        event.add_text("reason", engine::as_utf8(conversion.reason));
    }
    return event;
}

std::string text_of_conversion(const engine::Conversion &conversion) {
    const char *const from = engine::form_name(conversion.from), *const to = engine::form_name(conversion.to);
    std::string text = engine::displayed(conversion.file);
    switch (conversion.state) {
    case engine::Conversion::State::converted:
        text += fmt::format(": converted from {} to {}", from, to);
        break;
    case engine::Conversion::State::convertible:
        text += fmt::format(": would be converted from {} to {}", from, to);
        break;
    case engine::Conversion::State::left:
        text += fmt::format(": left: {}", conversion.reason);
        break;
    }
    for (const engine::Loss &loss : conversion.losses) {
        text += fmt::format("; {} ({})", loss.detail, engine::loss_row(loss.cls).name);
    }
    return text;
}

} // namespace tool
