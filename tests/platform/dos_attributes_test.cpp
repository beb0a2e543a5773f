// DOS attributes and the creation time: the bytes in "user.DOSATTRIB", the extended stat over them, and the hooks in
// place of the kernel's interface.
#include "platform/core.h"

#include "support/fd.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

constexpr char kName[] = "user.DOSATTRIB";
constexpr uint32_t kEverything = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;

std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) {
        text.push_back(static_cast<char>(value));
    }
    return text;
}

// 2021-01-01 00:00:00 UTC is 132539328000000000 units of 100 ns since 1601: 0x01D6DFD10C358000.
constexpr time_t kNewYear = 1609459200;
const std::string kNewYearBytes = bytes({0x00, 0x80, 0x35, 0x0c, 0xd1, 0xdf, 0xd6, 0x01});

class DosAttributes : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        kit::writeFile(file, "content");
    }
    uint32_t word(const std::string &path) {
        VLIBCStat out{};
        EXPECT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &out));
        return out.attributes;
    }
    timespec created(const std::string &path) {
        VLIBCStat out{};
        EXPECT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &out));
        return out.createTime;
    }

    std::string file = scratch / "file";
};

TEST_F(DosAttributes, SettingTheArchiveBitWritesSambasVersionFive) {
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 514));
    EXPECT_EQ(bytes({0, 0, 5, 0, 5, 0, 0, 0, 1, 0, 0, 0, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
              kit::attribute(file, kName));
    EXPECT_EQ(VLIBC_ATTR_ARCHIVE, static_cast<int>(word(file)));
}

TEST_F(DosAttributes, ADirectorysRecordSaysSo) {
    ASSERT_EQ(0, VLIBCKernelAttrCall(scratch.path().c_str(), 515));
    EXPECT_EQ(bytes({0, 0, 5, 0, 5, 0, 0, 0, 1, 0, 0, 0, 0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
              kit::attribute(scratch.path(), kName));
    EXPECT_EQ(VLIBC_ATTR_HIDDEN, static_cast<int>(word(scratch.path())));
}

TEST_F(DosAttributes, EveryRequestOnADescriptorOpenForReadingWorks) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_LE(0, fd);
    EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x202));
    EXPECT_EQ(0x2u, word(file));
    EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x203));
    EXPECT_EQ(0x6u, word(file));
    EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x204));
    EXPECT_EQ(0xEu, word(file));
    EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x201));
    EXPECT_EQ(0xCu, word(file));
    EXPECT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 518));
    EXPECT_EQ(0x8u, word(file));
    EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, 515));
    EXPECT_EQ(0xCu, word(file));
    VLIBCStat out{};
    EXPECT_EQ(0, VLIBCFileFStat(fd, kEverything, &out, 0));
    EXPECT_EQ(0xCu, out.attributes);
    ::close(fd);
}

TEST_F(DosAttributes, LockIsTheReadOnlyAttributeAndSurvives) {
    EXPECT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 522));
    EXPECT_EQ(0x20u, word(file));
    EXPECT_EQ(0x01, kit::attribute(file, kName).at(12));
    const std::string moved = scratch / "moved";
    ASSERT_EQ(0, ::rename(file.c_str(), moved.c_str()));
    EXPECT_EQ(0x20u, word(moved));
    EXPECT_EQ(0644u, kit::statOf(moved).st_mode & 07777);
    EXPECT_EQ(0, VLIBCKernelAttrCall(moved.c_str(), 521));
    EXPECT_EQ(0u, word(moved));
}

TEST_F(DosAttributes, ClearingWhatIsNotSetWritesNothing) {
    EXPECT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 521));
    EXPECT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 518));
    EXPECT_EQ("", kit::attribute(file, kName));
}

