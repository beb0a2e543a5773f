// vexofileop mirror: the destination becomes equal to the source, and nothing goes that should not.
#include "tests/ea/stream_bytes.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using kit::runTool;
using kit::ToolResult;

using kit::mentions;

void makeDirectory(const std::string &path) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0755)) << path;
}

class Mirror : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const std::string &directory : {tree, tree + "/in", tree + "/kind", copy, copy + "/in", copy + "/gone",
                                             copy + "/gone/deep", copy + "/was"}) {
            makeDirectory(directory);
        }
        kit::writeFile(tree + "/one", "one");
        kit::writeFile(tree + "/was", "was a directory");
        kit::writeFile(tree + "/in/two", "two");
        kit::writeFile(tree + "/kind/three", "three");
        ASSERT_EQ(0, ::symlink("one", (tree + "/link").c_str()));
        kit::writeFile(copy + "/one", "older");
        kit::writeFile(copy + "/kind", "was a file");
        kit::writeFile(copy + "/old", "old");
        kit::writeFile(copy + "/in/old", "old");
        kit::writeFile(copy + "/gone/deep/old", "old");
        kit::writeFile(copy + "/was/old", "old");
    }
    ToolResult mirror(kit::Arguments options = {}) const {
        options.insert(options.begin(), "mirror");
        options.insert(options.end(), {tree, copy});
        return runTool(options);
    }
    int compared() const { return runTool({"compare", tree, copy}).status; }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

TEST_F(Mirror, OneFileUnderTwoNamesIsTheSameAlready) {
    kit::writeFile(tree + "/in/two", "two");
    ASSERT_EQ(0, ::link((tree + "/in/two").c_str(), (copy + "/in/two").c_str()));
    const struct stat before = kit::statOf(tree + "/in/two");
    const ToolResult planned = runTool({"plan", "mirror", tree, copy});
    EXPECT_EQ(0, planned.status) << planned.out;
    const ToolResult result = mirror({"-f"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, " 1 skipped (1 the same), 0 failed")) << result.out;
    EXPECT_EQ(before.st_ino, kit::statOf(copy + "/in/two").st_ino);
    EXPECT_EQ(0, runTool({"copy", "-u", tree + "/in/two", copy + "/in/two"}).status);
    EXPECT_EQ(0, runTool({"plan", "copy", "-u", tree + "/in/two", copy + "/in/two"}).status);
    // To whoever replaces they are one, and so they are under one name.
    EXPECT_EQ(2, runTool({"copy", "-f", tree + "/in/two", copy + "/in/two"}).status);
    EXPECT_EQ(2, runTool({"copy", "-u", tree + "/in/two", tree + "/in/two"}).status);
    EXPECT_EQ(2, runTool({"plan", "copy", "-u", tree + "/in/two", tree + "/in/two"}).status);
}

// Each name has a store of its own where that is kept beside.
TEST_F(Mirror, OneFileUnderTwoNamesWithAnotherStoreIsParted) {
    KIT_NEEDS_TO_MAKE_STORES();
    ASSERT_EQ(0, ::link((tree + "/in/two").c_str(), (copy + "/in/two").c_str()));
    ASSERT_EQ(0, runTool({"ea", "set", tree + "/in/two", "note", "n"}).status);
    ASSERT_EQ(0, mirror({"-f"}).status);
    EXPECT_EQ("n", runTool({"ea", "get", copy + "/in/two", "note"}).out);
    EXPECT_EQ("n", runTool({"ea", "get", tree + "/in/two", "note"}).out);
    EXPECT_EQ("two", kit::readFile(tree + "/in/two"));
    EXPECT_EQ(0, compared());
    const ToolResult again = mirror({"-f"});
    EXPECT_TRUE(mentions(again.out, " 5 skipped (5 the same), 0 failed")) << again.out;
}

