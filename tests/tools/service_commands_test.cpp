// vexofileop index and notify.
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using kit::runTool;
using kit::ToolResult;

TEST(IndexCommand, TellsTheAnswerAndTheRule) {
    const kit::ScratchDirectory scratch;
    for (const char *share : {"on", "off"}) {
        ASSERT_EQ(0, ::mkdir((scratch / share).c_str(), 0755));
    }
    kit::writeFile(scratch / "on/a", "x");
    kit::writeFile(scratch / "smb.conf", "[on]\npath=" + (scratch / "on") + "\nvexo:index=yes\nvfs objects=recycle\n" +
                                             "[off]\npath=" + (scratch / "off") + "\n");
    ::setenv("VEXOFILEOP_SMB_CONF", (scratch / "smb.conf").c_str(), 1);
    const ToolResult on = runTool({"index", scratch / "on/a"});
    const ToolResult off = runTool({"index", scratch / "off"});
    const ToolResult bin = runTool({"index", scratch / "on/.recycle/a"});
    const ToolResult some = runTool({"index", "--json", scratch / "on/a", "/"});
    ::unsetenv("VEXOFILEOP_SMB_CONF");
    EXPECT_EQ(0, on.status);
    EXPECT_EQ((scratch / "on/a") + ": indexed: indexing of the share \"on\" is switched on\n", on.out);
    EXPECT_EQ(2, off.status);
    EXPECT_EQ((scratch / "off") + ": not indexed: indexing of the share \"off\" is switched off\n", off.out);
    EXPECT_EQ(2, bin.status);
    EXPECT_EQ((scratch / "on/.recycle/a") + ": not indexed: in a recycle bin\n", bin.out);
    EXPECT_EQ(1, some.status);
    EXPECT_EQ(
        "{\"event\":\"index\",\"path\":\"" + (scratch / "on/a") +
            "\",\"indexed\":true,\"rule\":\"share_switch\",\"reason\":\"indexing of the share \\\"on\\\" is switched "
            "on\",\"services_need_index\":false}\n{\"event\":\"index\",\"path\":\"/\",\"indexed\":false,\"rule\":"
            "\"no_share\",\"reason\":\"in no shared folder\",\"services_need_index\":false}\n",
        some.out);
}

TEST(IndexCommand, HomesHaveARuleOfTheirOwn) {
    const ToolResult result = runTool({"index", "/volume1/homes/somebody/documents"});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.out.find("only the folders photo and music of a home")) << result.out;
}

// A service at the place where the file-change service listens, in a private /run.
class NotifyCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        try {
            m_run.emplace(kit::Volume::tmpfs(1 << 20, "/run"));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        struct stat found {};
        if (::stat("/var/run", &found) != 0 || found.st_dev != kit::statOf("/run").st_dev) {
            GTEST_SKIP() << "/var/run is not /run here";
        }
    }
    void TearDown() override {
        if (m_listener >= 0) {
            ::close(m_listener);
        }
    }
    void listen() {
        m_listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string("/var/run/vexotifyd.sock").copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(0, ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address));
        ASSERT_EQ(0, ::listen(m_listener, 8));
    }
    // The message of the first connection that has one.
    std::string receive() const {
        for (;;) {
            const int connection = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) {
                return "";
            }
            std::string all(65536, '\0');
            size_t length = 0;
            for (ssize_t count; (count = ::read(connection, all.data() + length, all.size() - length)) > 0;) {
                length += static_cast<size_t>(count);
            }
            ::close(connection);
            if (length > 8) {
                return all.substr(8, length - 9);
            }
        }
    }
    // No more connections: who waits for one waits no longer.
    void stopListening() const { ::shutdown(m_listener, SHUT_RDWR); }
    // Takes every connection and closes it at once.
    void closeEach(int connections) const {
        for (int at = 0; at < connections; ++at) {
            ::close(::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC));
        }
    }

  private:
    std::optional<kit::Volume> m_run;
    int m_listener = -1;
};

TEST_F(NotifyCommand, MessageArrives) {
    listen();
    std::string message;
    std::thread service([&] { message = receive(); });
    const ToolResult result = runTool({"notify", "--timeout", "100", "--json", "2", "/volume1/new", "/volume1/old"});
    stopListening();
    service.join();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(
        "{\"event\":\"notify\",\"code\":2,\"path\":\"/volume1/new\",\"path_old\":\"/volume1/old\",\"taken\":true}\n",
        result.out);
    EXPECT_NE(std::string::npos, message.find("\"event\": 2, \"path\": \"\\/volume1\\/new\"")) << message;
    EXPECT_NE(std::string::npos, message.find("\"path_old\": \"\\/volume1\\/old\"")) << message;
}

TEST_F(NotifyCommand, AbsentServiceIsTold) {
    const ToolResult result = runTool({"notify", "1", "/volume1/new"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(
        "vexofileop: the file-change service does not answer at /var/run/vexotifyd.sock: No such file or directory; "
        "nothing was sent\n",
        result.err);
}

TEST_F(NotifyCommand, ServiceThatGoesAwayInTheMiddleHangsNobody) {
    listen();
    // Longer than what a socket takes without a reader.
    const std::string path = "/volume1/" + std::string(120'000, 'x');
    std::thread service([&] { closeEach(2); });
    const ToolResult result = runTool({"notify", "--timeout", "1", "1", path});
    stopListening(); // on a slow machine the second may not have come in that second
    service.join();
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("did not take the message within 1 s; given up")) << result.err;
}

} // namespace
