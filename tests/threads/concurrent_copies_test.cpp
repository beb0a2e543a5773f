// Copies that run at the same time in one process, for the thread sanitizer.
//
// What callers must serialise is serialised here. VEXOFileCopy_r clears the umask and puts back the one it found, so
// that overlapping calls may put back a cleared one: the umask is 0 all the while, which makes that no change. The
// effective user becomes root while an "@eaDir" is made: the test's user does not change by it where it is root, and
// the directories of the destinations have theirs beforehand.
#include "copy/copy.h"
#include "ea/ea.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 25;

class ConcurrentCopies : public ::testing::Test {
  protected:
    void SetUp() override {
        const char *base = std::getenv("TMPDIR");
        directory = std::string(base == nullptr ? "/tmp" : base) + "/vexofileop-threads-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(directory.data()));
        m_mask = ::umask(0);
        for (const char *name : {"from", "to"}) {
            std::filesystem::create_directories(directory + "/" + name + "/@eaDir");
        }
        ::setenv("VEXOFILEOP_FSTYPES", (directory + "=1").c_str(), 1);
    }
    void TearDown() override {
        EXPECT_EQ(0U, ::umask(m_mask));
        ::unsetenv("VEXOFILEOP_FSTYPES");
        std::filesystem::remove_all(directory);
    }

    static std::string contentOf(int number) { return std::string(30000 + static_cast<size_t>(number), 'a'); }
    std::string source(int number) const { return directory + "/from/" + std::to_string(number); }
    std::string target(int number, int round) const {
        return directory + "/to/" + std::to_string(number) + "." + std::to_string(round);
    }
    static void write(const std::string &path, const std::string &content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string read(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static VEXOCopyOptR options() {
        VEXOCopyOptR opt{};
        opt.ownerMode = 1;
        opt.copyAcl = 1;
        return opt;
    }
    static void inThreads(const std::function<void(int)> &body) {
        std::vector<std::thread> threads;
        for (int number = 0; number < kThreads; ++number) {
            threads.emplace_back(body, number);
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
    }

    std::string directory;

  private:
    mode_t m_mask = 0;
};

// What the callbacks of one copy count; each thread has its own.
struct Seen {
    int64_t bytes = 0;
    uint32_t reported = 0;
};
VEXOCopyTHRArgs callbacks(Seen &seen) {
    VEXOCopyTHRArgs thr{};
    thr.progress = [](void *data, int64_t bytes, int64_t) { static_cast<Seen *>(data)->bytes += bytes; };
    thr.progressArg = &seen;
    thr.errReport = [](void *data, const char *, uint32_t code) { static_cast<Seen *>(data)->reported = code; };
    thr.errReportArg = &seen;
    return thr;
}

TEST_F(ConcurrentCopies, EachThreadsCopiesAreItsOwn) {
    for (int number = 0; number < kThreads; ++number) {
        write(source(number), contentOf(number));
        write(directory + "/from/@eaDir/" + std::to_string(number) + "@VexoResource", "fork");
    }
    inThreads([&](int number) {
        for (int round = 0; round < kRounds; ++round) {
            Seen seen;
            VEXOCopyTHRArgs thr = callbacks(seen);
            VEXOCopyOptR opt = options();
            EXPECT_EQ(0, VEXOFileCopy_r(source(number).c_str(), target(number, round).c_str(), &opt, &thr));
            EXPECT_EQ(static_cast<int64_t>(contentOf(number).size()), seen.bytes);
            EXPECT_EQ(0U, seen.reported);
        }
    });
    for (int number = 0; number < kThreads; ++number) {
        EXPECT_EQ(contentOf(number), read(source(number)));
        for (int round = 0; round < kRounds; ++round) {
            EXPECT_TRUE(contentOf(number) == read(target(number, round))) << number << " " << round;
            EXPECT_EQ("fork", read(directory + "/to/@eaDir/" + std::to_string(number) + "." + std::to_string(round) +
                                   "@VexoResource"));
        }
    }
}

TEST_F(ConcurrentCopies, LastErrorAndReportAreTheThreadsOwn) {
    write(source(0), contentOf(0));
    inThreads([&](int number) {
        for (int round = 0; round < kRounds; ++round) {
            Seen seen;
            VEXOCopyTHRArgs thr = callbacks(seen);
            VEXOCopyOptR opt = options();
            opt.overwrite = -1;
            // Odd threads have no directory to copy into, even ones a file that is there.
            const std::string there = target(number, round);
            const uint32_t code = number % 2 == 1 ? 0x0600 : 0xA300;
            if (code == 0xA300) {
                write(there, "there");
            }
            const std::string to = code == 0xA300 ? there : directory + "/none/x";
            EXPECT_EQ(-1, VEXOFileCopy_r(source(0).c_str(), to.c_str(), &opt, &thr));
            EXPECT_EQ(code, VLIBCErrGet());
            EXPECT_EQ(code, seen.reported);
        }
    });
    EXPECT_EQ(contentOf(0), read(source(0)));
}

TEST_F(ConcurrentCopies, OfAllThatMakeOneFileOneDoes) {
    write(source(0), contentOf(0));
    std::array<std::atomic<int>, kRounds> made{};
    inThreads([&](int) {
        for (int round = 0; round < kRounds; ++round) {
            Seen seen;
            VEXOCopyTHRArgs thr = callbacks(seen);
            VEXOCopyOptR opt = options();
            opt.overwrite = -1;
            const int result = VEXOFileCopy_r(source(0).c_str(), target(0, round).c_str(), &opt, &thr);
            made[static_cast<size_t>(round)] += result == 0 ? 1 : 0;
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(1, made[static_cast<size_t>(round)]);
        EXPECT_TRUE(contentOf(0) == read(target(0, round)));
    }
}

} // namespace
