// vexofileop copy -r into a new place, where the library copies whole directories: the same tree, words and counts as
// with -v, which copies entry by entry. See tools/engine/transfer/whole_tree_copy.cpp.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/slow_file.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

void makeDirectoryAt(const std::string &path, mode_t mode = 0755) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), mode));
}

std::string linkTarget(const std::string &path) {
    std::array<char, 4096> target{};
    return ::readlink(path.c_str(), target.data(), target.size() - 1) < 0 ? "" : target.data();
}

std::string attributesOf(const std::string &path) {
    std::array<char, 4096> names{};
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    std::vector<std::string> all;
    for (const char *name = names.data(); name < names.data() + std::max<ssize_t>(size, 0);
         name += std::string(name).size() + 1) {
        all.push_back(std::string(name) + "=" + kit::attribute(path, name) + ";");
    }
    std::sort(all.begin(), all.end());
    std::string text;
    for (const std::string &one : all) {
        text += one;
    }
    return text;
}

// Everything below a directory, an entry a line. What lies in an "@eaDir" has the mode and times of its making; one
// that was made for nothing stays where the library copies the tree, and goes where the tool copies each file.
void describe(const std::string &directory, const std::string &shown, std::vector<std::string> &lines) {
    for (const std::string &name : kit::namesIn(directory)) {
        const std::string below = "/" + name;
        const std::string path = directory + below, as = shown + below;
        const struct stat status = kit::statOf(path);
        if (name == "@eaDir" && S_ISDIR(status.st_mode) && kit::namesIn(path).empty()) {
            continue;
        }
        std::string line = as;
        const auto add = [&line](const std::string &word) { line += " " + word; };
        add(std::to_string(status.st_mode & S_IFMT));
        add(std::to_string(status.st_uid));
        add(std::to_string(status.st_gid));
        if (!mentions(as, "@eaDir")) {
            add(std::to_string(status.st_mode));
            add(std::to_string(status.st_mtim.tv_sec));
            add(std::to_string(status.st_mtim.tv_nsec));
            add(attributesOf(path));
        }
        add(S_ISREG(status.st_mode) ? kit::readFile(path) : S_ISLNK(status.st_mode) ? linkTarget(path) : "");
        lines.push_back(line);
        if (S_ISDIR(status.st_mode)) {
            describe(path, as, lines);
        }
    }
}

std::vector<std::string> described(const std::string &directory) {
    std::vector<std::string> lines;
    describe(directory, "", lines);
    return lines;
}

// The lines of a text, sorted, with one path in the place of another.
std::vector<std::string> linesOf(std::string text, const std::string &path, const std::string &shown) {
    for (size_t at = text.find(path); at != std::string::npos; at = text.find(path, at + shown.size())) {
        text.replace(at, path.size(), shown);
    }
    std::vector<std::string> lines;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

class WholeCopy : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_ROOT("to give owners away, without which each file is copied by itself");
        makeDirectoryAt(from);
        makeDirectoryAt(sub);
    }
    // Copies both ways and expects no difference. The result of the one under test.
    ToolResult copyBothWays(const std::vector<std::string> &options = {}) const {
        std::vector<std::string> arguments = {"copy", "-r"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        std::vector<std::string> whole = arguments, single = arguments;
        whole.insert(whole.end(), {from, to});
        single.insert(single.end(), {"-v", from, other});
        ToolResult result = runTool(whole);
        const ToolResult expected = runTool(single);
        EXPECT_EQ(expected.status, result.status);
        EXPECT_EQ(linesOf(expected.err, other, "DEST"), linesOf(result.err, to, "DEST"));
        EXPECT_TRUE(expected.out.ends_with(result.out)) << result.out << "\n" << expected.out;
        EXPECT_EQ(described(other), described(to));
        return result;
    }
    static void giveTimes(const std::string &path, time_t seconds) {
        const timespec times[] = {{seconds, 1}, {seconds, 2}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW));
    }
    // Puts the slow file into the tree under this name.
    void mountSlowFile(const kit::SlowFile &slow) const {
        kit::writeFile(slowName, "");
        ASSERT_EQ(0, ::mount(slow.path().c_str(), slowName.c_str(), nullptr, MS_BIND, nullptr));
    }
    void TearDown() override { ::umount2(slowName.c_str(), MNT_DETACH); }

    kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to", other = scratch / "other", sub = from + "/sub";
    const std::string slowName = sub + "/slow";
};

