// vexofileop plan and --dry-run: what is told beforehand, that it changes nothing, and that the status is that of the
// run.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <map>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::mentions;
using kit::runTool;
using kit::ToolResult;

class PlanCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ::mkdir(one.c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((one + "/inner").c_str(), 0750));
        ASSERT_EQ(0, ::mkdir(into.c_str(), 0755));
        kit::writeFile(one + "/file", "content", 0640);
        kit::writeFile(one + "/inner/deep", "deep content");
        ASSERT_EQ(0, ::symlink("file", (one + "/link").c_str()));
    }
    // The action told of each entry, by its path below the source.
    std::map<std::string, std::string> actions(Arguments arguments) const {
        arguments.insert(arguments.begin() + 2, "--json");
        std::map<std::string, std::string> found;
        std::istringstream lines(runTool(arguments).out);
        for (std::string line; std::getline(lines, line);) {
            const std::unique_ptr<json_object, decltype(&json_object_put)> event(json_tokener_parse(line.c_str()),
                                                                                 &json_object_put);
            if (textIn(event.get(), "event") == "plan") {
                const std::string path = textIn(event.get(), "source");
                found[path == one ? "" : path.substr(one.size() + 1)] = textIn(event.get(), "action");
            }
        }
        return found;
    }
    static std::string textIn(json_object *object, const char *name) {
        json_object *member = nullptr;
        return json_object_object_get_ex(object, name, &member) != 0 ? json_object_get_string(member) : "(absent)";
    }

    kit::ScratchDirectory scratch;
    const std::string one = scratch / "one", into = scratch / "into";
};

// All that a status tells of each entry, but for the change time of the directory that was asked.
std::map<std::string, std::string> statusOf(const std::string &top, const std::string &asked) {
    std::map<std::string, std::string> found;
    std::vector<std::string> paths{top};
    for (const auto &entry : std::filesystem::recursive_directory_iterator(top)) {
        paths.push_back(entry.path());
    }
    // Looking for the entries has left its trace.
    const timespec old[] = {{1000, 0}, {0, UTIME_OMIT}};
    for (const std::string &path : paths) {
        (void)::utimensat(AT_FDCWD, path.c_str(), old, AT_SYMLINK_NOFOLLOW);
    }
    for (const std::string &path : paths) {
        const struct stat status = kit::statOf(path);
        std::ostringstream text;
        text << status.st_ino << ' ' << status.st_mode << ' ' << status.st_nlink << ' ' << status.st_uid << ' '
             << status.st_size << ' ' << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec << ' '
             << (path == asked ? 0 : status.st_ctim.tv_nsec);
        found[path] = text.str();
    }
    return found;
}

struct Tried {
    const char *name;
    Arguments before, after;
};
class PlanCommandTried : public PlanCommand, public ::testing::WithParamInterface<Tried> {};

// The access times are as they were set, and change times show that nobody has put anything back.
TEST_P(PlanCommandTried, ChangesNothing) {
    kit::setAttribute(one + "/file", "user.note", "a note");
    ASSERT_EQ(0, ::mkdir((into + "/one").c_str(), 0700));
    kit::writeFile(into + "/one/file", "older");
    if (::geteuid() == 0) {
        ASSERT_EQ(0, runTool({"ea", "set", one + "/inner/deep", "com.example.note", "kept"}).status);
        // Beside a link: a store is looked for there, and what the link leads to is none of it.
        ASSERT_EQ(0, runTool({"ea", "set", one + "/file", "com.example.note", "kept"}).status);
        kit::writeFile(one + "/@eaDir/link@VexoResource", "left over");
    }
    Arguments arguments = GetParam().before;
    for (const std::string &argument : GetParam().after) {
        arguments.push_back(argument);
    }
    arguments.push_back(one);
    arguments.push_back(into);
    (void)statusOf(scratch.path(), "");
    auto before = statusOf(scratch.path(), into);
    const ToolResult result = runTool(arguments);
    EXPECT_TRUE(mentions(result.out, "nothing was done")) << result.out << result.err;
    for (const auto &[path, text] : before) {
        const struct stat status = kit::statOf(path);
        EXPECT_EQ(1000, status.st_atim.tv_sec) << path;
    }
    std::map<std::string, std::string> after;
    for (const auto &[path, text] : before) {
        const struct stat status = kit::statOf(path);
        std::ostringstream now;
        now << status.st_ino << ' ' << status.st_mode << ' ' << status.st_nlink << ' ' << status.st_uid << ' '
            << status.st_size << ' ' << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec << ' '
            << (path == into || path == into + "/one" || path == scratch.path() ? 0 : status.st_ctim.tv_nsec);
        after[path] = now.str();
    }
    for (const std::string &asked : {into + "/one", scratch.path()}) {
        before[asked] = before[asked].substr(0, before[asked].rfind(' ')) + " 0";
    }
    EXPECT_EQ(before, after);
    size_t entries = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::recursive_directory_iterator(scratch.path())) {
        ++entries;
    }
    EXPECT_EQ(before.size(), entries + 1);
}

