// Which entry a name of another volume has become. A volume that folds letter cases is played by a directory that finds
// an entry under a name which it does not list: a second name of the file that the listing is not told of.
#include "tools/engine/compare/name_match.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tools/engine/walk/descriptor.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using engine::Listing;
using engine::NameMatch;

constexpr int kFatKind = 0, kOther = 1;

class NameMatchTest : public ::testing::Test {
  protected:
    static Listing listing(const std::vector<std::string> &names) {
        Listing made;
        for (const std::string &name : names) {
            made.items.push_back({name, DT_REG});
        }
        return made;
    }
    void make(const std::string &name) const { kit::writeFile(scratch / name, name); }
    NameMatch match(int type, const std::vector<std::string> &there, const std::vector<std::string> &names) const {
        return {directory.get(), type, listing(there), listing(names)};
    }

    kit::ScratchDirectory scratch;
    const engine::Descriptor directory{::open(scratch.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(NameMatchTest, AnEntryIsListedUnderTheNameThatItsMakerGaveIt) {
    make("FILE");
    ASSERT_EQ(0, ::link((scratch / "FILE").c_str(), (scratch / "File").c_str()));
    ASSERT_EQ(0, ::link((scratch / "FILE").c_str(), (scratch / "other").c_str()));
    NameMatch names = match(kOther, {"FILE", "other"}, {"File"});
    const NameMatch::Found found = names.find("File");
    EXPECT_TRUE(found.there);
    EXPECT_EQ("FILE", found.name);
    EXPECT_FALSE(found.clash);
    EXPECT_TRUE(names.is_taken("FILE"));
    EXPECT_FALSE(names.is_taken("other"));
}

TEST_F(NameMatchTest, OfTwoNamesThatBecomeOneTheSameNameHasIt) {
    make("a-");
    NameMatch names = match(kFatKind, {"a-"}, {"a*", "a-", "a?"});
    EXPECT_EQ("a-", names.find("a*").clash);
    EXPECT_FALSE(names.find("a-").clash);
    EXPECT_EQ("a-", names.find("a?").clash);
}

TEST_F(NameMatchTest, OfTwoOthersTheFirstHasIt) {
    make("a-");
    NameMatch names = match(kFatKind, {"a-"}, {"a*", "a?"});
    const NameMatch::Found first = names.find("a*");
    EXPECT_TRUE(first.there);
    EXPECT_FALSE(first.clash);
    EXPECT_EQ("a-", first.name);
    EXPECT_EQ("a*", names.find("a?").clash);
}

// The letter cases show whose it is.
TEST_F(NameMatchTest, OfTwoThatDifferInLetterCasesTheOneThatMadeItHasIt) {
    make("a-");
    ASSERT_EQ(0, ::link((scratch / "a-").c_str(), (scratch / "A-").c_str()));
    NameMatch names = match(kFatKind, {"a-"}, {"A*", "a*"});
    EXPECT_EQ("a*", names.find("A*").clash);
    const NameMatch::Found made = names.find("a*");
    EXPECT_FALSE(made.clash);
    EXPECT_EQ("a-", made.name);
}

TEST_F(NameMatchTest, WhatIsNotThereIsNamedAsItWouldBe) {
    NameMatch names = match(kFatKind, {}, {"a*"});
    const NameMatch::Found found = names.find("a*");
    EXPECT_FALSE(found.there);
    EXPECT_FALSE(found.tooLong);
    EXPECT_EQ("a-", found.name);
    EXPECT_FALSE(names.is_taken("a-"));
}

TEST_F(NameMatchTest, ANameMayBeTooLongForTheVolume) {
    EXPECT_TRUE(match(kOther, {}, {}).find(std::string(300, 'n')).tooLong);
}

} // namespace
