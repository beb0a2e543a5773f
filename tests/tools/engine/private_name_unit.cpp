// Names for what is under way, and what is removed of those that nobody will finish.
#include "tests/kit/scratch.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/transfer.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace engine;

// The number of a process that is gone.
pid_t gone() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return child;
}

class PrivateNames : public ::testing::Test {
  protected:
    Maker dead() const {
        Maker maker = own_maker();
        maker.process = ended;
        return maker;
    }
    std::string left(int number = 1, const std::string &suffix = "") const {
        return private_name(dead(), number) + suffix;
    }
    void put(const std::string &name) const { kit::writeFile(scratch / name, "x"); }

    kit::ScratchDirectory scratch;
    const Descriptor directory = open_directory(AT_FDCWD, scratch.path());
    const pid_t ended = gone();
};

TEST_F(PrivateNames, EachIsAnotherAndKnown) {
    const std::string one = next_private_name(), other = next_private_name();
    EXPECT_NE(one, other);
    EXPECT_TRUE(is_private_name(one));
    EXPECT_TRUE(one.starts_with(".vexofileop-" + std::to_string(::getpid()) + "-")) << one;
    EXPECT_GE(100U, one.size()) << one;
    EXPECT_EQ(one, without_suffix(one + ".store"));
    EXPECT_FALSE(is_private_name("vexofileop-1-1"));
    EXPECT_FALSE(is_left_over(one));
    EXPECT_TRUE(is_left_over(left()));
    EXPECT_EQ(NameKind::system, name_kind(scratch.path(), left(), 1));
}

// A user may call his files as he likes.
TEST_F(PrivateNames, OwnFilesAreOrdinary) {
    const std::string process = std::to_string(ended);
    for (const std::string &name : {".vexofileop-" + process + "-1", ".vexofileop-" + process + "-1.store",
                                    std::string(".vexofileop-"), std::string(".vexofileop-state"), left() + "x"}) {
        EXPECT_EQ(NameKind::ordinary, name_kind(scratch.path(), name, 1)) << name;
        EXPECT_EQ("", without_suffix(name)) << name;
        put(name);
    }
    EXPECT_TRUE(left_overs_in(directory.get()).gone.empty());
    EXPECT_TRUE(left_overs_in(directory.get()).unknown.empty());
}

TEST_F(PrivateNames, LeftOversAreThoseOfProcessesThatAreGone) {
    put(left());
    put(left(1, ".store"));
    put(next_private_name());
    Maker foreign = dead();
    foreign.boot ^= 1;
    put(private_name(foreign, 1));
    const LeftOvers found = left_overs_in(directory.get());
    EXPECT_EQ((std::vector<std::string>{left(), left(1, ".store")}), found.gone);
    EXPECT_EQ((std::vector<std::string>{private_name(foreign, 1)}), found.unknown);
}

TEST_F(PrivateNames, EndOfAMakerIsProvenOrUnknown) {
    const Maker self = own_maker();
    ASSERT_NE(0U, self.begun);
    ASSERT_NE(0U, self.boot);
    ASSERT_NE(0U, self.space);
    EXPECT_EQ(MakerState::running, state_of(self));
    EXPECT_EQ(MakerState::gone, state_of(dead()));
    Maker earlier = self; // whose number this process has got since
    --earlier.begun;
    EXPECT_EQ(MakerState::gone, state_of(earlier));
    Maker contained = dead(); // of a container, whose numbers say nothing here
    contained.space ^= 1;
    EXPECT_EQ(MakerState::unknown, state_of(contained));
    for (uint64_t Maker::*const part : {&Maker::boot, &Maker::space}) {
        Maker nameless = dead();
        nameless.*part = 0;
        EXPECT_EQ(MakerState::unknown, state_of(nameless));
    }
    Maker here = self, before = dead(); // before the last start
    here.machine = before.machine = 7;
    before.boot ^= 1;
    EXPECT_EQ(MakerState::gone, state_of(before, here));
    before.machine = 8;
    EXPECT_EQ(MakerState::unknown, state_of(before, here));
    before.machine = here.machine = 0;
    EXPECT_EQ(MakerState::unknown, state_of(before, here));
}

// Its parent may never ask for it; it makes nothing more all the same.
TEST_F(PrivateNames, MakerWhoseParentHasNotHeardOfItsEndIsGone) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    siginfo_t ended{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT));
    Maker maker = own_maker();
    maker.process = child;
    maker.begun = 0;
    EXPECT_EQ(MakerState::gone, state_of(maker));
    EXPECT_EQ(child, ::waitpid(child, nullptr, 0));
}

