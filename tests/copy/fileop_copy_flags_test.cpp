// The file-operation copy: what its flag word says, beyond what all copies have in common.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileOpFlags : public Scene {
  protected:
    void SetUp() override {
        Scene::SetUp();
        args = argsOf(request, callbacks);
        Callbacks::current() = &callbacks;
    }
    int copy(uint32_t flags) { return VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), flags, &args); }

    const std::string source = "copy/fileop_copy_file.c";
    VEXOCopyArgs args{};
};

TEST_F(FileOpFlags, WithoutAnyTheDestinationStays) {
    kit::writeFile(request.dst, "there");
    EXPECT_EQ(0, copy(0));
    EXPECT_EQ("there", kit::readFile(request.dst));
    expectNotReported();
}

TEST_F(FileOpFlags, RefusingGoesBeforeReplacing) {
    kit::writeFile(request.dst, "there");
    for (const uint32_t flags : {uint32_t{kFailIfExists}, kFailIfExists | kReplace}) {
        callbacks.reports.clear();
        expectFailed(copy(flags), 0xA300);
        EXPECT_EQ("there", kit::readFile(request.dst));
        callbacks.reports.clear();
        expectFailed(copy(flags | kMove), 0xA300);
        expectSourceIntact();
    }
}

TEST_F(FileOpFlags, ReplaceReplaces) {
    kit::writeFile(request.dst, "there");
    EXPECT_EQ(0, copy(kReplace));
    expectCopied();
}

TEST_F(FileOpFlags, MoveOntoAnExistingDestinationIsASuccessThatDoesNothing) {
    kit::writeFile(request.dst, "there");
    EXPECT_EQ(0, copy(kMove));
    EXPECT_EQ("there", kit::readFile(request.dst));
    expectSourceIntact();
}

TEST_F(FileOpFlags, UnknownFlagsAreNotRead) {
    EXPECT_EQ(0, copy(0xFFFFF800U | 128U));
    expectCopied();
    expectSourceIntact();
}

TEST_F(FileOpFlags, KeepOwnerAsAnotherUserIsSilentOrAnswered) {
    FILE_COPY_NEEDS_ROOT();
    ASSERT_EQ(0, ::chown(request.src.c_str(), 1234, 4321));
    const AsUser user(kNobody);
    EXPECT_EQ(0, copy(kKeepOwner));
    expectNoErrorLogged(source);
    expectCopied();
    EXPECT_FAILS(copy(kKeepOwner | kAsCaller | kReplace), 0xFA00);
    expectNoErrorLogged(source);
    expectCopied();
    expectNotReported();
}

TEST_F(FileOpFlags, AsCallerDoesNotBecomeRoot) {
    FILE_COPY_NEEDS_ROOT();
    const AsUser user(kNobody); // before calls are counted: it is one of them
    kit::Faults::record(true);
    (void)copy(kAsCaller);
    EXPECT_EQ(0, kit::Faults::count("seteuid"));
    EXPECT_EQ(1, callsOf("fchown", request.dst));
    EXPECT_EQ(1, callsOf("VLIBCFileUTime", request.dst));
}

TEST_F(FileOpFlags, AsCallerAnswersForAnOwnerThatWasNotSet) {
    FILE_COPY_NEEDS_ROOT();
    kit::Faults::fail("fchown", EIO, request.dst);
    EXPECT_FAILS(copy(kAsCaller), 0xFA00);
    expectLogged(source, LOG_ERR, "failed to fchown destination to uid=1024, gid=100, errno=5/Input/output error");
    EXPECT_EQ(source, VLIBCErrorGetFile());
    expectNotReported();
    kit::Faults::reset();
    EXPECT_EQ(0, copy(kAsCaller | kReplace));
}

TEST_F(FileOpFlags, CopyAclAndEnforceInheritAreFlags) {
    for (const char *function : {"VEXOACLCopy", "VEXOACLArchiveCopy", "VEXOACLEnforceInherit"}) {
        kit::Faults::add({.function = function, .result = 0, .times = 0, .answers = true});
    }
    EXPECT_EQ(0, copy(kReplace));
    EXPECT_EQ(0, kit::Faults::count("VEXOACLCopy"));
    EXPECT_EQ(0, kit::Faults::count("VEXOACLEnforceInherit"));
    EXPECT_EQ(0, copy(kReplace | kCopyAcl));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLCopy"));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLArchiveCopy"));
    EXPECT_EQ(0, kit::Faults::count("VEXOACLEnforceInherit"));
    EXPECT_EQ(0, copy(kReplace | kEnforceInherit));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLEnforceInherit"));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLCopy"));
}

TEST_F(FileOpFlags, EnforceInheritWorksWithoutARecord) {
    kit::Faults::failAlways("VEXOACLEnforceInherit", EPERM);
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kEnforceInherit, nullptr));
    expectLogged(source, LOG_ERR, "Failed to enforce ACL inheritance into [" + request.dst + "]");
}

TEST_F(FileOpFlags, CloneIsAFlag) {
    kit::PlatformDouble::setType(scratch.path(), 3);
    kit::Faults::add({.function = "ioctl", .error = ENOSPC, .path = request.dst, .times = 0});
    EXPECT_EQ(0, copy(0));
    expectFailed(copy(kClone | kReplace), 0x2900);
    kit::Faults::reset();
    expectSourceIntact();
}

TEST_F(FileOpFlags, MoveWorksWithoutARecord) {
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kMove, nullptr));
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
}

TEST_F(FileOpFlags, MoveAcrossVolumesWorksWithoutARecord) {
    kit::Faults::fail("rename", EXDEV, request.src);
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kMove, nullptr));
    kit::Faults::reset();
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
}

} // namespace
} // namespace file_copy
