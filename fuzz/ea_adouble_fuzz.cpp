// The AppleDouble record: whatever the bytes, parsing stays inside them, and a record that was accepted keeps what its
// reader relies on and is written back to bytes that read the same.
#include "ea/double/format.h"

#include <cstdint>
#include <cstdlib>
#include <span>

namespace {

using namespace vexo;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void check_bounds(const VEXOEAAdouble &record) {
    for (size_t slot = 0; slot < adouble::kSlots; ++slot) {
        const VEXOEAAdoubleEntry &entry = record.entries[slot];
        require(entry.offset < sizeof record.raw);
        require(slot == adouble::resource_fork || entry.length <= sizeof record.raw - entry.offset);
    }
    require(record.entries[0].offset == 0 && record.entries[0].length == 0);
}

void check_round_trip(VEXOEAAdouble record) {
    adouble::encode_metadata(record);
    VEXOEAAdouble again;
    require(adouble::parse(record.raw, again).status == adouble::ParseResult::ok);
    for (size_t slot = 0; slot < adouble::kSlots; ++slot) {
        const bool written = record.entries[slot].offset != 0 && slot != adouble::resource_fork;
        require(again.entries[slot].offset == (written ? record.entries[slot].offset : 0));
        require(again.entries[slot].length == (written ? record.entries[slot].length : 0));
    }
    require(adouble::has_metadata_entries(again) || !adouble::has_metadata_entries(record));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > adouble::kRecordSize) {
        return 0;
    }
    VEXOEAAdouble record;
    if (adouble::parse({data, size}, record).status == adouble::ParseResult::ok) {
        check_bounds(record);
        check_round_trip(record);
    }
    return 0;
}
