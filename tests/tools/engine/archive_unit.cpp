// What a backup has brought: the record of it, the list, and whose archive bits may go.
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tools/engine/archive/archive_bit.h"
#include "tools/engine/archive/arrival_list.h"
#include "tools/engine/archive/arrivals.h"
#include "tools/engine/archive/bit_clearing.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/transfer/store_witness.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace engine;

TEST(ArrivalLists, OfOneSecondStandBesideEachOther) {
    const kit::ScratchDirectory scratch;
    const std::string first = scratch / "copy.2026-11-22T14-03-07Z.list";
    ASSERT_EQ(0, ::symlink("elsewhere", first.c_str()));
    const auto listed = [&](const char *name) {
        ArrivalList list(scratch / "tree", scratch / "copy", 1795356187, "full");
        list.add("copied", 3, name);
        EXPECT_EQ(1U, kit::namesIn(scratch.path()).size() - (kit::exists(scratch / "elsewhere") ? 1 : 0))
            << "nothing is there before it is whole";
        return list.put_in_place(0);
    };
    const std::string second = listed("one");
    EXPECT_EQ(scratch / "copy.2026-11-22T14-03-07Z002.list", second);
    EXPECT_LT(first, second);
    EXPECT_FALSE(kit::exists(scratch / "elsewhere")) << "no link is followed";
    EXPECT_EQ("# backup of " + scratch / "tree" + " to " + scratch / "copy" +
                  ", 2026-11-22T14:03:07Z, full\ncopied\t3\tone\n# 1 entry, 3 bytes, 0 failed\n",
              kit::readFile(second));
    ArrivalList third(scratch / "tree", scratch / "copy", 1795356187, "full");
    EXPECT_EQ(scratch / "copy.2026-11-22T14-03-07Z003.list", third.put_in_place(2));
}

TEST(ArrivalLists, AreGoneWithoutATraceWhereTheyAreNotPutInPlace) {
    KIT_REQUIRE(volume, kit::Volume::fuse("exfat-fuse", 8 << 20)); // without files under no name
    {
        ArrivalList list("/tree", volume / "copy", 0, "full");
        list.add("copied", 1, "name");
    }
    EXPECT_TRUE(kit::namesIn(volume.path()).empty());
    ArrivalList list("/tree", volume / "copy", 0, "full");
    list.add("copied", 1, "name");
    EXPECT_EQ(volume / "copy.1970-01-01T00-00-00Z.list", list.put_in_place(0));
    EXPECT_EQ(1U, kit::namesIn(volume.path()).size());
}

// More of them than are held in memory.
TEST(ArrivalsOfABackup, ComeBackInTheirOrder) {
    const kit::ScratchDirectory scratch;
    const HeldDirectory beside(scratch.path());
    Arrivals arrivals(beside);
    constexpr int number = 20'000;
    for (int i = 0; i < number; ++i) {
        Arrival arrival{.source = std::string(100, 's') + std::to_string(i), .destination = "d"};
        arrival.directory = i % 3 == 0;
        arrival.store = static_cast<uint64_t>(i);
        arrival.status.st_size = i;
        arrival.status.st_nlink = 1 + (i == 7 || i == 11 ? 1 : 0);
        arrivals.add(arrival);
    }
    EXPECT_TRUE(kit::namesIn(scratch.path()).empty());
    int at = 0;
    arrivals.each([&](const Arrival &arrival) {
        EXPECT_TRUE(arrival.source.ends_with("s" + std::to_string(at)));
        EXPECT_EQ(at % 3 == 0, arrival.directory);
        EXPECT_EQ(at % 3 == 0 ? 0 : at, arrival.status.st_size);
        ++at;
    });
    EXPECT_EQ(number, at);
    EXPECT_EQ(2, arrivals.names_of({0, 0}));
    EXPECT_EQ(0, arrivals.names_of({1, 1}));
}

