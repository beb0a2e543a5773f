// The tool as root in a tree whose owner puts something else in the place of directories, files, names and stores all
// the time: nothing outside of what was named is read into a copy, changed or removed, and no command waits for what
// stands there. Each kind of stranger for a second; with VEXO_FULL in the environment for a minute.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using kit::runTool;
using kit::ToolResult;

enum class Exchange { directory_and_link, file_and_link, file_and_pipe, names, stores };

constexpr char kSecret[] = "what lies outside";
const std::vector<std::string> kDirectories = {"a", "b", "c"}, kFiles = {"one", "two", "three"};

// Two volumes, each with a directory that is worked on, one that is none of it, and a place for what takes turns with
// entries of the first.
class Strangers {
  public:
    Strangers(std::string source, std::string destination) : m_volumes{std::move(source), std::move(destination)} {
        for (const std::string &volume : m_volumes) {
            std::filesystem::create_directories(volume + "/outside/@eaDir");
            std::filesystem::create_directories(volume + "/turns");
            for (const std::string &file : kFiles) {
                kit::writeFile(volume + "/outside/" + file, kSecret);
                kit::writeFile(volume + "/outside/@eaDir/" + file + "@VexoEAStream",
                               stream::bytes({{"user.secret", kSecret}}));
            }
            link("outside", volume + "/turns/directory");
            link("outside/one", volume + "/turns/file");
            link("outside/@eaDir", volume + "/turns/stores");
            link("outside/@eaDir/one@VexoEAStream", volume + "/turns/store");
            EXPECT_EQ(0, ::mkfifo((volume + "/turns/pipe").c_str(), 0666));
            tree(volume + "/tree");
        }
        m_before = outside();
    }

    std::string source() const { return m_volumes[0] + "/tree"; }
    std::string destination() const { return m_volumes[1] + "/tree"; }
    std::string in_destination(const std::string &name) const { return m_volumes[1] + "/" + name; }

    // In a process of its own, until it is killed.
    pid_t exchange_all_the_time(Exchange what) const {
        const pid_t child = ::fork();
        if (child != 0) {
            return child;
        }
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (unsigned turn = 0;; ++turn) {
            for (const std::string &volume : m_volumes) {
                exchange(volume, what, turn);
            }
        }
    }

    // Of what must not be touched, and of what must not be anywhere else.
    std::string wrong() const {
        std::string text;
        for (size_t at = 0; at < m_volumes.size(); ++at) {
            const std::string changed = m_before[at].differenceTo(outside()[at], {"accessed"});
            text +=
                changed.empty() ? "" : (at == 0 ? "outside of the source: " : "outside of the destination: ") + changed;
            for (const std::string &name : kit::namesIn(m_volumes[at])) {
                text += name == "outside" || name == "turns" ? "" : leaked(m_volumes[at] + "/" + name);
            }
        }
        return text;
    }

  private:
    static void link(const std::string &to, const std::string &path) {
        EXPECT_EQ(0, ::symlink((std::filesystem::path(path).parent_path().parent_path().string() + "/" + to).c_str(),
                               path.c_str()));
    }
    static void tree(const std::string &top) {
        for (const std::string &directory : kDirectories) {
            const std::string path = top + "/" + directory;
            std::filesystem::create_directories(path + "/@eaDir");
            for (const std::string &file : kFiles) {
                kit::writeFile(path + "/" + file, directory + file);
                kit::writeFile(path + "/@eaDir/" + file + "@VexoEAStream",
                               stream::bytes({{"user.note", directory + file}}));
            }
        }
        // What is root's own, and nobody else's to write, is trusted not to change.
        constexpr uid_t stranger = 12345;
        EXPECT_EQ(0, ::chown(top.c_str(), stranger, stranger));
        for (const auto &entry : std::filesystem::recursive_directory_iterator(top)) {
            EXPECT_EQ(0, ::chown(entry.path().c_str(), stranger, stranger));
        }
    }
    std::vector<kit::Fingerprint> outside() const {
        std::vector<kit::Fingerprint> all;
        for (const std::string &volume : m_volumes) {
            all.push_back(kit::Fingerprint::of(volume + "/outside"));
        }
        return all;
    }
    static void swap(const std::string &one, const std::string &other) {
        (void)::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
    }
    static void exchange(const std::string &volume, Exchange what, unsigned turn) {
        const std::string turns = volume + "/turns/", &file = kFiles[turn % kFiles.size()];
        const std::string directory = volume + "/tree/" + kDirectories[turn / kFiles.size() % kDirectories.size()];
        const std::string other = volume + "/tree/" + kDirectories[turn / 2 % kDirectories.size()] + "/" + file;
        for (int both = 0; both < 2; ++both) { // there, and back again
            switch (what) {
            case Exchange::directory_and_link:
                swap(directory, turns + "directory");
                break;
            case Exchange::file_and_link:
                swap(directory + "/" + file, turns + "file");
                break;
            case Exchange::file_and_pipe:
                swap(directory + "/" + file, turns + "pipe");
                break;
            case Exchange::names:
                swap(directory + "/" + file, other);
                swap(directory, volume + "/tree/" + kDirectories[turn % 2]);
                break;
            case Exchange::stores:
                if (turn % 2 == 0) { // one of the two at a time, or the second would lead outside
                    swap(directory + "/@eaDir", turns + "stores");
                } else {
                    swap(directory + "/@eaDir/" + file + "@VexoEAStream", turns + (turn % 4 == 1 ? "store" : "pipe"));
                }
                break;
            }
        }
    }
    // A link is copied as one; it is what it leads to that is not.
    static std::string leaked(const std::string &path) {
        const struct stat found = kit::statOf(path);
        std::string text;
        if (S_ISREG(found.st_mode) && kit::readFile(path).find(kSecret) != std::string::npos) {
            text += path + " has what lies outside\n";
        }
        if (S_ISDIR(found.st_mode)) {
            for (const std::string &name : kit::namesIn(path)) {
                text += leaked(path + "/" + name);
            }
        }
        return text;
    }

