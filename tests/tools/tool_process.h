// Runs the tool as its users do: from a script, or on a terminal.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kit {

using Arguments = std::vector<std::string>;

struct ToolResult {
    int status; // exit status; 128 and the signal's number for one that a signal ended
    bool killed;
    std::string out, err;
};

struct ToolSetting {
    std::string input = {};
    uid_t user = 0;              // 0: the one of the test
    std::string directory = "/"; // working directory
    bool outputGone = false;     // stdout is a pipe that nobody reads
    std::string outputTo = {};   // stdout is this file; `out` stays empty
};

// Runs it to its end with pipes for stdin, stdout and stderr.
ToolResult runTool(const Arguments &arguments, const ToolSetting &setting = {});

// Whether a text has a part.
bool mentions(const std::string &text, const std::string &part);

// The tool on a pseudo-terminal of its own. What it writes to stdout and stderr arrives on one screen.
class ToolOnTerminal {
  public:
    // `program`: another one in its place, such as a shell that runs it; the tool is TOOL in its environment.
    explicit ToolOnTerminal(const Arguments &arguments, int columns = 80, const std::string &term = "xterm",
                            const std::string &program = {});
    ToolOnTerminal(const ToolOnTerminal &) = delete;
    ToolOnTerminal &operator=(const ToolOnTerminal &) = delete;
    ~ToolOnTerminal();

    void type(const std::string &keys); // "\x03" is Ctrl-C
    void resize(int columns);
    // Waits until the screen has received `text`; false when it does not come.
    bool shows(const std::string &text);
    // Reads what has arrived so far, without waiting.
    const std::string &screen();
    void forget() { m_screen.clear(); }
    // Waits until the process catches the signal: one sent before would just end it.
    bool catches(int signal) const;
    // Waits until a signal that it caught and that was sent is on its way to it, or has been taken by it.
    bool takes(int signal) const;
    // Waits until a second one is on its way to it, or has ended it.
    bool isEndedBy(int signal) const;
    void send(int signal) const;
    ToolResult finish(); // everything on the screen is in `out`

  private:
    bool receive(int milliseconds);
    // A line of /proc/<pid>/status.
    bool statusHas(const std::string &field, const std::function<bool(const std::string &)> &wanted) const;
    bool statusHas(const std::string &mask, int signal) const;
    pid_t m_pid;
    int m_terminal;
    std::string m_screen;
};

} // namespace kit
