// The notification as the service gets it, and every way in which an attempt ends early.
#include "notify/notify.h"

#include "tests/kit/behaviour.h"
#include "tests/notify/service.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <sys/time.h>

namespace {

using notify_test::Peer;
using notify_test::RunningService;
using notify_test::Service;
using notify_test::textFor;
using notify_test::wire;

class Notification : public kit::Behaviour {
  protected:
    // The call tells nobody how it went.
    void TearDown() override {
        EXPECT_EQ(0U, VLIBCErrGet());
        EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
        kit::Behaviour::TearDown();
    }
};

TEST_F(Notification, CarriesEventAndPath) {
    WITH_RUN_DIRECTORY();
    RunningService service;
    VLIBVXNotifyForce("/volume1/photo/a.jpg", nullptr, 3);
    EXPECT_EQ(wire(R"({ "type": "notify", "data": { "event": 3, "path": "\/volume1\/photo\/a.jpg" } })"),
              service.received());
}

TEST_F(Notification, CarriesThePathBeforeARename) {
    WITH_RUN_DIRECTORY();
    RunningService service;
    VLIBVXNotifyForce("/volume1/b", "/volume1/a", 16);
    EXPECT_EQ(wire(R"({ "type": "notify", "data": { "event": 16, "path": "\/volume1\/b", )"
                   R"("path_old": "\/volume1\/a" } })"),
              service.received());
}

TEST_F(Notification, EmptyPathsAreSent) {
    WITH_RUN_DIRECTORY();
    RunningService service;
    VLIBVXNotifyForce("", "", 0);
    EXPECT_EQ(wire(R"({ "type": "notify", "data": { "event": 0, "path": "", "path_old": "" } })"), service.received());
}

TEST_F(Notification, EventIsPassedOnUnchanged) {
    WITH_RUN_DIRECTORY();
    for (const int event : {INT_MIN, -1, INT_MAX}) {
        RunningService service;
        VLIBVXNotifyForce("p", nullptr, event);
        EXPECT_EQ(wire(textFor(event, "p")), service.received());
    }
}

TEST_F(Notification, HostileNamesStayOneJsonString) {
    WITH_RUN_DIRECTORY();
    RunningService service;
    VLIBVXNotifyForce("a\n\"b\\c\x01\xff\xfe\xc3\xa9", nullptr, 1);
    EXPECT_EQ(wire(textFor(1, "a\\n\\\"b\\\\c\\u0001\xff\xfe\xc3\xa9")), service.received());
}

TEST_F(Notification, MessageOfSeveralMebibytesArrivesWhole) {
    WITH_RUN_DIRECTORY();
    RunningService service;
    const std::string path(5 << 20, 'x');
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    EXPECT_TRUE(wire(textFor(1, path)) == service.received());
}

TEST_F(Notification, EachMessageHasItsOwnConnection) {
    WITH_RUN_DIRECTORY();
    const Service service;
    VLIBVXNotifyForce("first", nullptr, 1);
    VLIBVXNotifyForce("second", nullptr, 2);
    const Peer first(service.accept());
    const Peer second(service.accept());
    EXPECT_EQ(wire(textFor(1, "first")), first.rest());
    EXPECT_EQ(wire(textFor(2, "second")), second.rest());
}

TEST_F(Notification, WhatFitsTheSocketIsSentWithoutAReader) {
    WITH_RUN_DIRECTORY();
    const Service service;
    const std::string path(10000, 'x');
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    const Peer peer(service.accept()); // only now
    EXPECT_EQ(wire(textFor(1, path)), peer.rest());
}

TEST_F(Notification, GoesOutInWritesOfAtMost1024Bytes) {
    WITH_RUN_DIRECTORY();
    const Service service;
    Peer peer;
    std::vector<size_t> queued;
    kit::Faults::add({.function = "setsockopt", .before = [&] { peer.reset(service.accept()); }});
    kit::Faults::add(
        {.function = "write", .path = "socket:", .times = 0, .before = [&] { queued.push_back(peer.queued()); }});
    const size_t frame = textFor(1, "").size() + 1;
    const std::string path(3 * 1024 + 5 - frame, 'x');
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    queued.push_back(peer.queued());
    std::vector<size_t> writes;
    for (size_t at = 1; at < queued.size(); ++at) {
        writes.push_back(queued[at] - queued[at - 1]);
    }
    EXPECT_EQ((std::vector<size_t>{8, 1024, 1024, 1024, 5}), writes);
    EXPECT_EQ(wire(textFor(1, path)), peer.drain());
}

TEST_F(Notification, ExactMultipleOfTheChunkEndsWithAFullOne) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::add({.function = "write", .path = "none"}); // counts
    const std::string path(2048 - textFor(1, "").size() - 1, 'x');
    VLIBVXNotifyForce(path.c_str(), nullptr, 1);
    EXPECT_EQ(3, kit::Faults::count("write"));
    const Peer peer(service.accept());
    EXPECT_EQ(wire(textFor(1, path)), peer.rest());
}

