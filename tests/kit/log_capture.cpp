#include "tests/kit/log_capture.h"

#include "tests/kit/faults.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace kit {
namespace {

std::mutex guard;
std::vector<LogLine> &kept() {
    static auto *lines = new std::vector<LogLine>;
    return *lines;
}

[[gnu::format(printf, 2, 0)]] void keep(int priority, const char *format, va_list arguments) {
    const FaultsOff quiet;
    const int number = errno;
    std::array<char, 32768> text{};
    errno = number; // for %m
    std::vsnprintf(text.data(), text.size(), format, arguments);
    LogLine line{priority, text.data(), {}, text.data()};
    const size_t colon = line.text.find(":");
    const size_t blank = line.text.find(' ');
    if (colon != std::string::npos && blank != std::string::npos && colon < blank) {
        line.source = line.text.substr(0, colon);
        line.body = line.text.substr(blank + 1);
    }
    {
        const std::lock_guard lock(guard);
        kept().push_back(std::move(line));
    }
    errno = number;
}

} // namespace

std::vector<LogLine> Log::lines() {
    const std::lock_guard lock(guard);
    return kept();
}

void Log::reset() {
    const std::lock_guard lock(guard);
    kept().clear();
}

int Log::count(int priority, const std::string &body) {
    int found = 0;
    for (const LogLine &line : lines()) {
        found += line.priority == priority && line.body == body ? 1 : 0;
    }
    return found;
}

std::string Log::all() {
    std::string text;
    for (const LogLine &line : lines()) {
        text += std::to_string(line.priority) + " " + line.text + "\n";
    }
    return text;
}

} // namespace kit

extern "C" void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    kit::keep(priority, format, arguments);
    va_end(arguments);
}
extern "C" void vsyslog(int priority, const char *format, va_list arguments) {
    kit::keep(priority, format, arguments);
}
