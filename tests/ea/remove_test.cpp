// Removing what belongs to a file.
#include "ea/ea.h"

#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using item_store::kEaDirectory;
using item_store::kFat;
using item_store::kNative;

class EaRemove : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        path = scratch / "a.txt";
        kit::writeFile(path, "data");
    }
    void makeStore() {
        ::mkdir((scratch / "@eaDir").c_str(), 0777);
        kit::writeFile(scratch / "@eaDir/a.txt@VexoResource", "resource");
        kit::writeFile(scratch / "@eaDir/a.txt@VexoEAStream", "attributes");
        ::mkdir((scratch / "@eaDir/a.txt").c_str(), 0777);
        ::mkdir((scratch / "@eaDir/a.txt/deep").c_str(), 0777);
        kit::writeFile(scratch / "@eaDir/a.txt/deep/thumb.jpg", "picture");
    }
    std::string path;
};

TEST_F(EaRemove, NullPathIsRefused) {
    EXPECT_FAILS(VEXOEARemove(nullptr, 1), 0x0D00);
    EXPECT_STREQ("ea/ea_remove.c", VLIBCErrorGetFile());
    EXPECT_FAILS(VEXOEARemoveWithoutEAStream(nullptr, 1), 0x0D00);
    EXPECT_FAILS(EARemove(1, nullptr), 0x0D00);
    EXPECT_EQ(-1, EARemoveEADir(nullptr));
    VEXOEARemoveDanglingEADir(nullptr);
}

TEST_F(EaRemove, StreamKindsLoseEverything) {
    for (const int kind : {1, 2, 3, 6, 10, 19, 22}) {
        makeStore();
        EXPECT_EQ(0, VEXOEARemove(path.c_str(), kind)) << kind;
        EXPECT_EQ(std::vector<std::string>{"a.txt"}, kit::namesIn(scratch.path())) << kind;
    }
}

TEST_F(EaRemove, NativeAndOtherKindsAreLeftAlone) {
    makeStore();
    for (const int kind : {kNative, 4, 8, 12, 23, -7}) {
        EXPECT_EQ(0, VEXOEARemove(path.c_str(), kind)) << kind;
    }
    EXPECT_EQ(3u, kit::namesIn(scratch / "@eaDir").size());
}

TEST_F(EaRemove, KindIsAskedOfTheParent) {
    makeStore();
    kit::PlatformDouble::setType(scratch.path(), kEaDirectory);
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOEARemove(path.c_str(), -1));
    EXPECT_EQ(std::vector<std::string>{"a.txt"}, kit::namesIn(scratch.path()));
    EXPECT_EQ("VEXOGetFSType(" + scratch.path() + ")", kit::Faults::recorded().front());
}

TEST_F(EaRemove, ParentOfATopLevelPathIsTheRoot) {
    kit::PlatformDouble::setType("/", kFat);
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOEARemove("/vexofileop-no-such-file", -1));
    EXPECT_EQ("VEXOGetFSType(/)", kit::Faults::recorded().front());
}

TEST_F(EaRemove, RelativePathAsksForItselfOrTheWorkingDirectory) {
    processMayChange();
    ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
    kit::PlatformDouble::setType("a.txt", 12);
    kit::PlatformDouble::setType(scratch.path(), 12);
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOEARemove("a.txt", -1));
    EXPECT_EQ(0, VEXOEARemove("gone.txt", -1));
    std::vector<std::string> asked;
    for (const std::string &call : kit::Faults::recorded()) {
        if (call.starts_with("VEXOGetFSType")) {
            asked.push_back(call);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"VEXOGetFSType(a.txt)", "VEXOGetFSType(" + scratch.path() + ")"}), asked);
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(EaRemove, KindThatCannotBeToldFails) {
    kit::Faults::failAlways("VEXOGetFSType", EIO);
    EXPECT_FAILS(VEXOEARemove(path.c_str(), -1), 0x2A00);
}

TEST_F(EaRemove, WorkingDirectoryThatCannotBeToldFails) {
    kit::Faults::fail("getcwd", EACCES);
    EXPECT_EQ(-1, VEXOEARemove("vexofileop-no-such-file", -1));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to getcwd. Permission denied")) << kit::Log::all();
    EXPECT_EQ("ea/ea_remove.c", kit::Log::lines()[0].source);
}

