// Reading AppleDouble bytes for people: the first bad field has a name, and nothing outside the bytes is read.
#include "tools/engine/store/apple_double.h"

#include <gtest/gtest.h>

namespace {

using engine::AppleDouble;
using engine::parse_apple_double;
using namespace std::string_literals;

std::string header(unsigned count) {
    return "\x00\x05\x16\x07\x00\x02\x00\x00"
           "Mac OS X        "s +
           std::string{static_cast<char>(count >> 8), static_cast<char>(count)};
}
std::string entry(uint32_t id, uint32_t offset, uint32_t length) {
    std::string bytes;
    for (const uint32_t word : {id, offset, length}) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<char>(word >> shift));
        }
    }
    return bytes;
}
std::string whole() {
    return header(2) + entry(9, 50, 32) + entry(2, 82, 3) + std::string("TEXTttxt") + "\x44\x0c"s +
           std::string(22, '\0') + "fork";
}
std::string badOf(const std::string &bytes) {
    return parse_apple_double(bytes, bytes.size()).bad;
}

TEST(AppleDoubleBytes, SoundFileHasNoBadField) {
    const std::string bytes = whole();
    const AppleDouble parsed = parse_apple_double(bytes, bytes.size());
    EXPECT_EQ("", parsed.bad);
    EXPECT_EQ("for", parsed.fork(bytes));
    EXPECT_EQ((std::vector<std::string>{"type 'TEXT', creator 'ttxt'", "flags 0x440C: hasCustomIcon, isInvisible",
                                        "label colour red"}),
              engine::finder_info_lines(parsed.finderInfo));
}

TEST(AppleDoubleBytes, FirstBadFieldIsNamed) {
    EXPECT_EQ("the header is 0 bytes long, not 26", badOf(""));
    EXPECT_EQ("the magic is 0x58585858, not 0x00051607", badOf(std::string(40, 'X')));
    std::string version = whole();
    version[5] = 1;
    EXPECT_EQ("the version is 0x00010000, not 0x00020000", badOf(version));
    EXPECT_EQ("entry 1 of 2 lies behind the end", badOf(header(2) + entry(8, 0, 26)));
    EXPECT_EQ("entry 0 has the id 0", badOf(header(1) + entry(0, 26, 0)));
    EXPECT_EQ("entry 0 (resource fork) ends at 4294967325, behind the end at 38",
              badOf(header(1) + entry(2, 30, 0xFFFFFFFF)));
    EXPECT_EQ("Finder Info at 26 is not 32 bytes long", badOf(header(1) + entry(9, 26, 4)));
}

TEST(AppleDoubleBytes, EveryCutIsRead) {
    const std::string bytes = whole();
    for (size_t size = 0; size <= bytes.size(); ++size) {
        const AppleDouble parsed = parse_apple_double(std::string_view(bytes).substr(0, size), size);
        EXPECT_EQ(size < bytes.size() - 1, !parsed.bad.empty()) << size; // the last byte is no part of the fork
    }
}

TEST(AppleDoubleBytes, CountsBeyondTheFileEnd) {
    const std::string bytes = header(0xFFFF);
    EXPECT_EQ("entry 0 of 65535 lies behind the end", badOf(bytes));
}

TEST(AppleDoubleBytes, IdsHaveWords) {
    EXPECT_EQ("Finder Info", engine::entry_text(9));
    EXPECT_EQ("synchronisation", engine::entry_text(0x8053594E));
    EXPECT_EQ("id 0x77", engine::entry_text(0x77));
}

} // namespace
