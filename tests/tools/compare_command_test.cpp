// vexofileop compare: each difference by its class, nothing between equals, and the status.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <linux/fs.h>
#include <memory>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;
using Lines = std::vector<std::string>;

Lines linesOf(const std::string &text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

void setTimes(const std::string &path, time_t seconds) {
    const timespec both[] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), both, AT_SYMLINK_NOFOLLOW));
}

class CompareCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ::mkdir(one.c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((one + "/inner").c_str(), 0750));
        kit::writeFile(one + "/file", "content", 0640);
        kit::writeFile(one + "/inner/deep", "deep content");
        kit::setAttribute(one + "/file", "user.note", "a note");
        kit::writeSparse(one + "/sparse", 1 << 20, {{1 << 19, 4096}});
        ASSERT_EQ(0, ::symlink("file", (one + "/link").c_str()));
    }
    void copy() const {
        const ToolResult result = runTool({"copy", "-r", "--no-hard-links", one, other});
        ASSERT_EQ(0, result.status) << result.out << result.err;
    }
    ToolResult compare(Arguments options = {}) const {
        options.insert(options.begin(), "compare");
        options.push_back(one);
        options.push_back(other);
        return runTool(options);
    }
    // The classes that are told, with the path in the tree.
    Lines told(const Arguments &options = {}) const {
        Lines found;
        for (const std::string &line : linesOf(compare(options).out)) {
            const size_t end = line.find(other), from = line.find(one) == 0 ? one.size() : end + other.size();
            const size_t open = line.rfind(" (");
            const size_t stop = line.find(from == one.size() ? " -> " : ": ", from);
            found.push_back(line.substr(open + 2, line.size() - open - 3) + " " + line.substr(from, stop - from));
        }
        return found;
    }

    kit::ScratchDirectory scratch;
    const std::string one = scratch / "one", other = scratch / "other";
};

TEST_F(CompareCommand, OfACopyNothingIsTold) {
    copy();
    const ToolResult result = compare();
    EXPECT_EQ("", result.out);
    EXPECT_EQ("", result.err);
    EXPECT_EQ(0, result.status);
}

struct Change {
    const char *name;
    std::function<void(const std::string &one, const std::string &other)> make;
    Lines expected;
};

class CompareCommandChange : public CompareCommand, public ::testing::WithParamInterface<Change> {};

TEST_P(CompareCommandChange, IsToldByItsClassAlone) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to change owners";
    }
    copy();
    const auto before = kit::statOf(other + "/inner");
    GetParam().make(one, other);
    const timespec times[] = {before.st_atim, before.st_mtim};
    if (kit::exists(other + "/inner") && !S_ISLNK(kit::statOf(other + "/inner").st_mode)) {
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, (other + "/inner").c_str(), times, 0));
    }
    Lines found = told({"--ignore", "creation-time"});
    std::ranges::sort(found);
    EXPECT_EQ(GetParam().expected, found) << compare().out;
    EXPECT_EQ(1, compare().status);
}

void keepingTimes(const std::string &path, const std::function<void()> &change) {
    const struct stat before = kit::statOf(path);
    change();
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
}

