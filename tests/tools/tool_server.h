// Starts of the tool by a process that is already there: what a sanitized program does before its main() takes several
// times what a short command does, so a server that has it behind itself forks instead. The server is the tool with
// another beginning (tool_server_main.cpp). Its child runs the tool's main() with the descriptors, the directory, the
// arguments and the environment that it was sent, and ends as the tool does, with the look for leaks.
#pragma once

#include <array>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kit {

// Where the server finds its end of the connection.
inline constexpr int kToolServerDescriptor = 3;

struct ToolStart {
    uid_t user = 0; // 0: the one of the server
    std::string directory = {};
    std::vector<std::string> arguments = {}; // the program's name is the first
    std::array<int, 3> descriptors = {};     // stdin, stdout, stderr
};

// Has the tool started, with the environment of the caller. False where a start has to be one of its own: this build
// has no server, the caller is a child of the tests' process, or the request is too long for one message.
bool startInToolServer(const ToolStart &start);
// Waits for the end of what was started: what waitpid() tells.
int statusFromToolServer();

} // namespace kit
