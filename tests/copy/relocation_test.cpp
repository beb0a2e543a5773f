// Relocating a shared folder by staging and committing, through both doors, and the two functions that serve it.
#include "tests/copy/tree_support.h"

#include <csignal>
#include <sys/mount.h>

namespace tree {
namespace {

class Relocation : public BothFamilies {
  protected:
    void SetUp() override {
        BothFamilies::SetUp();
        request.dst = to + "/share";
        staging = to + "/@tmp";
        staged = staging + "/share";
        putSample();
        before = kit::Fingerprint::of(request.src);
    }
    static bool isExternal() { return GetParam() == Family::opt; }
    static std::string source() { return isExternal() ? "copy/copy_dir_to_external.c" : BothFamilies::source(); }
    int relocate(bool keepSource = false) {
        TreeCallbacks::current() = &callbacks;
        if (isExternal()) {
            VEXOCopyOpt opt = optionsOf(request, callbacks);
            return VEXOCopyDirToExternal(request.src.c_str(), request.dst.c_str(), keepSource ? 1 : 0, &opt);
        }
        VEXOCopyArgs args = argsOf(request, callbacks);
        // The bit that moves elsewhere keeps the source here.
        return VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kRelocate | (keepSource ? kMove : 0U),
                                 &args);
    }
    void expectLine(const std::string &body, int times = 1) const { expectLogged(source(), LOG_ERR, body, times); }
    void expectStageLine(const std::string &code) const {
        expectLine("Failed to Copy share's data to @tmp: oldpath = " + request.src + (isExternal() ? " , " : ", ") +
                   "newpath = " + request.dst + ", errno=0x" + code + "\n");
    }
    void expectCommitLine(const std::string &code) const {
        expectLine("Failed to move share's data from @tmp: oldpath = " + request.src + (isExternal() ? " , " : ", ") +
                   "newpath = " + request.dst + ", errno=0x" + code + "\n");
    }
    void expectSourceIntact() const {
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.src), {"accessed"}));
    }
    void expectRelocated() const {
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.dst),
                                          {"owner", "accessed", "modified", "created", "holes", "attributes", "mode"}));
        EXPECT_FALSE(kit::exists(staged));
    }
    void fillDestination() const {
        makeDirectory(request.dst);
        kit::writeFile(dst("old"), "old");
    }
    std::string staging, staged;
    kit::Fingerprint before;
};
INSTANTIATE_TEST_SUITE_P(, Relocation, kFamilies, familyName);

TEST_P(Relocation, MovesTheShareAndRemovesTheSource) {
    kit::Faults::record(true);
    EXPECT_EQ(0, relocate()) << kit::Log::all();
    EXPECT_EQ(1, callsOf("VLIBCExec", "/bin/mv -f " + staged + " " + request.dst));
    EXPECT_EQ(1, callsOf("VLIBCExec", "/bin/rm -Rf " + request.src));
    kit::Faults::reset();
    expectRelocated();
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ(isExternal() ? 0777U : 0755U, kit::statOf(request.dst).st_mode & 07777U);
}

TEST_P(Relocation, KeepsTheSourceWhenAsked) {
    EXPECT_EQ(0, relocate(true));
    expectRelocated();
    expectSourceIntact();
}

// Staging is a copy, whatever the caller's record says of moving.
TEST_P(Relocation, RecordThatAsksForAMoveKeepsTheSourceWhenAsked) {
    request.move = true;
    EXPECT_EQ(0, relocate(true));
    expectRelocated();
    expectSourceIntact();
}

TEST_P(Relocation, DestinationIsEmptiedNotMerged) {
    fillDestination();
    EXPECT_EQ(0, relocate());
    expectRelocated();
}

TEST_P(Relocation, LeftoversOfAnEarlierRunAreDiscarded) {
    makeDirectory(staging);
    makeDirectory(staged);
    kit::writeFile(staged + "/a", "stale");
    kit::writeFile(staging + "/other", "stale");
    EXPECT_EQ(0, relocate());
    expectRelocated();
    EXPECT_TRUE(kit::namesIn(staging).empty());
}

