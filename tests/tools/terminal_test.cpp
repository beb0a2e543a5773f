// The tool on a terminal: the progress line, questions, Ctrl-C.
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/screen.h"
#include "tests/tools/slow_file.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::ToolOnTerminal;
using kit::ToolResult;

constexpr int64_t kMiB = 1 << 20;
constexpr int64_t kSize = 64 * kMiB;

class Terminal : public ::testing::Test {
  protected:
    void makeSlowFile() {
        try {
            m_slow.emplace(kSize);
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
    }
    kit::SlowFile &slow() { return *m_slow; }
    // Lets the copy run on by so much, once it has come to the end of what it may read, and takes a moment for it:
    // the line comes, and is drawn anew, by the clock.
    bool advances(int64_t bytes) {
        if (m_allowed + bytes >= kSize || (m_allowed > 0 && !slow().waitedFor())) {
            return false;
        }
        slow().allow(m_allowed += bytes);
        ::usleep(20'000);
        return true;
    }
    // The same, bit by bit, until `tool` shows `text`.
    bool advancesUntil(ToolOnTerminal &tool, const std::string &text) {
        while (advances(kMiB)) {
            if (tool.screen().find(text) != std::string::npos) {
                return true;
            }
        }
        return tool.shows(text);
    }
    // The same until the only row is one of the pattern.
    bool advancesUntilRow(ToolOnTerminal &tool, size_t columns, const std::string &pattern) {
        const std::regex wanted(pattern);
        while (advances(kMiB / 2)) {
            const std::vector<std::string> rows = kit::rowsOnScreen(tool.screen(), columns);
            if (rows.size() == 1 && std::regex_match(rows[0], wanted)) {
                return true;
            }
        }
        return false;
    }
    void forgetAllowed() { m_allowed = 0; }
    std::string target() const { return scratch / "copy"; }

    kit::ScratchDirectory scratch;

  private:
    std::optional<kit::SlowFile> m_slow;
    int64_t m_allowed = 0;
};

#define MAKE_SLOW_FILE()                                                                                               \
    makeSlowFile();                                                                                                    \
    if (IsSkipped()) {                                                                                                 \
        return;                                                                                                        \
    }

TEST_F(Terminal, LongWorkShowsAProgressLineAndTakesItAwayAtTheEnd) {
    MAKE_SLOW_FILE();
    ToolOnTerminal tool({"copy", slow().path(), target()});
    ASSERT_TRUE(advancesUntil(tool, "of 64 MiB"));
    EXPECT_TRUE(tool.shows("]  "));
    slow().allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(0, result.status);
    EXPECT_TRUE(result.out.ends_with("\r\x1b[K")) << result.out;
    EXPECT_EQ(kSize, kit::statOf(target()).st_size);
}

TEST_F(Terminal, ProgressLineFollowsTheWidthOfTheWindow) {
    MAKE_SLOW_FILE();
    ToolOnTerminal tool({"copy", slow().path(), target()}, 24);
    ASSERT_TRUE(advancesUntil(tool, "of 64 MiB"));
    EXPECT_EQ(std::string::npos, tool.screen().find('[' + std::string("="))) << tool.screen();
    tool.resize(100);
    EXPECT_TRUE(advancesUntil(tool, "/s"));
    EXPECT_TRUE(tool.shows("]  "));
    slow().allowAll();
    EXPECT_EQ(0, tool.finish().status);
}

TEST_F(Terminal, CtrlCAtARemovalLeavesTheRest) {
    ASSERT_EQ(0, ::mkdir((scratch / "tree").c_str(), 0755));
    kit::writeFile(scratch / "tree/file", "x");
    ToolOnTerminal tool({"remove", "-ri", scratch / "tree"});
    ASSERT_TRUE(tool.shows("go into the directory"));
    tool.type("y\n");
    ASSERT_TRUE(tool.shows("tree/file? [y/N] "));
    tool.type("\x03");
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status);
    EXPECT_NE(std::string::npos, result.out.find("vexofileop: stopped; 0 removed")) << result.out;
    EXPECT_EQ("x", kit::readFile(scratch / "tree/file"));
}

// At every width one row that says as much as fits; and when it is over, a screen as if it had never been there.
TEST_F(Terminal, ScreensOfSeveralWidths) {
    struct Width {
        int columns;
        const char *progress; // a pattern
    };
    constexpr const char *amount = "[ 0-9]{3}%  [0-9.]+ of 64 MiB";
    const Width widths[] = {
        {12, "[ 0-9]{3}%"},
        {24, amount},
        {34, "[ 0-9]{3}%  [0-9.]+ of 64 MiB  [0-9.]+ [KM]iB/s"},
        {80, R"(\[=+>? *\] [ 0-9]{3}%  [0-9.]+ of 64 MiB  [0-9.]+ [KM]iB/s  [0-9:]+ left  0/2 files)"},
        {132, R"(\[=+>? *\] [ 0-9]{3}%  [0-9.]+ of 64 MiB  [0-9.]+ [KM]iB/s  [0-9:]+ left  0/2 files)"},
    };
    kit::writeFile(scratch / "other", "new");
    for (const Width &width : widths) {
        MAKE_SLOW_FILE();
        forgetAllowed();
        const std::string into = scratch / std::to_string(width.columns);
        ASSERT_EQ(0, ::mkdir(into.c_str(), 0755));
        kit::writeFile(into + "/other", "old");
        const auto columns = static_cast<size_t>(width.columns);
        ToolOnTerminal tool({"copy", "-iv", slow().path(), scratch / "other", into}, width.columns);
        EXPECT_TRUE(advancesUntilRow(tool, columns, width.progress)) << width.columns << "\n" << tool.screen();
        slow().allowAll();
        ASSERT_TRUE(tool.shows("[y/N] "));
        tool.type("n\n");
        const ToolResult result = tool.finish();
        EXPECT_EQ(0, result.status);
        const std::string name = slow().path().substr(slow().path().rfind('/') + 1);
        EXPECT_EQ(kit::rowsOnScreen(slow().path() + " -> " + into + "/" + name + "\r\nvexofileop: replace " + into +
                                        "/other? [y/N] n\r\n" + (scratch / "other") + " -> " + into +
                                        "/other (skipped, destination exists)\r\n",
                                    columns),
                  kit::rowsOnScreen(result.out, columns))
            << result.out;
    }
}

TEST_F(Terminal, ShortWorkShowsNone) {
    kit::writeFile(scratch / "file", "content");
    ToolOnTerminal tool({"copy", scratch / "file", target()});
    EXPECT_EQ("", tool.finish().out);
}

TEST_F(Terminal, NoProgressLineWhereItIsNotWanted) {
    for (const auto &[option, term] : {std::pair("--no-progress", "xterm"), {"--json", "xterm"}, {"-v", "dumb"}}) {
        MAKE_SLOW_FILE();
        forgetAllowed();
        ToolOnTerminal tool({"copy", "-f", option, slow().path(), target()}, 80, term);
        while (advances(kMiB)) { // longer than the moment after which the line would come
        }
        slow().allowAll();
        const ToolResult result = tool.finish();
        EXPECT_EQ(0, result.status) << option;
        EXPECT_EQ(std::string::npos, result.out.find("of 64 MiB")) << result.out;
    }
}

TEST_F(Terminal, CtrlCStopsTheCopyAndLeavesNoHalfFile) {
    MAKE_SLOW_FILE();
    slow().allow(9 * kMiB);
    ToolOnTerminal tool({"copy", slow().path(), target()});
    ASSERT_TRUE(slow().waitedFor());
    // What is under way does not stand under its own name yet.
    ASSERT_FALSE(kit::exists(target()));
    ASSERT_EQ(1u, kit::namesIn(scratch.path()).size());
    tool.type("\x03");
    ASSERT_TRUE(tool.takes(SIGINT));
    slow().allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status);
    EXPECT_FALSE(result.killed);
    EXPECT_NE(std::string::npos, result.out.find("vexofileop: stopped; 0 of 1 file copied")) << result.out;
    EXPECT_TRUE(kit::namesIn(scratch.path()).empty());
}