const Tried kTried[] = {
    {"PlanCopy", {"plan", "copy"}, {"-r"}},
    {"PlanCopyInto", {"plan", "copy"}, {"-rf"}},
    {"PlanCopyKeepingBoth", {"plan", "copy"}, {"-r", "--keep-both"}},
    {"PlanCopyWithoutProbe", {"plan", "copy"}, {"-r", "--no-probe"}},
    {"PlanMove", {"plan", "move"}, {"-f"}},
    // With what the run is given.
    {"PlanCopyAsTheRun", {"plan", "copy", "-r"}, {"--verify", "-q", "--progress=json", "--no-progress", "--jobs=2"}},
    {"PlanMoveAsTheRun", {"plan", "move"}, {"--verify", "-q", "--progress=json", "--no-progress", "--jobs=2"}},
    {"PlanMirrorAsTheRun",
     {"plan", "mirror", "--no-probe"},
     {"--verify", "-q", "--progress=json", "--no-progress", "--jobs=2"}},
    {"CopyDryRun", {"copy"}, {"-r", "--dry-run"}},
    {"MoveDryRun", {"move"}, {"--dry-run"}},
    {"MoveDryRunWithoutProbe", {"move"}, {"--dry-run", "--no-probe"}},
    {"PlanBackup", {"plan", "backup"}, {"--full"}},
    {"BackupDryRun", {"backup", "run"}, {"--full", "--dry-run", "--no-probe"}},
    {"MirrorDryRun", {"mirror"}, {"--dry-run"}},
    {"RelocateDryRun", {"relocate"}, {"--dry-run"}},
    {"RelocateDryRunWithoutProbe", {"relocate"}, {"--dry-run", "--no-probe"}},
};
INSTANTIATE_TEST_SUITE_P(Each, PlanCommandTried, ::testing::ValuesIn(kTried),
                         [](const auto &tried) { return std::string(tried.param.name); });

// Content is read for it, and links that stand at both are not.
TEST_F(PlanCommand, OfABackupLeavesTheAccessTimesOfWhatIsThereAlready) {
    ASSERT_EQ(0, runTool({"copy", "-r", one + "/.", into}).status);
    (void)statusOf(scratch.path(), "");
    for (const Arguments &options : {Arguments{"--full"}, {"--full", "--no-probe"}}) {
        Arguments plan = {"plan", "backup", one, into};
        plan.insert(plan.end(), options.begin(), options.end());
        const ToolResult result = runTool(plan);
        EXPECT_TRUE(mentions(result.out, "0 new, 0 replaced")) << result.out << result.err;
        for (const char *const name : {"", "/file", "/link", "/inner/deep"}) {
            EXPECT_EQ(1000, kit::statOf(one + name).st_atim.tv_sec) << one << name;
            EXPECT_EQ(1000, kit::statOf(into + name).st_atim.tv_sec) << into << name;
        }
    }
}