TEST_P(Relocation, StagingThatCannotBeMade) {
    kit::Faults::failAlways("mkdir", EACCES, staging);
    EXPECT_FAILS(relocate(), 0x3C00);
    expectLine(isExternal() ? "Failed to mkdir = " + staging + ", vexoerr=[0x3C00]"
                            : "Failed to mkdir = [" + staging + "], vexoerr=[0x3C00]");
    expectStageLine("3C00");
    expectLogged("copy/copy_create_tmp_dir.c", LOG_ERR,
                 "Failed to mkdir: " + staging + ", reason=" + std::strerror(EACCES));
    expectSourceIntact();
}

TEST_P(Relocation, LeftoversThatStayFailTheStage) {
    makeDirectory(staging);
    makeDirectory(staged);
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .path = "/bin/rm", .times = 0, .answers = true});
    EXPECT_FAILS(relocate(), 0x3900);
    expectLine(isExternal() ? "Failed to clean share at path : " + staged + ", vexoerr=[0x3900]"
                            : "Failed to clean share at path : [" + staged + "], vexoerr=[0x3900]");
    expectStageLine("3900");
    expectSourceIntact();
}

TEST_P(Relocation, CopyThatFailsLeavesNothingStaged) {
    fillDestination();
    kit::Faults::failAlways("opendir", EIO, request.src);
    EXPECT_FAILS(relocate(), 0x3B00);
    kit::Faults::reset();
    expectLine(isExternal() ? "Failed to copy share to other volume:" + request.src + ", szDestPath:" + staged +
                                  ", vexoerr=[0x3B00]"
                            : "Failed to copy share to other volume:[" + request.src + "],szDestPath: [" + staged +
                                  "], vexoerr=[0x3B00]");
    expectStageLine("3B00");
    EXPECT_FALSE(kit::exists(staged));
    EXPECT_EQ("old", kit::readFile(dst("old")));
    expectSourceIntact();
}

TEST_P(Relocation, SourceThatCannotBeReadToItsEndIsNotCommitted) {
    request.src = from + "/flat";
    makeDirectory(request.src);
    putFile("one");
    putFile("two");
    kit::Faults::fail("readdir", EIO, request.src, 3);
    EXPECT_FAILS(relocate(), 0x3B00);
    kit::Faults::reset();
    EXPECT_FALSE(kit::exists(request.dst));
    EXPECT_TRUE(kit::exists(src("one")));
    EXPECT_TRUE(kit::exists(src("two")));
}

TEST_P(Relocation, DestinationThatStaysFailsTheCommit) {
    fillDestination();
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .path = "/bin/rm -Rf " + request.dst, .answers = true});
    EXPECT_FAILS(relocate(), 0x3900);
    kit::Faults::reset();
    expectLine("Failed to clean share at path : " + request.dst + ", vexoerr=[0x0B00]");
    expectCommitLine("3900");
    EXPECT_EQ(std::vector<std::string>{"old"}, kit::namesIn(request.dst));
    EXPECT_FALSE(kit::exists(staged));
    expectSourceIntact();
}

TEST_P(Relocation, MoveThatFailsLeavesTheDestinationEmptyAndTheSource) {
    for (const int status : {1, -1}) {
        kit::Faults::reset();
        kit::Log::reset();
        fillDestination();
        kit::Faults::add({.function = "VLIBCExec", .result = status, .path = "/bin/mv", .answers = true});
        EXPECT_FAILS(relocate(), 0x3A00);
        kit::Faults::reset();
        expectCommitLine("3A00");
        EXPECT_FALSE(kit::exists(request.dst));
        EXPECT_FALSE(kit::exists(staged));
        expectSourceIntact();
        expectLine("Failed to change share to other volume:" + staged + ", szDestPath:" + request.dst +
                   ", vexoerr=[0x0000]");
        EXPECT_EQ(2, linesOf(source(), LOG_ERR)) << kit::Log::all();
    }
}

TEST_P(Relocation, SourceThatStaysIsOnlyLogged) {
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .path = "/bin/rm -Rf " + request.src, .answers = true});
    EXPECT_EQ(0, relocate());
    kit::Faults::reset();
    expectLine(isExternal() ? "Failed to remove the dir which path =" + request.src + " and type = [0]"
                            : "Failed to remove the dir, path = [" + request.src + "].");
    expectRelocated();
}

