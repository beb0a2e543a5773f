// A destination that exists: replaced, left, refused, or given another name.
#include "tests/copy/file_copy_support.h"

#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

namespace file_copy {
namespace {

class FileCopyConflict : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        other = to + "/other.bin";
    }
    void destinationExists() const { kit::writeFile(request.dst, "there"); }
    void expectDestinationStayed() const { EXPECT_EQ("there", kit::readFile(request.dst)); }
    // A rename callback that gives `name`.
    void renameTo(std::string name) {
        callbacks.rename = [this, name](const char *dst, char *out, int size) {
            ++asked;
            EXPECT_EQ(request.dst, dst);
            EXPECT_EQ(4096, size);
            std::snprintf(out, static_cast<size_t>(size), "%s", name.c_str());
            return 0;
        };
    }

    std::string other;
    int asked = 0;
};
INSTANTIATE_TEST_SUITE_P(, FileCopyConflict, kDoors, doorName);

TEST_P(FileCopyConflict, LeftAloneByDefault) {
    destinationExists();
    EXPECT_EQ(0, copy());
    expectDestinationStayed();
    expectSourceIntact();
    expectNotReported();
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
    expectNoErrorLogged(source());
}

TEST_P(FileCopyConflict, Refused) {
    destinationExists();
    request.overwrite = -1;
    expectFailed(copy(), 0xA300);
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    expectDestinationStayed();
    expectSourceIntact();
    expectNoErrorLogged(source());
}

TEST_P(FileCopyConflict, ReplacedAndCutToLength) {
    kit::writeFile(request.dst, std::string(90000, 'o'));
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    expectCopied();
    expectSourceIntact();
}

TEST_P(FileCopyConflict, ReplacingNeedsNoName) {
    destinationExists();
    request.overwrite = 1;
    renameTo(other);
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ(0, asked);
}