TEST_F(Terminal, TerminationStopsTheSameWay) {
    MAKE_SLOW_FILE();
    slow().allow(9 * kMiB);
    ToolOnTerminal tool({"copy", "--json", slow().path(), target()});
    ASSERT_TRUE(slow().waitedFor());
    tool.send(SIGTERM);
    ASSERT_TRUE(tool.takes(SIGTERM));
    slow().allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(143, result.status);
    EXPECT_NE(std::string::npos, result.out.find("\"status\":\"cancelled\"")) << result.out;
    EXPECT_NE(std::string::npos, result.out.find("\"cancelled\":true,\"exit_status\":143")) << result.out;
    EXPECT_TRUE(kit::namesIn(scratch.path()).empty());
}

TEST_F(Terminal, StopLeavesLaterFilesAlone) {
    MAKE_SLOW_FILE();
    kit::writeFile(scratch / "other", "x");
    ASSERT_EQ(0, ::mkdir((scratch / "into").c_str(), 0755));
    slow().allow(9 * kMiB);
    ToolOnTerminal tool({"copy", slow().path(), scratch / "other", scratch / "into"});
    ASSERT_TRUE(slow().waitedFor());
    tool.type("\x03");
    ASSERT_TRUE(tool.takes(SIGINT));
    slow().allowAll();
    EXPECT_EQ(130, tool.finish().status);
    EXPECT_TRUE(kit::namesIn(scratch / "into").empty());
}

