// Shortening a name, and the limit it must keep, as pure functions over bytes.
#include "ea/names/path_copy.h"
#include "ea/names/short_name.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string shortened(std::string name, size_t limit) {
    const size_t length = vexo::shorten_base(name, limit);
    EXPECT_LE(length, name.size());
    return name.substr(0, length);
}

TEST(ShortName, NameWithinTheLimitStays) {
    EXPECT_EQ(std::string(242, 'x'), shortened(std::string(242, 'x'), 242));
    EXPECT_EQ("", shortened("", 1));
    EXPECT_EQ("a", shortened("a", 1));
}

TEST(ShortName, ExtensionIsKeptBehindTheMark) {
    const std::string name = std::string(246, 'a') + ".jpg";
    // What is cut with the byte before it: indices 241 to 249, five times 'a' (97) and ".jpg" (46 106 112 103).
    constexpr int kSum = 5 * 97 + 46 + 106 + 112 + 103;
    static_assert(kSum % 60 == 12);
    EXPECT_EQ(std::string(237, 'a') + "c.jpg", shortened(name, 242)); // index 12 of digits and letters
}

TEST(ShortName, BytesOfTheSumAreSigned) {
    // 243 bytes, the last two are summed: 2 * -1 is -2, which counts from the alphabet's end.
    EXPECT_EQ(std::string(241, 'a') + ")", shortened(std::string(241, 'a') + "\xff\xff", 242));
    // -128 * 2 = -256, remainder -16, index 44.
    EXPECT_EQ(std::string(241, 'a') + "{", shortened(std::string(241, 'a') + "\x80\x80", 242));
    // 127 + -127 = 0.
    EXPECT_EQ(std::string(241, 'a') + "1", shortened(std::string(241, 'a') + "\x7f\x81", 242));
}

TEST(ShortName, EveryByteOfTheAlphabetIsReached) {
    constexpr char kAlphabet[] = "1234567890abcdefghijklmnopqrstuvwxyz-_=+';[]{}~`.!@#$%^&*() ";
    for (int index = 0; index < 60; ++index) {
        // 120 is index 0; two bytes above 60 give every remainder, and neither is a ".".
        const std::string tail = {static_cast<char>(60), static_cast<char>(60 + index)};
        EXPECT_EQ(std::string(9, 'x') + kAlphabet[index], shortened(std::string(9, 'x') + tail, 10)) << index;
    }
}

TEST(ShortName, ExtensionOfSixBytesIsKeptAndOfSevenIsNot) {
    const std::string six = shortened(std::string(250, 'n') + ".jpeg2", 242);
    EXPECT_EQ(242u, six.size());
    EXPECT_EQ(".jpeg2", six.substr(236));
    EXPECT_EQ(std::string(235, 'n'), six.substr(0, 235));
    const std::string seven = shortened(std::string(250, 'n') + ".jpeg2k", 242);
    EXPECT_EQ(std::string(241, 'n'), seven.substr(0, 241));
    EXPECT_EQ(242u, seven.size());
}

TEST(ShortName, LastDotIsTheExtension) {
    const std::string name = shortened(std::string(250, 'n') + ".a.b", 242);
    EXPECT_EQ(".b", name.substr(240));
    EXPECT_EQ('n', name[238]);
    const std::string dot = shortened(std::string(250, 'n') + ".", 242);
    EXPECT_EQ('.', dot.back());
    EXPECT_EQ(242u, dot.size());
}

TEST(ShortName, LimitTooSmallForTheExtensionDropsIt) {
    for (size_t limit = 1; limit < 12; ++limit) {
        const std::string name = shortened("abcdefgh.jpeg2", limit);
        EXPECT_EQ(limit, name.size());
        EXPECT_EQ(limit > 6, name.find('.') != std::string::npos) << limit << " " << name;
    }
    EXPECT_EQ(1u, shortened(".a", 1).size());
    EXPECT_EQ(2u, shortened(".ab", 2).size());
    EXPECT_EQ(2u, shortened("a..", 2).size());
}

TEST(ShortName, MultibyteCharactersMayBeCut) {
    std::string name;
    while (name.size() < 250) {
        name += "\xe3\x81\x82";
    }
    const std::string cut = shortened(name, 242);
    EXPECT_EQ(242u, cut.size());
    EXPECT_EQ(name.substr(0, 241), cut.substr(0, 241));
}

TEST(ShortName, NamesThatDifferInWhatIsCutStayApart) {
    EXPECT_NE(shortened(std::string(250, 'a') + "1", 242), shortened(std::string(250, 'a') + "2", 242));
}

TEST(PathCopy, OneTrailingSlashGoes) {
    struct Row {
        const char *path, *directory, *base;
    };
    const std::vector<Row> rows = {
        {"/v/a/b.txt", "/v/a/", "b.txt"},
        {"/v/a/dir/", "/v/a/", "dir"},
        {"/v/a//", "/v/a/", ""},
        {"b", "", "b"},
        {"/", "", ""},
        {"/b", "/", "b"},
        {"", "", ""},
    };
    for (const Row &row : rows) {
        vexo::PathCopy copy;
        ASSERT_TRUE(copy.assign(row.path));
        EXPECT_EQ(row.directory, copy.directory()) << row.path;
        EXPECT_EQ(row.base, copy.base()) << row.path;
        EXPECT_EQ(std::string(row.path).size(), copy.given_length());
    }
}

TEST(PathCopy, LongPathsAreCopiedWhole) {
    for (const size_t length : {4093u, 4094u, 4095u, 4096u, 4097u, 100000u}) {
        const std::string path = "/" + std::string(length - 1, 'x');
        vexo::PathCopy copy;
        ASSERT_TRUE(copy.assign(path.c_str()));
        EXPECT_EQ(path, copy.c_str());
        EXPECT_EQ(length - 1, copy.base().size());
    }
}

TEST(TextOut, CutsAndTerminates) {
    char buffer[6] = {'?', '?', '?', '?', '?', '?'};
    vexo::TextOut(buffer, 5).append("abc").append("def");
    EXPECT_STREQ("abcd", buffer);
    EXPECT_EQ('?', buffer[5]);
    vexo::TextOut::behind(buffer, 6).append("xyz");
    EXPECT_STREQ("abcdx", buffer);
    vexo::TextOut(buffer, 1).append("x");
    EXPECT_STREQ("", buffer);
}

} // namespace
