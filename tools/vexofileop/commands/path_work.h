// One piece of work for each of several paths: says what failed, counts, and ends at a stop signal.
#pragma once

#include "tools/vexofileop/terminal/console.h"

#include <functional>
#include <string>
#include <vector>

namespace tool {

class PathWork {
  public:
    // Gets the absolute path. A Failure that it throws is told with the path, and the next path goes on.
    using Task = std::function<void(const std::string &path)>;

    void each(const std::vector<std::string> &given, const Task &task);
    void one(const std::string &given, const Task &task);
    Console &console() { return m_console; }
    // Tells of a stop. The exit status.
    int finish();

  private:
    Console m_console;
    int m_done = 0, m_failed = 0;
};

} // namespace tool
