// Whether a copy is to share its data with its source (a clone, or reflink copy) instead of having data of its own.
#pragma once

#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/transfer_options.h"

#include <map>
#include <optional>
#include <sys/types.h>
#include <utility>

namespace engine {

// Why a copy fails that was to share its data.
constexpr char kNotCloned[] = "the copy cannot share its data with the source, and --clone=always asks for that";

class ClonePolicy {
  public:
    explicit ClonePolicy(const TransferOptions &options)
        : m_clone(options.clone), m_move(options.operation == Operation::move) {}

    // Whether files in the two directories can share data at all: both are on one btrfs, or on one XFS that was made
    // for it. Nothing is asked of other volumes.
    bool can(const HeldDirectory &from, const HeldDirectory &to);
    // Whether a copy asks for it. Clone::automatic: where it can be and the appliance allows it, by its switch and by
    // the settings of the two directories. A move does so in any case.
    bool wants(const HeldDirectory &from, const HeldDirectory &to);
    // A copy that cannot be one is a failure.
    bool insists() const { return m_clone == Clone::always; }

  private:
    using Inode = std::pair<dev_t, ino_t>;
    bool is_allowed(const HeldDirectory &from, const HeldDirectory &to);

    Clone m_clone;
    bool m_move;
    std::optional<bool> m_switch;                      // asked when it first matters
    std::optional<std::pair<Inode, Inode>> m_askedFor; // the last two directories
    bool m_allowed = false;                            // by the settings of those
    std::map<dev_t, bool> m_xfs;                       // whether it was made for that
};

} // namespace engine
