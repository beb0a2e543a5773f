#include "tests/peers/smbd.h"

#include "tests/kit/scratch.h"

#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace peers {
namespace {

constexpr int kPatienceSteps = 2400; // of 50 ms and more: only a test that fails waits as long
constexpr const char *kServer = "/usr/sbin/smbd";
constexpr const char *kClient = "/usr/bin/smbclient";

std::string quoted(const std::string &text) {
    std::string result = "'";
    for (const char byte : text) {
        result += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
    }
    return result + "'";
}

// A network of this process's own: nothing else takes a port that was free a moment ago.
void enterPrivateNetwork() {
    static const bool entered = [] {
        if (::unshare(CLONE_NEWNET) != 0) {
            return false;
        }
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq loopback{};
        std::string("lo").copy(loopback.ifr_name, sizeof loopback.ifr_name - 1);
        loopback.ifr_flags = IFF_UP;
        const bool up = ::ioctl(fd, SIOCSIFFLAGS, &loopback) == 0;
        ::close(fd);
        return up;
    }();
    if (!entered) {
        throw kit::Unavailable{"no network namespace here"};
    }
}

// A port that nobody listens on.
int freePort() {
    enterPrivateNetwork();
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool found = fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                       ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0;
    ::close(fd);
    if (!found) {
        throw kit::Unavailable{"no port on the loopback device"};
    }
    return ntohs(address.sin_port);
}

void requirePrograms() {
    if (::geteuid() != 0) {
        throw kit::Unavailable{"needs root to run smbd"};
    }
    for (const char *needed : {kServer, kClient}) {
        if (::access(needed, X_OK) != 0) {
            throw kit::Unavailable{std::string(needed) + " is not installed"};
        }
    }
    for (const char *module : {"catia", "fruit", "streams_xattr"}) {
        bool found = false;
        for (const char *libraries : {"/usr/lib/x86_64-linux-gnu/samba/vfs", "/usr/lib/samba/vfs"}) {
            found = found || kit::exists(std::string(libraries) + "/" + module + ".so");
        }
        if (!found) {
            throw kit::Unavailable{std::string("Samba's module ") + module + " is not installed"};
        }
    }
}

} // namespace

Smbd::Smbd(std::string directory, const std::vector<Share> &shares)
    : m_directory(std::move(directory)), m_port((requirePrograms(), freePort())) {
    for (const char *kind : {"", "/private", "/lock", "/state", "/cache", "/pid", "/ncalrpc"}) {
        ::mkdir((m_directory + kind).c_str(), 0755);
    }
    writeConfiguration(shares);
    m_process = ::fork();
    if (m_process == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM); // no server stays behind a test that was killed
        const int log = ::open((m_directory + "/smbd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        ::dup2(log, STDOUT_FILENO);
        ::dup2(log, STDERR_FILENO);
        ::execl(kServer, kServer, "--foreground", "--no-process-group", "--debug-stdout", "-d1", "-s",
                (m_directory + "/smb.conf").c_str(), nullptr);
        ::_exit(127);
    }
    waitUntilItAnswers(shares.front().name);
}

Smbd::~Smbd() {
    // The group: the server and the helpers it started.
    ::kill(-m_process, SIGTERM);
    ::waitpid(m_process, nullptr, 0);
    ::kill(-m_process, SIGKILL);
}

void Smbd::writeConfiguration(const std::vector<Share> &shares) const {
    std::string text = "[global]\n"
                       "server role = standalone server\n"
                       "interfaces = lo\n"
                       "bind interfaces only = yes\n"
                       "smb ports = " +
                       std::to_string(m_port) + "\n";
    const std::array<std::pair<const char *, const char *>, 6> directories = {{{"private dir", "private"},
                                                                               {"lock directory", "lock"},
                                                                               {"state directory", "state"},
                                                                               {"cache directory", "cache"},
                                                                               {"pid directory", "pid"},
                                                                               {"ncalrpc dir", "ncalrpc"}}};
    for (const auto &[option, name] : directories) {
        text += std::string(option) + " = " + m_directory + "/" + name + "\n";
    }
    text += "map to guest = Bad User\n"
            "guest account = root\n"
            "disable spoolss = yes\n"
            "load printers = no\n"
            "vfs objects = catia fruit streams_xattr\n"
            "store dos attributes = yes\n";
    for (const Share &share : shares) {
        text += "[" + share.name + "]\npath = " + share.path + "\nguest ok = yes\nread only = no\n";
        for (const std::string &option : share.options) {
            text += option + "\n";
        }
    }
    kit::writeFile(m_directory + "/smb.conf", text);
}

void Smbd::waitUntilItAnswers(const std::string &share) {
    for (int attempt = 0; attempt < kPatienceSteps; ++attempt) {
        if (run(share, "ls").find("blocks available") != std::string::npos) {
            return;
        }
        if (::waitpid(m_process, nullptr, WNOHANG) == m_process) {
            throw std::runtime_error("smbd ended: " + kit::readFile(m_directory + "/smbd.log"));
        }
        ::usleep(50'000);
    }
    throw std::runtime_error("smbd does not answer: " + kit::readFile(m_directory + "/smbd.log"));
}

std::string Smbd::run(const std::string &share, const std::string &commands) const {
    const std::string command = "TZ=UTC " + std::string(kClient) + " " + quoted("//127.0.0.1/" + share) + " -N -p " +
                                std::to_string(m_port) + " -s " + quoted(m_directory + "/smb.conf") + " -c " +
                                quoted(commands) + " 2>&1 </dev/null";
    FILE *pipe = ::popen(command.c_str(), "re");
    if (pipe == nullptr) {
        throw std::runtime_error("popen");
    }
    std::string output;
    std::array<char, 4096> buffer{};
    while (const size_t count = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        output.append(buffer.data(), count);
    }
    ::pclose(pipe);
    return output;
}

// smbclient prints "attributes: HSA (26)", "create_time:    Sat Jan  1 …" and "stream: [:name:$DATA], 12 bytes".
Smbd::Info Smbd::info(const std::string &share, const std::string &file) const {
    Info info{};
    std::istringstream output(run(share, "allinfo \"" + file + "\""));
    for (std::string line; std::getline(output, line);) {
        if (line.starts_with("attributes: ")) {
            const size_t open = line.rfind('(');
            info.bits = static_cast<uint32_t>(std::stoul(line.substr(open + 1), nullptr, 16));
            info.attributes = line.substr(12, open - 13);
        } else if (line.starts_with("create_time:")) {
            info.created = line.substr(line.find_first_not_of(' ', 12));
        } else if (line.starts_with("stream: [:")) {
            const size_t end = line.rfind(":$DATA]");
            info.streams[line.substr(10, end - 10)] = std::stoull(line.substr(line.rfind("], ") + 3));
        }
    }
    info.streams.erase(""); // the file's own content
    return info;
}

std::string Smbd::get(const std::string &share, const std::string &file) const {
    const std::string local = transferFile();
    ::unlink(local.c_str());
    const std::string output = run(share, "get \"" + file + "\" \"" + local + "\"");
    return kit::exists(local) ? kit::readFile(local) : "(none) " + output;
}

void Smbd::put(const std::string &share, const std::string &file, const std::string &content) const {
    const std::string local = transferFile();
    kit::writeFile(local, content);
    const std::string output = run(share, "put \"" + local + "\" \"" + file + "\"");
    if (output.find("putting file") == std::string::npos) {
        throw std::runtime_error("smbclient: " + output);
    }
}

} // namespace peers