const Change kChanges[] = {
    {"Content",
     [](const std::string &, const std::string &other) {
         keepingTimes(other + "/inner/deep", [&] { kit::writeFile(other + "/inner/deep", "deep_content"); });
     },
     {"data /inner/deep"}},
    {"Length",
     [](const std::string &, const std::string &other) {
         keepingTimes(other + "/inner/deep", [&] { kit::writeFile(other + "/inner/deep", "deep"); });
     },
     {"data /inner/deep"}},
    {"Mode",
     [](const std::string &, const std::string &other) { ::chmod((other + "/inner").c_str(), 0700); },
     {"mode /inner"}},
    {"Owner",
     [](const std::string &, const std::string &other) { ASSERT_EQ(0, ::lchown((other + "/link").c_str(), 7, 8)); },
     {"group /link", "owner /link"}},
    {"ModificationTime",
     [](const std::string &, const std::string &other) { setTimes(other + "/inner/deep", 1000); },
     {"modification-time /inner/deep"}},
    {"Attribute",
     [](const std::string &, const std::string &other) { kit::setAttribute(other + "/file", "user.note", "b note"); },
     {"attribute /file"}},
    {"SystemAttribute",
     [](const std::string &one, const std::string &) { kit::setAttribute(one + "/inner", "trusted.only", "root's"); },
     {"system-attribute /inner"}},
    {"Missing",
     [](const std::string &, const std::string &other) { ASSERT_EQ(0, ::unlink((other + "/inner/deep").c_str())); },
     {"data /inner/deep"}},
    {"MissingDirectory",
     [](const std::string &one, const std::string &other) {
         keepingTimes(other, [&] { ASSERT_EQ(0, ::rename((other + "/inner").c_str(), (one + "-inner").c_str())); });
     },
     {"data /inner"}},
    {"Extra",
     [](const std::string &, const std::string &other) { kit::writeFile(other + "/inner/more", "more"); },
     {"extra /inner/more"}},
    {"Link",
     [](const std::string &, const std::string &other) {
         const struct stat before = kit::statOf(other + "/link");
         keepingTimes(other, [&] {
             ASSERT_EQ(0, ::unlink((other + "/link").c_str()));
             ASSERT_EQ(0, ::symlink("else", (other + "/link").c_str()));
         });
         const timespec times[] = {before.st_atim, before.st_mtim};
         ASSERT_EQ(0, ::utimensat(AT_FDCWD, (other + "/link").c_str(), times, AT_SYMLINK_NOFOLLOW));
     },
     {"symbolic-link /link"}},
    {"Holes",
     [](const std::string &, const std::string &other) {
         keepingTimes(other + "/sparse", [&] {
             const std::string bytes = kit::readFile(other + "/sparse");
             kit::writeFile(other + "/sparse", bytes);
         });
     },
     {"hole /sparse"}},
    {"SpecialFile",
     [](const std::string &one, const std::string &) {
         keepingTimes(one + "/inner", [&] { ASSERT_EQ(0, ::mkfifo((one + "/inner/pipe").c_str(), 0600)); });
     },
     {"special-file /inner/pipe"}},
    // Whoever follows it finds that all is the same.
    {"DirectoryThatIsALink",
     [](const std::string &one, const std::string &other) {
         keepingTimes(other, [&] {
             ASSERT_EQ(0, ::rename((other + "/inner").c_str(), (one + "-inner").c_str()));
             ASSERT_EQ(0, ::symlink((one + "-inner").c_str(), (other + "/inner").c_str()));
         });
     },
     {"data /inner"}},
    // Where that has a store directory of its own.
    {"OfNobody",
     [](const std::string &one, const std::string &) {
         keepingTimes(one + "/inner", [&] {
             ASSERT_EQ(0, ::mkdir((one + "/inner/@eaDir").c_str(), 0777));
             kit::writeFile(one + "/inner/@eaDir/nobody@VexoEAStream", "");
             ASSERT_EQ(0, ::mkdir((one + "/inner/@tmp").c_str(), 0777));
         });
     },
     {"not-carried /inner", "not-carried /inner/@tmp"}}, // as a run tells it: of the directory
};

INSTANTIATE_TEST_SUITE_P(Each, CompareCommandChange, ::testing::ValuesIn(kChanges),
                         [](const auto &change) { return std::string(change.param.name); });

TEST_F(CompareCommand, NamesOfOneFileThatAreSeveralAreTold) {
    ASSERT_EQ(0, ::link((one + "/file").c_str(), (one + "/inner/again").c_str()));
    copy();
    EXPECT_EQ(Lines{"hard-link /inner/again"}, told());
    ASSERT_EQ(0, ::unlink((other + "/inner/again").c_str()));
    ASSERT_EQ(0, ::link((other + "/file").c_str(), (other + "/inner/again").c_str()));
    EXPECT_EQ(Lines{}, told({"--no-times"}));
}

// The owner of the source's other names is none of the copy's business.
TEST_F(CompareCommand, NamesOutsideTheTreeAreNoLoss) {
    ASSERT_EQ(0, ::link((one + "/file").c_str(), (scratch / "outside").c_str()));
    copy();
    EXPECT_EQ(Lines{}, told());
}

TEST_F(CompareCommand, NamesThatTheVolumeChangedAreFoundAndTold) {
    kit::writeFile(one + "/what?", "asked");
    kit::writeFile(one + "/x:y", "one");
    kit::writeFile(one + "/x-y", "two");
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    ASSERT_EQ(0, ::setenv("VEXOFILEOP_FSTYPES", (other + "=0").c_str(), 1)); // NOLINT(concurrency-mt-unsafe)
    kit::writeFile(other + "/what-", "asked");
    kit::writeFile(other + "/x-y", "two");
    const Lines found = told({"--only", "name-changed,name-clash,extra"});
    EXPECT_EQ((Lines{"name-changed /what?", "name-clash /x:y"}), found) << compare().out;
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
}

