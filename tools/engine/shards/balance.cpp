#include "tools/engine/shards/balance.h"

namespace engine {
namespace {

// What an entry costs beside its bytes, as bytes.
constexpr uint64_t kEntryCost = 64 << 10;
// A shard may be before the lightest by this part of what a shard has.
constexpr uint64_t kAheadPart = 32;

} // namespace

Balance::Balance(int shards) : m_weights(static_cast<size_t>(shards)) {
    for (size_t shard = 0; shard < m_weights.size(); ++shard) {
        m_order.insert({0, shard});
    }
}

size_t Balance::next(int64_t bytes) {
    const uint64_t weight = static_cast<uint64_t>(bytes) + kEntryCost;
    const auto &[least, lightest] = *m_order.begin();
    if (m_weights[m_current] + weight > least + m_all / (kAheadPart * m_weights.size())) {
        m_current = lightest;
    }
    weigh(m_current, weight);
    return m_current;
}

size_t Balance::next_of(const struct stat &file, int64_t bytes, bool &first) {
    const auto [found, isNew] = m_names.try_emplace({file.st_dev, file.st_ino}, Names{0, file.st_nlink});
    first = isNew;
    Names &names = found->second;
    if (isNew) {
        names.shard = next(bytes);
    } else {
        weigh(names.shard, kEntryCost);
    }
    const size_t shard = names.shard;
    if (--names.left == 0) {
        m_names.erase(found);
    }
    return shard;
}

void Balance::weigh(size_t shard, uint64_t weight) {
    auto node = m_order.extract({m_weights[shard], shard});
    m_weights[shard] += weight;
    node.value().first = m_weights[shard];
    m_order.insert(std::move(node));
    m_all += weight;
}

} // namespace engine
