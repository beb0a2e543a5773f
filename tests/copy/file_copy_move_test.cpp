// Moving: one rename inside a volume, a copy and the removal of the source across volumes.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyMove : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        request.move = true;
    }
    // As if the destination lay on another volume.
    void acrossVolumes() const { kit::Faults::fail("rename", EXDEV, request.src); }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyMove, kDoors, doorName);

TEST_P(FileCopyMove, InsideAVolumeIsOneRename) {
    timespec times[2] = {{1000000000, 123456789}, {1100000000, 987654321}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    const auto before = kit::statOf(request.src);
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, callsOf("rename", request.src));
    EXPECT_EQ(0, callsOf("open", request.src));
    EXPECT_EQ(0, callsOf("VLIBCFileUTime", request.dst));
    kit::Faults::reset();
    EXPECT_FALSE(kit::exists(request.src));
    const auto after = kit::statOf(request.dst);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_EQ(before.st_atim.tv_sec, after.st_atim.tv_sec);
    expectCopied();
    EXPECT_EQ((std::vector<Progress>{{20000, 0}}), callbacks.progress);
    expectNotReported();
}

TEST_P(FileCopyMove, EmptyFileReportsItsSizeOnce) {
    kit::writeFile(request.src, "");
    EXPECT_EQ(0, copy());
    EXPECT_EQ((std::vector<Progress>{{0, 0}}), callbacks.progress);
}

TEST_P(FileCopyMove, RenamedFileGetsTheStandardOwner) {
    FILE_COPY_NEEDS_ROOT();
    ASSERT_EQ(0, ::chown(request.src.c_str(), 1234, 4321));
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1024U, kit::statOf(request.dst).st_uid);
    EXPECT_EQ(100U, kit::statOf(request.dst).st_gid);
}

TEST_P(FileCopyMove, RenamedFileGetsTheOwnerAskedFor) {
    FILE_COPY_NEEDS_ROOT();
    request.uid = 2001;
    request.gid = 2002;
    EXPECT_EQ(0, copy());
    EXPECT_EQ(2001U, kit::statOf(request.dst).st_uid);
    EXPECT_EQ(2002U, kit::statOf(request.dst).st_gid);
}

TEST_P(FileCopyMove, RenamedFileKeepsItsOwnerWhenAsked) {
    FILE_COPY_NEEDS_ROOT();
    ASSERT_EQ(0, ::chown(request.src.c_str(), 1234, 4321));
    request.keepOwner = true;
    kit::Faults::failAlways("chown", EPERM); // not even tried
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1234U, kit::statOf(request.dst).st_uid);
    EXPECT_EQ(4321U, kit::statOf(request.dst).st_gid);
    EXPECT_EQ(0, kit::Faults::count("chown"));
}

