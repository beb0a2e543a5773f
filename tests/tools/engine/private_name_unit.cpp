// Names for what is under way, and what is removed of those that nobody will finish.
#include "tests/kit/scratch.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/private_name.h"

#include <fcntl.h>
#include <fmt/format.h>
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
    std::string of(pid_t process, const char *rest) const { return fmt::format(".vexofileop-{}{}", process, rest); }
    void put(const std::string &name) const { kit::writeFile(scratch / name, "x"); }

    kit::ScratchDirectory scratch;
    const Descriptor directory = open_directory(AT_FDCWD, scratch.path());
    const pid_t dead = gone();
};

TEST_F(PrivateNames, EachIsAnotherAndKnown) {
    const std::string one = next_private_name(), other = next_private_name();
    EXPECT_NE(one, other);
    EXPECT_TRUE(is_private_name(one));
    EXPECT_TRUE(one.starts_with(of(::getpid(), "-"))) << one;
    EXPECT_EQ(one, without_suffix(one + ".store"));
    EXPECT_FALSE(is_private_name("vexofileop-1-1"));
    EXPECT_EQ(NameKind::system, name_kind(scratch.path(), one, 1));
    EXPECT_EQ(NameKind::system, name_kind(scratch.path(), ".vexofileop-relocation", 1));
}

TEST_F(PrivateNames, LeftOversAreThoseOfProcessesThatAreGone) {
    const std::string left = of(dead, "-1"), note = of(dead, "-1.store");
    for (const std::string &name :
         {left, note, of(::getpid(), "-1"), of(1, "-1"), of(dead, "-1x"), of(dead, "-"), of(dead, "--1"), of(dead, ""),
          of(dead, "-0"), std::string(".vexofileop-0-1"), std::string(".vexofileop--5-1"),
          std::string(".vexofileop-99999999999999999999-1"), std::string(".vexofileop-state"), std::string("file")}) {
        put(name);
    }
    EXPECT_EQ((std::vector<std::string>{left, note}), left_overs_in(directory.get()));
}

TEST_F(PrivateNames, LeftOversGoWithoutFollowingLinks) {
    const std::string tree = of(dead, "-1"), link = of(dead, "-2");
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