TEST_F(PlanCommand, NoProbeIsForPlans) {
    for (const Arguments &command : {Arguments{"copy", "-r"}, {"move"}, {"mirror"}, {"backup", "run"}, {"relocate"}}) {
        Arguments all = command;
        all.insert(all.end(), {"--no-probe", one, into});
        const ToolResult refused = runTool(all);
        EXPECT_EQ(2, refused.status);
        EXPECT_TRUE(mentions(refused.err, "--no-probe says how --dry-run finds out")) << refused.err;
    }
    EXPECT_TRUE(mentions(runTool({"copy", "-r", "--dry-run", "--no-probe", one, into}).out, "not probed"));
}

TEST_F(PlanCommand, EachEntryHasWhatBecomesOfIt) {
    using Actions = std::map<std::string, std::string>;
    EXPECT_EQ((Actions{{"", "new"}, {"file", "new"}, {"inner", "new"}, {"inner/deep", "new"}, {"link", "new"}}),
              actions({"plan", "copy", "-r", one, into}));
    EXPECT_EQ((Actions{{"", "rename"}}), actions({"plan", "move", one, into}));
    ASSERT_EQ(0, ::mkdir((into + "/one").c_str(), 0755));
    kit::writeFile(into + "/one/file", "older");
    ASSERT_EQ(0, ::mkdir((into + "/one/link").c_str(), 0755));
    EXPECT_EQ((Actions{{"", "merge"}, {"file", "replace"}, {"inner", "new"}, {"inner/deep", "new"}, {"link", "fail"}}),
              actions({"plan", "copy", "-rf", one, into}));
    EXPECT_EQ("skip", actions({"plan", "copy", "-rn", one, into})["file"]);
    EXPECT_EQ("fail", actions({"plan", "copy", "-r", one, into})["file"]);
    EXPECT_EQ("rename", actions({"plan", "move", one, into})["inner"]);
    EXPECT_EQ("replace", actions({"plan", "move", "-f", one, into})["file"]);
    EXPECT_EQ("fail", actions({"plan", "copy", one, into})[""]);
}

TEST_F(PlanCommand, FinishingIsPlannedAsItIsDone) {
    ASSERT_EQ(0, ::mkdir((one + "/second").c_str(), 0755));
    ASSERT_EQ(0, runTool({"plan", "--shards", "1", "--out", into + "/lists", one}).status);
    ASSERT_EQ(0, ::mkdir((into + "/copy").c_str(), 0755));
    ASSERT_EQ(0, runTool({"copy", "--relative", "--from0", "--finish-later", "--files-from", into + "/lists/shard-1",
                          one, into + "/copy"})
                     .status);
    const Arguments operands = {"--finish", into + "/lists/directories", one, into + "/copy"};
    const auto run = [&](Arguments arguments) {
        arguments.insert(arguments.end(), operands.begin(), operands.end());
        return runTool(arguments);
    };
    const ToolResult planned = run({"plan", "copy", "-v"});
    EXPECT_EQ(0, planned.status) << planned.err;
    EXPECT_TRUE(mentions(planned.out, "merge: " + one + "/inner -> " + into + "/copy/inner")) << planned.out;
    EXPECT_FALSE(mentions(planned.out, one + "/file")) << planned.out;
    EXPECT_EQ(0, run({"copy", "--dry-run", "-v"}).status);
    ASSERT_EQ(0, ::rename((one + "/inner").c_str(), (scratch / "away").c_str())); // the other is left
    EXPECT_EQ(1, run({"plan", "copy"}).status);
    EXPECT_EQ(1, run({"copy"}).status);
}

TEST_F(PlanCommand, WhatFailsReplacesNothing) {
    kit::writeFile(one + "/file", "newer");
    kit::writeFile(into + "/old", "old");
    ASSERT_EQ(0, ::link((into + "/old").c_str(), (into + "/other").c_str()));
    ASSERT_EQ(0, ::mkdir((into + "/old~").c_str(), 0755));
    const ToolResult planned = runTool({"plan", "copy", "-f", "--backup", one + "/file", into + "/old"});
    EXPECT_EQ(2, planned.status);
    EXPECT_TRUE(mentions(planned.out, "fail: ")) << planned.out;
    EXPECT_FALSE(mentions(planned.out, "(backup: ")) << planned.out;
    EXPECT_FALSE(mentions(planned.out, "of the old file")) << planned.out;
}

