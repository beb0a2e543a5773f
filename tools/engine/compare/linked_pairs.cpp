#include "tools/engine/compare/linked_pairs.h"

#include <algorithm>

namespace engine {

LinkedPairs::Known LinkedPairs::meet(const Inode &first, const Inode &second, const std::string &path) {
    const auto [known, isNew] = m_files.try_emplace(first, Linked{path, {}});
    std::vector<Inode> &arrived = known->second.arrived;
    const bool seen = std::ranges::find(arrived, second) != arrived.end();
    if (!seen) {
        arrived.push_back(second);
    }
    return {.compared = seen, .becomes = isNew || seen ? std::string() : known->second.path};
}

} // namespace engine
