// Running programs, string lists, directories, btrfs settings, share encryption.
#include "platform/core.h"
#include "platform/sdk.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Exec : public kit::Behaviour {};

TEST_F(Exec, AnswersTheExitStatus) {
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "exit 0", nullptr));
    EXPECT_EQ(7, VLIBCExec("/bin/sh", "-c", "exit 7", nullptr));
}

TEST_F(Exec, ArgumentsReachTheProgramAsTheyAre) {
    const std::string path = scratch / "a b;$(touch x)\n'\"";
    kit::writeFile(path, "x");
    EXPECT_EQ(0, VLIBCExec("/bin/rm", "-rf", path.c_str(), 0, 0));
    EXPECT_FALSE(kit::exists(path));
    EXPECT_TRUE(kit::namesIn(scratch.path()).empty());
    // Beyond the registers, and ended by an int in the list.
    EXPECT_EQ(9, VLIBCExec("/bin/sh", "-c", "exit $#", "sh", "1", "2", "3", "4", "5", "6", "7", "8", "9", 0));
}

TEST_F(Exec, ANullEndsTheArguments) {
    EXPECT_EQ(2, VLIBCExec("/bin/sh", "-c", "exit $#", "sh", "1", "2", nullptr, "3", nullptr));
}

TEST_F(Exec, WhatCannotRunFails) {
    EXPECT_EQ(-1, VLIBCExec((scratch / "none").c_str(), nullptr));
    EXPECT_EQ(ENOENT, errno);
    kit::writeFile(scratch / "data", "x", 0644);
    EXPECT_EQ(-1, VLIBCExec((scratch / "data").c_str(), nullptr));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, VLIBCExec(nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(Exec, DeathByASignalFails) {
    EXPECT_EQ(-1, VLIBCExec("/bin/sh", "-c", "kill -9 $$", nullptr));
    EXPECT_EQ(EINTR, errno);
}

TEST_F(Exec, ASignalDoesNotEndTheWait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &before)); // without SA_RESTART
    const std::string command = "kill -USR1 " + std::to_string(::getpid()) + "; sleep 0.1; exit 3";
    EXPECT_EQ(3, VLIBCExec("/bin/sh", "-c", command.c_str(), nullptr));
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(Exec, TheProgramStartsClean) {
    const int fd = ::open("/dev/null", O_RDONLY); // not close-on-exec
    ASSERT_LE(3, fd);
    ::signal(SIGPIPE, SIG_IGN);
    const std::string command = "[ ! -e /proc/self/fd/" + std::to_string(fd) +
                                " ] && ! read line && (kill -PIPE $(exec sh -c 'echo $PPID'); exit 5)";
    EXPECT_EQ(128 + SIGPIPE, VLIBCExec("/bin/sh", "-c", command.c_str(), nullptr));
    ::signal(SIGPIPE, SIG_DFL);
    ::close(fd);
}

class Lists : public kit::Behaviour {};

TEST_F(Lists, KeepCopiesAndGrow) {
    VLIBCSzList *list = VLIBCSzListAlloc(1);
    ASSERT_NE(nullptr, list);
    for (int at = 0; at < 1000; ++at) {
        std::string text = "item " + std::to_string(at);
        ASSERT_EQ(at, VLIBCSzListPush(&list, text.c_str()));
    }
    EXPECT_EQ(1000, list->count);
    EXPECT_STREQ("item 0", VLIBCSzListGet(list, 0));
    EXPECT_STREQ("item 999", VLIBCSzListGet(list, 999));
    EXPECT_EQ(nullptr, VLIBCSzListGet(list, 1000));
    EXPECT_EQ(nullptr, VLIBCSzListGet(list, -1));
    VLIBCSzListRemoveAll(list);
    EXPECT_EQ(0, list->count);
    EXPECT_EQ(nullptr, VLIBCSzListGet(list, 0));
    EXPECT_EQ(0, VLIBCSzListPush(&list, "again"));
    VLIBCSzListFree(list);
}

TEST_F(Lists, OddArgumentsAreRefused) {
    VLIBCSzList *list = VLIBCSzListAlloc(0);
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(-1, VLIBCSzListPush(&list, nullptr));
    EXPECT_EQ(0, VLIBCSzListPush(&list, ""));
    EXPECT_EQ(-1, VLIBCSzListPush(nullptr, "x"));
    VLIBCSzList *none = nullptr;
    EXPECT_EQ(-1, VLIBCSzListPush(&none, "x"));
    EXPECT_EQ(nullptr, VLIBCSzListGet(nullptr, 0));
    VLIBCSzListRemoveAll(nullptr);
    VLIBCSzListFree(nullptr);
    VLIBCSzListFree(list);
}

TEST_F(Lists, OutOfMemoryLeavesTheList) {
    VLIBCSzList *list = VLIBCSzListAlloc(1);
    ASSERT_EQ(0, VLIBCSzListPush(&list, "one"));
    if (!kit::Faults::failAllocation(1)) {
        VLIBCSzListFree(list);
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(-1, VLIBCSzListPush(&list, "two"));
    EXPECT_EQ(ENOMEM, errno);
    kit::Faults::reset();
    EXPECT_EQ(1, list->count);
    EXPECT_STREQ("one", VLIBCSzListGet(list, 0));
    VLIBCSzListFree(list);
}

class Directories : public kit::Behaviour {};

TEST_F(Directories, AreToldFromOtherThings) {
    kit::writeFile(scratch / "file", "x");
    ASSERT_EQ(0, ::symlink(".", (scratch / "link").c_str()));
    EXPECT_EQ(1, VLIBCFileCheckDir(scratch.path().c_str()));
    EXPECT_EQ(1, VLIBCFileCheckDir((scratch / "link").c_str()));
    EXPECT_EQ(0, VLIBCFileCheckDir((scratch / "file").c_str()));
    EXPECT_EQ(0, VLIBCFileCheckDir((scratch / "none").c_str()));
    EXPECT_EQ(0, VLIBCFileCheckDir(nullptr));
}

TEST_F(Directories, SizeIsTheBytesOfTheFiles) {
    kit::writeFile(scratch / "one", std::string(1000, 'x'));
    kit::writeSparse(scratch / "sparse", off_t{3} << 30, {});
    std::filesystem::create_directories(scratch / "a/b/c");
    kit::writeFile(scratch / "a/b/c/two", std::string(23, 'x'));
    ASSERT_EQ(0, ::symlink("/", (scratch / "root").c_str()));
    ASSERT_EQ(0, ::mkfifo((scratch / "pipe").c_str(), 0600));
    EXPECT_EQ((int64_t{3} << 30) + 1023, VLIBGetFullDirSize(scratch.path().c_str()));
    EXPECT_EQ(1000, VLIBGetFullDirSize((scratch / "one").c_str()));
    EXPECT_EQ(0, VLIBGetFullDirSize((scratch / "root").c_str()));
}

TEST_F(Directories, SizeOfWhatIsNotThereFails) {
    EXPECT_EQ(-1, VLIBGetFullDirSize((scratch / "none").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VLIBGetFullDirSize(nullptr));
    EXPECT_EQ(-1, VLIBGetFullDirSize(""));
}

TEST_F(Directories, SizeOfADeepTreeNeedsFewDescriptors) {
    std::string path = scratch.path();
    for (int depth = 0; depth < 200; ++depth) {
        path += "/directory";
        ASSERT_EQ(0, ::mkdir(path.c_str(), 0755));
        kit::writeFile(path + "/file", "12345");
    }
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit few{24, 24};
        ::setrlimit(RLIMIT_NOFILE, &few);
        ::_exit(VLIBGetFullDirSize(scratch.path().c_str()) == 1000 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST_F(Directories, SizeOfAnUnreadableTreeFails) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    ::chmod(scratch.path().c_str(), 0755);
    ASSERT_EQ(0, ::mkdir((scratch / "closed").c_str(), 0700));
    const pid_t child = ::fork();
    if (child == 0) {
        const bool refused =
            ::setuid(65534) == 0 && VLIBGetFullDirSize(scratch.path().c_str()) == -1 && errno == EACCES;
        ::_exit(refused ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

class Btrfs : public kit::Behaviour {};

TEST_F(Btrfs, SettingsAreEqualWhereTheyAreEqual) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 128 << 20));
    processAsNow();
    const std::string plain = volume / "plain", packed = volume / "packed", nocow = volume / "nocow";
    for (const std::string &path : {plain, packed, nocow}) {
        ASSERT_EQ(0, ::mkdir(path.c_str(), 0755));
    }
    EXPECT_EQ(0, VLIBFSGetBTRFSCompression(plain.c_str()));
    EXPECT_EQ(0, VLIBFSGetBTRFSNodatacow(plain.c_str()));
    kit::setAttribute(packed, "btrfs.compression", "zstd");
    const int zstd = VLIBFSGetBTRFSCompression(packed.c_str());
    EXPECT_LT(0, zstd);
    kit::writeFile(packed + "/inside", "x");
    EXPECT_EQ(zstd, VLIBFSGetBTRFSCompression((packed + "/inside").c_str()));
    kit::setAttribute(packed, "btrfs.compression", "lzo");
    EXPECT_LT(0, VLIBFSGetBTRFSCompression(packed.c_str()));
    EXPECT_NE(zstd, VLIBFSGetBTRFSCompression(packed.c_str()));
    const int fd = ::open(nocow.c_str(), O_RDONLY | O_CLOEXEC);
    long flags = FS_NOCOW_FL; // as wide as the request says, though the kernel takes an int
    ASSERT_EQ(0, ::ioctl(fd, FS_IOC_SETFLAGS, &flags));
    ::close(fd);
    EXPECT_EQ(1, VLIBFSGetBTRFSNodatacow(nocow.c_str()));
    EXPECT_EQ(-1, VLIBFSGetBTRFSNodatacow((volume / "none").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VLIBFSGetBTRFSCompression((volume / "none").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Btrfs, OtherVolumesHaveNoSuchSettings) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    EXPECT_EQ(-1, VLIBFSGetBTRFSCompression(volume.path().c_str()));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(-1, VLIBFSGetBTRFSNodatacow(volume.path().c_str()));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(-1, VLIBFSGetBTRFSCompression(nullptr));
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
