// Sends one change event to the file-change service, as a JSON message behind its length. Every failure just ends the
// attempt.
#include "notify/notify.h"

#include "support/fd.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <json-c/json_object.h>
#include <limits>
#include <span>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

using namespace vexo;

namespace {

constexpr char kServiceSocket[] = "/var/run/vexotifyd.sock";
constexpr size_t kChunkSize = 1024;
constexpr int kInterruptsAllowed = 3;

// A reference to a json-c object, empty where memory ran out.
class Json {
  public:
    Json() = default;
    explicit Json(json_object *object) : m_object(object) {}
    Json(Json &&other) noexcept : m_object(other.release()) {}
    Json &operator=(Json &&) = delete;
    Json(const Json &) = delete;
    Json &operator=(const Json &) = delete;
    ~Json() { json_object_put(m_object); }

    static Json object() { return Json(json_object_new_object()); }
    static Json number(int value) { return Json(json_object_new_int(value)); }
    static Json string(const char *text) { return Json(json_object_new_string(text)); }

    explicit operator bool() const { return m_object != nullptr; }
    // Takes the value into this object. false: out of memory, here or when either was made.
    [[nodiscard]] bool add(const char *key, Json value) {
        if (!*this || !value || json_object_object_add(m_object, key, value.m_object) != 0) {
            return false;
        }
        (void)value.release();
        return true;
    }
    // The text, which lives as long as this; null when there was no room for it. json-c then just leaves out what it
    // could not add, which may look like a message about another path: only errno tells.
    const char *text() {
        errno = 0;
        const char *text = json_object_to_json_string(m_object);
        return errno == ENOMEM || errno == EFBIG ? nullptr : text;
    }

  private:
    json_object *release() { return std::exchange(m_object, nullptr); }

    json_object *m_object = nullptr;
};

// A connection to the service whose writes give up after a second; empty when there is none.
Fd connect_to_service() {
    Fd connection(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!connection) {
        return {};
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof kServiceSocket <= sizeof address.sun_path && sizeof address == 110);
    std::memcpy(address.sun_path, kServiceSocket, sizeof kServiceSocket);
    if (::connect(connection.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return {};
    }
    const timeval timeout = {1, 0};
    if (::setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
        return {};
    }
    return connection;
}

// The keys stand in the text in the order they are added. Empty when memory ran out: half a message is not sent.
Json event_message(const char *path, const char *pathOld, int event) {
    Json data = Json::object();
    if (!data.add("event", Json::number(event)) || !data.add("path", Json::string(path)) ||
        (pathOld != nullptr && !data.add("path_old", Json::string(pathOld)))) {
        return {};
    }
    Json message = Json::object();
    if (!message.add("type", Json::string("notify")) || !message.add("data", std::move(data))) {
        return {};
    }
    return message;
}

// Writes the next chunk, given how many bytes are left. More may be left than the piece has (see send_piece); what
// would lie before its first byte is sent as zero bytes, and nothing outside the piece is read.
ssize_t write_chunk(int connection, std::span<const uint8_t> piece, uint64_t remaining) {
    const auto size = static_cast<size_t>(std::min<uint64_t>(remaining, kChunkSize));
    if (remaining <= piece.size()) {
        return ::write(connection, piece.last(static_cast<size_t>(remaining)).data(), size);
    }
    std::array<uint8_t, kChunkSize> chunk{};
    const uint64_t before = remaining - piece.size();
    if (before < size) {
        const auto zeros = static_cast<size_t>(before);
        std::memcpy(chunk.data() + zeros, piece.data(), size - zeros);
    }
    return ::write(connection, chunk.data(), size);
}

// Sends a piece of the message in chunks. false: given up.
//
// Any result but 0 counts as that many bytes sent, -1 too: a failed write moves the position one byte back and the loop
// goes on. That is kept on purpose; it means that a reader that paused for more than the timeout gets bytes twice, and
// that with a reader gone for good the loop has no end.
bool send_piece(int connection, std::span<const uint8_t> piece) {
    uint64_t remaining = piece.size(); // the position is the piece's end less this
    int interrupts = 0;
    while (remaining > 0) {
        const ssize_t sent = write_chunk(connection, piece, remaining);
        if (sent > 0) {
            remaining -= static_cast<uint64_t>(sent);
        } else if (sent < 0) {
            remaining += static_cast<uint64_t>(remaining < std::numeric_limits<uint64_t>::max());
        } else if (errno != EINTR || ++interrupts > kInterruptsAllowed) {
            return false;
        }
    }
    return true;
}

void send_text(int connection, const char *text) {
    static_assert(std::endian::native == std::endian::little, "the service takes the length little-endian");
    const uint64_t size = std::strlen(text) + 1;
    std::array<uint8_t, sizeof size> length{};
    std::memcpy(length.data(), &size, sizeof size);
    if (send_piece(connection, length)) {
        (void)send_piece(connection, {reinterpret_cast<const uint8_t *>(text), static_cast<size_t>(size)});
    }
}

} // namespace

void VLIBVXNotifyForce(const char *path, const char *pathOld, int event) {
    // For good: the service may close while a message is on its way, in any thread.
    ::signal(SIGPIPE, SIG_IGN);
    if (path == nullptr) {
        return;
    }
    const Fd connection = connect_to_service();
    if (!connection) {
        return;
    }
    Json message = event_message(path, pathOld, event);
    if (!message) {
        return;
    }
    if (const char *text = message.text()) {
        send_text(connection.get(), text);
    }
}