TEST_F(CompareCommand, NamesAreLookedForAsTheVolumeDoes) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 32 << 20, "-O casefold -E encoding=utf8"));
    const std::string folding = volume / "folding";
    ASSERT_EQ(0, ::mkdir(folding.c_str(), 0755));
    const int directory = ::open(folding.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int flags = 0;
    ASSERT_EQ(0, ::ioctl(directory, FS_IOC_GETFLAGS, &flags));
    flags |= FS_CASEFOLD_FL;
    ASSERT_EQ(0, ::ioctl(directory, FS_IOC_SETFLAGS, &flags)) << std::strerror(errno);
    ::close(directory);
    kit::writeFile(one + "/File", "another");
    kit::writeFile(folding + "/FILE", "content", 0640);
    const ToolResult result = runTool({"compare", "--only", "name-changed,name-clash,extra", one, folding});
    EXPECT_NE(std::string::npos, result.out.find(one + "/File -> " + folding + "/FILE: is FILE at the second"))
        << result.out;
    EXPECT_NE(std::string::npos, result.out.find("(name-clash)")) << result.out;
    EXPECT_EQ(std::string::npos, result.out.find("(extra)")) << result.out;
}

TEST_F(CompareCommand, WithoutContentASizeIsEnough) {
    copy();
    keepingTimes(other + "/file", [&] { kit::writeFile(other + "/file", "CONTENT", 0640); });
    EXPECT_EQ(Lines{}, told({"--metadata-only", "--ignore", "creation-time"}));
    EXPECT_EQ(Lines{"data /file"}, told({"--ignore", "creation-time"}));
}

TEST_F(CompareCommand, ClassesAreChosen) {
    copy();
    kit::writeFile(other + "/inner/deep", "DEEP CONTENT");
    kit::writeFile(other + "/inner/more", "");
    EXPECT_EQ(Lines{"data /inner/deep"}, told({"--only", "data,mode"}));
    EXPECT_EQ(Lines{"extra /inner/more"}, told({"--only", "extra"}));
    EXPECT_EQ((Lines{"extra /inner/more"}), told({"--no-times", "--ignore", "data"}));
    EXPECT_EQ(0, compare({"--only", "mode"}).status);
    EXPECT_EQ(0, compare({"--ignore", "all"}).status);
    const ToolResult wrong = compare({"--only", "no-such"});
    EXPECT_EQ(2, wrong.status);
    EXPECT_NE(std::string::npos, wrong.err.find("\"no-such\" is no class of losses")) << wrong.err;
}

TEST_F(CompareCommand, AReportHasItAll) {
    copy();
    ASSERT_EQ(0, ::chmod((other + "/inner/deep").c_str(), 0600));
    kit::writeFile(other + "/inner/more", "");
    EXPECT_EQ(1, compare({"--report", scratch / "report.json"}).status);
    const std::string report = kit::readFile(scratch / "report.json");
    EXPECT_NE(std::string::npos, report.find("\"compare\"")) << report;
    EXPECT_NE(std::string::npos, report.find("\"mode\"")) << report;
    EXPECT_NE(std::string::npos, report.find("inner/more")) << report;
    EXPECT_NE(std::string::npos, report.find("\"different\":{\"entries\":2,")) << report; // and the directory's time
    EXPECT_EQ(2, compare({"--report", scratch / "no/report.json"}).status);
}

TEST_F(CompareCommand, QuietlyTheStatusTells) {
    copy();
    setTimes(other + "/file", 5);
    const ToolResult result = compare({"-q"});
    EXPECT_EQ("", result.out + result.err);
    EXPECT_EQ(1, result.status);
}

TEST_F(CompareCommand, ForProgramsEachDifferenceIsAnEvent) {
    const std::string name = one + "/odd\nname";
    kit::writeFile(name, "odd");
    copy();
    ASSERT_EQ(0, ::chmod((other + "/odd\nname").c_str(), 0600));
    kit::writeFile(other + "/extra\xff", "");
    setTimes(other, kit::statOf(one).st_mtim.tv_sec);
    const Lines lines = linesOf(compare({"--json", "--no-times"}).out);
    ASSERT_EQ(3U, lines.size());
    std::vector<std::string> events, members;
    for (const std::string &line : lines) {
        const std::unique_ptr<json_object, decltype(&json_object_put)> event(json_tokener_parse(line.c_str()),
                                                                             &json_object_put);
        ASSERT_NE(nullptr, event) << line;
        json_object *member = nullptr;
        ASSERT_TRUE(json_object_object_get_ex(event.get(), "event", &member));
        events.emplace_back(json_object_get_string(member));
        if (json_object_object_get_ex(event.get(), "class", &member) != 0) {
            members.emplace_back(json_object_get_string(member));
            ASSERT_TRUE(json_object_object_get_ex(event.get(), "source", &member));
            members.emplace_back(json_object_get_string(member));
        }
        if (json_object_object_get_ex(event.get(), "destination_hex", &member) != 0) {
            members.emplace_back("hex");
        }
        if (json_object_object_get_ex(event.get(), "exit_status", &member) != 0) {
            members.emplace_back(json_object_get_string(member));
        }
    }
    EXPECT_EQ((Lines{"loss", "extra", "summary"}), events);
    EXPECT_EQ((Lines{"mode", name, "hex", "1"}), members);
}

