#include "tools/vexofileop/arguments/loss_classes.h"

#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace tool {
namespace {

std::string known_names() {
    std::string names = engine::loss_group_names();
    for (const engine::LossRow &row : engine::kLossTable) {
        names += std::string(", ") + row.name;
    }
    return names;
}

} // namespace

Option add_accept_option(const Command &command) {
    return command.add_values("--accept", "CLASS,...", "what may be lost without a failure: owner, acl, fat");
}

engine::LossSet loss_set_of(const std::string &names, const char *option) {
    engine::LossSet set;
    for (std::string_view rest = names;;) {
        const std::string_view name = rest.substr(0, rest.find(','));
        const auto found = engine::loss_set(name);
        if (!found) {
            throw UsageError(fmt::format("{}: \"{}\" is no class of losses; they are {}", option,
                                         engine::displayed(name), known_names()));
        }
        set.add(*found);
        if (name.size() == rest.size()) {
            return set;
        }
        rest.remove_prefix(name.size() + 1);
    }
}

engine::LossSet loss_set_of(const Option &option, const char *name) {
    engine::LossSet set;
    for (const std::string &value : option.values()) {
        set.add(loss_set_of(value, name));
    }
    return set;
}

} // namespace tool