TEST_F(WholeCopy, OwnersModesTimesAndAttributesAreTheSame) {
    kit::writeFile(sub + "/plain", "p");
    kit::writeFile(sub + "/line\nfeed", "l");
    kit::writeFile(sub + "/bytes\xff\xfe", "b");
    kit::writeFile(sub + "/program", "x");
    ASSERT_EQ(0, ::chown((sub + "/program").c_str(), 1001, 1002));
    ASSERT_EQ(0, ::chmod((sub + "/program").c_str(), 06751));
    kit::setAttribute(sub + "/plain", "security.NTACL", "windows");
    kit::writeSparse(sub + "/sparse", 1 << 20, {{65536, 4096}});
    for (const char *link : {"plain", "nowhere"}) {
        const std::string path = sub + "/to " + link;
        ASSERT_EQ(0, ::symlink(link, path.c_str()));
        ASSERT_EQ(0, ::lchown(path.c_str(), 1003, 1004));
        giveTimes(path, 3000);
    }
    makeDirectoryAt(sub + "/empty");
    for (const auto &[name, mode] :
         {std::pair("read-only", 0555), {"set-group", 02775}, {"sticky", 01777}, {"no", 0}}) {
        const std::string path = sub + "/" + name;
        makeDirectoryAt(path);
        kit::writeFile(path + "/inner", name);
        ASSERT_EQ(0, ::chown(path.c_str(), 1005, 1006));
        ASSERT_EQ(0, ::chmod(path.c_str(), static_cast<mode_t>(mode)));
        giveTimes(path, 2000);
    }
    giveTimes(sub, 1000);
    const ToolResult result = copyBothWays();
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_EQ("11 files and 7 directories copied (1.0 MiB), 0 skipped, 0 failed, 0 cloned\n", result.out);
    EXPECT_EQ(1000, kit::statOf(to + "/sub").st_mtim.tv_sec);
    EXPECT_EQ(02775u, kit::statOf(to + "/sub/set-group").st_mode & 07777);
    EXPECT_EQ(1003u, kit::statOf(to + "/sub/to plain").st_uid);
}

TEST_F(WholeCopy, WhatTheLibraryPassesOverIsNamed) {
    kit::writeFile(sub + "/plain", "p");
    kit::writeFile(sub + "/._stray", "x");
    makeDirectoryAt(sub + "/@tmp");
    makeDirectoryAt(sub + "/below");
    ASSERT_EQ(0, ::mkfifo((sub + "/below/pipe").c_str(), 0600));
    const ToolResult result = copyBothWays();
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "/below/pipe: is a named pipe, which cannot be copied (special-file)\n"));
    EXPECT_TRUE(mentions(result.err, "/@tmp: skipped, belongs to the system (not-carried)\n"));
    EXPECT_EQ("1 file and 3 directories copied (1 B), 2 skipped, 1 failed, 0 cloned\n", result.out);
}

