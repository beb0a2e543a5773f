// The file-change service as the tests run it: its socket at the place where the library looks for it (a test mounts a
// tmpfs of its own over /var/run first), and what arrives there.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace notify_test {

inline constexpr char kSocketPath[] = "/var/run/vexotifyd.sock";

inline sockaddr_un serviceAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kSocketPath, sizeof kSocketPath);
    return address;
}

// One end of a connection, read with recv(), which no rule of the tests touches.
class Peer {
  public:
    Peer() = default;
    explicit Peer(int fd) : m_fd(fd) {}
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    ~Peer() { close(); }

    void reset(int fd) {
        close();
        m_fd = fd;
    }
    void close() {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    // What is there now, without waiting.
    std::string drain() const { return receive(MSG_DONTWAIT); }
    // Everything up to the end of the connection.
    std::string rest() const { return receive(0); }
    // The next `size` bytes.
    std::string some(size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t got = ::recv(m_fd, bytes.data(), bytes.size(), MSG_WAITALL);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return bytes;
    }
    size_t queued() const {
        int bytes = 0;
        return ::ioctl(m_fd, FIONREAD, &bytes) == 0 ? static_cast<size_t>(bytes) : 0;
    }

  private:
    std::string receive(int flags) const {
        std::string bytes;
        std::string block(65536, '\0');
        for (;;) {
            const ssize_t got = ::recv(m_fd, block.data(), block.size(), flags);
            if (got <= 0) {
                return bytes;
            }
            bytes.append(block.data(), static_cast<size_t>(got));
        }
    }
    int m_fd = -1;
};

class Service {
  public:
    explicit Service(int backlog = 8) : m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = serviceAddress();
        if (::bind(m_fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(m_fd, backlog) != 0) {
            throw std::runtime_error("the service cannot listen");
        }
    }
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;
    ~Service() {
        ::close(m_fd);
        ::unlink(kSocketPath);
    }

    int accept() const { return ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC); }

  private:
    int m_fd;
};

// A service that takes one message, as the real one does: in a thread of its own, up to the end of the connection.
class RunningService {
  public:
    RunningService() : m_thread([this] { serve(); }) {}
    // The message's bytes, once the sender has closed.
    std::string received() {
        m_thread.join();
        m_peer.close();
        return m_bytes;
    }

  private:
    void serve() {
        m_peer.reset(m_service.accept());
        m_bytes = m_peer.rest();
    }
    Service m_service;
    Peer m_peer;
    std::string m_bytes;
    std::thread m_thread;
};

// The bytes on the wire for a JSON text: its length with the NUL, the text, the NUL.
inline std::string wire(const std::string &text) {
    uint64_t size = text.size() + 1;
    std::string bytes;
    for (int at = 0; at < 8; ++at, size >>= 8) {
        bytes += static_cast<char>(size & 0xff);
    }
    return bytes + text + '\0';
}

// The text for a path that JSON takes as it is.
inline std::string textFor(int event, const std::string &path) {
    return R"({ "type": "notify", "data": { "event": )" + std::to_string(event) + R"(, "path": ")" + path + R"(" } })";
}

} // namespace notify_test

// An empty /var/run of the test's own.
#define WITH_RUN_DIRECTORY() KIT_REQUIRE(run, kit::Volume::tmpfs(1 << 20, "/var/run"))