TEST_F(DosAttributes, OtherCommandsAreRefused) {
    for (const int command : {0, 513, 516, 517, 519, 520, 523, -1}) {
        EXPECT_EQ(-1, VLIBCKernelAttrCall(file.c_str(), command)) << command;
        EXPECT_EQ(EINVAL, errno) << command;
    }
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    for (const int command : {0x200, 0x205, 514 + 0x1000, 518, -1}) {
        EXPECT_EQ(-1, VLIBCKernelAttrFcntl(fd, command)) << command;
        EXPECT_EQ(EINVAL, errno) << command;
    }
    ::close(fd);
}

TEST_F(DosAttributes, ErrnoIsTheKernels) {
    EXPECT_EQ(-1, VLIBCKernelAttrCall((scratch / "none").c_str(), 514));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VLIBCKernelAttrCall((file + "/below").c_str(), 514));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(-1, VLIBCKernelAttrCall(nullptr, 514));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, VLIBCKernelAttrFcntl(-1, 0x202));
    EXPECT_EQ(EBADF, errno);
    const std::string pipe = scratch / "pipe";
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    EXPECT_EQ(-1, VLIBCKernelAttrCall(pipe.c_str(), 514));
    EXPECT_EQ(EPERM, errno);
}

TEST_F(DosAttributes, ReadOnlyVolumeRefusesAChange) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 16 << 20));
    processAsNow();
    const std::string path = volume / "file";
    kit::writeFile(path, "x");
    ASSERT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 514));
    volume.setReadOnly(true);
    EXPECT_EQ(-1, VLIBCKernelAttrCall(path.c_str(), 515));
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ(0x2u, word(path));
}

TEST_F(DosAttributes, VolumeWithoutAttributesAnswersNotSupportedButIsUnlocked) {
    kit::Faults::failAlways("getxattr", EOPNOTSUPP);
    kit::Faults::failAlways("setxattr", EOPNOTSUPP);
    for (const int command : {514, 515, 518, 522}) {
        EXPECT_EQ(-1, VLIBCKernelAttrCall(file.c_str(), command)) << command;
        EXPECT_EQ(EOPNOTSUPP, errno) << command;
    }
    EXPECT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 521));
    EXPECT_EQ(0u, word(file));
}

TEST_F(DosAttributes, ARealVolumeWithoutAttributes) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    processAsNow();
    const std::string path = volume / "file";
    kit::writeFile(path, "x");
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(-1, VLIBCKernelAttrFcntl(fd, 0x201));
    EXPECT_EQ(EOPNOTSUPP, errno);
    ::close(fd);
    EXPECT_EQ(-1, VLIBCKernelAttrCall(path.c_str(), 514));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 521));
    EXPECT_EQ(0u, word(path));
    const timespec times[3] = {{1000000001, 0}, {1000000002, 0}, {1000000003, 0}};
    EXPECT_EQ(-1, VLIBCFileUTime(path.c_str(), 3, times));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(1000000002, kit::statOf(path).st_mtim.tv_sec);
    EXPECT_EQ(1000000001, created(path).tv_sec); // the oldest time there is
}

TEST_F(DosAttributes, AnotherUserMayNotChangeWhatHeMayNotWrite) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    ::chmod(scratch.path().c_str(), 0755);
    const pid_t child = ::fork();
    if (child == 0) {
        const bool refused = ::setuid(65534) == 0 && VLIBCKernelAttrCall(file.c_str(), 514) == -1 && errno == EACCES;
        ::_exit(refused ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST_F(DosAttributes, VersionFiveIsReadWithItsCreationTime) {
    kit::setAttribute(file, kName, bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0x26, 0, 0, 0}) + kNewYearBytes);
    EXPECT_EQ(0xEu, word(file));
    EXPECT_EQ(kNewYear, created(file).tv_sec);
    EXPECT_EQ(0, created(file).tv_nsec);
}

