// The bytes: sizes, holes, sources that change, full disks, limits.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

constexpr int64_t kBlock = 8 << 20;
constexpr off_t kExempt = 128 << 20;

class FileCopyData : public EveryDoor {
  protected:
    void inPiecesOf(int64_t bytes) {
        callbacks.getReadSize = [bytes](int64_t, int64_t) { return bytes; };
    }
    void sourceIs(std::string text) {
        content = std::move(text);
        kit::writeFile(request.src, content);
    }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyData, kDoors, doorName);

TEST_P(FileCopyData, SizesAroundTheBlockAreCopied) {
    for (const int64_t size : {int64_t{1}, int64_t{4096}, kBlock - 1, kBlock, kBlock + 1}) {
        sourceIs(kit::pattern(static_cast<size_t>(size)));
        callbacks.progress.clear();
        EXPECT_EQ(0, copy()) << size;
        expectCopied();
        int64_t sum = 0;
        for (const auto &[bytes, offset] : callbacks.progress) {
            sum += bytes;
            EXPECT_EQ(sum, offset);
        }
        EXPECT_EQ(size, sum);
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyData, EmptyFileIsCopied) {
    sourceIs("");
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(request.dst));
    EXPECT_EQ(0, kit::statOf(request.dst).st_size);
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
}

TEST_P(FileCopyData, EmptyFileReplacesALongerOne) {
    sourceIs("");
    request.overwrite = 1;
    kit::writeFile(request.dst, "longer");
    EXPECT_EQ(0, copy());
    EXPECT_EQ("", kit::readFile(request.dst));
}

TEST_P(FileCopyData, ReadSizeIsTheCallers) {
    std::vector<Progress> asked;
    callbacks.getReadSize = [&](int64_t last, int64_t offset) {
        asked.emplace_back(last, offset);
        return int64_t{8000};
    };
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ((std::vector<Progress>{{8000, 8000}, {8000, 16000}, {4000, 20000}}), callbacks.progress);
    EXPECT_EQ((std::vector<Progress>{{0, 0}, {8000, 8000}, {8000, 16000}}), asked);
}

TEST_P(FileCopyData, NonsenseReadSizeIsReplaced) {
    for (const int64_t answer : {int64_t{0}, int64_t{-5}, int64_t{16} << 20, INT64_MIN, INT64_MAX}) {
        callbacks.progress.clear();
        inPiecesOf(answer);
        EXPECT_EQ(0, copy());
        EXPECT_EQ((std::vector<Progress>{{20000, 20000}}), callbacks.progress) << answer;
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyData, HolesStayHoles) {
    const off_t size = 3 << 20;
    kit::writeSparse(request.src, size, {{1 << 20, 65536}});
    content = kit::readFile(request.src);
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_LT(kit::statOf(request.dst).st_blocks * 512, size);
}

// The destination is opened between the look at the source and the data.
TEST_P(FileCopyData, SourceThatBecameSparseMeanwhileKeepsItsHoles) {
    sourceIs(kit::pattern(192 * 1024));
    kit::Faults::add({.function = "open", .path = request.dst, .before = [this] {
                          const int fd = ::open(request.src.c_str(), O_WRONLY | O_CLOEXEC);
                          ASSERT_EQ(0,
                                    ::fallocate(fd, FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE, 64 * 1024, 64 * 1024));
                          ::close(fd);
                      }});
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kit::readFile(request.src), kit::readFile(request.dst));
    EXPECT_EQ(kit::statOf(request.src).st_blocks, kit::statOf(request.dst).st_blocks);
}

TEST_P(FileCopyData, TrailingHoleKeepsTheLength) {
    kit::writeSparse(request.src, 3 << 20, {{0, 4096}});
    content = kit::readFile(request.src);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(3 << 20, kit::statOf(request.dst).st_size);
    expectCopied();
}