TEST_P(Relocation, StagedCopyThatStaysAfterAFailedMoveIsLogged) {
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .path = "/bin/mv", .answers = true});
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .path = "/bin/rm -Rf " + staged, .answers = true});
    EXPECT_FAILS(relocate(), 0x3A00);
    expectLine(isExternal() ? "Failed to remove the dir which path = " + staged + " and type = [0]"
                            : "Failed to remove the dir, path = [" + staged + "].");
    expectCommitLine("3A00");
    expectSourceIntact();
}

TEST_P(Relocation, CancelledStagingCommitsNothing) {
    fillDestination();
    for (int stopAt = 1; stopAt <= 14; ++stopAt) {
        SCOPED_TRACE(stopAt);
        int asked = 0;
        callbacks.isCancel = [&] { return ++asked == stopAt ? 1 : 0; }; // once: also inside a file, also the last
        const int result = relocate(true);
        if (asked < stopAt) {
            EXPECT_EQ(0, result);
            break;
        }
        EXPECT_EQ(-1, result);
        EXPECT_EQ(0xA600U, VLIBCErrGet());
        expectSourceIntact();
        EXPECT_EQ("old", kit::readFile(dst("old")));
        EXPECT_FALSE(kit::exists(staged));
    }
}

// Callbacks that are handed a record are handed their caller's, as it is.
struct SeenRecord {
    VEXOCopyArgs args{}, before{};
    int copied = 0, asked = 0;
    void check(const VEXOCopyArgs *record) const {
        EXPECT_EQ(&args, record);
        EXPECT_EQ(before.isCancel, record->isCancel);
        EXPECT_EQ(before.isCancelArg, record->isCancelArg);
        EXPECT_EQ(before.copyFile, record->copyFile);
        EXPECT_EQ(before.copyFileArg, record->copyFileArg);
        EXPECT_EQ(before.readWriteData, record->readWriteData);
        EXPECT_EQ(before.readWriteDataArg, record->readWriteDataArg);
    }
    static SeenRecord &of(void *data) { return *static_cast<SeenRecord *>(data); }
};

TEST_F(Scene, RelocationShowsCallbacksTheRecordAsItIs) {
    for (const bool wholeFiles : {true, false}) {
        SeenRecord seen;
        request.src = from + (wholeFiles ? "/files" : "/data");
        makeDirectory(request.src);
        putFile("one");
        putFile("two");
        seen.args.fsTypeSrc = seen.args.fsTypeDst = -1;
        seen.args.isCancel = [](void *data) {
            SeenRecord::of(data).check(&SeenRecord::of(data).args);
            ++SeenRecord::of(data).asked;
            return 0;
        };
        seen.args.isCancelArg = &seen;
        if (wholeFiles) {
            seen.args.copyFile = [](void *data, const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args) {
                SeenRecord::of(data).check(args);
                ++SeenRecord::of(data).copied;
                VEXOCopyArgs plain{};
                plain.fsTypeSrc = plain.fsTypeDst = -1;
                return VEXOFileOpCopyFile(src, dst, flags, &plain);
            };
            seen.args.copyFileArg = &seen;
        } else {
            seen.args.readWriteData = [](void *data, const char *, const char *, int *srcFd, int *dstFd, int64_t size,
                                         VEXOCopyArgs *args) {
                SeenRecord::of(data).check(args);
                ++SeenRecord::of(data).copied;
                return VEXOFileOpCopyFileFd(*srcFd, *dstFd, size, args);
            };
            seen.args.readWriteDataArg = &seen;
        }
        seen.before = seen.args;
        EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kRelocate, &seen.args));
        seen.check(&seen.args);
        EXPECT_EQ(2, seen.copied);
        EXPECT_GT(seen.asked, 0);
        EXPECT_EQ("data", kit::readFile(dst("two")));
        EXPECT_FALSE(kit::exists(request.src));
        EXPECT_EQ(0, std::system(("rm -r " + request.dst).c_str())); // NOLINT(concurrency-mt-unsafe): one thread
    }
}