TEST_P(FileCopyConflict, NoConflictNeedsNoName) {
    for (const int overwrite : {-1, 0, 1}) {
        request.overwrite = overwrite;
        renameTo(other);
        EXPECT_EQ(0, copy());
        expectCopied();
        EXPECT_EQ(0, asked);
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyConflict, PolicyOutsideTheThreeLeavesTheDestination) {
    if (GetParam() == Door::fileOp) {
        GTEST_SKIP() << "the flag word has no such policy";
    }
    destinationExists();
    for (const int overwrite : {2, -2, 100}) {
        request.overwrite = overwrite;
        EXPECT_EQ(0, copy());
        expectDestinationStayed();
    }
    expectNotReported();
}

TEST_P(FileCopyConflict, CallbackGivesTheNewPlace) {
    destinationExists();
    for (const int overwrite : {0, -1}) { // the callback goes before the refusal
        asked = 0;
        request.overwrite = overwrite;
        renameTo(other);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(1, asked);
        expectCopied(other);
        expectDestinationStayed();
        ASSERT_EQ(0, ::unlink(other.c_str()));
    }
    expectSourceIntact();
    expectNotReported();
}

TEST_P(FileCopyConflict, EverythingFollowsToTheNewPlace) {
    FILE_COPY_NEEDS_ROOT();
    destinationExists();
    timespec times[2] = {{1000000000, 0}, {1100000000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 0604));
    renameTo(other);
    EXPECT_EQ(0, copy());
    const auto made = kit::statOf(other);
    EXPECT_EQ(0604U, made.st_mode & 07777U);
    EXPECT_EQ(1100000000, made.st_mtim.tv_sec);
    EXPECT_EQ(1024U, made.st_uid);
    EXPECT_NE(1100000000, kit::statOf(request.dst).st_mtim.tv_sec);
}

TEST_P(FileCopyConflict, FailureAtTheNewPlaceRemovesThatOnly) {
    destinationExists();
    renameTo(other);
    kit::Faults::fail("write", ENOSPC, other);
    expectFailed(copy(), 0x2900);
    EXPECT_FALSE(kit::exists(other));
    expectDestinationStayed();
    expectSourceIntact();
}

TEST_P(FileCopyConflict, CallbackThatFailsFailsTheCopy) {
    for (const int answer : {-1, 1, 4096}) {
        destinationExists();
        callbacks.reports.clear();
        callbacks.rename = [answer](const char *, char *, int) { return answer; };
        expectFailed(copy(), 0x0800);
        EXPECT_EQ(source(), VLIBCErrorGetFile());
        expectDestinationStayed();
    }
    expectSourceIntact();
}

TEST_P(FileCopyConflict, SecondConflictFails) {
    destinationExists();
    kit::writeFile(other, "other");
    renameTo(other);
    expectFailed(copy(), 0x0800);
    EXPECT_EQ(1, asked);
    expectDestinationStayed();
    EXPECT_EQ("other", kit::readFile(other));
    EXPECT_EQ((std::vector<std::string>{"other.bin", "target.bin"}), kit::namesIn(to));
}

// Names that make no sense are refused and destroy nothing.
TEST_P(FileCopyConflict, CallbackThatGivesTheSourceFails) {
    destinationExists();
    renameTo(request.src);
    expectFailed(copy(), 0x0800);
    expectSourceIntact();
    expectDestinationStayed();
}

TEST_P(FileCopyConflict, CallbackThatGivesTheSameNameFails) {
    destinationExists();
    renameTo(request.dst);
    expectFailed(copy(), 0x0800);
    EXPECT_EQ(1, asked);
    expectDestinationStayed();
}

TEST_P(FileCopyConflict, CallbackThatGivesADirectoryFails) {
    destinationExists();
    renameTo(to);
    expectFailed(copy(), 0x0800);
    expectDestinationStayed();
}

TEST_P(FileCopyConflict, CallbackThatGivesNothingFails) {
    destinationExists();
    callbacks.rename = [](const char *, char *, int) { return 0; };
    EXPECT_EQ(-1, copy());
    EXPECT_NE(0U, VLIBCErrGet());
    EXPECT_EQ(1U, callbacks.reports.size());
    expectDestinationStayed();
    expectSourceIntact();
}

TEST_P(FileCopyConflict, CallbackThatFillsTheWholeBufferFails) {
    destinationExists();
    callbacks.rename = [](const char *, char *out, int size) {
        std::memset(out, 'x', static_cast<size_t>(size)); // no terminating NUL
        return 0;
    };
    EXPECT_EQ(-1, copy());
    EXPECT_NE(0U, VLIBCErrGet());
    EXPECT_EQ(1U, callbacks.reports.size());
    expectDestinationStayed();
    expectSourceIntact();
}

TEST_P(FileCopyConflict, StockCallbackCounts) {
    request.dst = to + "/a.txt";
    destinationExists();
    callbacks.rename = [](const char *dst, char *out, int size) { return Default_GenerateNewName(dst, out, size); };
    EXPECT_EQ(0, copy());
    expectCopied(to + "/a (1).txt");
    EXPECT_EQ(0, copy());
    expectCopied(to + "/a (2).txt");
    expectDestinationStayed();
    EXPECT_EQ((std::vector<std::string>{"a (1).txt", "a (2).txt", "a.txt"}), kit::namesIn(to));
}

// ---- The same file ----

TEST_P(FileCopyConflict, OntoItselfDoesNothing) {
    request.dst = request.src;
    kit::Faults::record(true);
    for (const int overwrite : {-1, 0, 1}) {
        request.overwrite = overwrite;
        EXPECT_EQ(0, copy());
    }
    EXPECT_EQ(0, callsOf("write", request.src));
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
    expectSourceIntact();
    expectNotReported();
}

TEST_P(FileCopyConflict, OntoAnotherNameOfItDoesNothing) {
    request.overwrite = 1;
    ASSERT_EQ(0, ::link(request.src.c_str(), request.dst.c_str()));
    EXPECT_EQ(0, copy());
    expectSourceIntact();
    ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    ASSERT_EQ(0, ::symlink(request.src.c_str(), request.dst.c_str()));
    EXPECT_EQ(0, copy());
    expectSourceIntact();
    EXPECT_TRUE(S_ISLNK(kit::statOf(request.dst).st_mode));
    expectNotReported();
}

// Where inode numbers prove nothing, the same path still is the same file.
TEST_P(FileCopyConflict, OntoItselfOnARemoteVolumeDoesNothing) {
    kit::PlatformDouble::setType(scratch.path(), 12);
    request.overwrite = 1;
    request.dst = request.src;
    EXPECT_EQ(0, copy());
    expectSourceIntact();
    request.dst = from + "/../from/./source.bin";
    EXPECT_EQ(0, copy());
    expectSourceIntact();
    request.dst = to + "/link";
    ASSERT_EQ(0, ::symlink(request.src.c_str(), request.dst.c_str()));
    EXPECT_EQ(0, copy());
    expectSourceIntact();
    expectNotReported();
}

// ---- Other kinds of destination ----

TEST_P(FileCopyConflict, DirectoryIsNotReplaced) {
    ASSERT_EQ(0, ::mkdir(request.dst.c_str(), 0755));
    kit::writeFile(request.dst + "/inside", "x");
    request.overwrite = 1;
    expectFailed(copy(), 0xA200);
    EXPECT_EQ("x", kit::readFile(request.dst + "/inside"));
}

TEST_P(FileCopyConflict, DirectoryIsAConflictLikeAnyOther) {
    ASSERT_EQ(0, ::mkdir(request.dst.c_str(), 0755));
    EXPECT_EQ(0, copy());
    expectNotReported();
    request.overwrite = -1;
    expectFailed(copy(), 0xA300);
    EXPECT_TRUE(S_ISDIR(kit::statOf(request.dst).st_mode));
}

TEST_P(FileCopyConflict, EmptyDirectoryIsNotRemoved) {
    ASSERT_EQ(0, ::mkdir(request.dst.c_str(), 0755));
    request.overwrite = 1;
    expectFailed(copy(), 0xA200);
    EXPECT_TRUE(kit::exists(request.dst));
}

TEST_P(FileCopyConflict, PipeThatNobodyReadsIsRefusedWithoutWaiting) {
    ASSERT_EQ(0, ::mkfifo(request.dst.c_str(), 0644));
    request.overwrite = 1;
    expectFailed(copy(), 0x8000);
    EXPECT_TRUE(S_ISFIFO(kit::statOf(request.dst).st_mode));
    expectSourceIntact();
}

TEST_P(FileCopyConflict, SocketIsToldAsAMissingDevice) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(request.dst.size(), sizeof address.sun_path);
    request.dst.copy(address.sun_path, request.dst.size());
    ASSERT_EQ(0, ::bind(socket, reinterpret_cast<sockaddr *>(&address), sizeof address));
    ::close(socket);
    request.overwrite = 1;
    expectFailed(copy(), 0x6C00);
    EXPECT_TRUE(S_ISSOCK(kit::statOf(request.dst).st_mode));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    expectSourceIntact();
}