TEST_F(DosAttributes, OlderVersionsAreRead) {
    const std::string three = bytes({0, 0, 3, 0, 3, 0, 0, 0, 0x11, 0, 0, 0, 0x20, 0, 0, 0}) + std::string(20, '\x7f') +
                              kNewYearBytes + std::string(8, '\0');
    const std::string four =
        bytes({0, 0, 4, 0, 4, 0, 0, 0, 0x51, 0, 0, 0, 0x02, 0, 0, 0}) + std::string(8, '\x7f') + kNewYearBytes;
    const std::string withText = std::string("0x22") + bytes({0, 0, 4, 0, 4, 0, 0, 0, 0x51, 0, 0, 0, 0x22, 0, 0, 0}) +
                                 std::string(8, '\x7f') + kNewYearBytes;
    kit::setAttribute(file, kName, three);
    EXPECT_EQ(0x2u, word(file));
    EXPECT_EQ(kNewYear, created(file).tv_sec);
    kit::setAttribute(file, kName, four);
    EXPECT_EQ(0x4u, word(file));
    EXPECT_EQ(kNewYear, created(file).tv_sec);
    kit::setAttribute(file, kName, withText);
    EXPECT_EQ(0x6u, word(file));
    EXPECT_EQ(kNewYear, created(file).tv_sec);
    kit::setAttribute(file, kName, "0x27");
    EXPECT_EQ(0x2Eu, word(file));
}

TEST_F(DosAttributes, AnOlderVersionBecomesFiveWithAllItHad) {
    kit::setAttribute(file, kName,
                      bytes({0, 0, 4, 0, 4, 0, 0, 0, 0x51, 0, 0, 0, 0x03, 0, 0, 0}) + std::string(8, '\x7f') +
                          kNewYearBytes);
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 514));
    EXPECT_EQ(bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0x23, 0, 0, 0}) + kNewYearBytes,
              kit::attribute(file, kName));
}

TEST_F(DosAttributes, InvalidFieldsDoNotCount) {
    kit::setAttribute(file, kName, bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x10, 0, 0, 0, 0x26, 0, 0, 0}) + kNewYearBytes);
    EXPECT_EQ(0u, word(file));
    kit::setAttribute(file, kName, bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x01, 0, 0, 0, 0x26, 0, 0, 0}) + kNewYearBytes);
    EXPECT_EQ(0xEu, word(file));
    EXPECT_NE(kNewYear, created(file).tv_sec);
    const std::string none = bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0});
    for (const char fill : {'\0', '\xff'}) {
        kit::setAttribute(file, kName, none + std::string(8, fill));
        EXPECT_NEAR(static_cast<double>(::time(nullptr)), static_cast<double>(created(file).tv_sec), 600);
    }
}

TEST_F(DosAttributes, MalformedValuesAreNoRecord) {
    const std::string whole = bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0x26, 0, 0, 0}) + kNewYearBytes;
    for (size_t size = 0; size < 16; ++size) {
        kit::setAttribute(file, kName, whole.substr(0, size));
        EXPECT_EQ(0u, word(file)) << size;
    }
    for (size_t size = 16; size < whole.size(); ++size) {
        kit::setAttribute(file, kName, whole.substr(0, size));
        EXPECT_NE(kNewYear, created(file).tv_sec) << size;
    }
    for (const std::string &value :
         {std::string("0x"), std::string("0xzz"), std::string("0x123456789"), std::string(20, 'x'),
          std::string(127, 'x'), std::string(127, 'x') + '\0', std::string(1000, '\0'),
          bytes({0, 0, 6, 0, 6, 0}) + std::string(40, '\x22'), bytes({0, 0, 5, 0, 4, 0}) + std::string(40, '\x22')}) {
        kit::setAttribute(file, kName, value);
        EXPECT_EQ(0u, word(file)) << value.size();
    }
    // The next change makes a record of it.
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 514));
    EXPECT_EQ(24u, kit::attribute(file, kName).size());
    EXPECT_EQ(0x2u, word(file));
}

