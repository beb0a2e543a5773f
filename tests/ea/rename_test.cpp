// Moving what belongs to a file after the file was renamed.
#include "ea/ea.h"

#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <sys/stat.h>
#include <syslog.h>

namespace {

using item_store::kEaDirectory;
using item_store::kFat;
constexpr int kUnknownKind = 99;

class EaRename : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        ::mkdir((scratch / "from").c_str(), 0755);
        ::mkdir((scratch / "to").c_str(), 0755);
        oldPath = scratch / "from/a.txt";
        newPath = scratch / "to/b.txt";
        kit::writeFile(newPath, "data"); // the caller has renamed it already
    }
    void makeStore(const std::string &directory, const std::string &base) {
        ::mkdir((scratch / (directory + "/@eaDir")).c_str(), 0777);
        kit::writeFile(scratch / (directory + "/@eaDir/" + base + "@VexoResource"), "resource");
        kit::writeFile(scratch / (directory + "/@eaDir/" + base + "@VexoEAStream"), "attributes");
        ::mkdir((scratch / (directory + "/@eaDir/" + base)).c_str(), 0777);
        kit::writeFile(scratch / (directory + "/@eaDir/" + base + "/thumb.jpg"), "picture");
    }
    int rename(int kind) { return VEXOEARename(oldPath.c_str(), newPath.c_str(), kind, 0); }

    std::string oldPath;
    std::string newPath;
};

TEST_F(EaRename, NullPathIsRefused) {
    EXPECT_FAILS(VEXOEARename(nullptr, newPath.c_str(), 1, 0), 0x0D00);
    EXPECT_FAILS(VEXOEARename(oldPath.c_str(), nullptr, 1, 0), 0x0D00);
    EXPECT_FAILS(VEXOEARenameByStream(nullptr, newPath.c_str(), 1, "VexoResource"), 0x0D00);
    EXPECT_FAILS(VEXOEARenameByStream(oldPath.c_str(), nullptr, 1, "VexoResource"), 0x0D00);
    EXPECT_STREQ("ea/ea_rename.c", VLIBCErrorGetFile());
}

TEST_F(EaRename, NoStoreIsASuccessAndSetsTheArchiveBit) {
    for (const int kind : {1, 2, 3, 6, 7, 10, 19, 22}) {
        kit::Faults::reset();
        kit::Faults::failAlways("VLIBCKernelAttrCall", 0); // counted, goes through
        EXPECT_EQ(0, rename(kind)) << kind;
        EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrCall")) << kind;
    }
    EXPECT_FALSE(kit::exists(scratch / "to/@eaDir"));
}

TEST_F(EaRename, AllThreeItemsMoveAndTheEmptyDirectoryGoes) {
    KIT_NEEDS_TO_MAKE_STORES();
    for (const int kind : {1, 2, 3, 6, 7, 10, 19, 22}) {
        makeStore("from", "a.txt");
        EXPECT_EQ(0, rename(kind)) << kind;
        EXPECT_FALSE(kit::exists(scratch / "from/@eaDir")) << kind;
        EXPECT_EQ("resource", kit::readFile(scratch / "to/@eaDir/b.txt@VexoResource"));
        EXPECT_EQ("attributes", kit::readFile(scratch / "to/@eaDir/b.txt@VexoEAStream"));
        EXPECT_EQ("picture", kit::readFile(scratch / "to/@eaDir/b.txt/thumb.jpg"));
        EXPECT_EQ(0777u, kit::statOf(scratch / "to/@eaDir").st_mode & 07777u);
        ASSERT_EQ(0, std::system(("rm -rf '" + (scratch / "to/@eaDir") + "'").c_str()));
    }
}

TEST_F(EaRename, DirectoryWithOtherFilesStoresStays) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::writeFile(scratch / "from/@eaDir/other@VexoEAStream", "x");
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ(std::vector<std::string>{"other@VexoEAStream"}, kit::namesIn(scratch / "from/@eaDir"));
}

TEST_F(EaRename, KindIsAskedOfTheNewPath) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::PlatformDouble::setType(newPath, kEaDirectory);
    EXPECT_EQ(0, rename(-1));
    EXPECT_TRUE(kit::exists(scratch / "to/@eaDir/b.txt@VexoResource"));
}

TEST_F(EaRename, KindThatCannotBeToldFails) {
    kit::Faults::failAlways("VEXOGetFSType", ENOENT);
    EXPECT_EQ(-1, rename(-1));
    EXPECT_EQ(-1, VEXOEARenameByStream(oldPath.c_str(), newPath.c_str(), -1, "VexoResource"));
    EXPECT_EQ(2, kit::Log::count(LOG_ERR, "Fail to detect FileSystem type. Need ABSOLUTE PATH.")) << kit::Log::all();
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrCall"));
}