    std::vector<std::string> m_volumes;
    std::vector<kit::Fingerprint> m_before;
};

struct Command {
    const char *name;
    std::vector<kit::Arguments> (*all)(const Strangers &);
};

const Command kCommands[] = {
    {"copy",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"copy", "-rf", at.source(), at.in_destination("new")},
                                            {"copy", "-rf", at.source() + "/.", at.destination()}};
     }},
    {"move",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"move", "-f", at.source() + "/a", at.in_destination("moved")},
                                            {"move", "-f", at.source() + "/b", at.source() + "/c", at.destination()}};
     }},
    {"remove",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"remove", "-rf", at.source() + "/b", at.destination() + "/c"}};
     }},
    {"mirror",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"mirror", "-f", at.source(), at.destination()}};
     }},
    {"relocate",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"relocate", at.source(), at.in_destination("relocated")}};
     }},
    {"check",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"store", "check", "-r", at.source()}};
     }},
    {"repair",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{
             {"store", "repair", "-r", "--quarantine", at.in_destination("kept"), at.source()}};
     }},
    {"convert",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"store", "convert", "-r", "--to", "double", at.source()},
                                            {"store", "convert", "-r", "--to", "native", at.destination()}};
     }},
    {"backup",
     [](const Strangers &at) {
         return std::vector<kit::Arguments>{{"backup", "run", "--full", at.source(), at.destination()}};
     }},
};

class InATreeOf : public ::testing::TestWithParam<std::pair<const char *, Exchange>> {};
INSTANTIATE_TEST_SUITE_P(Strangers, InATreeOf,
                         ::testing::Values(std::pair("DirectoriesAndLinks", Exchange::directory_and_link),
                                           std::pair("FilesAndLinks", Exchange::file_and_link),
                                           std::pair("FilesAndPipes", Exchange::file_and_pipe),
                                           std::pair("Names", Exchange::names), std::pair("Stores", Exchange::stores)),
                         [](const auto &each) { return std::string(each.param.first); });

TEST_P(InATreeOf, NothingLeadsOutsideAndNobodyWaits) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(first, kit::Volume::tmpfs(64 << 20));
    KIT_REQUIRE(second, kit::Volume::tmpfs(64 << 20));
    const auto wanted = std::chrono::seconds(std::getenv("VEXO_FULL") != nullptr ? 60 : 1);
    const auto start = std::chrono::steady_clock::now();
    size_t runs = 0;
    do {
        for (const Command &command : kCommands) {
            const std::string name = "round" + std::to_string(runs++);
            for (const std::string &volume : {first.path(), second.path()}) {
                std::filesystem::remove_all(volume + "/" + name);
                ASSERT_EQ(0, ::mkdir((volume + "/" + name).c_str(), 0755));
            }
            const Strangers strangers(first / name, second / name);
            const std::string types = first.path() + "=1:" + second.path() + "=1";
            ::setenv("VEXOFILEOP_FSTYPES", types.c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
            const pid_t racer = strangers.exchange_all_the_time(GetParam().second);
            ASSERT_LT(0, racer);
            std::string said;
            for (const kit::Arguments &arguments : command.all(strangers)) {
                const ToolResult result = runTool(arguments);
                EXPECT_FALSE(result.killed) << command.name << "\n" << result.err;
                said += result.err;
            }
            ::kill(racer, SIGKILL);
            ::waitpid(racer, nullptr, 0);
            EXPECT_EQ("", strangers.wrong()) << command.name << " " << runs << "\n" << said;
            for (const std::string &volume : {first.path(), second.path()}) {
                std::filesystem::remove_all(volume + "/" + name);
            }
        }
    } while (std::chrono::steady_clock::now() - start < wanted && !HasFailure());
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe): one thread
    std::cout << runs << " runs\n";
}

} // namespace