TEST_F(Mirror, WhatIsInTheWayGoesAsAWholeOrNotAtAll) {
    kit::writeFile(copy + "/was/fixed", "stays");
    if (std::system(("chattr +i " + copy + "/was/fixed 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "this volume has no immutable files";
    }
    const std::vector<std::string> before = kit::namesIn(copy + "/was");
    const ToolResult planned = runTool({"plan", "mirror", tree, copy});
    const ToolResult result = mirror({"-f"});
    EXPECT_EQ(0, std::system(("chattr -i " + copy + "/was/fixed").c_str()));
    EXPECT_EQ(before, kit::namesIn(copy + "/was"));
    EXPECT_EQ(1, result.status) << result.err;
    EXPECT_EQ(result.status, planned.status) << planned.out;
    const std::string failed = tree + "/was -> " + copy + "/was: the destination is a directory";
    EXPECT_TRUE(mentions(result.err, failed)) << result.err;
    EXPECT_TRUE(mentions(planned.out, "fail: " + failed)) << planned.out;
    EXPECT_FALSE(mentions(planned.out, "new: " + tree + "/was")) << planned.out;
    EXPECT_TRUE(kit::exists(copy + "/old")) << "nothing else goes";
    // What only stands in the way of nothing goes by itself.
    EXPECT_EQ(0, mirror({"-f"}).status);
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, MakesTheDestinationEqualAndTheSecondRunDoesNothing) {
    const ToolResult result = mirror({"-f"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_TRUE(mentions(result.out, "5 files and 3 directories copied (")) << result.out;
    EXPECT_TRUE(mentions(result.out, ", 8 removed\n")) << result.out;
    EXPECT_EQ(0, compared());
    const ToolResult again = mirror();
    EXPECT_EQ(0, again.status);
    EXPECT_EQ("", again.err);
    EXPECT_EQ("0 files and 3 directories copied (0 B), 5 skipped (5 the same), 0 failed, 0 cloned, 0 removed\n",
              again.out);
}

TEST_F(Mirror, PlanTellsEveryRemovalAndDoesNothing) {
    for (const kit::Arguments &command : {kit::Arguments{"plan", "mirror"}, kit::Arguments{"mirror", "--dry-run"}}) {
        kit::Arguments all = command;
        all.insert(all.end(), {tree, copy});
        const ToolResult planned = runTool(all);
        EXPECT_EQ(0, planned.status) << planned.err;
        for (const char *name : {"/old", "/in/old", "/gone/deep/old", "/gone/deep", "/gone", "/was/old", "/was"}) {
            EXPECT_TRUE(mentions(planned.out, "remove: " + copy + name + "\n")) << name << "\n" << planned.out;
        }
        EXPECT_TRUE(mentions(planned.out, "remove: " + copy + "/kind\n")) << planned.out;
        EXPECT_TRUE(mentions(planned.out, ", 8 removed; nothing was done, the status would be 0\n")) << planned.out;
    }
    EXPECT_EQ("old", kit::readFile(copy + "/gone/deep/old"));
    EXPECT_EQ("older", kit::readFile(copy + "/one"));
}

TEST_F(Mirror, NothingIsDoneWithoutAnAnswer) {
    const ToolResult result = mirror();
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, copy + ": 8 entries that " + tree + " has not will be removed; go ahead? [y/N]"))
        << result.err;
    EXPECT_EQ("older", kit::readFile(copy + "/one"));
    EXPECT_TRUE(kit::exists(copy + "/old"));
    EXPECT_EQ(0, runTool({"mirror", tree, copy}, {.input = "y\n"}).status);
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, EachRemovalIsAskedAbout) {
    const ToolResult unanswered = mirror({"-i"});
    EXPECT_EQ(1, unanswered.status);
    EXPECT_TRUE(kit::exists(copy + "/old"));
    EXPECT_TRUE(kit::exists(copy + "/kind"));
    const ToolResult result = runTool({"mirror", "-i", tree, copy}, {.input = "y\ny\ny\ny\ny\ny\ny\ny\n"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "remove " + copy + "/gone?")) << result.err;
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, RemovesNothingWhereNotAllWasRead) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "root gives the user's files away";
    }
    ASSERT_EQ(0, ::chmod((tree + "/in/two").c_str(), 0));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
    ASSERT_EQ(0, ::system(("chown -R 65534:65534 '" + scratch.path() + "'").c_str())); // NOLINT
    const ToolResult result = runTool({"mirror", "-f", tree, copy}, {.user = 65534});
    EXPECT_EQ(1, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "nothing is removed, for not everything was copied\n")) << result.err;
    EXPECT_TRUE(kit::exists(copy + "/old"));
    EXPECT_EQ("was a file", kit::readFile(copy + "/kind"));
    EXPECT_EQ("one", kit::readFile(copy + "/one"));
}

TEST_F(Mirror, WhatStandsInTheWayStaysWhereItsSuccessorCannotBeRead) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "root gives the user's files away";
    }
    ASSERT_EQ(0, ::chmod((tree + "/kind/three").c_str(), 0));
    ASSERT_EQ(0, ::system(("chown -R 65534:65534 '" + scratch.path() + "'").c_str())); // NOLINT
    const ToolResult result = runTool({"mirror", "-f", tree, copy}, {.user = 65534});
    EXPECT_EQ(1, result.status) << result.err;
    EXPECT_EQ("was a file", kit::readFile(copy + "/kind"));
    EXPECT_TRUE(kit::exists(copy + "/old"));
}

