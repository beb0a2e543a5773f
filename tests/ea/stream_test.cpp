// The stream file through its handle: what is written, read, cut, removed, and every code of a failure.
#include "tests/ea/stream_fixture.h"
#include "tests/kit/child.h"

#include <array>
#include <cerrno>
#include <functional>
#include <numeric>

namespace {

using Stream = StreamFile;

// One attribute "a" with the value "xy".
const std::string kExample{"\x00\x05\x16\x07"         // magic
                           "\x00\x02\x00\x00"         // version
                           "Mac OS X        "         // filler
                           "\x00\x02"                 // entries
                           "\x00\x00\x00\x09"         // Finder Info
                           "\x00\x00\x00\x32"         //   at 50
                           "\x00\x00\x00\x58"         //   88 bytes
                           "\x00\x00\x00\x02"         // resource fork
                           "\x00\x00\x00\x8a"         //   at 138
                           "\x00\x00\x00\x00"         //   empty
                           "\0\0\0\0\0\0\0\0"         // Finder Info
                           "\0\0\0\0\0\0\0\0"         //
                           "\0\0\0\0\0\0\0\0"         //
                           "\0\0\0\0\0\0\0\0"         //
                           "\x00\x00"                 // padding
                           "ATTR"                     // attribute magic
                           "\x00\x00\x00\x00"         // debug tag
                           "\x00\x00\x00\x8a"         // total size 138
                           "\x00\x00\x00\x88"         // data start 136
                           "\x00\x00\x00\x02"         // data length
                           "\0\0\0\0\0\0\0\0\0\0\0\0" // reserved
                           "\x00\x00"                 // flags
                           "\x00\x01"                 // attributes
                           "\x00\x00\x00\x88"         // record: at 136
                           "\x00\x00\x00\x02"         //   2 bytes
                           "\x00\x00"                 //   flags
                           "\x02"                     //   name length
                           "a\0"                      //   name
                           "\x00\x00\x00"             //   padding
                           "xy",                      // value
                           138};

TEST_F(Stream, OneAttributeByteByByte) {
    VEXOEAS *eas = open();
    EXPECT_EQ(2, write(eas, "a", "xy", 0, 0));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(kExample, content());
    EXPECT_EQ(kExample, stream::bytes({{"a", "xy"}})); // the tests' own writer agrees
}

TEST_F(Stream, ReadsTheExample) {
    put(kExample);
    EXPECT_EQ((stream::Attributes{{"a", "xy"}}), attributes());
    EXPECT_EQ(1, EASGetAttrCount(fd));
    EXPECT_EQ(kExample, content());
}

TEST_F(Stream, EmptyFileStaysEmpty) {
    VEXOEAS *eas = open();
    EXPECT_EQ(5, eas->capacity);
    EXPECT_EQ(F_WRLCK, eas->lockState);
    EXPECT_EQ(82u, uint32_t{eas->header.entries[1].offset});
    EXPECT_EQ(120u, uint32_t{eas->header.dataStart});
    EXPECT_EQ(0, VEXOEASRemove(eas, "none"));
    EXPECT_EQ(0, VEXOEASFlush(eas));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ("", content());
    EXPECT_EQ(0, EASGetAttrCount(fd));
}

TEST_F(Stream, OffsetOfANewValueIsFilledWithZeros) {
    VEXOEAS *eas = open();
    EXPECT_EQ(3, write(eas, "n", "abc", 5, 0));
    EXPECT_EQ(std::string("\0\0\0\0\0abc", 8), read(eas, "n"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"n", std::string("\0\0\0\0\0abc", 8)}}), content());
}

TEST_F(Stream, ShorterWriteNeverShortens) {
    VEXOEAS *eas = open();
    EXPECT_EQ(10, write(eas, "n", "0123456789"));
    EXPECT_EQ(4, write(eas, "n", "abcd"));
    EXPECT_EQ("abcd456789", read(eas, "n"));
    EXPECT_EQ(2, write(eas, "n", "xy", 9));
    EXPECT_EQ("abcd45678xy", read(eas, "n"));
    EXPECT_EQ(1, write(eas, "n", "z", 13));
    EXPECT_EQ(std::string("abcd45678xy\0\0z", 14), read(eas, "n"));
    EXPECT_EQ(0, write(eas, "n", "", 16)); // nothing to write still reaches that far
    EXPECT_EQ(16u, read(eas, "n").size());
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"n", std::string("abcd45678xy\0\0z\0\0", 16)}}), content());
}

TEST_F(Stream, WrittenValueBecomesTheLast) {
    VEXOEAS *eas = open();
    for (const char *name : {"one", "two", "three"}) {
        EXPECT_GT(write(eas, name, std::string("value of ") + name), 0);
    }
    EXPECT_EQ(3, write(eas, "one", "new"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"two", "value of two"}, {"three", "value of three"}, {"one", "newue of one"}}),
              content());
}

