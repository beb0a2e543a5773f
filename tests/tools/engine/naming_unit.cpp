// Names on volumes of the FAT family: what they become, the list that keeps what they were, and whose word it takes.
#include "tools/engine/naming/naming.h"

#include "tests/kit/scratch.h"
#include "tools/engine/naming/fat_form.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/descriptor.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using engine::fat_form;
using engine::GivenNames;
using engine::is_fat_form;
using engine::NameList;
using engine::Naming;

constexpr int kFatVolume = 0, kOrdinaryVolume = 1;

TEST(FatForm, IsWhatVolumesAndWindowsTake) {
    const std::pair<std::string, std::string> rows[] = {
        {"plain.txt", "plain.txt"},
        {"\"*:<>?\\|", "--------"},
        {"a\nb\rc\td\x01", "a-b-c-d-"},
        {"a\x7f", "a-"},
        {"dots...", "dots..-"},
        {"blank ", "blank-"},
        {"blank. ", "blank.-"},
        {".hidden", ".hidden"},
        {"...", "..-"},
        {"con", "con-"},
        {"Aux.txt", "Aux-.txt"},
        {"nul .tar.gz", "nul- .tar.gz"},
        {"COM1", "COM1-"},
        {"lpt\u00b3.x", "lpt\u00b3-.x"},
        {"com10", "com10"},
        {"console", "console"},
        {"conin$", "conin$-"},
        {"caf\xe9.txt", "caf-.txt"},
        {"caf\u00e9.txt", "caf\u00e9.txt"},
        {"cut\xe2\x82", "cut--"},
        {".vexofileop:names", "-vexofileop-names"},
    };
    for (const auto &[name, made] : rows) {
        EXPECT_EQ(made, fat_form(name));
        EXPECT_EQ(made, fat_form(made)) << "not once more";
        EXPECT_TRUE(is_fat_form(made, name)) << name;
    }
}

TEST(FatForm, NumbersStandBeforeTheExtension) {
    EXPECT_EQ("a- (1).txt", fat_form("a?.txt", 1));
    EXPECT_EQ("a- (12)", fat_form("a?", 12));
    EXPECT_EQ(".profile (1)", fat_form(".profile", 1));
    EXPECT_EQ("a (2).b (1)", fat_form("a.b (1)", 2));
    const std::pair<std::string, int> rows[] = {{"a?.txt", 3}, {"x (7)?", 2}, {"a.b (1)", 2}, {"( (2) (1", 5}};
    for (const auto &[name, number] : rows) {
        EXPECT_TRUE(is_fat_form(fat_form(name, number), name)) << name;
        EXPECT_FALSE(is_fat_form("b" + fat_form(name, number), name)) << name;
    }
    EXPECT_FALSE(is_fat_form("a (0).txt", "a.txt"));
    EXPECT_FALSE(is_fat_form("a (01).txt", "a.txt"));
}

TEST(FatForm, WhatIsLongIsCutBetweenCharacters) {
    const std::string letters(251, 'x');
    EXPECT_EQ(std::string(253, 'y'), fat_form(std::string(255, 'y')));
    EXPECT_EQ(std::string(245, 'y') + " (1).txt", fat_form(std::string(251, 'y') + ".txt", 1));
    EXPECT_EQ(letters, fat_form(letters + "\u20ac"));    // three bytes, of which two would fit
    EXPECT_EQ(letters + "--", fat_form(letters + "-.")); // no dot at the end of what is left either
    EXPECT_EQ(letters + ".-", fat_form(letters + "a " + ".."));
    EXPECT_EQ(253U, fat_form("con" + std::string(252, ' ')).size());
    for (const int number : {0, 1, 9999}) {
        const std::string made = fat_form(std::string(250, 'z') + "\u00e4.jpeg", number);
        EXPECT_GE(253U, made.size());
        EXPECT_TRUE(made.ends_with(".jpeg")) << made;
        EXPECT_EQ(made, fat_form(made));
    }
}

