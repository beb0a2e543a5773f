// Whom a copy belongs to, and what happens when it cannot be given to them.
#include "tests/copy/file_copy_support.h"
#include "tests/kit/child.h"

namespace file_copy {
namespace {

class FileCopyOwner : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        ASSERT_EQ(0, ::chown(request.src.c_str(), 1234, 4321));
    }
    void expectOwner(uid_t uid, gid_t gid) const {
        EXPECT_EQ(uid, kit::statOf(request.dst).st_uid);
        EXPECT_EQ(gid, kit::statOf(request.dst).st_gid);
    }
    static std::string chownLine(unsigned uid, unsigned gid, int number) {
        return "failed to fchown destination to uid=" + std::to_string(uid) + ", gid=" + std::to_string(gid) +
               ", errno=" + std::to_string(number) + "/" + std::strerror(number);
    }
    // The copy is whole; a caller who owns his copies is told that this one is not his.
    void expectOwnerMissing(int result) const {
        if (GetParam() == Door::reentrant || request.asCaller) {
            EXPECT_EQ(-1, result);
            EXPECT_EQ(0xFA00U, VLIBCErrGet());
            EXPECT_EQ(source(), VLIBCErrorGetFile());
        } else {
            EXPECT_EQ(0, result);
        }
        expectCopied();
        expectNotReported();
    }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyOwner, kDoors, doorName);

TEST_P(FileCopyOwner, StandardOwnerUnlessAskedOtherwise) {
    EXPECT_EQ(0, copy());
    expectOwner(1024, 100);
}

TEST_P(FileCopyOwner, OwnerAskedFor) {
    request.uid = 2001;
    request.gid = 2002;
    EXPECT_EQ(0, copy());
    expectOwner(2001, 2002);
}

TEST_P(FileCopyOwner, EachHalfHasItsOwnStandard) {
    request.uid = 2001;
    EXPECT_EQ(0, copy());
    expectOwner(2001, 100);
    request.uid = 0;
    request.gid = 2002;
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    expectOwner(1024, 2002);
}

TEST_P(FileCopyOwner, SourcesOwnerIsKeptWhenAsked) {
    request.keepOwner = true;
    request.uid = 2001; // not read then
    EXPECT_EQ(0, copy());
    expectOwner(1234, 4321);
}

TEST_P(FileCopyOwner, ReplacedFileChangesItsOwner) {
    kit::writeFile(request.dst, "there");
    ASSERT_EQ(0, ::chown(request.dst.c_str(), 7, 8));
    request.overwrite = 1;
    request.keepOwner = true;
    EXPECT_EQ(0, copy());
    expectOwner(1234, 4321);
}

TEST_P(FileCopyOwner, WithoutRecordsTheStandardOwner) {
    const char *src = request.src.c_str();
    const char *dst = request.dst.c_str();
    EXPECT_EQ(0, GetParam() == Door::ex          ? VEXOFileCopy(src, dst, nullptr)
                 : GetParam() == Door::reentrant ? VEXOFileCopy_r(src, dst, nullptr, nullptr)
                                                 : VEXOFileOpCopyFile(src, dst, 0, nullptr));
    expectOwner(1024, 100);
}

TEST_P(FileCopyOwner, VolumesWithoutOwnersAreNotAsked) {
    for (const int type : {0, 12}) {
        kit::PlatformDouble::setType(to, type);
        for (const bool keep : {false, true}) {
            request.keepOwner = keep;
            request.asCaller = GetParam() == Door::fileOp;
            kit::Faults::reset();
            kit::Faults::failAlways("fchown", EPERM, request.dst);
            EXPECT_EQ(0, copy()) << type; // no owner was to be set, so none is missing
            EXPECT_EQ(0, kit::Faults::count("fchown")) << type;
            expectNotReported();
            ASSERT_EQ(0, ::unlink(request.dst.c_str()));
        }
    }
}

// Only two of the three types without owners are spared the attempt in a copy.
TEST_P(FileCopyOwner, ExFatIsAsked) {
    kit::PlatformDouble::setType(to, 18);
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, callsOf("fchown", request.dst));
}

