// A creation time that a first look at the source has missed, for a read that failed once.
#include "platform/core.h"
#include "tests/kit/scratch.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/walk/descriptor.h"

#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

using namespace engine;

constexpr uint32_t kFields = VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME;

VLIBCStat looked_at(const std::string &path) {
    VLIBCStat found{};
    EXPECT_EQ(0, VLIBCFileLStat(path.c_str(), kFields, &found));
    return found;
}

TEST(MissedCreation, IsToldAndThenGiven) {
    const kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to";
    ASSERT_EQ(0, ::mkdir(from.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
    const timespec old[] = {{1'600'000'000, 0}, {1'600'000'000, 0}, {1'000'000'000, 0}};
    if (VLIBCFileUTime(from.c_str(), 3, old) != 0 || looked_at(from).createTime.tv_sec != 1'000'000'000) {
        GTEST_SKIP() << "attributes of the file have no form";
    }
    const Descriptor directory = open_directory(AT_FDCWD, scratch.path());
    const Side source{directory.get(), "from", volume_facts(directory.get())};
    const Side copy{directory.get(), "to", volume_facts(directory.get())};
    VLIBCStat before = looked_at(from);
    before.createTime = {std::time(nullptr), 0};
    const timespec missed[] = {old[0], old[1], before.createTime};
    ASSERT_EQ(0, VLIBCFileUTime(to.c_str(), 3, missed));
    const CompareOptions options{.before = &before};
    EXPECT_FALSE(compare_entries(source, copy, options).empty());
    EXPECT_TRUE(complete_copy(source, copy, options).empty());
    EXPECT_EQ(1'000'000'000, looked_at(to).createTime.tv_sec);
}

} // namespace
