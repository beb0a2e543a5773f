// The AppleDouble header as bytes: what is written for a layout, and that what is written reads back.
#include "ea/double/format.h"

#include "tests/ea/adouble_bytes.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace vexo;
using adouble_bytes::number;

std::string rawOf(const VEXOEAAdouble &record, size_t size) {
    return {reinterpret_cast<const char *>(record.raw), size};
}

adouble::ParseResult parse(const std::string &text, VEXOEAAdouble &record) {
    return adouble::parse({reinterpret_cast<const uint8_t *>(text.data()), text.size()}, record);
}

TEST(AdoubleFormat, SlotsAndIds) {
    for (uint32_t id = 0; id < 16; ++id) {
        EXPECT_EQ(size_t{id}, adouble::slot_of(id).value_or(99));
    }
    EXPECT_EQ(16u, adouble::slot_of(0x80444556).value_or(99));
    EXPECT_EQ(17u, adouble::slot_of(0x80494E4F).value_or(99));
    EXPECT_EQ(18u, adouble::slot_of(0x8053594E).value_or(99));
    EXPECT_EQ(19u, adouble::slot_of(0x8053567E).value_or(99));
    for (const uint32_t id : {16u, 17u, 18u, 19u, 20u, 0x80444557u, 0xffffffffu}) {
        EXPECT_FALSE(adouble::slot_of(id).has_value()) << id;
    }
}

TEST(AdoubleFormat, NewMetadataIsWrittenByteForByte) {
    VEXOEAAdouble record;
    adouble::make_metadata(record);
    adouble::encode_metadata(record);
    EXPECT_EQ(adouble_bytes::metadata(), rawOf(record, 402));
    EXPECT_EQ(std::string(1024 - 402, '\0'), rawOf(record, 1024).substr(402));
}

TEST(AdoubleFormat, WrittenMetadataReadsBack) {
    VEXOEAAdouble written;
    adouble::make_metadata(written);
    adouble::encode_metadata(written);
    VEXOEAAdouble read;
    ASSERT_EQ(adouble::ParseResult::ok, parse(rawOf(written, 402), read).status);
    EXPECT_EQ(0, memcmp(&written, &read, sizeof read));
    EXPECT_TRUE(adouble::has_metadata_entries(read));
    EXPECT_EQ(8u, adouble::entry_count(read));
}

TEST(AdoubleFormat, EncodingKeepsFillerAndDataAndDropsTheFork) {
    std::vector<adouble_bytes::Entry> entries = {{2, 300, 5000}, {9, 122, 32}, {3, 50, 1}};
    std::string text = adouble_bytes::header(entries, 402, 0x00051607, 0x00020000, "Mac OS X        ");
    text[200] = 'x';
    VEXOEAAdouble record;
    ASSERT_EQ(adouble::ParseResult::ok, parse(text, record).status);
    adouble::encode_metadata(record);
    const std::string out = rawOf(record, 402);
    EXPECT_EQ("Mac OS X        ", out.substr(8, 16));
    EXPECT_EQ(number(2, 2), out.substr(24, 2));
    EXPECT_EQ(number(3, 4) + number(50, 4) + number(1, 4) + number(9, 4) + number(122, 4) + number(32, 4),
              out.substr(26, 24));
    EXPECT_EQ('x', out[200]);
}

TEST(AdoubleFormat, NewResourceFileByteForByte) {
    std::array<uint8_t, 32> info{};
    for (size_t at = 0; at < info.size(); ++at) {
        info[at] = static_cast<uint8_t>(at + 1);
    }
    const auto bytes = adouble::make_resource_file(info);
    std::string wanted = number(0x00051607, 4) + number(0x00020000, 4) + "Mac OS X        " + number(2, 2) +
                         number(9, 4) + number(50, 4) + number(32, 4) + number(2, 4) + number(82, 4) + number(0, 4);
    for (int at = 1; at <= 32; ++at) {
        wanted += static_cast<char>(at);
    }
    EXPECT_EQ(wanted, std::string(bytes.begin(), bytes.end()));
}

} // namespace
