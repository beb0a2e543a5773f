#include "tools/engine/losses/loss.h"

#include <algorithm>

namespace engine {
namespace {

constexpr bool in_order() {
    for (size_t at = 0; at < kLossTable.size(); ++at) {
        if (static_cast<size_t>(kLossTable[at].cls) != at) {
            return false;
        }
    }
    return kLossTable.size() == static_cast<size_t>(LossClass::not_carried) + 1;
}
static_assert(in_order(), "loss_row() takes the class for the row's index");

} // namespace

std::optional<LossClass> loss_class(std::string_view name) {
    const auto *const row =
        std::ranges::find(kLossTable, name, [](const LossRow &one) { return std::string_view(one.name); });
    return row == kLossTable.end() ? std::nullopt : std::optional(row->cls);
}

const char *severity_name(Severity severity) {
    switch (severity) {
    case Severity::lost:
        return "lost";
    case Severity::changed:
        return "changed";
    case Severity::costs_more:
        break;
    }
    return "costs-more";
}

} // namespace engine
