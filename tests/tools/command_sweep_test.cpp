// Commands of the tool that no other sweep has: each is killed before its system calls, and has them fail once, and is
// run again with the same arguments. Nothing is lost at any point, the second run ends like an undisturbed one, and a
// status that says that all is well is checked against a comparison and against a look at the two trees that shares no
// code with the tool. A sample of the points; with VEXO_FULL in the environment all of them.
#include "platform/core.h"
#include "tests/ea/stream_bytes.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
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

std::string outputOf(const std::string &command) {
    std::string text;
    FILE *const pipe = ::popen((command + " 2>&1").c_str(), "r"); // NOLINT(cert-env33-c): a program of the tests
    char part[4096];
    for (size_t got = 1; pipe != nullptr && got > 0;) {
        got = std::fread(part, 1, sizeof part, pipe);
        text.append(part, got);
    }
    const int status = pipe == nullptr ? -1 : ::pclose(pipe);
    return status == 0 ? "" : text + "status " + std::to_string(status);
}

// A tree with names of one file, a link, stores and attributes, and what some commands need beside it.
struct SweptScene {
    SweptScene() {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=1").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        std::filesystem::create_directories(tree + "/in/@eaDir");
        std::filesystem::create_directories(tree + "/@eaDir");
        kit::writeFile(tree + "/one", "first");
        kit::writeFile(tree + "/in/two", "second");
        kit::setAttribute(tree + "/in/two", "user.own", "of the file");
        EXPECT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/in/other").c_str()));
        EXPECT_EQ(0, ::symlink("one", (tree + "/link").c_str()));
        kit::writeFile(tree + "/@eaDir/one@VexoEAStream", stream::bytes({{"user.note", "of one"}}));
        kit::writeFile(tree + "/in/@eaDir/two@VexoEAStream", stream::bytes({{"user.note", "of two"}}));
        kit::writeFile(tree + "/@eaDir/in@VexoEAStream", stream::bytes({{"user.note", "of in"}}));
        EXPECT_EQ(0, ::chmod((tree + "/@eaDir").c_str(), 0777));
        EXPECT_EQ(0, ::chmod((tree + "/in/@eaDir").c_str(), 0777));
        before = kit::Fingerprint::of(tree);
    }
    ~SweptScene() { ::unsetenv("VEXOFILEOP_FSTYPES"); } // NOLINT(concurrency-mt-unsafe)
    SweptScene(const SweptScene &) = delete;
    SweptScene &operator=(const SweptScene &) = delete;

    void run(const Arguments &arguments, int status = 0) const {
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(status, result.status) << result.out << result.err;
    }
    // In what the source is not what it was.
    std::string changed() const { return before.differenceTo(kit::Fingerprint::of(tree), {"accessed"}); }
    // In what the copy is not what the tree is: for the tool, and for whom the kernel alone is asked.
    std::string different() const {
        const ToolResult compared = runTool({"compare", tree, copy});
        const std::string notes = scratch / "notes";
        std::ofstream(notes, std::ios::binary) << tree << '\0' << copy << std::string(4, '\0');
        const std::string text = outputOf(std::string(SWEEP_DIFFERENCES) + " " + notes);
        std::filesystem::remove(notes);
        return (compared.status == 0 ? "" : compared.out + compared.err) + text;
    }
    // Names of what was under way.
    std::string leftOver() const {
        std::string text;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(scratch.path())) {
            const std::string name = entry.path().filename();
            text += name.starts_with(".vexofileop") ? entry.path().string() + "; " : "";
        }
        return text;
    }
    std::string holds(const std::string &path, const std::string &content) const {
        return kit::exists(path) && kit::readFile(path) == content ? "" : path + " is not what it was; ";
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy", lists = scratch / "lists";
    kit::Fingerprint before;
};

struct SweptCommand {
    const char *name;
    Arguments (*prepare)(const SweptScene &);  // what is run, once all that it needs is there
    std::string (*lost)(const SweptScene &);   // at any moment; empty: nothing
    std::string (*undone)(const SweptScene &); // after success; empty: nothing
    int good = 0;                              // the status of a run that nothing disturbs
};

