// Stream files that somebody bent: every number in them is untrusted. A bad file is an error code and stays as it was.
#include "tests/ea/stream_fixture.h"

#include <functional>
#include <map>

namespace {

class HostileStream : public StreamFile {
  protected:
    // Two attributes and a fork; records at 120 and 136, values "AAAA" at 152 and "BB" at 156, fork at 158.
    const std::string good = stream::bytes({{"a", "AAAA"}, {"b", "BB"}}, 4) + "FORK";

    std::string with(size_t at, uint64_t value, int width) const {
        std::string file = good;
        return file.replace(at, static_cast<size_t>(width), stream::number(value, width));
    }
    // Opening, counting and copying fail with that code; the file stays.
    void refusesToOpen(const std::string &file, uint32_t code, const std::string &what) {
        put(file);
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_WRLCK)) << what;
        EXPECT_EQ(code, VLIBCErrGet()) << what;
        EXPECT_EQ(-1, EASWriteToFd(fd, fd + 1000)) << what;
        EXPECT_EQ(file, content()) << what;
    }
    // It opens, and each of these changes fails with that code; the file stays.
    void refusesToChange(const std::string &file, uint32_t code, const std::string &what) {
        using Operation = std::function<int(VEXOEAS *)>;
        const std::map<std::string, Operation> operations = {
            {"new", [](VEXOEAS *eas) { return write(eas, "new", "value"); }},
            {"overwrite", [](VEXOEAS *eas) { return write(eas, "a", "value"); }},
            {"remove", [](VEXOEAS *eas) { return VEXOEASRemove(eas, "a"); }},
        };
        for (const auto &[name, run] : operations) {
            put(file);
            VEXOEAS *eas = open();
            ASSERT_NE(nullptr, eas);
            VLIBCErrSetEx(0, "", 0);
            EXPECT_EQ(-1, run(eas)) << what << ", " << name;
            EXPECT_EQ(code, VLIBCErrGet()) << what << ", " << name;
            EXPECT_EQ(file, content()) << what << ", " << name;
            EXPECT_EQ(0, VEXOEASClose(eas));
        }
    }
};

TEST_F(HostileStream, EveryLengthOfAFileThatEndsEarly) {
    for (size_t length = 1; length < good.size(); ++length) {
        put(good.substr(0, length));
        VEXOEAS *eas = VEXOEASOpen(fd, F_WRLCK);
        // Header, two records of 13 bytes; the padding of the last one need not be there.
        EXPECT_EQ(length >= 149, eas != nullptr) << length;
        if (eas == nullptr) {
            EXPECT_EQ(0x0A00u, VLIBCErrGet()) << length;
            continue;
        }
        if (length < 158) {
            EXPECT_FAILS(write(eas, "new", "value"), 0x0A00);
            EXPECT_FAILS(VEXOEASRemove(eas, "a"), 0x0A00);
            EXPECT_EQ(good.substr(0, length), content());
        }
        EXPECT_EQ(0, VEXOEASClose(eas));
    }
}

TEST_F(HostileStream, EntryCounts) {
    for (const unsigned count : {14u, 15u, 255u, 65535u}) {
        refusesToOpen(with(24, count, 2), 0x0D00, "entry count " + std::to_string(count));
    }
    refusesToOpen(with(24, 13, 2), 0x0A00, "more entries than the file has bytes for");
}

