// What holds for every command: its help, lists of paths, output that nobody reads, names that would write over the
// screen, and no colour anywhere.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::mentions;
using kit::runTool;
using kit::ToolOnTerminal;
using kit::ToolResult;
using namespace std::string_literals;

Arguments joined(Arguments one, const Arguments &other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

// A command is the last word of its column: what it is for may stand before it.
std::string lastWord(std::string text) {
    text.erase(text.find_last_not_of(' ') + 1);
    return text.substr(text.rfind(' ') + 1);
}

// The commands that a help text names, and then theirs.
void forEachCommand(const Arguments &command, const std::function<void(const Arguments &, const std::string &)> &task) {
    const ToolResult help = runTool(joined(command, {"--help"}));
    ASSERT_EQ(0, help.status);
    std::string usage = "\nUsage: vexofileop";
    for (const std::string &word : command) {
        usage += " " + word;
    }
    ASSERT_TRUE(mentions(help.out, usage)) << usage << " is what nothing is called";
    task(command, help.out);
    std::istringstream lines(help.out);
    bool listed = false;
    for (std::string line; std::getline(lines, line);) {
        if (listed && line.starts_with("  ")) {
            forEachCommand(joined(command, {lastWord(line.substr(0, 24))}), task);
        }
        listed = line == "Subcommands:" || (listed && !line.empty());
    }
}

TEST(Usage, HelpOfEveryCommandFitsAScreenAndHasAnExampleOfIt) {
    int seen = 0;
    forEachCommand({}, [&](const Arguments &command, const std::string &help) {
        ++seen;
        std::string name = "vexofileop";
        for (const std::string &word : command) {
            name += " " + word;
        }
        // With a line for the prompt, and none that wraps; --help-all has the rest.
        EXPECT_LE(std::count(help.begin(), help.end(), '\n'), 24) << help;
        std::istringstream lines(help);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 79U) << line;
        }
        const size_t example = help.find("\nExample");
        ASSERT_NE(std::string::npos, example) << help;
        EXPECT_NE(std::string::npos, help.find(name, example)) << help;
        EXPECT_NE(std::string::npos, help.find("Usage: " + name)) << help;
    });
    EXPECT_GT(seen, 25);
}

// Whatever can be done stands under one task, itself or what it is a command of; and nothing else does.
TEST(Usage, HelpListsEveryCommandOnceByItsTask) {
    const ToolResult page = runTool({"help"});
    ASSERT_EQ(0, page.status) << page.err;
    std::map<std::string, int> listed; // how often a command of the program was found under it
    std::istringstream lines(page.out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 79U) << line;
        if (line.starts_with("  ")) {
            const std::string name = line.substr(2, line.find("  ", 2) - 2);
            EXPECT_TRUE(listed.try_emplace(name, 0).second) << name << " stands there twice";
        }
    }
    forEachCommand({}, [&](const Arguments &command, const std::string &help) {
        std::string name;
        int found = 0;
        for (const std::string &word : command) {
            name += (name.empty() ? "" : " ") + word;
            const auto at = listed.find(name);
            found += at == listed.end() ? 0 : 1;
            at == listed.end() ? 0 : ++at->second;
        }
        const bool hasCommands = mentions(help, "\nSubcommands:\n");
        EXPECT_TRUE(found == 1 || (found == 0 && hasCommands)) << name << " is under " << found << " tasks";
    });
    EXPECT_GT(listed.size(), 25U);
    for (const auto &[name, commands] : listed) {
        EXPECT_GT(commands, 0) << name << " is no command";
    }
}

TEST(Usage, HelpOfACommandIsItsOwn) {
    for (const Arguments &command : {Arguments{"copy"}, {"store", "check"}, {"plan", "mirror"}, {"ea"}, {"help"}}) {
        const ToolResult asked = runTool(joined({"help"}, command));
        EXPECT_EQ(0, asked.status) << asked.err;
        EXPECT_EQ(runTool(joined(command, {"--help"})).out, asked.out);
        EXPECT_EQ("", asked.err);
    }
    const ToolResult wrong = runTool({"help", "cpoy"});
    EXPECT_EQ(2, wrong.status);
    EXPECT_EQ("", wrong.out);
    EXPECT_NE(std::string::npos, wrong.err.find("unknown command \"cpoy\"; did you mean \"copy\"?")) << wrong.err;
    EXPECT_EQ(2, runTool({"help", "copy", "film"}).status);
}

