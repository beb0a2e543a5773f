// The AppleDouble header as bytes: parsing it, writing it, and the two layouts written here. Nothing in this file does
// input or output, and nothing reports. Every number is big-endian.
//
//     0      4   magic 0x00051607
//     4      4   version 0x00020000
//     8     16   filler, not looked at
//     24     2   number of entries
//     26  12 n   entries: id, offset from the start of the header, length (4 bytes each)
//
// A metadata attribute is such a header of eight entries with what they hold behind it, 402 bytes in all; a resource
// file begins with one of two entries, Finder Info and resource fork.
#pragma once

#include "ea/ea.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vexo::adouble {

inline constexpr uint32_t kMagic = 0x00051607;
inline constexpr uint32_t kVersion = 0x00020000;
inline constexpr size_t kFillerSize = 16;
inline constexpr size_t kCountAt = 8 + kFillerSize;
inline constexpr size_t kFixedSize = kCountAt + 2; // magic to number of entries
inline constexpr size_t kEntrySize = 12;
inline constexpr size_t kFinderInfoSize = 32;

// A slot of a parsed record's entry table: the ids up to 15 are their own slots, four private ids follow.
enum Slot : size_t {
    resource_fork = 2,
    comment = 4,
    file_dates = 8,
    finder_info = 9,
    file_server_info = 14,
    device_number = 16,
    inode_number = 17,
    synchronisation = 18,
    file_id = 19,
};
inline constexpr size_t kSlots = 20;
inline constexpr size_t kOwnSlots = 16;

// Slots to ids as they are on disk.
inline constexpr std::array<uint32_t, kSlots> kIds = {
    0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 0x80444556, 0x80494E4F, 0x8053594E, 0x8053567E,
};

constexpr std::optional<size_t> slot_of(uint32_t id) {
    for (size_t slot = 0; slot < kSlots; ++slot) {
        if (kIds[slot] == id) {
            return slot;
        }
    }
    return std::nullopt;
}

static_assert(sizeof(VEXOEAAdouble::entries) / sizeof(VEXOEAAdoubleEntry) == kSlots);
static_assert(slot_of(0x8053567E) == size_t{file_id} && slot_of(finder_info) == size_t{finder_info} && !slot_of(16));

// Where the entries of a freshly built metadata attribute lie, in the order they lie in.
struct LayoutRow {
    Slot slot;
    uint32_t offset;
    uint32_t length;
    uint32_t room; // up to the next one
};
inline constexpr LayoutRow kMetadataLayout[] = {
    {finder_info, 122, kFinderInfoSize, 32},
    {comment, 154, 0, 200},
    {file_dates, 354, 16, 16},
    {file_server_info, 370, 4, 4},
    {device_number, 374, 0, 8},
    {inode_number, 382, 0, 8},
    {synchronisation, 390, 0, 8},
    {file_id, 398, 0, 4},
};
inline constexpr size_t kMetadataEntries = std::size(kMetadataLayout);
inline constexpr size_t kMetadataSize = 402; // of the attribute, always
inline constexpr size_t kMetadataDataAt = kFixedSize + kMetadataEntries * kEntrySize;

constexpr bool is_gapless(std::span<const LayoutRow> layout, size_t begin, size_t end) {
    for (const LayoutRow &row : layout) {
        if (row.offset != begin || row.length > row.room) {
            return false;
        }
        begin += row.room;
    }
    return begin == end;
}
static_assert(kMetadataEntries == 8 && kMetadataDataAt == 122);
static_assert(is_gapless(kMetadataLayout, kMetadataDataAt, kMetadataSize));

inline constexpr size_t kRecordSize = sizeof(VEXOEAAdouble::raw); // the most that is parsed or stored as a header
inline constexpr size_t kResourceHeaderSize = 741;                // what is parsed of a resource file
inline constexpr size_t kNewResourceFileSize = kFixedSize + 2 * kEntrySize + kFinderInfoSize;
static_assert(kRecordSize == 1024 && kNewResourceFileSize == 82);

struct ParseResult {
    enum Status { ok, not_apple_double, bad_entry } status;
    VEXOEASEntry entry; // the bad one, its id 0 where it is unknown
};
// Fills `record` from `bytes`, of which there are at most kRecordSize. What the header claims beyond them is zero, and
// so no entry.
ParseResult parse(std::span<const uint8_t> bytes, VEXOEAAdouble &record);

// The number of entries that the raw header of a record tells.
size_t entry_count(const VEXOEAAdouble &record);

// Whether the record is a metadata attribute's: its eight entries, each with a place.
bool has_metadata_entries(const VEXOEAAdouble &record);

// The metadata attribute of a file that has none: the layout above, everything it holds zero.
void make_metadata(VEXOEAAdouble &record);

// Writes magic, version, count and entries back into the raw header, the entries in the order of their slots; the
// filler and what lies behind stay. The resource fork has no entry in an attribute.
void encode_metadata(VEXOEAAdouble &record);

// The start of a resource file that holds Finder Info and an empty fork.
std::array<uint8_t, kNewResourceFileSize> make_resource_file(std::span<const uint8_t, kFinderInfoSize> finderInfo);

} // namespace vexo::adouble
