// Header and records, to and from bytes.
#include "ea/stream/format.h"
#include "tests/ea/stream_bytes.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

namespace eas = vexo::eas;

TEST(StreamFormat, RecordSizes) {
    for (int nameLength = 0; nameLength <= 255; ++nameLength) {
        const uint32_t size = eas::record_size(static_cast<uint8_t>(nameLength));
        EXPECT_EQ(0u, size % 4);
        EXPECT_GE(size, 11u + static_cast<uint32_t>(nameLength));
        EXPECT_LT(size, 11u + static_cast<uint32_t>(nameLength) + 4);
    }
    EXPECT_EQ(12u, eas::record_size(0));
    EXPECT_EQ(16u, eas::record_size(2));
    EXPECT_EQ(268u, eas::record_size(255));
}

TEST(StreamFormat, NewHeader) {
    const VEXOEASHeader header = eas::new_header();
    EXPECT_EQ(82u, uint32_t{header.entries[1].offset});
    EXPECT_EQ(120u, uint32_t{header.dataStart});
    EXPECT_EQ(0, std::memcmp(header.filler, "Mac OS X        ", 16));
}

TEST(StreamFormat, EveryHeaderFieldKeepsItsPlace) {
    // Each byte another value, so that a swapped or misplaced field shows.
    std::array<uint8_t, 120> bytes{};
    for (size_t at = 0; at < bytes.size(); ++at) {
        bytes[at] = static_cast<uint8_t>(at + 1);
    }
    const std::string ids = stream::number(9, 4), fork = stream::number(2, 4);
    std::memcpy(bytes.data() + 26, ids.data(), 4);
    std::memcpy(bytes.data() + 38, fork.data(), 4);
    VEXOEASHeader header{};
    eas::parse_prefix(std::span(bytes).first<eas::kPrefixSize>(), header);
    eas::parse_entries(std::span(bytes).subspan(26, 24), header);
    std::memcpy(header.finderInfo, bytes.data() + 50, 32);
    eas::parse_attribute_block(std::span(bytes).subspan<82, 38>(), header);
    EXPECT_EQ(0x01020304u, uint32_t{header.magic});
    EXPECT_EQ(0x191a, int{header.entryCount});
    EXPECT_EQ(0x1f202122u, uint32_t{header.entries[0].offset});
    EXPECT_EQ(0x5d5e5f60u, uint32_t{header.totalSize});
    EXPECT_EQ(0x7778, int{header.attrCount});
    std::array<uint8_t, 120> back{};
    eas::put_header(header, back);
    EXPECT_EQ(bytes, back);
}

TEST(StreamFormat, EntriesFindTheirPlacesInAnyOrder) {
    const auto entry = [](uint32_t id, uint32_t offset, uint32_t length) {
        return stream::number(id, 4) + stream::number(offset, 4) + stream::number(length, 4);
    };
    const std::string text = entry(14, 1, 2) + entry(2, 3, 4) + entry(9, 5, 6) + entry(0, 7, 8) + "part";
    VEXOEASHeader header{};
    eas::parse_entries({reinterpret_cast<const uint8_t *>(text.data()), text.size()}, header);
    EXPECT_EQ(9u, uint32_t{header.entries[0].id});
    EXPECT_EQ(5u, uint32_t{header.entries[0].offset});
    EXPECT_EQ(2u, uint32_t{header.entries[1].id});
    EXPECT_EQ(4u, uint32_t{header.entries[1].length});
}

TEST(StreamFormat, RecordIsPaddedWithZeros) {
    char name[] = "abc";
    const VEXOEASRecord record{0x01020304, 0x05060708, 0x090a, 4, name};
    std::array<uint8_t, 20> out{};
    out.fill(0xee);
    ASSERT_EQ(16u, eas::put_record(record, out));
    const std::array<uint8_t, 20> expected = {1, 2,   3,   4,   5, 6, 7,    8,    9,    10,
                                              4, 'a', 'b', 'c', 0, 0, 0xee, 0xee, 0xee, 0xee};
    EXPECT_EQ(expected, out);
    const VEXOEASRecord back = eas::parse_record(std::span(out).first<eas::kRecordFixedSize>());
    EXPECT_EQ(record.offset, back.offset);
    EXPECT_EQ(record.length, back.length);
    EXPECT_EQ(record.flags, back.flags);
    EXPECT_EQ(record.nameLength, back.nameLength);
    EXPECT_EQ(0u, eas::put_record(record, std::span(out).first(15)));
}

} // namespace
