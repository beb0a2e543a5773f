// Copies that share the source's extents, where both volumes are btrfs.
#include "tests/copy/file_copy_support.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

namespace file_copy {
namespace {

class FileCopyClone : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        kit::PlatformDouble::setType(scratch.path(), 3);
        request.clone = true;
    }
    // The clone request answers this; the data of a "successful" one stay away, so that a copy would be seen.
    void cloneAnswers(int number) const {
        kit::Faults::add({.function = "ioctl",
                          .error = number,
                          .result = number == 0 ? 0 : -1,
                          .path = request.dst,
                          .times = 0,
                          .answers = true});
        kit::Faults::record(true);
    }
    long clones() const { return callsOf("ioctl", request.dst); }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyClone, ::testing::Values(Door::ex, Door::fileOp), doorName);

TEST_P(FileCopyClone, CloneTakesThePlaceOfTheTransfer) {
    FILE_COPY_NEEDS_ROOT();
    cloneAnswers(0);
    bool called = false;
    callbacks.readWriteData = [&](const char *, const char *, int *, int *, int64_t) {
        called = true;
        return 0;
    };
    request.copyAcl = true;
    kit::Faults::failAlways("VEXOACLCopy", EIO);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, clones());
    EXPECT_FALSE(called);
    EXPECT_EQ(0, callsOf("read", request.src));
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
    // What belongs to the file follows all the same.
    EXPECT_EQ(1, callsOf("fchown", request.dst));
    EXPECT_EQ(1, callsOf("VLIBCFileUTime", request.dst));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLCopy"));
    EXPECT_EQ(1024U, kit::statOf(request.dst).st_uid);
    EXPECT_EQ(0, kit::statOf(request.dst).st_size);
}

TEST_P(FileCopyClone, CloneOfALargeFileNeedsNoRoom) {
    kit::writeSparse(request.src, (128 << 20) + 1, {});
    cloneAnswers(0);
    kit::Faults::failAlways("fstatfs", EIO, request.dst);
    EXPECT_EQ(0, copy());
}

TEST_P(FileCopyClone, NotUnlessAsked) {
    request.clone = false;
    cloneAnswers(0);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, clones());
    kit::Faults::reset();
    expectCopied();
}

TEST_P(FileCopyClone, NotUnlessBothVolumesAreBtrfs) {
    for (const auto &[source, destination] : {std::pair{3, 2}, std::pair{2, 3}, std::pair{1, 1}}) {
        kit::PlatformDouble::setType(from, source);
        kit::PlatformDouble::setType(to, destination);
        kit::Faults::reset();
        cloneAnswers(0);
        request.overwrite = 1;
        EXPECT_EQ(0, copy());
        EXPECT_EQ(0, clones());
        kit::Faults::reset();
        expectCopied();
    }
}

TEST_P(FileCopyClone, FullDiskEndsTheCopy) {
    for (const auto &[number, code] : {std::pair{ENOSPC, 0x2900U}, std::pair{EDQUOT, 0x2400U}}) {
        kit::Faults::reset();
        callbacks.reports.clear();
        cloneAnswers(number);
        expectFailed(copy(), code);
        EXPECT_EQ(source(), VLIBCErrorGetFile());
        kit::Faults::reset();
        expectNoDestination();
        expectSourceIntact();
    }
}

TEST_P(FileCopyClone, OtherRefusalsFallBackSilently) {
    for (const int number : {EOPNOTSUPP, EXDEV, EINVAL, ENOTTY, EIO, EPERM}) {
        kit::Faults::reset();
        request.overwrite = 1;
        cloneAnswers(number);
        EXPECT_EQ(0, copy()) << std::strerror(number);
        EXPECT_EQ(1, clones());
        kit::Faults::reset();
        expectCopied();
    }
    expectNoErrorLogged(source());
    expectNotReported();
}

class FileCopyCloneMove : public FileCopyClone {};
INSTANTIATE_TEST_SUITE_P(, FileCopyCloneMove, kDoors, doorName);

TEST_P(FileCopyCloneMove, MoveTriesAClone) {
    request.clone = false;
    request.move = true;
    kit::Faults::fail("rename", EXDEV, request.src);
    cloneAnswers(EOPNOTSUPP);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, clones());
    kit::Faults::reset();
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
}

TEST_P(FileCopyCloneMove, FullDiskKeepsTheSourceOfAMove) {
    request.clone = false;
    request.move = true;
    kit::Faults::fail("rename", EXDEV, request.src);
    cloneAnswers(ENOSPC);
    expectFailed(copy(), 0x2900);
    kit::Faults::reset();
    expectNoDestination();
    expectSourceIntact();
}

TEST_P(FileCopyClone, OnBtrfsTheExtentsAreShared) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 256 << 20));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 3);
    request.src = volume / "source";
    request.dst = volume / "target";
    content = kit::pattern(3 << 20);
    kit::writeFile(request.src, content);
    timespec times[2] = {{1000000000, 0}, {1100000000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, callsOf("write", request.dst));
    kit::Faults::reset();
    expectCopied();
    EXPECT_EQ(1100000000, kit::statOf(request.dst).st_mtim.tv_sec);
}

TEST_P(FileCopyClone, BetweenBtrfsVolumesTheDataAreCopied) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 256 << 20));
    KIT_REQUIRE(second, kit::Volume::loop("btrfs", 256 << 20));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 3);
    kit::PlatformDouble::setType(second.path(), 3);
    request.src = volume / "source";
    request.dst = second / "target";
    kit::writeFile(request.src, content);
    EXPECT_EQ(0, copy());
    expectCopied();
}

} // namespace
} // namespace file_copy