TEST_F(EaRename, OtherKindsHaveNothingToMove) {
    makeStore("from", "a.txt");
    for (const int kind : {4, 8, 9, 11, 12, 17, 20, 21, 23, kUnknownKind, -5}) {
        EXPECT_EQ(0, rename(kind)) << kind;
    }
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrCall"));
    EXPECT_TRUE(kit::exists(scratch / "from/@eaDir/a.txt@VexoResource"));
}

TEST_F(EaRename, StaleDirectoryAtTheNewNameIsReplaced) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    ::mkdir((scratch / "to/@eaDir").c_str(), 0777);
    ::mkdir((scratch / "to/@eaDir/b.txt").c_str(), 0777);
    kit::writeFile(scratch / "to/@eaDir/b.txt/stale", "old");
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ(std::vector<std::string>{"thumb.jpg"}, kit::namesIn(scratch / "to/@eaDir/b.txt"));
}

TEST_F(EaRename, StaleDirectoryThatCannotGoFailsOnlyItsItem) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    ::mkdir((scratch / "to/@eaDir").c_str(), 0777);
    ::mkdir((scratch / "to/@eaDir/b.txt").c_str(), 0777);
    kit::Faults::add({.function = "rename", .error = EPERM, .path = "from/@eaDir/a.txt", .skip = 2, .times = 0});
    EXPECT_EQ(-1, rename(kEaDirectory));
    EXPECT_EQ(0x2800u, VLIBCErrGet());
    EXPECT_TRUE(kit::exists(scratch / "to/@eaDir/b.txt@VexoEAStream"));
    EXPECT_TRUE(kit::exists(scratch / "from/@eaDir/a.txt/thumb.jpg"));
}

TEST_F(EaRename, EachFailedItemCounts) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::Faults::failAlways("rename", EACCES);
    EXPECT_EQ(-3, rename(kEaDirectory));
    EXPECT_EQ(0x2800u, VLIBCErrGet());
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(3u, kit::namesIn(scratch / "from/@eaDir").size());
}

TEST_F(EaRename, ItemThatVanishesMeanwhileIsNoFailure) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::Faults::failAlways("rename", ENOENT);
    EXPECT_EQ(0, rename(kEaDirectory));
}

TEST_F(EaRename, FailedArchiveBitIsOnlyADebugLine) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::Faults::failAlways("VLIBCKernelAttrCall", ENOSYS);
    errno = 0;
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, "Failed to set smb archive " + newPath)) << kit::Log::all();
}

TEST_F(EaRename, DirectoryThatCannotBeMadeKeepsTheItems) {
    makeStore("from", "a.txt");
    kit::Faults::failAlways("mkdir", EROFS, "to/@eaDir");
    EXPECT_EQ(-3, rename(kEaDirectory));
    EXPECT_EQ("attributes", kit::readFile(scratch / "from/@eaDir/a.txt@VexoEAStream"));
}

// Who may not become root cannot make an "@eaDir", but can use the one that is there.
TEST_F(EaRename, DirectoryThatIsThereNeedNotBeMade) {
    makeStore("from", "a.txt");
    ASSERT_EQ(0, ::mkdir((scratch / "to/@eaDir").c_str(), 0777));
    kit::Faults::failAlways("mkdir", EPERM, "@eaDir");
    EXPECT_EQ(0, rename(kEaDirectory)) << kit::Log::all();
    EXPECT_EQ("attributes", kit::readFile(scratch / "to/@eaDir/b.txt@VexoEAStream"));
}

TEST_F(EaRename, AcrossDevicesTheItemsAreMovedByMv) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    makeStore("from", "a.txt");
    newPath = volume / "b.txt";
    kit::writeFile(newPath, "data");
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ("resource", kit::readFile(volume / "@eaDir/b.txt@VexoResource"));
    EXPECT_EQ("attributes", kit::readFile(volume / "@eaDir/b.txt@VexoEAStream"));
    EXPECT_EQ("picture", kit::readFile(volume / "@eaDir/b.txt/thumb.jpg"));
    EXPECT_FALSE(kit::exists(scratch / "from/@eaDir"));
}

TEST_F(EaRename, FailingMvKeepsTheItemsAndErrno) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::Faults::failAlways("rename", EXDEV);
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .answers = true});
    EXPECT_EQ(-1, VEXOEARenameByStream(oldPath.c_str(), newPath.c_str(), kEaDirectory, "VexoResource"));
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(0x2800u, VLIBCErrGet());
    EXPECT_EQ("resource", kit::readFile(scratch / "from/@eaDir/a.txt@VexoResource"));
}

