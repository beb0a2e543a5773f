// One change of a stream file: check that it can be made, load the values, edit, commit.
//
// Everything that can refuse a change is asked before the first byte is written and before the handle's table changes,
// so that a refused change leaves file and handle as they were: sums that do not fit the format, a file that is not
// what its own numbers say, memory, room on the volume.
#pragma once

#include "ea/ea.h"
#include "support/report.h"

#include <cstdint>
#include <span>

namespace vexo::eas {

// All functions report, under the name of the front door that makes the change, and give 0 or -1.
class Change {
  public:
    Change(VEXOEAS &eas, const char *source) : m_eas(eas), m_source(source) {}

    // The values lie back to back in record order, behind the records and inside the file (else 0x0A00).
    int check_values() const;

    // Values that end at `end`: the sums fit the format (else 0x0D00), and the volume has room for what the file grows
    // by (else 0x0B00). Where the resource fork is to move behind them there is one (else 0x0A00), of a size the file
    // can hold (else 0x0A00).
    enum class Fork : uint8_t { moves, stays };
    int prepare(uint64_t end, Fork fork) const;

    // The whole value area, into a buffer of its size.
    int read_values(uint8_t *to) const;
    // The record and its value become the last ones, in the table and in `buffer` (the size of the value area); or they
    // leave the table, and `buffer` gets all other values. Needs check_values().
    enum class Then : uint8_t { last, gone };
    int take_out(uint32_t index, uint8_t *buffer, Then then);

    // Moves the resource fork out of the way, writes header, records and values. A seek to the values that fails is
    // told as `seekError`.
    int commit(std::span<const uint8_t> values, Error seekError);
    // Writes the values where the header has them, which need not be right behind the records.
    int write_values(std::span<const uint8_t> values, Error seekError) const;

  private:
    uint64_t records_end() const;
    int reserve(uint64_t fileSize, uint64_t end) const;
    int read_part(uint64_t from, uint64_t to, uint8_t *&out) const;
    void move_to_end(uint32_t index);
    void drop_last();

    VEXOEAS &m_eas;
    const char *m_source;
};

} // namespace vexo::eas