TEST_P(Relocation, CancelThatComesAfterTheLastFileCommitsNothing) {
    fillDestination();
    bool late = false;
    callbacks.isCancel = [&] { return late ? 1 : 0; };
    callbacks.copyFile = [&](const std::string &, const std::string &dst) {
        late = true;
        kit::writeFile(dst, "x");
        return 0;
    };
    if (isExternal()) {
        return; // which has no such callback
    }
    request.src = from + "/single";
    makeDirectory(request.src);
    putFile("only");
    EXPECT_FAILS(relocate(), 0xA600);
    EXPECT_EQ("data", kit::readFile(src("only")));
    EXPECT_EQ("old", kit::readFile(dst("old")));
}

TEST_P(Relocation, SourceAndDestinationThatHoldEachOtherAreRefused) {
    for (const std::string &target : {request.src, src("sub/inside"), from, request.src + "/../tree", src("sub/..")}) {
        SCOPED_TRACE(target);
        request.dst = target;
        EXPECT_FAILS(relocate(), 0x0D00);
        expectSourceIntact();
    }
    request.dst = to + "/share";
    ASSERT_EQ(0, ::rename(request.src.c_str(), (to + "/@tmp").c_str())); // the source is the staging directory
    request.src = to + "/@tmp";
    EXPECT_FAILS(relocate(), 0x0D00);
    expectSourceIntact();
}

