// What a mirror copies first, and what has to wait until what stands in its way is cleared.
#pragma once

#include "tools/engine/mirror/mirror_pair.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/transfer_options.h"

#include <string>
#include <vector>

namespace engine {

// Asked of each entry of both passes.
class TwoPasses {
  public:
    // Whether an entry's outcome is to be told. In the first pass one with something in its way is not, and waits; in
    // the second what was told before is not told again.
    bool tells(EntryKind kind, const std::string &source, const Outcome &outcome);
    bool tells_arrivals() const { return !m_second; }
    // Whether anything waits for the second pass.
    bool has_late() const { return !m_late.empty(); }
    // Something was not copied, so that nothing may be removed.
    bool incomplete() const { return m_incomplete; }

    // The second pass. It takes the whole once more, since by a path alone somebody could lead it elsewhere; what is
    // there by now is passed over. The observer is who asks.
    void copy_late(const MirrorPair &pair, TransferOptions transfer, TransferObserver &observer);

  private:
    std::vector<std::string> m_late = {}; // sources of which the place is to be cleared first
    bool m_second = false;                // they are being copied
    bool m_incomplete = false;
};

} // namespace engine