// What rename() refuses on one volume "mv" would make something else of.
TEST_F(EaRename, AcrossDevicesADirectoryInTheWayStaysEmpty) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    makeStore("from", "a.txt");
    ::mkdir((scratch / "outside").c_str(), 0777);
    newPath = volume / "b.txt";
    kit::writeFile(newPath, "data");
    ::mkdir((volume / "@eaDir").c_str(), 0777);
    ::mkdir((volume / "@eaDir/b.txt@VexoResource").c_str(), 0777);
    ASSERT_EQ(0, ::symlink((scratch / "outside").c_str(), (volume / "@eaDir/b.txt@VexoEAStream").c_str()));
    EXPECT_EQ(-2, rename(kEaDirectory));
    EXPECT_EQ(0x2800u, VLIBCErrGet());
    EXPECT_TRUE(kit::namesIn(volume / "@eaDir/b.txt@VexoResource").empty());
    EXPECT_TRUE(kit::namesIn(scratch / "outside").empty());
    EXPECT_EQ("resource", kit::readFile(scratch / "from/@eaDir/a.txt@VexoResource"));
    EXPECT_EQ("attributes", kit::readFile(scratch / "from/@eaDir/a.txt@VexoEAStream"));
    EXPECT_EQ("picture", kit::readFile(volume / "@eaDir/b.txt/thumb.jpg")) << "the others go";
}

TEST_F(EaRename, AppleDoubleFileMovesWithItsDirectory) {
    KIT_NEEDS_TO_MAKE_STORES();
    for (const int kind : {0, 5, 18}) {
        makeStore("from", "a.txt");
        kit::writeFile(scratch / "from/._a.txt", "apple");
        EXPECT_EQ(0, rename(kind)) << kind;
        EXPECT_EQ("apple", kit::readFile(scratch / "to/._b.txt"));
        EXPECT_EQ("picture", kit::readFile(scratch / "to/@eaDir/b.txt/thumb.jpg"));
        EXPECT_TRUE(kit::exists(scratch / "from/@eaDir/a.txt@VexoResource")) << "streams are not this kind's";
        ASSERT_EQ(0, std::system(("rm -rf '" + (scratch / "to/@eaDir") + "'").c_str()));
    }
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrCall"));
}

TEST_F(EaRename, WithoutAppleDoubleFileItsDirectoryStays) {
    makeStore("from", "a.txt");
    EXPECT_EQ(0, rename(kFat));
    EXPECT_TRUE(kit::exists(scratch / "from/@eaDir/a.txt/thumb.jpg"));
}

TEST_F(EaRename, AppleDoubleFileInTheWayIsReplaced) {
    kit::writeFile(scratch / "from/._a.txt", "apple");
    kit::writeFile(scratch / "to/._b.txt", "stale");
    EXPECT_EQ(0, rename(kFat));
    EXPECT_EQ("apple", kit::readFile(scratch / "to/._b.txt"));
    EXPECT_FALSE(kit::exists(scratch / "from/._a.txt"));
}

TEST_F(EaRename, AppleDoubleFileInTheWayThatCannotGoKeepsBoth) {
    kit::writeFile(scratch / "from/._a.txt", "apple");
    ::mkdir((scratch / "to/._b.txt").c_str(), 0777);
    kit::writeFile(scratch / "to/._b.txt/inside", "x");
    EXPECT_EQ(0, rename(kFat));
    EXPECT_EQ("apple", kit::readFile(scratch / "from/._a.txt"));
    EXPECT_TRUE(kit::exists(scratch / "to/._b.txt/inside"));
}

TEST_F(EaRename, AppleDoubleNameTooLongIsNoFailure) {
    const std::string name(254, 'n');
    EXPECT_EQ(0, VEXOEARename((scratch / ("from/" + name)).c_str(), newPath.c_str(), kFat, 0));
    kit::writeFile(scratch / "from/._a.txt", "apple");
    EXPECT_EQ(0, VEXOEARename(oldPath.c_str(), (scratch / ("to/" + name)).c_str(), kFat, 0));
    EXPECT_EQ("apple", kit::readFile(scratch / "from/._a.txt"));
}

TEST_F(EaRename, ByStreamMovesThatOneOnly) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    EXPECT_EQ(0, VEXOEARenameByStream(oldPath.c_str(), newPath.c_str(), kEaDirectory, "VexoEAStream"));
    EXPECT_EQ(std::vector<std::string>{"b.txt@VexoEAStream"}, kit::namesIn(scratch / "to/@eaDir"));
    EXPECT_EQ(2u, kit::namesIn(scratch / "from/@eaDir").size());
}