class BitClearings : public ::testing::Test, protected BitObserver {
  protected:
    void SetUp() override {
        for (const std::string &directory : {tree, copy}) {
            ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
            ASSERT_EQ(0, ::mkdir((directory + "/in").c_str(), 0755));
            kit::writeFile(directory + "/in/file", "content");
            ASSERT_TRUE(set(directory + "/in/file", true));
        }
        const timespec times[] = {{1'700'000'000, 1}, {1'700'000'000, 1}};
        for (const std::string &directory : {tree, copy}) {
            ASSERT_EQ(0, ::utimensat(AT_FDCWD, (directory + "/in/file").c_str(), times, 0));
        }
        arrived = arrival();
    }
    static bool set(const std::string &path, bool on) {
        const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        return on ? set_archive_bit(file.get()) : clear_archive_bit(file.get());
    }
    bool isSet() const {
        const Descriptor file(::open((tree + "/in/file").c_str(), O_RDONLY | O_CLOEXEC));
        return has_archive_bit(file.get()).value_or(false);
    }
    Arrival arrival() const {
        Arrival made{.source = "in/file", .destination = "in/file"};
        made.status = *look(tree + "/in/file");
        made.store = StoreWitness(HeldDirectory(tree + "/in"), "file").mark();
        return made;
    }
    void bit(const std::string &, BitFate fate, const std::string &why) override {
        told += (fate == BitFate::cleared ? "cleared" : fate == BitFate::stays ? "stays: " + why : "failed: " + why);
    }
    std::string clear() {
        told.clear();
        const HeldDirectory beside(scratch.path());
        Arrivals arrivals(beside);
        arrivals.add(arrived);
        BitClearing(tree, copy, *loss_set("creation-time"), *this).run(arrivals); // which nobody can set
        return told;
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
    Arrival arrived = {};
    std::string told;
};

TEST_F(BitClearings, WhatIsThereUnchangedLosesIt) {
    EXPECT_EQ("cleared", clear());
    EXPECT_FALSE(isSet());
    EXPECT_EQ("", clear()) << "it has none any more";
}

TEST_F(BitClearings, WhatWasChangedSinceKeepsIt) {
    kit::writeFile(tree + "/in/file", "changed");
    EXPECT_EQ("stays: was changed since it was copied", clear());
    arrived = arrival();
    EXPECT_TRUE(clear().starts_with("stays: is not what its copy is: ")) << told;
    EXPECT_TRUE(isSet());
}

// Nothing of the file itself tells of it.
TEST_F(BitClearings, WhatIsKeptBesideItIsLookedAtToo) {
    ASSERT_EQ(0, ::mkdir((tree + "/in/@eaDir").c_str(), 0777));
    kit::writeFile(tree + "/in/@eaDir/file@VexoEAStream", "something");
    EXPECT_EQ("stays: was changed since it was copied", clear());
    EXPECT_TRUE(isSet());
}

TEST_F(BitClearings, CopyThatIsGoneOrChangedKeepsIt) {
    ASSERT_EQ(0, ::chmod((copy + "/in/file").c_str(), 0600));
    EXPECT_TRUE(clear().starts_with("stays: is not what its copy is: ")) << told;
    ASSERT_EQ(0, ::unlink((copy + "/in/file").c_str()));
    EXPECT_TRUE(clear().starts_with("stays: ")) << told;
    ASSERT_EQ(0, ::rmdir((copy + "/in").c_str()));
    EXPECT_TRUE(clear().starts_with("stays: ")) << told;
    EXPECT_TRUE(isSet());
}

TEST_F(BitClearings, LinksAndPipesInItsPlaceLeadNowhere) {
    ASSERT_EQ(0, ::rename((tree + "/in").c_str(), (scratch / "aside").c_str()));
    ASSERT_EQ(0, ::symlink("../aside", (tree + "/in").c_str()));
    EXPECT_EQ("", clear());
    ASSERT_EQ(0, ::unlink((tree + "/in").c_str()));
    ASSERT_EQ(0, ::rename((scratch / "aside").c_str(), (tree + "/in").c_str()));
    ASSERT_EQ(0, ::rename((tree + "/in/file").c_str(), (tree + "/in/moved").c_str()));
    ASSERT_EQ(0, ::symlink("moved", (tree + "/in/file").c_str()));
    EXPECT_EQ("", clear());
    ASSERT_EQ(0, ::unlink((tree + "/in/file").c_str()));
    ASSERT_EQ(0, ::mkfifo((tree + "/in/file").c_str(), 0666));
    EXPECT_EQ("", clear());
    ASSERT_EQ(0, ::rename((tree + "/in/moved").c_str(), (tree + "/in/file").c_str()));
    EXPECT_TRUE(isSet());
}

// As a file server does for a client that has it to itself.
TEST_F(BitClearings, FileThatSomebodyHasToHimselfKeepsIt) {
    const Descriptor file(::open((tree + "/in/file").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(0, ::fcntl(file.get(), F_SETSIG, SIGURG));
    ASSERT_EQ(0, ::fcntl(file.get(), F_SETLEASE, F_WRLCK));
    EXPECT_EQ("stays: is held by another process", clear());
    ASSERT_EQ(0, ::fcntl(file.get(), F_SETLEASE, F_UNLCK));
    EXPECT_TRUE(isSet());
}

TEST_F(BitClearings, NobodyOpensTheFileForWritingMeanwhile) {
    const Descriptor file(::open((tree + "/in/file").c_str(), O_RDONLY | O_CLOEXEC));
    const auto write = [&] {
        return Descriptor(::open((tree + "/in/file").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)).get() >= 0;
    };
    {
        const WriteBarrier barrier(file.get());
        EXPECT_FALSE(barrier.has_writer());
        EXPECT_FALSE(write());
        EXPECT_EQ(EWOULDBLOCK, errno);
    }
    EXPECT_TRUE(write());
    const Descriptor writer(::open((tree + "/in/file").c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_TRUE(WriteBarrier(file.get()).has_writer());
}

} // namespace