TEST_P(FileCopyOwner, SourcesTypeDoesNotMatter) {
    for (const int type : {0, 12, 18}) {
        kit::PlatformDouble::setType(from, type);
        request.overwrite = 1;
        EXPECT_EQ(0, copy());
        expectOwner(1024, 100);
    }
}

TEST_P(FileCopyOwner, KeptOwnerThatIsNotPermittedIsSilent) {
    request.keepOwner = true;
    kit::Faults::fail("fchown", EPERM, request.dst);
    expectOwnerMissing(copy());
    expectNoErrorLogged(source());
}

TEST_P(FileCopyOwner, KeptOwnerThatFailsOtherwiseIsLogged) {
    request.keepOwner = true;
    kit::Faults::fail("fchown", EIO, request.dst);
    expectOwnerMissing(copy());
    expectLogged(source(), LOG_ERR, chownLine(1234, 4321, EIO));
}

TEST_P(FileCopyOwner, GivenOwnerThatFailsIsLogged) {
    for (const int number : {EPERM, EIO}) {
        kit::Log::reset();
        request.overwrite = 1;
        request.uid = 2001;
        request.gid = 2002;
        kit::Faults::reset();
        kit::Faults::fail("fchown", number, request.dst);
        expectOwnerMissing(copy());
        expectLogged(source(), LOG_ERR, chownLine(2001, 2002, number));
    }
}

