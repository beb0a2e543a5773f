// Cutting a tree into lists: how much each gets, what stays together, and what the files of the lists hold.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/shards/balance.h"
#include "tools/engine/shards/division.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <numeric>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using engine::Balance;
using engine::Division;
using ListedNames = std::vector<std::string>;

// An entry costs as much as that many bytes.
constexpr int64_t kShardEntry = 64 << 10;

struct stat shardedFile(ino_t inode, nlink_t names) {
    struct stat file {};
    file.st_dev = 7;
    file.st_ino = inode;
    file.st_nlink = names;
    file.st_mode = S_IFREG;
    return file;
}

std::vector<int64_t> shardWeights(int shards, const std::vector<int64_t> &entries) {
    Balance balance(shards);
    std::vector<int64_t> sums(static_cast<size_t>(shards));
    for (const int64_t bytes : entries) {
        sums.at(balance.next(bytes)) += bytes + kShardEntry;
    }
    return sums;
}

TEST(ShardBalance, EntriesWithoutBytesAreSpreadByTheirNumber) {
    const std::vector<int64_t> sums = shardWeights(4, std::vector<int64_t>(4000, 0));
    const auto [least, most] = std::ranges::minmax(sums);
    EXPECT_LE(most - least, 4000 * kShardEntry / 4 / 20);
}

// A list may be ahead by one entry and a little: nobody cuts a file.
TEST(ShardBalance, WhatIsLargeIsSpreadByItsBytes) {
    std::mt19937 random(17);
    for (int round = 0; round < 20; ++round) {
        std::vector<int64_t> entries;
        for (int at = 0; at < 2000; ++at) {
            entries.push_back(static_cast<int64_t>(random() % (at % 50 == 0 ? 64 << 20 : 8 << 10)));
        }
        const std::vector<int64_t> sums = shardWeights(5, entries);
        const auto [least, most] = std::ranges::minmax(sums);
        const int64_t all = std::accumulate(sums.begin(), sums.end(), int64_t{0});
        EXPECT_LE(most - least, (64 << 20) + kShardEntry + all / 5 / 16) << testing::PrintToString(sums);
    }
}

TEST(ShardBalance, AFileThatOutweighsAllOthersLeavesThoseToTheOtherLists) {
    Balance balance(3);
    const size_t heavy = balance.next(int64_t{1} << 40);
    for (int at = 0; at < 1000; ++at) {
        ASSERT_NE(heavy, balance.next(1000));
    }
}

// Each directory costs every list that has something of it.
TEST(ShardBalance, NeighboursStayTogetherWhereTheBalanceAllows) {
    Balance balance(4);
    size_t last = balance.next(0);
    int changes = 0;
    for (int at = 1; at < 10000; ++at) {
        const size_t now = balance.next(0);
        changes += now != last ? 1 : 0;
        last = now;
    }
    EXPECT_LT(changes, 1000);
}

TEST(ShardBalance, NamesOfOneFileAreInOneListAndItsBytesCountOnce) {
    Balance balance(3);
    bool first = false;
    const int64_t bytes = 100 * kShardEntry;
    const size_t shard = balance.next_of(shardedFile(1, 3), bytes, first);
    EXPECT_TRUE(first);
    for (int name = 1; name < 3; ++name) {
        for (int other = 0; other < 50; ++other) {
            (void)balance.next(0);
        }
        EXPECT_EQ(shard, balance.next_of(shardedFile(1, 3), bytes, first));
        EXPECT_FALSE(first);
    }
    // All names have come: who has the number now is somebody else.
    EXPECT_NE(shard, balance.next_of(shardedFile(1, 3), bytes, first));
    EXPECT_TRUE(first);
}

class DivisionRecord : public engine::DivisionObserver {
  public:
    bool stopped() const override { return ++asked == stopAt; }
    void unreadable(const std::string &path, const engine::Problem &) override { told.push_back(path); }
    mutable int asked = 0;
    int stopAt = 0;
    ListedNames told;
};

ListedNames namesInList(const std::string &list) {
    ListedNames names;
    const std::string text = kit::readFile(list);
    for (size_t at = 0; at < text.size(); at = text.find('\0', at) + 1) {
        names.emplace_back(text.c_str() + at);
    }
    return names;
}

