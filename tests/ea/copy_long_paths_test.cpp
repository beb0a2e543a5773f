// Copies of what belongs to a file between paths that leave no room for the path of a companion.
#include "tests/ea/store_copy.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace item_store;

// The longest paths there are: with the first a file has no room for the names of its streams, with the second none for
// "@eaDir" either; the third is longer than any path.
constexpr size_t kNoStreams = 4080;
constexpr size_t kNoDirectory = 4089;
constexpr size_t kNoPath = 5000;

class LongPaths : public store_copy::StoreCopy {
  protected:
    // The places as usual, but one of them so far down that its path has that many bytes.
    void prepareDeep(int fromKind, int toKind, const Items &items, size_t fromLength, size_t toLength) {
        const std::string root = newRoot();
        from = placeIn(root + "/from", fromKind, fromLength);
        to = placeIn(root + "/to", toKind, toLength);
        build(from, fromKind, items);
        VLIBCErrSetEx(0, "", 0);
    }
    // What a copy that fails for the length of a path reports, the last line being the one that every copy ends with.
    void expectTooLong(const std::vector<std::string> &lines, bool move = false) {
        EXPECT_FAILS(copy(move), 0xC300);
        std::vector<std::string> expected = lines;
        expected.push_back("[0xC300]EACopy fail: from [" + from.path() + "] to [" + to.path() + "] File name too long");
        EXPECT_EQ(expected, reports());
    }

  private:
    static Place placeIn(const std::string &volume, int kind, size_t length) {
        makeVolume(volume, kind);
        const Place place{length == 0 ? volume : kit::makeDeepDirectory(volume, length - 2), "f"};
        makeFile(place, kind);
        return place;
    }
};

TEST_F(LongPaths, SourceWithoutRoomForStreamsFails) {
    for (const int fromKind : {kEaDirectory, kFileEa}) {
        for (const int toKind : {kAppleDouble, kEaDirectory, kFileEa}) {
            SCOPED_TRACE(std::string(name(fromKind)) + " to " + name(toKind));
            prepareDeep(fromKind, toKind, {}, kNoStreams, 0);
            expectTooLong({});
        }
    }
}

TEST_F(LongPaths, SourceWithoutRoomForStreamsHasNoneToOpen) {
    prepareDeep(kEaDirectory, kNative, {}, kNoStreams, 0);
    EXPECT_FAILS(copy(), 0x0900);
    const std::string paths = "[" + from.path() + "]->[" + to.path() + "]";
    ASSERT_EQ(2u, reports().size()) << kit::Log::all();
    EXPECT_EQ("[0x0900]Failed to cp " + paths + ". File name too long", reports()[0]);
}

TEST_F(LongPaths, FinderInfoThatCannotBeWrittenBackFails) {
    prepareDeep(kFileEa, kEaDirectory, {}, kNoStreams, 0);
    kit::setAttribute(from.path(), "user.netatalk.Metadata", metadataBytes(kit::pattern(32)));
    expectTooLong({"[0xC300]Failed file sync [" + from.path() + "]->[" + to.path() + "]. File name too long"});
}

TEST_F(LongPaths, ResourceOfAMovedNativeSourceCannotBeLookedFor) {
    prepareDeep(kNative, kNative, {}, kNoStreams, 0);
    expectTooLong({"[0xC300]Failed to remove [" + from.path() + "]->[" + to.path() + "]. File name too long"}, true);
}

TEST_F(LongPaths, DestinationWithoutRoomForStreamsFails) {
    prepareDeep(kAppleDouble, kEaDirectory, some(), 0, kNoStreams);
    expectTooLong({"Fail to generate path.[0xC300]"});
    prepareDeep(kEaDirectory, kEaDirectory, some(), 0, kNoStreams);
    expectTooLong({}, true);
    EXPECT_EQ(some(), read(from, kEaDirectory));
    prepareDeep(kEaDirectory, kFileEa, some(), 0, kNoStreams);
    expectTooLong({"Fail to generate path of " + to.path() + "."}, true);
    EXPECT_EQ(some(), read(from, kEaDirectory));
    prepareDeep(kAppleDouble, kFileEa, {}, 0, kNoStreams);
    expectTooLong({});
}

