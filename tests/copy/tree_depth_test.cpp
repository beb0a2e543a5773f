// Trees as deep as paths can be, and deeper; with few descriptors.
#include "tests/copy/tree_support.h"

#include <set>
#include <sys/resource.h>

namespace tree {
namespace {

class TreeDepth : public BothFamilies {
  protected:
    void TearDown() override {
        // Deeper than the scratch directory can remove by path.
        const std::string command = "/bin/rm -rf '" + from + "' '" + to + "'";
        EXPECT_EQ(0, std::system(command.c_str())); // NOLINT(concurrency-mt-unsafe): one thread
        BothFamilies::TearDown();
    }
    // Both paths stay under the limit down to the last level.
    static constexpr size_t kLongest = 4090;
    static std::string makeDeep(std::string path) {
        while (path.size() + 2 <= kLongest) {
            path += "/d";
            EXPECT_EQ(0, ::mkdir(path.c_str(), 0755));
        }
        return path;
    }
    // Short enough that paths name far more levels than there are descriptors, and so long that not every call walks
    // thousands of them.
    static constexpr const char *kLevel = "level";
    static constexpr size_t kLevelLength = 6; // with its slash
    static void makeLevels(const std::string &top, int levels) {
        int at = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int level = 0; level < levels; ++level) {
            EXPECT_EQ(0, ::mkdirat(at, kLevel, 0755));
            const int below = ::openat(at, kLevel, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ::close(at);
            at = below;
        }
        ::close(at);
    }
    static int levelsOf(const std::string &top) {
        int levels = 0;
        int at = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (;;) {
            const int below = ::openat(at, kLevel, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ::close(at);
            if (below < 0) {
                return levels;
            }
            ++levels;
            at = below;
        }
    }
    // So many descriptors that a limit leaves `free` of them.
    static void limitDescriptors(int free) {
        const rlimit limit{64, 64};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        std::vector<int> taken;
        for (int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0; fd = ::dup(taken.back())) {
            taken.push_back(fd);
        }
        for (int at = 0; at < free; ++at) {
            ::close(taken.back());
            taken.pop_back();
        }
    }
    // The same with few levels: a path of exactly that length.
    static std::string makeLong(std::string path, size_t length) {
        while (path.size() < length) {
            const size_t rest = length - path.size() - 1;
            path += "/" + std::string(rest > 202 ? 200 : rest, 'l');
            EXPECT_EQ(0, ::mkdir(path.c_str(), 0755)) << path.size();
        }
        return path;
    }
    // 40 levels, each with files on both sides of the way down.
    static constexpr int kWideLevels = 40;
    static constexpr int kFiles = 12;
    std::set<std::string> putWideTree() const {
        std::set<std::string> files;
        std::string directory = request.src;
        for (int level = 0; level < kWideLevels; ++level) {
            for (int number = 0; number < kFiles; ++number) {
                if (number == kFiles / 2) {
                    makeDirectory(directory + "/d");
                }
                const std::string path = directory + "/file" + std::to_string(number);
                kit::writeFile(path, path);
                files.insert(path);
            }
            directory += "/d";
        }
        return files;
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeDepth, kFamilies, familyName);

TEST_P(TreeDepth, LongestPathsAreCopiedOnAnOrdinaryStack) {
    const std::string deepest = makeDeep(request.src);
    request.dst = to + "/two"; // no longer than the source's
    EXPECT_TRUE(kit::holdsInChild([&] {
        const rlimit stack{8UL << 20, 8UL << 20};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_STACK, &stack));
        request.stopOnError = true;
        EXPECT_EQ(0, copy()) << std::hex << VLIBCErrGet() << "\n" << kit::Log::all().substr(0, 500);
        EXPECT_TRUE(kit::exists(request.dst + deepest.substr(request.src.size())));
    }));
}

// What paths can name of 1,000 levels arrives with 64 descriptors; the first level that they cannot is told.
TEST_P(TreeDepth, ThousandLevelsNeedFewDescriptors) {
    makeLevels(request.src, 1000);
    request.dst =
        to + "/copy-of-the-tree"; // longer than the source's by a level, so that no reported path is cut short
    const auto nameable = static_cast<int>((4095 - request.dst.size()) / kLevelLength);
    ASSERT_LT(nameable, 1000);
    EXPECT_TRUE(kit::holdsInChild([&] {
        const rlimit limit{64, 64};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_EQ(0, copy());
        EXPECT_EQ(nameable, levelsOf(request.dst));
        std::string path = request.src;
        for (int level = 0; level <= nameable; ++level) {
            path += std::string("/") + kLevel;
        }
        expectReported(path, 0xC300);
    }));
}

TEST_P(TreeDepth, EveryEntryComesOnceHoweverDeep) {
    const std::set<std::string> files = putWideTree();
    std::multiset<std::string> copied;
    callbacks.copyFile = [&](const std::string &path, const std::string &) {
        copied.insert(path);
        return 0;
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(std::multiset<std::string>(files.begin(), files.end()), copied);
    std::string deepest = request.dst;
    for (int level = 0; level < kWideLevels; ++level) {
        EXPECT_TRUE(kit::exists(deepest)) << deepest;
        deepest += "/d";
    }
}

TEST_P(TreeDepth, DeepTreeIsMovedWhole) {
    const std::set<std::string> files = putWideTree();
    acrossVolumes();
    request.move = true;
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(request.src));
    for (const std::string &path : files) {
        EXPECT_EQ(path, kit::readFile(request.dst + path.substr(request.src.size())));
    }
    expectNotReported();
}

TEST_P(TreeDepth, RunningOutOfDescriptorsIsAFailedEntryOnly) {
    std::string path = request.src;
    for (int level = 0; level < 40; ++level) {
        path += "/d";
        makeDirectory(path);
    }
    putFile("file");
    EXPECT_TRUE(kit::holdsInChild([&] {
        limitDescriptors(8);
        EXPECT_EQ(0, copy());
        ASSERT_FALSE(callbacks.reports.empty());
        EXPECT_EQ(0x8000U, callbacks.reports[0].code);
        EXPECT_EQ("data", kit::readFile(dst("file")));
    }));
}

// A walk that comes back to a directory goes on with that directory or not at all.
TEST_P(TreeDepth, DirectoryExchangedMeanwhileIsNotGoneOnWith) {
    (void)putWideTree();
    const std::string secret = scratch / "secret";
    makeDirectory(secret);
    for (int number = 0; number < kFiles; ++number) {
        kit::writeFile(secret + "/file" + std::to_string(number), "secret");
    }
    std::string deep = request.src;
    for (int level = 1; level < kWideLevels; ++level) {
        deep += "/d";
    }
    bool exchanged = false;
    std::vector<std::string> after;
    callbacks.copyFile = [&](const std::string &path, const std::string &) {
        if (path == deep + "/file0") {
            EXPECT_EQ(0, ::rename(src("d").c_str(), (from + "/away").c_str()));
            EXPECT_EQ(0, ::symlink(secret.c_str(), src("d").c_str()));
            exchanged = true;
        } else if (exchanged && path.starts_with(src("d/file"))) {
            after.push_back(path);
        }
        return 0;
    };
    (void)copy();
    EXPECT_TRUE(exchanged);
    EXPECT_EQ(std::vector<std::string>(), after);
    EXPECT_EQ(1, std::count(callbacks.reports.begin(), callbacks.reports.end(), Report{src("d"), 0x8000}));
}

// What cannot be kept in memory while the walk is below ends the directory, and says so.
TEST_P(TreeDepth, MemoryThatRunsOutFailsTheDirectory) {
    if (!kit::Faults::failAllocation(0)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    (void)putWideTree();
    std::string deep = request.src; // the last level before the top makes way
    for (int level = 1; level <= 15; ++level) {
        deep += "/d";
    }
    bool failed = false;
    int ofTheTop = 0;
    callbacks.copyFile = [&](const std::string &path, const std::string &) {
        ofTheTop += path.starts_with(src("file")) ? 1 : 0;
        if (!failed && path.starts_with(deep + "/f")) {
            failed = true;
            kit::Faults::onlyAllocationsFrom(1024);
            kit::Faults::failAllocation(1);
        }
        return 0;
    };
    EXPECT_FAILS(copy(), 0x0200);
    kit::Faults::failAllocation(0);
    kit::Faults::onlyAllocationsFrom(0);
    EXPECT_TRUE(failed);
    EXPECT_LT(ofTheTop, kFiles);
    expectReported(request.src, 0x0200);
}

// ---- Paths that are too long ---------------------------------------------------------------------------------------

TEST_P(TreeDepth, EntryWhosePathWouldNotFitFailsAndIsReported) {
    const std::string deepest = makeLong(request.src, 4000);
    request.dst = to + "/" + std::string(100 + request.src.size() - to.size(), 'x');
    putFile("file");
    const std::string cut = request.dst + deepest.substr(request.src.size());
    ASSERT_GT(cut.size(), 4095U);
    EXPECT_EQ(0, copy());
    ASSERT_EQ(1U, callbacks.reports.size());
    const std::string path = callbacks.reports[0].path;
    EXPECT_EQ(0xC300U, callbacks.reports[0].code);
    EXPECT_TRUE(deepest.starts_with(path));
    EXPECT_GT(path.size() - request.src.size() + request.dst.size(), 4095U);
    expectLine("path too long: [" + path + "] to [" + (request.dst + path.substr(request.src.size())) + "]");
    EXPECT_EQ("data", kit::readFile(dst("file")));
}

TEST_P(TreeDepth, EntryWhosePathWouldNotFitEndsATreeThatStopsOnErrors) {
    (void)makeLong(request.src, 4000);
    request.dst = to + "/" + std::string(200, 'x');
    request.stopOnError = true;
    EXPECT_FAILS(copy(), 0xC300);
}

TEST_P(TreeDepth, SourcePathThatWouldNotFitIsReportedAsFarAsItGoes) {
    const std::string deepest = makeLong(request.src, 4000);
    const int at = ::open(deepest.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(0, ::mkdirat(at, std::string(200, 'y').c_str(), 0755));
    ::close(at);
    request.dst = to + "/c";
    EXPECT_EQ(0, copy());
    const std::string whole = deepest + "/" + std::string(200, 'y');
    expectReported(whole.substr(0, 4095), 0xC300);
}

// "/@tmp" makes the paths of the staged copy longer than those of source and destination.
TEST_P(TreeDepth, RelocationThatCannotStageEverythingCommitsNothing) {
    const std::string deepest = makeLong(request.src, 4093);
    request.dst = to + std::string(request.src.size() - to.size() - 1, 's').insert(0, "/");
    ASSERT_LE(request.dst.size() + deepest.size() - request.src.size(), 4095U);
    kit::writeFile(src("file"), "data");
    makeDirectory(request.dst);
    kit::writeFile(dst("old"), "old");
    TreeCallbacks::current() = &callbacks;
    VLIBCErrSetEx(0, "", 0);
    int result = 0;
    if (GetParam() == Family::opt) {
        VEXOCopyOpt opt = optionsOf(request, callbacks);
        result = VEXOCopyDirToExternal(request.src.c_str(), request.dst.c_str(), 0, &opt);
    } else {
        VEXOCopyArgs args = argsOf(request, callbacks);
        result = VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kRelocate, &args);
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0x3B00U, VLIBCErrGet());
    ASSERT_EQ(1U, callbacks.reports.size());
    EXPECT_EQ(0xC300U, callbacks.reports[0].code);
    EXPECT_TRUE(kit::exists(deepest));
    EXPECT_EQ("data", kit::readFile(src("file")));
    EXPECT_EQ("old", kit::readFile(dst("old")));
    EXPECT_EQ(std::vector<std::string>(), kit::namesIn(to + "/@tmp"));
}

} // namespace
} // namespace tree
