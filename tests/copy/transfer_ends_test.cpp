// Copying between descriptors where an end is not a file on a volume of the kernel's own, or both are one file: the
// bytes are those that a read and a write of each block move, and a failure that is told once is not lost.
#include "copy/copy.h"

#include "tests/copy/failing_volume.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int64_t kKibibyte = 1024;
constexpr int64_t kSize = 300'000; // more than one block of the smallest that the kernel might move

class Ends : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        kit::writeFile(source(), content);
    }
    std::string source() const { return scratch / "source"; }
    int openSource() const { return ::open(source().c_str(), O_RDONLY | O_CLOEXEC); }
    static int copy(int from, int to, int64_t size = kSize) {
        const int result = VEXOCopyFileFd(from, to, size, nullptr, nullptr);
        ::close(from);
        ::close(to);
        return result;
    }
    // Changes every byte of the source in place.
    void changeSource() const {
        const int fd = ::open(source().c_str(), O_WRONLY | O_CLOEXEC);
        const std::string other = kit::pattern(kSize, 77);
        ASSERT_EQ(kSize, ::pwrite(fd, other.data(), other.size(), 0));
        ::close(fd);
    }

    const std::string content = kit::pattern(kSize);
};

// ---- Failures that are told once

class FailingEnd : public Ends {
  protected:
    void SetUp() override {
        Ends::SetUp();
        try {
            volume.emplace();
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        processMayChange(); // the volume's descriptor stays open until it is gone
    }
    // Each block reaches the volume as one request. (Of a write in several requests the kernel tells a failure behind
    // the first as a short one.)
    static int64_t block(void *, int64_t, int64_t) { return kBlock; }
    static int64_t block(int64_t, int64_t) { return kBlock; }
    static constexpr int64_t kBlock = 100'000;

    std::optional<kit::FailingVolume> volume;
};

TEST_F(FailingEnd, WriteThatFailsOnceFailsTheCopy) {
    for (int nth = 0; nth < 3; ++nth) {
        SCOPED_TRACE(nth);
        const std::string to = *volume / "file";
        volume->failWrite(ENOSPC, nth);
        VLIBCErrSetEx(0, "", 0);
        const int from = openSource();
        const int fd = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        VEXOCopyArgsEx ex = {};
        ex.getReadSize = block;
        EXPECT_FAILS(VEXOCopyFileFdEx(from, fd, kSize, nullptr, nullptr, &ex), 0x2900);
        ::close(from);
        ::close(fd);
    }
}

TEST_F(FailingEnd, MoveKeepsTheSourceWhenAnEarlierBlockWasLost) {
    constexpr int kKeepsNothing = 4;
    for (const bool fileOperation : {false, true}) {
        const std::string to = *volume / "file";
        volume->loseWrite(0);
        VEXOCopyArgs args = {};
        args.fsTypeSrc = args.fsTypeDst = kKeepsNothing;
        args.getReadSize = block;
        VEXOCopyArgsEx ex = {};
        ex.getReadSize = block;
        VEXOCopyOpt options = {};
        options.overwrite = 1;
        options.move = 1;
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(fileOperation ? VEXOFileOpCopyFile(source().c_str(), to.c_str(), 2 | 4, &args)
                                   : VEXOCopyFileExI(source().c_str(), to.c_str(), &options, kKeepsNothing,
                                                     kKeepsNothing, 1, &ex),
                     0x0600);
        EXPECT_EQ(content, kit::readFile(source()));
        EXPECT_FALSE(kit::exists(to));
    }
}

TEST_F(FailingEnd, NothingIsMovedInTheKernelThere) {
    const std::string to = *volume / "file";
    kit::Faults::record(true);
    EXPECT_EQ(0, copy(openSource(), ::open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
    EXPECT_EQ(content, kit::readFile(to));
    EXPECT_EQ(0, copy(::open(to.c_str(), O_RDONLY | O_CLOEXEC),
                      ::open((scratch / "back").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
    EXPECT_EQ(content, kit::readFile(scratch / "back"));
    KIT_REQUIRE(plain, kit::Volume::plain());
    processAsNow();
    EXPECT_EQ(0, copy(openSource(), ::open((plain / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
    EXPECT_EQ(content, kit::readFile(plain / "file"));
    EXPECT_EQ(0, kit::Faults::count("sendfile"));
}

TEST_F(Ends, AppendedBytesGoToTheEnd) {
    const std::string to = scratch / "log";
    kit::writeFile(to, "before ");
    kit::Faults::record(true);
    EXPECT_EQ(0, copy(openSource(), ::open(to.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)));
    EXPECT_EQ("before " + content, kit::readFile(to));
    EXPECT_EQ(0, kit::Faults::count("sendfile"));
}

// ---- One file at both ends

TEST_F(Ends, OverlappingRangesMoveBlockByBlock) {
    for (const off_t shift : {off_t{1}, off_t{4096}, off_t{100'000}}) {
        for (const int64_t block : {int64_t{100'000}, int64_t{200'000}}) {
            SCOPED_TRACE(std::to_string(shift) + " in blocks of " + std::to_string(block));
            std::string expected = content;
            for (int64_t at = 0; at < kSize; at += block) {
                const std::string piece = expected.substr(static_cast<size_t>(at), static_cast<size_t>(block));
                const auto to = static_cast<size_t>(at + shift);
                expected.resize(std::max(expected.size(), to + piece.size()));
                expected.replace(to, piece.size(), piece);
            }
            expected.resize(static_cast<size_t>(kSize + shift));
            kit::writeFile(source(), content);
            const int from = openSource();
            const int to = ::open(source().c_str(), O_WRONLY | O_CLOEXEC);
            ::lseek(to, shift, SEEK_SET);
            static int64_t asked;
            asked = block;
            VEXOCopyArgsEx ex = {};
            ex.getReadSize = [](int64_t, int64_t) { return asked; };
            EXPECT_EQ(0, VEXOCopyFileFdEx(from, to, kSize, nullptr, nullptr, &ex));
            ::close(from);
            ::close(to);
            EXPECT_TRUE(expected == kit::readFile(source()));
        }
    }
}

TEST_F(Ends, OneDescriptorAtBothEndsDoublesTheFile) {
    for (const bool duplicate : {false, true}) {
        kit::writeFile(source(), content + std::string(kSize, 'x'));
        const int fd = ::open(source().c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(0, copy(fd, duplicate ? ::fcntl(fd, F_DUPFD_CLOEXEC, 0) : fd));
        EXPECT_TRUE(content + content == kit::readFile(source()));
    }
}

// ---- Pipes and sockets

std::string readAll(int fd, size_t size) {
    std::string got(size, '\0');
    size_t done = 0;
    while (done < size) {
        const ssize_t more = ::read(fd, got.data() + done, size - done);
        if (more <= 0) {
            break;
        }
        done += static_cast<size_t>(more);
    }
    got.resize(done);
    return got;
}

TEST_F(Ends, PipeHoldsTheBytesAsTheyWereRead) {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    if (::fcntl(ends[1], F_SETPIPE_SZ, 1024 * kKibibyte) < 0) {
        ::close(ends[0]);
        ::close(ends[1]);
        GTEST_SKIP() << "no pipe of this size";
    }
    EXPECT_EQ(0, copy(openSource(), ends[1]));
    changeSource();
    EXPECT_TRUE(content == readAll(ends[0], kSize));
    ::close(ends[0]);
}

TEST_F(Ends, SocketHoldsTheBytesAsTheyWereRead) {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
    const int room = 100 * 1024;
    ::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    constexpr int64_t kFits = 80 * kKibibyte;
    EXPECT_EQ(0, copy(openSource(), ends[1], kFits));
    changeSource();
    EXPECT_TRUE(content.substr(0, kFits) == readAll(ends[0], kFits));
    ::close(ends[0]);
}

// A connection of this machine with itself: {one end, the other}.
std::array<int, 2> connected() {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int server = -1;
    if (::bind(listener, any, size) == 0 && ::listen(listener, 1) == 0 && ::getsockname(listener, any, &size) == 0 &&
        ::connect(client, any, size) == 0) {
        server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    }
    ::close(listener);
    return {client, server};
}

TEST_F(Ends, ConnectionThatWasResetIsToldAsThat) {
    EXPECT_TRUE(kit::holdsInChild([this] {
        const auto [client, server] = connected();
        ASSERT_GE(server, 0);
        const linger hard = {1, 0};
        ASSERT_EQ(0, ::setsockopt(server, SOL_SOCKET, SO_LINGER, &hard, sizeof hard));
        ::close(server);
        EXPECT_FAILS(copy(openSource(), client), 0x8000);
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Unable to writefile, errno=104(Connection reset by peer)"))
            << kit::Log::all();
    }));
}

// The process waits for something inside a system call.
bool sleeps(pid_t process) {
    const std::string line = kit::readFile("/proc/" + std::to_string(process) + "/stat");
    const size_t name = line.rfind(')');
    return name != std::string::npos && line.compare(name, 3, ") S") == 0;
}

// A process that sends SIGALRM to `process` when that waits for something, and a second one when it still does after so
// long that it waits for ever.
pid_t signalsWhenAsleep(pid_t process) {
    const pid_t sender = ::fork();
    if (sender == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (!sleeps(process)) {
            ::usleep(1000);
        }
        ::kill(process, SIGALRM);
        for (int seconds = 0; seconds < 300; ++seconds) {
            ::sleep(1);
        }
        ::kill(process, SIGALRM);
        ::_exit(0);
    }
    return sender;
}

TEST_F(Ends, OneSignalEndsABlockedWrite) {
    EXPECT_TRUE(kit::holdsInChild([this] {
        std::array<int, 2> ends{};
        ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK));
        while (::write(ends[1], "x", 1) == 1) {
        }
        ASSERT_EQ(0, ::fcntl(ends[1], F_SETFL, O_WRONLY));
        static int signals;
        struct sigaction action = {};
        action.sa_handler = [](int) {
            if (++signals > 1) {
                ::_exit(3); // the first did not end it
            }
        };
        ::sigaction(SIGALRM, &action, nullptr);
        const pid_t sender = signalsWhenAsleep(::getpid());
        ASSERT_LT(0, sender);
        EXPECT_FAILS(copy(openSource(), ends[1]), 0x8000);
        ::kill(sender, SIGKILL);
        ::waitpid(sender, nullptr, 0);
        EXPECT_EQ(1, signals);
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Unable to writefile, errno=4(Interrupted system call)"))
            << kit::Log::all();
    }));
}

// Whether this thread lets a signal through.
bool isBlocked(int signal) {
    sigset_t now;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &now);
    return ::sigismember(&now, signal) == 1;
}

// A write to a file is never interrupted, but the kernel's move of a block is, by handlers without SA_RESTART.
TEST_F(Ends, SignalsWaitForTheEndOfABlockThatTheKernelMoves) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1024 * kKibibyte));
    processAsNow();
    kit::writeFile(volume / "from", content);
    static int signals;
    signals = 0;
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) { ++signals; };
    ASSERT_EQ(0, ::sigaction(SIGALRM, &action, &before));
    static bool blocked;
    static int beforeTheMove;
    blocked = false;
    kit::Faults::add({.function = "sendfile", .before = [] {
                          blocked = isBlocked(SIGALRM);
                          ::raise(SIGALRM);
                          beforeTheMove = signals;
                      }});
    EXPECT_EQ(0, copy(::open((volume / "from").c_str(), O_RDONLY | O_CLOEXEC),
                      ::open((volume / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)));
    EXPECT_TRUE(blocked);
    EXPECT_EQ(0, beforeTheMove);
    EXPECT_EQ(1, signals) << "it arrives";
    EXPECT_FALSE(isBlocked(SIGALRM));
    ::sigaction(SIGALRM, &before, nullptr);
}

// ---- Beyond what every volume holds

TEST_F(Ends, BlocksFarOutAreReadAndWritten) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 * 1024 * kKibibyte));
    processAsNow();
    constexpr off_t kFar = off_t{3} << 40;
    kit::writeSparse(volume / "from", kFar + kSize, {{0, 128 * kKibibyte}, {kFar, kSize}});
    kit::Faults::record(true);
    EXPECT_EQ(0, copy(::open((volume / "from").c_str(), O_RDONLY | O_CLOEXEC),
                      ::open((volume / "to").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644), kFar + kSize));
    EXPECT_EQ(1, kit::Faults::count("sendfile"));
    std::string far(kSize, '\0');
    std::string expected(kSize, '\0');
    for (const auto &[name, bytes] : {std::pair{"from", &expected}, std::pair{"to", &far}}) {
        const int fd = ::open((volume / name).c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(kSize, ::pread(fd, bytes->data(), bytes->size(), kFar));
        ::close(fd);
    }
    EXPECT_TRUE(expected == far);
}

} // namespace
