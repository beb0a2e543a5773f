#include "tools/engine/stores/finding.h"

#include <algorithm>

namespace engine {
namespace {

constexpr bool findings_are_in_order() {
    for (size_t at = 0; at < kFindingTable.size(); ++at) {
        if (static_cast<size_t>(kFindingTable[at].kind) != at) {
            return false;
        }
    }
    return kFindingTable.size() == static_cast<size_t>(FindingKind::in_use) + 1;
}
static_assert(findings_are_in_order(), "finding_row() takes the kind for the row's index");

} // namespace

std::optional<FindingKind> finding_kind(std::string_view name) {
    const auto *const row =
        std::ranges::find(kFindingTable, name, [](const FindingRow &one) { return std::string_view(one.name); });
    return row == kFindingTable.end() ? std::nullopt : std::optional(row->kind);
}

const char *state_name(Finding::State state) {
    switch (state) {
    case Finding::State::found:
        return "found";
    case Finding::State::mended:
        return "mended";
    case Finding::State::left:
        break;
    }
    return "left";
}

} // namespace engine
