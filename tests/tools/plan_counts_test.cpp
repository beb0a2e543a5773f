// What a plan counts is what its run counts: entries by what becomes of them, directories, bytes, losses, the status.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::mentions;
using kit::runTool;

using Object = std::unique_ptr<json_object, decltype(&json_object_put)>;

Object parsed(const std::string &line) {
    return {json_tokener_parse(line.c_str()), &json_object_put};
}

std::string memberOf(json_object *object, const char *name) {
    json_object *member = nullptr;
    return json_object_object_get_ex(object, name, &member) != 0
               ? json_object_to_json_string_ext(member, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE)
               : "0";
}

// What summaries of a plan and of its run have in common, and which sources are told to stay.
std::map<std::string, std::string> countsOf(const std::string &output) {
    std::map<std::string, std::string> found;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const Object event = parsed(line);
        if (memberOf(event.get(), "source_kept") == "true") {
            found["kept " + memberOf(event.get(), "source")] = "";
        }
        if (memberOf(event.get(), "event") != "\"summary\"") {
            continue;
        }
        for (const char *const name : {"files", "done", "directories", "same", "cloned", "bytes", "losses",
                                       "sources_kept", "exit_status", "removal_refused"}) {
            found[name] = memberOf(event.get(), name);
        }
    }
    return found;
}

class PlanCounts : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_ROOT("to mount volumes");
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((tree + "/in").c_str(), 0755));
        kit::writeFile(tree + "/one", "one");
        kit::writeFile(tree + "/in/two", "two");
        ASSERT_EQ(0, ::symlink("one", (tree + "/link").c_str()));
    }
    static std::map<std::string, std::string> agreed(Arguments command) {
        command.insert(command.begin() + 1, "--json");
        Arguments plan = command;
        plan.insert(plan.begin(), "plan");
        const auto planned = countsOf(runTool(plan).out), run = countsOf(runTool(command).out);
        EXPECT_EQ(run, planned) << ::testing::PrintToString(command);
        return run;
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree";
};

TEST_F(PlanCounts, WhatAMoveFindsThereAlreadyGoesAtTheSource) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    for (const Arguments &ways : {Arguments{"-u"}, {"-f", "--backup"}}) {
        ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, scratch / "kept"}).status);
        ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, volume / "there"}).status);
        Arguments command = {"move", "-T", tree, volume / "there"};
        command.insert(command.begin() + 1, ways.begin(), ways.end());
        Arguments plan = command;
        plan.insert(plan.begin(), "plan");
        const std::string text = runTool(plan).out;
        EXPECT_TRUE(mentions(text, "3 skipped (3 the same), 0 failed (3 files, 0 B)")) << text;
        plan.insert(plan.begin() + 2, "-v");
        EXPECT_TRUE(mentions(runTool(plan).out, "/there/one: the same already; the source is removed\n"));
        auto counts = agreed(command);
        EXPECT_EQ("3", counts["same"]);
        EXPECT_EQ("3", counts["done"]);
        EXPECT_EQ("0", counts["bytes"]);
        EXPECT_FALSE(kit::exists(tree));
        ASSERT_EQ(0, runTool({"remove", "-r", volume / "there"}).status);
        ASSERT_EQ(0, runTool({"move", scratch / "kept", tree}).status);
    }
}

// All that was in it is accepted to stay or is not meant: it was made there, and is at both places.
TEST_F(PlanCounts, ADirectoryThatStaysIsDone) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkfifo((tree + "/in/pipe").c_str(), 0600));
    for (const Arguments &ways :
         {Arguments{"--accept", "special-file"}, {"--exclude", "pipe"}, {"--exclude", "two", "--accept", "all"}}) {
        ASSERT_EQ(0, runTool({"copy", "-r", "--specials", "-T", tree, scratch / "again"}).status);
        Arguments command = {"move", "-T", scratch / "again", volume / "there"};
        command.insert(command.begin() + 1, ways.begin(), ways.end());
        auto counts = agreed(command);
        EXPECT_EQ("0", counts["exit_status"]);
        EXPECT_EQ("2", counts["directories"]);
        EXPECT_TRUE(counts.contains("kept \"" + scratch / "again" + "\"")) << ::testing::PrintToString(counts);
        EXPECT_TRUE(counts.contains("kept \"" + scratch / "again/in" + "\"")) << ::testing::PrintToString(counts);
        ASSERT_EQ(0, runTool({"remove", "-r", volume / "there", scratch / "again"}).status);
    }
    ASSERT_EQ(0, ::mkdir((scratch / "left").c_str(), 0755));
    ASSERT_EQ(0, ::mkfifo((scratch / "left/pipe").c_str(), 0600));
    EXPECT_EQ("1", agreed({"move", scratch / "left", volume.path()})["exit_status"]);
}

TEST_F(PlanCounts, WhatStaysAtTheSourceIsNotMoved) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, scratch / "again"}).status);
    const auto result = runTool({"move", "-v", "--exclude", "two", "-T", scratch / "again", volume / "there"});
    EXPECT_TRUE(mentions(result.out, "2 files and 0 directories moved (")) << result.out;
    EXPECT_TRUE(mentions(result.out, ", 2 of the sources stay\n")) << result.out;
    const std::string both = scratch / "again/in -> " + (volume / "there/in");
    EXPECT_TRUE(mentions(result.out, both + " (stays at the source)\n")) << result.out;
    EXPECT_FALSE(mentions(result.out, "/one (stays")) << result.out;
}

