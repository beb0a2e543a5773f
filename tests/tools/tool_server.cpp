#include "tests/tools/tool_server.h"

#include "tests/kit/process_state.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <spawn.h>
#include <stdexcept>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kit {
namespace {

constexpr size_t kMostRequest = 65'536;

// What a program inherits beside what a request says: a server that was started otherwise is not asked.
std::string inheritance() {
    std::string all;
    const auto add = [&](const auto &value) { all.append(reinterpret_cast<const char *>(&value), sizeof value); };
    for (int resource = 0; resource < RLIM_NLIMITS; ++resource) {
        rlimit limit{};
        ::getrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
        add(limit.rlim_cur);
        add(limit.rlim_max);
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    add(mask);
    for (const unsigned id : {::getuid(), ::geteuid(), ::getgid(), ::getegid()}) {
        add(id);
    }
    std::vector<gid_t> groups(NGROUPS_MAX);
    groups.resize(static_cast<size_t>(::getgroups(NGROUPS_MAX, groups.data())));
    for (const gid_t group : groups) {
        add(group);
    }
    for (const char *const place : {"/", "/proc/self/ns/mnt", "/proc/self/ns/net", "/proc/self/ns/user"}) {
        struct stat status {};
        ::stat(place, &status);
        add(status.st_dev);
        add(status.st_ino);
    }
    sigset_t blocked;
    ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        ::sigaction(number, nullptr, &action);
        all.push_back(action.sa_handler == SIG_IGN ? 'i' : '-');
        all.push_back(sigismember(&blocked, number) == 1 ? 'b' : '-');
    }
    return all;
}

// Whether there may be a descriptor for the connection: a test may have taken them away.
bool mayHaveServer() {
    rlimit open{};
    return ::getrlimit(RLIMIT_NOFILE, &open) == 0 && open.rlim_cur > kLeastUncountedDescriptor + 1;
}

// Texts as the server parts them: each with its end, the count of them before.
void append(std::string &request, const std::vector<std::string> &texts) {
    request += std::to_string(texts.size()) + '\0';
    for (const std::string &text : texts) {
        request += text + '\0';
    }
}

std::string requestFor(const ToolStart &start) {
    std::string request;
    append(request, {std::to_string(start.user), start.directory});
    append(request, start.arguments);
    std::vector<std::string> environment;
    for (char **one = environ; *one != nullptr; ++one) {
        environment.emplace_back(*one);
    }
    append(request, environment);
    return request;
}

class ToolServer {
  public:
    explicit ToolServer(std::string inherited) : m_inherited(std::move(inherited)) {
        std::array<int, 2> end{};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, end.data()) != 0) {
            throw std::runtime_error("socketpair");
        }
        m_connection = ::fcntl(end[0], F_DUPFD_CLOEXEC, kLeastUncountedDescriptor);
        ::close(end[0]);
        spawn(end[1]);
        ::close(end[1]);
    }
    ToolServer(const ToolServer &) = delete;
    ToolServer &operator=(const ToolServer &) = delete;
    // A child of the tests' process finds nobody to wait for here, and the connection stays with its parent.
    ~ToolServer() {
        ::close(m_connection);
        ::waitpid(m_pid, nullptr, 0);
    }

    bool hasInherited(const std::string &what) const { return m_inherited == what; }

    void send(std::string request, const std::array<int, 3> &descriptors) const {
        iovec part{request.data(), request.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr *const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof descriptors);
        std::memcpy(CMSG_DATA(header), descriptors.data(), sizeof descriptors);
        if (::sendmsg(m_connection, &message, MSG_NOSIGNAL) < 0) {
            throw std::runtime_error("the server of tools takes no request");
        }
    }

    int receive() const {
        int status = 0;
        if (TEMP_FAILURE_RETRY(::recv(m_connection, &status, sizeof status, 0)) != sizeof status) {
            throw std::runtime_error("the server of tools has ended");
        }
        return status;
    }

  private:
    void spawn(int connection) {
        posix_spawn_file_actions_t files;
        ::posix_spawn_file_actions_init(&files);
        ::posix_spawn_file_actions_adddup2(&files, connection, kToolServerDescriptor);
        ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDWR, 0);
        ::posix_spawn_file_actions_addchdir_np(&files, "/");
        std::string program = VEXOFILEOP_TOOL_SERVER;
        const std::array<char *, 2> words = {program.data(), nullptr};
        if (::posix_spawn(&m_pid, program.c_str(), &files, nullptr, words.data(), environ) != 0) {
            throw std::runtime_error("the server of tools does not start");
        }
        ::posix_spawn_file_actions_destroy(&files);
    }

    std::string m_inherited;
    pid_t m_pid = -1;
    int m_connection = -1;
};

// Waited for at the end of the process, so that what its children cost is told with what that costs.
std::unique_ptr<ToolServer> &currentServer() {
    static std::unique_ptr<ToolServer> server;
    return server;
}

} // namespace

bool startInToolServer(const ToolStart &start) {
    if (std::string_view(VEXOFILEOP_TOOL_SERVER).empty() || !mayHaveServer()) {
        return false;
    }
    static const pid_t owner = ::getpid();
    if (owner != ::getpid()) {
        return false;
    }
    const std::string request = requestFor(start);
    if (request.size() > kMostRequest) {
        return false;
    }
    std::string inherited = inheritance();
    std::unique_ptr<ToolServer> &server = currentServer();
    if (server == nullptr || !server->hasInherited(inherited)) {
        server = nullptr; // one at a time
        server = std::make_unique<ToolServer>(std::move(inherited));
    }
    server->send(request, start.descriptors);
    return true;
}

int statusFromToolServer() {
    return currentServer()->receive();
}

} // namespace kit