TEST_F(DosAttributes, TimesAreSetAndReadBack) {
    const timespec times[3] = {{1000000001, 123456789}, {1000000002, 987654321}, {1000000003, 555555599}};
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 515));
    ASSERT_EQ(0, VLIBCFileUTime(file.c_str(), 3, times));
    VLIBCStat out{};
    ASSERT_EQ(0, VLIBCFileStat(file.c_str(), kEverything, &out));
    EXPECT_EQ(1000000001, out.st.st_atim.tv_sec);
    EXPECT_EQ(123456789, out.st.st_atim.tv_nsec);
    EXPECT_EQ(1000000002, out.st.st_mtim.tv_sec);
    EXPECT_EQ(987654321, out.st.st_mtim.tv_nsec);
    EXPECT_EQ(1000000003, out.createTime.tv_sec);
    EXPECT_EQ(555555500, out.createTime.tv_nsec); // units of 100 ns
    EXPECT_EQ(0x4u, out.attributes);
}

// On a descriptor that is open for writing only, as the library has it.
TEST_F(DosAttributes, OpenFilesTakeTheSame) {
    const timespec times[3] = {{1000000001, 123456789}, {1000000002, 987654321}, {1000000003, 555555599}};
    const vexo::Fd open(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(open);
    EXPECT_EQ(0, VLIBCFileFUTime(open.get(), 3, times));
    EXPECT_EQ(0, VLIBCKernelAttrFCall(open.get(), 522)); // locked
    EXPECT_EQ(0, VLIBCKernelAttrFCall(open.get(), 514)); // archive
    VLIBCStat out{};
    ASSERT_EQ(0, VLIBCFileStat(file.c_str(), kEverything, &out));
    EXPECT_EQ(1000000001, out.st.st_atim.tv_sec);
    EXPECT_EQ(987654321, out.st.st_mtim.tv_nsec);
    EXPECT_EQ(1000000003, out.createTime.tv_sec);
    EXPECT_EQ(0x22u, out.attributes);
    EXPECT_EQ(0, VLIBCKernelAttrFCall(open.get(), 521));
    EXPECT_EQ(0x2u, word(file));
}

// All that a copy says of a new file, in one write.
TEST_F(DosAttributes, ANewFileIsCompletedAtOnce) {
    const timespec times[3] = {{1000000001, 123456789}, {1000000002, 987654321}, {kNewYear, 0}};
    const vexo::Fd open(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(open);
    EXPECT_EQ(0, VLIBCFileFComplete(-1, open.get(), S_IFREG, times, VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_LOCKED));
    EXPECT_EQ(bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0x21, 0, 0, 0}) + kNewYearBytes,
              kit::attribute(file, kName));
    EXPECT_EQ(1000000001, kit::statOf(file).st_atim.tv_sec);
    EXPECT_EQ(987654321, kit::statOf(file).st_mtim.tv_nsec);
}