TEST_F(EaRename, ByStreamSetsTheArchiveBitForEveryKindAndKeepsTheMovesErrors) {
    kit::Faults::add({.function = "VLIBCKernelAttrCall", .error = EIO, .times = 0, .lastError = 0x0900});
    for (const int kind : {kFat, kEaDirectory, kUnknownKind}) {
        VLIBCErrSetEx(0x1234, "before", 1);
        errno = EDOM;
        EXPECT_EQ(0, VEXOEARenameByStream(oldPath.c_str(), newPath.c_str(), kind, "VexoEAStream"));
        EXPECT_EQ(0x1234u, VLIBCErrGet());
    }
    EXPECT_EQ(3, kit::Faults::count("VLIBCKernelAttrCall"));
    EXPECT_EQ(3, kit::Log::count(LOG_DEBUG, "Failed to set smb archive " + newPath)) << kit::Log::all();
}

TEST_F(EaRename, ByStreamWithoutANameIsRefused) {
    EXPECT_FAILS(VEXOEARenameByStream(oldPath.c_str(), newPath.c_str(), kEaDirectory, nullptr), 0x0D00);
    EXPECT_EQ(0, VEXOEARenameByStream(oldPath.c_str(), newPath.c_str(), kFat, nullptr));
}

TEST_F(EaRename, PathsWithoutRoomForTheItemsFail) {
    const std::string noStreams = kit::makeDeepDirectory(scratch / "from", 4078) + "/f";
    const std::string noDirectory = noStreams + std::string(9, 'x');
    for (const auto &[first, second] : {std::pair{noDirectory, newPath}, {oldPath, noDirectory}}) {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(-3, VEXOEARename(first.c_str(), second.c_str(), kEaDirectory, 0));
        EXPECT_EQ(0xC300u, VLIBCErrGet());
        EXPECT_EQ(-1, VEXOEARenameByStream(first.c_str(), second.c_str(), kEaDirectory, "VexoEAStream"));
    }
    EXPECT_EQ(-2, VEXOEARename(noStreams.c_str(), newPath.c_str(), kEaDirectory, 0)) << "the directory has room";
    EXPECT_EQ(0xC300u, VLIBCErrGet());
}

TEST_F(EaRename, StaleDirectoryThatCannotGoKeepsTheOldOne) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    makeStore("to", "b.txt");
    kit::Faults::fail("remove", EBUSY, "to/@eaDir/b.txt/thumb.jpg");
    EXPECT_EQ(-1, rename(kEaDirectory));
    EXPECT_EQ(std::vector<std::string>{"a.txt"}, kit::namesIn(scratch / "from/@eaDir")) << "the streams have moved";
    EXPECT_EQ("picture", kit::readFile(scratch / "from/@eaDir/a.txt/thumb.jpg"));
}

TEST_F(EaRename, ItemsBelowAFileAreMissing) {
    kit::writeFile(scratch / "from/@eaDir", "a file");
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ("a file", kit::readFile(scratch / "from/@eaDir"));
}

TEST_F(EaRename, ItemsThatCannotBeLookedAtAreTried) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::Faults::failAlways("lstat", EACCES, "from/@eaDir");
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ(3u, kit::namesIn(scratch / "to/@eaDir").size());
}

TEST_F(EaRename, ToItsOwnNameMovesNothing) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeStore("from", "a.txt");
    kit::writeFile(scratch / "from/._a.txt", "apple");
    for (const int kind : {kEaDirectory, kFat}) {
        EXPECT_EQ(0, VEXOEARename(oldPath.c_str(), oldPath.c_str(), kind, 0)) << kind;
    }
    EXPECT_EQ(3u, kit::namesIn(scratch / "from/@eaDir").size());
    EXPECT_EQ("picture", kit::readFile(scratch / "from/@eaDir/a.txt/thumb.jpg"));
    EXPECT_EQ("apple", kit::readFile(scratch / "from/._a.txt"));
}

TEST_F(EaRename, AppleDoubleFileThatCannotMoveKeepsItsDirectory) {
    makeStore("from", "a.txt");
    kit::writeFile(scratch / "from/._a.txt", "apple");
    kit::Faults::fail("rename", EIO, "from/._a.txt");
    EXPECT_EQ(0, rename(kFat));
    EXPECT_EQ("apple", kit::readFile(scratch / "from/._a.txt"));
    EXPECT_EQ("picture", kit::readFile(scratch / "from/@eaDir/a.txt/thumb.jpg"));
}

TEST_F(EaRename, NameWithALineFeedMoves) {
    KIT_NEEDS_TO_MAKE_STORES();
    oldPath = scratch / "from/a\nb";
    makeStore("from", "a\nb");
    EXPECT_EQ(0, rename(kEaDirectory));
    EXPECT_EQ(3u, kit::namesIn(scratch / "to/@eaDir").size());
}

} // namespace