TEST_P(FileCopyData, FileOfOneHoleKeepsTheLength) {
    kit::writeSparse(request.src, 3 << 20, {});
    content = kit::readFile(request.src);
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ((std::vector<Progress>{{3 << 20, 3 << 20}}), callbacks.progress);
}

TEST_P(FileCopyData, ModeIsExactlyTheSources) {
    const mode_t before = ::umask(077);
    for (const mode_t mode : {0777U, 0666U, 0640U, 0604U, 0400U, 0200U, 0000U}) {
        if (::geteuid() != 0 && (mode & 0400U) == 0) {
            continue;
        }
        ASSERT_EQ(0, ::chmod(request.src.c_str(), mode));
        EXPECT_EQ(0, copy());
        EXPECT_EQ(mode, kit::statOf(request.dst).st_mode & 07777U);
        EXPECT_EQ(0, ::unlink(request.dst.c_str()));
    }
    EXPECT_EQ(077U, ::umask(before));
}

TEST_P(FileCopyData, UmaskIsZeroOnlyDuringTheCopy) {
    const mode_t before = ::umask(027);
    mode_t during = 0777;
    callbacks.onProgress = [&](int64_t, int64_t) {
        during = ::umask(0);
        ::umask(during);
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0U, during);
    EXPECT_EQ(027U, ::umask(027));
    kit::Faults::fail("write", EIO, request.dst);
    request.overwrite = 1;
    EXPECT_EQ(-1, copy());
    EXPECT_EQ(027U, ::umask(before));
}

// ---- Sources that change ----

TEST_P(FileCopyData, SourceThatShrinksFails) {
    inPiecesOf(4096);
    callbacks.onProgress = [this](int64_t, int64_t offset) {
        if (offset == 8192) {
            ASSERT_EQ(0, ::truncate(request.src.c_str(), 8192));
        }
    };
    expectFailed(copy(), 0x0A00);
    expectNoDestination();
    EXPECT_EQ(8192, kit::statOf(request.src).st_size);
}

TEST_P(FileCopyData, SourceThatGrowsIsCopiedAsItWas) {
    inPiecesOf(4096);
    callbacks.onProgress = [this](int64_t, int64_t offset) {
        if (offset == 4096) {
            const int fd = ::open(request.src.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
            ASSERT_EQ(5, ::write(fd, "extra", 5));
            ::close(fd);
        }
    };
    EXPECT_EQ(0, copy());
    expectCopied();
}

TEST_P(FileCopyData, SourceThatVanishesIsStillCopied) {
    inPiecesOf(4096);
    callbacks.onProgress = [this](int64_t, int64_t) { ::unlink(request.src.c_str()); };
    EXPECT_EQ(0, copy());
    expectCopied();
}

// ---- Failing transfers ----

class FileCopyTransferErrors : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(, FileCopyTransferErrors,
                         ::testing::Combine(kDoors, ::testing::Values(Row{EIO, 0x0600}, Row{EBADF, 0x0600},
                                                                      Row{ENXIO, 0x6C00}, Row{EFAULT, 0x0300},
                                                                      Row{EFBIG, 0xAA00}, Row{ENOSPC, 0x2900},
                                                                      Row{EHOSTDOWN, 0x1100}, Row{EDQUOT, 0x2400},
                                                                      Row{EINTR, 0x8000}, Row{EPERM, 0x8000})),
                         rowName);

TEST_P(FileCopyTransferErrors, OfAWriteRemoveTheDestination) {
    callbacks.getReadSize = [](int64_t, int64_t) { return int64_t{4096}; };
    kit::Faults::fail("write", row().number, request.dst, 2);
    expectFailed(copy(), row().code);
    EXPECT_EQ((std::vector<Progress>{{4096, 4096}, {4096, 8192}}), callbacks.progress);
    if (row().code == 0x8000) {
        const std::string loop = door() == Door::fileOp ? "copy/fileop_copy_file_fd.c" : "copy/copy_file_copy_fd.c";
        expectLogged(loop, LOG_ERR,
                     "Unable to writefile, errno=" + std::to_string(row().number) + "(" + std::strerror(row().number) +
                         ")");
    }
    expectSourceIntact();
    expectNoDestination();
}

// What was there is gone with the truncation: half a file must not take its place.
TEST_P(FileCopyTransferErrors, OfAWriteRemoveAReplacedDestination) {
    kit::writeFile(request.dst, "there");
    request.overwrite = 1;
    kit::Faults::fail("write", row().number, request.dst);
    expectFailed(copy(), row().code);
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyData, FailedReadRemovesTheDestination) {
    inPiecesOf(4096);
    kit::Faults::fail("read", EIO, request.src, 1);
    expectFailed(copy(), 0x0600);
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyData, FailedHolePunchRemovesTheDestination) {
    kit::writeSparse(request.src, 3 << 20, {{1 << 20, 65536}});
    content = kit::readFile(request.src);
    kit::Faults::failAlways("fallocate", EIO, request.dst);
    expectFailed(copy(), 0x2A00);
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyData, NoMemoryForTheBufferRemovesTheDestination) {
    sourceIs(kit::pattern(9 << 20));
    kit::Faults::onlyAllocationsFrom(1 << 20);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    const int result = copy();
    kit::Faults::reset();
    expectFailed(result, 0x0200);
    expectSourceIntact();
    expectNoDestination();
}

// ---- Room at the destination ----

TEST_P(FileCopyData, DiskThatFillsUpLeavesNoHalfFile) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    sourceIs(kit::pattern(2 << 20));
    inPiecesOf(65536);
    request.dst = volume / "target";
    expectFailed(copy(), 0x2900);
    EXPECT_GT(callbacks.progress.size(), 1U);
    EXPECT_TRUE(kit::namesIn(volume.path()).empty());
    expectSourceIntact();
}