TEST_F(CompareCommand, OneThingUnderTwoNamesIsToldOnce) {
    const ToolResult directories = runTool({"compare", one, one + "/."});
    EXPECT_EQ(one + " -> " + one + ": the same file\n", directories.out);
    EXPECT_EQ(0, directories.status);
    ASSERT_EQ(0, ::link((one + "/file").c_str(), other.c_str()));
    const ToolResult files = runTool({"compare", one + "/file", other});
    EXPECT_EQ(one + "/file -> " + other + ": the same file\n", files.out);
    EXPECT_EQ(0, files.status);
}

TEST_F(CompareCommand, EntriesThatAreOneThingAreTheSame) {
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    ASSERT_EQ(0, ::link((one + "/file").c_str(), (other + "/file").c_str()));
    EXPECT_EQ((Lines{"data /inner", "data /sparse", "symbolic-link /link"}), [this] {
        Lines found = told({"--no-times", "--only", "data,symbolic-link,attribute"});
        std::ranges::sort(found);
        return found;
    }());
}

TEST_F(CompareCommand, WhatCannotBeComparedIsTrouble) {
    const ToolResult missing = runTool({"compare", one, scratch / "nowhere"});
    EXPECT_EQ("vexofileop: " + scratch / "nowhere" + ": No such file or directory\n", missing.err);
    EXPECT_EQ(2, missing.status);
    EXPECT_EQ(2, runTool({"compare", scratch / "nowhere", one}).status);
    EXPECT_EQ(2, runTool({"compare", one}).status);
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    copy();
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod((one + "/inner/deep").c_str(), 0600));
    ASSERT_EQ(0, ::chmod((other + "/inner/deep").c_str(), 0600));
    ASSERT_EQ(0, ::chmod((one + "/inner").c_str(), 0755));
    ASSERT_EQ(0, ::chmod((other + "/inner").c_str(), 0755));
    const ToolResult refused = runTool({"compare", "--only", "owner", one, other}, {.user = 65534});
    EXPECT_EQ(2, refused.status);
    EXPECT_NE(std::string::npos, refused.out.find("inner/deep: data: the first cannot be read")) << refused.out;
}

TEST_F(CompareCommand, NoTraceIsLeftInEitherTree) {
    copy();
    std::vector<struct stat> before, after;
    const Lines paths = {"", "/file", "/inner", "/inner/deep", "/sparse"};
    for (const std::string &tree : {one, other}) {
        for (const std::string &path : paths) {
            const timespec old[] = {{1000, 0}, kit::statOf(tree + path).st_mtim};
            ASSERT_EQ(0, ::utimensat(AT_FDCWD, (tree + path).c_str(), old, 0));
            before.push_back(kit::statOf(tree + path));
        }
    }
    ASSERT_EQ(0, compare().status) << compare().out;
    for (const std::string &tree : {one, other}) {
        for (const std::string &path : paths) {
            after.push_back(kit::statOf(tree + path));
        }
    }
    for (size_t at = 0; at < before.size(); ++at) {
        EXPECT_EQ(before[at].st_atim.tv_sec, after[at].st_atim.tv_sec) << at;
        EXPECT_EQ(before[at].st_ctim.tv_nsec, after[at].st_ctim.tv_nsec) << at;
    }
}

TEST_F(CompareCommand, DepthCostsNoDescriptors) {
    for (const std::string &tree : {one, other}) {
        (void)::mkdir(tree.c_str(), 0755);
        std::string at = tree;
        for (int level = 0; level < 100; ++level) {
            ASSERT_EQ(0, ::mkdir((at += "/down").c_str(), 0755));
        }
        kit::writeFile(at + "/bottom", tree == one ? "one" : "two");
        kit::writeFile(tree + "/down/zz", tree == one ? "one" : "two"); // behind the way down
    }
    const ToolResult result = [this] {
        ToolResult found{};
        const std::string told = scratch / "told";
        EXPECT_EQ(1, kit::inChild([&] {
                      const rlimit few{40, 40};
                      return ::setrlimit(RLIMIT_NOFILE, &few) == 0
                                 ? runTool({"compare", "--only", "data", one, other}, {.outputTo = told}).status
                                 : -1;
                  }));
        found.out = kit::readFile(told);
        return found;
    }();
    std::string bottom = one;
    for (int level = 0; level < 100; ++level) {
        bottom += "/down";
    }
    EXPECT_NE(std::string::npos, result.out.find(bottom + "/bottom -> ")) << result.out << result.err;
    EXPECT_NE(std::string::npos, result.out.find(one + "/down/zz -> ")) << result.out;
    EXPECT_EQ(std::string::npos, result.out.find("unreadable")) << result.out;
}

} // namespace
