// The stream file's header and records, to and from bytes. Nothing here does I/O or reports; see docs/formats.md for
// the picture. The handle's header has the layout of the file, in host order.
#pragma once

#include "ea/ea.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace vexo::eas {

static_assert(offsetof(VEXOEASHeader, magic) == 0);
static_assert(offsetof(VEXOEASHeader, version) == 4);
static_assert(offsetof(VEXOEASHeader, filler) == 8);
static_assert(offsetof(VEXOEASHeader, entryCount) == 24);
static_assert(offsetof(VEXOEASHeader, entries) == 26);
static_assert(offsetof(VEXOEASHeader, finderInfo) == 50);
static_assert(offsetof(VEXOEASHeader, padding) == 82);
static_assert(offsetof(VEXOEASHeader, attrMagic) == 84);
static_assert(offsetof(VEXOEASHeader, debugTag) == 88);
static_assert(offsetof(VEXOEASHeader, totalSize) == 92);
static_assert(offsetof(VEXOEASHeader, dataStart) == 96);
static_assert(offsetof(VEXOEASHeader, dataLength) == 100);
static_assert(offsetof(VEXOEASHeader, reserved) == 104);
static_assert(offsetof(VEXOEASHeader, flags) == 116);
static_assert(offsetof(VEXOEASHeader, attrCount) == 118);
static_assert(sizeof(VEXOEASHeader) == 120);
static_assert(offsetof(VEXOEASEntry, id) == 0);
static_assert(offsetof(VEXOEASEntry, offset) == 4);
static_assert(offsetof(VEXOEASEntry, length) == 8);
static_assert(sizeof(VEXOEASEntry) == 12);

// Blocks of the file, and where the fixed ones lie.
inline constexpr size_t kPrefixSize = offsetof(VEXOEASHeader, entries); // magic to entry count
inline constexpr size_t kEntrySize = sizeof(VEXOEASEntry);
inline constexpr size_t kMaxEntries = 13;
inline constexpr uint32_t kFinderInfoOffset = offsetof(VEXOEASHeader, finderInfo);
inline constexpr size_t kFinderInfoSize = sizeof(VEXOEASHeader::finderInfo);
inline constexpr uint32_t kAttributeBlockOffset = offsetof(VEXOEASHeader, padding);
inline constexpr size_t kAttributeBlockSize = sizeof(VEXOEASHeader) - kAttributeBlockOffset;
inline constexpr uint32_t kHeaderSize = sizeof(VEXOEASHeader);

inline constexpr uint32_t kFinderInfoId = 9;
inline constexpr uint32_t kResourceForkId = 2;
inline constexpr uint32_t kAttributeMagic = 0x41545452; // "ATTR"

// A record: offset, length, flags and name length, then the name.
inline constexpr size_t kRecordFixedSize = 11;
inline constexpr size_t kLongestName = UINT8_MAX - 1; // the length counts the terminating NUL
inline constexpr uint32_t kMaxAttributes = UINT16_MAX;

// With the padding; `nameLength` counts the terminating NUL.
constexpr uint32_t record_size(uint8_t nameLength) {
    return (nameLength + 14U) & ~3U;
}
inline constexpr size_t kLongestRecord = record_size(UINT8_MAX);
static_assert(kLongestRecord == 268);

// The header of a new file. The resource fork lies behind the Finder Info until the header is written.
VEXOEASHeader new_header();

// Into the header's fields from magic to entry count.
void parse_prefix(std::span<const uint8_t, kPrefixSize> bytes, VEXOEASHeader &header);
// Entries with the ids of the Finder Info and the resource fork find their places, whatever their order; others drop
// out. A partial entry at the end is ignored.
void parse_entries(std::span<const uint8_t> bytes, VEXOEASHeader &header);
// Into the fields from the padding to the number of attributes.
void parse_attribute_block(std::span<const uint8_t, kAttributeBlockSize> bytes, VEXOEASHeader &header);
void put_header(const VEXOEASHeader &header, std::span<uint8_t, kHeaderSize> bytes);

// A record's fields without its name.
VEXOEASRecord parse_record(std::span<const uint8_t, kRecordFixedSize> bytes);
// The whole record, zero padded. Gives its size; 0 when it does not fit.
size_t put_record(const VEXOEASRecord &record, std::span<uint8_t> bytes);

} // namespace vexo::eas