TEST_P(FileCopyData, LargeFileIsRefusedBeforeItFillsTheDisk) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    kit::writeSparse(request.src, kExempt + 1, {{0, 4096}});
    request.dst = volume / "target";
    expectFailed(copy(), 0x2900);
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
    expectNoDestination();
}

TEST_P(FileCopyData, FileAtTheBoundIsNotChecked) {
    kit::writeSparse(request.src, kExempt, {});
    kit::Faults::failAlways("fstatfs", EIO, request.dst);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kExempt, kit::statOf(request.dst).st_size);
    expectNotReported();
}

TEST_P(FileCopyData, RemoteVolumeIsNotChecked) {
    kit::PlatformDouble::setType(to, 12);
    kit::writeSparse(request.src, kExempt + 1, {});
    kit::Faults::failAlways("fstatfs", EIO, request.dst);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kExempt + 1, kit::statOf(request.dst).st_size);
}

TEST_P(FileCopyData, UnknownRoomFails) {
    kit::writeSparse(request.src, kExempt + 1, {});
    kit::Faults::failAlways("fstatfs", EIO, request.dst);
    EXPECT_EQ(-1, copy());
    kit::Faults::reset();
    expectLogged(source(), LOG_ERR, "fstatfs failed. errno=5/Input/output error");
    EXPECT_EQ(1U, callbacks.reports.size());
    expectNoDestination();
}

// ---- What the destination's type asks for ----

class FileCopyFatNames : public EveryDoor {};
INSTANTIATE_TEST_SUITE_P(, FileCopyFatNames, kDoors, doorName);

TEST_P(FileCopyFatNames, ReservedCharactersAreReplaced) {
    for (const int type : {0, 18}) {
        kit::PlatformDouble::setType(to, type);
        request.dst = to + "/a:b?\"*<>\\|\n\r;=\x01.txt";
        EXPECT_EQ(0, copy()) << type;
        expectCopied(to + "/a-b---------;=\x01.txt");
        EXPECT_EQ(1U, kit::namesIn(to).size());
        ASSERT_EQ(0, ::unlink((to + "/a-b---------;=\x01.txt").c_str()));
    }
}

