#include "tests/tools/tool_process.h"

#include "tests/tools/tool_server.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace kit {
namespace {

constexpr int kPatienceSteps = 1200; // of 100 ms: only a test that fails waits as long

// Waits until it is so, however slow the machine. False only where a test would hang otherwise.
bool eventually(const std::function<bool()> &condition) {
    for (int step = 0; step < kPatienceSteps * 10; ++step) {
        if (condition()) {
            return true;
        }
        ::usleep(10'000);
    }
    return false;
}

// The tool, or another program, with its arguments, as execv() takes them.
class CommandLine {
  public:
    explicit CommandLine(const Arguments &arguments, const std::string &program = VEXOFILEOP_TOOL)
        : m_program(program) {
        m_pointers.push_back(m_program.data());
        for (const std::string &argument : arguments) {
            m_pointers.push_back(const_cast<char *>(argument.c_str()));
        }
        m_pointers.push_back(nullptr);
    }

    const char *program() const { return m_program.c_str(); }
    std::vector<std::string> words() const { return {m_pointers.begin(), m_pointers.end() - 1}; }
    char *const *pointers() const { return m_pointers.data(); }

    [[noreturn]] void execute() const {
        ::execv(program(), pointers());
        ::_exit(126);
    }

  private:
    std::string m_program;
    std::vector<char *> m_pointers;
};

ToolResult resultOf(int waitStatus, std::string out, std::string err) {
    const bool killed = WIFSIGNALED(waitStatus);
    const int status = killed ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
    return {status, killed, std::move(out), std::move(err)};
}

struct Pipe {
    int end[2];
    Pipe() {
        if (::pipe2(end, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
    }
    void close(int which) {
        ::close(end[which]);
        end[which] = -1;
    }
};

void drain(int out, int err, std::string &outText, std::string &errText) {
    std::array<pollfd, 2> waited{{{out, POLLIN, 0}, {err, POLLIN, 0}}};
    while (waited[0].fd >= 0 || waited[1].fd >= 0) {
        ::poll(waited.data(), waited.size(), -1);
        for (size_t at = 0; at < waited.size(); ++at) {
            if (waited[at].fd < 0 || waited[at].revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t count = ::read(waited[at].fd, buffer, sizeof buffer);
            if (count > 0) {
                (at == 0 ? outText : errText).append(buffer, static_cast<size_t>(count));
            } else {
                waited[at].fd = -1;
            }
        }
    }
}

// Whoever started the tests in the background of a script has left SIGINT and SIGQUIT ignored, which the tool respects.
constexpr std::array kResetSignals = {SIGPIPE, SIGINT, SIGQUIT, SIGTERM};

void resetSignals() {
    for (const int number : kResetSignals) {
        std::signal(number, SIG_DFL);
    }
}

// In a child that becomes another user.
[[noreturn]] void becomeTool(const CommandLine &command, const ToolSetting &setting, const Pipe &input, const Pipe &out,
                             const Pipe &err) {
    resetSignals();
    ::dup2(input.end[0], STDIN_FILENO);
    ::dup2(err.end[1], STDERR_FILENO);
    ::dup2(out.end[1], STDOUT_FILENO);
    if (!setting.outputTo.empty()) {
        ::dup2(::open(setting.outputTo.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666), STDOUT_FILENO);
    }
    if (::chdir(setting.directory.c_str()) != 0 || ::setgid(setting.user) != 0 || ::setuid(setting.user) != 0) {
        ::_exit(125);
    }
    command.execute();
}

// What a sanitized process has of pages is much: a fork copies the tables of them, this does not.
pid_t spawnTool(const CommandLine &command, const ToolSetting &setting, const Pipe &input, const Pipe &out,
                const Pipe &err) {
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, input.end[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&files, err.end[1], STDERR_FILENO);
    if (setting.outputTo.empty()) {
        ::posix_spawn_file_actions_adddup2(&files, out.end[1], STDOUT_FILENO);
    } else {
        ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, setting.outputTo.c_str(), O_WRONLY | O_CREAT, 0666);
    }
    ::posix_spawn_file_actions_addchdir_np(&files, setting.directory.c_str());
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t reset;
    sigemptyset(&reset);
    for (const int number : kResetSignals) {
        sigaddset(&reset, number);
    }
    ::posix_spawnattr_setsigdefault(&attributes, &reset);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int failure = ::posix_spawn(&pid, command.program(), &files, &attributes, command.pointers(), environ);
    ::posix_spawn_file_actions_destroy(&files);
    ::posix_spawnattr_destroy(&attributes);
    if (failure != 0) {
        throw std::runtime_error("the tool does not start");
    }
    return pid;
}

// By the server where there is one, which then has it as its child: 0.
pid_t startTool(const CommandLine &command, const ToolSetting &setting, const Pipe &input, const Pipe &out,
                const Pipe &err) {
    if (setting.outputTo.empty() && startInToolServer({.user = setting.user,
                                                       .directory = setting.directory,
                                                       .arguments = command.words(),
                                                       .descriptors = {input.end[0], out.end[1], err.end[1]}})) {
        return 0;
    }
    if (setting.user == 0) {
        return spawnTool(command, setting, input, out, err);
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        becomeTool(command, setting, input, out, err);
    }
    return pid;
}

} // namespace

ToolResult runTool(const Arguments &arguments, const ToolSetting &setting) {
    std::signal(SIGPIPE, SIG_IGN); // The tool may end without having read its input.
    Pipe input, out, err;
    if (setting.outputGone) {
        out.close(0);
    }
    const pid_t pid = startTool(CommandLine(arguments), setting, input, out, err);
    input.close(0);
    out.close(1);
    err.close(1);
    (void)!::write(input.end[1], setting.input.data(), setting.input.size());
    input.close(1);
    std::string outText, errText;
    drain(out.end[0], err.end[0], outText, errText);
    int status = 0;
    if (pid == 0) {
        status = statusFromToolServer();
    } else {
        ::waitpid(pid, &status, 0);
    }
    if (out.end[0] >= 0) {
        out.close(0);
    }
    err.close(0);
    return resultOf(status, outText, errText);
}

bool mentions(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

ToolOnTerminal::ToolOnTerminal(const Arguments &arguments, int columns, const std::string &term,
                               const std::string &program) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(columns);
    m_pid = ::forkpty(&m_terminal, nullptr, nullptr, &size);
    if (m_pid < 0) {
        throw std::runtime_error("forkpty");
    }
    if (m_pid == 0) {
        resetSignals();
        ::setenv("TERM", term.c_str(), 1);
        ::setenv("TOOL", VEXOFILEOP_TOOL, 1);
        CommandLine(arguments, program.empty() ? VEXOFILEOP_TOOL : program).execute();
    }
}

ToolOnTerminal::~ToolOnTerminal() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    ::close(m_terminal);
}

void ToolOnTerminal::type(const std::string &keys) {
    (void)!::write(m_terminal, keys.data(), keys.size());
}

void ToolOnTerminal::resize(int columns) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(columns);
    ::ioctl(m_terminal, TIOCSWINSZ, &size);
}

bool ToolOnTerminal::receive(int milliseconds) {
    pollfd waited{m_terminal, POLLIN, 0};
    char buffer[4096];
    if (::poll(&waited, 1, milliseconds) <= 0) {
        return true;
    }
    const ssize_t count = ::read(m_terminal, buffer, sizeof buffer);
    if (count > 0) {
        m_screen.append(buffer, static_cast<size_t>(count));
    }
    return count > 0; // EIO: the other side is closed
}

bool ToolOnTerminal::shows(const std::string &text) {
    for (int step = 0; step < kPatienceSteps; ++step) {
        if (m_screen.find(text) != std::string::npos) {
            return true;
        }
        if (!receive(100)) {
            break;
        }
    }
    return m_screen.find(text) != std::string::npos;
}

const std::string &ToolOnTerminal::screen() {
    receive(0);
    return m_screen;
}

bool ToolOnTerminal::statusHas(const std::string &field, const std::function<bool(const std::string &)> &wanted) const {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":\t") && wanted(line.substr(field.size() + 2))) {
            return true;
        }
    }
    return false;
}

bool ToolOnTerminal::statusHas(const std::string &field, int signal) const {
    return statusHas(field, [signal](const std::string &mask) {
        return (std::strtoull(mask.c_str(), nullptr, 16) >> (signal - 1) & 1) != 0;
    });
}

bool ToolOnTerminal::catches(int signal) const {
    return eventually([&] { return statusHas("SigCgt", signal); });
}

bool ToolOnTerminal::takes(int signal) const {
    // Its handler goes with the first one that it takes.
    return eventually(
        [&] { return statusHas("SigPnd", signal) || statusHas("ShdPnd", signal) || !statusHas("SigCgt", signal); });
}

bool ToolOnTerminal::isEndedBy(int signal) const {
    return eventually([&] {
        return statusHas("SigPnd", signal) || statusHas("ShdPnd", signal) ||
               statusHas("State", [](const std::string &state) { return state.starts_with("Z"); });
    });
}

void ToolOnTerminal::send(int signal) const {
    ::kill(m_pid, signal);
}

ToolResult ToolOnTerminal::finish() {
    for (int step = 0; step < kPatienceSteps && receive(100); ++step) {
    }
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return resultOf(status, m_screen, "");
}

} // namespace kit
