// Sources and destinations that cannot be opened, or are no regular files.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyOpen : public EveryDoor {
  protected:
    // The line about a destination that could not be opened, whatever file the last error was set in.
    bool loggedOpenOfDestination(const std::string &code, int number) const {
        const std::string end = "] open dst: [" + request.dst + "] is not a regular file [" + reason(number) + "]";
        for (const kit::LogLine &line : kit::Log::lines()) {
            if (line.priority == LOG_ERR && line.source == source() && line.body.starts_with("[" + code + " ") &&
                line.body.ends_with(end)) {
                return true;
            }
        }
        return false;
    }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyOpen, kDoors, doorName);

class FileCopySourceOpen : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(
    , FileCopySourceOpen,
    ::testing::Combine(kDoors, ::testing::Values(Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00}, Row{EHOSTDOWN, 0x1100},
                                                 Row{EACCES, 0x0300}, Row{ENOENT, 0x8000}, Row{EPERM, 0x8000},
                                                 Row{EMFILE, 0x8000}, Row{ELOOP, 0x8000}, Row{ENAMETOOLONG, 0x8000})),
    rowName);

TEST_P(FileCopySourceOpen, FailureEndsTheCopy) {
    kit::Faults::fail("open", row().number, request.src);
    expectFailed(copy(), row().code);
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    if (row().code == 0x8000) {
        expectLogged(source(), LOG_ERR, "failed to check [" + request.src + "] [" + reason(row().number) + "]");
    } else {
        expectNoErrorLogged(source());
    }
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopySourceOpen, FailedStatEndsTheCopy) {
    kit::Faults::fail("VLIBCFileFStat", row().number, request.src);
    expectFailed(copy(), row().code);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "stat src: [" + request.src + "] [" + reason(row().number) + "]"))
        << kit::Log::all();
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyOpen, DirectoryIsNoSource) {
    request.src = from;
    EXPECT_EQ(-1, copy());
    EXPECT_EQ(0x8000U, VLIBCErrGet());
    EXPECT_EQ((std::vector<Report>{{from, 0x8000}}), callbacks.reports);
    bool found = false;
    for (const kit::LogLine &line : kit::Log::lines()) {
        found = found || (line.priority == LOG_ERR && line.source == source() &&
                          line.body.starts_with("failed to check [" + from + "] [("));
    }
    EXPECT_TRUE(found) << kit::Log::all();
    expectNoDestination();
}

TEST_P(FileCopyOpen, PipeIsNoSource) {
    request.src = from + "/pipe";
    ASSERT_EQ(0, ::mkfifo(request.src.c_str(), 0644));
    const int writer = ::open(request.src.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(writer, 0);
    expectFailed(copy(), 0x8000);
    ::close(writer);
    EXPECT_TRUE(kit::exists(request.src));
    expectNoDestination();
}

TEST_P(FileCopyOpen, LinkedSourceIsItsTarget) {
    const std::string link = from + "/link";
    ASSERT_EQ(0, ::symlink("source.bin", link.c_str()));
    request.src = link;
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(S_ISREG(kit::statOf(request.dst).st_mode));
    expectCopied();
}

TEST_P(FileCopyOpen, DanglingSourceFails) {
    request.src = from + "/link";
    ASSERT_EQ(0, ::symlink("nowhere", request.src.c_str()));
    expectFailed(copy(), 0x8000);
    expectNoDestination();
}

TEST_P(FileCopyOpen, UnreadableSourceFailsForAnotherUser) {
    FILE_COPY_NEEDS_ROOT();
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 0600));
    {
        const AsUser user(kNobody);
        expectFailed(copy(), 0x0300);
    }
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyOpen, UnwritableDirectoryFailsForAnotherUser) {
    FILE_COPY_NEEDS_ROOT();
    ASSERT_EQ(0, ::chmod(to.c_str(), 0755));
    {
        const AsUser user(kNobody);
        expectFailed(copy(), 0x0300);
    }
    expectSourceIntact();
    expectNoDestination();
}

class FileCopyDestinationOpen : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(
    , FileCopyDestinationOpen,
    ::testing::Combine(kDoors, ::testing::Values(Row{EISDIR, 0xA200}, Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
                                                 Row{EPERM, 0x0300}, Row{EACCES, 0x0300}, Row{EINVAL, 0x0300},
                                                 Row{EROFS, 0x8400}, Row{ENOSPC, 0x2900}, Row{EHOSTDOWN, 0x1100},
                                                 Row{EDQUOT, 0x2400}, Row{ENAMETOOLONG, 0xC300})),
    rowName);

