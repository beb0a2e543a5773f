// What happens to a message, and to the caller, when writes to the service fail or the service stops reading.
#include "notify/notify.h"

#include "tests/kit/behaviour.h"
#include "tests/notify/service.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace {

using notify_test::Peer;
using notify_test::Service;
using notify_test::textFor;
using notify_test::wire;

constexpr size_t kHeaderSize = 8;

class BrokenReader : public kit::Behaviour {};

// Letters without a period, so that a byte sent twice or a shift shows.
std::string letters(size_t size) {
    std::string text = kit::pattern(size);
    for (char &letter : text) {
        letter = static_cast<char>('a' + (static_cast<unsigned char>(letter) % 26));
    }
    return text;
}

// What arrives of a text (with its NUL) when `failures` writes in a row fail after `sent` of its bytes went out.
std::string movedBack(const std::string &text, size_t sent, size_t failures) {
    const std::string before = text.substr(0, sent);
    if (failures <= sent) {
        return before + text.substr(sent - failures);
    }
    return before + std::string(failures - sent, '\0') + text;
}

TEST_F(BrokenReader, FailedWriteMovesBackOneByte) {
    WITH_RUN_DIRECTORY();
    const Service service;
    const std::string path = letters(4000);
    const std::string whole = wire(textFor(1, path));
    const std::string header = whole.substr(0, kHeaderSize);
    const std::string text = whole.substr(kHeaderSize);
    for (const size_t chunks : {0U, 1U, 2U, 3U}) {
        for (const size_t failures : {1U, 2U, 3U, 1023U, 1024U, 1025U, 3000U, 5000U}) {
            kit::Faults::reset();
            kit::Faults::add({.function = "write",
                              .error = EAGAIN,
                              .path = "socket:",
                              .skip = static_cast<int>(1 + chunks),
                              .times = static_cast<int>(failures)});
            VLIBVXNotifyForce(path.c_str(), nullptr, 1);
            const Peer peer(service.accept());
            EXPECT_TRUE(header + movedBack(text, chunks * 1024, failures) == peer.rest())
                << failures << " failures after " << chunks << " chunks";
        }
    }
}

TEST_F(BrokenReader, FailedWriteOfTheLengthSendsZeroBytesBeforeIt) {
    WITH_RUN_DIRECTORY();
    const Service service;
    for (const int failures : {1, 7, 8, 9, 1016, 1017, 3000}) {
        kit::Faults::reset();
        kit::Faults::add({.function = "write", .error = EPIPE, .path = "socket:", .times = failures});
        VLIBVXNotifyForce("p", nullptr, 1);
        const Peer peer(service.accept());
        EXPECT_EQ(std::string(static_cast<size_t>(failures), '\0') + wire(textFor(1, "p")), peer.rest()) << failures;
    }
}

TEST_F(BrokenReader, FailuresApartMoveBackOneByteEach) {
    WITH_RUN_DIRECTORY();
    const Service service;
    const std::string path = letters(3000);
    const std::string whole = wire(textFor(1, path));
    // Write 2 fails (after 1024 bytes of text), write 3 sends from 1023 on, write 4 fails, the rest follows from 2046.
    kit::Faults::fail("write", EAGAIN, "socket:", 2);
    kit::Faults::fail("write", EAGAIN, "socket:", 3);
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    const Peer peer(service.accept());
    EXPECT_EQ(whole.substr(0, kHeaderSize + 1024) + whole.substr(kHeaderSize + 1023, 1024) +
                  whole.substr(kHeaderSize + 2046),
              peer.rest());
}

TEST_F(BrokenReader, ShortWriteGoesOnBehindIt) {
    WITH_RUN_DIRECTORY();
    const Service service;
    Peer peer;
    const std::string path = letters(2000);
    const std::string whole = wire(textFor(1, path));
    // The socket is said to have taken 100 bytes of the first chunk; it is given none, so they miss.
    kit::Faults::add({.function = "write", .result = 100, .path = "socket:", .skip = 1, .answers = true});
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    peer.reset(service.accept());
    EXPECT_EQ(whole.substr(0, kHeaderSize) + whole.substr(kHeaderSize + 100), peer.rest());
}