TEST_F(Mirror, EmptySourceRemovesNothingUnlessToldSo) {
    makeDirectory(scratch / "empty");
    const ToolResult refused = runTool({"mirror", "-f", scratch / "empty", copy});
    EXPECT_EQ(2, refused.status);
    EXPECT_TRUE(mentions(refused.err, "the source is empty")) << refused.err;
    const ToolResult planned = runTool({"plan", "mirror", scratch / "empty", copy});
    EXPECT_EQ(2, planned.status);
    EXPECT_TRUE(mentions(planned.err, "the source is empty")) << planned.err;
    EXPECT_TRUE(mentions(planned.out, "0 merged, ")) << planned.out;
    EXPECT_EQ(0, runTool({"plan", "mirror", "--allow-empty", scratch / "empty", copy}).status);
    EXPECT_TRUE(kit::exists(copy + "/gone/deep/old"));
    EXPECT_EQ(2, runTool({"mirror", "-f", "--exclude", "*", tree, copy, "--delete-excluded"}).status);
    EXPECT_TRUE(kit::exists(copy + "/gone/deep/old"));
    EXPECT_EQ(0, runTool({"mirror", "-f", "--allow-empty", scratch / "empty", copy}).status);
    EXPECT_EQ(std::vector<std::string>(), kit::namesIn(copy));
}

TEST_F(Mirror, NoMoreGoThanAllowed) {
    const ToolResult planned = runTool({"plan", "mirror", "--max-delete", "5", tree, copy});
    EXPECT_EQ(1, planned.status);
    EXPECT_TRUE(mentions(planned.out, ", 5 removed; ")) << planned.out;
    const ToolResult result = mirror({"-f", "--max-delete", "5"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "3 entries were not removed, for --max-delete is 5\n")) << result.err;
    EXPECT_TRUE(mentions(result.out, ", 5 removed\n")) << result.out;
    EXPECT_EQ(0, mirror({"-f", "--max-delete", "3"}).status);
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, TellsProgramsWhyAnythingStays) {
    const auto told = [&](const kit::Arguments &options, const std::string &from, const std::string &words) {
        kit::Arguments all = options;
        all.insert(all.end(), {"--json", from, copy});
        const ToolResult result = runTool(all);
        EXPECT_NE(0, result.status);
        EXPECT_TRUE(mentions(result.out, words)) << result.out;
    };
    makeDirectory(scratch / "empty");
    told({"mirror"}, tree, R"("removed":0,"left":8,"removal_refused":"declined")");
    told({"mirror", "-f"}, scratch / "empty", R"("removal_refused":"empty-source")");
    told({"plan", "mirror"}, scratch / "empty", R"("removal_refused":"empty-source")");
    told({"plan", "mirror", "--max-delete", "5"}, tree, R"("remove":5,"left":3,"removal_refused":"max-delete")");
    kit::writeFile(tree + "/._stray", "a name that is kept for metadata");
    told({"mirror", "-f", "--max-errors", "1"}, tree, R"("removal_refused":"incomplete")");
    told({"mirror", "-f", "--max-errors", "1"}, tree, R"("stopped_by":"max-errors")");
    told({"mirror", "-f", "--stop-on-error"}, tree, R"("stopped_by":"stop-on-error")");
    ASSERT_EQ(0, ::unlink((tree + "/._stray").c_str()));
    told({"mirror", "-f", "--max-delete", "5"}, tree, R"("removed":5,"left":3,"removal_refused":"max-delete")");
}