TEST_F(Terminal, SecondCtrlCEndsAtOnce) {
    MAKE_SLOW_FILE();
    slow().allow(9 * kMiB);
    slow().holdClose();
    ToolOnTerminal tool({"copy", slow().path(), target()});
    ASSERT_TRUE(slow().waitedFor());
    tool.type("\x03");
    ASSERT_TRUE(tool.takes(SIGINT));
    slow().allow(kSize); // closing the source still waits
    ASSERT_TRUE(slow().closeWaitedFor());
    tool.type("\x03");
    ASSERT_TRUE(tool.isEndedBy(SIGINT)); // a process that waits for FUSE ends when FUSE lets go of it
    slow().allowAll();
    const ToolResult result = tool.finish();
    EXPECT_TRUE(result.killed);
    EXPECT_EQ(130, result.status);
}

TEST_F(Terminal, CancelledMoveKeepsTheSource) {
    MAKE_SLOW_FILE();
    slow().allow(9 * kMiB);
    ToolOnTerminal tool({"move", slow().path(), target()});
    ASSERT_TRUE(slow().waitedFor());
    tool.type("\x03");
    ASSERT_TRUE(tool.takes(SIGINT));
    slow().allowAll();
    EXPECT_EQ(130, tool.finish().status);
    EXPECT_TRUE(kit::exists(slow().path()));
    EXPECT_FALSE(kit::exists(target()));
}

// Where it is, also in the middle of a call that takes long, and nothing of the copy is lost by the question.
TEST_F(Terminal, AskedBySignalItTellsWhereItIs) {
    MAKE_SLOW_FILE();
    ToolOnTerminal tool({"copy", "--no-progress", slow().path(), target()});
    ASSERT_TRUE(advances(9 * kMiB));
    ASSERT_TRUE(slow().waitedFor());
    for (const char *again : {"first", "second"}) {
        tool.forget();
        tool.send(SIGUSR1);
        // A read of this kind of volume ends before a signal is taken.
        ASSERT_TRUE(advancesUntil(tool, "vexofileop: copy: 0 files, ")) << again << tool.screen();
        ASSERT_TRUE(tool.shows("; at " + slow().path() + "\r\n")) << again << tool.screen();
    }
    slow().allowAll();
    EXPECT_EQ(0, tool.finish().status);
    EXPECT_EQ(kSize, kit::statOf(target()).st_size);
}

