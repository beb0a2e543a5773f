// The C++ interface: copies and moves, their options, callbacks and results.
#include "cpp/copy.hpp"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using vexofileop::Code;
using vexofileop::CopyOptions;
using vexofileop::MoveOptions;

constexpr int64_t kBlock = 4096;

class CppCopy : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        kit::PlatformDouble::setType(scratch.path(), 2);
        kit::writeFile(from, kit::pattern(3 * kBlock));
    }
    // The source is on another volume than the rest.
    void separate() const {
        kit::PlatformDouble::setMountPath(from, "/source");
        kit::Faults::failAlways("rename", EXDEV, from);
    }
    static int64_t small(int64_t, int64_t) { return kBlock; }
    const std::string from = scratch / "from";
    const std::string to = scratch / "to";
};

TEST_F(CppCopy, GivesTheFileItsContentAndTheSourceStays) {
    const auto copied = vexofileop::copy_file(from, to);
    ASSERT_TRUE(copied) << copied.error().what();
    EXPECT_FALSE(copied->cancelled);
    EXPECT_EQ(kit::readFile(from), kit::readFile(to));
}

TEST_F(CppCopy, RelativePathCountsFromTheWorkingDirectory) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(scratch.path());
    EXPECT_TRUE(vexofileop::copy_file("from", "to"));
    std::filesystem::current_path(before);
    EXPECT_EQ(kit::readFile(from), kit::readFile(to));
}

TEST_F(CppCopy, FailureHasCodeWordsPlaceAndPath) {
    kit::writeFile(to, "old");
    const auto copied = vexofileop::copy_file(from, to);
    ASSERT_FALSE(copied);
    EXPECT_EQ(Code::destination_exists, copied.error().code());
    EXPECT_EQ("copy " + from + ": destination exists (0xA300)", copied.error().what());
    EXPECT_STREQ("copy/fileop_copy_file.c", copied.error().source_file());
    EXPECT_LT(0u, copied.error().source_line());
    EXPECT_EQ(from, copied.error().path());
    EXPECT_EQ("old", kit::readFile(to));
}

TEST_F(CppCopy, ValueThrowsTheSameError) {
    kit::writeFile(to, "old");
    try {
        (void)vexofileop::copy_file(from, to).value();
        FAIL() << "nothing was thrown";
    } catch (const vexofileop::Error &error) {
        EXPECT_EQ(Code::destination_exists, error.code());
    }
}

TEST_F(CppCopy, PathsThatNameNothingTouchNothing) {
    const std::string cut = to + std::string("\0hidden", 7);
    for (const std::string &bad : {std::string(), cut}) {
        EXPECT_EQ(Code::invalid_argument, vexofileop::copy_file(from, bad).error().code());
        EXPECT_EQ(Code::invalid_argument, vexofileop::move_file(bad, to).error().code());
        EXPECT_EQ(Code::invalid_argument, vexofileop::copy_tree(bad, to).error().code());
    }
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CppCopy, PoliciesForWhatExists) {
    kit::writeFile(to, "old");
    EXPECT_TRUE(vexofileop::copy_file(from, to, CopyOptions().keep_existing()));
    EXPECT_EQ("old", kit::readFile(to));
    EXPECT_TRUE(vexofileop::copy_file(from, to, CopyOptions().replace_existing()));
    EXPECT_EQ(kit::readFile(from), kit::readFile(to));
}

TEST_F(CppCopy, LastPolicyCounts) {
    kit::writeFile(to, "old");
    const auto never = [](const std::filesystem::path &) -> std::optional<std::filesystem::path> {
        ADD_FAILURE() << "was asked";
        return std::nullopt;
    };
    EXPECT_EQ(Code::destination_exists,
              vexofileop::copy_file(from, to, CopyOptions().replace_existing().rename_if_exists(never).fail_if_exists())
                  .error()
                  .code());
    EXPECT_EQ("old", kit::readFile(to));
}

TEST_F(CppCopy, ExistingDestinationIsAskedForAnotherName) {
    kit::writeFile(to, "old");
    std::vector<std::string> asked;
    const auto options = CopyOptions().rename_if_exists([&](const std::filesystem::path &path) {
        asked.push_back(path);
        return std::optional<std::filesystem::path>(scratch / "other");
    });
    ASSERT_TRUE(vexofileop::copy_file(from, to, options));
    EXPECT_EQ(std::vector<std::string>{to}, asked);
    EXPECT_EQ("old", kit::readFile(to));
    EXPECT_EQ(kit::readFile(from), kit::readFile(scratch / "other"));
    const auto again = vexofileop::copy_file(from, to, options);
    ASSERT_FALSE(again);
    EXPECT_EQ(Code::no_free_name, again.error().code());
}

