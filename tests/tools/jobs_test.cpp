// --jobs: several processes do what one does, say what one says, and lose nothing without a word when they are killed.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/seeds.h"
#include "tests/kit/volumes.h"
#include "tests/tools/slow_file.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <random>
#include <sched.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace jobs_tests {
namespace {

using kit::runTool;
using kit::ToolResult;
using Lines = std::vector<std::string>;

// ---- Trees ----

void makeDirectory(const std::string &path) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0755)) << path;
}

// Small directories, a large flat one, a deep one, links, several names of one file, stores.
void makeTree(const std::string &top, int directories = 40, int flat = 1500) {
    makeDirectory(top);
    for (int number = 0; number < directories; ++number) {
        const std::string outer = top + "/d" + std::to_string(number % 7);
        ::mkdir(outer.c_str(), 0755);
        const std::string inner = outer + "/e" + std::to_string(number);
        makeDirectory(inner);
        for (int file = 0; file < 12; ++file) {
            kit::writeFile(inner + "/f" + std::to_string(file), std::to_string(number * file));
        }
        ASSERT_EQ(0, ::symlink("f0", (inner + "/link").c_str()));
        if (number % 9 == 0 && ::geteuid() == 0) {
            makeDirectory(inner + "/@eaDir");
            kit::writeFile(inner + "/@eaDir/f3@VexoEAStream", stream::bytes({{"comment", "kept"}}));
        }
    }
    ASSERT_EQ(0, ::link((top + "/d0/e0/f1").c_str(), (top + "/d6/e6/other").c_str()));
    ASSERT_EQ(0, ::link((top + "/d0/e0/f1").c_str(), (top + "/d3/e3/third").c_str()));
    makeDirectory(top + "/flat");
    for (int file = 0; file < flat; ++file) {
        kit::writeFile(top + "/flat/g" + std::to_string(file), std::to_string(file));
    }
    std::string deep = top + "/deep";
    for (int level = 0; level < 20; ++level) {
        makeDirectory(deep);
        kit::writeFile(deep + "/file", std::to_string(level));
        deep += "/down";
    }
}

Lines pathsBelow(const std::string &top) {
    Lines paths;
    for (const std::string &name : kit::namesIn(top)) {
        const std::string path = top + "/" + name;
        paths.push_back(path);
        if (S_ISDIR(kit::statOf(path).st_mode)) {
            const Lines inner = pathsBelow(path);
            paths.insert(paths.end(), inner.begin(), inner.end());
        }
    }
    return paths;
}

bool isBelow(const std::string &path, const std::string &directory) {
    return path == directory || path.starts_with(directory + "/");
}

// ---- What the tool said ----

