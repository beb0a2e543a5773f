#include "tools/vexofileop/terminal/status_note.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace tool {
namespace {

static_assert(std::atomic<int64_t>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

constexpr size_t kLongestPath = 1024;

const char *command = nullptr;
timespec started{};
std::atomic<int64_t> doneBytes = 0, doneFiles = 0, allBytes = 0, allFiles = 0;
// The one that is read is never the one that is written.
struct Path {
    char bytes[kLongestPath];
    size_t length;
};
Path paths[2] = {};
std::atomic<int> shownPath = 0;

// A line that is put together without anything that a signal handler must not call.
class Line {
  public:
    void add(std::string_view text) {
        const size_t length = std::min(text.size(), sizeof m_bytes - 1 - m_length);
        std::memcpy(m_bytes + m_length, text.data(), length);
        m_length += length;
    }
    void add_number(int64_t number, int digits = 1) {
        char text[24];
        size_t at = sizeof text;
        for (; (number > 0 || digits > 0) && at > 0; number /= 10, --digits) {
            text[--at] = static_cast<char>('0' + number % 10);
        }
        add({text + at, sizeof text - at});
    }
    // "1.2", and the unit behind it where `named`.
    void add_size(int64_t bytes, int unit, bool named) {
        constexpr const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
        const int64_t whole = bytes >> (10 * unit);
        add_number(whole);
        if (unit > 0 && whole < 10) {
            add(".");
            add_number(((bytes >> (10 * (unit - 1))) & 1023) * 10 / 1024);
        }
        if (named) {
            add(" ");
            add(units[unit]);
        }
    }
    // Letters of any language; what a terminal would do something by as "\x1b".
    void add_name(std::string_view name) {
        for (size_t at = 0; at < name.size();) {
            const size_t length = letter_length(name.substr(at));
            if (length > 0) {
                add(name.substr(at, length));
                at += length;
                continue;
            }
            constexpr const char *digits = "0123456789abcdef";
            const auto byte = static_cast<unsigned char>(name[at++]);
            add("\\x");
            add({digits + byte / 16, 1});
            add({digits + byte % 16, 1});
        }
    }
    void write() {
        m_bytes[m_length++] = '\n';
        for (size_t at = 0; at < m_length;) {
            const ssize_t written = ::write(STDERR_FILENO, m_bytes + at, m_length - at);
            if (written < 0 && errno != EINTR) {
                return;
            }
            at += written > 0 ? static_cast<size_t>(written) : 0;
        }
    }

  private:
    // Of what begins the text, in UTF-8; 0: it is no letter, or directs the text.
    static size_t letter_length(std::string_view text) {
        const auto byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
        const auto follows = [&](size_t at) { return (byte(at) & 0xC0U) == 0x80U; };
        const unsigned first = byte(0);
        if (first < 0x80) {
            return first >= 0x20 && first < 0x7F && first != '\\' ? 1 : 0;
        }
        if (first >= 0xC3 && first <= 0xDF && follows(1)) {
            return first == 0xD8 && byte(1) == 0x9C ? 0 : 2;
        }
        if (first >= 0xE1 && first <= 0xEC && follows(1) && follows(2)) {
            return first == 0xE2 && byte(1) <= 0x81 ? 0 : 3;
        }
        return first >= 0xF0 && first <= 0xF3 && byte(1) >= 0x90 && follows(1) && follows(2) && follows(3) ? 4 : 0;
    }

    char m_bytes[4 * kLongestPath + 256] = {};
    size_t m_length = 0;
};

int unit_of(int64_t bytes) {
    int unit = 0;
    for (int64_t value = bytes; value >= 1000 && unit < 6; value /= 1024) {
        ++unit;
    }
    return unit;
}

void add_amounts(Line &line) {
    const int64_t files = doneFiles, bytes = doneBytes, ofFiles = allFiles, ofBytes = allBytes;
    line.add_number(files);
    if (ofFiles > 0) {
        line.add(" of ");
        line.add_number(ofFiles);
    }
    line.add(" files, ");
    const int unit = unit_of(std::max(bytes, ofBytes));
    line.add_size(bytes, unit, ofBytes <= 0);
    if (ofBytes > 0) {
        line.add(" of ");
        line.add_size(ofBytes, unit, true);
    }
    line.add(", ");
}

} // namespace

void note_command(const char *name) {
    command = name;
    (void)::clock_gettime(CLOCK_MONOTONIC, &started);
}

void note_totals(int64_t bytes, int64_t files) {
    allBytes.store(bytes, std::memory_order_relaxed);
    allFiles.store(files, std::memory_order_relaxed);
}

void note_done(int64_t bytes, int64_t files) {
    doneBytes.store(bytes, std::memory_order_relaxed);
    doneFiles.store(files, std::memory_order_relaxed);
}

void note_path(std::string_view path) {
    const int next = 1 - shownPath.load(std::memory_order_relaxed);
    Path &into = paths[next];
    into.length = std::min(path.size(), sizeof into.bytes);
    std::memcpy(into.bytes, path.data() + path.size() - into.length, into.length);
    std::atomic_signal_fence(std::memory_order_release);
    shownPath.store(next, std::memory_order_relaxed);
}

void tell_status() {
    const int number = errno;
    Line line;
    line.add("vexofileop: ");
    line.add(command != nullptr ? command : "starting");
    line.add(": ");
    if (doneFiles > 0 || doneBytes > 0 || allFiles > 0 || allBytes > 0) {
        add_amounts(line);
    }
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t seconds =
        command != nullptr ? now.tv_sec - started.tv_sec - (now.tv_nsec < started.tv_nsec ? 1 : 0) : 0;
    if (seconds >= 3600) {
        line.add_number(seconds / 3600);
        line.add(":");
    }
    line.add_number(seconds / 60 % 60, seconds >= 3600 ? 2 : 1);
    line.add(":");
    line.add_number(seconds % 60, 2);
    if (const Path &path = paths[shownPath.load(std::memory_order_relaxed)]; path.length > 0) {
        line.add("; at ");
        line.add_name({path.bytes, path.length});
    }
    line.write();
    errno = number;
}

} // namespace tool