TEST_F(WholeCopy, PartsOfStoresThatCannotArriveAreTold) {
    makeDirectoryAt(sub + "/@eaDir");
    for (const char *name : {"kept", "lost", "plain"}) {
        kit::writeFile(sub + "/" + name, name);
    }
    kit::writeFile(sub + "/@eaDir/kept@VexoEAStream", stream::bytes({{"comment", "kept"}}));
    makeDirectoryAt(sub + "/@eaDir/lost@VexoEAStream");
    const ToolResult result = copyBothWays();
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("vexofileop: 1 entry with something that could not be read: " + sub + "/lost -> " + to +
                  "/sub/lost: the store of the first: lost@VexoEAStream is no regular file (unreadable)\n"
                  "vexofileop: 1 thing of nobody left where it was: " +
                  sub + " -> " + to + "/sub: @eaDir/lost@VexoEAStream belongs to no entry (not-carried)\n",
              result.err);
    EXPECT_EQ("3 files and 2 directories copied (13 B), 0 skipped, 0 failed, 0 cloned\n", result.out);
    EXPECT_EQ(stream::bytes({{"comment", "kept"}}), kit::readFile(to + "/sub/@eaDir/kept@VexoEAStream"));
}

TEST_F(WholeCopy, StoreThatIsNoDirectoryOrLeadsElsewhereMakesNoDifference) {
    makeDirectoryAt(scratch / "elsewhere");
    kit::writeFile(scratch / "elsewhere/file@VexoEAStream", stream::bytes({{"comment", "elsewhere"}}));
    const std::function<void(const std::string &)> stores[] = {
        [](const std::string &path) { kit::writeFile(path, "a file"); },
        [](const std::string &path) { ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600)); },
        [this](const std::string &path) { ASSERT_EQ(0, ::symlink((scratch / "elsewhere").c_str(), path.c_str())); },
        [](const std::string &path) { ASSERT_EQ(0, ::symlink("nowhere", path.c_str())); },
        [](const std::string &path) {
            makeDirectoryAt(path);
            ASSERT_EQ(0, ::mkfifo((path + "/file@VexoEAStream").c_str(), 0600));
            ASSERT_EQ(0, ::symlink("/etc/passwd", (path + "/file@VexoResource").c_str()));
        },
    };
    int number = 0;
    for (const auto &make : stores) {
        const std::string directory = sub + std::to_string(number++);
        makeDirectoryAt(directory);
        kit::writeFile(directory + "/file", "f");
        make(directory + "/@eaDir");
    }
    copyBothWays();
}

TEST_F(WholeCopy, MetadataAttributeThatCouldNotGoAlongIsTold) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    kit::writeFile(sub + "/file", "f");
    kit::writeFile(sub + "/other", "o");
    kit::setAttribute(sub + "/file", "user.netatalk.Metadata", "finder");
    const ToolResult result = runTool({"copy", "-r", from, volume / "there"}),
                     expected = runTool({"copy", "-rv", from, volume / "other"});
    EXPECT_EQ(expected.status, result.status);
    EXPECT_EQ(linesOf(expected.err, volume / "other", "DEST"), linesOf(result.err, volume / "there", "DEST"));
}

// On a volume that keeps no creation time the access time of the copy may be that of the creation, or not any more:
// that of the source is another one once the first of two runs has read it.
TEST_F(WholeCopy, CreationTimeThatIsKeptByChanceIsNone) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    kit::writeFile(sub + "/file", "f");
    const auto setTimes = [&](long later) {
        for (const std::string &path : {sub + "/file", sub, from}) {
            struct statx found {};
            ASSERT_EQ(0, ::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &found));
            if ((found.stx_mask & STATX_BTIME) == 0) {
                GTEST_SKIP() << "the volume of scratch directories keeps no creation time";
            }
            const timespec created{found.stx_btime.tv_sec, static_cast<long>(found.stx_btime.tv_nsec)};
            const timespec times[] = {{created.tv_sec + later, created.tv_nsec}, {created.tv_sec + 1, created.tv_nsec}};
            ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
        }
    };
    // What is made in the same tick of the clock has the same creation time.
    struct statx made {};
    ASSERT_EQ(0, ::statx(AT_FDCWD, from.c_str(), 0, STATX_BTIME, &made));
    constexpr int64_t nanoseconds = 1'000'000'000, apart = nanoseconds / 20;
    for (timespec now{}; (now.tv_sec - made.stx_btime.tv_sec) * nanoseconds + now.tv_nsec -
                             static_cast<int64_t>(made.stx_btime.tv_nsec) <
                         apart;) {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    }
    for (const char *how : {"-r", "-rv"}) {
        for (const long later : {0L, 2L}) {
            setTimes(later);
            if (IsSkipped()) {
                return;
            }
            const ToolResult result = runTool({"copy", how, from, volume / (how + std::to_string(later))});
            EXPECT_EQ(1, result.status) << how << later;
            EXPECT_TRUE(mentions(result.err, "3 creation times not kept")) << how << later << result.err;
        }
    }
}

