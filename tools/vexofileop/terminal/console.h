// Everything the tool says: messages on stderr, lines on stdout, questions, and the progress line, which is out of the
// way whenever something else is said. Nothing is coloured.
#pragma once

#include "tools/vexofileop/terminal/progress_bar.h"
#include "tools/vexofileop/terminal/time_left.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

// How far the work is. Totals of 0 are not known.
struct ProgressNow {
    int64_t bytes, totalBytes, files, totalFiles;
    double seconds;                   // since it began, but those in which the program was stopped
    std::optional<double> rate, left; // bytes a second; seconds
    std::string_view phase;           // empty: the first
    int64_t removed;
};

class Console {
  public:
    Console() = default;
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;
    ~Console() { clear_progress(); }

    // "vexofileop: TEXT" on stderr. The caller has made names displayable.
    void message(std::string_view text);
    // "TEXT" on stdout.
    void line(std::string_view text);
    // "vexofileop: QUESTION [y/N] " on stderr, and the answer from stdin: true for one that begins with y or Y. The end
    // of the input and a stop signal are a no; after the end of the input, which is told, nothing is asked any more.
    bool confirm(std::string_view question);
    // Whether a question found no answer.
    bool is_unanswered() const { return m_unanswered; }
    // Whether all that line() said arrived. A message tells when it did not; a reader that went away is no failure.
    bool check_output();

    // Shows a progress line from half a second from now on, where stderr is a terminal that can redraw one.
    void start_progress(int64_t totalBytes, int64_t totalFiles = 0);
    // Instead of it a line of `text` on stderr now, several times a second as long as something is done, and at the
    // end.
    using ProgressText = std::function<std::string(const ProgressNow &)>;
    void start_progress_lines(int64_t totalBytes, int64_t totalFiles, ProgressText text);
    void progress(int64_t doneBytes, int64_t doneFiles = 0);
    // What begins now, of lines: one of its own, also after their end.
    void start_phase(std::string_view phase);
    // So many entries are removed by now.
    void removed(int64_t entries);
    void end_progress();
    // Whether a progress line could be shown at all.
    static bool can_show_progress();
    // Whether a question reaches a person.
    static bool can_ask();
    void clear_progress();

  private:
    using Clock = std::chrono::steady_clock;
    void start(int64_t totalBytes, int64_t totalFiles);
    void draw(const ProgressNow &now);
    int m_outputError = 0; // errno of the first write to stdout that failed
    bool m_unanswered = false;
    bool m_progress = false;  // wanted
    ProgressText m_text = {}; // of lines
    std::string_view m_phase = {};
    int64_t m_total = 0, m_totalFiles = 0, m_done = 0, m_files = 0, m_removed = 0;
    Clock::time_point m_started, m_nextDraw;
    RateMeter m_rate;
    TimeLeft m_left{0, 0};
};

} // namespace tool