// ---- Lists of paths

class ListedPaths : public testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=2").c_str(), 1);
        kit::writeFile(odd, "content");
        ASSERT_EQ(0, ::mkdir((scratch / "into").c_str(), 0755));
        ASSERT_EQ(0, runTool({"ea", "set", odd, "a", "1"}).status);
    }
    void TearDown() override { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    ToolResult listed(const Arguments &command, const std::string &list) const {
        return runTool(joined(command, {"-0", "--files-from", "-"}), {.input = list, .directory = scratch.path()});
    }

    kit::ScratchDirectory scratch;
    std::string odd = scratch / "odd\nname";
};

TEST_F(ListedPaths, EveryCommandOverPathsTakesThemFromAList) {
    for (const Arguments &command : {Arguments{"ea", "list"},
                                     {"ea", "show"},
                                     {"ea", "repair"},
                                     {"ea", "upgrade"},
                                     {"archive", "clear"},
                                     {"copy", "into"},
                                     {"copy", "-n", "into/"},
                                     {"ea", "remove"},
                                     {"remove"}}) {
        const ToolResult result = listed(command, "odd\nname\0"s);
        EXPECT_EQ(0, result.status) << command[0] << " " << result.err;
        EXPECT_EQ("", result.err);
    }
    EXPECT_FALSE(kit::exists(odd));
    EXPECT_EQ("content", kit::readFile(scratch / "into/odd\nname"));
    EXPECT_NE(std::string::npos, listed({"index"}, "odd\nname\0"s).out.find("/odd\\nname: not indexed"));
}

TEST_F(ListedPaths, ComeAfterThoseOfTheCommandLine) {
    kit::writeFile(scratch / "one", "1");
    kit::writeFile(scratch / "two", "2");
    kit::writeFile(scratch / "list", "\ntwo\n\n./odd\n"); // the last one is not there
    const ToolResult result =
        runTool({"move", "-v", "one", "into", "--files-from", "list"}, {.directory = scratch.path()});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ((scratch / "one") + " -> " + (scratch / "into/one") + "\n" + (scratch / "two") + " -> " +
                  (scratch / "into/two") + "\n",
              result.out.substr(0, result.out.find("2 files")));
    EXPECT_NE(std::string::npos, result.err.find(scratch / "odd")) << result.err;
}

TEST_F(ListedPaths, OfOneFileStillGoIntoADirectory) {
    kit::writeFile(scratch / "one", "1");
    const ToolResult result = listed({"copy", "new"}, "one\0"s);
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("/new: no such directory")) << result.err;
    EXPECT_FALSE(kit::exists(scratch / "new"));
}

TEST_F(ListedPaths, EmptyListIsNothingToDo) {
    for (const Arguments &command : {Arguments{"copy", "into"}, {"remove"}, {"ea", "list"}, {"archive", "clear"}}) {
        const ToolResult result = listed(command, "");
        EXPECT_EQ(0, result.status) << command[0] << result.err;
        EXPECT_EQ("", result.err);
    }
}

TEST_F(ListedPaths, WrongUsesDoNothing) {
    kit::writeFile(scratch / "nul", "a\0b"s);
    const std::string before = kit::readFile(odd);
    for (const Arguments &wrong : {Arguments{"remove", "-0", "odd"},
                                   {"remove", "--files-from", "none"},
                                   {"remove", "--files-from", "."},
                                   {"remove", "--files-from", "nul"},
                                   {"remove", "-i", "--files-from", "-"},
                                   {"copy", "-i", "--files-from", "-", "into"},
                                   {"copy", "--files-from", "-"},
                                   {"remove", "odd\nname", ""}}) {
        const ToolResult result = runTool(wrong, {.input = "odd\n", .directory = scratch.path()});
        EXPECT_EQ(2, result.status) << wrong[1] << " " << wrong[2];
        EXPECT_NE(std::string::npos, result.err.find("--help'.\n")) << result.err;
    }
    EXPECT_TRUE(kit::exists(odd));
}