TEST_P(FileCopyFatNames, OtherVolumesKeepTheName) {
    for (const int type : {1, 2, 3, 5, 7, 12, 22}) {
        kit::PlatformDouble::setType(to, type);
        request.dst = to + "/a:b?.txt";
        EXPECT_EQ(0, copy()) << type;
        expectCopied();
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyFatNames, SourcesTypeDoesNotMatter) {
    kit::PlatformDouble::setType(from, 0);
    request.dst = to + "/a:b";
    EXPECT_EQ(0, copy());
    expectCopied();
}

TEST_P(FileCopyFatNames, ConflictIsLookedForUnderTheReplacedName) {
    kit::PlatformDouble::setType(to, 0);
    request.dst = to + "/a:b";
    kit::writeFile(to + "/a-b", "there");
    request.overwrite = -1;
    expectFailed(copy(), 0xA300);
    EXPECT_EQ("there", kit::readFile(to + "/a-b"));
    std::string asked;
    callbacks.rename = [&](const char *dst, char *, int) {
        asked = dst;
        return -1;
    };
    EXPECT_EQ(-1, copy());
    EXPECT_EQ(to + "/a-b", asked);
}

TEST_P(FileCopyFatNames, PathThatCannotBeReplacedFails) {
    const auto before = kit::ProcessState::now().workingDirectory;
    ASSERT_EQ(0, ::chdir(to.c_str()));
    kit::PlatformDouble::setType(".", 0);
    request.dst = "a:b";
    expectFailed(copy(), 0x8000);
    expectLogged(source(), LOG_ERR, "failed to replace FAT filename = a:b, reason=[0x0D00]");
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    EXPECT_TRUE(kit::namesIn(to).empty());
    ASSERT_EQ(0, ::chdir(before.c_str()));
}

class FileCopyFatSizes : public EveryDoor {
  protected:
    static constexpr off_t kLimit = off_t{1} << 32;
};
INSTANTIATE_TEST_SUITE_P(, FileCopyFatSizes, kDoors, doorName);

TEST_P(FileCopyFatSizes, FileOverTheLimitIsRefusedBeforeTheDestinationIsMade) {
    kit::PlatformDouble::setType(to, 0);
    for (const off_t size : {kLimit + 1, kLimit + (kLimit >> 2)}) {
        callbacks.reports.clear();
        kit::writeSparse(request.src, size, {});
        kit::Faults::record(true);
        expectFailed(copy(), 0xA400);
        EXPECT_EQ(0, callsOf("open", request.dst));
        kit::Faults::reset();
        expectNoDestination();
    }
}

TEST_P(FileCopyFatSizes, RefusalLeavesAnExistingFileAlone) {
    kit::PlatformDouble::setType(to, 0);
    kit::writeFile(request.dst, "there");
    kit::writeSparse(request.src, kLimit + 1, {});
    request.overwrite = 1;
    expectFailed(copy(), 0xA400);
    EXPECT_EQ("there", kit::readFile(request.dst));
}

TEST_P(FileCopyFatSizes, FileAtTheLimitPasses) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(uint64_t{8} << 30));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 0);
    kit::writeSparse(request.src, kLimit, {{kLimit - 4096, 4096}});
    request.dst = volume / "target";
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kLimit, kit::statOf(request.dst).st_size);
    ASSERT_EQ(1U, kit::extentsOf(request.dst).size());
}

TEST_P(FileCopyFatSizes, OtherTypesHaveNoLimit) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(uint64_t{8} << 30));
    processAsNow();
    for (const int type : {1, 18, 22}) {
        kit::PlatformDouble::setType(volume.path(), type);
        kit::writeSparse(request.src, kLimit + 1, {});
        request.dst = volume / "target";
        EXPECT_EQ(0, copy()) << type;
        EXPECT_EQ(kLimit + 1, kit::statOf(request.dst).st_size);
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

} // namespace
} // namespace file_copy