TEST_F(DosAttributes, ACompletedFileGetsWhatOnlyTheSourcesRecordHas) {
    const timespec times[3] = {{1000000001, 0}, {1000000002, 0}, {kNewYear, 0}};
    const std::string source = scratch / "source";
    kit::writeFile(source, "x");
    // Read-only, hidden and offline: the first two are said by the caller, who does not say them.
    kit::setAttribute(source, kName,
                      bytes({0, 0, 5, 0, 5, 0, 0, 0, 1, 0, 0, 0, 3, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    const vexo::Fd from(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    const vexo::Fd to(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(0, VLIBCFileFComplete(from.get(), to.get(), S_IFREG, times, VLIBC_ATTR_ARCHIVE));
    EXPECT_EQ(bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0x20, 0x10, 0, 0}) + kNewYearBytes,
              kit::attribute(file, kName));
}

TEST_F(DosAttributes, ACompletedDirectorysRecordSaysSo) {
    const timespec times[3] = {{1, 0}, {2, 0}, {kNewYear, 0}};
    const vexo::Fd open(::open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(0, VLIBCFileFComplete(-1, open.get(), S_IFDIR | 0755, times, VLIBC_ATTR_ARCHIVE));
    EXPECT_EQ(bytes({0, 0, 5, 0, 5, 0, 0, 0, 0x11, 0, 0, 0, 0x30, 0, 0, 0}) + kNewYearBytes,
              kit::attribute(scratch.path(), kName));
    EXPECT_EQ(2, kit::statOf(scratch.path()).st_mtim.tv_sec);
}

TEST_F(DosAttributes, WhatCannotBeCompletedAtOnceIsRefused) {
    const timespec times[3] = {{1, 0}, {2, 0}, {kNewYear, 0}};
    const vexo::Fd open(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(-1, VLIBCFileFComplete(-1, -1, S_IFREG, times, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, VLIBCFileFComplete(-1, open.get(), S_IFREG, nullptr, 0));
    EXPECT_EQ(EFAULT, errno);
    const timespec before1601[3] = {{1, 0}, {2, 0}, {-20'000'000'000, 0}};
    EXPECT_EQ(-1, VLIBCFileFComplete(-1, open.get(), S_IFREG, before1601, 0));
    EXPECT_EQ(EINVAL, errno);
    kit::Faults::fail("fgetxattr", EIO, file);
    EXPECT_EQ(-1, VLIBCFileFComplete(open.get(), open.get(), S_IFREG, times, 0)); // the source's record cannot be read
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ("", kit::attribute(file, kName));
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 515));
    const std::string there = kit::attribute(file, kName);
    EXPECT_EQ(-1, VLIBCFileFComplete(-1, open.get(), S_IFREG, times, VLIBC_ATTR_ARCHIVE)); // not new
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(there, kit::attribute(file, kName));
}

TEST_F(DosAttributes, TheRecordIsTheAttributeOfThatNameAlone) {
    EXPECT_EQ(1, VLIBCFileIsRecord(kName));
    EXPECT_EQ(0, VLIBCFileIsRecord("user.DOSATTRIB2"));
    EXPECT_EQ(0, VLIBCFileIsRecord("user.dosattrib"));
    EXPECT_EQ(0, VLIBCFileIsRecord(""));
    EXPECT_EQ(0, VLIBCFileIsRecord(nullptr));
}

// By paths and by descriptors.
TEST_F(DosAttributes, ACarriedRecordAddsAndTakesNothingBack) {
    const auto record = [](int valid, int low, int high, const std::string &time) {
        return bytes({0, 0, 5, 0, 5, 0, 0, 0, valid, 0, 0, 0, low, high, 0, 0}) + time;
    };
    const std::string none(8, '\0');
    const std::string otherTime = bytes({0, 0x80, 0x35, 0x0c, 0xd1, 0xdf, 0xd5, 0x01});
    struct Row {
        std::string source, before, after;
    };
    const Row rows[] = {
        {record(1, 0x20, 0, none), record(0x10, 0, 0, kNewYearBytes), record(0x11, 0x20, 0, kNewYearBytes)},
        {record(0x10, 0, 0, otherTime), record(1, 2, 0, none), record(0x11, 2, 0, otherTime)},
        {record(0x11, 0x23, 0x10, otherTime), record(0x11, 4, 0x20, kNewYearBytes),
         record(0x11, 4, 0x30, kNewYearBytes)},
        {record(0x11, 0x23, 0x10, otherTime), "", record(0x11, 0x23, 0x10, otherTime)},
        {"", record(1, 2, 0, none), record(1, 2, 0, none)},
        {"garbage", record(1, 2, 0, none), record(1, 2, 0, none)},
        {"", "", ""},
    };
    for (const Row &row : rows) {
        for (const bool open : {false, true}) {
            const std::string source = scratch / "source";
            const std::string copy = scratch / "copy";
            for (const auto &[path, value] : {std::pair(source, row.source), std::pair(copy, row.before)}) {
                ::unlink(path.c_str());
                kit::writeFile(path, "x");
                if (!value.empty()) {
                    kit::setAttribute(path, kName, value);
                }
            }
            const vexo::Fd from(open ? ::open(source.c_str(), O_RDONLY | O_CLOEXEC) : -1);
            const vexo::Fd to(open ? ::open(copy.c_str(), O_WRONLY | O_CLOEXEC) : -1);
            EXPECT_EQ(0, VLIBCFileRecordCarry(source.c_str(), from.get(), copy.c_str(), to.get()));
            EXPECT_EQ(row.after, kit::attribute(copy, kName)) << (&row - rows) << open;
            EXPECT_EQ(row.source, kit::attribute(source, kName));
        }
    }
    EXPECT_EQ(-1, VLIBCFileRecordCarry(nullptr, -1, file.c_str(), -1));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, VLIBCFileRecordCarry((scratch / "none").c_str(), -1, file.c_str(), -1));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(DosAttributes, OpenFilesThatAreNoneAreRefused) {
    const timespec times[3] = {{1, 0}, {2, 0}, {3, 0}};
    EXPECT_EQ(-1, VLIBCFileFUTime(-1, 3, times));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, VLIBCFileFUTime(0, 3, nullptr));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, VLIBCFileFUTime(0, 1, times));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, VLIBCKernelAttrFCall(-1, 514));
    EXPECT_EQ(EBADF, errno);
    const vexo::Fd open(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(-1, VLIBCKernelAttrFCall(open.get(), 1));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(DosAttributes, AnOpenFileOnAVolumeWithoutThemIsUnlocked) {
    const vexo::Fd open(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    kit::Faults::failAlways("fgetxattr", EOPNOTSUPP);
    EXPECT_EQ(0, VLIBCKernelAttrFCall(open.get(), 521));
    EXPECT_EQ(-1, VLIBCKernelAttrFCall(open.get(), 522));
    EXPECT_EQ(EOPNOTSUPP, errno);
}

TEST_F(DosAttributes, ACreationTimeBefore1970Survives) {
    const timespec times[3] = {{5, 0}, {6, 0}, {-86400, 250000000}};
    ASSERT_EQ(0, VLIBCFileUTime(file.c_str(), 3, times));
    EXPECT_EQ(-86400, created(file).tv_sec);
    EXPECT_EQ(250000000, created(file).tv_nsec);
}

TEST_F(DosAttributes, TimesAreSetThoughTheVolumeKeepsNoCreationTime) {
    kit::Faults::failAlways("getxattr", EOPNOTSUPP);
    kit::Faults::failAlways("setxattr", EOPNOTSUPP);
    const timespec times[3] = {{1000000001, 0}, {1000000002, 0}, {1000000003, 0}};
    EXPECT_EQ(-1, VLIBCFileUTime(file.c_str(), 3, times));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(1000000001, kit::statOf(file).st_atim.tv_sec);
    EXPECT_EQ(1000000002, kit::statOf(file).st_mtim.tv_sec);
}

TEST_F(DosAttributes, BadTimesAreRefused) {
    const timespec beyond[3] = {{1, 0}, {2, 0}, {INT64_MAX, 0}};
    EXPECT_EQ(-1, VLIBCFileUTime(file.c_str(), 3, beyond));
    EXPECT_EQ(EINVAL, errno);
    const timespec before[3] = {{1, 0}, {2, 0}, {-11644473601, 0}};
    EXPECT_EQ(-1, VLIBCFileUTime(file.c_str(), 3, before));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("", kit::attribute(file, kName));
    EXPECT_EQ(-1, VLIBCFileUTime(file.c_str(), 1, before));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, VLIBCFileUTime(nullptr, 3, before));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, VLIBCFileUTime((scratch / "none").c_str(), 3, before));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(DosAttributes, TheStatIsTheKernels) {
    struct stat plain {};
    ASSERT_EQ(0, ::stat(file.c_str(), &plain));
    VLIBCStat out{};
    ASSERT_EQ(0, VLIBCFileStat(file.c_str(), VLIBC_STAT_BASIC, &out));
    EXPECT_EQ(plain.st_dev, out.st.st_dev);
    EXPECT_EQ(plain.st_ino, out.st.st_ino);
    EXPECT_EQ(plain.st_mode, out.st.st_mode);
    EXPECT_EQ(plain.st_nlink, out.st.st_nlink);
    EXPECT_EQ(plain.st_uid, out.st.st_uid);
    EXPECT_EQ(plain.st_gid, out.st.st_gid);
    EXPECT_EQ(plain.st_size, out.st.st_size);
    EXPECT_EQ(plain.st_blocks, out.st.st_blocks);
    EXPECT_EQ(plain.st_blksize, out.st.st_blksize);
    EXPECT_EQ(plain.st_ctim.tv_nsec, out.st.st_ctim.tv_nsec);
    struct stat device {};
    ASSERT_EQ(0, ::stat("/dev/null", &device));
    ASSERT_EQ(0, VLIBCFileStat("/dev/null", kEverything, &out));
    EXPECT_EQ(device.st_rdev, out.st.st_rdev);
}

TEST_F(DosAttributes, LinksAreFollowedOrNot) {
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 515));
    const std::string link = scratch / "link";
    ASSERT_EQ(0, ::symlink("file", link.c_str()));
    EXPECT_EQ(0x4u, word(link));
    VLIBCStat out{};
    ASSERT_EQ(0, VLIBCFileLStat(link.c_str(), kEverything, &out));
    EXPECT_TRUE(S_ISLNK(out.st.st_mode));
    EXPECT_EQ(0u, out.attributes);
}

TEST_F(DosAttributes, FailedStatLeavesTheRecord) {
    VLIBCStat out{};
    out.attributes = 77;
    EXPECT_EQ(-1, VLIBCFileStat((scratch / "none").c_str(), kEverything, &out));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VLIBCFileFStat(-1, kEverything, &out, 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, VLIBCFileStat(nullptr, kEverything, &out));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(77u, out.attributes);
}

TEST_F(DosAttributes, FatKeepsThemInTheDirectoryEntry) {
    KIT_REQUIRE(volume, kit::Volume::loop("vfat", 16 << 20));
    processAsNow();
    const std::string path = volume / "file";
    kit::writeFile(path, "x");
    EXPECT_EQ(0x2u, word(path)); // a new file of FAT is to be archived
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 515));
    EXPECT_EQ(0x6u, word(path));
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 518));
    EXPECT_EQ(0x2u, word(path));
    const timespec times[3] = {{1000000000, 0}, {1000000000, 0}, {1000000000, 0}};
    EXPECT_EQ(-1, VLIBCFileUTime(path.c_str(), 3, times));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(1000000000, kit::statOf(path).st_mtim.tv_sec);
}

class OnVolume : public DosAttributes, public ::testing::WithParamInterface<const char *> {};

TEST_P(OnVolume, AttributesAndCreationTimeAreKept) {
    KIT_REQUIRE(volume, kit::Volume::loop(GetParam(), std::string(GetParam()) == "xfs" ? 320 << 20 : 128 << 20));
    processAsNow();
    const std::string path = volume / "file";
    kit::writeFile(path, "x");
    EXPECT_NEAR(static_cast<double>(::time(nullptr)), static_cast<double>(created(path).tv_sec), 600);
    const timespec times[3] = {{1, 0}, {2, 0}, {kNewYear, 0}};
    EXPECT_EQ(0, VLIBCFileUTime(path.c_str(), 3, times));
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 522));
    EXPECT_EQ(0x20u, word(path));
    EXPECT_EQ(kNewYear, created(path).tv_sec);
}
INSTANTIATE_TEST_SUITE_P(Real, OnVolume, ::testing::Values("ext4", "btrfs", "xfs"),
                         [](const auto &volume) { return std::string(volume.param); });

} // namespace