TEST_F(CppCopy, OwnersThatTheRecordsCannotSayAreRefused) {
    EXPECT_THROW(CopyOptions().owner(0, 100), std::invalid_argument);
    EXPECT_THROW(CopyOptions().owner(1000, 0), std::invalid_argument);
    EXPECT_THROW(MoveOptions().owner(static_cast<uid_t>(-1), 100), std::invalid_argument);
}

// Without a function the records would say: what exists stays, and nothing is copied with success.
TEST_F(CppCopy, NamesOfNobodyAreRefused) {
    EXPECT_THROW(CopyOptions().rename_if_exists(nullptr), std::invalid_argument);
}

TEST_F(CppCopy, OwnerIsThatOfTheSourceOrTheOneThatIsNamed) {
    KIT_NEEDS_ROOT("to give files away");
    ASSERT_EQ(0, ::chown(from.c_str(), 1234, 2345));
    ASSERT_TRUE(vexofileop::copy_file(from, to));
    EXPECT_EQ(1234u, kit::statOf(to).st_uid);
    ASSERT_TRUE(vexofileop::copy_file(from, scratch / "named", CopyOptions().owner(3456, 4567)));
    EXPECT_EQ(3456u, kit::statOf(scratch / "named").st_uid);
    EXPECT_EQ(4567u, kit::statOf(scratch / "named").st_gid);
}

TEST_F(CppCopy, ProgressComesInOrderWithTheTotal) {
    std::vector<int64_t> offsets;
    std::vector<int64_t> totals;
    const auto options = CopyOptions().read_size(small).progress([&](const vexofileop::Progress &now) {
        EXPECT_EQ(kBlock, now.bytes);
        offsets.push_back(now.offset);
        totals.push_back(now.total);
    });
    ASSERT_TRUE(vexofileop::copy_file(from, to, options));
    EXPECT_EQ((std::vector<int64_t>{kBlock, 2 * kBlock, 3 * kBlock}), offsets);
    EXPECT_EQ(offsets, totals);
}

TEST_F(CppCopy, CancelledCopyLeavesNothingAndSaysSo) {
    int asked = 0;
    const auto copied =
        vexofileop::copy_file(from, to, CopyOptions().read_size(small).cancel([&] { return ++asked == 2; }));
    ASSERT_TRUE(copied) << copied.error().what();
    EXPECT_TRUE(copied->cancelled);
    EXPECT_EQ(2, asked) << "an answer that was given is final";
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CppCopy, ExceptionOfACallbackStopsTheCopyAndArrives) {
    int told = 0;
    const auto options = CopyOptions().read_size(small).progress([&](const vexofileop::Progress &) {
        ++told;
        throw std::runtime_error("enough");
    });
    try {
        (void)vexofileop::copy_file(from, to, options);
        FAIL() << "it did not arrive";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ("enough", error.what());
    }
    EXPECT_EQ(1, told);
    EXPECT_FALSE(kit::exists(to));
    EXPECT_TRUE(vexofileop::copy_file(from, to)) << "nothing stays of it";
}

TEST_F(CppCopy, NothingOfTheCallersIsCalledAfterAnException) {
    int asked = 0;
    int told = 0;
    const auto options = CopyOptions()
                             .read_size(small)
                             .cancel([&] { return ++asked < 0; })
                             .progress([](const vexofileop::Progress &) { throw std::runtime_error("first"); })
                             .on_failure([&](const vexofileop::Failure &) { ++told; });
    EXPECT_THROW((void)vexofileop::copy_file(from, to, options), std::runtime_error);
    EXPECT_EQ(1, asked);
    EXPECT_EQ(0, told);
}

TEST_F(CppCopy, EveryCallbackMayThrow) {
    struct Mine {};
    kit::writeFile(scratch / "there", "x");
    EXPECT_THROW((void)vexofileop::copy_file(from, to, CopyOptions().cancel([]() -> bool { throw Mine(); })), Mine);
    EXPECT_THROW((void)vexofileop::copy_file(
                     from, to, CopyOptions().read_size([](int64_t, int64_t) -> int64_t { throw Mine(); })),
                 Mine);
    EXPECT_THROW(
        (void)vexofileop::copy_file(from, scratch / "there",
                                    CopyOptions().on_failure([](const vexofileop::Failure &) { throw Mine(); })),
        Mine);
    EXPECT_THROW((void)vexofileop::copy_file(
                     from, scratch / "there",
                     CopyOptions().rename_if_exists(
                         [](const std::filesystem::path &) -> std::optional<std::filesystem::path> { throw Mine(); })),
                 Mine);
    EXPECT_FALSE(kit::exists(to));
    EXPECT_EQ("x", kit::readFile(scratch / "there"));
}