TEST_F(BrokenReader, ThreeInterruptionsAPieceAreRetried) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::add({.function = "write", .error = EINTR, .result = 0, .path = "socket:", .times = 3});
    kit::Faults::add({.function = "write", .error = EINTR, .result = 0, .path = "socket:", .skip = 1, .times = 3});
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_EQ(8, kit::Faults::count("write")); // of length and text each: three interrupted, one sent
    const Peer peer(service.accept());
    EXPECT_EQ(wire(textFor(1, "p")), peer.rest());
}

TEST_F(BrokenReader, FourthInterruptionOfTheLengthSendsNoText) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::add({.function = "write", .error = EINTR, .result = 0, .path = "socket:", .times = 4});
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_EQ(4, kit::Faults::count("write"));
    const Peer peer(service.accept());
    EXPECT_EQ("", peer.rest());
}

TEST_F(BrokenReader, InterruptionsCountOverTheWholePiece) {
    WITH_RUN_DIRECTORY();
    const Service service;
    const std::string path = letters(5000);
    kit::Faults::add({.function = "write", .error = EINTR, .result = 0, .path = "socket:", .skip = 1, .times = 2});
    // The write after those two goes through, the next two are interrupted.
    kit::Faults::add({.function = "write", .error = EINTR, .result = 0, .path = "socket:", .skip = 2, .times = 2});
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    const Peer peer(service.accept());
    EXPECT_EQ(wire(textFor(1, path)).substr(0, kHeaderSize + 1024), peer.rest());
}

TEST_F(BrokenReader, NothingTakenForAnotherReasonEndsTheAttempt) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::add({.function = "write", .error = EIO, .result = 0, .path = "socket:", .skip = 1});
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_EQ(2, kit::Faults::count("write"));
    const Peer peer(service.accept());
    EXPECT_EQ(wire(textFor(1, "p")).substr(0, kHeaderSize), peer.rest());
}

// The reader sleeps until two writes in a row have run into the timeout, then keeps up.
TEST_F(BrokenReader, PausedReaderGetsAByteTwiceForEachTimeout) {
    WITH_RUN_DIRECTORY();
    const Service service;
    Peer peer;
    std::string received;
    size_t before = 0;
    size_t takenBeforeTimeouts = 0;
    int timeouts = 0;
    bool awake = false;
    kit::Faults::add({.function = "setsockopt", .before = [&] { peer.reset(service.accept()); }});
    kit::Faults::add({.function = "write", .path = "socket:", .times = 0, .before = [&] {
                          const size_t queued = peer.queued();
                          if (!awake && queued > 0 && queued == before && ++timeouts == 2) {
                              takenBeforeTimeouts = queued;
                              awake = true;
                          }
                          before = queued;
                          if (awake) {
                              received += peer.drain();
                          }
                      }});
    const std::string path = letters(1 << 20);
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    received += peer.drain();
    const std::string whole = wire(textFor(1, path));
    ASSERT_EQ(2, timeouts);
    EXPECT_TRUE(whole.substr(0, takenBeforeTimeouts) + whole.substr(takenBeforeTimeouts - 2) == received);
}

