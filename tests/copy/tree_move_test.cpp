// Moving a directory: one rename where that is possible, else a copy that takes the source away behind it.
#include "tests/copy/tree_support.h"

namespace tree {
namespace {

class TreeMove : public BothFamilies {
  protected:
    void SetUp() override {
        BothFamilies::SetUp();
        request.move = true;
        KIT_NEEDS_TO_MAKE_STORES();
    }
    std::string removalOfStore(const std::string &directory) const { return "/bin/rm -rf " + directory + "/@eaDir"; }
};
INSTANTIATE_TEST_SUITE_P(, TreeMove, kFamilies, familyName);

TEST_P(TreeMove, InsideAVolumeIsOneRename) {
    putSample();
    putStore(from, "tree", "mine");
    const kit::Fingerprint before = kit::Fingerprint::of(request.src);
    std::vector<std::pair<std::string, std::string>> sized;
    callbacks.dirSize = [&](const std::string &one, const std::string &two) {
        sized.emplace_back(one, two);
        return 4711;
    };
    callbacks.isCancel = [] { return 1; };
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, callsOf("opendir", request.src));
    EXPECT_EQ(0, kit::Faults::count("VLIBGetFullDirSize"));
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.dst), {"accessed", "attributes"}));
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ((std::vector<Progress>{{4711, 0}}), callbacks.progress);
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{request.src, request.dst}}), sized);
    EXPECT_EQ("mine", storeOf(to, "copy"));
    EXPECT_EQ("(no store)", storeOf(from, "tree"));
}

TEST_P(TreeMove, SizeIsMeasuredWithoutTheCallback) {
    putFile("file", kit::pattern(5000));
    kit::Faults::add({.function = "VLIBGetFullDirSize", .result = 12345, .path = request.dst, .answers = true});
    EXPECT_EQ(0, copy());
    EXPECT_EQ((std::vector<Progress>{{12345, 0}}), callbacks.progress);
}

TEST_F(Scene, MoveWithoutMetadataLeavesTheStore) {
    putStore(from, "tree", "mine");
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kMove | kNoEa, nullptr));
    EXPECT_EQ("mine", storeOf(from, "tree"));
    EXPECT_EQ("(no store)", storeOf(to, "copy"));
}

// Only root makes an "@eaDir". Who can never become root moves a tree without the stores in it, and removes these.
TEST_P(TreeMove, UserWithoutAnyPrivilegeLosesTheStores) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    ASSERT_EQ(0, ::chmod(volume.path().c_str(), 0777));
    kit::PlatformDouble::setType(volume.path(), 1);
    request.dst = volume / "copy";
    request.keepOwner = true;
    putFile("file");
    putStore(request.src, "file", "belongs to the file");
    for (const std::string &path : {from, request.src, src("file"), src("@eaDir"), src("@eaDir/file@VexoEAStream")}) {
        ASSERT_EQ(0, ::chown(path.c_str(), kNobody, kNobody)) << path;
    }
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setresgid(kNobody, kNobody, kNobody));
        ASSERT_EQ(0, ::setresuid(kNobody, kNobody, kNobody));
        EXPECT_EQ(0, copy());
    }));
    EXPECT_TRUE(kit::exists(dst("file")));
    EXPECT_EQ("(no store)", storeOf(request.dst, "file"));
    EXPECT_FALSE(kit::exists(request.src));
}

TEST_P(TreeMove, RenameThatCannotBeBecomesACopy) {
    for (const int number : {EBUSY, EEXIST, EXDEV, ENOTEMPTY}) {
        SCOPED_TRACE(number);
        request.src = from + "/tree" + std::to_string(number);
        request.dst = to + "/copy" + std::to_string(number);
        makeDirectory(request.src);
        putSample();
        putStore(request.src, "a", "store of a");
        const kit::Fingerprint before = kit::Fingerprint::of(request.src, {"@eaDir"});
        kit::Faults::reset();
        if (number == EXDEV) {
            acrossVolumes();
        }
        kit::Faults::fail("rename", number, request.src); // of the top; what is below may go by rename
        kit::Faults::record(true);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(1, callsOf("VLIBCExec", removalOfStore(request.src)));
        EXPECT_EQ(number == EXDEV ? 1 : 0, callsOf("VLIBCExec", removalOfStore(src("sub/deep"))));
        kit::Faults::reset();
        EXPECT_FALSE(kit::exists(request.src));
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.dst, {"@eaDir"}),
                                          {"owner", "accessed", "modified", "created", "holes", "attributes"}));
        EXPECT_EQ("store of a", storeOf(request.dst, "a"));
        expectNotReported();
    }
}