TEST_P(FileCopyDestinationOpen, FailureEndsTheCopy) {
    kit::Faults::fail("open", row().number, request.dst);
    expectFailed(copy(), row().code);
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    expectNoErrorLogged(source());
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyDestinationOpen, FailureLeavesAnExistingFileAlone) {
    kit::writeFile(request.dst, "there");
    request.overwrite = 1;
    kit::Faults::fail("open", row().number, request.dst);
    expectFailed(copy(), row().code);
    EXPECT_EQ("there", kit::readFile(request.dst));
}

class FileCopyDestinationOpenOther : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(, FileCopyDestinationOpenOther,
                         ::testing::Combine(kDoors, ::testing::Values(Row{ENOENT, 0x0900}, Row{EMFILE, 0x0900},
                                                                      Row{ETXTBSY, 0x0900}, Row{ENOTDIR, 0x0900},
                                                                      Row{EFBIG, 0x0900})),
                         rowName);

TEST_P(FileCopyDestinationOpenOther, FailureKeepsTheOpensCodeAndIsLogged) {
    kit::Faults::fail("open", row().number, request.dst);
    VLIBCErrSetEx(0x4321, "elsewhere", 7); // from an earlier call: not to be taken for this one's
    expectFailed(copy(), row().code);
    const std::string end = "] open dst: [" + request.dst + "] is not a regular file [" + reason(row().number) + "]";
    int found = 0;
    for (const kit::LogLine &line : kit::Log::lines()) {
        found += line.priority == LOG_ERR && line.source == source() && line.body.starts_with("[0x0900 copy/") &&
                         line.body.ends_with(end)
                     ? 1
                     : 0;
    }
    EXPECT_EQ(1, found) << kit::Log::all();
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyOpen, MissingParentFails) {
    request.dst = scratch / "none/target";
    expectFailed(copy(), 0x0900);
    EXPECT_TRUE(loggedOpenOfDestination("0x0900", ENOENT)) << kit::Log::all();
    expectSourceIntact();
}

TEST_P(FileCopyOpen, FileForParentFails) {
    kit::writeFile(scratch / "file", "x");
    request.dst = scratch / "file/target";
    expectFailed(copy(), 0x0900);
    EXPECT_TRUE(loggedOpenOfDestination("0x0900", ENOTDIR)) << kit::Log::all();
    EXPECT_EQ("x", kit::readFile(scratch / "file"));
}

// A destination that this call created does not stay behind when it cannot even be looked at.
TEST_P(FileCopyOpen, FailedStatOfTheDestinationRemovesIt) {
    kit::Faults::fail("fstat", EIO, request.dst);
    expectFailed(copy(), 0x6C00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "stat src: [" + request.dst + "] [" + reason(EIO) + "]")) << kit::Log::all();
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyOpen, ReadOnlyVolumeIsRefused) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    kit::writeFile(volume / "there", "there");
    volume.setReadOnly(true);
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    for (const std::string name : {"target", "there"}) {
        callbacks.reports.clear();
        request.overwrite = 1;
        request.dst = volume / name;
        expectFailed(copy(), 0x8400);
    }
    EXPECT_EQ("there", kit::readFile(volume / "there"));
    expectSourceIntact();
}

TEST_P(FileCopyOpen, SourceOnAReadOnlyVolumeIsCopied) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    request.src = volume / "source";
    kit::writeFile(request.src, content);
    volume.setReadOnly(true);
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    EXPECT_EQ(0, copy());
    expectCopied();
}

TEST_P(FileCopyOpen, VolumeWithoutInodesIsFull) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 16 << 20, "-N 16"));
    int made = 0;
    while (made < 1000) {
        const int fd = ::open((volume / ("f" + std::to_string(made))).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0) {
            break;
        }
        ::close(fd);
        ++made;
    }
    ASSERT_EQ(ENOSPC, errno);
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    request.dst = volume / "target";
    expectFailed(copy(), 0x2900);
    expectSourceIntact();
}

} // namespace
} // namespace file_copy