TEST_F(Mirror, WhatIsLeftOutStays) {
    kit::writeFile(tree + "/big", std::string(5000, 'b'));
    kit::writeFile(copy + "/big", "small");
    kit::writeFile(copy + "/note.o", "o");
    kit::writeFile(copy + "/gone/note.o", "o");
    makeDirectory(copy + "/keep");
    kit::writeFile(copy + "/keep/inside", "kept");
    const ToolResult result = mirror({"-f", "--exclude", "*.o", "--exclude", "/keep", "--max-size", "1K"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("small", kit::readFile(copy + "/big"));
    EXPECT_EQ((std::vector<std::string>{"note.o"}), kit::namesIn(copy + "/gone"));
    EXPECT_TRUE(kit::exists(copy + "/note.o"));
    EXPECT_EQ("kept", kit::readFile(copy + "/keep/inside"));
    EXPECT_EQ(0, mirror({"-f", "--exclude", "*.o", "--exclude", "/keep", "--delete-excluded"}).status);
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, OneDirectoryUnderTwoNamesIsRefused) {
    ASSERT_EQ(0, ::symlink(tree.c_str(), (scratch / "name").c_str()));
    for (const auto &[first, second] :
         std::vector<std::pair<std::string, std::string>>{{tree, tree},
                                                          {tree, tree + "/in"},
                                                          {tree, tree + "/new/er"},
                                                          {tree + "/in", tree},
                                                          {tree, scratch / "name"},
                                                          {scratch / "name", tree},
                                                          {tree, scratch / "name" + "/in"}}) {
        const ToolResult result = runTool({"mirror", "-f", first, second});
        EXPECT_EQ(2, result.status) << first << " " << second;
        EXPECT_TRUE(mentions(result.err, "are one directory, or one lies in the other")) << result.err;
    }
    EXPECT_EQ(2, runTool({"mirror", "-f", tree + "/one", copy}).status);
    EXPECT_EQ(2, runTool({"mirror", "-f", tree, copy + "/one"}).status);
    EXPECT_EQ("one", kit::readFile(tree + "/one"));
}

TEST_F(Mirror, FollowsNoLinkAtTheDestination) {
    makeDirectory(scratch / "elsewhere");
    kit::writeFile(scratch / "elsewhere/precious", "precious");
    ASSERT_EQ(0, ::symlink((scratch / "elsewhere").c_str(), (copy + "/gone/way").c_str()));
    ASSERT_EQ(0, ::rename((copy + "/in").c_str(), (copy + "/was/in").c_str()));
    ASSERT_EQ(0, ::symlink((scratch / "elsewhere").c_str(), (copy + "/in").c_str()));
    EXPECT_EQ(0, mirror({"-f"}).status);
    EXPECT_EQ("precious", kit::readFile(scratch / "elsewhere/precious"));
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, NamesThatWereChangedBelongToTheirEntries) {
    kit::writeFile(tree + "/who?.txt", "who");
    ::setenv("VEXOFILEOP_FSTYPES", (copy + "=0").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    const ToolResult first = mirror({"-f", "--accept", "all"});
    const ToolResult second = mirror({"-v", "--accept", "all"});
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(0, first.status) << first.err;
    EXPECT_EQ("who", kit::readFile(copy + "/who-.txt"));
    EXPECT_TRUE(mentions(second.out, ", 0 removed\n")) << second.out << second.err;
    EXPECT_FALSE(kit::exists(copy + "/old"));
}

TEST_F(Mirror, WhatIsKeptForAFileGoesWithIt) {
    KIT_NEEDS_TO_MAKE_STORES();
    for (const std::string &directory : {tree, copy, copy + "/gone"}) {
        makeDirectory(directory + "/@eaDir");
    }
    kit::writeFile(tree + "/@eaDir/one@VexoEAStream", stream::bytes({{"comment", "stays"}}));
    kit::writeFile(copy + "/@eaDir/old@VexoEAStream", stream::bytes({{"comment", "goes"}}));
    kit::writeFile(copy + "/@eaDir/nobody@VexoEAStream", stream::bytes({{"comment", "goes, too"}}));
    kit::writeFile(copy + "/gone/@eaDir/none@VexoEAStream", stream::bytes({{"comment", "goes, too"}}));
    EXPECT_EQ(0, mirror({"-f"}).status);
    EXPECT_EQ((std::vector<std::string>{"one@VexoEAStream"}), kit::namesIn(copy + "/@eaDir"));
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, TellsItAsJsonAndAsAReport) {
    const ToolResult planned = runTool({"plan", "mirror", "--json", tree, copy});
    EXPECT_TRUE(mentions(planned.out, R"({"event":"removal","kind":"directory","path":")" + copy + R"(/gone"})"))
        << planned.out;
    EXPECT_TRUE(mentions(planned.out, R"("plan":"mirror")")) << planned.out;
    EXPECT_TRUE(mentions(planned.out, R"("remove":8)")) << planned.out;
    const ToolResult result = mirror({"-f", "--json", "--report", scratch / "report.json"});
    EXPECT_TRUE(mentions(result.out, R"("operation":"remove","status":"done","path":")" + copy + R"(/gone")"))
        << result.out;
    EXPECT_TRUE(mentions(result.out, R"("operation":"mirror")")) << result.out;
    EXPECT_TRUE(mentions(result.out, R"("removed":8)")) << result.out;
    EXPECT_TRUE(mentions(kit::readFile(scratch / "report.json"), R"("removed":{"entries":8,)"));
}

TEST_F(Mirror, RunThatWasCutShortRemovesNothing) {
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::mkfifo((tree + "/pipe").c_str(), 0600));
    }
    kit::writeFile(tree + "/._stray", "a name that is kept for metadata");
    const ToolResult result = mirror({"-f", "--max-errors", "1"});
    EXPECT_TRUE(result.status == 1 || result.status == 2) << result.status; // 2: none of the others was met before
    EXPECT_TRUE(kit::exists(copy + "/old"));
    EXPECT_TRUE(kit::exists(copy + "/gone/deep/old"));
}

TEST_F(Mirror, NamesLikePrivateOnesAreEntriesAsAllOthers) {
    for (const char *name : {"/.vexofileop-1-2", "/.vexofileop-mine", "/in/.vexofileop-ea-mine"}) {
        kit::writeFile(copy + name, "a user's own");
    }
    kit::writeFile(copy + "/.vexofileop-both", "was a file");
    makeDirectory(tree + "/.vexofileop-both");
    const ToolResult result = mirror({"-f"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(0, compared());
    EXPECT_FALSE(kit::exists(copy + "/.vexofileop-1-2"));
    EXPECT_TRUE(kit::exists(copy + "/.vexofileop-both/."));
    // And a source that holds nothing else is not empty.
    makeDirectory(scratch / "few");
    kit::writeFile(scratch / "few/.vexofileop-mine", "a user's own");
    EXPECT_EQ(0, runTool({"mirror", "-f", scratch / "few", copy}).status);
    EXPECT_EQ((std::vector<std::string>{".vexofileop-mine"}), kit::namesIn(copy));
}

TEST_F(Mirror, WhatMayBeUnderWayStaysAndIsTold) {
    const std::string running = ".vexofileop-1-1-0123456789abcdef-01234567-89abcdef-1"; // another machine's
    const std::string locked = ".vexofileop-ea-0123456789abcdef";
    kit::writeFile(copy + "/" + running, "of a process that may run");
    kit::writeFile(copy + "/gone/" + running, "of a process that may run");
    kit::writeFile(copy + "/was/" + running, "of a process that may run");
    kit::writeFile(copy + "/" + locked, "locked");
    const int lock = ::open((copy + "/" + locked).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, ::flock(lock, LOCK_EX));
    const ToolResult kept = mirror({"-f"});
    EXPECT_EQ(1, kept.status);
    EXPECT_EQ("old", kit::readFile(copy + "/was/old"));
    EXPECT_TRUE(mentions(kept.err, copy + "/was: stays with all that is in it, since not all of that may go: " + copy +
                                       "/was/" + running + ": may be under way by another process"))
        << kept.err;
    ASSERT_EQ(0, ::unlink((copy + "/was/" + running).c_str()));
    const ToolResult result = mirror({"-f"});
    EXPECT_EQ(1, result.status);
    for (const std::string &path : {copy + "/" + running, copy + "/gone/" + running, copy + "/" + locked}) {
        EXPECT_TRUE(kit::exists(path)) << path;
        EXPECT_TRUE(mentions(result.err, path + ": may be under way by another process; stays\n")) << result.err;
    }
    EXPECT_FALSE(kit::exists(copy + "/gone/deep"));
    EXPECT_EQ("was a directory", kit::readFile(copy + "/was"));
    ASSERT_EQ(0, ::close(lock));
    for (const std::string &path : {copy + "/" + running, copy + "/gone/" + running}) {
        ASSERT_EQ(0, ::unlink(path.c_str()));
    }
    EXPECT_EQ(0, mirror({"-f"}).status);
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, ChangeOfAStoreThatIsUnderWayStaysAndIsTold) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeDirectory(copy + "/@eaDir");
    const std::string locked = copy + "/@eaDir/.vexofileop-ea-0123456789abcdef";
    kit::writeFile(locked, "locked");
    const int lock = ::open(locked.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, ::flock(lock, LOCK_EX));
    const ToolResult result = mirror({"-f"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(kit::exists(locked));
    EXPECT_TRUE(mentions(result.err, locked + ": may be under way by another process; stays\n")) << result.err;
    ASSERT_EQ(0, ::close(lock));
    EXPECT_EQ(0, mirror({"-f"}).status);
    EXPECT_FALSE(kit::exists(locked));
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, NothingOfWhatStandsInTheWayGoesWhereNotAllOfItMay) {
    kit::writeFile(copy + "/was/keep.o", "kept");
    makeDirectory(copy + "/was/deep");
    kit::writeFile(copy + "/was/deep/old", "old");
    const auto isWhole = [&] {
        return kit::readFile(copy + "/was/old") == "old" && kit::readFile(copy + "/was/deep/old") == "old" &&
               kit::readFile(copy + "/was/keep.o") == "kept";
    };
    const std::string why = copy + "/was: stays with all that is in it, since not all of that may go: ";
    const ToolResult planned = runTool({"plan", "mirror", tree, copy, "--exclude", "*.o"});
    EXPECT_EQ(1, planned.status);
    EXPECT_FALSE(mentions(planned.out, "remove: " + copy + "/was")) << planned.out;
    EXPECT_TRUE(mentions(planned.err, why + copy + "/was/keep.o: is left out")) << planned.err;
    const ToolResult excluded = mirror({"-f", "--exclude", "*.o"});
    EXPECT_EQ(1, excluded.status);
    EXPECT_TRUE(isWhole());
    EXPECT_TRUE(mentions(excluded.err, why + copy + "/was/keep.o: is left out")) << excluded.err;
    EXPECT_EQ("three", kit::readFile(copy + "/kind/three")); // what could be cleared has been filled
    EXPECT_TRUE(kit::exists(copy + "/old"));
    for (const char *most : {"0", "1", "4"}) {
        const ToolResult limited = mirror({"-f", "--max-delete", most});
        EXPECT_EQ(1, limited.status) << most;
        EXPECT_TRUE(isWhole()) << most;
        EXPECT_TRUE(mentions(limited.err, why)) << limited.err;
    }
    // One no is enough, whichever it is; each yes is given once.
    for (const char *answers : {"", "n\ny\ny\ny\ny\n", "y\ny\ny\ny\nn\n", "y\ny\nn\ny\ny\n"}) {
        const ToolResult refused = runTool({"mirror", "-i", tree, copy}, {.input = answers});
        EXPECT_EQ(1, refused.status) << answers;
        EXPECT_TRUE(isWhole()) << answers;
        EXPECT_TRUE(mentions(refused.err, why)) << refused.err;
    }
    EXPECT_EQ(1, runTool({"mirror", "-i", tree, copy}, {.input = "y\ny\ny\ny\ny\n"}).status);
    EXPECT_EQ("was a directory", kit::readFile(copy + "/was"));
    EXPECT_EQ(0, mirror({"-f"}).status);
    EXPECT_EQ(0, compared());
}

TEST_F(Mirror, HelpTellsWhatKeepsRemovalsBackAndWhatDoesNot) {
    KIT_NEEDS_ROOT("to be sure of losing nothing else");
    ASSERT_EQ(0, ::mkfifo((tree + "/pipe").c_str(), 0600));
    const ToolResult result = mirror({"-f"});
    EXPECT_TRUE(mentions(result.err, tree + "/pipe")) << result.err;
    EXPECT_FALSE(kit::exists(copy + "/old"));
    const ToolResult help = runTool({"mirror", "--help"});
    EXPECT_TRUE(
        mentions(help.out, "What only loses\nsomething on the way is told, and keeps nothing from being removed."))
        << help.out;
}

class MirrorOfMounts : public kit::Behaviour {};

// The destination, what holds it, or what lies in it, is in the source under another name.
TEST_F(MirrorOfMounts, DestinationThatIsMountedInTheSourceIsRefused) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const std::string tree = volume.path() + "/tree", place = tree + "/in/bound", holder = volume.path() + "/holder",
                      copy = holder + "/copy", part = copy + "/part";
    for (const std::string &directory : {tree, tree + "/in", place, holder, copy, part, tree + "/part"}) {
        makeDirectory(directory);
    }
    kit::writeFile(tree + "/file", "file");
    kit::writeFile(copy + "/content", "content");
    kit::writeFile(part + "/content", "content of a part");
    for (const std::string &bound : {copy, holder, part}) {
        ASSERT_EQ(0, ::mount(bound.c_str(), place.c_str(), nullptr, MS_BIND, nullptr));
        // It is of one volume, so that -x would go there as well.
        for (const kit::Arguments &command :
             {kit::Arguments{"mirror", "-f"}, kit::Arguments{"mirror", "-fx"}, kit::Arguments{"plan", "mirror"}}) {
            kit::Arguments all = command;
            all.insert(all.end(), {tree, copy});
            const ToolResult result = runTool(all);
            EXPECT_EQ(2, result.status) << bound << "\n" << result.out << result.err;
            EXPECT_TRUE(mentions(result.err, place + ": is mounted there, and shares directories with " + copy))
                << result.err;
        }
        EXPECT_EQ("content", kit::readFile(copy + "/content"));
        EXPECT_EQ("content of a part", kit::readFile(part + "/content"));
        EXPECT_FALSE(kit::exists(copy + "/file"));
        ASSERT_EQ(0, ::umount2(place.c_str(), MNT_DETACH));
    }
    // The other way round: a part of the source in the destination, where copies would overwrite it.
    ASSERT_EQ(0, ::mount((tree + "/in").c_str(), part.c_str(), nullptr, MS_BIND, nullptr));
    EXPECT_EQ(2, runTool({"mirror", "-f", tree, copy}).status);
    EXPECT_EQ("content", kit::readFile(copy + "/content"));
    ASSERT_EQ(0, ::umount2(part.c_str(), MNT_DETACH));
    // What is no part of either hinders nothing, and neither does what is not gone into.
    const std::string other = volume.path() + "/other";
    makeDirectory(other);
    ASSERT_EQ(0, ::mount(other.c_str(), place.c_str(), nullptr, MS_BIND, nullptr));
    EXPECT_EQ(0, runTool({"mirror", "-f", tree, copy}).status);
    EXPECT_FALSE(kit::exists(copy + "/content"));
    ASSERT_EQ(0, ::umount2(place.c_str(), MNT_DETACH));
    KIT_REQUIRE(second, kit::Volume::tmpfs(16 << 20));
    makeDirectory(second.path() + "/copy");
    kit::writeFile(second.path() + "/copy/content", "content");
    ASSERT_EQ(0, ::mount(second.path().c_str(), place.c_str(), nullptr, MS_BIND, nullptr));
    EXPECT_EQ(2, runTool({"mirror", "-f", tree, second.path() + "/copy"}).status);
    EXPECT_EQ("content", kit::readFile(second.path() + "/copy/content"));
    EXPECT_EQ(0, runTool({"mirror", "-fx", tree, second.path() + "/copy"}).status);
    EXPECT_EQ("file", kit::readFile(second.path() + "/copy/file"));
    ASSERT_EQ(0, ::umount2(place.c_str(), MNT_DETACH));
}

TEST_F(MirrorOfMounts, NothingOfWhatStandsInTheWayGoesWhereAVolumeIsMountedInIt) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const std::string tree = volume.path() + "/tree", copy = volume.path() + "/copy", other = volume.path() + "/other";
    for (const std::string &directory : {tree, copy, copy + "/was", copy + "/was/mounted", other}) {
        makeDirectory(directory);
    }
    kit::writeFile(tree + "/was", "was a directory");
    kit::writeFile(tree + "/file", "file");
    kit::writeFile(copy + "/was/a", "precious");
    kit::writeFile(copy + "/was/z", "precious");
    kit::writeFile(other + "/precious", "precious");
    ASSERT_EQ(0, ::mount(other.c_str(), (copy + "/was/mounted").c_str(), nullptr, MS_BIND, nullptr));
    const ToolResult result = runTool({"mirror", "-f", tree, copy});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, copy + "/was: stays with all that is in it, since not all of that may go: " +
                                         copy + "/was/mounted: another volume is mounted there"))
        << result.err;
    EXPECT_EQ((std::vector<std::string>{"a", "mounted", "z"}), kit::namesIn(copy + "/was"));
    EXPECT_EQ("precious", kit::readFile(other + "/precious"));
    ASSERT_EQ(0, ::umount2((copy + "/was/mounted").c_str(), MNT_DETACH));
}