TEST_F(Stream, ExistingNameWithoutOverwriteTellsByItsResult) {
    VEXOEAS *eas = open();
    EXPECT_EQ(1, write(eas, "n", "v", 0, 0));
    const std::string before = content();
    errno = 0;
    EXPECT_FAILS(write(eas, "n", "w", 0, 0), 0x0D00);
    EXPECT_EQ(EEXIST, errno);
    errno = 0;
    EXPECT_EQ(0, write(eas, "n", "", 0, 0));
    EXPECT_EQ(EEXIST, errno);
    errno = 0;
    EXPECT_EQ(0, VEXOEASWrite(eas, "n", nullptr, 0, 7, 2));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(1, write(eas, "n", "w", 0, 3));
    EXPECT_EQ("w", read(eas, "n"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(before.size(), content().size());
}

TEST_F(Stream, ExistingOnlyNeedsTheName) {
    VEXOEAS *eas = open();
    errno = 0;
    EXPECT_FAILS(write(eas, "n", "v", 0, 2), 0x2000);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FAILS(write(eas, "n", "", 0, 3), 0x2000);
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ("", content());
}

TEST_F(Stream, ReadGivesPieces) {
    VEXOEAS *eas = open();
    EXPECT_EQ(6, write(eas, "n", "abcdef"));
    EXPECT_EQ(0, write(eas, "empty", ""));
    std::array<char, 8> buffer{};
    EXPECT_EQ(3, VEXOEASRead(eas, "n", buffer.data(), 3, 2));
    EXPECT_STREQ("cde", buffer.data());
    EXPECT_EQ(2, VEXOEASRead(eas, "n", buffer.data(), 8, 4));
    EXPECT_EQ(0, VEXOEASRead(eas, "n", buffer.data(), 8, 6));
    EXPECT_EQ(0, VEXOEASRead(eas, "n", buffer.data(), 8, 7));
    EXPECT_EQ(0, VEXOEASRead(eas, "n", buffer.data(), 0, 7));
    EXPECT_EQ(0, VEXOEASRead(eas, "n", buffer.data(), 8, UINT32_MAX));
    EXPECT_EQ(6, VEXOEASRead(eas, "n", buffer.data(), 0, 3)); // size 0 asks for the whole length
    EXPECT_EQ(0, VEXOEASRead(eas, "empty", buffer.data(), 8, 0));
    EXPECT_FAILS(VEXOEASRead(eas, "none", buffer.data(), 8, 0), 0x2000);
    EXPECT_FAILS(VEXOEASRead(eas, "N", buffer.data(), 8, 0), 0x2000);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, YoungerOfTwoEqualNamesCounts) {
    put(stream::bytes({{"n", "old"}, {"m", ""}, {"n", "young"}}));
    VEXOEAS *eas = open();
    EXPECT_EQ(2, VEXOEASSearch(eas, "n"));
    EXPECT_EQ("young", read(eas, "n"));
    EXPECT_EQ(0, VEXOEASRemove(eas, "n"));
    EXPECT_EQ("old", read(eas, "n"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"n", "old"}, {"m", ""}}), content());
}