TEST_P(FileCopyMove, VolumesWithoutOwnersKeepTheOwner) {
    FILE_COPY_NEEDS_ROOT();
    for (const int type : {0, 12, 18}) {
        kit::writeFile(request.src, content);
        kit::PlatformDouble::setType(scratch.path(), type);
        kit::Faults::reset();
        kit::Faults::failAlways("chown", EPERM);
        EXPECT_EQ(0, copy()) << type;
        EXPECT_EQ(0, kit::Faults::count("chown")) << type;
        expectCopied();
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyMove, OtherVolumesChangeTheOwner) {
    FILE_COPY_NEEDS_ROOT();
    for (const int type : {1, 2, 3, 5, 6, 7, 10, 19, 22}) {
        kit::writeFile(request.src, content);
        kit::PlatformDouble::setType(scratch.path(), type);
        EXPECT_EQ(0, copy()) << type;
        EXPECT_EQ(1024U, kit::statOf(request.dst).st_uid) << type;
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyMove, OwnerThatCannotBeSetIsLogged) {
    FILE_COPY_NEEDS_ROOT();
    request.uid = 2001;
    kit::Faults::fail("chown", EPERM, request.dst);
    const int result = copy();
    expectLogged(source(), LOG_ERR,
                 "failed to chown destination to uid=2001, gid=100, errno=1/Operation not permitted");
    if (GetParam() == Door::reentrant) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(0xFA00U, VLIBCErrGet());
    } else {
        EXPECT_EQ(0, result);
    }
    // The move itself is done, and nobody is told that it was not.
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ((std::vector<Progress>{{20000, 0}}), callbacks.progress);
    expectNotReported();
}

TEST_P(FileCopyMove, UnprivilegedCallerKeepsTheOwnerUnlessItIsToTry) {
    FILE_COPY_NEEDS_ROOT();
    ASSERT_EQ(0, ::chown(request.src.c_str(), kNobody, kNobody));
    kit::Faults::record(true);
    const AsUser user(kNobody);
    const int result = copy();
    if (GetParam() == Door::reentrant) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(0xFA00U, VLIBCErrGet());
        EXPECT_EQ(1, callsOf("chown", request.dst));
    } else {
        EXPECT_EQ(0, result);
        EXPECT_EQ(0, callsOf("chown", request.dst));
    }
    EXPECT_EQ(kNobody, kit::statOf(request.dst).st_uid);
    expectCopied();
}

TEST_P(FileCopyMove, ExistingDestinationStaysWhenThePolicySaysSo) {
    kit::writeFile(request.dst, "there");
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, callsOf("rename", request.src));
    EXPECT_EQ("there", kit::readFile(request.dst));
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
    expectSourceIntact();
    expectNotReported();
}

TEST_P(FileCopyMove, ExistingDestinationFailsWhenThePolicySaysSo) {
    kit::writeFile(request.dst, "there");
    request.overwrite = -1;
    expectFailed(copy(), 0xA300);
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    EXPECT_EQ("there", kit::readFile(request.dst));
    expectSourceIntact();
    expectNoErrorLogged(source());
}

TEST_P(FileCopyMove, ExistingDestinationIsReplacedWhenThePolicySaysSo) {
    kit::writeFile(request.dst, std::string(50000, 'o'));
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
}

TEST_P(FileCopyMove, PolicyOutsideTheThreeReplacesByRename) {
    if (GetParam() == Door::fileOp) {
        GTEST_SKIP() << "the flag word has no such policy";
    }
    kit::writeFile(request.dst, "there");
    request.overwrite = 2;
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
}