TEST_F(MirrorOfMounts, MountedVolumesStay) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const std::string tree = volume.path() + "/tree", copy = volume.path() + "/copy", other = volume.path() + "/other";
    for (const std::string &directory :
         {tree, tree + "/both", tree + "/sub", copy, copy + "/both", copy + "/only", copy + "/only/mounted", other}) {
        makeDirectory(directory);
    }
    kit::writeFile(tree + "/file", "file");
    kit::writeFile(tree + "/sub/file", "in a part of it");
    kit::writeFile(other + "/precious", "precious");
    for (const std::string &place : {copy + "/both", copy + "/only/mounted"}) {
        ASSERT_EQ(0, ::mount(other.c_str(), place.c_str(), nullptr, MS_BIND, nullptr));
    }
    const ToolResult result = runTool({"mirror", "-f", tree, copy});
    EXPECT_EQ(1, result.status) << result.err;
    EXPECT_EQ("precious", kit::readFile(other + "/precious"));
    EXPECT_TRUE(mentions(result.err, copy + "/only/mounted: another volume is mounted there; stays")) << result.err;
    EXPECT_TRUE(mentions(result.err, copy + "/both: another volume is mounted there, with what the source has not"))
        << result.err;
    EXPECT_EQ("file", kit::readFile(copy + "/file"));
    // A part of the source under another name.
    ASSERT_EQ(0, ::umount2((copy + "/both").c_str(), MNT_DETACH));
    ASSERT_EQ(0, ::mount((tree + "/sub").c_str(), (copy + "/both").c_str(), nullptr, MS_BIND, nullptr));
    EXPECT_EQ(2, runTool({"mirror", "-f", tree, copy + "/both"}).status);
    EXPECT_EQ(2, runTool({"mirror", "-f", copy + "/both", tree}).status);
    EXPECT_EQ("in a part of it", kit::readFile(tree + "/sub/file"));
    for (const std::string &place : {copy + "/both", copy + "/only/mounted"}) {
        ASSERT_EQ(0, ::umount2(place.c_str(), MNT_DETACH));
    }
}

