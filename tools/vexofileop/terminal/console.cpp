#include "tools/vexofileop/terminal/console.h"

#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {
namespace {

constexpr std::chrono::milliseconds kMoment{500};
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::milliseconds kNextLine{200};
constexpr int kUsualWidth = 80;

void write_error(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return; // There is nowhere left to say so.
        }
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
}

bool can_redraw() {
    const char *const terminal = std::getenv("TERM");
    return ::isatty(STDERR_FILENO) == 1 && terminal != nullptr && *terminal != '\0' &&
           std::string_view(terminal) != "dumb";
}

// Asked at every redraw, which follows a window that changes its size sooner than a handler for SIGWINCH needs to.
int terminal_width() {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualWidth;
}

// In the background the terminal is somebody else's.
bool is_in_foreground() {
    const pid_t group = ::tcgetpgrp(STDERR_FILENO);
    return group < 0 || group == ::getpgrp();
}

// A line of stdin, read byte by byte so that what follows stays for the next question or program. Nothing: there is
// none.
std::optional<std::string> read_answer() {
    std::string answer;
    for (char byte = 0; wait_readable(STDIN_FILENO) && ::read(STDIN_FILENO, &byte, 1) == 1; answer += byte) {
        if (byte == '\n') {
            return answer;
        }
    }
    return answer.empty() ? std::nullopt : std::optional(answer);
}

} // namespace

void Console::message(std::string_view text) {
    clear_progress();
    write_error(fmt::format("vexofileop: {}\n", text));
}

void Console::line(std::string_view text) {
    clear_progress();
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    // Line by line also into a pipe, so that a script follows the work.
    if (std::fflush(stdout) != 0 && m_outputError == 0) {
        m_outputError = errno;
    }
}

bool Console::confirm(std::string_view question) {
    if (m_unanswered) {
        return false;
    }
    clear_progress();
    write_error(fmt::format("vexofileop: {} [y/N] ", question));
    const auto given = read_answer();
    if (stop_signal() != 0 || !given) {
        write_error("\n");
    }
    if (stop_signal() == 0 && !given) {
        m_unanswered = true;
        message("no answer can be read; what would have to be asked about stays as it is");
    }
    const std::string answer = stop_signal() == 0 ? given.value_or("") : "";
    return answer.starts_with('y') || answer.starts_with('Y');
}

bool Console::check_output() {
    if (m_outputError == 0 || m_outputError == EPIPE) {
        return true;
    }
    message(fmt::format("writing the output failed: {}", std::strerror(m_outputError)));
    return false;
}

bool Console::can_show_progress() {
    return can_redraw();
}

bool Console::can_ask() {
    return ::isatty(STDIN_FILENO) == 1;
}

void Console::start(int64_t totalBytes, int64_t totalFiles) {
    m_total = totalBytes;
    m_totalFiles = totalFiles;
    m_started = Clock::now();
    m_rate = {};
    m_rate.add(0, 0);
    m_left = TimeLeft(totalBytes, totalFiles);
    m_left.add(0, 0, 0);
    note_totals(totalBytes, totalFiles);
}

void Console::start_progress(int64_t totalBytes, int64_t totalFiles) {
    m_progress = can_redraw();
    start(totalBytes, totalFiles);
    m_nextDraw = m_started + kMoment;
    if (m_progress) {
        watch_pauses();
    }
}

void Console::start_progress_lines(int64_t totalBytes, int64_t totalFiles, ProgressText text) {
    m_progress = true;
    m_text = std::move(text);
    start(totalBytes, totalFiles);
    m_nextDraw = m_started;
    progress(0, 0);
}

void Console::progress(int64_t doneBytes, int64_t doneFiles) {
    note_done(doneBytes, doneFiles);
    if (!m_progress) {
        return;
    }
    m_done = doneBytes;
    m_files = doneFiles;
    const Clock::time_point now = Clock::now();
    if (now < m_nextDraw) {
        return;
    }
    m_nextDraw = now + (m_text ? kNextLine : kRedraw);
    const double seconds = std::chrono::duration<double>(now - m_started).count() - paused_seconds();
    m_rate.add(seconds, doneBytes);
    m_left.add(seconds, doneBytes, doneFiles);
    draw({doneBytes, m_total, doneFiles, m_totalFiles, seconds, m_rate.rate(), m_left.seconds(), m_phase, m_removed});
}

void Console::start_phase(std::string_view phase) {
    m_phase = phase;
    if (m_text) {
        m_progress = true;
        m_nextDraw = {};
        progress(m_done, m_files);
    }
}

void Console::removed(int64_t entries) {
    m_removed = entries;
    if (m_text) {
        progress(m_done, m_files);
    }
}

void Console::draw(const ProgressNow &now) {
    if (m_text) {
        write_error(m_text(now) + "\n");
    } else if (is_in_foreground()) {
        // The time that bytes and files need is known where both are; of one file the rate of its bytes says it.
        const auto left = m_totalFiles > 0 ? now.left : std::nullopt;
        write_error("\r" +
                    render_progress({now.bytes, m_total, now.rate, terminal_width(), now.files, m_totalFiles, left}) +
                    "\x1b[K");
        set_line_drawn(true);
    }
}

void Console::end_progress() {
    clear_progress();
    if (m_progress && m_text) {
        m_nextDraw = {};
        progress(m_done, m_files);
    }
    m_progress = false;
}

void Console::clear_progress() {
    if (m_progress && !m_text && is_line_drawn()) {
        write_error("\r\x1b[K");
        set_line_drawn(false);
    }
}

} // namespace tool