// A link to nowhere is no existing destination: the rename takes its place.
TEST_P(FileCopyMove, DanglingLinkIsReplaced) {
    request.overwrite = -1;
    ASSERT_EQ(0, ::symlink("nowhere", request.dst.c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(S_ISREG(kit::statOf(request.dst).st_mode));
    expectCopied();
}

TEST_P(FileCopyMove, MoveOntoADirectoryFails) {
    ASSERT_EQ(0, ::mkdir(request.dst.c_str(), 0755));
    request.overwrite = 1;
    expectFailed(copy(), 0xA200);
    expectSourceIntact();
    EXPECT_TRUE(S_ISDIR(kit::statOf(request.dst).st_mode));
}

TEST_P(FileCopyMove, MissingParentFails) {
    request.dst = scratch / "none/target";
    expectFailed(copy(), 0x0700);
    expectSourceIntact();
}

TEST_P(FileCopyMove, VanishedSourceFails) {
    ASSERT_EQ(0, ::unlink(request.src.c_str()));
    expectFailed(copy(), 0x0700);
    expectNoDestination();
}

TEST_P(FileCopyMove, OntoItselfKeepsTheFile) {
    request.dst = request.src;
    for (const int overwrite : {0, 1}) {
        request.overwrite = overwrite;
        EXPECT_EQ(0, copy());
        expectSourceIntact();
    }
}

// Two mounts of one volume refuse the rename, and yet both paths are the one file there is.
TEST_P(FileCopyMove, AcrossMountsOntoItselfKeepsTheFile) {
    request.overwrite = 1;
    ASSERT_EQ(0, ::link(request.src.c_str(), request.dst.c_str()));
    acrossVolumes();
    EXPECT_EQ(0, copy());
    expectSourceIntact();
    expectCopied();
    expectNotReported();
}

class FileCopyRenameErrors : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(
    , FileCopyRenameErrors,
    ::testing::Combine(kDoors, ::testing::Values(Row{EISDIR, 0xA200}, Row{EPERM, 0x0300}, Row{EACCES, 0x0300},
                                                 Row{EROFS, 0x0300}, Row{ENOENT, 0x0700}, Row{ENAMETOOLONG, 0xC300},
                                                 Row{ENOSPC, 0x2900}, Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
                                                 Row{EHOSTDOWN, 0x1100}, Row{EBUSY, 0x8000}, Row{ENOTEMPTY, 0x8000},
                                                 Row{EDQUOT, 0x8000}, Row{ENOTDIR, 0x8000}, Row{EINVAL, 0x8000})),
    rowName);

TEST_P(FileCopyRenameErrors, EndTheMove) {
    request.move = true;
    kit::Faults::fail("rename", row().number, request.src);
    expectFailed(copy(), row().code);
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    if (row().code == 0x8000) {
        expectLogged(source(), LOG_ERR,
                     "rename [" + request.src + "] to [" + request.dst + "] fail " + reason(row().number));
    } else {
        expectNoErrorLogged(source());
    }
    expectSourceIntact();
    expectNoDestination();
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
}

class FileCopyMovedStatErrors : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(, FileCopyMovedStatErrors,
                         ::testing::Combine(kDoors, ::testing::Values(Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
                                                                      Row{EHOSTDOWN, 0x1100}, Row{EACCES, 0x4321})),
                         rowName);

// The move is done by then: the file must stay where it is now.
TEST_P(FileCopyMovedStatErrors, FailTheCallAndKeepTheFile) {
    request.move = true;
    request.overwrite = 1;
    kit::Faults::failAlways("stat", row().number, request.dst);
    VLIBCErrSetEx(0x4321, "elsewhere", 7);
    expectFailed(copy(), row().code);
    kit::Faults::reset();
    expectLogged(source(), LOG_ERR,
                 "failed to get size of [" + request.dst + "], reason=[" + reason(row().number) + "]");
    expectCopied();
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
}

TEST_P(FileCopyMove, AcrossVolumesCopiesAndRemovesTheSource) {
    acrossVolumes();
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, callsOf("rename", request.src));
    EXPECT_EQ(1, callsOf("unlink", request.src) + callsOf("remove", request.src));
    kit::Faults::reset();
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ((std::vector<Progress>{{20000, 20000}}), callbacks.progress);
    expectNotReported();
}

TEST_P(FileCopyMove, AcrossVolumesTheSourceGoesLast) {
    acrossVolumes();
    request.copyAcl = true;
    for (const char *function : {"VEXOACLCopy", "VEXOACLArchiveCopy"}) {
        kit::Faults::add({.function = function, .result = 0, .times = 0, .answers = true});
    }
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const long gone = std::max(placeOf("unlink", request.src), placeOf("remove", request.src));
    EXPECT_LT(placeOf("VLIBCFileUTime", request.dst), gone);
    EXPECT_LT(placeOf("VEXOACLArchiveCopy", request.src), gone);
    EXPECT_GE(placeOf("VLIBCFileUTime", request.dst), 0);
    EXPECT_GE(placeOf("VEXOACLArchiveCopy", request.src), 0);
}

TEST_P(FileCopyMove, AcrossRealVolumesMoves) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    request.dst = volume / "target.bin";
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 0640));
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ(0640U, kit::statOf(request.dst).st_mode & 07777U);
}