class ShardDivision : public testing::Test {
  protected:
    void make(const std::string &path, size_t bytes = 1) {
        fs::create_directories(fs::path(tree + "/" + path).parent_path());
        kit::writeFile(tree + "/" + path, std::string(bytes, 'x'));
    }
    Division divide(int shards, const engine::Selection &selection = {}) {
        fs::remove_all(lists);
        return engine::divide_tree(tree, lists, shards, teller, selection);
    }
    // The number of the list that each name is in; a name that is in two fails.
    std::map<std::string, int> places(int shards) {
        std::map<std::string, int> found;
        for (int shard = 1; shard <= shards; ++shard) {
            for (const std::string &name : namesInList(lists + "/shard-" + std::to_string(shard))) {
                EXPECT_TRUE(found.emplace(name, shard).second) << name;
            }
        }
        return found;
    }
    // Everything in the tree but stores, below it.
    ListedNames all() const {
        ListedNames names;
        for (auto at = fs::recursive_directory_iterator(tree); at != fs::recursive_directory_iterator(); ++at) {
            if (at->path().filename() == "@eaDir") {
                at.disable_recursion_pending();
            } else {
                names.push_back(at->path().string().substr(tree.size() + 1));
            }
        }
        std::ranges::sort(names);
        return names;
    }
    static ListedNames keys(const std::map<std::string, int> &found) {
        ListedNames names;
        for (const auto &[name, shard] : found) {
            names.push_back(name);
        }
        return names;
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", lists = scratch / "lists";
    DivisionRecord teller;
};

TEST_F(ShardDivision, EveryEntryIsInOneListAndDirectoriesComeFirst) {
    for (const char *const directory : {"a", "a/b", "c", "c/d"}) {
        for (int file = 0; file < 40; ++file) {
            make(std::string(directory) + "/" + std::to_string(file), 20'000);
        }
    }
    ASSERT_TRUE(fs::create_directory(tree + "/empty"));
    ASSERT_EQ(0, ::symlink("nowhere", (tree + "/a/link").c_str()));
    ASSERT_EQ(0, ::mkfifo((tree + "/c/pipe").c_str(), 0600));
    ASSERT_TRUE(fs::create_directory(tree + "/a/@eaDir"));
    kit::writeFile(tree + "/a/@eaDir/1@VexoEAStream", "kept");
    const Division division = divide(3);
    EXPECT_TRUE(division.whole);
    EXPECT_EQ(all(), keys(places(3)));
    EXPECT_EQ(6, division.directories);
    EXPECT_EQ((ListedNames{".", "a", "a/b", "c", "c/d", "empty"}), [&] {
        ListedNames names = namesInList(lists + "/directories");
        std::ranges::sort(names);
        return names;
    }());
    for (const char *const list : {"shard-1", "shard-2", "shard-3", "directories"}) {
        const ListedNames names = namesInList(lists + "/" + list);
        for (size_t at = 0; at < names.size(); ++at) {
            const auto above = std::find(names.begin(), names.end(), fs::path(names[at]).parent_path().string());
            EXPECT_TRUE(above == names.end() || static_cast<size_t>(above - names.begin()) < at) << names[at];
        }
    }
}

// What is told of the lists is what they hold, and each has as much.
TEST_F(ShardDivision, EntriesAndBytesAreToldAndBalanced) {
    for (int file = 0; file < 300; ++file) {
        make(std::to_string(file % 7) + "/" + std::to_string(file), file % 60 == 0 ? 400'000 : 100);
    }
    const Division division = divide(4);
    const std::map<std::string, int> found = places(4);
    std::vector<int64_t> sums;
    for (size_t at = 0; at < 4; ++at) {
        int64_t entries = 0, bytes = 0;
        for (const auto &[name, shard] : found) {
            const auto status = kit::statOf(tree + "/" + name);
            entries += shard == static_cast<int>(at) + 1 ? 1 : 0;
            bytes += shard == static_cast<int>(at) + 1 && S_ISREG(status.st_mode) ? status.st_size : 0;
        }
        EXPECT_EQ(entries, division.shards[at].entries);
        EXPECT_EQ(bytes, division.shards[at].bytes);
        sums.push_back(entries * kShardEntry + bytes);
    }
    const auto [least, most] = std::ranges::minmax(sums);
    EXPECT_LE(most - least, 400'000 + 2 * kShardEntry) << testing::PrintToString(sums);
}

TEST_F(ShardDivision, NamesOfOneFileAreInOneListAcrossDirectories) {
    for (int file = 0; file < 60; ++file) {
        make("a/" + std::to_string(file), 5000);
        make("z/" + std::to_string(file), 5000);
    }
    for (const char *const name : {"a/first", "m/second", "z/third"}) {
        fs::create_directories(fs::path(tree + "/" + name).parent_path());
        if (name == std::string("a/first")) {
            make(name, 300'000);
        } else {
            ASSERT_EQ(0, ::link((tree + "/a/first").c_str(), (tree + "/" + name).c_str()));
        }
    }
    const Division division = divide(4);
    std::map<std::string, int> found = places(4);
    EXPECT_EQ(found["a/first"], found["m/second"]);
    EXPECT_EQ(found["a/first"], found["z/third"]);
    int64_t bytes = 0;
    for (const engine::Shard &shard : division.shards) {
        bytes += shard.bytes;
    }
    EXPECT_EQ(120 * 5000 + 300'000, bytes);
}

TEST_F(ShardDivision, NamesOfAnyBytesAreWhole) {
    const std::string longest(255, 'n');
    for (const std::string &name : {std::string("line\nfeed"), std::string("\xff\xfe"), std::string(" "),
                                    std::string("dir\n/in\n\nit"), std::string("\\n"), longest}) {
        make(name);
    }
    (void)divide(2);
    EXPECT_EQ(all(), keys(places(2)));
}

TEST_F(ShardDivision, WhatIsNotMeantIsInNoList) {
    for (const char *const name : {"a.txt", "b.o", "sub/c.txt", "sub/d.o", "raw/e.txt", "sub/raw/f.txt"}) {
        make(name, name == std::string("sub/c.txt") ? 5000 : 10);
    }
    engine::Selection selection;
    selection.exclude("*.o");
    selection.exclude("/raw/");
    (void)divide(2, selection);
    EXPECT_EQ((ListedNames{"a.txt", "sub", "sub/c.txt", "sub/raw", "sub/raw/f.txt"}), keys(places(2)));
    EXPECT_EQ((ListedNames{".", "sub", "sub/raw"}), namesInList(lists + "/directories"));
    engine::Selection small;
    small.mostSize = 100;
    const Division division = divide(1, small);
    EXPECT_EQ(5 * 10, division.shards[0].bytes);
    EXPECT_EQ((ListedNames{"a.txt", "b.o", "raw", "raw/e.txt", "sub", "sub/d.o", "sub/raw", "sub/raw/f.txt"}),
              keys(places(1)));
}

TEST_F(ShardDivision, OfAnotherVolumeTheDirectoryAloneIsMeant) {
    make("sub/hidden");
    KIT_REQUIRE(mounted, kit::Volume::tmpfs(1 << 20, tree + "/sub"));
    make("sub/inside");
    engine::Selection selection;
    selection.oneFileSystem = true;
    (void)divide(1, selection);
    EXPECT_EQ((ListedNames{"sub"}), namesInList(lists + "/shard-1"));
    EXPECT_EQ((ListedNames{".", "sub"}), namesInList(lists + "/directories"));
    (void)divide(1);
    EXPECT_EQ((ListedNames{"sub", "sub/inside"}), namesInList(lists + "/shard-1"));
}

TEST_F(ShardDivision, StoppedAnywhereItLeavesNothing) {
    for (int file = 0; file < 20; ++file) {
        make(std::to_string(file % 3) + "/" + std::to_string(file));
    }
    (void)divide(2);
    const int questions = teller.asked;
    ASSERT_GT(questions, 5);
    for (teller.stopAt = 1; teller.stopAt <= questions; ++teller.stopAt) {
        class Stopped : public DivisionRecord {
          public:
            bool stopped() const override { return ++asked >= stopAt; }
        } stopping;
        stopping.stopAt = teller.stopAt;
        fs::remove_all(lists);
        EXPECT_FALSE(engine::divide_tree(tree, lists, 2, stopping).whole);
        EXPECT_FALSE(kit::exists(lists)) << teller.stopAt;
    }
}

TEST_F(ShardDivision, ListsGoIntoAnEmptyDirectoryOutsideTheTree) {
    make("file");
    EXPECT_THROW((void)engine::divide_tree(tree, tree + "/lists", 2, teller), engine::InvalidRequest);
    EXPECT_FALSE(kit::exists(tree + "/lists"));
    ASSERT_TRUE(fs::create_directory(lists));
    kit::writeFile(lists + "/mine", "x");
    EXPECT_THROW((void)engine::divide_tree(tree, lists, 2, teller), engine::Failure);
    EXPECT_EQ((ListedNames{"mine"}), kit::namesIn(lists));
    EXPECT_THROW((void)engine::divide_tree(scratch / "none", scratch / "new", 2, teller), engine::Failure);
    EXPECT_FALSE(kit::exists(scratch / "new"));
}

} // namespace