TEST_F(Terminal, AskedBySignalItAnswersOnStderrWhereverThatGoes) {
    MAKE_SLOW_FILE();
    ASSERT_TRUE(advances(9 * kMiB));
    const std::string odd = scratch / "odd \x1b[31m\xff", said = scratch / "said";
    ASSERT_EQ(0, ::symlink(slow().path().c_str(), odd.c_str()));
    ToolOnTerminal shell({"-c", R"("$TOOL" copy "$1" "$2" 2>"$3" & read -r; kill -USR1 $!; echo asked; wait $!)",
                          "bash", odd, target(), said},
                         80, "xterm", "/bin/bash");
    ASSERT_TRUE(slow().waitedFor());
    shell.type("\n");
    ASSERT_TRUE(shell.shows("asked"));
    slow().allowAll();
    EXPECT_EQ(0, shell.finish().status);
    const std::string line = kit::readFile(said);
    EXPECT_TRUE(line.starts_with("vexofileop: copy: 0 files, ")) << line;
    EXPECT_TRUE(line.ends_with("; at " + (scratch / "odd ") + "\\x1b[31m\\xff\n")) << line;
    EXPECT_EQ(kSize, kit::statOf(target()).st_size);
}

TEST_F(Terminal, AStopLeavesACleanLineAndTheBarComesAgain) {
    MAKE_SLOW_FILE();
    ToolOnTerminal shell(
        {"-c", R"(stty -echo; set -m; "$TOOL" copy "$1" "$2"; echo "left by $?"; read -r; fg; echo "ended by $?")",
         "bash", slow().path(), target()},
        80, "xterm", "/bin/bash");
    ASSERT_TRUE(advancesUntil(shell, "of 64 MiB"));
    shell.type("\x1a");
    ASSERT_TRUE(advancesUntil(shell, "left by 148")) << shell.screen();
    const std::vector<std::string> rows = kit::rowsOnScreen(shell.screen(), 80);
    EXPECT_TRUE(std::ranges::none_of(rows, [](const std::string &row) { return row.find("of 64 MiB") != row.npos; }))
        << shell.screen();
    shell.forget();
    shell.resize(40);
    shell.type("\n");
    ASSERT_TRUE(advancesUntil(shell, "of 64 MiB")) << shell.screen();
    slow().allowAll();
    ASSERT_TRUE(shell.shows("ended by 0")) << shell.screen();
    EXPECT_EQ(0, shell.finish().status);
    EXPECT_EQ(kSize, kit::statOf(target()).st_size);
}

class Question : public Terminal {
  protected:
    Question() {
        kit::writeFile(scratch / "file", "new");
        kit::writeFile(target(), "old");
        m_tool.emplace(Arguments{"copy", "-i", scratch / "file", target()});
    }
    ToolOnTerminal &tool() { return *m_tool; }
    void asked() { ASSERT_TRUE(tool().shows("replace " + target() + "? [y/N] ")) << tool().screen(); }

  private:
    std::optional<ToolOnTerminal> m_tool;
};

TEST_F(Question, YesReplaces) {
    asked();
    tool().type("y\n");
    EXPECT_EQ(0, tool().finish().status);
    EXPECT_EQ("new", kit::readFile(target()));
}

TEST_F(Question, NoAndReturnLeaveItAndAreASuccess) {
    asked();
    tool().type("\n");
    EXPECT_EQ(0, tool().finish().status);
    EXPECT_EQ("old", kit::readFile(target()));
}

TEST_F(Question, EndOfInputIsNoAnswerAndNoSuccess) {
    asked();
    tool().type("\x04");
    const ToolResult result = tool().finish();
    EXPECT_EQ(1, result.status);
    EXPECT_NE(std::string::npos, result.out.find("no answer can be read; what would have to be asked about stays"));
    EXPECT_EQ("old", kit::readFile(target()));
}

TEST_F(Question, CtrlCAtTheQuestionStops) {
    asked();
    tool().type("\x03");
    const ToolResult result = tool().finish();
    EXPECT_EQ(130, result.status);
    EXPECT_NE(std::string::npos, result.out.find("stopped; 0 of 1 file copied")) << result.out;
    EXPECT_EQ("old", kit::readFile(target()));
}

} // namespace