Lines linesOf(const std::string &text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

Lines sorted(Lines lines) {
    std::ranges::sort(lines);
    return lines;
}

// Of a JSON object in one line, where nothing has to be escaped.
std::string field(const std::string &line, const std::string &name) {
    const std::string key = "\"" + name + "\":\"";
    const size_t at = line.find(key);
    return at == std::string::npos ? std::string()
                                   : line.substr(at + key.size(), line.find('"', at + key.size()) - at - key.size());
}

// ---- A tool that is under way ----

class RunningTool {
  public:
    RunningTool(kit::Arguments arguments, const std::string &directory)
        : m_out(directory + "/out"), m_err(directory + "/err"), m_pid(::fork()) {
        if (m_pid == 0) {
            ::setpgid(0, 0);
            std::signal(SIGINT, SIG_DFL); // whoever started the tests in the background of a script has it ignored
            const int out = ::open(m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const int err = ::open(m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(out, STDOUT_FILENO);
            ::dup2(err, STDERR_FILENO);
            // A search for leaks has a child of its own at the end, and waits for ever where that is killed as a
            // worker.
            const char *const options = std::getenv("ASAN_OPTIONS");
            ::setenv("ASAN_OPTIONS", (std::string(options == nullptr ? "" : options) + ":detect_leaks=0").c_str(), 1);
            std::string program = VEXOFILEOP_TOOL;
            std::vector<char *> pointers{program.data()};
            for (std::string &argument : arguments) {
                pointers.push_back(argument.data());
            }
            pointers.push_back(nullptr);
            ::execv(program.c_str(), pointers.data());
            ::_exit(126);
        }
        ::setpgid(m_pid, m_pid); // whoever of the two comes first
    }
    RunningTool(const RunningTool &) = delete;
    RunningTool &operator=(const RunningTool &) = delete;
    ~RunningTool() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    pid_t pid() const { return m_pid; }
    int64_t saidBytes() const { return kit::exists(m_out) ? kit::statOf(m_out).st_size : 0; }
    bool isOver() { return m_pid < 0 || (::waitpid(m_pid, &m_status, WNOHANG) == m_pid && (m_pid = -1, true)); }
    ToolResult finish() {
        if (m_pid > 0) {
            ::waitpid(m_pid, &m_status, 0);
            m_pid = -1;
        }
        const bool killed = WIFSIGNALED(m_status);
        return {killed ? 128 + WTERMSIG(m_status) : WEXITSTATUS(m_status), killed, kit::readFile(m_out),
                kit::readFile(m_err)};
    }
    // Its workers.
    std::vector<pid_t> children() const {
        std::vector<pid_t> found;
        for (const std::string &name : kit::namesIn("/proc")) {
            if (name.find_first_not_of("0123456789") == std::string::npos && parentOf(name) == m_pid) {
                found.push_back(static_cast<pid_t>(std::stol(name)));
            }
        }
        return found;
    }

  private:
    static pid_t parentOf(const std::string &process) {
        std::ifstream file("/proc/" + process + "/stat");
        std::string text;
        std::getline(file, text); // nothing of one that has just ended
        const size_t end = text.rfind(')');
        std::istringstream rest(end == std::string::npos ? "" : text.substr(end + 1));
        std::string state;
        pid_t parent = -1;
        rest >> state >> parent;
        return parent;
    }
    std::string m_out, m_err;
    pid_t m_pid;
    int m_status = -1;
};

// As the kernel has it: 'R', 'S', 'T' …; 'X' of none.
char kernelStateOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string text;
    std::getline(file, text); // nothing of one that has just ended
    const size_t end = text.rfind(')');
    return end == std::string::npos || text.size() <= end + 2 ? 'X' : text[end + 2];
}

bool isAlive(pid_t process) {
    const char state = kernelStateOf(process);
    return state != 'Z' && state != 'X';
}

bool areStopped(const std::vector<pid_t> &processes) {
    for (int step = 0; step < 30'000; ++step) {
        if (std::ranges::all_of(processes, [](pid_t one) { return kernelStateOf(one) == 'T'; })) {
            return true;
        }
        ::usleep(10'000);
    }
    return false;
}

bool areGone(const std::vector<pid_t> &processes) {
    for (int step = 0; step < 30'000; ++step) {
        if (std::ranges::none_of(processes, isAlive)) {
            return true;
        }
        ::usleep(10'000);
    }
    return false;
}

// Whether nothing shows any more that they ever were: whose parent was killed is for another one to ask after.
bool areForgotten(const std::vector<pid_t> &processes) {
    for (int step = 0; step < 30'000; ++step) {
        if (std::ranges::all_of(processes, [](pid_t one) { return ::kill(one, 0) != 0 && errno == ESRCH; })) {
            return true;
        }
        ::usleep(10'000);
    }
    return false;
}

// Kills workers at moments that the seed gives, until the tool is at its end. Everybody who ever was a worker.
std::vector<pid_t> killWorkers(RunningTool &tool, std::mt19937 &random) {
    std::set<pid_t> seen;
    for (auto kills = 1 + random() % 6; !tool.isOver();) {
        ::usleep(static_cast<useconds_t>(random() % 3'000));
        const std::vector<pid_t> now = tool.children();
        seen.insert(now.begin(), now.end());
        if (kills > 0 && !now.empty() && random() % 2 == 0) {
            ::kill(now[random() % now.size()], SIGKILL);
            --kills;
        }
    }
    return {seen.begin(), seen.end()};
}

class Jobs : public kit::Behaviour {
  protected:
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

// ---- remove ----

using RemoveJobs = Jobs;

TEST_F(RemoveJobs, AnyNumberOfThemRemovesAndSaysTheSame) {
    Lines expected;
    for (const char *jobs : {"1", "2", "5"}) {
        makeTree(tree);
        const ToolResult result = runTool({"remove", "-r", "--json", "--jobs", jobs, tree});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_FALSE(kit::exists(tree));
        const Lines lines = linesOf(result.out);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("summary", field(lines.back(), "event"));
        expected = expected.empty() ? sorted(lines) : expected;
        EXPECT_EQ(expected, sorted(lines)) << jobs << " jobs";
    }
    EXPECT_LT(2'000u, expected.size());
}

// Directories go after what is in them, and are told so.
// Of one directory several remove what is in it, and none of it twice.
TEST_F(RemoveJobs, FilesOfALargeDirectoryAreToldOnceEach) {
    const std::string large = scratch / "large";
    ASSERT_EQ(0, ::mkdir(large.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((large + "/inner").c_str(), 0755));
    constexpr size_t files = 6000;
    for (size_t number = 0; number < files; ++number) {
        kit::writeFile(large + "/file" + std::to_string(number), "");
    }
    const ToolResult result = runTool({"remove", "-rv", "--jobs", "3", large});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_FALSE(kit::exists(large));
    const Lines told = linesOf(result.out);
    EXPECT_LE(files + 2, told.size());
    EXPECT_EQ(told.size(), std::set<std::string>(told.begin(), told.end()).size());
}

TEST_F(RemoveJobs, DirectoryIsToldAfterItsEntries) {
    makeTree(tree);
    const ToolResult result = runTool({"remove", "-rv", "--jobs", "4", tree});
    std::set<std::string> gone;
    for (const std::string &line : linesOf(result.out)) {
        for (const std::string &path : gone) {
            ASSERT_FALSE(line != path && isBelow(line, path)) << line << " after " << path;
        }
        if (line.find("/f") == std::string::npos && line.find("/g") == std::string::npos) {
            gone.insert(line);
        }
    }
}

TEST_F(RemoveJobs, WhatMayNotGoFailsByNameAndKeepsItsDirectory) {
    KIT_NEEDS_ROOT("to be another user for the tool");
    Lines expected;
    for (const char *jobs : {"1", "4"}) {
        makeTree(tree, 40, 100);
        for (const std::string &path : pathsBelow(tree)) {
            ASSERT_EQ(0, ::lchown(path.c_str(), 1234, 1234));
        }
        ASSERT_EQ(0, ::chown((tree + "/d3/e3").c_str(), 0, 0));
        ASSERT_EQ(0, ::chown((tree + "/d5/e19").c_str(), 0, 0));
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
        ASSERT_EQ(0, ::chown(tree.c_str(), 1234, 1234));
        const ToolResult result =
            runTool({"remove", "-r", "--json", "--jobs", jobs, tree}, {.user = 1234, .directory = "/"});
        EXPECT_EQ(1, result.status);
        EXPECT_TRUE(kit::exists(tree + "/d3/e3/f1"));
        EXPECT_FALSE(kit::exists(tree + "/d3/e10"));
        EXPECT_FALSE(kit::exists(tree + "/flat"));
        const Lines lines = sorted(linesOf(result.out));
        expected = expected.empty() ? lines : expected;
        EXPECT_EQ(expected, lines) << jobs << " jobs";
        ASSERT_EQ(0, runTool({"remove", "-rf", tree}).status);
    }
}

TEST_F(RemoveJobs, StopOnErrorEndsAllOfThem) {
    KIT_NEEDS_ROOT("to be another user for the tool");
    makeTree(tree, 40, 20'000);
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
    // Everything fails: each of the processes meets one at most.
    const ToolResult result =
        runTool({"remove", "-r", "--json", "--stop-on-error", "--jobs", "4", tree}, {.user = 1234, .directory = "/"});
    EXPECT_EQ(2, result.status);
    const Lines lines = linesOf(result.out);
    EXPECT_GE(5u, lines.size());
    EXPECT_LE(2u, lines.size());
}

// What a worker had begun has gone or failed by name; what is still there is below something that failed, or above it.
TEST_F(RemoveJobs, KilledAtRandomTheyLeaveNothingWithoutAWord) {
    for (const uint32_t seed : kit::seeds(6, 200)) {
        SCOPED_TRACE(kit::repeat(seed));
        std::mt19937 random(seed);
        makeTree(tree, 60, 400);
        Lines all = pathsBelow(tree);
        all.push_back(tree);
        RunningTool tool({"remove", "-r", "--json", "--jobs", std::to_string(2 + seed % 3), tree}, scratch.path());
        const auto workers = killWorkers(tool, random);
        const ToolResult result = tool.finish();
        EXPECT_TRUE(areGone(workers));
        std::map<std::string, int> done;
        Lines failed;
        const Lines lines = linesOf(result.out);
        for (const std::string &line : lines) {
            if (field(line, "status") == "done") {
                ++done[field(line, "path")];
            } else if (field(line, "event") != "summary") {
                failed.push_back(field(line, "path"));
            }
        }
        // Where nothing went at all that is another status.
        EXPECT_EQ(failed.empty() ? 0 : done.empty() ? 2 : 1, result.status) << result.err;
        for (const std::string &path : all) {
            if (path.find("@eaDir") != std::string::npos) {
                continue;
            }
            if (!kit::exists(path)) {
                EXPECT_EQ(1, done[path]) << path;
            } else {
                EXPECT_TRUE(std::ranges::any_of(failed, [&](const std::string &one) {
                    return isBelow(path, one) || isBelow(one, path);
                })) << path;
                EXPECT_EQ(0, done[path]) << path;
            }
        }
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("summary", field(lines.back(), "event"));
        // The same request again finishes it.
        EXPECT_EQ(0, runTool({"remove", "-rf", "--jobs", "2", tree}).status);
        EXPECT_FALSE(kit::exists(tree));
    }
}

// ---- compare ----

class CompareJobs : public Jobs {
  protected:
    void SetUp() override {
        Jobs::SetUp();
        makeTree(tree);
        ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
    }
    // Differences of many kinds; the paths at the first, or at the second where only that has them.
    Lines plant() const {
        Lines planted;
        for (int number = 0; number < 40; number += 3) {
            const std::string inner = "/d" + std::to_string(number % 7) + "/e" + std::to_string(number);
            kit::writeFile(copy + inner + "/f5", "other");
            kit::writeFile(copy + inner + "/extra", "");
            EXPECT_EQ(0, ::unlink((copy + inner + "/f7").c_str()));
            planted.insert(planted.end(), {tree + inner + "/f5", copy + inner + "/extra", tree + inner + "/f7"});
        }
        for (int number = 0; number < 1500; number += 50) {
            EXPECT_EQ(0, ::chmod((copy + "/flat/g" + std::to_string(number)).c_str(), 0600));
            planted.push_back(tree + "/flat/g" + std::to_string(number));
        }
        kit::writeFile(copy + "/deep/down/down/down/down/down/down/down/down/down/more", "x");
        planted.push_back(copy + "/deep/down/down/down/down/down/down/down/down/down/more");
        return planted;
    }
};

TEST_F(CompareJobs, AnyNumberOfThemFindsNothingWhereNothingIs) {
    std::string expected;
    for (const char *jobs : {"1", "2", "5"}) {
        const ToolResult result = runTool({"compare", "--json", "--jobs", jobs, tree, copy});
        EXPECT_EQ(0, result.status) << result.out << result.err;
        expected = expected.empty() ? result.out : expected;
        EXPECT_EQ(expected, result.out); // the summary, with all that was counted
    }
}

TEST_F(CompareJobs, AnyNumberOfThemFindsTheSame) {
    const Lines planted = plant();
    Lines expected;
    for (const char *jobs : {"1", "2", "5"}) {
        const ToolResult result = runTool({"compare", "--json", "--jobs", jobs, tree, copy});
        EXPECT_EQ(1, result.status) << result.err;
        const Lines lines = sorted(linesOf(result.out));
        expected = expected.empty() ? lines : expected;
        EXPECT_EQ(expected, lines) << jobs << " jobs";
    }
    for (const std::string &path : planted) {
        EXPECT_TRUE(std::ranges::any_of(expected, [&](const std::string &line) {
            return field(line, "source") == path || field(line, "destination") == path;
        })) << path;
    }
}

// Which of the names is told depends on which comes last; how many does not.
TEST_F(CompareJobs, NamesOfOneFileAreKnownToAllOfThem) {
    const std::string other = copy + "/d6/e6/other";
    const std::string content = kit::readFile(other);
    ASSERT_EQ(0, ::unlink(other.c_str()));
    kit::writeFile(other, content);
    for (const char *jobs : {"1", "2", "5"}) {
        const ToolResult result = runTool({"compare", "--only", "hard-link", "--jobs", jobs, tree, copy});
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(1u, linesOf(result.out).size()) << result.out;
    }
}

TEST_F(CompareJobs, SelectionHoldsForAllOfThem) {
    plant();
    Lines expected;
    for (const char *jobs : {"1", "4"}) {
        const ToolResult result =
            runTool({"compare", "--exclude", "f5", "--exclude", "/tree/d3", "--jobs", jobs, tree, copy});
        const Lines lines = sorted(linesOf(result.out));
        expected = expected.empty() ? lines : expected;
        EXPECT_EQ(expected, lines);
        EXPECT_EQ(std::string::npos, result.out.find("/f5"));
        EXPECT_EQ(std::string::npos, result.out.find("/d3/"));
    }
    EXPECT_FALSE(expected.empty());
}

TEST_F(CompareJobs, KilledAtRandomTheyMissNothingWithoutAWord) {
    const Lines planted = plant();
    for (const uint32_t seed : kit::seeds(6, 200)) {
        SCOPED_TRACE(kit::repeat(seed));
        std::mt19937 random(seed);
        RunningTool tool({"compare", "--json", "--jobs", std::to_string(2 + seed % 3), tree, copy}, scratch.path());
        const auto workers = killWorkers(tool, random);
        const ToolResult result = tool.finish();
        EXPECT_TRUE(areGone(workers));
        std::set<std::string> told;
        Lines unread;
        const Lines lines = linesOf(result.out);
        for (const std::string &line : lines) {
            if (field(line, "class") == "unreadable") {
                unread.insert(unread.end(), {field(line, "source"), field(line, "destination")});
            } else {
                told.insert({field(line, "source"), field(line, "destination")});
            }
        }
        for (const std::string &path : planted) {
            EXPECT_TRUE(told.contains(path) ||
                        std::ranges::any_of(unread, [&](const std::string &one) { return isBelow(path, one); }))
                << path;
        }
        EXPECT_EQ(unread.empty() ? 1 : 2, result.status) << result.err;
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("summary", field(lines.back(), "event"));
    }
}

// A stop reaches all of them, and the one above says so.
TEST_F(CompareJobs, CtrlCEndsAllOfThem) {
    std::optional<kit::SlowFile> slow;
    try {
        slow.emplace(int64_t{1} << 30);
    } catch (const kit::Unavailable &reason) {
        GTEST_SKIP() << reason.reason;
    }
    const std::string top = slow->path().substr(0, slow->path().rfind('/'));
    const std::string second = scratch / "second";
    makeDirectory(second);
    kit::writeSparse(second + slow->path().substr(top.size()), off_t{1} << 30, {});
    slow->allow(1 << 20);
    RunningTool tool({"compare", "--json", "--jobs", "3", top, second}, scratch.path());
    ASSERT_TRUE(slow->waitedFor());
    const auto workers = tool.children();
    EXPECT_EQ(3u, workers.size());
    ::kill(-tool.pid(), SIGINT); // as a terminal does
    // The block that is being read, and a few more for as long as nobody has heard of the stop: a machine may be busy.
    for (int64_t more = 64 << 20; !tool.isOver(); more += 1 << 20) {
        slow->allow(more);
        ::usleep(50'000);
    }
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status) << result.err;
    EXPECT_NE(std::string::npos, result.out.find("\"cancelled\":true")) << result.out;
    EXPECT_TRUE(areGone(workers));
}

// The second stop ends the tool at once, and nobody outlives it.
TEST_F(CompareJobs, KilledItLeavesNobodyBehind) {
    RunningTool tool({"compare", "--json", "--jobs", "3", tree, copy}, scratch.path());
    std::vector<pid_t> workers;
    while (workers.size() < 3 && !tool.isOver()) {
        workers = tool.children();
    }
    ::kill(tool.pid(), SIGKILL);
    tool.finish();
    EXPECT_TRUE(areGone(workers));
}

// ---- copy, move, mirror ----

// Which of the names of a file is made first, and which become links to it, depends on the order.
bool isOneOfSeveral(const std::string &line) {
    return std::ranges::any_of(std::initializer_list<const char *>{"/d0/e0/f1\"", "/d6/e6/other\"", "/d3/e3/third\""},
                               [&](const char *name) { return kit::mentions(line, name); });
}

// What was told, in any order.
Lines toldBy(const ToolResult &result) {
    Lines told = sorted(linesOf(result.out));
    std::erase_if(told, isOneOfSeveral);
    const Lines errors = sorted(linesOf(result.err));
    told.insert(told.end(), errors.begin(), errors.end());
    told.push_back("status " + std::to_string(result.status));
    return told;
}

// Every entry below with what it is, and how many names it has. Stores are made anew, at any time.
Lines stateOf(const std::string &top) {
    Lines state;
    for (const std::string &path : pathsBelow(top)) {
        const struct stat found = kit::statOf(path);
        const bool file = S_ISREG(found.st_mode);
        state.push_back(
            path.substr(top.size()) + " " + std::to_string(found.st_mode) + " " +
            std::to_string(S_ISDIR(found.st_mode) ? 0 : found.st_nlink) + " " +
            std::to_string(S_ISLNK(found.st_mode) || kit::mentions(path, "@eaDir") ? 0 : found.st_mtim.tv_sec) + " " +
            (file ? kit::readFile(path) : std::string()));
    }
    return sorted(state);
}

// What only one of the two has.
Lines differences(const Lines &one, const Lines &other) {
    Lines found;
    std::ranges::set_symmetric_difference(sorted(one), sorted(other), std::back_inserter(found));
    return found;
}

bool hasLeftOvers(const std::string &top) {
    return std::ranges::any_of(pathsBelow(top), [](const std::string &path) {
        return path.substr(path.rfind('/') + 1).starts_with(".vexofileop-");
    });
}

// Times that no test run has.
void setTimes(const std::string &top) {
    const timespec times[] = {{1'000, 0}, {2'000, 0}};
    for (const std::string &path : pathsBelow(top)) {
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
    }
}

class CopyJobs : public Jobs {
  protected:
    // A destination that has some of it already: the same, older, others, and what is in the way.
    void makeOld() const {
        ASSERT_EQ(0, runTool({"copy", "-r", "-T", "--no-hard-links", "--accept", "hard-link", tree, copy}).status);
        for (int number = 0; number < 20; number += 3) {
            const std::string inner = copy + "/d" + std::to_string(number % 7) + "/e" + std::to_string(number);
            kit::writeFile(inner + "/f5", "older");
            kit::writeFile(inner + "/extra", "");
            ASSERT_EQ(0, ::unlink((inner + "/f7").c_str()));
            ASSERT_EQ(0, ::unlink((inner + "/link").c_str()));
        }
        for (int number = 0; number < 100; number += 5) {
            kit::writeFile(copy + "/flat/g" + std::to_string(number), "older still");
        }
        ASSERT_EQ(0, ::unlink((copy + "/d4/e4/f2").c_str()));
        makeDirectory(copy + "/d4/e4/f2");
        setTimes(copy);
    }
};

struct Way {
    const char *name;
    kit::Arguments options;
};

class CopyWays : public CopyJobs, public testing::WithParamInterface<Way> {};

TEST_P(CopyWays, AnyNumberOfProcessesLeavesAndSaysTheSame) {
    makeTree(tree, 20, 100);
    setTimes(tree);
    for (const bool old : {false, true}) {
        Lines told, state;
        for (const char *jobs : {"1", "4"}) {
            if (old) {
                makeOld();
            }
            kit::Arguments arguments{"copy", "-r", "--json", "--specials", "-T", "--jobs", jobs};
            arguments.insert(arguments.end(), GetParam().options.begin(), GetParam().options.end());
            arguments.insert(arguments.end(), {tree, copy});
            const ToolResult result = runTool(arguments);
            const Lines nowTold = toldBy(result), nowThere = stateOf(copy);
            told = told.empty() ? nowTold : told;
            state = state.empty() ? nowThere : state;
            EXPECT_EQ(Lines(), differences(told, nowTold)) << jobs << " jobs";
            EXPECT_EQ(Lines(), differences(state, nowThere)) << jobs << " jobs";
            EXPECT_FALSE(hasLeftOvers(copy));
            ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
        }
        EXPECT_LT(350u, state.size());
    }
}

INSTANTIATE_TEST_SUITE_P(Each, CopyWays,
                         testing::Values(Way{"fail", {}}, Way{"force", {"-f"}}, Way{"skip", {"-n"}},
                                         Way{"update", {"-u"}}, Way{"keepBoth", {"--keep-both"}},
                                         Way{"verify", {"-f", "--verify"}}, Way{"sync", {"-u", "--sync"}},
                                         Way{"noHardLinks", {"-u", "--no-hard-links", "--accept", "hard-link"}},
                                         Way{"filters", {"-u", "--exclude", "f3", "--exclude", "/tree/d5"}},
                                         Way{"backup", {"-f", "--backup"}}),
                         [](const auto &one) { return one.param.name; });

// The summary, the receipt and what a whole directory copies are the same where nothing is said of each entry.
TEST_F(CopyJobs, CountsAreThoseOfOneProcess) {
    makeTree(tree);
    std::string expected;
    for (const char *jobs : {"1", "2", "5"}) {
        const ToolResult result = runTool({"copy", "-r", "-T", "--jobs", jobs, tree, copy});
        EXPECT_EQ(0, result.status) << result.err;
        expected = expected.empty() ? result.out + result.err : expected;
        EXPECT_EQ(expected, result.out + result.err) << jobs << " jobs";
        EXPECT_EQ(0, runTool({"compare", tree, copy}).status) << jobs << " jobs";
        ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
    }
}

// Whoever comes to a name first makes the file, and everybody else a link to it.
TEST_F(CopyJobs, NamesOfOneFileStayOneFile) {
    makeTree(tree, 40, 300);
    for (int number = 0; number < 40; ++number) {
        const std::string inner = tree + "/d" + std::to_string(number % 7) + "/e" + std::to_string(number);
        ASSERT_EQ(0, ::link((tree + "/flat/g0").c_str(), (inner + "/zero").c_str()));
        ASSERT_EQ(0, ::link((tree + "/flat/g" + std::to_string(number + 1)).c_str(), (inner + "/more").c_str()));
    }
    for (const char *jobs : {"2", "4"}) {
        const ToolResult result = runTool({"copy", "-r", "-T", "--jobs", jobs, tree, copy});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ(41u, kit::statOf(copy + "/flat/g0").st_nlink);
        for (int number = 1; number <= 40; ++number) {
            EXPECT_EQ(2u, kit::statOf(copy + "/flat/g" + std::to_string(number)).st_nlink) << number;
        }
        EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
        ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
    }
}

// What one source has brought to a directory no other one replaces, whoever has carried it.
TEST_F(CopyJobs, WhatWasJustWrittenStays) {
    const std::string other = scratch / "other";
    makeTree(tree, 20, 100);
    makeTree(other, 20, 100);
    kit::writeFile(other + "/flat/g7", "of the other");
    Lines told;
    for (const char *jobs : {"1", "4"}) {
        makeDirectory(copy);
        const ToolResult result = runTool({"copy", "-rf", "--json", "--jobs", jobs, tree + "/.", other + "/.", copy});
        EXPECT_EQ(1, result.status);
        EXPECT_EQ("7", kit::readFile(copy + "/flat/g7"));
        const Lines now = toldBy(result);
        told = told.empty() ? now : told;
        EXPECT_EQ(Lines(), differences(told, now)) << jobs << " jobs";
        ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
    }
}

TEST_F(CopyJobs, ErrorsEndAllOfThem) {
    makeTree(tree, 40, 3'000);
    ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
    // Everything is there already, and each of the processes meets one at most.
    for (const kit::Arguments &option : {kit::Arguments{"--stop-on-error"}, kit::Arguments{"--max-errors", "1"}}) {
        kit::Arguments arguments{"copy", "-r", "--json", "-T", "--jobs", "4"};
        arguments.insert(arguments.end(), option.begin(), option.end());
        arguments.insert(arguments.end(), {tree, copy});
        const ToolResult result = runTool(arguments);
        EXPECT_NE(0, result.status);
        const auto failed = std::ranges::count_if(
            linesOf(result.out), [](const std::string &line) { return field(line, "status") == "failed"; });
        EXPECT_LE(1, failed);
        EXPECT_GE(5, failed);
    }
}

// In the middle, for as long as the test takes to say so.
TEST_F(CopyJobs, CtrlCEndsAllOfThem) {
    makeTree(tree, 60, 4'000);
    RunningTool tool({"copy", "-r", "--json", "-T", "--jobs", "3", tree, copy}, scratch.path());
    std::vector<pid_t> workers;
    while (workers.size() < 3 && !tool.isOver()) {
        workers = tool.children();
    }
    ASSERT_EQ(3u, workers.size());
    for (const pid_t worker : workers) {
        ::kill(worker, SIGSTOP);
    }
    ::kill(-tool.pid(), SIGINT);
    for (const pid_t worker : workers) {
        ::kill(worker, SIGCONT);
    }
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status) << result.err;
    EXPECT_NE(std::string::npos, result.out.find("\"cancelled\":true")) << result.out;
    EXPECT_TRUE(areGone(workers));
    EXPECT_FALSE(kit::exists(copy) && hasLeftOvers(copy));
    EXPECT_EQ(0, runTool({"copy", "-ru", "-T", "--jobs", "2", tree, copy}).status);
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
}

// Ctrl-Z reaches all of them by itself; this is for who stops the one process that the shell knows.
TEST_F(CopyJobs, PausedAloneItPausesAllOfThem) {
    makeTree(tree, 60, 4'000);
    RunningTool tool({"copy", "-r", "-T", "--jobs", "3", tree, copy}, scratch.path());
    std::vector<pid_t> all;
    while (all.size() < 3 && !tool.isOver()) {
        all = tool.children();
    }
    ASSERT_EQ(3u, all.size());
    all.push_back(tool.pid());
    for (int time = 0; time < 2; ++time) {
        ::kill(tool.pid(), SIGTSTP);
        EXPECT_TRUE(areStopped(all));
        ::kill(tool.pid(), SIGCONT);
    }
    EXPECT_EQ(0, tool.finish().status);
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
}

TEST_F(CopyJobs, KilledItLeavesNobodyBehind) {
    makeTree(tree, 60, 4'000);
    RunningTool tool({"copy", "-r", "-T", "--jobs", "3", tree, copy}, scratch.path());
    std::vector<pid_t> workers;
    while (workers.size() < 3 && !tool.isOver()) {
        workers = tool.children();
    }
    ::kill(tool.pid(), SIGKILL);
    tool.finish();
    EXPECT_TRUE(areGone(workers));
    const bool forgotten = areForgotten(workers); // else they may be at work, as far as anybody can tell
    EXPECT_EQ(0, runTool({"copy", "-ru", "-T", "--jobs", "2", tree, copy}).status);
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
    EXPECT_FALSE(forgotten && hasLeftOvers(copy));
}

// The sources that have failed, by what is said of each.
Lines failedSources(const ToolResult &result) {
    const std::string begin = "vexofileop: ";
    Lines failed;
    for (const std::string &line : linesOf(result.err)) {
        const size_t end = line.find(" -> ");
        if (line.starts_with(begin) && end != std::string::npos) {
            failed.push_back(line.substr(begin.size(), end - begin.size()));
        }
    }
    return failed;
}

TEST_F(CopyJobs, KilledAtRandomTheyMissNothingWithoutAWord) {
    makeTree(tree, 60, 400);
    const Lines all = pathsBelow(tree);
    for (const uint32_t seed : kit::seeds(8, 200)) {
        SCOPED_TRACE(kit::repeat(seed));
        std::mt19937 random(seed);
        // Without a word of each entry whole directories go by one call.
        const char *const said = seed % 2 == 0 ? "-q" : "--json";
        RunningTool tool({"copy", "-r", said, "-T", "--jobs", std::to_string(2 + seed % 3), tree, copy},
                         scratch.path());
        const auto workers = killWorkers(tool, random);
        const ToolResult result = tool.finish();
        EXPECT_TRUE(areGone(workers));
        const Lines failed = failedSources(result);
        EXPECT_TRUE(result.status == 0 || result.status == 1 || (result.status == 2 && !failed.empty())) << result.err;
        EXPECT_EQ(failed.empty(), result.status == 0) << result.out << result.err;
        for (const std::string &path : all) {
            if (path.find("@eaDir") == std::string::npos && !kit::exists(copy + path.substr(tree.size()))) {
                EXPECT_TRUE(std::ranges::any_of(failed, [&](const std::string &one) { return isBelow(path, one); }))
                    << path;
            }
        }
        EXPECT_EQ(0, runTool({"copy", "-ru", "-T", "--jobs", "2", tree, copy}).status);
        EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
        EXPECT_FALSE(hasLeftOvers(copy));
        ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
    }
}

class MoveJobs : public CopyJobs {};

TEST_F(MoveJobs, AcrossVolumesAnyNumberOfThemLeavesAndSaysTheSame) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    Lines told, state;
    for (const char *jobs : {"1", "4"}) {
        makeTree(tree, 20, 100);
        setTimes(tree);
        const std::string to = volume.path() + "/to";
        const ToolResult result = runTool({"move", "--json", "--jobs", jobs, tree, to});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_FALSE(kit::exists(tree));
        const Lines now = toldBy(result), there = stateOf(to);
        told = told.empty() ? now : told;
        state = state.empty() ? there : state;
        EXPECT_EQ(Lines(), differences(told, now)) << jobs << " jobs";
        EXPECT_EQ(Lines(), differences(state, there)) << jobs << " jobs";
        ASSERT_EQ(0, runTool({"remove", "-rf", to}).status);
    }
    EXPECT_LT(350u, state.size());
}

// A source goes once it has arrived; what stays is told, and the same command again brings it.
TEST_F(MoveJobs, KilledAtRandomTheyLoseNothing) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const std::string to = volume.path() + "/to";
    for (const uint32_t seed : kit::seeds(4, 200)) {
        SCOPED_TRACE(kit::repeat(seed));
        std::mt19937 random(seed);
        makeTree(tree, 60, 400);
        setTimes(tree);
        ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
        RunningTool tool({"move", "--json", "--jobs", std::to_string(2 + seed % 3), tree, to}, scratch.path());
        const auto workers = killWorkers(tool, random);
        const ToolResult result = tool.finish();
        EXPECT_TRUE(areGone(workers));
        EXPECT_EQ(kit::exists(tree), result.status != 0) << result.out << result.err;
        for (const std::string &path : pathsBelow(copy)) {
            const std::string below = path.substr(copy.size());
            if (below.find("@eaDir") == std::string::npos && !kit::exists(tree + below)) {
                EXPECT_TRUE(kit::exists(to + below)) << below;
            }
        }
        if (kit::exists(tree)) {
            EXPECT_EQ(0, runTool({"move", "-u", "-T", "--jobs", "2", tree, to}).status);
        }
        EXPECT_FALSE(kit::exists(tree));
        EXPECT_EQ(0, runTool({"compare", "--ignore", "hard-link", copy, to}).status);
        EXPECT_FALSE(hasLeftOvers(to));
        ASSERT_EQ(0, runTool({"remove", "-rf", to, copy}).status);
    }
}

// ---- all of them killed, and the same again ----

// Kills the command with everybody who works for it once it has said so much, unless it is at its end by then.
void killAll(kit::Arguments arguments, const std::string &directory, int64_t point) {
    arguments.insert(arguments.begin() + 1, {"--json", "--jobs", "3"});
    RunningTool tool(arguments, directory);
    std::vector<pid_t> workers;
    while (!tool.isOver() && tool.saidBytes() < point) {
    }
    if (tool.isOver()) {
        return;
    }
    ::kill(-tool.pid(), SIGSTOP);
    workers = tool.children();
    ::kill(-tool.pid(), SIGKILL);
    while (!tool.isOver()) {
        ::usleep(1'000);
    }
    EXPECT_TRUE(areGone(workers) && areForgotten(workers)); // else they may be at work, as far as anybody can tell
}

// What an undisturbed run says is as much as one that is killed might have said.
std::vector<int64_t> pointsOf(const ToolResult &undisturbed) {
    const uint32_t count = static_cast<uint32_t>(kit::seeds(3, 60).size());
    const auto size = static_cast<int64_t>(undisturbed.out.size());
    std::vector<int64_t> points{0, 1};
    for (uint32_t point = 1; point < count; ++point) {
        points.push_back(size * point / count);
    }
    return points;
}

TEST_F(CopyJobs, AllOfThemKilledTheSecondRunFinishesTheWork) {
    makeTree(tree, 40, 400);
    setTimes(tree);
    const ToolResult undisturbed = runTool({"copy", "-r", "-T", "--json", tree, copy});
    ASSERT_EQ(0, undisturbed.status);
    const Lines expected = stateOf(copy);
    for (const int64_t point : pointsOf(undisturbed)) {
        SCOPED_TRACE(point);
        ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
        killAll({"copy", "-ru", "-T", tree, copy}, scratch.path(), point);
        killAll({"copy", "-ru", "-T", tree, copy}, scratch.path(), point / 2);
        const ToolResult second = runTool({"copy", "-ru", "-T", "--jobs", "3", tree, copy});
        EXPECT_EQ(0, second.status) << second.err;
        EXPECT_EQ(Lines(), differences(expected, stateOf(copy)));
    }
}

TEST_F(MoveJobs, AllOfThemKilledTheSecondRunFinishesTheWork) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const std::string to = volume.path() + "/to";
    const auto makeSource = [&] {
        makeTree(tree, 40, 400);
        setTimes(tree);
    };
    makeSource();
    const ToolResult undisturbed = runTool({"move", "-T", "--json", tree, to});
    ASSERT_EQ(0, undisturbed.status);
    const Lines expected = stateOf(to);
    for (const int64_t point : pointsOf(undisturbed)) {
        SCOPED_TRACE(point);
        ASSERT_EQ(0, runTool({"remove", "-rf", to}).status);
        makeSource();
        killAll({"move", "-u", "-T", tree, to}, scratch.path(), point);
        if (kit::exists(tree)) {
            killAll({"move", "-u", "-T", tree, to}, scratch.path(), point / 2);
        }
        if (kit::exists(tree)) {
            const ToolResult second = runTool({"move", "-u", "-T", "--jobs", "3", tree, to});
            EXPECT_EQ(0, second.status) << second.err;
        }
        EXPECT_FALSE(kit::exists(tree));
        EXPECT_EQ(Lines(), differences(expected, stateOf(to)));
    }
}

TEST_F(RemoveJobs, AllOfThemKilledTheSecondRunFinishesTheWork) {
    makeTree(tree, 40, 400);
    const ToolResult undisturbed = runTool({"remove", "-r", "--json", tree});
    for (const int64_t point : pointsOf(undisturbed)) {
        SCOPED_TRACE(point);
        makeTree(tree, 40, 400);
        killAll({"remove", "-r", tree}, scratch.path(), point);
        killAll({"remove", "-rf", tree}, scratch.path(), point / 2);
        const ToolResult second = runTool({"remove", "-rf", "--jobs", "3", tree});
        EXPECT_EQ(0, second.status) << second.err;
        EXPECT_FALSE(kit::exists(tree));
        Lines left = kit::namesIn(scratch.path());
        std::erase_if(left, [](const std::string &name) { return name == "out" || name == "err"; }); // of the tool
        EXPECT_EQ(Lines(), left);
    }
}

// ---- as many as are usual ----

// Nobody has asked for several: what is said and done is what one does.
TEST_F(MoveJobs, UsualNumberOfThemLeavesAndSaysWhatOneDoes) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const std::string to = volume.path() + "/to";
    makeTree(tree, 20, 300);
    setTimes(tree);
    for (const kit::Arguments &command :
         {kit::Arguments{"copy", "-r", "-T"}, kit::Arguments{"mirror", "-f"}, kit::Arguments{"move", "-T"}}) {
        SCOPED_TRACE(command.front());
        Lines told, state;
        for (const bool alone : {true, false}) {
            if (!kit::exists(tree)) {
                makeTree(tree, 20, 300);
                setTimes(tree);
            }
            kit::Arguments arguments = command;
            arguments.push_back("--json");
            if (alone) {
                arguments.insert(arguments.end(), {"--jobs", "1"});
            }
            arguments.insert(arguments.end(), {tree, to});
            const ToolResult result = runTool(arguments);
            EXPECT_EQ(0, result.status) << result.err;
            const Lines now = toldBy(result), there = stateOf(to);
            told = told.empty() ? now : told;
            state = state.empty() ? there : state;
            EXPECT_EQ(Lines(), differences(told, now));
            EXPECT_EQ(Lines(), differences(state, there));
            ASSERT_EQ(0, runTool({"remove", "-rf", to}).status);
        }
        EXPECT_LT(550u, state.size());
    }
}

// As many as there are processors; of a few files nobody but the command itself.
TEST_F(MoveJobs, UsualNumberIsThatOfProcessorsWhereThereIsMuchToDo) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 20)); // no disk that might turn
    cpu_set_t set;
    ASSERT_EQ(0, ::sched_getaffinity(0, sizeof set, &set));
    const auto usual = static_cast<size_t>(std::min(CPU_COUNT(&set), 8));
    const std::string many = volume.path() + "/many", few = volume.path() + "/few";
    makeTree(many, 60, 6'000);
    makeTree(few, 7, 20);
    const std::string to = volume.path() + "/to";
    const auto mostAtOnce = [&](kit::Arguments arguments) {
        RunningTool tool(std::move(arguments), scratch.path());
        size_t most = 0;
        while (!tool.isOver()) {
            most = std::max(most, tool.children().size());
        }
        EXPECT_EQ(0, tool.finish().status);
        return most;
    };
    EXPECT_EQ(usual > 1 ? usual : 0, mostAtOnce({"copy", "-r", "-T", many, to}));
    EXPECT_EQ(usual > 1 ? usual : 0, mostAtOnce({"remove", "-r", to}));
    EXPECT_EQ(0u, mostAtOnce({"copy", "-r", "-T", "--jobs", "1", many, to}));
    ASSERT_EQ(0, runTool({"remove", "-r", to}).status);
    EXPECT_EQ(0u, mostAtOnce({"copy", "-r", "-T", few, to}));
    EXPECT_EQ(0u, mostAtOnce({"remove", "-r", to}));
}

TEST_F(CopyJobs, MirrorsOfAnyNumberOfThemAreTheSame) {
    makeTree(tree, 20, 100);
    setTimes(tree);
    Lines told, state;
    for (const char *jobs : {"1", "4"}) {
        makeOld();
        const ToolResult result = runTool({"mirror", "-f", "--json", "--jobs", jobs, tree, copy});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
        const Lines now = toldBy(result), there = stateOf(copy);
        told = told.empty() ? now : told;
        state = state.empty() ? there : state;
        EXPECT_EQ(Lines(), differences(told, now)) << jobs << " jobs";
        EXPECT_EQ(Lines(), differences(state, there)) << jobs << " jobs";
        ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
    }
}

} // namespace
} // namespace jobs_tests
