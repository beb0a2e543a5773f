// Trees as deep as paths can be.
#include "tests/copy/tree_support.h"

#include <sys/resource.h>

namespace tree {
namespace {

class TreeDepth : public BothFamilies {
  protected:
    // Both paths stay under the limit down to the last level.
    static constexpr size_t kLongest = 4090;
    static std::string makeDeep(std::string path) {
        while (path.size() + 2 <= kLongest) {
            path += "/d";
            EXPECT_EQ(0, ::mkdir(path.c_str(), 0755));
        }
        return path;
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeDepth, kFamilies, familyName);

TEST_P(TreeDepth, LongestPathsAreCopiedOnAnOrdinaryStack) {
    const std::string deepest = makeDeep(request.src);
    request.dst = to + "/two"; // no longer than the source's
    EXPECT_TRUE(kit::holdsInChild([&] {
        rlimit descriptors{};
        ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &descriptors));
        descriptors.rlim_cur = descriptors.rlim_max = std::max<rlim_t>(descriptors.rlim_max, 8192);
        if (::setrlimit(RLIMIT_NOFILE, &descriptors) != 0) {
            ADD_FAILURE() << "the limit of descriptors cannot be raised: " << std::strerror(errno);
        }
        const rlimit stack{8UL << 20, 8UL << 20};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_STACK, &stack));
        request.stopOnError = true;
        EXPECT_EQ(0, copy()) << std::hex << VLIBCErrGet() << "\n" << kit::Log::all().substr(0, 500);
        EXPECT_TRUE(kit::exists(request.dst + deepest.substr(request.src.size())));
    }));
}

TEST_P(TreeDepth, RunningOutOfDescriptorsIsAFailedEntryOnly) {
    std::string path = request.src;
    for (int level = 0; level < 40; ++level) {
        path += "/d";
        makeDirectory(path);
    }
    putFile("file");
    EXPECT_TRUE(kit::holdsInChild([&] {
        rlimit descriptors{};
        ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &descriptors));
        descriptors.rlim_cur = 30;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &descriptors));
        EXPECT_EQ(0, copy());
        EXPECT_FALSE(callbacks.reports.empty());
        EXPECT_EQ("data", kit::readFile(dst("file")));
    }));
}

} // namespace
} // namespace tree