TEST_F(CppCopy, MoveThatIsStoppedByAnExceptionKeepsTheSource) {
    separate();
    const auto options =
        MoveOptions().read_size(small).progress([](const vexofileop::Progress &) { throw std::runtime_error("no"); });
    EXPECT_THROW((void)vexofileop::move_file(from, to, options), std::runtime_error);
    EXPECT_EQ(3 * kBlock, static_cast<int64_t>(kit::readFile(from).size()));
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CppCopy, CallInACallbackHasItsOwnCallbacks) {
    int outer = 0;
    int inner = 0;
    const auto options = CopyOptions().progress([&](const vexofileop::Progress &) {
        ++outer;
        const auto nested = vexofileop::copy_file(
            from, scratch / "nested", CopyOptions().progress([&](const vexofileop::Progress &) { ++inner; }));
        EXPECT_TRUE(nested);
    });
    ASSERT_TRUE(vexofileop::copy_file(from, to, options));
    EXPECT_EQ(1, outer);
    EXPECT_EQ(1, inner);
}

TEST_F(CppCopy, MoveTakesTheFileAlong) {
    const std::string content = kit::readFile(from);
    ASSERT_TRUE(vexofileop::move_file(from, to));
    EXPECT_FALSE(kit::exists(from));
    EXPECT_EQ(content, kit::readFile(to));
    const auto again = vexofileop::move_file(from, scratch / "third");
    ASSERT_FALSE(again);
    EXPECT_TRUE(again.error().is_missing()) << again.error().what();
}

TEST_F(CppCopy, FullVolumeIsAnErrorAndLeavesNothing) {
    kit::Faults::failAlways("write", ENOSPC, to);
    const auto copied = vexofileop::copy_file(from, to);
    ASSERT_FALSE(copied);
    EXPECT_EQ(Code::no_space, copied.error().code());
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CppCopy, DataBetweenDescriptors) {
    const int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    const int target = ::open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    int blocks = 0;
    EXPECT_TRUE(vexofileop::copy_data(
        source, target, 3 * kBlock,
        vexofileop::DataOptions().read_size(small).progress([&](const vexofileop::Progress &) { ++blocks; })));
    EXPECT_EQ(3, blocks);
    EXPECT_EQ(kit::readFile(from), kit::readFile(to));
    const auto stopped =
        vexofileop::copy_data(source, target, kBlock, vexofileop::DataOptions().cancel([] { return true; }));
    EXPECT_TRUE(stopped && stopped->cancelled);
    const auto failed = vexofileop::copy_data(-1, target, kBlock);
    EXPECT_EQ(Code::invalid_argument, failed.error().code());
    ::close(source);
    ::close(target);
}

TEST_F(CppCopy, NamesForFat) {
    EXPECT_EQ("/a/b-c", vexofileop::fat_path("/a/b:c").value());
    EXPECT_EQ(Code::invalid_argument, vexofileop::fat_path("/").error().code());
    const std::string longest = "/" + std::string(4094, 'a');
    EXPECT_EQ(longest, vexofileop::fat_path(longest).value());
    const auto cut = vexofileop::fat_path(longest + "a:"); // which would be the name of another file
    ASSERT_FALSE(cut.has_value());
    EXPECT_EQ(Code::name_too_long, cut.error().code());
}

class CppTree : public CppCopy {
  protected:
    void SetUp() override {
        CppCopy::SetUp();
        std::filesystem::create_directories(tree + "/sub");
        kit::writeFile(tree + "/one", "1");
        kit::writeFile(tree + "/sub/two", "22");
    }
    const std::string tree = scratch / "tree";
};

TEST_F(CppTree, IsCopiedWhole) {
    const auto copied = vexofileop::copy_tree(tree, to);
    ASSERT_TRUE(copied) << copied.error().what();
    EXPECT_TRUE(copied->complete());
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
}

