// What follows a copy that succeeded: the source's archive bit, and ACL inheritance of the destination.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyAfter : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        request.cleanArchive = true;
        request.enforceInherit = true;
    }
    // Lets both after-steps succeed, and counts them.
    static void watch() {
        kit::Faults::add({.function = "VLIBCKernelAttrFcntl", .result = 0, .times = 0, .answers = true});
        kit::Faults::add({.function = "VEXOACLEnforceInherit", .result = 0, .times = 0, .answers = true});
        kit::Faults::record(true);
    }
    long cleaned() const { return callsOf("VLIBCKernelAttrFcntl", request.src); }
    long inherited() const { return callsOf("VEXOACLEnforceInherit", request.dst); }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyAfter, kDoors, doorName);

TEST_P(FileCopyAfter, BothFollowACopy) {
    watch();
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, cleaned());
    EXPECT_EQ(1, inherited());
    EXPECT_LT(placeOf("VLIBCKernelAttrFcntl", request.src), placeOf("VEXOACLEnforceInherit", request.dst));
}

TEST_P(FileCopyAfter, NeitherUnlessAsked) {
    request.cleanArchive = false;
    request.enforceInherit = false;
    watch();
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, cleaned());
    EXPECT_EQ(0, inherited());
}

TEST_P(FileCopyAfter, EachOnItsOwn) {
    watch();
    request.enforceInherit = false;
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, cleaned());
    EXPECT_EQ(0, inherited());
    request.enforceInherit = true;
    request.cleanArchive = false;
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, cleaned());
    EXPECT_EQ(1, inherited());
}

TEST_P(FileCopyAfter, NeitherFollowsAFailure) {
    kit::writeFile(request.dst, "there");
    request.overwrite = -1;
    watch();
    expectFailed(copy(), 0xA300);
    EXPECT_EQ(0, cleaned());
    EXPECT_EQ(0, inherited());
}

TEST_P(FileCopyAfter, BothFollowASkippedAndACancelledCopy) {
    kit::writeFile(request.dst, "there");
    watch();
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, cleaned());
    EXPECT_EQ(1, inherited());
    ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    callbacks.isCancel = [] { return 1; };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(2, cleaned());
    EXPECT_EQ(2, inherited());
}

TEST_P(FileCopyAfter, InheritanceIsEnforcedOnTheNameGiven) {
    kit::PlatformDouble::setType(to, 0);
    request.dst = to + "/a:b";
    watch();
    EXPECT_EQ(0, copy());
    expectCopied(to + "/a-b");
    EXPECT_EQ(1, inherited());
    EXPECT_EQ(1, kit::Faults::count("VEXOACLEnforceInherit"));
}

TEST_P(FileCopyAfter, RefusedInheritanceIsLoggedOnly) {
    kit::Faults::failAlways("VEXOACLEnforceInherit", EPERM);
    EXPECT_EQ(0, copy());
    expectLogged(source(), LOG_ERR, "Failed to enforce ACL inheritance into [" + request.dst + "]");
    expectCopied();
    expectNotReported();
}

TEST_P(FileCopyAfter, ArchiveBitThatCannotBeClearedIsNoFailure) {
    request.move = true; // there is no source left to open
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, kit::Log::count(LOG_ERR,
                                 "open() failed!! szFile=[" + request.src + "], errno=[2/No such file or directory]"))
        << kit::Log::all();
    expectNotReported();
}

TEST_P(FileCopyAfter, SourcesArchiveBitIsClearedAfterItWasCopied) {
    const int fd = ::open(request.src.c_str(), O_RDWR | O_CLOEXEC);
    const int set = VLIBCKernelAttrFcntl(fd, 0x202);
    ::close(fd);
    if (set != 0) {
        GTEST_SKIP() << "no DOS attributes in " << scratch.path();
    }
    EXPECT_EQ(0, copy());
    VLIBCStat out{};
    ASSERT_EQ(0, VLIBCFileStat(request.src.c_str(), 11, &out));
    EXPECT_EQ(0U, out.attributes & VLIBC_ATTR_ARCHIVE);
    ASSERT_EQ(0, VLIBCFileStat(request.dst.c_str(), 11, &out));
    EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_ARCHIVE), out.attributes & VLIBC_ATTR_ARCHIVE);
}

class FileCopyAfterPlain : public Scene {};

// The inner doors copy and do no more: they leave the umask alone too.
TEST_F(FileCopyAfterPlain, InnerDoorsDoNoneOfIt) {
    request.cleanArchive = true;
    request.enforceInherit = true;
    VEXOCopyOpt opt = optionsOf(request, callbacks);
    Callbacks::current() = &callbacks;
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 0666));
    kit::Faults::record(true);
    const mode_t before = ::umask(027);
    EXPECT_EQ(0, VEXOCopyFileExI(request.src.c_str(), request.dst.c_str(), &opt, 1, 1, 1, nullptr));
    EXPECT_EQ(0640U, kit::statOf(request.dst).st_mode & 07777U);
    EXPECT_EQ(0, ::unlink(request.dst.c_str()));
    EXPECT_EQ(0, VEXOCopyFileI(request.src.c_str(), request.dst.c_str(), &opt, 1, 1));
    EXPECT_EQ(0640U, kit::statOf(request.dst).st_mode & 07777U);
    EXPECT_EQ(027U, ::umask(before));
    EXPECT_EQ(0, kit::Faults::count("VEXOACLEnforceInherit"));
    EXPECT_EQ(0, callsOf("VLIBCKernelAttrFcntl", request.src));
}

TEST_F(FileCopyAfterPlain, ReflinkDoorDoesThem) {
    request.cleanArchive = true;
    request.enforceInherit = true;
    request.clone = true;
    kit::Faults::add({.function = "VLIBCKernelAttrFcntl", .result = 0, .times = 0, .answers = true});
    kit::Faults::add({.function = "VEXOACLEnforceInherit", .result = 0, .times = 0, .answers = true});
    kit::Faults::record(true);
    const mode_t before = ::umask(077);
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 0666));
    EXPECT_EQ(0, copyThrough(Door::ex));
    EXPECT_EQ(077U, ::umask(before));
    EXPECT_EQ(0666U, kit::statOf(request.dst).st_mode & 07777U);
    EXPECT_EQ(1, callsOf("VLIBCKernelAttrFcntl", request.src));
    EXPECT_EQ(1, callsOf("VEXOACLEnforceInherit", request.dst));
}

} // namespace
} // namespace file_copy
