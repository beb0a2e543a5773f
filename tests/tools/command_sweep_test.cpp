// Commands of the tool that no other sweep has: each is killed before its system calls, and has them fail once, and is
// run again with the same arguments. Nothing is lost at any point, the second run ends like an undisturbed one, and a
// status that says that all is well is checked against a comparison and against a look at the two trees that shares no
// code with the tool. A sample of the points; with VEXO_FULL in the environment all of them, of a command with very
// many five hundred.
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/swept_scene.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;
using swept::supervised;
using swept::swept_commands;
using swept::SweptCommand;
using swept::SweptScene;

class CommandSweep : public ::testing::TestWithParam<SweptCommand> {
  protected:
    void SetUp() override {
        KIT_NOT_SANITIZED();
        if (const std::string why = ::geteuid() != 0 ? "only root makes stores" : faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        if (GetParam().across) {
            KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
            m_volume.emplace(std::move(volume));
        }
        const SweptScene scene(place());
        const Arguments arguments = GetParam().prepare(scene);
        const faults::Outcome outcome = supervised(arguments, {});
        ASSERT_TRUE(WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == GetParam().good) << outcome.status;
        ASSERT_EQ("", GetParam().lost(scene));
        ASSERT_EQ("", GetParam().undone(scene));
        ASSERT_EQ("", GetParam().settled == nullptr ? "" : GetParam().settled(scene));
        ASSERT_EQ("", scene.left_over());
        calls = outcome.calls;
        // What comes before the first call on the scene is the start of a program.
        const auto begins = [&](const faults::SystemCall &call) { return call.path.starts_with(scene.scratch.path()); };
        first = static_cast<size_t>(std::ranges::find_if(calls, begins) - calls.begin());
        ASSERT_LT(first, calls.size());
    }
    std::string place() const { return m_volume ? m_volume->path() : std::string(); }
    // Another part of the points for each command.
    static std::vector<size_t> sample(size_t points) {
        const size_t most = std::getenv("VEXO_FULL") != nullptr ? 500 : 4; // NOLINT(concurrency-mt-unsafe)
        const size_t parts = std::min(points, most), seed = std::hash<std::string>()(GetParam().name);
        std::vector<size_t> all;
        for (size_t part = 0; part < parts; ++part) {
            const size_t from = part * points / parts, to = (part + 1) * points / parts;
            all.push_back(from + seed % (to - from));
        }
        return all;
    }
    // What has gone in the run before is not there for this one, which is told, as of any name that is not there.
    static bool told_gone(const ToolResult &result) {
        std::istringstream lines(result.err);
        bool gone = GetParam().moves && !result.err.empty();
        for (std::string line; std::getline(lines, line);) {
            gone &= line.find("o such file") != std::string::npos || line.starts_with("Try '");
        }
        return gone;
    }
    // After a run that was disturbed. `denied`: by a file system that says that something is not there.
    static void again(const SweptScene &scene, const Arguments &arguments, const std::string &point,
                      bool denied = false) {
        // Lists that are whole stay, and no others take their place.
        if (GetParam().name == std::string_view("divide") && kit::exists(scene.lists + "/directories")) {
            std::filesystem::remove_all(scene.lists);
        }
        const ToolResult result = runTool(arguments);
        // What was mended by then is sound.
        const bool mended = result.status == 0 && GetParam().name == std::string_view("repair");
        EXPECT_TRUE(result.status == GetParam().good || mended || told_gone(result))
            << point << "\n"
            << result.status << result.out << result.err;
        EXPECT_EQ("", GetParam().lost(scene)) << point << ", again";
        if (denied && !scene.left_over().empty()) { // of which nobody knows that it is there
            return;
        }
        EXPECT_EQ("", GetParam().undone(scene)) << point << ", again\n" << result.err;
        EXPECT_EQ("", GetParam().settled == nullptr ? "" : GetParam().settled(scene)) << point << ", again";
        EXPECT_EQ("", scene.left_over()) << point << ", again";
    }

    std::vector<faults::SystemCall> calls;
    size_t first = 0;

  private:
    std::optional<kit::Volume> m_volume;
};
INSTANTIATE_TEST_SUITE_P(Commands, CommandSweep, ::testing::ValuesIn(swept_commands()),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_P(CommandSweep, KilledAnywhereTheSameAgainFinishesIt) {
    size_t runs = 0;
    for (const size_t point_of : sample(calls.size() - first)) {
        if (HasFailure()) {
            break;
        }
        const size_t at = first + point_of;
        const SweptScene scene(place());
        const Arguments arguments = GetParam().prepare(scene);
        const std::string point =
            "killed before call " + std::to_string(at) + " " + faults::nameOf(calls[at]) + " " + calls[at].path;
        const faults::Outcome outcome = supervised(arguments, faults::planAt(faults::Plan::Action::kill, calls, at));
        EXPECT_FALSE(outcome.hung) << point;
        EXPECT_EQ("", GetParam().lost(scene)) << point;
        again(scene, arguments, point);
        ++runs;
    }
    std::cout << runs << " of " << calls.size() - first << " points\n";
}

TEST_P(CommandSweep, WhicheverCallFailsASuccessIsOne) {
    std::vector<std::pair<size_t, int>> plans;
    for (size_t at = first; at < calls.size(); ++at) {
        for (const int error : faults::plausibleErrors(calls[at])) {
            plans.emplace_back(at, error);
        }
    }
    ASSERT_FALSE(plans.empty());
    size_t runs = 0;
    for (const size_t index : sample(plans.size())) {
        if (HasFailure()) {
            break;
        }
        const SweptScene scene(place());
        const Arguments arguments = GetParam().prepare(scene);
        const auto [at, error] = plans[index];
        const std::string point = faults::nameOf(calls[at]) + " " + calls[at].path + " (call " + std::to_string(at) +
                                  ") " + std::strerror(error);
        const faults::Outcome outcome =
            supervised(arguments, faults::planAt(faults::Plan::Action::fail, calls, at, error));
        EXPECT_FALSE(outcome.hung) << point;
        EXPECT_TRUE(WIFEXITED(outcome.status)) << point;
        EXPECT_EQ("", GetParam().lost(scene)) << point;
        // That something is not there no caller can doubt.
        if (WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0 && error != ENOENT) {
            EXPECT_EQ(0, GetParam().good) << point << ": it says that all is well";
            EXPECT_EQ("", GetParam().undone(scene)) << point;
        }
        // A note that could not be removed goes with the next run.
        if (outcome.status != 0 || error == ENOENT || !scene.left_over().empty()) {
            again(scene, arguments, point, error == ENOENT);
        }
        ++runs;
    }
    std::cout << runs << " of " << plans.size() << " points\n";
}

// Of each command that is shown by "--help", and has none below it: which sweep has it, or why none has.
const std::map<std::string, const char *> kSweptElsewhere = {
    {"ea set", "EaSweep"},
    {"ea rm", "EaSweep"},
    {"ea copy", "EaSweep"},
    {"plan move", "as \"plan copy\""},
    {"plan mirror", "as \"plan copy\""},
    {"plan backup", "as \"plan copy\""},
    {"ea list", "changes nothing, and its status says nothing of anything"},
    {"ea get", "changes nothing, and its status says nothing of anything"},
    {"ea show", "changes nothing, and its status says nothing of anything"},
    {"index", "asks the library for a rule"},
    {"notify", "sends one message, of which no answer comes"},
    {"explain", "looks at no file"},
    {"help", "looks at no file"},
    {"reflink status", "asks the library for a switch"},
    {"reflink check", "asks the library for a rule"},
    {"reflink on", "a line in a file of the system, which the platform writes"},
    {"reflink off", "a line in a file of the system, which the platform writes"}};

void leaves_below(const Arguments &words, std::set<std::string> &leaves) {
    Arguments asked = words;
    asked.emplace_back("--help");
    std::istringstream lines(runTool(asked).out);
    bool listed = false, any = false;
    for (std::string line; std::getline(lines, line);) {
        listed = (listed && !line.empty()) || line == "Subcommands:";
        std::istringstream row(line);
        std::string word;
        row >> word;
        if (listed && !word.empty() && std::isupper(static_cast<unsigned char>(word.front())) != 0) {
            row >> word; // behind the title of a group
        }
        if (listed && line.starts_with("  ") && !word.empty()) {
            Arguments below = words;
            below.push_back(word);
            leaves_below(below, leaves);
            any = true;
        }
    }
    if (!any) {
        std::string name;
        for (const std::string &word : words) {
            name += (name.empty() ? "" : " ") + word;
        }
        leaves.insert(name);
    }
}

TEST(SweptCommands, AreAllThatThereAre) {
    KIT_NOT_SANITIZED();
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root makes stores";
    }
    std::set<std::string> leaves;
    leaves_below({}, leaves);
    EXPECT_LT(20U, leaves.size());
    std::set<std::string> swept;
    for (const SweptCommand &command : swept_commands()) {
        const SweptScene scene;
        const Arguments words = command.prepare(scene);
        swept.insert(words[0]);
        swept.insert(words[0] + " " + words[1]);
    }
    for (const std::string &leaf : leaves) {
        EXPECT_NE(swept.contains(leaf), kSweptElsewhere.contains(leaf)) << leaf;
    }
    for (const auto &[name, where] : kSweptElsewhere) {
        EXPECT_TRUE(leaves.contains(name)) << name << ": " << where;
    }
}

// A power failure would leave half of it in the place of the old one.
TEST(MirrorOfNames, HasTheShorterListOnTheDiskBeforeItIsInPlace) {
    KIT_NOT_SANITIZED();
    if (const std::string why = faults::unavailable(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
    ::setenv("VEXOFILEOP_FSTYPES", (copy + "=18").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir(copy.c_str(), 0755));
    kit::writeFile(tree + "/a:b", "a");
    kit::writeFile(tree + "/c:d", "c");
    const Arguments mirror{"mirror", "-f", "--names=reversible", "--sync=file", "--accept", "fat", tree, copy};
    const ToolResult first = runTool(mirror);
    EXPECT_EQ(0, first.status) << first.err;
    ASSERT_TRUE(kit::exists(copy + "/.vexofileop-names"));
    ASSERT_EQ(0, ::unlink((tree + "/a:b").c_str()));
    const std::vector<faults::SystemCall> calls = supervised(mirror, {}).calls;
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    size_t lists = 0;
    for (size_t at = 1; at < calls.size(); ++at) {
        const bool renamed = calls[at].number == SYS_renameat || calls[at].number == SYS_rename;
        if (renamed && calls[at].path.starts_with(".vexofileop-")) {
            ++lists;
            EXPECT_EQ(SYS_fsync, calls[at - 1].number) << faults::nameOf(calls[at - 1]);
        }
    }
    EXPECT_EQ(1U, lists);
}

} // namespace
