#include "ea/double/format.h"

#include "support/big_endian.h"

namespace vexo::adouble {
namespace {

constexpr char kFillerText[] = "Mac OS X        ";
static_assert(sizeof kFillerText - 1 == kFillerSize);

// Within the record; a resource fork only begins there, its data lie beyond.
constexpr bool fits(size_t slot, uint32_t offset, uint32_t length) {
    return offset < kRecordSize && (slot == resource_fork || length <= kRecordSize - offset);
}

void write_entry(BigEndianWriter &out, size_t slot, uint64_t offset, uint64_t length) {
    out.u32(kIds[slot]);
    out.u32(static_cast<uint32_t>(offset));
    out.u32(static_cast<uint32_t>(length));
}

} // namespace

ParseResult parse(std::span<const uint8_t> bytes, VEXOEAAdouble &record) {
    record = {};
    BigEndianReader(bytes).bytes(record.raw, bytes.size());
    BigEndianReader in(record.raw); // what is not there reads as zero
    record.magic = in.u32();
    record.version = in.u32();
    in.skip(kFillerSize);
    const size_t count = in.u16();
    if (record.magic != kMagic || record.version != kVersion) {
        return {ParseResult::not_apple_double, {}};
    }
    // An entry that is not all there has no id in the end, which ends the table at the latest there.
    for (size_t at = 0; at < count; ++at) {
        const uint32_t id = in.u32();
        const uint32_t offset = in.u32();
        const uint32_t length = in.u32();
        const std::optional<size_t> slot = slot_of(id);
        if (!slot) {
            return {ParseResult::bad_entry, {0, offset, length}};
        }
        record.entries[*slot] = {offset, length};
        if (*slot == 0 || !fits(*slot, offset, length)) {
            return {ParseResult::bad_entry, {id, offset, length}};
        }
    }
    return {ParseResult::ok, {}};
}

size_t entry_count(const VEXOEAAdouble &record) {
    return BigEndianReader(record.raw, kCountAt).u16();
}

bool has_metadata_entries(const VEXOEAAdouble &record) {
    if (entry_count(record) != kMetadataEntries) {
        return false;
    }
    for (const LayoutRow &row : kMetadataLayout) {
        if (record.entries[row.slot].offset == 0) {
            return false;
        }
    }
    return true;
}

void make_metadata(VEXOEAAdouble &record) {
    record = {};
    record.magic = kMagic;
    record.version = kVersion;
    for (const LayoutRow &row : kMetadataLayout) {
        record.entries[row.slot] = {row.offset, row.length};
    }
}

void encode_metadata(VEXOEAAdouble &record) {
    BigEndianWriter out(record.raw);
    out.u32(record.magic);
    out.u32(record.version);
    out.seek(kFixedSize);
    uint16_t count = 0;
    for (size_t slot = 0; slot < kSlots; ++slot) {
        const VEXOEAAdoubleEntry &entry = record.entries[slot];
        if (entry.offset != 0 && slot != resource_fork) {
            write_entry(out, slot, entry.offset, entry.length);
            ++count;
        }
    }
    out.seek(kCountAt);
    out.u16(count);
}

std::array<uint8_t, kNewResourceFileSize> make_resource_file(std::span<const uint8_t, kFinderInfoSize> finderInfo) {
    std::array<uint8_t, kNewResourceFileSize> bytes{};
    BigEndianWriter out(bytes);
    out.u32(kMagic);
    out.u32(kVersion);
    out.bytes(kFillerText, kFillerSize);
    out.u16(2);
    write_entry(out, finder_info, kNewResourceFileSize - kFinderInfoSize, kFinderInfoSize);
    write_entry(out, resource_fork, kNewResourceFileSize, 0);
    out.bytes(finderInfo.data(), finderInfo.size());
    return bytes;
}

} // namespace vexo::adouble