// Trees of which every kind of step is needed; killed before a call, or with a call that fails.
struct SweepScene {
    SweepScene() {
        for (const char *name : {"/tree", "/tree/in", "/tree/kind", "/tree/@eaDir", "/copy", "/copy/in", "/copy/gone",
                                 "/copy/@eaDir", "/copy/was"}) {
            EXPECT_EQ(0, ::mkdir((scratch.path() + name).c_str(), 0755));
        }
        for (const char *name : {"/tree/one", "/tree/was", "/tree/in/two", "/tree/kind/three"}) {
            kit::writeFile(scratch.path() + name, "content of " + std::string(name));
        }
        for (const char *name : {"/copy/kind", "/copy/old", "/copy/in/old", "/copy/gone/old", "/copy/was/old"}) {
            kit::writeFile(scratch.path() + name, "old");
        }
        // One file, of which a name takes the place of one of another, and one that of a directory's obstacle.
        for (const char *name : {"/tree/first", "/tree/kind/four", "/tree/zz"}) {
            EXPECT_EQ(0, ::link((scratch / "tree/in/two").c_str(), (scratch.path() + name).c_str()));
        }
        kit::writeFile(scratch / "copy/first", "old");
        for (const char *name : {"/copy/in/first", "/copy/zzz"}) {
            EXPECT_EQ(0, ::link((scratch / "copy/first").c_str(), (scratch.path() + name).c_str()));
        }
        kit::writeFile(scratch.path() + "/tree/@eaDir/one@VexoEAStream", stream::bytes({{"comment", "new"}}));
        kit::writeFile(scratch.path() + "/copy/@eaDir/old@VexoEAStream", stream::bytes({{"comment", "old"}}));
    }
    kit::Arguments arguments(bool keeps) const {
        kit::Arguments words{"mirror", "-f", scratch / "tree", scratch / "copy"};
        if (keeps) {
            words.insert(words.begin() + 1, {"--backup-dir", scratch / "kept"});
        }
        return words;
    }
    // What went, or was replaced, with what was kept beside it. Empty, or what is missing.
    std::string lostOfOld() const {
        std::string lost;
        for (const char *name : {"/kind", "/old", "/in/old", "/gone/old", "/was/old", "/first", "/in/first", "/zzz"}) {
            const std::string path = scratch.path() + "/kept" + name;
            lost += kit::exists(path) && kit::readFile(path) == "old" ? "" : std::string(name) + "; ";
        }
        const std::string store = scratch / "kept/@eaDir/old@VexoEAStream";
        return lost +
               (kit::exists(store) && kit::readFile(store) == stream::bytes({{"comment", "old"}}) ? "" : "store; ");
    }
    std::string sourceNow() const {
        std::string all;
        for (const char *name :
             {"/tree/one", "/tree/was", "/tree/in/two", "/tree/kind/three", "/tree/first", "/tree/zz"}) {
            all += kit::readFile(scratch.path() + name) + "\n";
        }
        return all;
    }
    // With the names of one file, which a comparison tells, too.
    bool equal() const {
        return runTool({"compare", scratch / "tree", scratch / "copy"}).status == 0 &&
               kit::statOf(scratch / "copy/first").st_nlink == 4 && kit::statOf(scratch / "copy/one").st_nlink == 1;
    }
    kit::ScratchDirectory scratch;
};