TEST_F(Stream, RemovedAttributeShortensTheFile) {
    put(stream::bytes({{"first", "1"}, {"second", "22"}, {"third", "333"}}));
    VEXOEAS *eas = open();
    EXPECT_EQ(0, VEXOEASRemove(eas, "second"));
    EXPECT_EQ(stream::bytes({{"first", "1"}, {"third", "333"}}), content());
    const std::string before = content();
    EXPECT_EQ(0, VEXOEASRemove(eas, "second"));
    EXPECT_EQ(before, content());
    EXPECT_EQ(0, VEXOEASRemove(eas, "first"));
    EXPECT_EQ(0, VEXOEASRemove(eas, "third"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({}), content());
    EXPECT_EQ(120u, content().size());
}

TEST_F(Stream, ResourceForkMovesWithTheValues) {
    const std::string fork = kit::pattern(50000);
    put(stream::bytes({{"n", "value"}}, 50000) + fork);
    VEXOEAS *eas = open();
    EXPECT_EQ(20000, write(eas, "m", std::string(20000, 'm')));
    EXPECT_EQ(stream::bytes({{"n", "value"}, {"m", std::string(20000, 'm')}}, 50000) + fork, content());
    EXPECT_EQ(0, VEXOEASRemove(eas, "m"));
    EXPECT_EQ(stream::bytes({{"n", "value"}}, 50000) + fork, content());
    EXPECT_EQ(5, write(eas, "n", "VALUE")); // same length: nothing moves
    EXPECT_EQ(stream::bytes({{"n", "VALUE"}}, 50000) + fork, content());
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, MovingTheForkNeverCutsTheFile) {
    put(stream::bytes({}, 3) + "RRR" + std::string(100, 'b'));
    VEXOEAS *eas = open();
    EXPECT_EQ(2, write(eas, "n", "vv"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    const std::string now = content();
    EXPECT_EQ(120u + 3 + 100, now.size());
    const std::string expected = stream::bytes({{"n", "vv"}}, 3) + "RRR";
    EXPECT_EQ(expected, now.substr(0, expected.size()));
}

TEST_F(Stream, TruncateLeavesForkAndFileLength) {
    put(stream::bytes({{"n", "0123456789"}, {"m", "M"}}, 4) + "FORK");
    const std::string before = content();
    VEXOEAS *eas = open();
    EXPECT_EQ(0, VEXOEASTruncate(eas, "n", 4));
    EXPECT_EQ("0123", read(eas, "n"));
    EXPECT_EQ("M", read(eas, "m"));
    const std::string cut = stream::bytes({{"m", "M"}, {"n", "0123"}}, 4);
    EXPECT_EQ(cut, content().substr(0, cut.size()));
    EXPECT_EQ(before.substr(cut.size()), content().substr(cut.size())); // what was there is still there
    EXPECT_EQ(0, VEXOEASTruncate(eas, "n", 6));
    EXPECT_EQ(std::string("0123\0\0", 6), read(eas, "n"));
    EXPECT_EQ(before.size(), content().size());
    EXPECT_EQ(0, VEXOEASTruncate(eas, "n", 0));
    EXPECT_EQ("", read(eas, "n"));
    EXPECT_FAILS(VEXOEASTruncate(eas, "none", 0), 0x2000);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

// The header says that the fork follows the values; nothing is there but what was cut off.
TEST_F(Stream, ShrinkingTruncationAndTheNextWriteDestroyTheFork) {
    const std::string fork = "0123456789abcdef";
    put(stream::bytes({{"n", "value"}}, 16) + fork);
    VEXOEAS *eas = open();
    EXPECT_EQ(0, VEXOEASTruncate(eas, "n", 0));
    EXPECT_EQ(stream::bytes({{"n", ""}}, 16) + "value" + fork, content()) << "its bytes are there still";
    EXPECT_EQ(5, write(eas, "n", "VALUE"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"n", "VALUE"}}, 16) + "value0123456789a", content());
}

TEST_F(Stream, RemovalAndWriteKeepTheFork) {
    const std::string fork = "0123456789abcdef";
    for (const std::string value : {"", "V", "VALUE", "a longer value"}) {
        put(stream::bytes({{"n", "value"}, {"m", "M"}}, 16) + fork);
        VEXOEAS *eas = open();
        EXPECT_EQ(0, VEXOEASRemove(eas, "n"));
        EXPECT_EQ(static_cast<int>(value.size()), write(eas, "n", value));
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ(stream::bytes({{"m", "M"}, {"n", value}}, 16) + fork, content());
    }
}

// A caller who keeps a fork in the stream grows a value by a write, which moves the fork out of the way.
TEST_F(Stream, GrowingTruncationWritesZerosOverTheForksBeginning) {
    const std::string fork = "0123456789abcdef";
    put(stream::bytes({{"n", "value"}}, static_cast<uint32_t>(fork.size())) + fork);
    const size_t size = content().size();
    VEXOEAS *eas = open();
    EXPECT_EQ(0, VEXOEASTruncate(eas, "n", 11));
    EXPECT_EQ("value" + std::string(6, '\0'), read(eas, "n"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(size, content().size());
    EXPECT_EQ(std::string(6, '\0') + fork.substr(6), content().substr(size - fork.size()));

    put(stream::bytes({{"n", "value"}}, static_cast<uint32_t>(fork.size())) + fork);
    eas = open();
    EXPECT_EQ(6, VEXOEASWrite(eas, "n", "******", 6, 5, 1));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(fork, content().substr(content().size() - fork.size()));
}

TEST_F(Stream, NamesOfEveryByte) {
    VEXOEAS *eas = open();
    stream::Attributes expected;
    for (int byte = 1; byte < 256; ++byte) {
        const std::string name{static_cast<char>(byte)};
        EXPECT_EQ(1, write(eas, name, name));
        expected.emplace_back(name, name);
    }
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes(expected), content());
    EXPECT_EQ(expected, attributes());
}

TEST_F(Stream, NameLengthsAtTheLimit) {
    VEXOEAS *eas = open();
    EXPECT_EQ(1, write(eas, std::string(254, 'x'), "v"));
    EXPECT_FAILS(write(eas, std::string(255, 'x'), "v"), 0x0D00);
    EXPECT_FAILS(write(eas, std::string(5000, 'x'), "v"), 0x0D00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{std::string(254, 'x'), "v"}}), content());
}

// No client can ask for it, but what another stream holds must be able to come over.
TEST_F(Stream, AnEmptyNameIsAName) {
    VEXOEAS *eas = open();
    EXPECT_EQ(1, write(eas, "", "v"));
    EXPECT_EQ(2, write(eas, "named", "vv"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ((stream::Attributes{{"", "v"}, {"named", "vv"}}), attributes());
}

TEST_F(Stream, RecordsThatFillTheGatheringBuffer) {
    stream::Attributes expected;
    VEXOEAS *eas = open();
    for (size_t length = 1; length <= 254; length += 11) {
        expected.emplace_back(std::string(length, 'n'), std::string(length % 3, 'v'));
        EXPECT_EQ(static_cast<int>(length % 3), write(eas, expected.back().first, expected.back().second));
        EXPECT_EQ(stream::bytes(expected), content());
    }
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(expected, attributes());
}

TEST_F(Stream, LargeValues) {
    const std::string mega = kit::pattern(5u << 20);
    VEXOEAS *eas = open();
    EXPECT_EQ(0, write(eas, "zero", ""));
    EXPECT_EQ(1, write(eas, "one", "1"));
    EXPECT_EQ(65536, write(eas, "64k", mega.substr(0, 65536)));
    EXPECT_EQ(5 << 20, write(eas, "mega", mega));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ((stream::Attributes{{"zero", ""}, {"one", "1"}, {"64k", mega.substr(0, 65536)}, {"mega", mega}}),
              attributes());
}

TEST_F(Stream, NoMoreAttributesThanTheFieldCounts) {
    stream::Attributes all(65535, {"n", ""});
    all[65534].first = "last";
    const std::string full = stream::bytes(all);
    put(full);
    EXPECT_EQ(65535, EASGetAttrCount(fd));
    VEXOEAS *eas = open();
    EXPECT_EQ(65535, eas->header.attrCount);
    EXPECT_FAILS(write(eas, "more", "v"), 0x0D00);
    EXPECT_EQ(full, content());
    EXPECT_EQ(1, write(eas, "last", "v")); // what is there may still change
    EXPECT_EQ(0, VEXOEASRemove(eas, "last"));
    EXPECT_EQ(1, write(eas, "more", "v"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    all[65534] = {"more", "v"};
    EXPECT_TRUE(stream::bytes(all) == content());
}

TEST_F(Stream, SumsThatDoNotFitAreRefusedBeforeAnythingIsWritten) {
    put(stream::bytes({{"n", "value"}}));
    const std::string before = content();
    VEXOEAS *eas = open();
    EXPECT_FAILS(write(eas, "m", "v", UINT32_MAX), 0x0D00);
    EXPECT_FAILS(write(eas, "m", "v", UINT32_MAX - 140), 0x0D00);
    EXPECT_FAILS(write(eas, "n", "v", UINT32_MAX), 0x0D00);
    EXPECT_FAILS(VEXOEASTruncate(eas, "n", UINT32_MAX), 0x0D00);
    EXPECT_FAILS(VEXOEASWrite(eas, "m", before.data(), 0x80000000u, 0, 0), 0x0D00); // the result could not tell it
    EXPECT_EQ("value", read(eas, "n"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(before, content());
}

TEST_F(Stream, FinderInfoAloneReadsAsNoAttributes) {
    std::string file = stream::bytes({}).substr(0, 82);
    file.replace(34, 4, stream::number(32, 4)).replace(42, 4, stream::number(82, 4));
    file.replace(50, 8, "TYPECREA").replace(46, 4, stream::number(6, 4));
    put(file + "A FORK");
    VEXOEAS *eas = open();
    EXPECT_EQ(0, eas->header.attrCount);
    EXPECT_EQ(120u, uint32_t{eas->header.dataStart});
    EXPECT_EQ(0x41545452u, uint32_t{eas->header.attrMagic});
    EXPECT_EQ(0, EASGetAttrCount(fd));
    EXPECT_EQ(0, VEXOEASLockSet(eas, F_WRLCK)); // the count's lock took the handle's with it
    EXPECT_EQ(2, write(eas, "a", "xy"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"a", "xy"}}, 6, "TYPECREA") + "A FORK", content());
}

TEST_F(Stream, FinderInfoIsReadWhereItsEntrySaysAndWrittenInItsPlace) {
    // The attribute block is at 82 all the same.
    std::string file = stream::bytes({{"n", "value"}});
    const auto odd = static_cast<uint32_t>(file.size()) + 1;
    file.replace(30, 4, stream::number(odd, 4));
    put(file + "?" + "0123456789abcdefghijklmnopqrstuv");
    VEXOEAS *eas = open();
    EXPECT_EQ("0123456789abcdefghijklmnopqrstuv", std::string(reinterpret_cast<char *>(eas->header.finderInfo), 32));
    EXPECT_EQ("value", read(eas, "n"));
    EXPECT_EQ(5, write(eas, "n", "VALUE"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    const std::string expected = stream::bytes({{"n", "VALUE"}}, 0, "0123456789abcdefghijklmnopqrstuv");
    EXPECT_EQ(expected, content().substr(0, expected.size()));
}

TEST_F(Stream, EntryCountIsKeptAsRead) {
    std::string file = stream::bytes({{"n", "value"}});
    for (const unsigned count : {1u, 3u, 5u}) {
        file.replace(24, 2, stream::number(count, 2));
        put(file);
        VEXOEAS *eas = open();
        EXPECT_EQ(1, write(eas, "n", "V"));
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ(stream::number(count, 2), content().substr(24, 2));
    }
}

TEST_F(Stream, RoomBeforeTheValuesIsKept) {
    // As other makers leave it: values that begin behind a gap, and a Finder Info entry that ends behind them.
    std::string file = stream::bytes({{"n", "value"}});
    file.replace(96, 4, stream::number(200, 4)).replace(120, 4, stream::number(200, 4));
    file.resize(136);
    file += std::string(64, 'g') + "value" + std::string(45, 'e');
    file.replace(34, 4, stream::number(200, 4)).replace(46, 4, stream::number(4, 4));
    put(file + "FORK");
    VEXOEAS *eas = open();
    EXPECT_EQ("value", read(eas, "n"));
    EXPECT_EQ(5, write(eas, "m", "other"));
    EXPECT_EQ("value", read(eas, "n"));
    EXPECT_EQ("other", read(eas, "m"));
    EXPECT_EQ(216u, uint32_t{eas->header.dataStart});
    EXPECT_EQ("FORK", content().substr(eas->header.entries[1].offset, 4));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ((stream::Attributes{{"n", "value"}, {"m", "other"}}), attributes());
}

TEST_F(Stream, RefusedArguments) {
    put(kExample);
    EXPECT_EQ(nullptr, VEXOEASOpen(-1, F_RDLCK));
    EXPECT_EQ(0x0D00u, VLIBCErrGet());
    EXPECT_EQ(nullptr, VEXOEASOpen(fd, 7));
    EXPECT_EQ(0x0D00u, VLIBCErrGet());
    VEXOEAS *eas = open();
    VEXOEAS closed = *eas;
    closed.fd = -1;
    char byte = 0;
    uint32_t word = 0;
    struct flock lock {};
    VLIBCSzList *none = nullptr;
    for (VEXOEAS *bad : {static_cast<VEXOEAS *>(nullptr), &closed}) {
        EXPECT_FAILS(VEXOEASLockSet(bad, F_RDLCK), 0x0D00);
        EXPECT_FAILS(VEXOEASLockGet(bad, &lock), 0x0D00);
        EXPECT_FAILS(VEXOEASRead(bad, "a", &byte, 1, 0), 0x0D00);
        EXPECT_FAILS(VEXOEASWrite(bad, "a", &byte, 1, 0, 0), 0x0D00);
        EXPECT_FAILS(VEXOEASTruncate(bad, "a", 1), 0x0D00);
        EXPECT_FAILS(VEXOEASRemove(bad, "a"), 0x0D00);
        EXPECT_FAILS(VEXOEASUpdateEntry(bad, 0, &byte, 1, 1), 0x0D00);
        EXPECT_FAILS(VEXOEASWriteHeader(bad), 0x0D00);
        EXPECT_FAILS(VEXOEASFlush(bad), 0x0D00);
        EXPECT_FAILS(EASMoveRFork(bad, 1, 2, 3), 0x0D00);
    }
    EXPECT_FAILS(VEXOEASClose(nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEASLockSet(eas, -1), 0x0D00);
    EXPECT_FAILS(VEXOEASLockSet(eas, 65536), 0x0D00);
    EXPECT_FAILS(VEXOEASLockGet(eas, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEASSearch(nullptr, "a"), 0x0D00);
    EXPECT_FAILS(VEXOEASSearch(eas, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEASRead(eas, nullptr, &byte, 1, 0), 0x0D00);
    EXPECT_FAILS(VEXOEASRead(eas, "a", nullptr, 0, 0), 0x0D00);
    EXPECT_FAILS(VEXOEASWrite(eas, nullptr, &byte, 1, 0, 1), 0x0D00);
    EXPECT_FAILS(VEXOEASWrite(eas, "a", nullptr, 1, 0, 1), 0x0D00);
    EXPECT_FAILS(VEXOEASTruncate(eas, nullptr, 1), 0x0D00);
    EXPECT_FAILS(VEXOEASRemove(eas, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEASEnum(eas, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEASEnum(eas, &none), 0x0D00);
    EXPECT_FAILS(VEXOEASEnum(nullptr, &none), 0x0D00);
    EXPECT_FAILS(VEXOEASAllocEntry(nullptr, 1), 0x0D00);
    EXPECT_FAILS(VEXOEASAllocEntry(eas, -1), 0x0D00);
    EXPECT_FAILS(VEXOEASUpdateEntry(eas, 1, &byte, 1, 1), 0x0D00);
    EXPECT_FAILS(VEXOEASUpdateEntry(eas, -1, &byte, 1, 1), 0x0D00);
    EXPECT_FAILS(EASWriteToFd(-1, fd), 0x0D00);
    EXPECT_FAILS(EASWriteToFd(fd, -1), 0x0D00);
    EXPECT_FAILS(EASGetAttrCount(-1), 0x0D00);
    EXPECT_FAILS(EASGetFinderInfoIndex(nullptr), 0x0D00);
    EXPECT_FAILS(EASGetRForkLocation(nullptr, &word, &word), 0x0D00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(kExample, content());
}

TEST_F(Stream, ChangesNeedTheWriteLock) {
    put(kExample);
    char byte = 0;
    VEXOEAS *eas = open(F_RDLCK);
    EXPECT_FAILS(VEXOEASWrite(eas, "a", &byte, 1, 0, 1), 0x0300);
    EXPECT_FAILS(VEXOEASTruncate(eas, "a", 1), 0x0300);
    EXPECT_FAILS(VEXOEASRemove(eas, "a"), 0x0300);
    EXPECT_FAILS(VEXOEASRemove(eas, "none"), 0x0300);
    EXPECT_EQ(1, VEXOEASRead(eas, "a", &byte, 1, 0));
    EXPECT_EQ(0, VEXOEASLockSet(eas, F_UNLCK));
    EXPECT_EQ(F_UNLCK, eas->lockState);
    EXPECT_FAILS(VEXOEASRead(eas, "a", &byte, 1, 0), 0x0300);
    EXPECT_EQ(0, VEXOEASLockSet(eas, F_WRLCK));
    EXPECT_EQ(1, VEXOEASWrite(eas, "a", "X", 1, 0, 1));
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, HeaderOfImpossibleSizesIsNotWritten) {
    put(kExample);
    VEXOEAS *eas = open();
    const uint32_t start = eas->header.dataStart;
    for (const uint32_t impossible : {UINT32_MAX, 0U}) {
        eas->header.dataStart = impossible;
        eas->header.dataLength = impossible == 0 ? 0 : 2;
        EXPECT_FAILS(VEXOEASWriteHeader(eas), 0x0D00);
        EXPECT_STREQ("ea/eas_write_header.c", VLIBCErrorGetFile());
    }
    eas->header.dataStart = start;
    EXPECT_EQ(kExample, content());
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, RecordsThatCannotBeWrittenFail) {
    stream::Attributes many;
    for (int at = 0; at < 40; ++at) {
        many.emplace_back(std::string(90, 'n') + std::to_string(at), "value");
    }
    put(stream::bytes(many));
    for (const int skip : {0, 1, 2}) { // the header, the first records, the next ones
        VEXOEAS *eas = open();
        kit::Faults::fail("write", ENOSPC, path, skip);
        EXPECT_FAILS(VEXOEASWriteHeader(eas), 0x0B00);
        kit::Faults::reset();
        EXPECT_EQ(0, VEXOEASClose(eas));
    }
    EXPECT_EQ(many, attributes()) << "what was written is what was there";
}

TEST_F(Stream, LockIsNeverWaitedFor) {
    put(kExample);
    const auto opens = [this](int lockType) {
        const int other = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        VEXOEAS *eas = VEXOEASOpen(other, lockType);
        const bool locked = VLIBCErrGet() == 0x0400;
        if (eas != nullptr) {
            EXPECT_EQ(0, VEXOEASClose(eas));
            return 1;
        }
        return locked ? 2 : 3;
    };
    VEXOEAS *eas = open(F_WRLCK);
    EXPECT_EQ(2, kit::inChild([&] { return opens(F_RDLCK); }));
    EXPECT_EQ(2, kit::inChild([&] { return opens(F_WRLCK); }));
    EXPECT_EQ(4, kit::inChild([&] { return EASGetAttrCount(fd) == -1 && VLIBCErrGet() == 0x0400 ? 4 : 5; }));
    EXPECT_EQ(0, VEXOEASLockSet(eas, F_RDLCK));
    EXPECT_EQ(1, kit::inChild([&] { return opens(F_RDLCK); }));
    EXPECT_EQ(2, kit::inChild([&] { return opens(F_WRLCK); }));
    EXPECT_EQ(0, VEXOEASLockSet(eas, F_UNLCK));
    EXPECT_EQ(1, kit::inChild([&] { return opens(F_WRLCK); }));
    EXPECT_EQ(0, VEXOEASLockSet(eas, F_WRLCK));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(1, kit::inChild([&] { return opens(F_WRLCK); }));
}

TEST_F(Stream, LockGetTellsTheHolder) {
    VEXOEAS *eas = open(F_RDLCK);
    const pid_t parent = ::getpid();
    EXPECT_EQ(1, kit::inChild([&] {
                  VEXOEAS mine = *eas;
                  struct flock lock {};
                  lock.l_type = F_WRLCK;
                  return VEXOEASLockGet(&mine, &lock) == 0 && lock.l_type == F_RDLCK && lock.l_pid == parent ? 1 : 0;
              }));
    struct flock lock {};
    kit::Faults::fail("fcntl", EINVAL);
    EXPECT_FAILS(VEXOEASLockGet(eas, &lock), 0x2A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, LockThatIsRefused) {
    kit::Faults::fail("fcntl", EACCES);
    EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_RDLCK));
    EXPECT_EQ(0x0400u, VLIBCErrGet());
    VEXOEAS *eas = open();
    kit::Faults::fail("fcntl", ENOLCK);
    EXPECT_FAILS(VEXOEASClose(eas), 0x0400); // and it is freed: the leak check of the sanitizer would tell
}

TEST_F(Stream, FailedOpenReleasesTheLock) {
    put(kExample.substr(0, 100));
    EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_WRLCK));
    EXPECT_EQ(0x0A00u, VLIBCErrGet());
    EXPECT_EQ(-1, EASGetAttrCount(fd));
    EXPECT_EQ(1, kit::inChild([&] {
                  struct flock lock {};
                  lock.l_type = F_WRLCK;
                  return ::fcntl(fd, F_SETLK, &lock) == 0 ? 1 : 0;
              }));
}

TEST_F(Stream, EverySeekAndReadOfOpeningIsChecked) {
    put(kExample);
    // In order: the end, the header, the Finder Info, the attribute block.
    for (int skip = 1; skip < 4; ++skip) {
        kit::Faults::reset();
        kit::Faults::fail("lseek", EIO, path, skip);
        EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_RDLCK)) << skip;
        EXPECT_EQ(0x0A00u, VLIBCErrGet()) << skip;
    }
    // The prefix, the entries, the Finder Info, the attribute block, the records.
    for (int skip = 0; skip < 5; ++skip) {
        kit::Faults::reset();
        kit::Faults::fail("read", EIO, path, skip);
        EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_RDLCK)) << skip;
        EXPECT_EQ(0x0A00u, VLIBCErrGet()) << skip;
    }
    kit::Faults::reset();
    kit::Faults::failAlways("fstat", EIO, path);
    EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_RDLCK));
    EXPECT_EQ(0x0A00u, VLIBCErrGet());
    EXPECT_EQ(kExample, content());
}

TEST_F(Stream, EveryAllocationIsChecked) {
    put(kExample);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    for (int nth = 1; nth <= 3; ++nth) { // the handle, the slots, the name
        kit::Faults::failAllocation(nth);
        EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_RDLCK)) << nth;
        EXPECT_EQ(0x0200u, VLIBCErrGet()) << nth;
    }
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(EASGetAttrCount(fd), 0x0200);
    kit::Faults::failAllocation(0);
    VEXOEAS *eas = open();
    for (int nth = 1; nth <= 3; ++nth) { // slots, name, values
        kit::Faults::failAllocation(nth);
        EXPECT_FAILS(VEXOEASWrite(eas, "b", "v", 1, 0, 1), 0x0200);
        kit::Faults::failAllocation(0);
        eas->capacity = 1; // full again
    }
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEASWrite(eas, "a", "v", 1, 0, 1), 0x0200);
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEASTruncate(eas, "a", 1), 0x0200);
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEASRemove(eas, "a"), 0x0200);
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEASAllocEntry(eas, 3), 0x0200);
    EXPECT_FAILS(VEXOEASAllocEntry(eas, INT32_MAX), 0x0200);
    kit::Faults::failAllocation(0);
    EXPECT_EQ("xy", read(eas, "a")); // the handle outlives all of it
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(kExample, content());
}

