// The stream file's header and records, to and from bytes.
#include "ea/stream/format.h"

#include "support/big_endian.h"

#include <cstring>

namespace vexo::eas {

namespace {

constexpr uint32_t kAppleDoubleMagic = 0x00051607;
constexpr uint32_t kAppleDoubleVersion = 0x00020000;
constexpr char kFiller[] = "Mac OS X        ";
static_assert(sizeof kFiller - 1 == sizeof(VEXOEASHeader::filler));

void put_entry(const VEXOEASEntry &entry, BigEndianWriter &out) {
    out.u32(entry.id);
    out.u32(entry.offset);
    out.u32(entry.length);
}

} // namespace

VEXOEASHeader new_header() {
    VEXOEASHeader header{};
    header.magic = kAppleDoubleMagic;
    header.version = kAppleDoubleVersion;
    std::memcpy(header.filler, kFiller, sizeof header.filler);
    header.entryCount = 2;
    header.entries[0] = {kFinderInfoId, kFinderInfoOffset, kFinderInfoSize};
    header.entries[1] = {kResourceForkId, kAttributeBlockOffset, 0};
    header.attrMagic = kAttributeMagic;
    header.totalSize = kHeaderSize;
    header.dataStart = kHeaderSize;
    return header;
}

void parse_prefix(std::span<const uint8_t, kPrefixSize> bytes, VEXOEASHeader &header) {
    BigEndianReader in(bytes);
    header.magic = in.u32();
    header.version = in.u32();
    in.bytes(header.filler, sizeof header.filler);
    header.entryCount = in.u16();
}

void parse_entries(std::span<const uint8_t> bytes, VEXOEASHeader &header) {
    BigEndianReader in(bytes);
    for (size_t count = bytes.size() / kEntrySize; count > 0; --count) {
        VEXOEASEntry entry{};
        entry.id = in.u32();
        entry.offset = in.u32();
        entry.length = in.u32();
        if (entry.id == kFinderInfoId) {
            header.entries[0] = entry;
        } else if (entry.id == kResourceForkId) {
            header.entries[1] = entry;
        }
    }
}

void parse_attribute_block(std::span<const uint8_t, kAttributeBlockSize> bytes, VEXOEASHeader &header) {
    BigEndianReader in(bytes);
    in.bytes(header.padding, sizeof header.padding);
    header.attrMagic = in.u32();
    header.debugTag = in.u32();
    header.totalSize = in.u32();
    header.dataStart = in.u32();
    header.dataLength = in.u32();
    in.bytes(header.reserved, sizeof header.reserved);
    header.flags = in.u16();
    header.attrCount = in.u16();
}

void put_header(const VEXOEASHeader &header, std::span<uint8_t, kHeaderSize> bytes) {
    BigEndianWriter out(bytes);
    out.u32(header.magic);
    out.u32(header.version);
    out.bytes(header.filler, sizeof header.filler);
    out.u16(header.entryCount);
    put_entry(header.entries[0], out);
    put_entry(header.entries[1], out);
    out.bytes(header.finderInfo, sizeof header.finderInfo);
    out.bytes(header.padding, sizeof header.padding);
    out.u32(header.attrMagic);
    out.u32(header.debugTag);
    out.u32(header.totalSize);
    out.u32(header.dataStart);
    out.u32(header.dataLength);
    out.bytes(header.reserved, sizeof header.reserved);
    out.u16(header.flags);
    out.u16(header.attrCount);
}

VEXOEASRecord parse_record(std::span<const uint8_t, kRecordFixedSize> bytes) {
    BigEndianReader in(bytes);
    VEXOEASRecord record{};
    record.offset = in.u32();
    record.length = in.u32();
    record.flags = in.u16();
    record.nameLength = in.u8();
    return record;
}

size_t put_record(const VEXOEASRecord &record, std::span<uint8_t> bytes) {
    const size_t size = record_size(record.nameLength);
    if (size > bytes.size()) {
        return 0;
    }
    BigEndianWriter out(bytes.first(size));
    out.u32(record.offset);
    out.u32(record.length);
    out.u16(record.flags);
    out.u8(record.nameLength);
    out.bytes(record.name, record.nameLength);
    out.zeros(size - kRecordFixedSize - record.nameLength);
    return size;
}

} // namespace vexo::eas