// By another name the three are the same directories still.
TEST_P(Relocation, LinksAndMountsOfTheSourceAreRefusedAsDestination) {
    KIT_REQUIRE(other, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    const auto refused = [&](const std::string &what) {
        SCOPED_TRACE(what);
        EXPECT_FAILS(relocate(), 0x0D00);
    };
    const auto mounted = [&](const std::string &what, const std::string &directory, const std::string &at) {
        ASSERT_EQ(0, ::mount(directory.c_str(), at.c_str(), nullptr, MS_BIND, nullptr)) << at;
        refused(what);
        EXPECT_EQ(0, ::umount2(at.c_str(), MNT_DETACH));
        SCOPED_TRACE(what);
        expectSourceIntact();
        EXPECT_FALSE(kit::exists(staged));
    };
    ASSERT_EQ(0, ::symlink(request.src.c_str(), request.dst.c_str()));
    refused("a link to the source");
    expectSourceIntact();
    ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    ASSERT_EQ(0, ::symlink(src("sub").c_str(), request.dst.c_str()));
    refused("a link into the source");
    ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    fillDestination();
    makeDirectory(dst("below"));
    makeDirectory(dst("below/point"));
    mounted("the source mounted as the destination", request.src, request.dst);
    mounted("the source mounted in the destination", request.src, dst("below/point"));
    mounted("a part of the source mounted in the destination", src("sub/deep"), dst("below/point"));
    mounted("what holds the source mounted in the destination", from, dst("below/point"));
    mounted("a part of the source as the destination", src("sub"), request.dst);
    mounted("what holds the source as the destination", from, request.dst);
    mounted("the destination mounted in the source", to, src("empty"));
    makeDirectory(staging);
    mounted("the source mounted as the staging directory", request.src, staging);
    makeDirectory(staging + "/point");
    mounted("a part of the source mounted in the staging directory", src("sub"), staging + "/point");
    EXPECT_EQ("old", kit::readFile(dst("old")));
    ASSERT_EQ(0, ::rmdir((staging + "/point").c_str()));
    // What has nothing to do with the source is no obstacle.
    makeDirectory(src("sub/volume"));
    ASSERT_EQ(0, ::mount(other.path().c_str(), src("sub/volume").c_str(), nullptr, MS_BIND, nullptr));
    EXPECT_EQ(0, relocate(true)) << kit::Log::all();
    EXPECT_TRUE(kit::exists(dst("sub/volume")));
    EXPECT_EQ(0, ::umount(src("sub/volume").c_str()));
}

TEST_P(Relocation, WhatCannotBeLookedAtIsNotKnownToBeApart) {
    fillDestination();
    for (const std::string &path : {request.src, request.dst, to}) {
        for (const int skip : {0, 3}) { // the second: before the commit
            kit::Faults::reset();
            kit::Faults::add({.function = "realpath", .error = EIO, .path = path, .skip = skip, .times = 0});
            EXPECT_FAILS(relocate(), 0x0D00);
            kit::Faults::reset();
            expectSourceIntact();
            EXPECT_EQ("old", kit::readFile(dst("old")));
        }
    }
    kit::Faults::failAlways("open", EMFILE, "/proc/self/mountinfo");
    EXPECT_FAILS(relocate(), 0x0D00);
    kit::Faults::failAlways("open", ENOENT, "/proc/self/mountinfo");
    kit::Faults::reset();
    EXPECT_EQ(0, relocate());
    expectRelocated();
}

TEST_P(Relocation, DestinationThatIsTheStagingDirectoryIsRefused) {
    request.dst = staging;
    EXPECT_FAILS(relocate(), 0x0D00);
    expectSourceIntact();
    EXPECT_FALSE(kit::exists(staging));
}

TEST_P(Relocation, SourceThatIsExchangedMeanwhileCommitsNothingAndKeepsTheCopy) {
    fillDestination();
    bool exchanged = false;
    callbacks.isCancel = [&] {
        if (!exchanged) {
            exchanged = true;
            EXPECT_EQ(0, ::rename(request.src.c_str(), (from + "/away").c_str()));
            EXPECT_EQ(0, ::rename((from + "/other").c_str(), request.src.c_str()));
        }
        return 0;
    };
    makeDirectory(from + "/other");
    kit::writeFile(from + "/other/mine", "mine");
    EXPECT_EQ(-1, relocate());
    EXPECT_EQ("old", kit::readFile(dst("old")));
    EXPECT_EQ("mine", kit::readFile(src("mine")));
    EXPECT_TRUE(kit::exists(staged));
    expectLine("the source [" + request.src + "] is not known to be whole, kept its copy [" + staged + "]");
}

// A server may show the source under a name that says nothing of it, and emptying that empties the source.
TEST_P(Relocation, StagedCopyStaysWhereTheSourceIsNoLongerWhole) {
    for (const bool removed : {true, false}) {
        SCOPED_TRACE(removed);
        fillDestination();
        kit::Faults::add({.function = "VLIBCExec",
                          .result = 1,
                          .path = removed ? "/bin/rm -Rf " + request.dst : "/bin/mv",
                          .before = [&] { EXPECT_EQ(0, ::unlink(src("sub/deep/c").c_str())); },
                          .answers = true});
        EXPECT_FAILS(relocate(), removed ? 0x3900 : 0x3A00);
        kit::Faults::reset();
        EXPECT_TRUE(kit::exists(staged + "/sub/deep/c"));
        expectLine("the source [" + request.src + "] is not known to be whole, kept its copy [" + staged + "]");
        kit::writeFile(src("sub/deep/c"), "");
        kit::Log::reset();
        EXPECT_EQ(0, std::system(("rm -rf " + request.dst).c_str())); // NOLINT(concurrency-mt-unsafe): one thread
    }
}

TEST_P(Relocation, SlashesBehindTheNamesMakeNoDifference) {
    putStore(to, "share", "old");
    makeDirectory(request.dst);
    request.src += "/";
    request.dst += "//";
    EXPECT_EQ(0, relocate());
    request.dst = to + "/share";
    expectRelocated();
    EXPECT_EQ("(no store)", storeOf(to, "share"));
    EXPECT_FALSE(kit::exists(from + "/tree"));
}

TEST_P(Relocation, SourceWithoutANameOfItsOwnIsRefused) {
    for (const std::string &source : {request.src + "/.", src("sub/.."), std::string("/")}) {
        request.src = source;
        EXPECT_FAILS(relocate(), 0x0D00);
    }
    request.src = from + "/tree";
    expectSourceIntact();
}

TEST_P(Relocation, DestinationWithoutANameOfItsOwnIsRefused) {
    for (const std::string &target : {to + "/.", to + "/..", std::string("/")}) {
        request.dst = target;
        EXPECT_FAILS(relocate(), 0x0D00);
        expectSourceIntact();
        EXPECT_TRUE(kit::exists(to));
    }
}

TEST_F(Scene, EmptyPathsAreRefusedByTheExternalRelocation) {
    for (const char *bad : {static_cast<const char *>(nullptr), ""}) {
        kit::Log::reset();
        EXPECT_FAILS(VEXOCopyDirToExternal(bad, request.dst.c_str(), 0, nullptr), 0x0D00);
        EXPECT_FAILS(VEXOCopyDirToExternal(request.src.c_str(), bad, 0, nullptr), 0x0D00);
        expectLogged("copy/copy_dir_to_external.c", LOG_ERR, "Parameters error.", 2);
    }
}

TEST_F(Scene, EmptyPathsAreRefusedByTheFileOpRelocation) {
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = 1;
    args.dstFsFileSizeLimit = 1;
    EXPECT_FAILS(VEXOFileOpCopyDir("", request.dst.c_str(), kRelocate, &args), 0x0D00);
    EXPECT_FAILS(VEXOFileOpCopyDir(request.src.c_str(), "", kRelocate, &args), 0x0D00);
}

TEST_P(Relocation, MemoryThatRunsOutLosesNothing) {
    if (!kit::Faults::failAllocation(0)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    fillDestination();
    kit::Faults::failAllocation(isExternal() ? 1 : 2);
    const int result = relocate();
    kit::Faults::failAllocation(0);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0x0200U, VLIBCErrGet());
    expectSourceIntact();
    EXPECT_EQ("old", kit::readFile(dst("old")));
}

TEST_P(Relocation, ModeThatCannotBeSetIsLogged) {
    if (!isExternal()) {
        return;
    }
    kit::Faults::failAlways("chmod", EPERM, request.dst);
    EXPECT_EQ(0, relocate());
    expectLine("Failed to chmod " + request.dst);
}

// Killed before each program it runs and each file it copies, and then run again.
TEST_P(Relocation, KilledAnywhereItCanBeRunAgain) {
    for (const auto &[function, last] : std::map<std::string, int>{{"VLIBCExec", 4}, {"open", 6}}) {
        for (int at = 0; at < last; ++at) {
            SCOPED_TRACE(function + " " + std::to_string(at));
            request.src = from + "/" + function + std::to_string(at);
            request.dst = to + "/" + function + std::to_string(at);
            staged = staging + "/" + function + std::to_string(at);
            makeDirectory(request.src);
            putSample();
            before = kit::Fingerprint::of(request.src);
            fillDestination();
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                kit::Faults::add({.function = function, .skip = at, .before = [] { ::raise(SIGKILL); }});
                relocate();
                ::_exit(0);
            }
            int status = 0;
            ASSERT_EQ(child, ::waitpid(child, &status, 0));
            const bool complete =
                before
                    .differenceTo(kit::Fingerprint::of(request.dst),
                                  {"owner", "accessed", "modified", "created", "holes", "attributes", "mode"})
                    .empty();
            const bool sourceThere =
                before.differenceTo(kit::Fingerprint::of(request.src), {"accessed", "attributes"}).empty();
            EXPECT_TRUE(sourceThere || complete) << "one complete copy must be left";
            if (sourceThere) {
                EXPECT_EQ(0, relocate());
                expectRelocated();
            }
        }
    }
}

