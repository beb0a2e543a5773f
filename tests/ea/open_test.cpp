// Opening a file's companions, in "@eaDir" and beside the file, and what opening them does to the file and the volume.
#include "ea/ea.h"

#include "tests/kit/behaviour.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/msdos_fs.h>
#include <string>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int kRead = O_RDONLY;
constexpr int kWrite = O_RDWR | O_CREAT;
constexpr const char *kStream = "VexoEAStream";

class Open : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, as which directories of companions are made";
        }
        kit::writeFile(path, "data");
        kit::PlatformDouble::setType(scratch.path(), 1);
        kit::Faults::record(true); // counts from here on
    }
    // Opens, closes, and tells whether it opened.
    bool opens(int nameMode, int oflag, int kind) {
        const int fd = VEXOEAOpen(nameMode, path.c_str(), kStream, oflag, kind);
        if (fd >= 0) {
            EXPECT_EQ(0, ::close(fd));
        }
        return fd >= 0;
    }
    mode_t mode(const std::string &of) const { return kit::statOf(of).st_mode & 07777; }
    int archived() const {
        const auto calls = kit::Faults::recorded();
        return static_cast<int>(std::count(calls.begin(), calls.end(), "VLIBCKernelAttrCall(" + path + ")"));
    }

    const std::string path = scratch / "file";
    const std::string directory = scratch / "@eaDir";
    const std::string companion = directory + "/file@VexoEAStream";
    const std::string beside = scratch / "._file";
};

TEST_F(Open, UnknownKindIsRefused) {
    EXPECT_FAILS(VEXOEAOpen(1, path.c_str(), kStream, kRead, 2), 0x0D00);
    EXPECT_FAILS(VEXOEAOpen(1, path.c_str(), kStream, kRead, -1), 0x0D00);
    EXPECT_STREQ("ea/ea_open.c", VLIBCErrorGetFile());
}

TEST_F(Open, NullIsRefusedAsMissing) {
    for (const int kind : {0, 1}) {
        errno = 0;
        EXPECT_FAILS(VEXOEAOpen(1, nullptr, kStream, kRead, kind), 0x0D00);
        EXPECT_EQ(ENOENT, errno);
        errno = 0;
        EXPECT_FAILS(VEXOEAOpen(1, path.c_str(), nullptr, kRead, kind), 0x0D00);
        EXPECT_EQ(ENOENT, errno);
        EXPECT_STREQ(kind == 0 ? "ea/ea_open_no_adfs.c" : "ea/ea_open.c", VLIBCErrorGetFile());
    }
    EXPECT_FAILS(VEXOEAOpenNoADFS(1, nullptr, kStream, kRead), 0x0D00);
}

TEST_F(Open, OverlongPathIsRefused) {
    const std::string longPath = "/" + std::string(4094, 'a');
    EXPECT_FAILS(VEXOEAOpen(1, longPath.c_str(), kStream, kWrite, 0), 0xC300);
}

TEST_F(Open, OverlongAppleDoubleNameIsRefused) {
    const std::string longName = scratch / std::string(254, 'n');
    EXPECT_FAILS(VEXOEAOpen(1, longName.c_str(), kStream, kWrite, 1), 0xC300);
    EXPECT_EQ(std::vector<std::string>{"file"}, kit::namesIn(scratch.path()));
}