TEST_P(FileCopyConflict, DeviceWithoutADriverIsToldAsThat) {
    KIT_NEEDS_ROOT("to make a device");
    ASSERT_EQ(0, ::mknod(request.dst.c_str(), S_IFCHR | 0644, makedev(511, 255)));
    request.overwrite = 1;
    expectFailed(copy(), 0x6C00);
    EXPECT_TRUE(S_ISCHR(kit::statOf(request.dst).st_mode));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    expectSourceIntact();
}

// What this call did not make, it does not remove.
TEST_P(FileCopyConflict, PipeIsRefusedAndStays) {
    ASSERT_EQ(0, ::mkfifo(request.dst.c_str(), 0644));
    const int reader = ::open(request.dst.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    request.overwrite = 1;
    expectFailed(copy(), 0x8000);
    ::close(reader);
    EXPECT_TRUE(S_ISFIFO(kit::statOf(request.dst).st_mode));
    expectSourceIntact();
    bool found = false;
    for (const kit::LogLine &line : kit::Log::lines()) {
        found = found ||
                (line.priority == LOG_ERR && line.source == source() &&
                 line.body.find(" open dst: [" + request.dst + "] is not a regular file [(") != std::string::npos &&
                 line.body.starts_with("[0x8000 " + source() + ":"));
    }
    EXPECT_TRUE(found) << kit::Log::all();
}

TEST_P(FileCopyConflict, DeviceIsRefusedAndStays) {
    ASSERT_EQ(0, ::symlink("/dev/null", request.dst.c_str()));
    request.overwrite = 1;
    expectFailed(copy(), 0x8000);
    EXPECT_TRUE(kit::exists(request.dst));
    EXPECT_TRUE(kit::exists("/dev/null"));
}

TEST_P(FileCopyConflict, LinkIsWrittenThrough) {
    kit::writeFile(other, "other");
    ASSERT_EQ(0, ::symlink("other.bin", request.dst.c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_EQ("other", kit::readFile(other));
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    expectCopied(other);
}

TEST_P(FileCopyConflict, DanglingLinkIsAConflict) {
    ASSERT_EQ(0, ::symlink("other.bin", request.dst.c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(other));
    request.overwrite = -1;
    expectFailed(copy(), 0xA300);
    EXPECT_FALSE(kit::exists(other));
}

} // namespace
} // namespace file_copy
