// Without hooks the library makes the kernel's DOS-attribute calls itself, with these numbers and arguments.
#include "backup/backup.h"
#include "ea/ea.h"
#include "platform/core.h"
#include "tests/bare/bare_test.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

using bare::AttributeCall;
using bare::AttributeTrap;

class RawAttributeCalls : public bare::BareTest {
  protected:
    void SetUp() override {
        BareTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        path = directory + "/file";
        std::ofstream(path) << "data";
        std::filesystem::create_directory(directory + "/@eaDir"); // the library would make it as root
        std::ofstream(directory + "/@eaDir/file@VexoEAStream") << "";
    }
    // Opens and closes a companion; the descriptor it had, or -1.
    int open(int oflag, int kind) const {
        const int fd = VEXOEAOpen(1, path.c_str(), "VexoEAStream", oflag, kind);
        if (fd >= 0) {
            ::close(fd);
        }
        return fd;
    }

    std::string path;
};

TEST_F(RawAttributeCalls, ArchiveIsSetByCall803) {
    EXPECT_EQ(0, EASetSmbArchive(path.c_str()));
    EXPECT_EQ((std::vector<AttributeCall>{{path, -1, 514}}), AttributeTrap::calls());
    AttributeTrap::answer(5);
    EXPECT_EQ(5, EASetSmbArchive(path.c_str()));
    AttributeTrap::answer(0, ENOSYS);
    EXPECT_EQ(-1, EASetSmbArchive(path.c_str()));
    EXPECT_EQ(ENOSYS, errno);
}

TEST_F(RawAttributeCalls, WritingACompanionMarksTheUserFile) {
    EXPECT_GT(open(O_RDWR, 0), 0);
    EXPECT_GT(open(O_RDONLY, 0), 0);
    EXPECT_EQ((std::vector<AttributeCall>{{path, -1, 514}}), AttributeTrap::calls());
}

TEST_F(RawAttributeCalls, KernelWithoutTheCallIsTolerated) {
    AttributeTrap::answer(0, ENOSYS);
    EXPECT_GT(open(O_RDWR, 0), 0);
    bare::volumeType = 18;
    EXPECT_GT(open(O_RDWR | O_CREAT, 1), 0);
}

TEST_F(RawAttributeCalls, AppleDoubleOnExfatIsHiddenByFcntl515) {
    bare::volumeType = 18;
    std::ofstream(directory + "/._file") << "";
    const int fd = open(O_RDONLY, 1);
    EXPECT_GT(fd, 0);
    EXPECT_EQ((std::vector<AttributeCall>{{"", fd, 515}}), AttributeTrap::calls());
}

TEST_F(RawAttributeCalls, ArchiveIsClearedByFcntl513) {
    EXPECT_EQ(0, VEXOBackupCleanFileArchiveBit(path.c_str()));
    EXPECT_EQ(0, VEXOBackupCleanDirArchiveBit(directory.c_str()));
    ASSERT_EQ(2u, AttributeTrap::calls().size());
    EXPECT_EQ(0x201, AttributeTrap::calls()[0].command);
    EXPECT_EQ(0x201, AttributeTrap::calls()[1].command);
}

} // namespace
