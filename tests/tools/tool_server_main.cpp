// The beginning of the server of tools (tool_server.h). The linker puts it before the tool's own main(), which is
// __real_main here.
#include "tests/tools/tool_server.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" int __real_main(int argc, char **argv);
extern "C" int __wrap_main();
// NOLINTEND(bugprone-reserved-identifier)

namespace {

constexpr size_t kMostReceived = 1 << 17;

struct Request {
    std::string text = std::string(kMostReceived, '\0');
    std::array<int, 3> descriptors = {-1, -1, -1};
};

bool receive(Request &request) {
    iovec part{request.text.data(), request.text.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof request.descriptors)> control{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = TEMP_FAILURE_RETRY(::recvmsg(kit::kToolServerDescriptor, &message, MSG_CMSG_CLOEXEC));
    const cmsghdr *const header = CMSG_FIRSTHDR(&message);
    if (got <= 0 || header == nullptr) {
        return false;
    }
    std::memcpy(request.descriptors.data(), CMSG_DATA(header), sizeof request.descriptors);
    return true;
}

// The next texts of a request, as main() and the environment take them.
std::vector<char *> next(char *&at) {
    const auto word = [&at] {
        char *const here = at;
        at += std::strlen(at) + 1;
        return here;
    };
    std::vector<char *> words(std::strtoul(word(), nullptr, 10));
    for (char *&one : words) {
        one = word();
    }
    words.push_back(nullptr);
    return words;
}

// In a child of the server.
[[noreturn]] void runTool(Request &request) {
    for (const int number : {SIGPIPE, SIGINT, SIGQUIT, SIGTERM}) {
        std::signal(number, SIG_DFL);
    }
    char *at = request.text.data();
    const std::vector<char *> setting = next(at);
    std::vector<char *> arguments = next(at), environment = next(at);
    for (int number = 0; number < 3; ++number) {
        ::dup2(request.descriptors[static_cast<size_t>(number)], number);
        ::close(request.descriptors[static_cast<size_t>(number)]);
    }
    ::close(kit::kToolServerDescriptor);
    const auto user = static_cast<uid_t>(std::strtoul(setting[0], nullptr, 10));
    if (::chdir(setting[1]) != 0 || (user != 0 && (::setgid(user) != 0 || ::setuid(user) != 0))) {
        ::_exit(125);
    }
    environ = environment.data();
    std::exit(__real_main(static_cast<int>(arguments.size()) - 1, arguments.data()));
}

} // namespace

extern "C" int __wrap_main() { // NOLINT(bugprone-reserved-identifier)
    for (Request request; receive(request);) {
        const pid_t child = ::fork();
        if (child == 0) {
            runTool(request);
        }
        for (const int descriptor : request.descriptors) {
            ::close(descriptor);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (::send(kit::kToolServerDescriptor, &status, sizeof status, MSG_NOSIGNAL) < 0) {
            break;
        }
    }
    ::_exit(0);
}
