#include "tools/vexofileop/output/receipt.h"

#include "tools/engine/report/names.h"

#include <algorithm>
#include <fmt/format.h>

namespace tool {

std::string loss_text(const std::string &source, const std::string &destination, const engine::Loss &loss) {
    return fmt::format("{} -> {}: {} ({})", engine::displayed(source), engine::displayed(destination), loss.text(),
                       engine::loss_row(loss.cls).name);
}

bool Receipt::add(const std::string &source, const std::string &destination, const engine::Loss &loss, bool told) {
    Count &count = m_counts[static_cast<size_t>(loss.cls)];
    ++count.number;
    count.told += told ? 1 : 0;
    if (!told && count.number - count.told == 1) {
        count.source = source;
        count.destination = destination;
        count.detail = loss.text();
    }
    const bool failed = engine::fails(loss, m_accepted);
    m_failed = m_failed || failed;
    return failed;
}

bool Receipt::empty() const {
    return std::ranges::all_of(m_counts, [](const Count &count) { return count.number == 0; });
}

std::vector<std::string> Receipt::lines() const {
    std::vector<std::string> lines;
    for (const engine::LossRow &row : engine::kLossTable) {
        const Count &count = m_counts[static_cast<size_t>(row.cls)];
        if (count.number == count.told) {
            continue;
        }
        const char *const remark = m_accepted.contains(row.cls)                   ? ", as accepted"
                                   : row.severity == engine::Severity::costs_more ? ", which takes more room"
                                                                                  : "";
        lines.push_back(fmt::format("{} {}{}{} {}", count.number, count.number == 1 ? row.one : row.several, remark,
                                    count.number == 1 ? ":" : ", for example",
                                    loss_text(count.source, count.destination, {row.cls, count.detail})));
    }
    return lines;
}

std::string Receipt::failing(engine::LossSet among) const {
    std::string names;
    for (const engine::LossRow &row : engine::kLossTable) {
        const bool helps =
            among.contains(row.cls) && row.cls != engine::LossClass::data && row.cls != engine::LossClass::not_carried;
        if (helps && count(row.cls) > 0 && engine::fails({row.cls, ""}, m_accepted)) {
            names += (names.empty() ? "" : ",") + std::string(row.name);
        }
    }
    return names;
}

void Receipt::add_to(Json &summary, const char *name) const {
    for (const engine::LossRow &row : engine::kLossTable) {
        if (count(row.cls) == 0) {
            continue;
        }
        Json object;
        object.add_text("class", row.name);
        object.add_text("severity", engine::severity_name(row.severity));
        object.add_number("count", count(row.cls));
        object.add_flag("accepted", m_accepted.contains(row.cls));
        summary.add_to_list(name, std::move(object));
    }
}

} // namespace tool
