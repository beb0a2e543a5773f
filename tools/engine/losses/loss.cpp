#include "tools/engine/losses/loss.h"

#include <algorithm>
#include <cstring>
#include <iterator>

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
static_assert(kLossTable.size() <= 32, "LossSet has a bit for each");

struct Group : LossGroup {
    bool (*has)(LossClass);
};
constexpr Group kGroups[] = {
    {{"all", "every class but data"}, [](LossClass cls) { return cls != LossClass::data; }},
    {{"acl", "the three kinds of ACL"},
     [](LossClass cls) {
         return cls == LossClass::acl_access || cls == LossClass::acl_default || cls == LossClass::acl_windows;
     }},
    {{"fat", "what any FAT volume costs"},
     [](LossClass cls) {
         return (cls >= LossClass::owner && cls <= LossClass::acl_windows) || cls == LossClass::creation_time;
     }},
};

} // namespace

std::optional<LossClass> loss_class(std::string_view name) {
    const auto *const row =
        std::ranges::find(kLossTable, name, [](const LossRow &one) { return std::string_view(one.name); });
    return row == kLossTable.end() ? std::nullopt : std::optional(row->cls);
}

std::optional<LossSet> loss_set(std::string_view name) {
    if (const auto cls = loss_class(name)) {
        return LossSet().add(*cls);
    }
    const auto *const group =
        std::ranges::find(kGroups, name, [](const Group &one) { return std::string_view(one.name); });
    if (group == std::end(kGroups)) {
        return std::nullopt;
    }
    LossSet set;
    for (const LossRow &row : kLossTable) {
        if (group->has(row.cls)) {
            set.add(row.cls);
        }
    }
    return set;
}

const LossGroup *loss_group(std::string_view name) {
    const auto *const group =
        std::ranges::find(kGroups, name, [](const Group &one) { return std::string_view(one.name); });
    return group == std::end(kGroups) ? nullptr : group;
}

std::vector<const LossGroup *> loss_groups() {
    std::vector<const LossGroup *> all;
    for (const Group &group : kGroups) {
        all.push_back(&group);
    }
    return all;
}

std::string loss_group_names() {
    std::string names;
    for (const Group &group : kGroups) {
        names += (names.empty() ? "" : ", ") + std::string(group.name);
    }
    return names;
}

std::string Loss::text() const {
    return number == 0 ? detail : detail + ": " + std::strerror(number);
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