TEST_F(EaRemove, ParentWithoutAPathFails) {
    EXPECT_FAILS(VEXOEARemove((std::string(5000, 'd') + "/f").c_str(), -1), 0xC300);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(EaRemove, PathWithoutRoomForTheStreamsFails) {
    const std::string directory = kit::makeDeepDirectory(scratch.path(), 4078);
    ASSERT_EQ(0, ::mkdir((directory + "/@eaDir").c_str(), 0777));
    for (const auto remove : {VEXOEARemove, VEXOEARemoveWithoutEAStream}) {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(remove((directory + "/f").c_str(), kEaDirectory), 0xC300);
        EXPECT_STREQ("ea/ea_remove.c", VLIBCErrorGetFile());
        EXPECT_EQ(ENAMETOOLONG, errno);
    }
    EXPECT_TRUE(kit::exists(directory + "/@eaDir"));
}

TEST_F(EaRemove, MemoryForAnAppleDoublePathMayRunOut) {
    path = std::string(5000, 'd') + "/f";
    kit::Faults::onlyAllocationsFrom(5000);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "the sanitizer has the allocator";
    }
    EXPECT_FAILS(VEXOEARemove(path.c_str(), kFat), 0x0200);
}

TEST_F(EaRemove, EaDirectoryItselfIsNotCleanedUp) {
    for (const std::string &place : {scratch / "@eaDir", std::string("@eaDir")}) {
        processMayChange();
        ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
        ::mkdir((scratch / "@eaDir").c_str(), 0777);
        EXPECT_EQ(0, EARemove(1, place.c_str()));
        EXPECT_TRUE(kit::exists(scratch / "@eaDir")) << place;
    }
    EXPECT_EQ(0, EARemove(1, "other")) << "that of a file beside it is";
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(EaRemove, AppleDoubleFileGoesWithItsDirectory) {
    for (const int kind : {0, 5, 18}) {
        makeStore();
        kit::writeFile(scratch / "._a.txt", "apple");
        EXPECT_EQ(0, VEXOEARemove(path.c_str(), kind)) << kind;
        EXPECT_FALSE(kit::exists(scratch / "._a.txt"));
        EXPECT_FALSE(kit::exists(scratch / "@eaDir/a.txt"));
        EXPECT_TRUE(kit::exists(scratch / "@eaDir/a.txt@VexoResource")) << "streams are not this kind's";
    }
}

TEST_F(EaRemove, AppleDoubleFileThatCannotGoFails) {
    ::mkdir((scratch / "._a.txt").c_str(), 0777);
    EXPECT_FAILS(VEXOEARemove(path.c_str(), kFat), 0x3900);
}

TEST_F(EaRemove, AppleDoubleNameTooLongIsNoFailure) {
    EXPECT_EQ(0, VEXOEARemove((scratch / std::string(254, 'n')).c_str(), kFat));
}

TEST_F(EaRemove, FailingStreamsStillLoseTheDirectory) {
    makeStore();
    kit::Faults::failAlways("unlink", EBUSY, "@VexoResource");
    EXPECT_FAILS(VEXOEARemove(path.c_str(), kEaDirectory), 0x3900);
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/a.txt"));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/a.txt@VexoEAStream")) << "the second goes whatever became of the first";
    EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrCall"));
}

TEST_F(EaRemove, FailingDirectoryStillLosesTheStreams) {
    makeStore();
    kit::Faults::failAlways("remove", EBUSY, "thumb.jpg");
    EXPECT_EQ(-1, VEXOEARemove(path.c_str(), kEaDirectory));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/a.txt@VexoResource"));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/a.txt@VexoEAStream"));
    const std::string directory = scratch / "@eaDir/a.txt";
    EXPECT_EQ(
        1, kit::Log::count(LOG_ERR, "Fail to remove (" + directory + "/deep/thumb.jpg) (16)(Device or resource busy)"))
        << kit::Log::all();
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Failed to rm -rf " + directory + ". Device or resource busy"))
        << kit::Log::all();
}

TEST_F(EaRemove, DirectoryThatCannotGoHasACode) {
    makeStore();
    kit::Faults::failAlways("remove", EBUSY, "thumb.jpg");
    EXPECT_FAILS(EARemove(0, path.c_str()), 0x3900);
    EXPECT_EQ(EBUSY, errno);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOEARemove(path.c_str(), kEaDirectory), 0x3900);
}