TEST_F(WholeCopy, FilesThatFailAreNamedWithTheirReason) {
    kit::writeFile(sub + "/small", "s");
    kit::writeFile(sub + "/large", std::string(64 << 10, 'x'));
    makeDirectoryAt(sub + "/below");
    kit::writeFile(sub + "/below/large", std::string(64 << 10, 'x'));
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
    const rlimit limited{16 << 10, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limited));
    const ToolResult result = copyBothWays();
    const ToolResult shared = runTool({"copy", "-r", "-j2", from, scratch / "shared"});
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &before));
    EXPECT_EQ(1, shared.status) << shared.err;
    EXPECT_FALSE(mentions(shared.err, "worker")) << shared.err;
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, sub + "/large -> " + to + "/sub/large: ")) << result.err;
    EXPECT_TRUE(mentions(result.err, " (0xAA00)\n")) << result.err;
    EXPECT_EQ("1 file and 3 directories copied (1 B), 0 skipped, 2 failed, 0 cloned\n", result.out);
    EXPECT_EQ((std::vector<std::string>{"below", "small"}), kit::namesIn(to + "/sub"));
}

TEST_F(WholeCopy, FullVolumeLosesNothingInSilence) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    constexpr int files = 40;
    for (int number = 0; number < files; ++number) {
        kit::writeFile(sub + "/file" + std::to_string(number), std::string(64 << 10, 'x'));
    }
    const ToolResult result = runTool({"copy", "-r", from, volume / "there"});
    EXPECT_EQ(1, result.status);
    const std::vector<std::string> arrived = kit::namesIn(volume / "there/sub");
    EXPECT_LT(0u, arrived.size());
    for (const std::string &name : arrived) {
        EXPECT_EQ(64 << 10, kit::statOf(volume / "there/sub/" + name).st_size) << name;
    }
    const auto failed = std::count(result.err.begin(), result.err.end(), '\n');
    EXPECT_EQ(files, static_cast<int>(arrived.size()) + failed) << result.err;
    EXPECT_TRUE(mentions(result.err, "(0x2900)\n"));
    EXPECT_TRUE(result.out.starts_with(std::to_string(arrived.size()) + " files and 2 directories copied ("))
        << result.out;
    EXPECT_TRUE(mentions(result.out, ", " + std::to_string(failed) + " failed")) << result.out;
}