// ---- VLIBCopyCreateTmpDir
// -------------------------------------------------------------------------------------------------

class CreateTmpDir : public Scene {
  protected:
    static constexpr const char *kSource = "copy/copy_create_tmp_dir.c";
    std::string path() const { return to + "/@tmp"; }
};

TEST_F(CreateTmpDir, RefusesNoPath) {
    EXPECT_FAILS(VLIBCopyCreateTmpDir(nullptr, 0, 0777), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VLIBCopyCreateTmpDir("", 1, 0777), 0x0D00);
}
TEST_F(CreateTmpDir, MakesADirectory) {
    const mode_t mask = ::umask(0);
    EXPECT_EQ(0, VLIBCopyCreateTmpDir(path().c_str(), 0, 0751));
    ::umask(mask);
    EXPECT_EQ(0751U, kit::statOf(path()).st_mode & 07777U);
}
TEST_F(CreateTmpDir, KeepsOrEmptiesAnExistingOne) {
    makeDirectory(path());
    kit::writeFile(path() + "/file", "x");
    EXPECT_EQ(0, VLIBCopyCreateTmpDir(path().c_str(), 1, 0777));
    EXPECT_TRUE(kit::exists(path() + "/file"));
    EXPECT_EQ(0, VLIBCopyCreateTmpDir(path().c_str(), 0, 0777));
    EXPECT_TRUE(kit::namesIn(path()).empty());
}
TEST_F(CreateTmpDir, RemovalThatCannotRun) {
    makeDirectory(path());
    kit::Faults::add({.function = "VLIBCExec", .result = -1, .path = "/bin/rm -Rf " + path(), .answers = true});
    EXPECT_FAILS(VLIBCopyCreateTmpDir(path().c_str(), 0, 0777), 0x3900);
    expectLogged(kSource, LOG_ERR, "Failed to rmdir : " + path());
}
TEST_F(CreateTmpDir, RemovalThatEndsWithAStatusIsNoFailure) {
    makeDirectory(path());
    kit::Faults::add({.function = "VLIBCExec", .result = 1, .answers = true});
    EXPECT_EQ(0, VLIBCopyCreateTmpDir(path().c_str(), 0, 0777));
}
TEST_F(CreateTmpDir, FailuresOfMkdir) {
    for (const Row row : {Row{ENOSPC, 0x2900}, Row{EACCES, 0x3C00}, Row{EROFS, 0x3C00}}) {
        kit::Faults::reset();
        kit::Faults::failAlways("mkdir", row.number, path());
        EXPECT_FAILS(VLIBCopyCreateTmpDir(path().c_str(), 0, 0777), row.code);
        expectLogged(kSource, LOG_ERR, "Failed to mkdir: " + path() + ", reason=" + std::strerror(row.number));
    }
    kit::Faults::reset();
    kit::writeFile(path(), "a file");
    EXPECT_FAILS(VLIBCopyCreateTmpDir(path().c_str(), 1, 0777), 0x3C00);
    EXPECT_EQ("a file", kit::readFile(path()));
}

