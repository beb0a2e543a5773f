#include "tools/engine/check/metadata_comparison.h"

#include "tools/engine/report/names.h"

#include <fmt/format.h>
#include <map>

namespace engine {
namespace {

using Attributes = std::map<std::string, std::string>;

void add_differing_attributes(const Attributes &one, const Attributes &other, std::vector<std::string> &found) {
    for (const auto &[name, value] : one) {
        const auto there = other.find(name);
        if (there == other.end()) {
            found.push_back(fmt::format("attribute {}: only at the first", displayed(name)));
        } else if (there->second != value) {
            found.push_back(fmt::format("attribute {} differs: {} and {} bytes", displayed(name), value.size(),
                                        there->second.size()));
        }
    }
    for (const auto &[name, value] : other) {
        if (!one.contains(name)) {
            found.push_back(fmt::format("attribute {}: only at the second", displayed(name)));
        }
    }
}

} // namespace

std::vector<std::string> metadata_differences(const Store::Metadata &one, const Store::Metadata &other) {
    std::vector<std::string> found;
    if (one.finderInfo != other.finderInfo) {
        found.emplace_back("Finder Info differs");
    }
    if (one.fork != other.fork) {
        found.push_back(fmt::format("resource fork differs: {} and {} bytes", one.fork.size(), other.fork.size()));
    }
    if (one.locked != other.locked) {
        found.emplace_back(one.locked ? "only the first is locked" : "only the second is locked");
    }
    add_differing_attributes(one.attributes, other.attributes, found);
    return found;
}

} // namespace engine