TEST_F(Notification, SigpipeIsIgnoredFromTheStartAndForGood) {
    WITH_RUN_DIRECTORY();
    ASSERT_NE(SIG_ERR, std::signal(SIGPIPE, SIG_DFL));
    const auto disposition = [] {
        struct sigaction action {};
        ::sigaction(SIGPIPE, nullptr, &action);
        return action.sa_handler;
    };
    bool ignoredBeforeSocket = false;
    kit::Faults::add({.function = "socket", .before = [&] { ignoredBeforeSocket = disposition() == SIG_IGN; }});
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_TRUE(ignoredBeforeSocket);
    EXPECT_EQ(SIG_IGN, disposition());
}

TEST_F(Notification, WritesGiveUpAfterASecond) {
    WITH_RUN_DIRECTORY();
    const Service service;
    timeval timeout{};
    kit::Faults::add({.function = "write", .path = "socket:", .before = [&] {
                          const sockaddr_un wanted = notify_test::serviceAddress();
                          for (int fd = 3; fd < 256; ++fd) {
                              sockaddr_un address{};
                              socklen_t size = sizeof address;
                              if (::getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
                                  std::strcmp(address.sun_path, wanted.sun_path) == 0) {
                                  socklen_t length = sizeof timeout;
                                  ::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, &length);
                              }
                          }
                      }});
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_EQ(1, timeout.tv_sec);
    EXPECT_EQ(0, timeout.tv_usec);
}

TEST_F(Notification, NoServiceEndsTheAttempt) {
    WITH_RUN_DIRECTORY();
    kit::Faults::add({.function = "connect", .path = "none"}); // counts
    VLIBVXNotifyForce("p", nullptr, 1);                        // no socket at all
    {
        const Service gone;
        ASSERT_EQ(0, ::link(notify_test::kSocketPath, "/var/run/kept"));
    }
    ASSERT_EQ(0, ::rename("/var/run/kept", notify_test::kSocketPath));
    VLIBVXNotifyForce("p", nullptr, 1); // a socket that nobody listens on
    EXPECT_EQ(2, kit::Faults::count("connect"));
    EXPECT_EQ(0, kit::Faults::count("setsockopt"));
    EXPECT_EQ(0, kit::Faults::count("write"));
}

TEST_F(Notification, FailedSocketEndsTheAttempt) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::fail("socket", EMFILE);
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_EQ(0, kit::Faults::count("connect"));
}

TEST_F(Notification, FailedConnectEndsTheAttempt) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::fail("connect", EINTR);
    VLIBVXNotifyForce("p", nullptr, 1);
    EXPECT_EQ(1, kit::Faults::count("connect"));
    EXPECT_EQ(0, kit::Faults::count("setsockopt"));
}

TEST_F(Notification, WithoutATimeoutNothingIsSent) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::fail("setsockopt", ENOPROTOOPT);
    VLIBVXNotifyForce("p", nullptr, 1);
    const Peer peer(service.accept());
    EXPECT_EQ("", peer.rest());
}

TEST_F(Notification, NullPathSendsNothing) {
    WITH_RUN_DIRECTORY();
    const Service service;
    kit::Faults::add({.function = "connect", .path = "none"}); // counts
    VLIBVXNotifyForce(nullptr, "old", 1);
    EXPECT_EQ(0, kit::Faults::count("connect"));
}

TEST_F(Notification, OutOfMemorySendsNothingOrTheWholeMessage) {
    WITH_RUN_DIRECTORY();
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    kit::Faults::reset();
    const Service service;
    const std::string path(3000, 'x'); // long enough for the text to grow in steps
    const std::string whole = wire(R"({ "type": "notify", "data": { "event": 1, "path": ")" + path +
                                   R"(", "path_old": ")" + path + R"(" } })");
    int failures = 0;
    std::string received;
    for (int nth = 1; nth <= 100 && received != whole; ++nth) {
        ASSERT_TRUE(kit::Faults::failAllocation(nth));
        VLIBVXNotifyForce(path.c_str(), path.c_str(), 1);
        kit::Faults::reset();
        const Peer peer(service.accept());
        received = peer.rest();
        EXPECT_TRUE(received.empty() || received == whole) << "allocation " << nth << ": " << received.size();
        failures += received.empty() ? 1 : 0;
    }
    EXPECT_EQ(whole, received);
    EXPECT_GT(failures, 4);
}

} // namespace
