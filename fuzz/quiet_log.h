// The library's log lines in a fuzz target: put together, so that a bad format shows, and then dropped.
#pragma once

#include <cstdarg>
#include <cstdio>

extern "C" [[gnu::format(printf, 2, 3)]] void syslog(int, const char *format, ...) {
    static char line[65536];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
}