TEST_P(TreeMove, RealVolumes) {
    KIT_REQUIRE(one, kit::Volume::tmpfs(16 << 20));
    KIT_REQUIRE(two, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    kit::PlatformDouble::setType(one.path(), 1);
    kit::PlatformDouble::setType(two.path(), 1);
    request.src = one / "tree";
    request.dst = two / "copy";
    makeDirectory(request.src);
    putSample();
    const kit::Fingerprint before = kit::Fingerprint::of(request.src);
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.dst),
                                      {"owner", "accessed", "modified", "created", "holes", "attributes"}));
}

TEST_P(TreeMove, RemoteSourcesKeepTheirStores) {
    kit::PlatformDouble::setType(from, 12);
    putFile("a");
    acrossVolumes();
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, callsOf("VLIBCExec", removalOfStore(request.src)));
}

TEST_P(TreeMove, OntoAnExistingDirectoryTheSourceStaysUnlessReplaced) {
    putFile("a");
    putStore(request.src, "stays", "store");
    makeDirectory(request.dst);
    kit::writeFile(dst("there"), "x");
    for (const int overwrite : {0, -1}) {
        request.overwrite = overwrite;
        EXPECT_EQ(0, copy());
        EXPECT_TRUE(kit::exists(request.src)) << overwrite;
        EXPECT_EQ("store", storeOf(request.src, "stays")) << overwrite;
        EXPECT_TRUE(kit::exists(dst("a")));
    }
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_TRUE(kit::exists(dst("there")));
}

TEST_F(Scene, FailBitOfTheFlagsWinsOverReplace) {
    putFile("a");
    makeDirectory(request.dst);
    kit::writeFile(dst("there"), "x");
    EXPECT_EQ(0,
              VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kMove | kFailIfExists | kReplace, nullptr));
    EXPECT_TRUE(kit::exists(request.src));
}

TEST_P(TreeMove, WhatFailsStaysWithItsStore) {
    putFile("a");
    putFile("b");
    putFile("c");
    putStore(request.src, "b", "store of b");
    acrossVolumes();
    kit::Faults::failAlways("open", EACCES, src("b"));
    EXPECT_EQ(0, copy());
    EXPECT_EQ(std::vector<std::string>({"@eaDir", "b"}), kit::namesIn(request.src));
    EXPECT_EQ("store of b", storeOf(request.src, "b"));
}

TEST_P(TreeMove, WhatAppearsMeanwhileStaysWithItsStore) {
    putFile("a");
    acrossVolumes();
    kit::Faults::add({.function = "VLIBCFileFStat", .path = request.src, .skip = 0, .times = 0, .before = [this] {
                          kit::writeFile(src("new"), "new");
                          putStore(request.src, "new", "store of new");
                      }});
    EXPECT_EQ(0, copy());
    EXPECT_EQ("new", kit::readFile(src("new")));
    EXPECT_EQ("store of new", storeOf(request.src, "new"));
    expectLine("failed to remove(" + request.src + "), reason=[" + reason(ENOTEMPTY) + "]");
}

TEST_P(TreeMove, FileCancelledAsTheLastEntryStaysWithItsStore) {
    putFile("only", kit::pattern(50000));
    putStore(request.src, "only", "store");
    acrossVolumes();
    int asked = 0;
    callbacks.isCancel = [&] { return ++asked > 1 ? 1 : 0; }; // before the entry: no; inside the file: yes
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::readFile(src("only")) == kit::pattern(50000));
    EXPECT_EQ("store", storeOf(request.src, "only"));
    EXPECT_FALSE(kit::exists(dst("only")));
}

TEST_P(TreeMove, CancelledBeforeEachEntryNothingIsLost) {
    for (int stopAt = 1; stopAt <= 12; ++stopAt) {
        SCOPED_TRACE(stopAt);
        request.src = from + "/tree" + std::to_string(stopAt);
        request.dst = to + "/copy" + std::to_string(stopAt);
        makeDirectory(request.src);
        std::vector<std::string> files;
        for (const char *directory : {"x", "y"}) {
            putDirectory(directory);
            for (const char *name : {"1", "2"}) {
                files.push_back(std::string(directory) + "/" + name);
                putFile(files.back(), files.back());
                putStore(src(directory), name, "store of " + files.back());
            }
        }
        kit::Faults::reset();
        acrossVolumes();
        int asked = 0;
        callbacks.isCancel = [&] { return ++asked >= stopAt ? 1 : 0; };
        EXPECT_EQ(0, copy());
        kit::Faults::reset();
        for (const std::string &file : files) {
            const bool stayed = kit::exists(src(file));
            const bool arrived = kit::exists(dst(file)); // both: cancelled just before the source was to go
            EXPECT_TRUE(stayed || arrived) << file;
            const std::string &root = arrived ? request.dst : request.src;
            EXPECT_EQ(file, kit::readFile(root + "/" + file));
            EXPECT_EQ("store of " + file, storeOf(root + "/" + file.substr(0, 1), file.substr(2))) << file;
        }
    }
}