// A call that may never return, in a process of its own that is killed at the end.
class Caller {
  public:
    enum class Start { at_once, held };
    // Held: it connects, and sends when it is released.
    explicit Caller(size_t pathSize, Start start = Start::at_once) {
        m_seen = new (::mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Seen;
        const std::string path(pathSize, 'x');
        m_seen->released = start == Start::at_once;
        m_child = ::fork();
        if (m_child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close_range(3, ~0U, 0); // the service's socket is the parent's alone
            kit::Faults::add({.function = "connect", .before = [this] { m_seen->connecting = true; }});
            kit::Faults::add({.function = "setsockopt", .before = [this] {
                                  m_seen->connected = true;
                                  while (!m_seen->released) {
                                      ::usleep(1000);
                                  }
                              }});
            kit::Faults::add({.function = "write", .times = 0, .before = [this] { ++m_seen->writes; }});
            VLIBVXNotifyForce(path.c_str(), nullptr, 1);
            m_seen->returned = true;
            ::_exit(0);
        }
    }
    Caller(const Caller &) = delete;
    Caller &operator=(const Caller &) = delete;
    ~Caller() {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
        ::munmap(m_seen, sizeof(Seen));
    }

    uint64_t writes() const { return m_seen->writes; }
    bool connecting() const { return m_seen->connecting; }
    bool connected() const { return m_seen->connected; }
    bool returned() const { return m_seen->returned; }
    void release() { m_seen->released = true; }
    // The process waits for something inside a system call.
    bool sleeps() const {
        std::ifstream file("/proc/" + std::to_string(m_child) + "/stat");
        std::string line;
        std::getline(file, line);
        const size_t name = line.rfind(')');
        return name != std::string::npos && line.compare(name, 3, ") S") == 0;
    }

  private:
    struct Seen {
        std::atomic<uint64_t> writes{0};
        std::atomic<bool> connecting{false}, connected{false}, returned{false}, released{false};
    };
    Seen *m_seen;
    pid_t m_child;
};

// Waits until it is so. False only where a test would hang otherwise.
template <typename Condition>
bool eventually(Condition condition) {
    for (int attempt = 0; attempt < 12000; ++attempt) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST_F(BrokenReader, ReaderThatClosesInTheMiddleKeepsTheCallerBusyForEver) {
    WITH_RUN_DIRECTORY();
    const Service service;
    const Caller caller(4 << 20);
    Peer peer(service.accept());
    EXPECT_EQ(wire(textFor(1, std::string(4 << 20, 'x'))).substr(0, 500), peer.some(500));
    peer.close();
    // The whole message is some 4100 writes; this many prove that the caller goes on with a connection that is gone.
    EXPECT_TRUE(eventually([&] { return caller.writes() > 100000; }));
    EXPECT_FALSE(caller.returned());
}

TEST_F(BrokenReader, ReaderThatClosesAtOnceKeepsTheCallerBusyForEverWithTheShortestMessage) {
    WITH_RUN_DIRECTORY();
    const Service service;
    Caller caller(1, Caller::Start::held);
    Peer peer(service.accept());
    peer.close();
    caller.release();
    EXPECT_TRUE(eventually([&] { return caller.writes() > 100000; }));
    EXPECT_FALSE(caller.returned());
}

TEST_F(BrokenReader, ServiceThatGoesAwayWithoutAcceptingKeepsTheCallerBusyForEver) {
    WITH_RUN_DIRECTORY();
    auto service = std::make_unique<Service>();
    const Caller caller(4 << 20);
    ASSERT_TRUE(eventually([&] { return caller.writes() > 10 && caller.sleeps(); })); // the socket is full
    service.reset();
    EXPECT_TRUE(eventually([&] { return caller.writes() > 100000; }));
    EXPECT_FALSE(caller.returned());
}

TEST_F(BrokenReader, ReaderThatNeverReadsKeepsTheCallerWaitingUntilItDoes) {
    WITH_RUN_DIRECTORY();
    const Service service;
    const Caller caller(1 << 20);
    ASSERT_TRUE(eventually([&] { return caller.writes() > 10 && caller.sleeps(); })); // the socket is full
    const uint64_t full = caller.writes();
    EXPECT_TRUE(eventually([&] { return caller.writes() >= full + 2; })); // after two timeouts it still tries
    EXPECT_FALSE(caller.returned());

    Peer peer(service.accept());
    const std::string received = peer.rest();
    EXPECT_TRUE(eventually([&] { return caller.returned(); }));
    const std::string whole = wire(textFor(1, std::string(1 << 20, 'x')));
    EXPECT_GT(received.size(), whole.size()); // longer than announced by a byte for each timeout
    EXPECT_TRUE(received.starts_with(whole.substr(0, whole.size() / 2 / 1024)));
    EXPECT_TRUE(received.ends_with(whole.substr(whole.size() - 100)));
}

TEST_F(BrokenReader, FullQueueOfConnectionsKeepsTheCallerWaitingInConnect) {
    WITH_RUN_DIRECTORY();
    const Service service(0);
    const Caller filler(1); // a queue of length 0 holds one connection
    ASSERT_TRUE(eventually([&] { return filler.returned(); }));
    const Caller caller(1);
    EXPECT_TRUE(eventually([&] { return caller.connecting() && caller.sleeps(); }));
    EXPECT_FALSE(caller.connected());

    const Peer one(service.accept());
    EXPECT_TRUE(eventually([&] { return caller.returned(); }));
    const Peer two(service.accept());
    EXPECT_EQ(wire(textFor(1, "x")), one.rest());
    EXPECT_EQ(wire(textFor(1, "x")), two.rest());
}

} // namespace