TEST_F(PlanCommand, ANameThatIsTakenGetsANumber) {
    kit::writeFile(into + "/file", "older");
    const ToolResult result = runTool({"plan", "copy", "-v", "--keep-both", one + "/file", one + "/inner/deep", into});
    EXPECT_TRUE(mentions(result.out, into + "/file (1)\n")) << result.out;
    EXPECT_TRUE(mentions(result.out, into + "/deep\n")) << result.out;
}

// Two sources of one name: what the first one would make stands in the way of the second.
TEST_F(PlanCommand, WhatTheRunItselfMakesIsInTheWay) {
    kit::writeFile(one + "/inner/file", "another");
    const Arguments operands = {one + "/file", one + "/inner/file", into};
    const auto run = [&](Arguments arguments) {
        arguments.insert(arguments.end(), operands.begin(), operands.end());
        return runTool(arguments);
    };
    EXPECT_TRUE(mentions(run({"plan", "copy", "-f"}).out, "just written by this command"));
    EXPECT_TRUE(mentions(run({"plan", "copy", "-n"}).out, "1 new, 0 replaced, 0 merged, 0 renamed, 1 skipped"));
    EXPECT_TRUE(mentions(run({"plan", "copy", "--keep-both", "-v"}).out, into + "/file (1)\n"));
    EXPECT_EQ(1, run({"plan", "copy"}).status);
}

TEST_F(PlanCommand, WhatCannotBeDoneIsTold) {
    const ToolResult itself = runTool({"plan", "copy", "-r", one, one + "/inner"});
    EXPECT_TRUE(mentions(itself.out, "a directory cannot be copied into itself")) << itself.out;
    EXPECT_EQ(2, itself.status);
    EXPECT_TRUE(mentions(runTool({"plan", "copy", one + "/file", one + "/file"}).out, "the same file"));
    EXPECT_TRUE(mentions(runTool({"plan", "copy", one + "/nothing", into}).out, "nothing"));
    EXPECT_EQ(2, runTool({"plan", "copy", one + "/nothing", into}).status);
    EXPECT_EQ(2, runTool({"plan", "copy", one + "/file"}).status);
    EXPECT_EQ(2, runTool({"plan"}).status);
    ASSERT_EQ(0, ::mkfifo((one + "/pipe").c_str(), 0600));
    const ToolResult special = runTool({"plan", "copy", "-r", one, into});
    EXPECT_TRUE(mentions(special.out, "(special-file)")) << special.out;
    EXPECT_EQ(1, special.status);
}

TEST_F(PlanCommand, TheVolumeIsAskedWhatItKeeps) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(plain, kit::Volume::plain());
    kit::setAttribute(one + "/file", "user.note", "a note");
    for (const Arguments &arguments : {Arguments{"plan", "copy", "-rv"}, {"plan", "copy", "-rv", "--no-probe"}}) {
        Arguments all = arguments;
        all.insert(all.end(), {one, plain.path()});
        const ToolResult result = runTool(all);
        EXPECT_TRUE(mentions(result.out, "attribute user.note")) << result.out;
        EXPECT_TRUE(mentions(result.out, "1 attribute not kept")) << result.out;
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(arguments.size() == 4, mentions(result.out, "not probed")) << result.out;
    }
}

TEST_F(PlanCommand, TheRoomIsCounted) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(small, kit::Volume::tmpfs(256 << 10));
    kit::writeSparse(one + "/sparse", 8 << 20, {{1 << 20, 4096}});
    EXPECT_EQ(0, runTool({"plan", "copy", one + "/sparse", small.path()}).status); // a hole takes nothing
    kit::writeFile(one + "/large", std::string(200 << 10, 'l'));
    EXPECT_EQ(0, runTool({"plan", "copy", one + "/large", small.path()}).status);
    kit::writeFile(small / "there", std::string(100 << 10, 't'));
    const ToolResult full = runTool({"plan", "copy", one + "/large", one + "/file", small.path()});
    EXPECT_TRUE(mentions(full.out, "no space left on the volume")) << full.out;
    EXPECT_EQ(1, full.status);
    EXPECT_EQ(2, runTool({"plan", "copy", one + "/large", small.path()}).status);
    // The run says the same.
    EXPECT_EQ(1, runTool({"copy", one + "/large", one + "/file", small.path()}).status);
}

