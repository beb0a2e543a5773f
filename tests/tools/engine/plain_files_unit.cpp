// Files that are passed over after one look are the same in everything; whatever one has more, or not as the other, has
// them compared.
#include "tools/engine/compare/plain_files.h"

#include "platform/core.h"
#include "tests/kit/scratch.h"
#include "tools/engine/walk/descriptor.h"

#include <climits>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Names = std::vector<std::string>;

// Two directories, each with a file "f" of which there is nothing to tell.
struct Pair {
    Pair() {
        constexpr timespec times[] = {{1'600'000'000, 5}, {1'600'000'000, 7}};
        VLIBCStat found{};
        for (const std::string &directory : {one, other}) {
            EXPECT_EQ(0, ::mkdir(directory.c_str(), 0755));
            kit::writeFile(directory + "/f", "content");
            EXPECT_EQ(0, ::utimensat(AT_FDCWD, (directory + "/f").c_str(), times, 0));
        }
        EXPECT_EQ(0, VLIBCFileStat((one + "/f").c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found));
        give({times[0], times[1], found.createTime});
    }
    void give(const std::vector<timespec> &times) const { EXPECT_EQ(0, VLIBCFileUTime(copy.c_str(), 3, times.data())); }
    VLIBCStat status() const {
        VLIBCStat found{};
        EXPECT_EQ(0, VLIBCFileStat(copy.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found));
        return found;
    }
    Names rest() const {
        const engine::Descriptor first(::open(one.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const engine::Descriptor second(::open(other.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const engine::VolumeFacts a = engine::volume_facts(first.get(), 1), b = engine::volume_facts(second.get(), 1);
        return engine::files_to_compare({first.get(), second.get(), a, b}, {"f"});
    }

    kit::ScratchDirectory scratch;
    const std::string one = scratch / "one", other = scratch / "other", file = one + "/f", copy = other + "/f";
};

std::string working_directory() {
    char path[PATH_MAX] = "";
    return ::getcwd(path, sizeof path) == nullptr ? "" : path;
}

TEST(PlainFiles, ThoseWithoutADifferenceArePassedOver) {
    const std::string before = working_directory();
    EXPECT_EQ(Names{}, Pair().rest());
    EXPECT_EQ(before, working_directory());
}

TEST(PlainFiles, EachDifferenceHasThemCompared) {
    struct Change {
        const char *what;
        std::function<void(const Pair &)> make;
    };
    const Change changes[] = {
        {"size", [](const Pair &pair) { EXPECT_EQ(0, ::truncate(pair.copy.c_str(), 5)); }},
        {"mode", [](const Pair &pair) { EXPECT_EQ(0, ::chmod(pair.copy.c_str(), 0600)); }},
        {"set-user-id", [](const Pair &pair) { EXPECT_EQ(0, ::chmod(pair.file.c_str(), 04644)); }},
        {"modification time",
         [](const Pair &pair) {
             const VLIBCStat was = pair.status();
             pair.give({was.st.st_atim, {was.st.st_mtim.tv_sec, 8}, was.createTime});
         }},
        {"creation time",
         [](const Pair &pair) {
             const VLIBCStat was = pair.status();
             pair.give({was.st.st_atim, was.st.st_mtim, {1000, 0}});
         }},
        {"attribute", [](const Pair &pair) { kit::setAttribute(pair.file, "user.note", "n"); }},
        {"second name",
         [](const Pair &pair) { EXPECT_EQ(0, ::link(pair.file.c_str(), (pair.one + "/second").c_str())); }},
        {"hole",
         [](const Pair &pair) {
             kit::writeSparse(pair.file, 1 << 20, {{0, 4096}});
             kit::writeSparse(pair.copy, 1 << 20, {{0, 4096}});
             const VLIBCStat was = pair.status();
             const timespec times[] = {was.st.st_atim, was.st.st_mtim};
             EXPECT_EQ(0, ::utimensat(AT_FDCWD, pair.file.c_str(), times, 0));
         }},
        {"nothing there", [](const Pair &pair) { EXPECT_EQ(0, ::unlink(pair.copy.c_str())); }},
        {"link",
         [](const Pair &pair) {
             EXPECT_EQ(0, ::unlink(pair.copy.c_str()));
             EXPECT_EQ(0, ::symlink("g", pair.copy.c_str()));
         }},
        {"store of the source", [](const Pair &pair) { EXPECT_EQ(0, ::mkdir((pair.one + "/@eaDir").c_str(), 0777)); }},
        {"store of the copy", [](const Pair &pair) { EXPECT_EQ(0, ::mkdir((pair.other + "/@eaDir").c_str(), 0777)); }},
    };
    for (const Change &change : changes) {
        const Pair pair;
        change.make(pair);
        EXPECT_EQ(Names{"f"}, pair.rest()) << change.what;
    }
}

} // namespace