TEST_P(TreeMove, SourceLinkThatCannotBeRemovedIsLogged) {
    ASSERT_EQ(0, ::symlink("x", src("link").c_str()));
    acrossVolumes();
    kit::Faults::failAlways("unlink", EACCES, src("link"));
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(dst("link")));
    expectLine("Failed to remove source link " + src("link"));
}

TEST_P(TreeMove, DirectoryThatCannotBeRemovedIsLoggedButForTwoReasons) {
    for (const int number : {EACCES, ENOTEMPTY, ENOENT, EBUSY}) {
        request.dst = to + "/copy" + std::to_string(number);
        kit::Faults::reset();
        kit::Log::reset();
        acrossVolumes();
        kit::Faults::failAlways("remove", number, request.src);
        EXPECT_EQ(0, copy());
        expectLine("failed to remove(" + request.src + "), reason=[" + reason(number) + "]",
                   number == EACCES || number == ENOTEMPTY ? 1 : 0);
    }
}

TEST_P(TreeMove, AfterAFailedLookAtTheSourceItIsStillCleanedUp) {
    putFile("a");
    acrossVolumes();
    kit::Faults::failAlways("opendir", EACCES, request.dst);
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ("data", kit::readFile(dst("a")));
}

TEST_P(TreeMove, OntoItselfLosesNothing) {
    putSample();
    putStore(from, "tree", "mine");
    const kit::Fingerprint before = kit::Fingerprint::of(request.src);
    request.dst = request.src;
    EXPECT_EQ(0, copy());
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.src), {"accessed", "attributes"}));
    EXPECT_EQ("mine", storeOf(from, "tree"));
}

// ---- What belongs to a directory
// ------------------------------------------------------------------------------------------

class TreeMetadata : public BothFamilies {
  protected:
    void SetUp() override {
        BothFamilies::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeMetadata, kFamilies, familyName);

TEST_P(TreeMetadata, TimesToTheNanosecond) {
    putDirectory("sub");
    putFile("sub/file");
    for (const std::string &path : {src("sub"), request.src}) {
        const timespec times[3] = {{1500000000, 123456789}, {1400000000, 987654321}, {1300000000, 111222300}};
        ASSERT_EQ(0, VLIBCFileUTime(path.c_str(), 3, times));
    }
    EXPECT_EQ(0, copy());
    for (const std::string &path : {dst("sub"), request.dst}) {
        VLIBCStat found{};
        ASSERT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found));
        EXPECT_EQ(1400000000, found.st.st_mtim.tv_sec) << path;
        EXPECT_EQ(987654321, found.st.st_mtim.tv_nsec) << path;
        EXPECT_EQ(1300000000, found.createTime.tv_sec) << path;
        EXPECT_EQ(111222300, found.createTime.tv_nsec) << path;
    }
}

TEST_P(TreeMetadata, TimesThatCannotBeSetAreLoggedUnlessUnsupported) {
    for (const int number : {EPERM, EOPNOTSUPP}) {
        request.dst = to + "/copy" + std::to_string(number);
        kit::Faults::failAlways("VLIBCFileUTime", number, request.dst);
        EXPECT_EQ(0, copy());
        expectLine("VLIBCFileUTime(" + request.dst + ") (errno:" + std::to_string(number) + " " +
                       std::strerror(number) + ")",
                   number == EPERM ? 1 : 0);
    }
}

