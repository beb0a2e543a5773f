#include "tools/engine/workers/channel.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace engine {

std::optional<std::pair<Channel, Channel>> Channel::pair() {
    int ends[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return std::nullopt;
    }
    return std::pair(Channel(Descriptor(ends[0])), Channel(Descriptor(ends[1])));
}

bool Channel::send(std::string_view bytes, const int *files, size_t count) const {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostFiles * sizeof(int))> control{};
    if (bytes.size() > kMostBytes || count > kMostFiles) {
        errno = EMSGSIZE;
        return false;
    }
    iovec part{const_cast<char *>(bytes.data()), bytes.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (count > 0) {
        header.msg_control = control.data();
        header.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr *const rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(count * sizeof(int));
        std::memcpy(CMSG_DATA(rights), files, count * sizeof(int));
    }
    ssize_t sent = 0;
    do {
        sent = ::sendmsg(fd(), &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(bytes.size());
}

bool Channel::send(std::string_view bytes, std::initializer_list<int> files) const {
    return send(bytes, files.begin(), files.size());
}

bool Channel::send(const Message &message) const {
    std::array<int, kMostFiles> files{};
    if (message.files.size() > kMostFiles) {
        errno = EMSGSIZE;
        return false;
    }
    for (size_t at = 0; at < message.files.size(); ++at) {
        files[at] = message.files[at].get();
    }
    return send(message.bytes, files.data(), message.files.size());
}

std::optional<Channel::Message> Channel::receive() const {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostFiles * sizeof(int))> control{};
    Message message;
    message.bytes.resize(kMostBytes);
    iovec part{message.bytes.data(), message.bytes.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    ssize_t received = 0;
    do {
        received = ::recvmsg(fd(), &header, MSG_CMSG_CLOEXEC);
    } while (received < 0 && (errno == EINTR || errno == ECONNRESET)); // what it said before it went is still there
    if (received <= 0) {                                               // no message is empty
        return std::nullopt;
    }
    message.bytes.resize(static_cast<size_t>(received));
    for (cmsghdr *rights = CMSG_FIRSTHDR(&header); rights != nullptr; rights = CMSG_NXTHDR(&header, rights)) {
        if (rights->cmsg_level != SOL_SOCKET || rights->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (rights->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t at = 0; at < count; ++at) {
            int file = -1;
            std::memcpy(&file, CMSG_DATA(rights) + at * sizeof file, sizeof file);
            message.files.emplace_back(file);
        }
    }
    return message;
}

} // namespace engine