// Everything after the owner is still done.
TEST_P(FileCopyOwner, MissingOwnerDoesNotStopTheRest) {
    timespec times[2] = {{1000000000, 0}, {1100000000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    request.copyAcl = true;
    kit::Faults::fail("fchown", EPERM, request.dst);
    kit::Faults::add({.function = "VEXOACLCopy", .result = 0, .times = 0, .answers = true});
    kit::Faults::add({.function = "VEXOACLArchiveCopy", .result = 0, .times = 0, .answers = true});
    expectOwnerMissing(copy());
    EXPECT_EQ(1, kit::Faults::count("VEXOACLCopy"));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLArchiveCopy"));
    EXPECT_EQ(1100000000, kit::statOf(request.dst).st_mtim.tv_sec);
}

// The after-steps belong to a result of 0.
TEST_P(FileCopyOwner, MissingOwnerKeepsTheAfterStepsBack) {
    request.enforceInherit = true;
    kit::Faults::fail("fchown", EPERM, request.dst);
    kit::Faults::add({.function = "VEXOACLEnforceInherit", .result = 0, .times = 0, .answers = true});
    const int result = copy();
    EXPECT_EQ(result == 0 ? 1 : 0, kit::Faults::count("VEXOACLEnforceInherit"));
    expectOwnerMissing(result);
}

TEST_P(FileCopyOwner, UnprivilegedCallerDoesNotTryToGiveAway) {
    ASSERT_EQ(0, ::chown(request.src.c_str(), kNobody, kNobody));
    kit::Faults::record(true);
    const AsUser user(kNobody);
    expectOwnerMissing(copy());
    const bool tries = GetParam() == Door::reentrant;
    EXPECT_EQ(tries ? 1 : 0, callsOf("fchown", request.dst));
    if (tries) {
        expectLogged(source(), LOG_ERR, chownLine(1024, 100, EPERM));
    } else {
        expectNoErrorLogged(source());
    }
    EXPECT_EQ(kNobody, kit::statOf(request.dst).st_uid);
}

TEST_P(FileCopyOwner, UnprivilegedCallerTriesToKeep) {
    kit::Faults::record(true);
    request.keepOwner = true;
    const AsUser user(kNobody);
    expectOwnerMissing(copy());
    EXPECT_EQ(1, callsOf("fchown", request.dst));
    expectNoErrorLogged(source());
}

TEST_P(FileCopyOwner, UnprivilegedCallerMayKeepHisOwn) {
    ASSERT_EQ(0, ::chown(request.src.c_str(), kNobody, ::getegid()));
    request.keepOwner = true;
    const AsUser user(kNobody);
    EXPECT_EQ(0, copy());
    expectOwner(kNobody, ::getegid());
}

// A user who can never become root: what he may do is done, the rest is no failure.
TEST_P(FileCopyOwner, UserWithoutAnyPrivilegeCopies) {
    timespec times[2] = {{1000000000, 0}, {1100000000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    const int answer = kit::inChild([this] {
        if (::setresgid(kNobody, kNobody, kNobody) != 0 || ::setresuid(kNobody, kNobody, kNobody) != 0) {
            return 100;
        }
        const int result = copy();
        const bool asCaller = GetParam() == Door::reentrant;
        const bool right = asCaller ? result == -1 && VLIBCErrGet() == 0xFA00 : result == 0;
        const int lines = kit::Log::count(LOG_DEBUG, "Failed to seteuid to 0(errno:1 Operation not permitted)");
        return !right ? 1 : lines != (asCaller ? 0 : 1) ? 2 : callbacks.reports.empty() ? 0 : 3;
    });
    EXPECT_EQ(0, answer) << "1: result, 2: log line, 3: reported";
    expectCopied();
    expectOwner(kNobody, kNobody);
    EXPECT_EQ(1100000000, kit::statOf(request.dst).st_mtim.tv_sec);
}

// ---- The answer for a missing owner is for copies that succeeded and had an owner to set ----

class FileCopyOwnerMark : public FileCopyOwner {
  protected:
    void SetUp() override {
        FileCopyOwner::SetUp();
        request.asCaller = true;
        kit::Faults::failAlways("fchown", EPERM, request.dst);
        kit::Faults::failAlways("chown", EPERM, request.dst);
    }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyOwnerMark, ::testing::Values(Door::reentrant, Door::fileOp), doorName);

TEST_P(FileCopyOwnerMark, AnswersForACopy) {
    expectOwnerMissing(copy());
}

TEST_P(FileCopyOwnerMark, AnswersForAMove) {
    request.move = true;
    expectOwnerMissing(copy());
}

TEST_P(FileCopyOwnerMark, NotForASkippedCopy) {
    kit::writeFile(request.dst, "there");
    EXPECT_EQ(0, copy());
    request.move = true;
    EXPECT_EQ(0, copy());
}

TEST_P(FileCopyOwnerMark, NotForTheSameFile) {
    request.dst = request.src;
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
}

TEST_P(FileCopyOwnerMark, NotForACancelledCopy) {
    callbacks.isCancel = [] { return 1; };
    EXPECT_EQ(0, copy());
    expectNoDestination();
}

// The close that fails comes after the owner: by then the copy is known to have none.
TEST_P(FileCopyOwnerMark, NotForACopyCancelledWhenItsCloseFailed) {
    int asked = 0;
    callbacks.isCancel = [&] { return asked++ == 0 ? 0 : 1; };
    kit::Faults::fail("close", EIO, request.dst);
    EXPECT_EQ(0, copy()) << std::hex << VLIBCErrGet();
    expectNoDestination();
    expectNotReported();
}

TEST_P(FileCopyOwnerMark, NotForARenameThatKeepsTheOwner) {
    request.move = true;
    request.keepOwner = true;
    EXPECT_EQ(0, copy());
    expectOwner(1234, 4321);
}

TEST_P(FileCopyOwnerMark, NotForARenameOnAVolumeWithoutOwners) {
    kit::PlatformDouble::setType(scratch.path(), 18);
    request.move = true;
    EXPECT_EQ(0, copy());
}

TEST_P(FileCopyOwnerMark, NotForAFailure) {
    kit::writeFile(request.dst, "there");
    request.overwrite = -1;
    expectFailed(copy(), 0xA300);
    callbacks.reports.clear();
    request.overwrite = 1;
    kit::Faults::fail("write", ENOSPC, request.dst);
    expectFailed(copy(), 0x2900);
}

} // namespace
} // namespace file_copy
