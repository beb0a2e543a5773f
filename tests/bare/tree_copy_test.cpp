// Without the functions of open files a tree copy gives each file what belongs to it by its path.
#include "copy/copy.h"
#include "tests/bare/bare_test.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

namespace {

using bare::AttributeTrap;

class BareTreeCopy : public bare::BareTest {
  protected:
    void SetUp() override {
        BareTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        std::filesystem::create_directory(directory + "/from");
        std::ofstream(directory + "/from/file") << "data";
    }
};

TEST_F(BareTreeCopy, FunctionsOfPathsAreCalled) {
    const std::string from = directory + "/from";
    const std::string to = directory + "/to";
    const timespec times[] = {{1000000001, 0}, {1000000002, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/file").c_str(), times, 0));
    VEXOCopyOpt options = {};
    options.ownerMode = 1;
    options.copyAcl = 1;
    ASSERT_EQ(0, VEXOFileCopyDirectory(from.c_str(), to.c_str(), &options));

    std::ifstream copy(to + "/file");
    EXPECT_EQ("data", std::string(std::istreambuf_iterator<char>(copy), {}));
    struct stat status = {};
    ASSERT_EQ(0, ::stat((to + "/file").c_str(), &status));
    EXPECT_EQ(1000000002, status.st_mtim.tv_sec);
    for (const char *function : {"VLIBCFileUTime", "VEXOACLCopy", "VEXOACLArchiveCopy"}) {
        const std::string call = std::string(function) + "(" + to + "/file)";
        EXPECT_EQ(1, std::ranges::count(bare::calls, call)) << call;
    }
    const auto timesForCopy = [&](int command) {
        return std::ranges::count(AttributeTrap::calls(), bare::AttributeCall{to + "/file", -1, command});
    };
    EXPECT_EQ(1, timesForCopy(521)); // not locked
    EXPECT_EQ(1, timesForCopy(514)); // changed
}

} // namespace
