// One change of a stream file: check that it can be made, load what it keeps, edit, commit.
//
// Everything that can refuse a change is asked before the first byte is written and before the handle's table changes,
// so that a refused change leaves file and handle as they were: sums that do not fit the format, a file that is not
// what its own numbers say, memory, room on the volume. A write that fails all the same is undone: what the change
// writes over is in memory until it is done.
#pragma once

#include "ea/ea.h"
#include "support/heap.h"
#include "support/report.h"

#include <cstdint>
#include <span>
#include <sys/types.h>

namespace vexo::eas {

// All functions that give an int report, under the name of the front door that makes the change, and give 0 or -1.
// In order: check_layout(), prepare(), the caller's memory, gather(), reserve(), the edits of the table, commit().
class Change {
  public:
    Change(VEXOEAS &eas, const char *source) : m_eas(eas), m_source(source) {}
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;
    ~Change();

    // A part of the file that the change has no use for: it need not be there.
    struct Unneeded {
        uint64_t from, to;
    };
    // The values lie back to back in record order behind the records, as the numbers say (else 0x0A00). Whether they
    // are in the file is not asked: a file whose end is missing can still be written over, cut and freed of what is
    // not all there.
    int check_layout() const;
    // Values that end at `end`: the sums fit the format (else 0x0D00), and all values less `unneeded` are there (else
    // 0x0A00). Where the resource fork is to move behind them there is one (else 0x0A00). Loads what the change keeps
    // and what it writes over.
    enum class Fork : uint8_t { moves, stays };
    int prepare(uint64_t end, Fork fork, Unneeded unneeded);
    // The volume has room for what the file grows by (else 0x0B00, and nothing stays reserved).
    int reserve() const;

    // All values, back to back in record order.
    int gather(uint8_t *to) const;
    // All values, that of the record at `index` behind the others; bytes of it that are not needed are left as `to`
    // has them. Without prepare() they are read from the file.
    int gather(uint32_t index, Unneeded unneeded, uint8_t *to) const;
    // The record becomes the last one of the table.
    void move_to_end(uint32_t index);
    // The last record leaves the table.
    void drop_last();

    // Moves the resource fork out of the way where it is to move, writes header, records and values. A seek to the
    // values that fails is told as `seekError`. A failure leaves file and handle as they were, as far as the volume
    // lets them be put back.
    int commit(std::span<const uint8_t> values, Error seekError);

    // Where the file ends after the change, with the resource fork as far as it is there.
    uint64_t file_end() const { return m_end + m_forkLength; }

  private:
    uint64_t records_end() const;
    int locate_fork(Fork fork);
    int load(uint64_t end);
    void find_behind();
    int read_part(uint64_t from, uint64_t to, uint8_t *out) const;
    bool fill(uint64_t end) const;
    int write(std::span<const uint8_t> values, Error seekError);
    void give_back() const;
    void undo();
    const uint8_t *saved_bytes() const { return m_before.data() + m_count * sizeof(VEXOEASRecord); }

    VEXOEAS &m_eas;
    const char *m_source;

    // As it was: the table's records, then the file from its start on, then what lies behind the resource fork.
    HeapBuffer m_before;
    VEXOEASHeader m_header{};
    uint32_t m_count = 0;
    uint64_t m_savedBytes = 0;
    uint64_t m_behind = 0, m_behindBytes = 0; // where that is, and how much of it
    uint64_t m_size = 0;                      // of the file
    blksize_t m_block = 0;
    char *m_droppedName = nullptr;

    uint64_t m_end = 0; // of the values
    uint32_t m_forkOffset = 0, m_forkLength = 0;
    bool m_forkMoves = false, m_forkMoved = false;
};

} // namespace vexo::eas