TEST_F(EaRemove, StoreThatCannotBeLookedAtIsNotAbsent) {
    for (const int number : {EACCES, EIO}) {
        makeStore();
        kit::Faults::failAlways("lstat", number, "@eaDir");
        for (const int which : {0, 1}) {
            VLIBCErrSetEx(0, "", 0);
            EXPECT_FAILS(EARemove(which, path.c_str()), 0x3900);
            EXPECT_EQ(number, errno);
        }
        kit::Faults::reset();
        EXPECT_EQ(3u, kit::namesIn(scratch / "@eaDir").size());
    }
    kit::Faults::failAlways("lstat", ENOTDIR, "@eaDir");
    EXPECT_EQ(0, EARemove(0, path.c_str()));
}

TEST_F(EaRemove, StreamNameTooLongHasItsOwnCode) {
    makeStore();
    kit::Faults::failAlways("unlink", ENAMETOOLONG, "@VexoEAStream");
    EXPECT_FAILS(EARemove(1, path.c_str()), 0xC300);
}

TEST_F(EaRemove, VanishedStreamsAreNoFailure) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    EXPECT_EQ(0, EARemove(1, path.c_str()));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
    kit::Faults::failAlways("unlink", ENOTDIR);
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    EXPECT_EQ(0, EARemove(1, path.c_str()));
}

TEST_F(EaRemove, MissingStoreIsNoFailure) {
    EXPECT_EQ(0, EARemove(0, path.c_str()));
    EXPECT_EQ(0, EARemove(1, path.c_str()));
}

TEST_F(EaRemove, DirectoryAloneLeavesTheEaDirectoryBehind) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    ::mkdir((scratch / "@eaDir/a.txt").c_str(), 0777);
    EXPECT_EQ(0, EARemove(0, path.c_str()));
    EXPECT_EQ((std::vector<std::string>{"@eaDir", "a.txt"}), kit::namesIn(scratch.path()));
}

TEST_F(EaRemove, CleanUpLeavesErrnoAlone) {
    makeStore();
    kit::writeFile(scratch / "@eaDir/other", "keeps the directory");
    errno = EDOM;
    EXPECT_EQ(0, EARemove(1, path.c_str()));
    EXPECT_EQ(EDOM, errno);
}

TEST_F(EaRemove, WithoutEaStreamKeepsIt) {
    makeStore();
    EXPECT_EQ(0, VEXOEARemoveWithoutEAStream(path.c_str(), kEaDirectory));
    EXPECT_EQ(std::vector<std::string>{"a.txt@VexoEAStream"}, kit::namesIn(scratch / "@eaDir"));
    EXPECT_EQ(0, VEXOEARemove(path.c_str(), kEaDirectory)) << "the next removal takes it again";
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
}

TEST_F(EaRemove, WithoutEaStreamFailsWhenTheResourceStays) {
    makeStore();
    kit::Faults::failAlways("unlink", EACCES, "@VexoResource");
    EXPECT_FAILS(VEXOEARemoveWithoutEAStream(path.c_str(), kEaDirectory), 0x3900);
    EXPECT_TRUE(kit::exists(scratch / "@eaDir/a.txt@VexoEAStream"));
}

TEST_F(EaRemove, ArchiveBitFailureIsOnlyADebugLine) {
    kit::Faults::failAlways("VLIBCKernelAttrCall", ENOSYS);
    EXPECT_EQ(0, VEXOEARemove(path.c_str(), kEaDirectory));
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, std::string("Failed to set smb archive: ") + std::strerror(ENOSYS)))
        << kit::Log::all();
}

TEST_F(EaRemove, SymbolicLinksInTheDirectoryAreNotFollowed) {
    makeStore();
    ::mkdir((scratch / "precious").c_str(), 0755);
    kit::writeFile(scratch / "precious/only.txt", "only copy");
    ASSERT_EQ(0, ::symlink((scratch / "precious").c_str(), (scratch / "@eaDir/a.txt/link").c_str()));
    EXPECT_EQ(0, VEXOEARemove(path.c_str(), kEaDirectory));
    EXPECT_EQ("only copy", kit::readFile(scratch / "precious/only.txt"));
}

class EaDirectory : public kit::Behaviour {};

TEST_F(EaDirectory, CoverAloneDoesNotKeepIt) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    kit::writeFile(scratch / "@eaDir/.cover", "");
    EXPECT_EQ(0, EARemoveEADir((scratch / "@eaDir/a@VexoResource").c_str()));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
}