const std::string kNote = stream::bytes({{"user.note", "of one"}});

void divide(const SweptScene &scene) {
    EXPECT_EQ(0, ::mkdir(scene.copy.c_str(), 0755));
    scene.run({"plan", "--shards", "1", "--out", scene.lists, scene.tree});
}
Arguments shard(const SweptScene &scene) {
    return {"copy",         "-q",
            "-u",           "--relative",
            "--from0",      "--finish-later",
            "--files-from", scene.lists + "/shard-1",
            scene.tree,     scene.copy};
}
bool has_bit(const std::string &path) {
    VLIBCStat status{};
    return VLIBCFileStat(path.c_str(), VLIBC_STAT_ATTRIBUTES, &status) == 0 &&
           (status.attributes & VLIBC_ATTR_ARCHIVE) != 0;
}
std::string source_changed(const SweptScene &scene) {
    return scene.changed();
}

const SweptCommand kSwept[] = {
    {"shard",
     [](const SweptScene &scene) {
         divide(scene);
         return shard(scene);
     },
     source_changed,
     [](const SweptScene &scene) {
         scene.run({"copy", "-q", "--finish", scene.lists + "/directories", scene.tree, scene.copy});
         return scene.different() + scene.leftOver();
     }},
    {"finish",
     [](const SweptScene &scene) {
         divide(scene);
         scene.run(shard(scene));
         return Arguments{"copy", "-q", "--finish", scene.lists + "/directories", scene.tree, scene.copy};
     },
     source_changed, [](const SweptScene &scene) { return scene.different() + scene.leftOver(); }},
    {"copy",
     [](const SweptScene &scene) {
         return Arguments{"copy", "-ru", scene.tree + "/.", scene.copy};
     },
     source_changed, [](const SweptScene &scene) { return scene.different() + scene.leftOver(); }},
    {"rename",
     [](const SweptScene &scene) {
         EXPECT_EQ(0, ::rename((scene.tree + "/one").c_str(), (scene.tree + "/new").c_str()));
         return Arguments{"ea", "rename", scene.tree + "/one", scene.tree + "/new"};
     },
     [](const SweptScene &scene) {
         const std::string old = scene.tree + "/@eaDir/one@VexoEAStream", now = scene.tree + "/@eaDir/new@VexoEAStream";
         return kit::exists(old) ? scene.holds(old, kNote) : scene.holds(now, kNote);
     },
     [](const SweptScene &scene) { return scene.holds(scene.tree + "/@eaDir/new@VexoEAStream", kNote); }},
    {"remove",
     [](const SweptScene &scene) {
         return Arguments{"ea", "remove", scene.tree + "/in/two"};
     },
     [](const SweptScene &scene) {
         return scene.holds(scene.tree + "/@eaDir/one@VexoEAStream", kNote) +
                scene.holds(scene.tree + "/in/two", "second");
     },
     [](const SweptScene &scene) {
         return kit::exists(scene.tree + "/in/@eaDir/two@VexoEAStream") ? std::string("it is there") : std::string();
     }},
    {"check",
     [](const SweptScene &scene) {
         kit::writeFile(scene.tree + "/in/@eaDir/other@VexoEAStream", "damaged");
         return Arguments{"store", "check", "-r", scene.tree};
     },
     [](const SweptScene &scene) { return scene.holds(scene.tree + "/in/@eaDir/other@VexoEAStream", "damaged"); },
     [](const SweptScene &) { return std::string(); }, 4},
    {"undo",
     [](const SweptScene &scene) {
         const std::string whole = stream::bytes({{"user.note", "of one"}});
         kit::writeFile(scene.tree + "/@eaDir/one@VexoEAStream", whole + "behind its end");
         scene.run({"store", "repair", "-q", "-r", "--quarantine", scene.scratch / "kept", scene.tree}, 1);
         return Arguments{"store", "repair", "-q", "--undo", scene.scratch / "kept"};
     },
     [](const SweptScene &scene) {
         const std::string store = scene.tree + "/@eaDir/one@VexoEAStream";
         const std::string now = kit::exists(store) ? kit::readFile(store) : "";
         return now.starts_with(kNote) ? std::string() : store + " is neither";
     },
     [](const SweptScene &scene) {
         return scene.holds(scene.tree + "/@eaDir/one@VexoEAStream", kNote + "behind its end");
     }},
    {"compare",
     [](const SweptScene &scene) {
         scene.run({"copy", "-r", scene.tree, scene.copy});
         kit::writeFile(scene.copy + "/in/two", "sEcond");
         return Arguments{"compare", scene.tree, scene.copy};
     },
     source_changed, [](const SweptScene &) { return std::string(); }, 1},
    {"archive",
     [](const SweptScene &scene) {
         kit::setAttribute(scene.tree + "/in/two", "user.DOSATTRIB", "0x20");
         EXPECT_TRUE(has_bit(scene.tree + "/in/two"));
         return Arguments{"archive", "clear", scene.tree + "/in/two"};
     },
     [](const SweptScene &scene) { return scene.holds(scene.tree + "/in/two", "second"); },
     [](const SweptScene &scene) {
         return has_bit(scene.tree + "/in/two") ? std::string("it is set") : std::string();
     }},
};