faults::Outcome supervised(const SweepScene &scene, bool keeps, const faults::Plan &plan) {
    return faults::supervise(plan, [&](faults::Window &window) {
        std::vector<std::string> words = scene.arguments(keeps);
        words.insert(words.begin(), VEXOFILEOP_TOOL);
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        window.open();
        ::execv(VEXOFILEOP_TOOL, pointers.data());
        ::_exit(127);
    });
}

// How it is stopped, and whether what goes is kept.
struct Stop {
    const char *name;
    faults::Plan::Action action;
    bool keeps = false;
};
void PrintTo(const Stop &stop, std::ostream *out) {
    *out << stop.name;
}
class MirrorSweep : public ::testing::TestWithParam<Stop> {};

TEST_P(MirrorSweep, TheSameOnceMoreFinishesIt) {
    KIT_NOT_SANITIZED();
    if (const std::string why = ::geteuid() != 0 ? "only root makes stores" : faults::unavailable(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const SweepScene whole;
    const std::vector<faults::SystemCall> calls = supervised(whole, GetParam().keeps, {}).calls;
    ASSERT_TRUE(whole.equal());
    const std::string source = whole.sourceNow();
    constexpr size_t sample = 70;
    const size_t step = std::getenv("VEXO_FULL") != nullptr // NOLINT(concurrency-mt-unsafe)
                            ? 1
                            : std::max<size_t>(1, calls.size() / sample);
    for (size_t at = 1; at < calls.size(); at += step) {
        const std::vector<int> errors = faults::plausibleErrors(calls[at]);
        if (GetParam().action == faults::Plan::Action::fail && errors.empty()) {
            continue;
        }
        const SweepScene scene;
        const faults::Plan plan = faults::planAt(GetParam().action, calls, at, errors.empty() ? 0 : errors.front());
        const faults::Outcome outcome = supervised(scene, GetParam().keeps, plan);
        const std::string point = std::to_string(at) + " " + faults::nameOf(calls[at]);
        EXPECT_FALSE(outcome.hung) << point;
        EXPECT_EQ(source, scene.sourceNow()) << point;
        // What was told to be done is done. A name of a file that could not be opened once becomes a file of its own,
        // which is told, costs room alone, and is mended by the next run.
        const bool mayPart = std::string(faults::nameOf(calls[at])) == "openat";
        EXPECT_TRUE(outcome.status != 0 || mayPart || scene.equal()) << point;
        const ToolResult again = runTool(scene.arguments(GetParam().keeps));
        EXPECT_EQ(0, again.status) << point << "\n" << again.err;
        EXPECT_TRUE(scene.equal()) << point << "\n" << again.err;
        EXPECT_TRUE(!GetParam().keeps || scene.lostOfOld().empty()) << point << ": " << scene.lostOfOld();
        if (HasFailure()) {
            break;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Stops, MirrorSweep,
                         ::testing::Values(Stop{"Killed", faults::Plan::Action::kill},
                                           Stop{"Failing", faults::Plan::Action::fail},
                                           Stop{"KilledThatKeeps", faults::Plan::Action::kill, true},
                                           Stop{"FailingThatKeeps", faults::Plan::Action::fail, true}),
                         [](const auto &each) { return std::string(each.param.name); });

} // namespace