TEST_P(FileCopyMove, AcrossVolumesAFullDiskKeepsTheSource) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 10));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    content = kit::pattern(1 << 20);
    kit::writeFile(request.src, content);
    request.dst = volume / "target.bin";
    expectFailed(copy(), 0x2900);
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyMove, AcrossVolumesOntoAReadOnlyVolumeKeepsTheSource) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    volume.setReadOnly(true);
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    request.dst = volume / "target.bin";
    EXPECT_EQ(-1, copy());
    // The kernel names the other volume or the read-only one first; both end the move.
    EXPECT_TRUE(VLIBCErrGet() == 0x8400U || VLIBCErrGet() == 0x0300U) << std::hex << VLIBCErrGet();
    EXPECT_EQ(1U, callbacks.reports.size());
    expectSourceIntact();
}

TEST_P(FileCopyMove, AcrossVolumesAFailureKeepsTheSource) {
    acrossVolumes();
    kit::Faults::fail("write", EIO, request.dst);
    expectFailed(copy(), 0x0600);
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyMove, AcrossVolumesAnExistingDestinationIsReplaced) {
    acrossVolumes();
    kit::writeFile(request.dst, std::string(50000, 'o'));
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
}

// What appears between the first look and the open is left alone, and so is the source.
TEST_P(FileCopyMove, AcrossVolumesADestinationThatAppearsStays) {
    kit::Faults::add({.function = "rename", .error = EXDEV, .path = request.src, .before = [this] {
                          kit::writeFile(request.dst, "there");
                      }});
    EXPECT_EQ(0, copy());
    kit::Faults::reset();
    EXPECT_EQ("there", kit::readFile(request.dst));
    expectSourceIntact();
    expectNotReported();
}

TEST_P(FileCopyMove, AcrossVolumesARenamedConflictMovesThere) {
    kit::Faults::add({.function = "rename", .error = EXDEV, .path = request.src, .before = [this] {
                          kit::writeFile(request.dst, "there");
                      }});
    const std::string other = to + "/other.bin";
    callbacks.rename = [&](const char *, char *out, int size) {
        std::snprintf(out, static_cast<size_t>(size), "%s", other.c_str());
        return 0;
    };
    EXPECT_EQ(0, copy());
    kit::Faults::reset();
    expectCopied(other);
    EXPECT_EQ("there", kit::readFile(request.dst));
    EXPECT_FALSE(kit::exists(request.src));
}

// Asked before the source is removed: the copy is whole by then and stays, the source too.
TEST_P(FileCopyMove, AcrossVolumesACancelBeforeTheEndKeepsBoth) {
    if (GetParam() == Door::reentrant) {
        GTEST_SKIP() << "asks its own poll at the blocks only";
    }
    acrossVolumes();
    int asked = 0;
    callbacks.isCancel = [&] { return ++asked > 1 ? 1 : 0; };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(2, asked);
    kit::Faults::reset();
    expectCopied();
    expectSourceIntact();
    expectNotReported();
}

TEST_P(FileCopyMove, AcrossVolumesACancelAtABlockKeepsTheSourceOnly) {
    acrossVolumes();
    callbacks.isCancel = [] { return 1; };
    EXPECT_EQ(0, copy());
    kit::Faults::reset();
    expectNoDestination();
    expectSourceIntact();
    expectNotReported();
}

// The data have arrived; only the owner has not.
TEST_P(FileCopyMove, AcrossVolumesAnOwnerThatCannotBeSetDoesNotKeepTheSource) {
    FILE_COPY_NEEDS_ROOT();
    acrossVolumes();
    kit::Faults::fail("fchown", EPERM, request.dst);
    const int result = copy();
    kit::Faults::reset();
    if (GetParam() == Door::reentrant) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(0xFA00U, VLIBCErrGet());
    } else {
        EXPECT_EQ(0, result);
    }
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
    expectNotReported();
}

} // namespace
} // namespace file_copy