TEST_F(LongPaths, DestinationWithoutRoomForTheDirectoryFails) {
    for (const int fromKind : {kAppleDouble, kEaDirectory}) {
        prepareDeep(fromKind, kEaDirectory, some(), 0, kNoDirectory);
        expectTooLong({"Failed to get EA path of " + to.path() + ".\n"});
    }
}

TEST_F(LongPaths, SourceWithoutRoomForTheDirectoryFailsInTheLastStage) {
    prepareDeep(kNative, kNative, {}, kNoDirectory, 0);
    EXPECT_FAILS(copy(), 0xC300);
    EXPECT_EQ(std::vector<std::string>{}, reports());
}

TEST_F(LongPaths, OwnDirectoryWithoutAPlaceIsDroppedByAMove) {
    const Items extras{"", "", {}, some().extras, false};
    for (const bool move : {false, true}) {
        prepareDeep(kNative, kNative, extras, 0, kNoDirectory);
        EXPECT_FAILS(copy(move), 0xC300);
        EXPECT_EQ(std::vector<std::string>{"Failed to get EA path of " + to.path() + ".\n"}, reports());
        EXPECT_EQ(!move, kit::exists(from.own())) << move;
    }
}

TEST_F(LongPaths, EntryWithoutRoomForItsNameStays) {
    const std::string entry(100, 'n');
    for (const bool atSource : {true, false}) {
        prepareDeep(kNative, kNative, {"", "", {}, some().extras, false}, atSource ? 4000 : 0, atSource ? 0 : 4000);
        const int directory = ::open(from.own().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(::openat(directory, entry.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        EXPECT_EQ(0, copy(true));
        ASSERT_EQ(1u, reports().size()) << kit::Log::all();
        EXPECT_TRUE(reports()[0].starts_with("Failed to cp -f " + from.own() + "/nnn")) << reports()[0];
        EXPECT_TRUE(reports()[0].ends_with(". File name too long")) << reports()[0];
        EXPECT_EQ(std::vector<std::string>{entry}, kit::namesIn(from.own()));
        EXPECT_EQ(some().extras, read(to, kNative).extras);
        ::unlinkat(directory, entry.c_str(), 0);
        ::close(directory);
    }
}

// Below such a folder nothing is converted, so that the removal of what would have been comes first.
TEST_F(LongPaths, DestinationWhoseDirectoryHasNoPathFails) {
    prepare(kEaDirectory, kEaDirectory);
    const std::string path(kNoPath, '/');
    EXPECT_FAILS(VEXOEACopy(from.path().c_str(), (path + "f").c_str(), 0, 0, kEaDirectory, -1, 0, 0), 0xC300);
    EXPECT_EQ(std::vector<std::string>{}, reports());
}

TEST_F(LongPaths, MemoryForALongPathMayRunOut) {
    const std::string longPath = std::string(kNoPath, 'd') + "/f";
    const std::string other = scratch / "f";
    struct Row {
        int fromKind, toKind;
        bool longSource;
        std::vector<std::string> lines;
    };
    for (const Row &row : {Row{kAppleDouble, kAppleDouble, true, {}},
                           Row{kAppleDouble, kEaDirectory, true, {"Fail to generate path.[0x0200]"}},
                           Row{kEaDirectory, kAppleDouble, false, {}}}) {
        const std::string &src = row.longSource ? longPath : other;
        const std::string &dst = row.longSource ? other : longPath;
        kit::Log::reset();
        kit::Faults::onlyAllocationsFrom(kNoPath);
        if (!kit::Faults::failAllocation(1)) {
            GTEST_SKIP() << "the sanitizer has the allocator";
        }
        EXPECT_FAILS(VEXOEACopy(src.c_str(), dst.c_str(), 0, 0, row.fromKind, row.toKind, 0, 0), 0x0200);
        kit::Faults::reset();
        std::vector<std::string> lines = reports();
        ASSERT_EQ(row.lines.size() + 1, lines.size()) << kit::Log::all();
        EXPECT_TRUE(lines.back().starts_with("[0x0200]EACopy fail: from [")) << lines.back();
        lines.pop_back();
        EXPECT_EQ(row.lines, lines);
    }
}

} // namespace