TEST_P(TreeMetadata, OwnerAsRoot) {
    TREE_NEEDS_ROOT();
    ASSERT_EQ(0, ::chown(request.src.c_str(), 1234, 4321));
    const auto ownerOf = [](const std::string &path) {
        return std::to_string(kit::statOf(path).st_uid) + ":" + std::to_string(kit::statOf(path).st_gid);
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ("1024:100", ownerOf(request.dst));
    request.uid = 2001;
    request.dst = to + "/two";
    EXPECT_EQ(0, copy());
    EXPECT_EQ("2001:100", ownerOf(request.dst));
    request.gid = 2002;
    request.keepOwner = true;
    request.dst = to + "/three";
    EXPECT_EQ(0, copy());
    EXPECT_EQ("1234:4321", ownerOf(request.dst));
    for (const int kind : {0, 12, 18}) {
        kit::PlatformDouble::setType(to, kind);
        request.dst = to + "/kind" + std::to_string(kind);
        EXPECT_EQ(0, copy());
        EXPECT_EQ("0:0", ownerOf(request.dst)) << kind;
    }
}

TEST_P(TreeMetadata, OwnerAsAnotherUser) {
    TREE_NEEDS_ROOT();
    EXPECT_TRUE(kit::holdsInChild([&] {
        const AsUser user(kNobody);
        request.uid = 2001;
        kit::Faults::record(true);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(0, callsOf("fchown", request.dst));
        expectNoLine();
        request.keepOwner = true;
        request.dst = to + "/two";
        EXPECT_EQ(0, copy());
        expectLine("failed to fchown destination to uid=0, gid=0, errno=1/" + std::string(std::strerror(EPERM)));
    }));
}

TEST_P(TreeMetadata, DosAttributesAreSetOneByOne) {
    const int fd = ::open(request.src.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    for (const int command : {0x202, 0x203, 0x204}) {
        ASSERT_EQ(0, VLIBCKernelAttrFcntl(fd, command));
    }
    ::close(fd);
    EXPECT_EQ(0, copy());
    VLIBCStat found{};
    ASSERT_EQ(0, VLIBCFileStat(request.dst.c_str(), VLIBC_STAT_ATTRIBUTES, &found));
    EXPECT_EQ(0xEU, found.attributes & 0xEU);
    request.dst = to + "/refused";
    kit::Faults::failAlways("VLIBCKernelAttrFcntl", ENOTTY, request.dst);
    EXPECT_EQ(0, copy());
    for (const char *name : {"ARCHIVE", "HIDDEN", "SYSTEM"}) {
        expectLine("F_SETSMB_" + std::string(name) + "(" + request.dst + "): (errno:25 " + std::strerror(ENOTTY) + ")",
                   1, LOG_DEBUG);
    }
    expectNoLine();
}

TEST_P(TreeMetadata, AclIsCopiedOnlyWhenAsked) {
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, kit::Faults::count("VEXOACLCopy") + kit::Faults::count("VEXOACLArchiveCopy"));
    request.copyAcl = true;
    request.dst = to + "/two";
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, callsOf("VEXOACLCopy", request.src));
    EXPECT_EQ(1, callsOf("VEXOACLArchiveCopy", request.src));
    for (const char *function : {"VEXOACLCopy", "VEXOACLArchiveCopy"}) {
        request.dst = to + "/" + function;
        kit::Faults::fail(function, EPERM, request.src);
        EXPECT_EQ(0, copy());
        expectLine("Failed to copy ACL from [" + request.src + "] to [" + request.dst + "]");
    }
}

TEST_P(TreeMetadata, StoresGoAlong) {
    putFile("file");
    putDirectory("sub");
    putStore(from, "tree", "of the top");
    putStore(request.src, "sub", "of the directory");
    putStore(request.src, "file", "of the file");
    EXPECT_EQ(0, copy());
    EXPECT_EQ("of the top", storeOf(to, "copy"));
    EXPECT_EQ("of the directory", storeOf(request.dst, "sub"));
    EXPECT_EQ("of the file", storeOf(request.dst, "file"));
    EXPECT_EQ("of the top", storeOf(from, "tree"));
}

TEST_P(TreeMetadata, ArchiveBitOfTheSourceIsClearedAfterEachEntry) {
    putFile("a");
    putDirectory("b");
    ASSERT_EQ(0, ::mkfifo(src("pipe").c_str(), 0644));
    callbacks.copyFile = [](const std::string &, const std::string &) { return 0; };
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, callsOf("VLIBCKernelAttrFcntl", request.src));
    request.cleanArchive = true;
    request.dst = to + "/two";
    EXPECT_EQ(0, copy());
    EXPECT_EQ(2, callsOf("VLIBCKernelAttrFcntl", request.src)) << "twice: for the file and the directory";
}

TEST_P(TreeMetadata, ArchiveBitThatCannotBeClearedIsLogged) {
    putFile("a");
    request.cleanArchive = true;
    callbacks.copyFile = [](const std::string &, const std::string &) { return 0; };
    kit::Faults::fail("opendir", EMFILE, request.src, 1);
    EXPECT_EQ(0, copy());
    expectLine("VEXOBackupCleanDirArchiveBit() failed!! szDir=[" + request.src + "], vexoerr=[0x0900]");
}

TEST_P(TreeMetadata, ModeIsTheSources) {
    for (const mode_t mode : {0700U, 0755U, 01777U, 0111U}) {
        request.src = from + "/mode" + std::to_string(mode);
        request.dst = to + "/mode" + std::to_string(mode);
        makeDirectory(request.src, mode);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(mode, kit::statOf(request.dst).st_mode & 07777U);
    }
}

} // namespace
} // namespace tree