faults::Outcome supervised(const Arguments &arguments, const faults::Plan &plan) {
    return faults::supervise(plan, [&](faults::Window &window) {
        std::vector<std::string> words = arguments;
        words.insert(words.begin(), VEXOFILEOP_TOOL);
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
        window.open();
        ::execv(VEXOFILEOP_TOOL, pointers.data());
        ::_exit(127);
    });
}

class CommandSweep : public ::testing::TestWithParam<SweptCommand> {
  protected:
    void SetUp() override {
        KIT_NOT_SANITIZED();
        if (const std::string why = ::geteuid() != 0 ? "only root makes stores" : faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        const SweptScene scene;
        const Arguments arguments = GetParam().prepare(scene);
        const faults::Outcome outcome = supervised(arguments, {});
        ASSERT_TRUE(WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == GetParam().good) << outcome.status;
        ASSERT_EQ("", GetParam().lost(scene));
        ASSERT_EQ("", GetParam().undone(scene));
        calls = outcome.calls;
        // What comes before the first call on the scene is the start of a program.
        const auto begins = [&](const faults::SystemCall &call) { return call.path.starts_with(scene.scratch.path()); };
        first = static_cast<size_t>(std::ranges::find_if(calls, begins) - calls.begin());
        ASSERT_LT(first, calls.size());
    }
    static size_t step(size_t points) {
        constexpr size_t sample = 6;
        return std::getenv("VEXO_FULL") != nullptr ? 1 : std::max<size_t>(1, points / sample);
    }
    // After a run that was disturbed.
    static void again(const SweptScene &scene, const Arguments &arguments, const std::string &point) {
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(GetParam().good, result.status) << point << "\n" << result.out << result.err;
        EXPECT_EQ("", GetParam().lost(scene)) << point << ", again";
        EXPECT_EQ("", GetParam().undone(scene)) << point << ", again\n" << result.err;
    }

    std::vector<faults::SystemCall> calls;
    size_t first = 0;
};
INSTANTIATE_TEST_SUITE_P(Commands, CommandSweep, ::testing::ValuesIn(kSwept),
                         [](const auto &each) { return std::string(each.param.name); });
void PrintTo(const SweptCommand &command, std::ostream *out) {
    *out << command.name;
}

TEST_P(CommandSweep, KilledAnywhereTheSameAgainFinishesIt) {
    size_t runs = 0;
    for (size_t at = first; at < calls.size() && !HasFailure(); at += step(calls.size() - first)) {
        const SweptScene scene;
        const Arguments arguments = GetParam().prepare(scene);
        const std::string point = "killed before call " + std::to_string(at) + " " + faults::nameOf(calls[at]);
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
    for (size_t index = 0; index < plans.size() && !HasFailure(); index += step(plans.size())) {
        const SweptScene scene;
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
        } else {
            again(scene, arguments, point);
        }
        ++runs;
    }
    std::cout << runs << " of " << plans.size() << " points\n";
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