TEST_F(EaDirectory, CoverThatIsNoRegularFileKeepsIt) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    ::mkdir((scratch / "@eaDir/.cover").c_str(), 0777);
    EXPECT_EQ(-1, EARemoveEADir((scratch / "@eaDir").c_str()));
    EXPECT_TRUE(kit::exists(scratch / "@eaDir/.cover"));
}

TEST_F(EaDirectory, AnythingElseKeepsItAndItsCover) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    kit::writeFile(scratch / "@eaDir/.cover", "");
    kit::writeFile(scratch / "@eaDir/a@VexoResource", "");
    EXPECT_EQ(-1, EARemoveEADir((scratch / "@eaDir").c_str()));
    EXPECT_EQ(2u, kit::namesIn(scratch / "@eaDir").size());
}

TEST_F(EaDirectory, AbsentIsASuccess) {
    EXPECT_EQ(0, EARemoveEADir((scratch / "@eaDir/x").c_str()));
}

TEST_F(EaDirectory, PathWithoutOneIsRefused) {
    EXPECT_EQ(-1, EARemoveEADir((scratch / "plain").c_str()));
}

TEST_F(EaDirectory, ThatCannotBeReadIsKept) {
    kit::writeFile(scratch / "@eaDir", "a file");
    EXPECT_EQ(-1, EARemoveEADir((scratch / "@eaDir").c_str()));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Failed to opendir " + (scratch / "@eaDir") + ", reason=Not a directory.\n"))
        << kit::Log::all();
    EXPECT_TRUE(kit::exists(scratch / "@eaDir"));
}

TEST_F(EaDirectory, DanglingOneGoesWithEverythingInIt) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    kit::writeFile(scratch / "@eaDir/left", "x");
    VEXOEARemoveDanglingEADir(scratch.path().c_str());
    EXPECT_TRUE(kit::namesIn(scratch.path()).empty());
}

TEST_F(EaDirectory, DanglingCleanUpKeepsAnUsedDirectory) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    kit::writeFile(scratch / "@eaDir/left", "x");
    kit::writeFile(scratch / "file", "x");
    VEXOEARemoveDanglingEADir(scratch.path().c_str());
    EXPECT_TRUE(kit::exists(scratch / "@eaDir/left"));
}

TEST_F(EaDirectory, DanglingCleanUpKeepsADirectoryThatCannotBeReadToItsEnd) {
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    kit::writeFile(scratch / "@eaDir/file@VexoEAStream", "of a file not seen");
    kit::Faults::fail("readdir", EIO, {}, 3);
    VEXOEARemoveDanglingEADir(scratch.path().c_str());
    EXPECT_EQ("of a file not seen", kit::readFile(scratch / "@eaDir/file@VexoEAStream"));
}

TEST_F(EaDirectory, DanglingCleanUpLeavesAnEmptyDirectoryAlone) {
    VEXOEARemoveDanglingEADir(scratch.path().c_str());
    EXPECT_TRUE(kit::exists(scratch.path()));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(EaDirectory, DanglingCleanUpWithoutMemoryDoesNothing) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    const std::string path = scratch.path() + std::string(3000, '/');
    kit::Faults::onlyAllocationsFrom(3000);
    if (!kit::Faults::failAllocation(2)) { // the first reads the directory
        GTEST_SKIP() << "the sanitizer has the allocator";
    }
    VEXOEARemoveDanglingEADir(path.c_str());
    kit::Faults::reset();
    EXPECT_TRUE(kit::exists(scratch / "@eaDir"));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(EaDirectory, CoverThatVanishesMeanwhileKeepsIt) {
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    kit::writeFile(scratch / "@eaDir/.cover", "");
    kit::Faults::fail("lstat", ENOENT, ".cover");
    EXPECT_EQ(-1, EARemoveEADir((scratch / "@eaDir").c_str()));
    EXPECT_TRUE(kit::exists(scratch / "@eaDir/.cover"));
}

TEST_F(EaDirectory, DanglingCleanUpOfAMissingDirectoryLogs) {
    VEXOEARemoveDanglingEADir((scratch / "none").c_str());
    EXPECT_EQ(
        1, kit::Log::count(LOG_ERR, "failed to opendir [" + (scratch / "none") + "], errno=No such file or directory"))
        << kit::Log::all();
}

} // namespace
