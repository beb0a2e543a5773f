// The time that is left, told of work that takes what it is said to take.
#include "tools/vexofileop/terminal/time_left.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <vector>

namespace {

using tool::TimeLeft;

struct File {
    int64_t bytes;
};

// Copies the files with so many seconds for each and for each byte, and looks ten times a second. Answers with the
// worst ratio of what was told to what was left, one way or the other, once a part of the time has gone, and while it
// was not nearly over.
double worstRatio(const std::vector<File> &files, double perFile, double perByte, double from = 0.1) {
    int64_t total = 0;
    for (const File &file : files) {
        total += file.bytes;
    }
    const double all = static_cast<double>(files.size()) * perFile + static_cast<double>(total) * perByte;
    TimeLeft left(total, static_cast<int64_t>(files.size()));
    left.add(0, 0, 0);
    double now = 0, next = 0.1, worst = 1;
    int64_t bytes = 0, number = 0;
    const auto look = [&] {
        for (; now >= next; next += 0.1) {
            left.add(now, bytes, number);
            if (now > all * from && now < all * 0.95) {
                const double told = left.seconds().value_or(1e9), is = all - now;
                worst = std::max({worst, told / is, is / std::max(told, 1e-9)});
            }
        }
    };
    for (const File &file : files) {
        now += perFile;
        look();
        for (int64_t done = 0; done < file.bytes;) {
            const int64_t part = std::min<int64_t>(1 << 20, file.bytes - done);
            done += part;
            bytes += part;
            now += static_cast<double>(part) * perByte;
            look();
        }
        ++number;
    }
    return worst;
}

constexpr double kPerFile = 0.002, kPerByte = 1e-8;

TEST(TimeLeft, NothingIsToldBeforeAnythingIsDone) {
    TimeLeft left(1000, 10);
    EXPECT_FALSE(left.seconds());
    left.add(0, 0, 0);
    EXPECT_FALSE(left.seconds());
    left.add(1, 0, 0);
    EXPECT_FALSE(left.seconds());
}

TEST(TimeLeft, FilesOfOneSize) {
    EXPECT_GT(1.1, worstRatio(std::vector<File>(20'000, {4096}), kPerFile, kPerByte));
    EXPECT_GT(1.1, worstRatio(std::vector<File>(20, {500 << 20}), kPerFile, kPerByte));
    EXPECT_GT(1.1, worstRatio(std::vector<File>(20'000, {0}), kPerFile, kPerByte));
    EXPECT_GT(1.1, worstRatio({{int64_t{20} << 30}}, kPerFile, kPerByte));
}

TEST(TimeLeft, SmallFilesAfterLargeOnes) {
    std::vector<File> files(100, {100 << 20}); // 105 seconds
    files.insert(files.end(), 50, {0});
    files.insert(files.end(), 20'000, {1000}); // 40 seconds, and hardly a byte
    files.insert(files.end(), 50, {100 << 20});
    EXPECT_GT(1.6, worstRatio(files, kPerFile, kPerByte, 0.8));
}

TEST(TimeLeft, SmallFilesBeforeLargeOnes) {
    std::vector<File> files(20'000, {1000}); // 40 seconds, and hardly a byte
    files.insert(files.begin() + 100, {100 << 20});
    files.insert(files.end(), 60, {100 << 20}); // 63 seconds
    // By the bytes alone hours would be left all through the first part.
    EXPECT_GT(1.6, worstRatio(files, kPerFile, kPerByte));
}

TEST(TimeLeft, MixedTreesAreToldWell) {
    std::vector<File> files;
    for (int number = 0; number < 3000; ++number) {
        files.push_back({number % 100 == 7 ? 60 << 20 : number % 17 * 700});
    }
    EXPECT_GT(1.3, worstRatio(files, kPerFile, kPerByte));
}

TEST(TimeLeft, SlowerWorkIsSeen) {
    TimeLeft left(1'000'000, 1000);
    int64_t files = 0;
    double now = 0;
    left.add(0, 0, 0);
    for (; files < 100; ++files) {
        left.add(now += 0.1, files * 1000, files);
    }
    for (; files < 500; ++files) {
        left.add(now += 1, files * 1000, files);
    }
    EXPECT_NEAR(500, *left.seconds(), 60);
}

} // namespace