// A copy stands beside what it replaces until it is whole.
TEST_F(PlanCommand, AReplacementNeedsRoomBesideTheOld) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(small, kit::Volume::tmpfs(256 << 10));
    kit::writeFile(one + "/large", std::string(150 << 10, 'l'));
    kit::writeFile(small / "large", std::string(150 << 10, 'o'));
    EXPECT_EQ(2, runTool({"plan", "copy", "-f", one + "/large", small.path()}).status);
    EXPECT_EQ(2, runTool({"copy", "-f", one + "/large", small.path()}).status);
    kit::writeFile(one + "/large", std::string(80 << 10, 'l'));
    EXPECT_EQ(0, runTool({"plan", "copy", "-f", one + "/large", small.path()}).status);
    EXPECT_EQ(0, runTool({"copy", "-f", one + "/large", small.path()}).status);
}

TEST_F(PlanCommand, AReadOnlyVolumeTakesNothing) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    volume.setReadOnly(true);
    const ToolResult result = runTool({"plan", "copy", "-r", one, volume.path()});
    EXPECT_TRUE(mentions(result.out, "read-only")) << result.out;
    EXPECT_EQ(2, result.status);
}

// Somebody else's directory could not get its times back.
TEST_F(PlanCommand, NothingIsMadeWhereItWouldLeaveATrace) {
    KIT_NEEDS_ROOT("to become another user");
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod((one + "/file").c_str(), 0644));
    ASSERT_EQ(0, ::chmod(into.c_str(), 0777));
    const struct stat before = kit::statOf(into);
    const ToolResult result = runTool({"plan", "copy", "-v", one + "/file", into}, {.user = 65534});
    const struct stat after = kit::statOf(into);
    EXPECT_TRUE(mentions(result.out, "not probed")) << result.out;
    EXPECT_TRUE(mentions(result.out, "(owner)")) << result.out;
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
    EXPECT_EQ(before.st_ctim.tv_sec, after.st_ctim.tv_sec);
}

TEST_F(PlanCommand, NamesThatTheVolumeChangesAreTold) {
    kit::writeFile(one + "/x:y", "one");
    kit::writeFile(one + "/x-y", "two");
    kit::writeFile(one + "/what?", "asked");
    ASSERT_EQ(0, ::setenv("VEXOFILEOP_FSTYPES", (into + "=0").c_str(), 1)); // NOLINT(concurrency-mt-unsafe)
    const ToolResult result = runTool({"plan", "copy", "-rv", one, into});
    EXPECT_TRUE(mentions(result.out, one + "/what? -> " + into + "/one/what-: is what- in the copy (name-changed)"))
        << result.out;
    EXPECT_TRUE(mentions(result.out, "(name-clash)")) << result.out;
    EXPECT_TRUE(mentions(result.out, "(symbolic-link)")) << result.out;
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
}