TEST_F(PrivateNames, ForkedProcessIsAnotherMaker) {
    const std::string parent = text_of(own_maker());
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(text_of(own_maker()) != parent && own_maker().process == ::getpid() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(PrivateNames, TextOfAMakerIsReadBack) {
    const std::string text = text_of(dead()) + "-rest";
    std::string_view rest = text;
    const auto maker = take_maker(rest);
    ASSERT_TRUE(maker);
    EXPECT_EQ("rest", rest);
    EXPECT_EQ(text_of(dead()), text_of(*maker));
    for (const char *broken :
         {"", "1", "1-", "0-1-0000000000000001-00000001-00000001-1", "-5-1-0000000000000001-00000001-00000001-1",
          "1-1-1-00000001-00000001-1", "1-1-0000000000000001-00000001-0000000g-1",
          "1-1-0000000000000001-00000001-00000001", "99999999999999999999-1-0000000000000001-00000001-00000001-1"}) {
        rest = broken;
        EXPECT_FALSE(take_maker(rest)) << broken;
        EXPECT_EQ(broken, rest);
    }
}

class Told : public TransferObserver {
  public:
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(EntryKind, const std::string &, const Outcome &outcome) override {
        skipped += outcome.status == Status::skipped ? 1 : 0;
        good = good && outcome.status != Status::failed && !outcome.warning;
    }
    void arrived(const std::string &, int, int64_t) override {}
    void stays(const std::string &, const std::vector<std::string> &names) override {
        staying.insert(staying.end(), names.begin(), names.end());
    }
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }

    bool good = true;
    int skipped = 0;
    std::vector<std::string> staying;
};

TEST_F(PrivateNames, OnlyWhatIsProvenIsPassedOverOrRemoved) {
    Maker foreign = dead();
    foreign.space ^= 1;
    const std::string unknown = private_name(foreign, 1), own = ".vexofileop-" + std::to_string(ended) + "-1";
    for (const char *place : {"tree", "out"}) {
        ASSERT_EQ(0, ::mkdir((scratch / place).c_str(), 0755));
        for (const std::string &name : {left(), unknown, own}) {
            put(std::string(place) + "/" + name);
        }
        ASSERT_EQ(0, ::mkdir((scratch / place + "/" + left(2)).c_str(), 0700));
    }
    for (int round = 0; round < 2; ++round) {
        Told told;
        Transfer({.conflict = Conflict::replace, .trees = true}, told).run(scratch / "tree", scratch / "out/tree");
        EXPECT_TRUE(told.good);
        EXPECT_EQ(2, told.skipped);
        EXPECT_EQ((round == 0 ? std::vector{unknown} : std::vector{unknown, unknown}), told.staying)
            << "of two directories";
    }
    const auto sorted = [](std::vector<std::string> names) {
        std::ranges::sort(names);
        return names;
    };
    EXPECT_EQ(sorted({unknown, own, "tree"}), sorted(kit::namesIn(scratch / "out")));
    EXPECT_EQ(sorted({unknown, own}), sorted(kit::namesIn(scratch / "out/tree")));
    EXPECT_EQ("x", kit::readFile(scratch / "out/tree/" + own));
}

TEST_F(PrivateNames, LeftOversGoWithoutFollowingLinks) {
    const std::string tree = left(1), link = left(2);
    ASSERT_EQ(0, ::mkdir((scratch / "kept").c_str(), 0755));
    put("kept/file");
    ASSERT_EQ(0, ::mkdir((scratch / tree).c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scratch / tree + "/below").c_str(), 0755));
    put(tree + "/below/file");
    ASSERT_EQ(0, ::symlink("../../kept", (scratch / tree + "/below/link").c_str()));
    ASSERT_EQ(0, ::symlink("kept", (scratch / link).c_str()));
    EXPECT_TRUE(remove_left_over(directory.get(), tree));
    EXPECT_TRUE(remove_left_over(directory.get(), link));
    EXPECT_EQ((std::vector<std::string>{"kept"}), kit::namesIn(scratch.path()));
    EXPECT_EQ("x", kit::readFile(scratch / "kept/file"));
    EXPECT_FALSE(remove_left_over(directory.get(), tree));
}

} // namespace