TEST_F(Stream, SlotsAreAdded) {
    put(kExample);
    VEXOEAS *eas = open();
    EXPECT_EQ(1, eas->capacity);
    EXPECT_EQ(0, VEXOEASAllocEntry(eas, 0));
    EXPECT_EQ(6, eas->capacity);
    EXPECT_EQ(0, VEXOEASAllocEntry(eas, 3));
    EXPECT_EQ(9, eas->capacity);
    EXPECT_STREQ("a", eas->records[0].name);
    EXPECT_EQ(nullptr, eas->records[8].name);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

// Fails the n-th call of `function` during a change, for n = 0, 1, …, and gives the codes seen until it succeeds.
template <typename Prepare, typename Run>
std::vector<uint32_t> codesOfFailures(const std::string &function, int error, Prepare prepare, Run run) {
    std::vector<uint32_t> codes;
    for (int skip = 0; skip < 20; ++skip) {
        VEXOEAS *eas = prepare();
        kit::Faults::reset();
        kit::Faults::fail(function, error, {}, skip);
        const bool failed = run(eas) < 0;
        const uint32_t code = VLIBCErrGet();
        kit::Faults::reset();
        EXPECT_EQ(0, VEXOEASClose(eas));
        if (!failed) {
            break;
        }
        codes.push_back(code);
    }
    return codes;
}

TEST_F(Stream, CodesOfEveryFailingCall) {
    const auto prepare = [this] {
        put(stream::bytes({{"a", "AAAA"}, {"b", "BBBB"}}, 4) + "FORK");
        return open();
    };
    const auto add = [](VEXOEAS *eas) { return write(eas, "c", "C"); };
    const auto grow = [](VEXOEAS *eas) { return write(eas, "a", "longer"); };
    const auto cut = [](VEXOEAS *eas) { return VEXOEASTruncate(eas, "a", 2); };
    const auto drop = [](VEXOEAS *eas) { return VEXOEASRemove(eas, "a"); };
    using Codes = std::vector<uint32_t>;
    // A new one: what is there, fork from and to, header, values.
    EXPECT_EQ((Codes{0x2600, 0x2600, 0x2600, 0x2600, 0x2600}), codesOfFailures("lseek", EIO, prepare, add));
    EXPECT_EQ((Codes{0x0A00, 0x0A00}), codesOfFailures("read", EIO, prepare, add));
    EXPECT_EQ((Codes{0x0B00, 0x0B00, 0x0B00, 0x0B00}), codesOfFailures("write", EIO, prepare, add));
    EXPECT_EQ((Codes{0x2A00}), codesOfFailures("ftruncate", EIO, prepare, add));
    // An old one: the same.
    EXPECT_EQ((Codes{0x2600, 0x2600, 0x2600, 0x2600, 0x2600}), codesOfFailures("lseek", EIO, prepare, grow));
    EXPECT_EQ((Codes{0x0A00, 0x0A00}), codesOfFailures("read", EIO, prepare, grow));
    EXPECT_EQ((Codes{0x0B00, 0x0B00, 0x0B00, 0x0B00}), codesOfFailures("write", EIO, prepare, grow));
    // A truncation moves no fork.
    EXPECT_EQ((Codes{0x2600, 0x2600, 0x2600}), codesOfFailures("lseek", EIO, prepare, cut));
    EXPECT_EQ((Codes{0x0A00}), codesOfFailures("read", EIO, prepare, cut));
    EXPECT_EQ((Codes{0x0B00, 0x0B00, 0x0B00}), codesOfFailures("write", EIO, prepare, cut));
    // A removal tells the last seek as a write.
    EXPECT_EQ((Codes{0x2600, 0x2600, 0x2600, 0x2600, 0x0B00}), codesOfFailures("lseek", EIO, prepare, drop));
    EXPECT_EQ((Codes{0x0A00, 0x0A00}), codesOfFailures("read", EIO, prepare, drop));
    EXPECT_EQ((Codes{0x0B00, 0x0B00, 0x0B00, 0x0B00}), codesOfFailures("write", EIO, prepare, drop));
    EXPECT_EQ((Codes{0x2A00}), codesOfFailures("ftruncate", EIO, prepare, drop));
    EXPECT_EQ((Codes{0x0A00, 0x0A00}), codesOfFailures("fstat", EIO, prepare, add));
}

TEST_F(Stream, ShortTransfersAreFailures) {
    put(stream::bytes({{"a", "AAAA"}}));
    VEXOEAS *eas = open();
    char buffer[8];
    kit::Faults::add({.function = "read", .result = 3, .answers = true});
    EXPECT_FAILS(VEXOEASRead(eas, "a", buffer, 8, 0), 0x0A00);
    kit::Faults::add({.function = "write", .result = 119, .answers = true});
    EXPECT_FAILS(VEXOEASWriteHeader(eas), 0x0B00);
    kit::Faults::reset();
    kit::Faults::fail("lseek", EIO);
    EXPECT_FAILS(VEXOEASRead(eas, "a", buffer, 8, 0), 0x2600);
    kit::Faults::fail("fsync", EIO);
    EXPECT_FAILS(VEXOEASFlush(eas), 0x2A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, FullVolumeLeavesTheFileAsItWas) {
    const std::string before = stream::bytes({{"a", "AAAA"}}, 4) + "FORK";
    put(before);
    VEXOEAS *eas = open();
    for (const int error : {ENOSPC, EDQUOT, EFBIG}) {
        kit::Faults::fail("fallocate", error);
        errno = 0;
        EXPECT_FAILS(write(eas, "b", std::string(10000, 'b')), 0x0B00);
        EXPECT_EQ(error, errno);
        EXPECT_EQ(before, content());
        EXPECT_EQ("AAAA", read(eas, "a"));
    }
    kit::Faults::fail("fallocate", EOPNOTSUPP); // a volume that cannot reserve is no failure
    EXPECT_EQ(10000, write(eas, "b", std::string(10000, 'b')));
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, ReallyFullVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 10));
    processAsNow();
    const std::string small = volume / "small";
    const std::string before = stream::bytes({{"a", "AAAA"}}, 4) + "FORK";
    kit::writeFile(small, before);
    const int other = ::open(small.c_str(), O_RDWR | O_CLOEXEC);
    VEXOEAS *eas = VEXOEASOpen(other, F_WRLCK);
    ASSERT_NE(nullptr, eas);
    EXPECT_FAILS(write(eas, "b", std::string(200000, 'b')), 0x0B00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    ::close(other);
    EXPECT_EQ(before, kit::readFile(small));
}

TEST_F(Stream, MoveForkLogsItsFailures) {
    put(stream::bytes({}) + std::string(40000, 'f'));
    VEXOEAS *eas = open();
    kit::Faults::fail("read", EIO);
    EXPECT_FAILS(EASMoveRFork(eas, 121, 120, 40000), 0x0A00);
    EXPECT_EQ(1, kit::Log::count(3, "failed to read, cRead=-1, cToRead=16384, reason=Input/output error.\n"))
        << kit::Log::all();
    kit::Faults::reset();
    kit::Faults::fail("write", ENOSPC);
    EXPECT_FAILS(EASMoveRFork(eas, 119, 120, 40000), 0x0B00);
    EXPECT_EQ(1, kit::Log::count(3, "failed to write, reason=No space left on device.\n")) << kit::Log::all();
    EXPECT_EQ(0u, kit::Log::lines()[1].text.find("ea/eas_move_rfork.c:")) << kit::Log::all();
    EXPECT_NE(std::string::npos, kit::Log::lines()[1].text.find("(EASMoveRFork) failed")) << kit::Log::all();
    kit::Faults::reset();
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, MoveForkIsSafeBothWays) {
    for (const int distance : {1, 100, 16383, 16384, 16385, 50000}) {
        for (const uint32_t length : {1u, 16383u, 16384u, 16385u, 40000u}) {
            const std::string fork = kit::pattern(length, length);
            const std::string head = stream::bytes({});
            put(head + fork);
            VEXOEAS *eas = open();
            const uint32_t from = 120;
            const uint32_t to = from + static_cast<uint32_t>(distance);
            EXPECT_EQ(0, EASMoveRFork(eas, to, from, length));
            EXPECT_EQ(fork, content().substr(to, length)) << distance << " " << length;
            EXPECT_EQ(to + length, content().size());
            EXPECT_EQ(0, EASMoveRFork(eas, from, to, length));
            EXPECT_EQ(fork, content().substr(from, length)) << distance << " " << length;
            EXPECT_EQ(to + length, content().size()); // never cut
            EXPECT_EQ(0, VEXOEASClose(eas));
        }
    }
}

TEST_F(Stream, MoveForkOfNothingAndToItself) {
    put(stream::bytes({}) + "fork");
    const std::string before = content();
    VEXOEAS *eas = open();
    kit::Faults::failAlways("lseek", EIO);
    EXPECT_EQ(0, EASMoveRFork(eas, 500, 120, 0));
    EXPECT_EQ(0, EASMoveRFork(eas, 120, 120, 4));
    kit::Faults::reset();
    EXPECT_EQ(0, EASMoveRFork(eas, 100, 5000, 4)); // behind the end there is nothing to move
    EXPECT_EQ(before, content());
    kit::Faults::fail("ftruncate", EFBIG);
    EXPECT_FAILS(EASMoveRFork(eas, 500, 120, 4), 0x2A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, FinderInfoIndexAndForkLocation) {
    VEXOEAS eas{};
    uint32_t offset = 0;
    uint32_t length = 0;
    eas.header.entries[0] = {9, 50, 88};
    eas.header.entries[1] = {2, 999, 7};
    EXPECT_EQ(0, EASGetFinderInfoIndex(&eas.header));
    EXPECT_EQ(0, EASGetRForkLocation(&eas, &offset, &length));
    EXPECT_EQ(138u, offset);
    EXPECT_EQ(7u, length);
    std::swap(eas.header.entries[0], eas.header.entries[1]);
    EXPECT_EQ(1, EASGetFinderInfoIndex(&eas.header));
    EXPECT_EQ(0, EASGetRForkLocation(&eas, &offset, &length));
    EXPECT_EQ(138u, offset);
    EXPECT_EQ(7u, length);
    eas.header.entries[1].length = UINT32_MAX;
    EXPECT_FAILS(EASGetRForkLocation(&eas, &offset, &length), 0x0D00);
    eas.header.entries[1].id = 3;
    EXPECT_FAILS(EASGetFinderInfoIndex(&eas.header), 0x0A00);
    EXPECT_FAILS(EASGetRForkLocation(&eas, &offset, &length), 0x0A00);
    EXPECT_FAILS(EASGetRForkLocation(&eas, nullptr, &length), 0x0D00);
    EXPECT_FAILS(EASGetRForkLocation(&eas, &offset, nullptr), 0x0D00);
}

TEST_F(Stream, UpdateEntryGathersTheValues) {
    put(stream::bytes({{"a", "AA"}, {"b", "BBB"}, {"c", "C"}}));
    VEXOEAS *eas = open();
    char values[8] = {};
    EXPECT_FAILS(VEXOEASUpdateEntry(eas, 0, values, 5, 0), 0x0100);
    EXPECT_EQ(0, VEXOEASUpdateEntry(eas, 0, values, 6, 0));
    EXPECT_EQ("BBBCAA", std::string(values, 6));
    EXPECT_STREQ("a", eas->records[2].name);
    EXPECT_EQ(0, VEXOEASClose(eas));
    eas = open();
    EXPECT_FAILS(VEXOEASUpdateEntry(eas, 1, values, 2, 1), 0x0100);
    EXPECT_EQ(0, VEXOEASUpdateEntry(eas, 1, values, 3, 1));
    EXPECT_EQ("AAC", std::string(values, 3));
    EXPECT_EQ(2, eas->header.attrCount);
    EXPECT_EQ(152u, uint32_t{eas->header.dataStart});
    EXPECT_EQ(3u, uint32_t{eas->header.dataLength});
    EXPECT_EQ(152u, eas->records[0].offset);
    EXPECT_EQ(154u, eas->records[1].offset);
    EXPECT_EQ(nullptr, eas->records[2].name);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(Stream, EnumGivesNamesInOrder) {
    put(stream::bytes({{"b", ""}, {"a", ""}, {"line\nfeed", ""}}));
    VEXOEAS *eas = open(F_RDLCK);
    VLIBCSzList *list = VLIBCSzListAlloc(1);
    EXPECT_EQ(3, VEXOEASEnum(eas, &list));
    EXPECT_STREQ("b", VLIBCSzListGet(list, 0));
    EXPECT_STREQ("line\nfeed", VLIBCSzListGet(list, 2));
    kit::Faults::fail("VLIBCSzListPush", ENOMEM, {}, 2);
    EXPECT_FAILS(VEXOEASEnum(eas, &list), 0x0200);
    EXPECT_EQ(0, list->count);
    VLIBCSzListFree(list);
    EXPECT_EQ(0, VEXOEASClose(eas));
}

class StreamCopy : public StreamFile {
  protected:
    void SetUp() override {
        StreamFile::SetUp();
        dstPath = scratch / "other@VexoEAStream";
        dst = ::open(dstPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        processAsNow();
    }
    void TearDown() override {
        StreamFile::TearDown();
        ::close(dst);
    }
    std::string dstPath;
    int dst = -1;
};

TEST_F(StreamCopy, CopiesEveryAttributeOverWhatIsThere) {
    put(stream::bytes({{"a", "1"}, {"b", ""}, {"c", kit::pattern(100000)}, {"d", "4"}}));
    kit::writeFile(dstPath, stream::bytes({{"z", "Z"}, {"a", "old"}}));
    EXPECT_EQ(0, EASWriteToFd(fd, dst));
    EXPECT_EQ(stream::bytes({{"z", "Z"}, {"a", "1ld"}, {"b", ""}, {"c", kit::pattern(100000)}, {"d", "4"}}),
              kit::readFile(dstPath));
}

TEST_F(StreamCopy, EmptySourceLeavesTheDestination) {
    EXPECT_EQ(0, EASWriteToFd(fd, dst));
    EXPECT_EQ("", kit::readFile(dstPath));
}

TEST_F(StreamCopy, CountsWhatFailedAndGoesOn) {
    put(stream::bytes({{"a", "1"}, {"b", "22"}, {"c", "333"}}));
    kit::Faults::fail("read", EIO, path, 6); // behind header and records: the second value
    EXPECT_EQ(-2, EASWriteToFd(fd, dst));
    EXPECT_EQ(0x0A00u, VLIBCErrGet());
    kit::Faults::reset();
    EXPECT_EQ(stream::bytes({{"a", "1"}, {"c", "333"}}), kit::readFile(dstPath));
}

TEST_F(StreamCopy, FailedWriteDoesNotHarmWhatFollows) {
    put(stream::bytes({{"a", "1"}, {"b", "22"}, {"c", "333"}}));
    kit::Faults::fail("write", EIO, dstPath, 3); // the header of the second
    EXPECT_EQ(-2, EASWriteToFd(fd, dst));
    EXPECT_EQ(0x0B00u, VLIBCErrGet());
    kit::Faults::reset();
    EXPECT_EQ(stream::bytes({{"a", "1"}, {"c", "333"}}), kit::readFile(dstPath));
}

TEST_F(StreamCopy, ValueOutsideTheFileIsCounted) {
    std::string file = stream::bytes({{"a", "1"}, {"b", "22"}});
    file.replace(136 + 4, 4, stream::number(0xfffffff0, 4));
    put(file);
    EXPECT_EQ(-2, EASWriteToFd(fd, dst));
    EXPECT_EQ(stream::bytes({{"a", "1"}}), kit::readFile(dstPath));
}

TEST_F(StreamCopy, NeedsMemoryForEachValue) {
    put(stream::bytes({{"a", "1"}, {"b", std::string(100000, 'b')}}));
    kit::Faults::onlyAllocationsFrom(100000);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(-2, EASWriteToFd(fd, dst));
    EXPECT_EQ(0x0100u, VLIBCErrGet());
    kit::Faults::failAllocation(0);
    EXPECT_EQ(stream::bytes({{"a", "1"}}), kit::readFile(dstPath));
}

TEST_F(StreamCopy, UnreadableStreamsAreRefused) {
    put("not a stream");
    EXPECT_FAILS(EASWriteToFd(fd, dst), 0x0A00);
    put("");
    kit::writeFile(dstPath, "not a stream");
    EXPECT_FAILS(EASWriteToFd(fd, dst), 0x0A00);
    EXPECT_EQ("not a stream", kit::readFile(dstPath));
}

TEST_F(StreamCopy, OntoItselfChangesNothing) {
    put(stream::bytes({{"a", "1"}, {"b", "22"}}));
    const std::string before = content();
    EXPECT_EQ(0, EASWriteToFd(fd, fd));
    EXPECT_EQ(before, content());
}

} // namespace
