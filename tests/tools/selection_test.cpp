// The options of copy and move that choose among entries.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;

void put(const std::string &path, const std::string &content = "x", time_t modified = 1'600'000'000) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    kit::writeFile(path, content);
    const timespec times[] = {{modified, 0}, {modified, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
}

// Everything below `top`, a directory with a slash, sorted.
std::string listed(const std::string &top) {
    std::vector<std::string> paths;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(top)) {
        paths.push_back(entry.path().string().substr(top.size() + 1) + (entry.is_directory() ? "/" : ""));
    }
    std::ranges::sort(paths);
    std::string text;
    for (const std::string &path : paths) {
        text += (text.empty() ? "" : " ") + path;
    }
    return text;
}

class Selecting : public testing::Test {
  protected:
    void SetUp() override {
        put(from + "/a.txt");
        put(from + "/b.o");
        put(from + "/sub/c.txt", "1234567890");
        put(from + "/sub/d.o", "12345", 1'700'000'000);
        put(from + "/sub/deep/e.txt");
        ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
    }
    ToolResult run(Arguments arguments) {
        arguments.insert(arguments.end(), {from, to});
        return runTool(arguments);
    }
    void expectCopied(const Arguments &options, const std::string &expected) {
        std::filesystem::remove_all(to + "/from");
        Arguments arguments{"copy", "-r"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const ToolResult result = run(arguments);
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("", result.err);
        EXPECT_EQ(expected, listed(to)) << testing::PrintToString(options);
    }

    kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to";
};

TEST_F(Selecting, RulesOfNamesHoldInTheirOrder) {
    expectCopied({"--exclude", "*.o"}, "from/ from/a.txt from/sub/ from/sub/c.txt from/sub/deep/ from/sub/deep/e.txt");
    expectCopied({"--include", "d.o", "--exclude", "*.o"},
                 "from/ from/a.txt from/sub/ from/sub/c.txt from/sub/d.o from/sub/deep/ from/sub/deep/e.txt");
    expectCopied({"--exclude", "*.o", "--include", "d.o", "--exclude", "sub/deep/"},
                 "from/ from/a.txt from/sub/ from/sub/c.txt");
    expectCopied({"--exclude", "/from/sub"}, "from/ from/a.txt from/b.o");
    expectCopied({"--exclude", "/sub"},
                 "from/ from/a.txt from/b.o from/sub/ from/sub/c.txt from/sub/d.o from/sub/deep/ "
                 "from/sub/deep/e.txt");
    expectCopied({"--exclude", "from"}, "");
}

TEST_F(Selecting, RulesComeFromFilesToo) {
    put(scratch / "patterns", "# objects\n*.o\n+ nothing\n");
    put(scratch / "rules", "+ c.txt\n- sub/*\n");
    expectCopied({"--exclude-from", scratch / "patterns", "--filter-file", scratch / "rules"},
                 "from/ from/a.txt from/sub/ from/sub/c.txt");
    put(scratch / "rules", "+ c.txt\nwhat\n");
    const ToolResult result = run({"copy", "-r", "--filter-file", scratch / "rules"});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("line 2")) << result.err;
    EXPECT_EQ(2, run({"copy", "-r", "--exclude-from", scratch / "gone"}).status);
}

TEST_F(Selecting, ADirectorysContentsBeginThePaths) {
    const ToolResult result = runTool({"copy", "-r", "--exclude", "/sub", from + "/.", to});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("a.txt b.o", listed(to));
}

// A run that is done again meets its own copy, and a plan of it meets none.
TEST_F(Selecting, APatternMeansTheSameBeforeTheDestinationIsThereAndAfterwards) {
    ASSERT_EQ(0, ::symlink(from.c_str(), (scratch / "link").c_str()));
    for (const std::string &source : {from + "/.", scratch / "link/."}) {
        for (const char *const way : {"-ru", "-ruT"}) {
            SCOPED_TRACE(source + " " + way);
            const std::string made = scratch / "made";
            const Arguments copy{"copy", way, "--exclude", "/sub", "--exclude", "/from/a.txt", source, made};
            Arguments plan{"plan"};
            plan.insert(plan.end(), copy.begin(), copy.end());
            EXPECT_TRUE(kit::mentions(runTool(plan).out, "3 new, 0 replaced"));
            for (int run = 0; run < 2; ++run) {
                const ToolResult result = runTool(copy);
                EXPECT_EQ(0, result.status) << result.err;
                EXPECT_EQ("a.txt b.o", listed(made)) << "run " << run;
            }
            std::filesystem::remove_all(made);
        }
    }
}

TEST_F(Selecting, SizesAndTimesChooseFiles) {
    expectCopied({"--min-size", "5"}, "from/ from/sub/ from/sub/c.txt from/sub/d.o from/sub/deep/");
    expectCopied({"--max-size", "5", "--min-size", "2"}, "from/ from/sub/ from/sub/d.o from/sub/deep/");
    expectCopied({"--newer-than", "@1650000000"}, "from/ from/sub/ from/sub/d.o from/sub/deep/");
    expectCopied({"--newer-than", from + "/sub/d.o"}, "from/ from/sub/ from/sub/d.o from/sub/deep/");
    expectCopied({"--older-than", from + "/sub/d.o", "--exclude", "?.txt"}, "from/ from/b.o from/sub/ from/sub/deep/");
    EXPECT_EQ(2, run({"copy", "-r", "--newer-than", "soon"}).status);
    EXPECT_EQ(2, run({"copy", "-r", "--min-size", "much"}).status);
}

// A copy has the archive bit: no backup has it yet.
TEST_F(Selecting, FilesWithTheArchiveBit) {
    const std::string copied = from + "/sub/deep/e.txt";
    ASSERT_EQ(0, runTool({"copy", "-f", from + "/a.txt", copied}).status);
    expectCopied({"--archive-bit"}, "from/ from/sub/ from/sub/deep/ from/sub/deep/e.txt");
    ASSERT_EQ(0, runTool({"archive", "clear", copied}).status);
    expectCopied({"--archive-bit"}, "from/ from/sub/ from/sub/deep/");
}

// What a plan tells and a comparison sees is what is chosen.
TEST_F(Selecting, PlansAndComparisonsChooseTheSame) {
    const ToolResult plan = run({"plan", "copy", "-rv", "--exclude", "*.o", "--exclude", "/from/sub/deep"});
    EXPECT_EQ(0, plan.status) << plan.err;
    EXPECT_NE(std::string::npos, plan.out.find("c.txt")) << plan.out;
    for (const char *const left : {"b.o", "d.o", "deep"}) {
        EXPECT_EQ(std::string::npos, (plan.out + plan.err).find(left)) << plan.out;
    }
    expectCopied({"--exclude", "*.o"}, "from/ from/a.txt from/sub/ from/sub/c.txt from/sub/deep/ from/sub/deep/e.txt");
    put(to + "/from/sub/more.o");
    EXPECT_EQ(1, runTool({"compare", "--no-times", from, to + "/from"}).status);
    const ToolResult same = runTool({"compare", "--no-times", "--exclude", "*.o", from, to + "/from"});
    EXPECT_EQ(0, same.status) << same.out << same.err;
    EXPECT_EQ(
        0, runTool({"compare", "--no-times", "--exclude", "/from/sub", "--exclude", "b.o", from, to + "/from"}).status);
    EXPECT_EQ(
        0,
        runTool({"compare", "--no-times", "--exclude", "/sub", "--exclude", "b.o", from + "/.", to + "/from"}).status);
}

// What was not chosen stays, and so do the directories that hold it, without a complaint.
TEST_F(Selecting, AMoveLeavesTheRestWhereItIs) {
    const ToolResult result = run({"move", "--exclude", "c.txt"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("", result.err);
    EXPECT_EQ("sub/ sub/c.txt", listed(from));
    EXPECT_EQ("from/ from/a.txt from/b.o from/sub/ from/sub/d.o from/sub/deep/ from/sub/deep/e.txt", listed(to));
}

TEST_F(Selecting, WhatBelongsToAFileGoesWithItAndNotWithoutIt) {
    KIT_NEEDS_TO_MAKE_STORES();
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=2").c_str(), 1);
    for (const char *const name : {"a.txt", "b.o"}) {
        ASSERT_EQ(0, runTool({"ea", "set", from + "/" + name, "comment", "kept"}).status);
    }
    expectCopied({"--exclude", "*.o", "--exclude", "sub"},
                 "from/ from/@eaDir/ from/@eaDir/a.txt@VexoEAStream from/a.txt");
    ::unsetenv("VEXOFILEOP_FSTYPES");
}

TEST_F(Selecting, OneFileSystemEndsWhereAnotherIsMounted) {
    std::filesystem::remove_all(from + "/sub/deep");
    KIT_REQUIRE(mounted, kit::Volume::tmpfs(1 << 20, from + "/sub"));
    put(from + "/sub/inside");
    expectCopied({"-x"}, "from/ from/a.txt from/b.o from/sub/");
    expectCopied({}, "from/ from/a.txt from/b.o from/sub/ from/sub/inside");
}

} // namespace