// ---- VLIBCopyRemoveDir
// ----------------------------------------------------------------------------------------------------

class RemoveDir : public Scene {
  protected:
    static constexpr const char *kSource = "copy/copy_remove_dir.c";
};

TEST_F(RemoveDir, RefusesNoPath) {
    EXPECT_FAILS(VLIBCopyRemoveDir(nullptr), 0x0D00);
    expectLogged(kSource, LOG_ERR, "Bad arguments; szPath = [(null)]\n");
}
TEST_F(RemoveDir, RemovesTheTreeAndItsStore) {
    putSample();
    putStore(from, "tree", "mine");
    EXPECT_EQ(0, VLIBCopyRemoveDir(request.src.c_str()));
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ("(no store)", storeOf(from, "tree"));
}
TEST_F(RemoveDir, LeavesWhatIsNoDirectoryAlone) {
    putFile("file");
    kit::Faults::record(true);
    EXPECT_EQ(0, VLIBCopyRemoveDir(src("file").c_str()));
    EXPECT_EQ(0, VLIBCopyRemoveDir(src("missing").c_str()));
    EXPECT_EQ(0, VLIBCopyRemoveDir(""));
    EXPECT_EQ(0, kit::Faults::count("VLIBCExec"));
    EXPECT_TRUE(kit::exists(src("file")));
    EXPECT_EQ(0U, VLIBCErrGet());
}
TEST_F(RemoveDir, PathsOnVolumesAreRemovedUntested) {
    kit::Faults::add({.function = "VLIBCExec", .path = "/volume", .times = 0, .answers = true});
    kit::Faults::add({.function = "VLIBCExec", .result = 0, .times = 0, .answers = true});
    kit::Faults::record(true);
    EXPECT_EQ(0, VLIBCopyRemoveDir("/volume9-no-such-place/x"));
    EXPECT_EQ(1, callsOf("VLIBCExec", "/bin/rm -Rf /volume9-no-such-place/x"));
    EXPECT_EQ(0, callsOf("VLIBCFileCheckDir", "/volume9-no-such-place/x"));
}
TEST_F(RemoveDir, FailureIsToldByTheErrorAlone) {
    putStore(from, "tree", "mine");
    for (const int status : {1, -1}) {
        kit::Faults::reset();
        kit::Log::reset();
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::add({.function = "VLIBCExec", .result = status, .answers = true});
        EXPECT_EQ(0, VLIBCopyRemoveDir(request.src.c_str()));
        EXPECT_EQ(0x0B00U, VLIBCErrGet());
        expectLogged(kSource, LOG_ERR, "Failed to remove " + request.src);
        EXPECT_EQ("mine", storeOf(from, "tree"));
    }
}

} // namespace
} // namespace tree