class NameLists : public ::testing::Test {
  protected:
    std::string list() const { return scratch / engine::kNameList; }
    void write(const std::string &text) const { kit::writeFile(list(), text); }
    std::string refusal() const {
        try {
            NameList read(directory.get());
        } catch (const engine::Failure &failure) {
            return failure.what();
        }
        return "";
    }
    GivenNames given(Naming &naming, const std::vector<std::string> &names, int type = kFatVolume) const {
        return naming.of_all(from.get(), names, {directory.get(), scratch.path(), type});
    }

    kit::ScratchDirectory scratch, elsewhere;
    const engine::Descriptor directory{::open(scratch.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    const engine::Descriptor from{::open(elsewhere.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(NameLists, AnyNameComesBackFromTheText) {
    std::string every;
    for (int letter = 1; letter < 256; ++letter) {
        every += letter == '/' ? '%' : static_cast<char>(letter);
    }
    NameList made;
    const std::vector<std::string> names = {every, "100%", "tab\t", "a?", "a\u202e?"};
    for (const std::string &name : names) {
        made.add(fat_form(name), name);
    }
    made.write(directory.get(), true);
    const NameList read(directory.get());
    EXPECT_EQ(made.originals(), read.originals());
    for (const std::string &name : names) {
        EXPECT_EQ(fat_form(name), *read.made_of(name));
    }
    EXPECT_EQ(1U, kit::namesIn(scratch.path()).size());
    NameList().write(directory.get(), false);
    EXPECT_FALSE(kit::exists(list()));
    NameList().write(directory.get(), false);
}

TEST_F(NameLists, NobodyBelievesAnythingElse) {
    const std::string first = "vexofileop names 1\n";
    EXPECT_EQ("", refusal());
    write(first + "a-\ta?\nend 1\n");
    EXPECT_EQ("", refusal());
    for (const char *const rest : {
             "",
             "a-\ta?\n",
             "a-\ta?\nend 2\n",
             "a-\ta?\nend 1",
             "a-\ta?\nend 1\nmore\n",
             "a-\ta?\na-\ta*\nend 2\n",     // two of one name
             "a-\ta?\na- (1)\ta?\nend 2\n", // one of two names
             "a-\t../a?\nend 1\n",          // out of the directory
             "a-\ta%2F?\nend 1\n",
             "..-\t...%2F..\nend 1\n",
             ".\t.\nend 1\n",
             "..\t..\nend 1\n",
             "a-\ta%00\nend 1\n",
             "a-\ta%3\nend 1\n",
             "a-\ta%zz\nend 1\n",
             "a-\t\nend 1\n",
             "\ta?\nend 1\n",
             "a-\nend 1\n",
             "holiday.jpg\t.bashrc\nend 1\n", // what it cannot have been
             "a-\tb?\nend 1\n",
         }) {
        write(first + rest);
        EXPECT_NE("", refusal()) << rest;
    }
    write("vexofileop names 2\na-\ta?\nend 1\n");
    EXPECT_EQ(".vexofileop-names is no list of names", refusal());
    write(first + "a-\t" + std::string(256, 'a') + "\nend 1\n");
    EXPECT_NE("", refusal());
    // Nobody is led elsewhere, nor waits.
    ASSERT_EQ(0, ::unlink(list().c_str()));
    kit::writeFile(scratch / "real", first + "end 0\n");
    ASSERT_EQ(0, ::symlink("real", list().c_str()));
    EXPECT_NE("", refusal());
    ASSERT_EQ(0, ::unlink(list().c_str()));
    ASSERT_EQ(0, ::mkfifo(list().c_str(), 0600));
    EXPECT_NE("", refusal());
    ASSERT_EQ(0, ::unlink(list().c_str()));
    ASSERT_EQ(0, ::mkdir(list().c_str(), 0700));
    EXPECT_NE("", refusal());
}

TEST_F(NameLists, NamesKeepWhatTheyHaveAndNumbersDoNotGrow) {
    Naming first(true, false, false);
    const std::vector<std::string> names = {"b", "a?", "A", "a*", "a", "a-", "x "};
    const GivenNames given_first = given(first, names);
    EXPECT_EQ("A", given_first.of("A"));
    EXPECT_EQ("a (1)", given_first.of("a"));
    EXPECT_EQ("a-", given_first.of("a-"));
    EXPECT_EQ("a- (1)", given_first.of("a*"));
    EXPECT_EQ("a- (2)", given_first.of("a?"));
    EXPECT_EQ("x-", given_first.of("x "));
    EXPECT_EQ("b", given_first.of("b"));
    for (const std::string &name : names) {
        kit::writeFile(scratch / given_first.of(name), name);
    }
    const std::string written = kit::readFile(list());
    const struct stat before = kit::statOf(list());
    // Fewer of them, in another order, and with new ones: each has what it had.
    Naming second(true, false, false);
    EXPECT_EQ(given_first.others, given(second, {"x ", "a-", "a", "a*", "A", "a?", "b"}).others);
    EXPECT_EQ(before.st_ino, kit::statOf(list()).st_ino) << "written for nothing";
    Naming third(true, false, false);
    const GivenNames fewer = given(third, {"a?", "a|"});
    EXPECT_EQ("a- (2)", fewer.of("a?"));
    EXPECT_EQ("a- (3)", fewer.of("a|"));
    EXPECT_NE(written, kit::readFile(list()));
}

TEST_F(NameLists, WhatStandsThereGivesWayToNobody) {
    kit::writeFile(scratch / "A- (1)", "somebody else's");
    Naming naming(true, false, false);
    kit::writeFile(scratch / "c-", "of a copy without a list, or a user's");
    const GivenNames made = given(naming, {"a*", "a?", "c?"});
    EXPECT_EQ("a- (2)", made.of("a?"));
    EXPECT_EQ("c- (1)", made.of("c?"));
    Naming twins(true, false, false);
    kit::writeFile(scratch / "t", "is there");
    EXPECT_EQ("T (1)", given(twins, {"T", "t"}).of("T"));
}

TEST_F(NameLists, ARehearsalWritesNothingAndForetellsTheRun) {
    Naming plan(true, true, false), run(true, false, false);
    const std::vector<std::string> names = {"a?", "a*", "con", "Con"};
    const auto planned = given(plan, names).others;
    EXPECT_FALSE(kit::exists(list()));
    EXPECT_EQ(planned, given(run, names).others);
    EXPECT_EQ(4U, planned.size());
}

TEST_F(NameLists, OtherVolumesChangeNothingAndGetNoList) {
    Naming naming(true, false, false), unasked(false, false, false);
    EXPECT_TRUE(given(naming, {"a?", "A?"}, kOrdinaryVolume).others.empty());
    EXPECT_TRUE(given(unasked, {"a?", "A?"}).others.empty());
    EXPECT_FALSE(kit::exists(list()));
}

TEST_F(NameLists, WhatComesFromAListComesBackUnlessAnotherHasTheName) {
    NameList kept;
    for (const char *const name : {"a?", "b?", "gone?"}) {
        kept.add(fat_form(name), name);
    }
    kept.write(from.get(), false);
    Naming naming(true, false, false);
    const GivenNames back = given(naming, {"a-", "b-", "b?", "renamed", engine::kNameList}, kOrdinaryVolume);
    EXPECT_TRUE(back.listed);
    EXPECT_EQ("a?", back.of("a-"));
    EXPECT_EQ("b-", back.of("b-"));
    EXPECT_EQ("b?", back.of("b?"));
    EXPECT_EQ("renamed", back.of("renamed"));
    ASSERT_EQ(1U, back.losses.size());
    EXPECT_EQ("b- was b? before, which is another entry's name by now", back.losses.front().detail);
    // To another such volume they go by what they were.
    Naming again(true, false, false);
    kit::writeFile(scratch / "A-", "");
    const GivenNames there = given(again, {"a-", "A-", engine::kNameList});
    EXPECT_EQ("A-", there.of("A-"));
    EXPECT_EQ("a- (1)", there.of("a-"));
    EXPECT_EQ("a?", *NameList(directory.get()).original_of("a- (1)"));
}

TEST_F(NameLists, DamagedOnesAreNeitherUsedNorReplaced) {
    write("vexofileop names 1\na-\ta?\n");
    kit::writeFile(elsewhere / engine::kNameList, "nothing of the kind");
    Naming naming(true, false, false);
    const GivenNames none = given(naming, {"a?", "b", "B", "own"});
    EXPECT_TRUE(none.others.empty());
    EXPECT_FALSE(none.listed);
    EXPECT_EQ((std::unordered_set<std::string>{"a?", "b"}), none.nameless);
    EXPECT_EQ("its name cannot be kept there: .vexofileop-names ends before its end, in line 3",
              none.problem_of("a?")->reason);
    EXPECT_FALSE(none.problem_of("own"));
    EXPECT_TRUE(none.losses.empty());
    const std::string unknown_reason =
        "nobody can tell what it was called before: .vexofileop-names is no list of names";
    const auto one = naming.of_one(from.get(), "x?", {directory.get(), scratch.path(), kFatVolume}, "x?");
    EXPECT_EQ(unknown_reason, one.problem->reason);
    const GivenNames unknown = given(naming, {"plain", "._plain", engine::kNameList}, kOrdinaryVolume);
    EXPECT_TRUE(unknown.listed);
    EXPECT_EQ(std::unordered_set<std::string>{"plain"}, unknown.nameless);
    EXPECT_EQ(unknown_reason, unknown.problem_of("plain")->reason);
    EXPECT_FALSE(engine::drop_dead_names(directory.get(), kFatVolume, false));
    EXPECT_EQ("vexofileop names 1\na-\ta?\n", kit::readFile(list()));
}

TEST_F(NameLists, DeadNamesGo) {
    Naming naming(true, false, false);
    (void)given(naming, {"a?", "b?"});
    kit::writeFile(scratch / "b-", "");
    EXPECT_TRUE(engine::drop_dead_names(directory.get(), kFatVolume, false));
    EXPECT_EQ("vexofileop names 1\nb-\tb?\nend 1\n", kit::readFile(list()));
    EXPECT_FALSE(engine::drop_dead_names(directory.get(), kFatVolume, false));
    ASSERT_EQ(0, ::unlink((scratch / "b-").c_str()));
    EXPECT_TRUE(engine::drop_dead_names(directory.get(), kFatVolume, false));
    EXPECT_FALSE(kit::exists(list()));
    EXPECT_FALSE(engine::drop_dead_names(directory.get(), kFatVolume, false));
}

TEST_F(NameLists, NamesGivenOneByOneKnowWhatWentBefore) {
    Naming naming(true, false, false);
    const auto one = [&](const std::string &name) {
        const auto made = naming.of_one(from.get(), name, {directory.get(), scratch.path(), kFatVolume}, name);
        EXPECT_TRUE(made.losses.empty() && !made.problem);
        return made.name;
    };
    EXPECT_EQ("A", one("A"));
    EXPECT_EQ("a (1)", one("a"));
    EXPECT_EQ("b-", one("b?"));
    EXPECT_EQ("b- (1)", one("b-"));
    EXPECT_EQ("a (1)", one("a"));
    // What the user calls it is what it is called.
    EXPECT_EQ("c-", naming.of_one(from.get(), "b?", {directory.get(), scratch.path(), kFatVolume}, "c?").name);
    EXPECT_EQ("c?", *NameList(directory.get()).original_of("c-"));
}

} // namespace