TEST_F(WholeCopy, StopOnErrorStillEndsAtTheFirstFailure) {
    for (const char *name : {"/a", "/b"}) {
        makeDirectoryAt(sub + name);
        ASSERT_EQ(0, ::mkfifo((sub + name + "/pipe").c_str(), 0600));
    }
    const ToolResult result = runTool({"copy", "-r", "--stop-on-error", from, to});
    EXPECT_EQ(2, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    EXPECT_TRUE(mentions(result.err, "stopped at the first failure"));
}

TEST_F(WholeCopy, DeepTreeNeedsNoDescriptors) {
    std::string deep = sub;
    for (int level = 0; level < 200; ++level) {
        deep += "/d";
        makeDirectoryAt(deep);
        kit::writeFile(deep + "/leaf", std::to_string(level));
    }
    // In a child, since the limit that the tool may not raise cannot be raised again here either.
    const auto copyWithFew = [this] {
        const rlimit few{64, 64};
        const ToolResult result = ::setrlimit(RLIMIT_NOFILE, &few) == 0 ? copyBothWays() : ToolResult{};
        std::fputs((result.err + result.out).c_str(), stderr);
        std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(copyWithFew(), ::testing::ExitedWithCode(0), "200 files and 202 directories copied");
}

TEST_F(WholeCopy, PathsThatGetTooLongForACallArriveAllTheSame) {
    makeDirectoryAt(scratch / "a destination whose path is longer than that of the source");
    const std::string longer = scratch / "a destination whose path is longer than that of the source/to";
    const std::string deep = kit::makeDeepDirectory(sub, 4070);
    kit::writeFile(deep + "/leaf", "l");
    kit::writeFile(sub + "/plain", "p");
    const ToolResult result = runTool({"copy", "-r", from, longer}),
                     expected = runTool({"copy", "-rv", from, longer + "2"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_EQ("p", kit::readFile(longer + "/sub/plain"));
    EXPECT_TRUE(expected.out.ends_with(result.out)) << result.out;
    EXPECT_TRUE(mentions(expected.out, "/leaf\n"));
}

// While the copy waits in one file, others change what it works on.
class ChangingTree : public WholeCopy {
  protected:
    void SetUp() override {
        WholeCopy::SetUp();
        if (IsSkipped()) {
            return;
        }
        try {
            kit::enterPrivateMounts();
            slow.emplace(9 << 20);
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        // In the middle also where names come in the order in which they were made.
        for (int number = 0; number < kFiles; ++number) {
            if (number == kFiles / 2) {
                mountSlowFile(*slow);
            }
            const std::string file = sub + "/file" + std::to_string(number);
            kit::writeFile(file, "content");
            kit::setAttribute(file, "security.NTACL", "windows"); // or it would not be for the tree engine
        }
    }
    void TearDown() override {
        WholeCopy::TearDown();
        slow.reset();
    }
    // Copies, with `change` in the middle.
    ToolResult copyWhile(const std::function<void()> &change) {
        kit::ToolOnTerminal tool({"copy", "-r", "--no-progress", from, to}, 400);
        EXPECT_TRUE(slow->waitedFor());
        change();
        slow->allowAll();
        return tool.finish();
    }

    // Where the copy of "sub" stands until it is whole.
    std::string underWay() const {
        for (const std::string &name : kit::namesIn(to)) {
            if (name == "sub" || name.starts_with(".vexofileop-")) {
                return to + "/" + name + (name == "sub" ? "" : "/tree"); // in a closed directory
            }
        }
        ADD_FAILURE() << "nothing is under way";
        return to;
    }

    static constexpr int kFiles = 20;
    std::optional<kit::SlowFile> slow;
};

TEST_F(ChangingTree, FilesRemovedFromTheDestinationAreCopiedAgain) {
    const ToolResult result = copyWhile([&] {
        const std::string copy = underWay();
        for (const std::string &name : kit::namesIn(copy)) {
            if (name != "slow") {
                EXPECT_EQ(0, ::unlink((copy + "/" + name).c_str()));
            }
        }
    });
    EXPECT_EQ(0, result.status) << result.out;
    EXPECT_EQ(static_cast<size_t>(kFiles) + 1, kit::namesIn(to + "/sub").size());
    EXPECT_TRUE(mentions(result.out, "21 files and 2 directories copied")) << result.out;
}

TEST_F(ChangingTree, FilesThatVanishOrAppearInTheSource) {
    const ToolResult result = copyWhile([&] {
        EXPECT_EQ(0, ::unlink((sub + "/file0").c_str()));
        kit::writeFile(sub + "/file0", "again");
        for (int number = 1; number < kFiles; ++number) {
            EXPECT_EQ(0, ::unlink((sub + "/file" + std::to_string(number)).c_str()));
        }
        for (int number = 0; number < kFiles; ++number) {
            kit::writeFile(sub + "/new" + std::to_string(number), "new");
        }
    });
    // What was still to come may be told as missing; what is there is there.
    EXPECT_TRUE(result.status == 0 || result.status == 1) << result.out;
    for (int number = 0; number < kFiles; ++number) {
        EXPECT_EQ("new", kit::readFile(to + "/sub/new" + std::to_string(number)));
    }
    EXPECT_TRUE(kit::exists(to + "/sub/file0"));
}

TEST_F(ChangingTree, FilesThatOthersPutInTheWayStayAndAreNamed) {
    std::vector<std::string> planted;
    const ToolResult result = copyWhile([&] {
        const std::string copy = underWay();
        for (int number = 0; number < kFiles; ++number) {
            const std::string name = "/file" + std::to_string(number);
            if (!kit::exists(copy + name)) {
                kit::writeFile(copy + name, "foreign");
                planted.push_back(to + "/sub" + name);
            }
        }
    });
    for (const std::string &path : planted) {
        EXPECT_EQ("foreign", kit::readFile(path));
        EXPECT_TRUE(mentions(result.out, path + ": destination exists (0xA300)")) << path;
    }
    EXPECT_EQ(planted.empty() ? 0 : 1, result.status) << result.out;
    const size_t arrived = kFiles + 1 - planted.size();
    EXPECT_TRUE(mentions(result.out, std::to_string(arrived) + (arrived == 1 ? " file and" : " files and")))
        << result.out;
    EXPECT_TRUE(mentions(result.out, std::to_string(planted.size()) + " failed")) << result.out;
}

TEST_F(ChangingTree, EntriesThatBecomeOfAnotherKindAreNoSuccess) {
    for (int number = 0; number < kFiles; ++number) {
        makeDirectoryAt(sub + "/directory" + std::to_string(number));
    }
    const ToolResult result = copyWhile([&] {
        for (int number = 0; number < kFiles; ++number) {
            const std::string file = sub + "/file" + std::to_string(number);
            const std::string directory = sub + "/directory" + std::to_string(number);
            EXPECT_EQ(0, ::unlink(file.c_str()));
            makeDirectoryAt(file);
            EXPECT_EQ(0, ::rmdir(directory.c_str()));
            kit::writeFile(directory, "a file now");
        }
    });
    // What had arrived before is in the way.
    int inTheWay = 0;
    for (int number = 0; number < kFiles; ++number) {
        const mode_t file = kit::statOf(to + "/sub/file" + std::to_string(number)).st_mode;
        const mode_t directory = kit::statOf(to + "/sub/directory" + std::to_string(number)).st_mode;
        EXPECT_TRUE(S_ISREG(file) || S_ISDIR(file));
        EXPECT_TRUE(S_ISREG(directory) || S_ISDIR(directory));
        inTheWay += (S_ISREG(file) ? 1 : 0) + (S_ISDIR(directory) ? 1 : 0);
    }
    EXPECT_EQ(inTheWay == 0 ? 0 : 1, result.status) << result.out;
    EXPECT_TRUE(mentions(result.out, " " + std::to_string(inTheWay) + " failed")) << result.out;
}

TEST_F(ChangingTree, CtrlCLeavesNoHalfFileAndCountsWhatArrived) {
    kit::ToolOnTerminal tool({"copy", "-r", "--no-progress", from, to});
    ASSERT_TRUE(slow->waitedFor());
    tool.type("\x03");
    ASSERT_TRUE(tool.takes(SIGINT));
    slow->allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status);
    const std::vector<std::string> names = kit::namesIn(to + "/sub");
    EXPECT_FALSE(kit::exists(to + "/sub/slow"));
    for (const std::string &name : names) {
        EXPECT_EQ("content", kit::readFile(to + "/sub/" + name));
    }
    EXPECT_TRUE(mentions(result.out, "stopped; " + std::to_string(names.size()) + " files copied")) << result.out;
    EXPECT_TRUE(mentions(result.out, " and 2 directories copied")) << result.out;
    EXPECT_EQ(kit::statOf(sub).st_mtim.tv_sec, kit::statOf(to + "/sub").st_mtim.tv_sec);
}

} // namespace