TEST_F(HostileStream, FinderInfoOutsideTheFile) {
    for (const uint32_t offset : {131u, 200u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        refusesToOpen(with(30, offset, 4), 0x0A00, "Finder Info at " + std::to_string(offset));
    }
}

TEST_F(HostileStream, MoreAttributesThanTheFileHasBytesFor) {
    for (const unsigned count : {65535u, 1000u, 6u}) {
        refusesToOpen(with(118, count, 2), 0x0A00, std::to_string(count) + " attributes");
    }
}

TEST_F(HostileStream, ClaimedAttributesAskForNoMemory) {
    put(with(118, 65535, 2));
    kit::Faults::onlyAllocationsFrom(4096);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(nullptr, VEXOEASOpen(fd, F_RDLCK));
    EXPECT_EQ(0x0A00u, VLIBCErrGet());
}

TEST_F(HostileStream, MissingEntries) {
    refusesToChange(with(26, 1, 4), 0x0A00, "no Finder Info");
    put(with(24, 0, 2));
    VEXOEAS *eas = open();
    EXPECT_EQ("AAAA", read(eas, "a"));
    EXPECT_FAILS(write(eas, "a", "B"), 0x0A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    put(with(38, 77, 4)); // no resource fork: nothing to move, the bytes behind the values are overwritten
    eas = open();
    EXPECT_EQ(1, write(eas, "a", "B"));
    EXPECT_EQ("BAAA", read(eas, "a"));
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(HostileStream, ValueAreaThatIsNotWhatTheNumbersSay) {
    for (const uint32_t bad : {0u, 119u, 120u, 151u, 153u, 0x7fffffffu, 0xfffffffeu, 0xffffffffu}) {
        refusesToChange(with(96, bad, 4), 0x0A00, "data start " + std::to_string(bad));
    }
    for (const uint32_t bad : {0u, 5u, 7u, 0x7fffffffu, 0xfffffffeu, 0xffffffffu}) {
        refusesToChange(with(100, bad, 4), 0x0A00, "data length " + std::to_string(bad));
    }
    for (const uint32_t bad : {0u, 151u, 153u, 0xffffffffu}) {
        refusesToChange(with(120, bad, 4), 0x0A00, "first value at " + std::to_string(bad));
        refusesToChange(with(136, bad, 4), 0x0A00, "second value at " + std::to_string(bad));
    }
    for (const uint32_t bad : {0u, 3u, 5u, 0x7fffffffu, 0xffffffffu}) {
        refusesToChange(with(124, bad, 4), 0x0A00, "first value's length " + std::to_string(bad));
    }
    for (const uint32_t bad : {0u, 1u, 3u, 0xffffffffu}) {
        refusesToChange(with(140, bad, 4), 0x0A00, "second value's length " + std::to_string(bad));
    }
}

TEST_F(HostileStream, LengthsThatAgreeButAreNotThere) {
    // 4 GiB in one value, in the data length and in a file of 162 bytes.
    std::string file = with(140, 0xffffff00u, 4);
    file.replace(100, 4, stream::number(0xffffff04u, 4));
    refusesToChange(file, 0x0A00, "4 GiB");
    put(file);
    VEXOEAS *eas = open();
    char buffer[64];
    EXPECT_FAILS(VEXOEASRead(eas, "b", buffer, sizeof buffer, 0), 0x0A00);
    EXPECT_FAILS(VEXOEASRead(eas, "b", buffer, 0, 0), 0x0D00); // the result could not tell it
    EXPECT_FAILS(VEXOEASRead(eas, "b", buffer, 8, 0xfffffe00u), 0x0A00);
    EXPECT_FAILS(VEXOEASTruncate(eas, "b", 0xf0000000u), 0x0A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(file, content());
    eas = open(); // without that value it is a stream like any other
    EXPECT_EQ(0, VEXOEASRemove(eas, "b"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ((stream::Attributes{{"a", "AAAA"}}), attributes());
    put(file);
    eas = open();
    EXPECT_EQ(0, VEXOEASTruncate(eas, "b", 1));
    EXPECT_EQ("B", read(eas, "b"));
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(HostileStream, ValuesThatOverlap) {
    std::string file = with(136, 152, 4);
    file.replace(140, 4, stream::number(6, 4));
    refusesToChange(file, 0x0A00, "overlap");
}

TEST_F(HostileStream, AttributeCountThatHidesValues) {
    refusesToChange(with(118, 1, 2), 0x0A00, "one attribute, values of two");
    put(with(118, 0, 2));
    VEXOEAS *eas = open();
    EXPECT_FAILS(write(eas, "new", "value"), 0x0A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(with(118, 0, 2), content());
}

// Nothing is extended for such a length, and what is there of the fork goes where it belongs.
TEST_F(HostileStream, ForkLongerThanItsFile) {
    for (const uint32_t length : {200u, 0x7fffffffu, 0xffffffffu}) {
        put(with(46, length, 4));
        VEXOEAS *eas = open();
        EXPECT_FAILS(EASMoveRFork(eas, 200, 158, length), 0x0A00);
        EXPECT_EQ(with(46, length, 4), content());
        EXPECT_EQ(5, write(eas, "new", "value"));
        EXPECT_EQ(stream::bytes({{"a", "AAAA"}, {"b", "BB"}, {"new", "value"}}, length) + "FORK", content());
        EXPECT_EQ(0, VEXOEASRemove(eas, "a"));
        EXPECT_EQ(stream::bytes({{"b", "BB"}, {"new", "value"}}, length) + "FORK", content());
        EXPECT_EQ(3, write(eas, "b", "BBB"));
        EXPECT_EQ(stream::bytes({{"new", "value"}, {"b", "BBB"}}, length) + "FORK", content());
        EXPECT_EQ(0, VEXOEASClose(eas));
    }
}

TEST_F(HostileStream, ForkThatIsCutShort) {
    const std::string fork = kit::pattern(50000);
    const std::string head = stream::bytes({{"a", "AAAA"}, {"b", "BB"}}, 50000);
    for (const size_t there : {size_t{0}, size_t{1}, size_t{20000}, size_t{49999}}) {
        // As long as the file: it is extended with zeros, and that is all that can be done. Longer: it stays cut.
        put(head + fork.substr(0, there));
        VEXOEAS *eas = open();
        EXPECT_EQ(2, write(eas, "b", "bb")) << there;
        EXPECT_EQ(stream::bytes({{"a", "AAAA"}, {"b", "bb"}}, 50000) + fork.substr(0, there), content());
        EXPECT_EQ(5, write(eas, "new", "value")) << there;
        EXPECT_EQ(0, VEXOEASRemove(eas, "a")) << there;
        EXPECT_EQ(0, VEXOEASTruncate(eas, "b", 1)) << there;
        EXPECT_EQ(5, write(eas, "b", "value")) << there;
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ((stream::Attributes{{"new", "value"}, {"b", "value"}}), attributes());
    }
}

TEST_F(HostileStream, LastBytesThatAreMissingAndNotNeeded) {
    const stream::Attributes all = {{"a", "AAAA"}, {"b", "0123456789"}};
    const std::string whole = stream::bytes(all);
    for (size_t missing = 1; missing <= 10; ++missing) {
        const auto cut = [&] {
            put(whole.substr(0, whole.size() - missing));
            return open();
        };
        VEXOEAS *eas = cut();
        EXPECT_EQ(0, VEXOEASRemove(eas, "b")) << missing;
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ(stream::bytes({{"a", "AAAA"}}), content());
        eas = cut();
        EXPECT_EQ(10, write(eas, "b", "abcdefghij")) << missing;
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ(stream::bytes({{"a", "AAAA"}, {"b", "abcdefghij"}}), content());
        eas = cut();
        EXPECT_EQ(0, VEXOEASTruncate(eas, "b", 0)) << missing;
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ((stream::Attributes{{"a", "AAAA"}, {"b", ""}}), attributes());
        eas = cut();
        EXPECT_EQ(0, VEXOEASTruncate(eas, "b", static_cast<uint32_t>(10 - missing))) << missing;
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ((stream::Attributes{{"a", "AAAA"}, {"b", whole.substr(whole.size() - 10, 10 - missing)}}),
                  attributes());
        eas = cut();
        EXPECT_EQ(static_cast<int>(missing),
                  write(eas, "b", std::string(missing, 'x'), static_cast<uint32_t>(10 - missing)));
        EXPECT_EQ(0, VEXOEASClose(eas));
        EXPECT_EQ(whole.substr(0, whole.size() - missing) + std::string(missing, 'x'), content());
    }
}

TEST_F(HostileStream, LastBytesThatAreMissingAndNeeded) {
    const std::string whole = stream::bytes({{"a", "AAAA"}, {"b", "0123456789"}});
    const std::string cut = whole.substr(0, whole.size() - 3);
    put(cut);
    VEXOEAS *eas = open();
    char buffer[16] = {};
    EXPECT_FAILS(VEXOEASRead(eas, "b", buffer, 10, 0), 0x0A00);
    EXPECT_EQ(7, VEXOEASRead(eas, "b", buffer, 7, 0)); // what is there can be had
    EXPECT_STREQ("0123456", buffer);
    EXPECT_FAILS(write(eas, "new", "value"), 0x0A00);
    EXPECT_FAILS(write(eas, "a", "A"), 0x0A00);
    EXPECT_FAILS(write(eas, "b", "0123456"), 0x0A00);
    EXPECT_FAILS(write(eas, "b", "9", 9), 0x0A00);
    EXPECT_FAILS(VEXOEASRemove(eas, "a"), 0x0A00);
    EXPECT_FAILS(VEXOEASTruncate(eas, "a", 0), 0x0A00);
    EXPECT_FAILS(VEXOEASTruncate(eas, "b", 8), 0x0A00);
    EXPECT_FAILS(VEXOEASTruncate(eas, "b", 11), 0x0A00);
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(cut, content());
}

// A gap of 3 GiB before values of no bytes, in a file of 160: it is not made for a single byte.
TEST_F(HostileStream, RoomBeforeTheValuesThatIsNotThere) {
    std::string file = stream::bytes({{"a", ""}});
    file.replace(96, 4, stream::number(0xc0000000u, 4)).replace(120, 4, stream::number(0xc0000000u, 4));
    refusesToChange(file, 0x0A00, "a gap of 3 GiB");
}

TEST_F(HostileStream, ForkPlaceThatWraps) {
    refusesToChange(with(34, 0xffffffffu, 4), 0x0D00, "Finder Info entry of 4 GiB");
}

TEST_F(HostileStream, NamesWithoutNulAndWithoutBytes) {
    std::string file = with(130, 1, 1); // "a" without its NUL
    put(file);
    VEXOEAS *eas = open();
    EXPECT_EQ("AAAA", read(eas, "a"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    // Name length 0: the record shrinks to 12 bytes and the values would begin behind a gap.
    file = stream::bytes({}).replace(118, 2, stream::number(1, 2));
    file.replace(96, 4, stream::number(132, 4)).replace(100, 4, stream::number(3, 4));
    file += stream::number(132, 4) + stream::number(3, 4) + stream::zeros(4) + "vvv";
    file.replace(34, 4, stream::number(85, 4));
    put(file);
    eas = open();
    EXPECT_EQ("vvv", read(eas, ""));
    EXPECT_EQ(0, VEXOEASTruncate(eas, "", 2));
    EXPECT_EQ("vv", read(eas, ""));
    EXPECT_EQ(1, write(eas, "n", "N"));
    EXPECT_EQ("vv", read(eas, ""));
    EXPECT_EQ(0, VEXOEASRemove(eas, ""));
    EXPECT_EQ("N", read(eas, "n"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ((stream::Attributes{{"n", "N"}}), attributes());
}

TEST_F(HostileStream, NamesWithNulInside) {
    // "a\0b" counts 4 bytes; it is found as "a" and written back byte for byte.
    std::string file = stream::bytes({{"a?b", "V"}});
    file[132] = '\0';
    put(file);
    VEXOEAS *eas = open();
    EXPECT_EQ("V", read(eas, "a"));
    EXPECT_EQ(1, write(eas, "a", "W"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(file.substr(0, file.size() - 1) + "W", content());
}

TEST_F(HostileStream, LongestRecordsAreWrittenBack) {
    // 255 bytes of name without a NUL: one more than this system writes, as long as the format has.
    std::string file = stream::bytes({}).replace(118, 2, stream::number(5, 2));
    const uint32_t start = 120 + 5 * 268;
    file.replace(96, 4, stream::number(start, 4)).replace(34, 4, stream::number(start - 50, 4));
    for (int at = 0; at < 5; ++at) {
        file += stream::number(start, 4) + stream::zeros(6) + "\xff" + std::string(255, static_cast<char>('a' + at)) +
                stream::zeros(2);
    }
    put(file);
    VEXOEAS *eas = open();
    EXPECT_EQ(3, VEXOEASSearch(eas, std::string(255, 'd').c_str()));
    EXPECT_EQ(0, VEXOEASWriteHeader(eas));
    EXPECT_EQ(0, VEXOEASClose(eas));
    file.replace(42, 4, stream::number(start, 4)).replace(92, 4, stream::number(start, 4));
    EXPECT_EQ(file, content());
}

TEST_F(HostileStream, DescriptorsThatAreNoFiles) {
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    EXPECT_EQ(nullptr, VEXOEASOpen(ends[0], F_RDLCK));
    EXPECT_EQ(-1, EASGetAttrCount(ends[0]));
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(nullptr, VEXOEASOpen(9999, F_RDLCK));
    EXPECT_EQ(0x0400u, VLIBCErrGet());
    const int readOnly = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(nullptr, VEXOEASOpen(readOnly, F_WRLCK));
    EXPECT_EQ(0x0400u, VLIBCErrGet());
    ::close(readOnly);
}

} // namespace