TEST_F(Open, ReadingWhatIsMissingCreatesNothing) {
    EXPECT_FALSE(opens(1, kRead, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(opens(1, O_RDWR, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(opens(1, kRead, 1));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(std::vector<std::string>{"file"}, kit::namesIn(scratch.path()));
    EXPECT_EQ(0, archived());
}

TEST_F(Open, WritingCreatesDirectoryAndFile) {
    const mode_t before = ::umask(027);
    EXPECT_TRUE(opens(1, kWrite, 0));
    ::umask(before);
    EXPECT_EQ(0777u, mode(directory));
    EXPECT_TRUE(S_ISDIR(kit::statOf(directory).st_mode));
    EXPECT_EQ(0750u, mode(companion));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLSetEADirACL"));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Open, ExistingCompanionKeepsItsContent) {
    ASSERT_TRUE(opens(1, kWrite, 0));
    kit::writeFile(companion, "content");
    EXPECT_TRUE(opens(1, kWrite, 0));
    EXPECT_EQ("content", kit::readFile(companion));
}

TEST_F(Open, OlderLayoutCreatesBothDirectories) {
    EXPECT_TRUE(opens(0, kWrite, 0));
    EXPECT_EQ(0777u, mode(directory));
    EXPECT_EQ(0777u, mode(directory + "/file"));
    EXPECT_TRUE(kit::exists(directory + "/file/VexoEAStream"));
    EXPECT_EQ(2, kit::Faults::count("VEXOACLSetEADirACL"));
}

TEST_F(Open, DirectoryThatCannotBeMadeFailsTheOpen) {
    kit::Faults::fail("mkdir", ENOSPC);
    EXPECT_FAILS(VEXOEAOpen(1, path.c_str(), kStream, kWrite, 0), 0x3C00);
    EXPECT_FALSE(kit::exists(directory));
}

TEST_F(Open, FailingOpenKeepsErrno) {
    kit::Faults::fail("open", EDQUOT, companion);
    EXPECT_FALSE(opens(1, kWrite, 0));
    EXPECT_EQ(EDQUOT, errno);
    EXPECT_EQ(0, archived());
}

TEST_F(Open, WritingMarksTheFileForBackup) {
    ASSERT_TRUE(opens(1, kWrite, 0));
    EXPECT_EQ(1, archived());
    ASSERT_TRUE(opens(1, O_WRONLY, 0));
    EXPECT_EQ(2, archived());
    ASSERT_TRUE(opens(1, O_RDWR, 0));
    EXPECT_EQ(3, archived());
    ASSERT_TRUE(opens(1, kRead, 0));
    EXPECT_EQ(3, archived());
    ASSERT_TRUE(opens(1, kWrite, 1));
    EXPECT_EQ(4, archived());
    ASSERT_TRUE(opens(1, kRead, 1));
    EXPECT_EQ(4, archived());
}

TEST_F(Open, RefusedMarkIsTolerated) {
    kit::Faults::failAlways("VLIBCKernelAttrCall", EOPNOTSUPP);
    EXPECT_TRUE(opens(1, kWrite, 0));
    EXPECT_TRUE(opens(1, kWrite, 1));
    ASSERT_EQ(2u, kit::Log::lines().size()) << kit::Log::all();
    EXPECT_EQ(2, kit::Log::count(LOG_DEBUG, "Failed to set smb archive: Operation not supported")) << kit::Log::all();
    EXPECT_EQ("ea/ea_open_no_adfs.c", kit::Log::lines()[0].source);
    EXPECT_EQ("ea/ea_open.c", kit::Log::lines()[1].source);
}

TEST_F(Open, MarkingHandsOnTheResult) {
    EXPECT_EQ(0, EASetSmbArchive(path.c_str()));
    kit::Faults::add({.function = "VLIBCKernelAttrCall", .result = 7, .answers = true});
    EXPECT_EQ(7, EASetSmbArchive(path.c_str()));
    kit::Faults::fail("VLIBCKernelAttrCall", EACCES);
    EXPECT_EQ(-1, EASetSmbArchive(path.c_str()));
    EXPECT_EQ(EACCES, errno);
}

TEST_F(Open, FirstDescriptorIsHandedOutUnmarked) {
    kit::FatDouble::setVolume(scratch.path());
    kit::PlatformDouble::setType(scratch.path(), 0);
    kit::writeFile(beside, "");
    const int input = ::dup(0);
    ::close(0);
    const int fd = VEXOEAOpen(1, path.c_str(), kStream, O_RDWR, 1);
    ::close(0);
    ::dup2(input, 0);
    ::close(input);
    EXPECT_EQ(0, fd);
    EXPECT_EQ(0, archived());
    EXPECT_EQ(uint32_t{ATTR_ARCH}, kit::FatDouble::attributes(beside));
}

TEST_F(Open, AppleDoubleIsMadeBesideTheFile) {
    const mode_t before = ::umask(022);
    EXPECT_TRUE(opens(1, kWrite, 1));
    ::umask(before);
    EXPECT_EQ(0755u, mode(beside));
    EXPECT_FALSE(kit::exists(directory));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Open, ExistingAppleDoubleIsOpenedWithoutCreating) {
    kit::writeFile(beside, "content", 0600);
    EXPECT_TRUE(opens(1, kWrite | O_EXCL, 1));
    EXPECT_EQ("content", kit::readFile(beside));
}

TEST_F(Open, AppleDoubleIsCreatedOnlyWhereMissing) {
    kit::Faults::fail("open", EACCES, beside);
    EXPECT_FALSE(opens(1, kWrite, 1));
    EXPECT_EQ(EACCES, errno);
    EXPECT_FALSE(kit::exists(beside));
}

TEST_F(Open, AppleDoubleOnFatIsHidden) {
    kit::FatDouble::setVolume(scratch.path());
    kit::PlatformDouble::setType(scratch.path(), 0);
    EXPECT_TRUE(opens(1, kWrite, 1));
    EXPECT_EQ(uint32_t{ATTR_ARCH | ATTR_HIDDEN}, kit::FatDouble::attributes(beside));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Open, ExistingAppleDoubleOnFatIsHiddenByReadersToo) {
    kit::FatDouble::setVolume(scratch.path());
    kit::PlatformDouble::setType(scratch.path(), 0);
    kit::writeFile(beside, "");
    kit::FatDouble::setAttributes(beside, ATTR_SYS);
    EXPECT_TRUE(opens(1, kRead, 1));
    EXPECT_EQ(uint32_t{ATTR_SYS | ATTR_HIDDEN}, kit::FatDouble::attributes(beside));
    EXPECT_EQ(2, kit::Faults::count("ioctl"));
    EXPECT_TRUE(opens(1, kRead, 1)); // hidden already: only looked at
    EXPECT_EQ(3, kit::Faults::count("ioctl"));
}

TEST_F(Open, FailingFatAttributesDoNotFailTheOpen) {
    kit::FatDouble::setVolume(scratch.path());
    kit::PlatformDouble::setType(scratch.path(), 0);
    kit::Faults::fail("ioctl", EIO);
    EXPECT_TRUE(opens(1, kWrite, 1));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to get " + beside + " on FAT attributes. Input/output error"))
        << kit::Log::all();
    EXPECT_EQ(1u, kit::Log::lines().size());
    kit::Faults::fail("ioctl", EROFS, {}, 1);
    EXPECT_TRUE(opens(1, kWrite, 1));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to set " + beside + " on FAT attributes. Read-only file system"))
        << kit::Log::all();
    EXPECT_EQ("ea/ea_open.c", kit::Log::lines()[0].source);
}

TEST_F(Open, AppleDoubleOnExfatIsHidden) {
    kit::PlatformDouble::setType(scratch.path(), 18);
    kit::Faults::add({.function = "VLIBCKernelAttrFcntl", .result = 0, .path = beside, .times = 0, .answers = true});
    EXPECT_TRUE(opens(1, kWrite, 1));
    EXPECT_TRUE(opens(1, kRead, 1));
    EXPECT_EQ(2, kit::Faults::count("VLIBCKernelAttrFcntl"));
    EXPECT_EQ(0, kit::Faults::count("ioctl"));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Open, FailingExfatAttributeDoesNotFailTheOpen) {
    kit::PlatformDouble::setType(scratch.path(), 18);
    kit::Faults::fail("VLIBCKernelAttrFcntl", EINVAL);
    EXPECT_TRUE(opens(1, kWrite, 1));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to set " + beside + " on exFAT attributes. Invalid argument"))
        << kit::Log::all();
}

TEST_F(Open, UnknownVolumeTypeIsLogged) {
    kit::PlatformDouble::setType(scratch.path(), -1, EIO);
    EXPECT_TRUE(opens(1, kWrite, 1));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to get " + path + " FSTYPE.")) << kit::Log::all();
}

TEST_F(Open, OtherVolumesHideNothing) {
    for (const int type : {1, 2, 3, 5, 7, 12}) {
        kit::PlatformDouble::setType(scratch.path(), type);
        EXPECT_TRUE(opens(1, kWrite, 1));
    }
    EXPECT_EQ(0, kit::Faults::count("ioctl"));
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrFcntl"));
}

} // namespace