TEST_F(CppTree, EntryThatFailsIsCountedAndTold) {
    std::filesystem::create_directories(to);
    kit::writeFile(to + "/one", "old");
    std::vector<std::string> told;
    const auto copied = vexofileop::copy_tree(
        tree, to, CopyOptions().on_failure([&](const vexofileop::Failure &failure) { told.push_back(failure.path); }));
    ASSERT_TRUE(copied);
    EXPECT_FALSE(copied->complete());
    EXPECT_EQ(1u, copied->failed);
    ASSERT_TRUE(copied->first);
    EXPECT_EQ(Code::destination_exists, copied->first->code);
    EXPECT_EQ(std::vector<std::string>{tree + "/one"}, told);
    EXPECT_EQ("old", kit::readFile(to + "/one"));
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
}

TEST_F(CppTree, StopOnErrorIsAFailure) {
    kit::Faults::failAlways("open", EACCES, tree + "/one");
    const auto copied = vexofileop::copy_tree(tree, to, CopyOptions().stop_on_error());
    EXPECT_FALSE(copied);
}

TEST_F(CppTree, CancelAndExceptionsStopTheWalk) {
    const auto copied = vexofileop::copy_tree(tree, to, CopyOptions().cancel([] { return true; }));
    ASSERT_TRUE(copied);
    EXPECT_TRUE(copied->cancelled);
    EXPECT_FALSE(copied->complete());
    int blocks = 0;
    EXPECT_THROW(
        (void)vexofileop::copy_tree(tree, scratch / "second", CopyOptions().progress([&](const vexofileop::Progress &) {
            ++blocks;
            throw std::runtime_error("stop");
        })),
        std::runtime_error);
    EXPECT_EQ(1, blocks);
}

TEST_F(CppTree, EntriesGetTheNamesThatTheyAreGiven) {
    const auto options = CopyOptions().entry_names(
        [](const std::string &name) { return name == "one" ? std::optional<std::string>("first") : std::nullopt; });
    ASSERT_TRUE(vexofileop::copy_tree(tree, to, options));
    EXPECT_EQ("1", kit::readFile(to + "/first"));
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
}

TEST_F(CppTree, NameThatLeadsOutOfTheTreeIsRefused) {
    for (const std::string &name : {std::string("../out"), std::string(".."), std::string(), std::string("a\0b", 3)}) {
        const auto options = CopyOptions().entry_names([&](const std::string &) { return std::optional(name); });
        EXPECT_THROW((void)vexofileop::copy_tree(tree, to, options), std::invalid_argument) << name;
        EXPECT_FALSE(kit::exists(scratch / "out"));
    }
}

TEST_F(CppTree, MoveTakesItAlong) {
    ASSERT_TRUE(vexofileop::move_tree(tree, to));
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
}

TEST_F(CppTree, RelocationKeepsOrRemovesItsSource) {
    std::filesystem::create_directories(to);
    kit::writeFile(to + "/old", "old");
    const auto kept = vexofileop::relocate_tree(tree, to, vexofileop::SourceAfter::keep);
    ASSERT_TRUE(kept) << kept.error().what();
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
    EXPECT_FALSE(kit::exists(to + "/old"));
    EXPECT_EQ("22", kit::readFile(tree + "/sub/two"));
    const auto stopped =
        vexofileop::relocate_tree(tree, to, vexofileop::SourceAfter::remove, CopyOptions().cancel([] { return true; }));
    ASSERT_TRUE(stopped) << stopped.error().what();
    EXPECT_TRUE(stopped->cancelled);
    EXPECT_TRUE(kit::exists(tree));
    ASSERT_TRUE(vexofileop::relocate_tree(tree, to, vexofileop::SourceAfter::remove));
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
}

TEST_F(CppCopy, TextOfAnErrorIsOneLine) {
    const vexofileop::Error error(Code::quota, 0, "copy", "/a\nb\x1b\\");
    EXPECT_STREQ("copy /a\\x0ab\\x1b\\\\: disk quota exceeded (0x2400)", error.what());
    EXPECT_EQ("/a\nb\x1b\\", error.path());
    EXPECT_STREQ("read /x: No such file or directory", vexofileop::Error(Code::none, ENOENT, "read", "/x").what());
}

TEST_F(CppCopy, ResultsGiveTheirValueOrAnother) {
    vexofileop::Result<std::string> good(std::string("value"));
    const vexofileop::Result<std::string> bad(vexofileop::Error(Code::read, 0, "read", "/x"));
    EXPECT_EQ("value", good.value_or("other"));
    EXPECT_EQ("other", bad.value_or("other"));
    EXPECT_EQ(5u, good->size());
    EXPECT_EQ("value", std::move(good).value());
    EXPECT_THROW((void)bad.value(), vexofileop::Error);
    EXPECT_NO_THROW(vexofileop::Result<void>().value());
}

} // namespace