// More is said than a terminal takes that nobody reads: the plan is in the middle when the signal comes.
class StoppedPlan : public PlanCommand {
  protected:
    ToolResult stop(int signal) const {
        for (int number = 0; number < 500; ++number) {
            kit::writeFile(one + "/" + std::string(200, 'n') + std::to_string(number), "");
        }
        kit::ToolOnTerminal tool({"plan", "copy", "-rv", one, into});
        EXPECT_TRUE(tool.catches(SIGTERM));
        constexpr int patience = 12'000;
        for (int turn = 0; turn < patience && kit::namesIn(into).empty(); ++turn) {
            ::usleep(10'000);
        }
        EXPECT_EQ(1U, kit::namesIn(into).size());
        tool.send(signal);
        return tool.finish();
    }
};

TEST_F(StoppedPlan, RemovesWhatItHasMadeToTry) {
    const ToolResult result = stop(SIGTERM);
    EXPECT_EQ(128 + SIGTERM, result.status);
    EXPECT_TRUE(mentions(result.out, "the plan is not whole"));
    EXPECT_TRUE(kit::namesIn(into).empty());
}

TEST_F(StoppedPlan, LeavesWhenKilledWhatOthersRemove) {
    (void)stop(SIGKILL);
    const std::vector<std::string> left = kit::namesIn(into);
    ASSERT_EQ(1U, left.size());
    const std::string place = into + "/" + left.front();
    const timespec old[] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, into.c_str(), old, 0));
    EXPECT_EQ(0, runTool({"plan", "copy", one + "/file", into}).status);
    EXPECT_TRUE(kit::namesIn(into).empty());
    EXPECT_EQ(1000, kit::statOf(into).st_mtim.tv_sec);
    const auto again = [&] {
        ASSERT_EQ(0, ::mkdir(place.c_str(), 0700));
        kit::writeFile(place + "/entry", "");
    };
    again();
    EXPECT_EQ(0, runTool({"copy", one + "/file", into}).status);
    EXPECT_EQ(std::vector<std::string>{"file"}, kit::namesIn(into));
    again();
    EXPECT_EQ(1, runTool({"store", "repair", "-r", into}).status); // mended
    EXPECT_EQ(std::vector<std::string>{"file"}, kit::namesIn(into));
    // What no plan makes is somebody's.
    again();
    kit::writeFile(place + "/letter", "mine");
    EXPECT_EQ(0, runTool({"plan", "copy", "-f", one + "/file", into}).status);
    EXPECT_EQ(0, runTool({"copy", "-f", one + "/file", into}).status);
    EXPECT_TRUE(kit::exists(place + "/letter"));
}

TEST_F(PlanCommand, ARelocationIsExplainedAndPlanned) {
    ASSERT_EQ(0, ::mkdir((into + "/there").c_str(), 0755));
    kit::writeFile(into + "/there/file", "older");
    const ToolResult result = runTool({"relocate", "--dry-run", one, into + "/there"});
    EXPECT_TRUE(mentions(result.out, "IS REMOVED WITH EVERYTHING IN IT")) << result.out;
    EXPECT_TRUE(mentions(result.out, "5 new, 0 replaced, 0 merged")) << result.out;
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("older", kit::readFile(into + "/there/file"));
    EXPECT_EQ("content", kit::readFile(one + "/file"));
    ASSERT_EQ(0, ::mkfifo((one + "/pipe").c_str(), 0600));
    EXPECT_EQ(1, runTool({"relocate", "--dry-run", one, into + "/there"}).status);
    EXPECT_EQ(1, runTool({"relocate", "-y", one, into + "/there"}).status);
}

TEST_F(PlanCommand, AReportHasItAll) {
    ASSERT_EQ(0, ::mkfifo((one + "/pipe").c_str(), 0600));
    EXPECT_EQ(1, runTool({"plan", "copy", "-r", "--report", scratch / "plan.json", one, into}).status);
    const std::string report = kit::readFile(scratch / "plan.json");
    EXPECT_TRUE(mentions(report, "\"plan copy\"")) << report;
    EXPECT_TRUE(mentions(report, "special-file")) << report;
    EXPECT_TRUE(mentions(report, "\"copied\":{\"entries\":3,")) << report;
    const ToolResult unwritten = runTool({"plan", "copy", "--report", scratch / "no/plan.json", one + "/file", into});
    EXPECT_EQ(1, unwritten.status);
    EXPECT_TRUE(mentions(unwritten.out, "1 new")) << unwritten.out;
}

TEST_F(PlanCommand, WhatCannotBeReadIsTold) {
    KIT_NEEDS_ROOT("to become another user");
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(into.c_str(), 0777));
    ASSERT_EQ(0, ::chmod((one + "/file").c_str(), 0600));
    ASSERT_EQ(0, ::chmod((one + "/inner").c_str(), 0700));
    const ToolResult result = runTool({"plan", "copy", "-rv", one, into}, {.user = 65534});
    EXPECT_TRUE(mentions(result.out, one + "/file -> " + into + "/one/file: permission denied (unreadable)"))
        << result.out;
    EXPECT_TRUE(mentions(result.out, one + "/inner -> " + into + "/one/inner: permission denied (unreadable)"))
        << result.out;
}

} // namespace