TEST_F(PlanCounts, EveryWay) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/name").c_str()));
    ASSERT_EQ(0, ::mkfifo((tree + "/pipe").c_str(), 0600));
    const std::string copy = volume / "copy";
    for (const Arguments &way : {Arguments{"-r", "-T"},
                                 {"-r", "-f", "-T"},
                                 {"-r", "-n", "-T"},
                                 {"-r", "-u", "-T"},
                                 {"-r", "-T"},
                                 {"-r", "-f", "--backup", "-T"},
                                 {"-r", "-f", "--in-place", "-T"},
                                 {"-r", "-f", "--clone=always", "-T"},
                                 {"-r", "-f", "--no-hard-links", "-T"},
                                 {"-r", "--keep-both", "-T"},
                                 {"-f"}}) {
        kit::writeFile(tree + "/in/more", std::to_string(way.size()) + way.back());
        Arguments command{"copy", tree, copy};
        command.insert(command.begin() + 1, way.begin(), way.end());
        (void)agreed(command);
    }
}

// A run that ends at a failure leaves what it is in, and what a move takes something out of is not moved.
TEST_F(PlanCounts, DirectoriesThatAreNotGotToTheEndOf) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const std::string copy = volume / "copy";
    ASSERT_EQ(0, ::mkfifo((tree + "/in/pipe").c_str(), 0600));
    ASSERT_EQ(0, ::mkdir(copy.c_str(), 0755));
    kit::writeFile(copy + "/old", "old");
    kit::writeFile(scratch / "list", std::string("in/two\0one\0", 11));
    for (const Arguments &way : {Arguments{"--max-errors", "1"}, {"--stop-on-error"}}) {
        Arguments command{"copy", "-r", "-f", "-T", tree, copy}, mirror{"mirror", "-f", tree, copy};
        command.insert(command.begin() + 1, way.begin(), way.end());
        mirror.insert(mirror.begin() + 1, way.begin(), way.end());
        EXPECT_EQ("0", agreed(command)["directories"]);
        EXPECT_EQ("\"incomplete\"", agreed(mirror)["removal_refused"]);
    }
    Arguments move{"move", "-f", "--relative", "--from0", "--files-from", scratch / "list", tree, copy};
    EXPECT_EQ("0", agreed(move)["directories"]);
}

// On a volume that loses what is of directories: whoever gives it to them is told that, the directory that was cut too.
TEST_F(PlanCounts, ListsOfShards) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    const std::string in = tree + "/in", lists = scratch / "lists", copy = volume / "copy";
    for (const std::string &one : {tree, in}) {
        ASSERT_EQ(0, ::setxattr(one.c_str(), "trusted.kept", "x", 1, 0)) << one;
    }
    ASSERT_EQ(0, runTool({"plan", "--shards", "1", "--out", lists, tree}).status);
    kit::writeFile(scratch / "top", std::string("./\0", 3));
    kit::writeFile(scratch / "file", std::string("in/\0one\0", 8));
    kit::writeFile(scratch / "vanished", std::string("in/\0gone/\0", 10));
    ASSERT_EQ(0, ::mkdir(copy.c_str(), 0755));
    const auto listed = [&](const std::string &list, const Arguments &more) {
        Arguments command = {"copy", "--relative", "--from0", "--files-from", list, tree, copy};
        command.insert(command.begin() + 1, more.begin(), more.end());
        return agreed(command);
    };
    const auto finished = [&](const std::string &list, const Arguments &more = {}) {
        Arguments command = {"copy", "--finish", list, tree, copy};
        command.insert(command.begin() + 1, more.begin(), more.end());
        return agreed(command);
    };
    EXPECT_EQ("1", listed(lists + "/shard-1", {"--finish-later", "-u"})["directories"]);
    EXPECT_EQ("0", listed(lists + "/shard-1", {"--finish-later", "-u"})["directories"]);
    EXPECT_EQ("0", listed(scratch / "top", {"--finish-later"})["directories"]);
    EXPECT_EQ("2", finished(lists + "/directories", {"--accept", "all"})["directories"]);
    EXPECT_EQ("1", finished(lists + "/directories")["exit_status"]);
    EXPECT_EQ("1", finished(scratch / "top", {"--accept", "all"})["directories"]);
    EXPECT_EQ("1", listed(scratch / "top", {"--accept", "all"})["directories"]);
    for (const Arguments &more : {Arguments{}, {"-u"}, {"-f"}, {"-n"}, {"-r"}, {"--relative"}, {"-T"}}) {
        EXPECT_EQ("1", finished(scratch / "file", more)["exit_status"]);
        EXPECT_EQ("1", finished(scratch / "vanished", more)["exit_status"]);
    }
    ASSERT_EQ(0, runTool({"remove", "-r", copy + "/in", copy + "/one"}).status);
    EXPECT_EQ("0", finished(scratch / "file", {"--exclude", "one", "--accept", "all"})["exit_status"]);
    EXPECT_EQ("2", agreed({"copy", "--finish", scratch / "top", tree, tree})["exit_status"]);
    EXPECT_EQ("2", agreed({"copy", "--finish", lists + "/directories", tree, tree})["exit_status"]);
}

} // namespace
