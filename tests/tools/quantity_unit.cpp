// Sizes and times as people write them.
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

TEST(Quantity, SizesHaveUnits) {
    for (const auto &[text, bytes] : std::vector<std::pair<std::string, int64_t>>{{"0", 0},
                                                                                  {"4096", 4096},
                                                                                  {"10B", 10},
                                                                                  {"10K", 10240},
                                                                                  {"10k", 10240},
                                                                                  {"1.5KiB", 1536},
                                                                                  {"2KB", 2000},
                                                                                  {"3M", 3145728},
                                                                                  {"1mb", 1000000},
                                                                                  {"2G", int64_t{2} << 30},
                                                                                  {"1T", int64_t{1} << 40},
                                                                                  {"1P", int64_t{1} << 50}}) {
        EXPECT_EQ(bytes, tool::parse_size("--min-size", text)) << text;
    }
    for (const char *const text : {"", "K", "-1", "1X", "10 K", "1e3", "99999P", "0x10", "nan", "inf", "1K "}) {
        try {
            (void)tool::parse_size("--min-size", text);
            ADD_FAILURE() << text;
        } catch (const tool::UsageError &error) {
            EXPECT_EQ(0U, std::string(error.what()).find("--min-size: ")) << error.what();
        }
    }
}

TEST(Quantity, MomentsAreDatesAgesAndFiles) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    constexpr timespec now{1'000'000, 500'000'000};
    for (const auto &[text, expected] :
         std::vector<std::pair<std::string, timespec>>{{"1970-01-02", {86400, 0}},
                                                       {"1970-01-02 00:01", {86460, 0}},
                                                       {"1970-01-02T00:01:05", {86465, 0}},
                                                       {"@12", {12, 0}},
                                                       {"@12.5", {12, 500'000'000}},
                                                       {"10s", {999'990, 500'000'000}},
                                                       {"0.75s", {999'999, 750'000'000}},
                                                       {"1m", {999'940, 500'000'000}},
                                                       {"1h", {996'400, 500'000'000}},
                                                       {"2d", {827'200, 500'000'000}},
                                                       {"1w", {395'200, 500'000'000}}}) {
        const timespec got = tool::parse_moment("--newer-than", text, now);
        EXPECT_EQ(expected.tv_sec, got.tv_sec) << text;
        EXPECT_EQ(expected.tv_nsec, got.tv_nsec) << text;
    }
    struct stat self {};
    ASSERT_EQ(0, ::stat("/proc/self/exe", &self));
    EXPECT_EQ(self.st_mtim.tv_sec, tool::parse_moment("--newer-than", "/proc/self/exe", now).tv_sec);
    for (const char *const text :
         {"", "yesterday", "2026-02-30", "2026-13-01", "7", "7y", "@", "@x", "-1d", "./gone"}) {
        EXPECT_THROW((void)tool::parse_moment("--newer-than", text, now), tool::UsageError) << text;
    }
    ::unsetenv("TZ");
    ::tzset();
}

TEST(Rates, AreInKibibytesWithoutAUnit) {
    EXPECT_EQ(500 * 1024, tool::parse_rate("--bwlimit", "500"));
    EXPECT_EQ(1536, tool::parse_rate("--bwlimit", "1.5"));
    EXPECT_EQ(3 << 19, tool::parse_rate("--bwlimit", "1.5m"));
    EXPECT_EQ(1'000'000, tool::parse_rate("--bwlimit", "1MB"));
    EXPECT_EQ(700, tool::parse_rate("--bwlimit", "700B"));
    EXPECT_EQ(0, tool::parse_rate("--bwlimit", "0"));
    for (const char *wrong : {"", "fast", "-1", "1.5X", "99999P", "0.0001"}) {
        EXPECT_THROW((void)tool::parse_rate("--bwlimit", wrong), tool::UsageError) << wrong;
    }
}

} // namespace
