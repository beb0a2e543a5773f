// The lines the library sends to syslog in this process, kept instead.
#pragma once

#include <string>
#include <vector>

namespace kit {

struct LogLine {
    int priority;
    std::string text;   // all of it: "copy/copy_file_copy.c:123 failed to …"
    std::string source; // "copy/copy_file_copy.c"
    std::string body;   // behind "<source>:<line> "
};

class Log {
  public:
    static std::vector<LogLine> lines();
    static void reset();
    // How many lines have exactly this priority and body.
    static int count(int priority, const std::string &body);
    // All lines, for a failing test's message.
    static std::string all();
};

} // namespace kit