TEST_F(ListedPaths, CtrlCWhileTheListIsAwaitedStops) {
    ToolOnTerminal tool({"ea", "list", "--files-from", "-"});
    tool.type(odd.substr(0, 5) + "\n");
    ASSERT_TRUE(tool.catches(SIGINT));
    tool.type("\x03");
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status);
    EXPECT_FALSE(result.killed);
    EXPECT_NE(std::string::npos, result.out.find("vexofileop: stopped; 0 done")) << result.out;
}

// ---- Output

// Commands whose output is long or short, lines or bytes.
std::vector<Arguments> talkative(const std::string &file) {
    return {{"--help"},
            {"help"},
            {"--version"},
            {"copy", "--help"},
            {"explain"},
            {"explain", "0xA400"},
            {"reflink", "status"},
            {"index", file},
            {"ea", "list", file},
            {"ea", "get", file, "bytes"},
            {"ea", "show", "--json", file},
            {"ea", "diff", file, file, "--json"},
            {"store", "check", file},
            {"explain", "store-orphan"},
            {"copy", "-fv", file, file + " (copy)"}};
}

class Output : public ListedPaths {
  protected:
    void SetUp() override {
        ListedPaths::SetUp();
        if (!IsSkipped()) {
            kit::writeFile(scratch / "big", kit::pattern(1 << 20));
            ASSERT_EQ(0, runTool({"ea", "set", odd, "bytes", "--from", scratch / "big"}).status);
        }
    }
};

TEST_F(Output, ReaderThatWentAwayIsNoFailure) {
    for (const Arguments &command : talkative(odd)) {
        const ToolResult result = runTool(command, {.outputGone = true});
        EXPECT_FALSE(result.killed) << command[0];
        EXPECT_EQ(command[0] == "index" ? 2 : 0, result.status) << command[0] << " " << command.back();
        EXPECT_EQ("", result.err.substr(0, result.err.find("vexofileop: no media service"))) << command[0];
    }
}

TEST_F(Output, FullDiskIsTold) {
    for (const Arguments &command : talkative(odd)) {
        const ToolResult result = runTool(command, {.outputTo = "/dev/full"});
        EXPECT_NE(0, result.status) << command[0] << " " << command.back();
        EXPECT_NE(std::string::npos, result.err.find("No space left on device")) << command[0] << " " << result.err;
    }
}

TEST_F(Output, NothingIsColouredAndNoNameReachesTheScreenAsItIs) {
    const std::string loud = scratch / "\x1b[31mred\x07\xe2\x80\xae";
    kit::writeFile(loud, "x");
    ASSERT_EQ(0, runTool({"ea", "set", loud, "bytes", "--hex", "1b5b33316d"}).status);
    ASSERT_EQ(0, runTool({"ea", "set", loud, "\x1b[31m", "1"}).status);
    std::vector<Arguments> commands = talkative(loud);
    commands.insert(commands.end(), {{"remove", loud + "x"},
                                     {"relocate", "-y", loud, scratch / "there"},
                                     {"archive", "clear", loud + "x"},
                                     {"reflink", "check", loud, scratch.path()},
                                     {"explain", loud},
                                     {"copy", "--" + loud, "a"},
                                     {loud},
                                     {"notify", loud, "a"}});
    for (const Arguments &command : commands) {
        std::string usual;
        for (const char *noColour : {"", "1"}) {
            ::setenv("NO_COLOR", noColour, 1);
            const ToolResult result = ToolOnTerminal(command).finish();
            EXPECT_EQ(std::string::npos, result.out.find_first_of("\x1b\x07")) << command[0] << " " << command.back();
            const bool json = std::ranges::find(command, "--json") != command.end(); // which is for programs
            EXPECT_TRUE(json || result.out.find("\xe2\x80\xae") == std::string::npos) << command[0];
            usual = usual.empty() ? result.out : usual;
            EXPECT_EQ(usual, result.out);
        }
    }
    ::unsetenv("NO_COLOR");
}

} // namespace
