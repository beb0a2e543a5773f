#include "tools/engine/mirror/two_passes.h"

#include "tools/engine/transfer/transfer.h"

#include <algorithm>

namespace engine {

bool TwoPasses::tells(EntryKind kind, const std::string &source, const Outcome &outcome) {
    const bool failed = outcome.status == Status::failed;
    if (!m_second && failed && is_in_the_way(kind, outcome.destination)) {
        m_late.push_back(source);
        return false;
    }
    m_incomplete = m_incomplete || is_kept_back(outcome);
    return !m_second || failed ||
           std::ranges::any_of(m_late, [&](const std::string &top) { return lies_below(source, top); });
}

void TwoPasses::copy_late(const MirrorPair &pair, TransferOptions transfer, TransferObserver &observer) {
    transfer.countsAlone = false;
    m_second = true;
    Transfer again(transfer, observer);
    again.run(pair.source + "/.", pair.destination);
    again.leave();
    m_second = false;
}

} // namespace engine
