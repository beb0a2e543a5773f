// What a tree copy looks up once for all files of a directory, and how it notices where that does not hold.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"

#include "tests/kit/volumes.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

std::vector<std::pair<std::string, uint32_t>> reported; // by the callback

class TreeLookups : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        reported.clear();
        ASSERT_EQ(0, ::mkdir(from.c_str(), 0755));
        for (const char *name : {"/one", "/two", "/three"}) {
            kit::writeFile(from + name, name);
        }
        options.overwrite = 1;
        options.ownerMode = 1;
        options.stopOnError = 1;
        options.errReport = [](const char *path, uint32_t code) { reported.emplace_back(path, code); };
    }
    int copy() { return VEXOFileCopyDirectory(from.c_str(), to.c_str(), &options); }

    std::string from = scratch / "from";
    std::string to = scratch / "to";
    VEXOCopyOpt options = {};
};

TEST_F(TreeLookups, TypesAreAskedForOnceADirectory) {
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const int before = kit::Faults::count("VEXOGetFSType");
    kit::Faults::reset();
    for (int number = 0; number < 20; ++number) {
        kit::writeFile(from + "/more" + std::to_string(number), "more");
    }
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(before, kit::Faults::count("VEXOGetFSType"));
    EXPECT_EQ("more", kit::readFile(to + "/more7"));
}

TEST_F(TreeLookups, FileThatVanishedDoesNotEndTheWalk) {
    kit::Faults::add(
        {.function = "open", .path = "/from/two", .before = [this] { ::unlink((from + "/two").c_str()); }});
    EXPECT_EQ(0, copy());
    EXPECT_EQ((std::vector<std::pair<std::string, uint32_t>>{{from + "/two", 0x0600}}), reported);
    EXPECT_EQ("/one", kit::readFile(to + "/one"));
    EXPECT_EQ("/three", kit::readFile(to + "/three"));
    EXPECT_NE(0, ::access((to + "/two").c_str(), F_OK));
}

TEST_F(TreeLookups, DirectoryWhoseTypeIsUnknownLeavesItToItsFiles) {
    // The first two look-ups are those of the whole tree.
    kit::Faults::fail("VEXOGetFSType", EIO, {}, 2);
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ("/two", kit::readFile(to + "/two"));
}

TEST_F(TreeLookups, ExistingDestinationIsReplacedAndItselfRecognised) {
    ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
    kit::writeFile(to + "/one", "longer than what comes");
    ASSERT_EQ(0, ::link((from + "/two").c_str(), (to + "/two").c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_EQ("/one", kit::readFile(to + "/one"));
    EXPECT_EQ("/two", kit::readFile(from + "/two")) << "copied onto itself";
    EXPECT_TRUE(reported.empty());
}

TEST_F(TreeLookups, DestinationThatCannotBeMadeIsToldAsBefore) {
    const std::pair<int, uint32_t> rows[] = {{EIO, 0x6C00}, {EACCES, 0x0300}, {EROFS, 0x8400}, {ENOSPC, 0x2900}};
    for (const auto &[number, code] : rows) {
        reported.clear();
        kit::Faults::failAlways("open", number, "/to/one");
        EXPECT_FAILS(copy(), code);
        kit::Faults::reset();
        ASSERT_EQ(1u, reported.size());
        EXPECT_EQ(from + "/one", reported[0].first);
        EXPECT_EQ(code, reported[0].second);
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_F(TreeLookups, FailedCopyLeavesNoNewDestination) {
    kit::Faults::fail("write", ENOSPC, "/to/one");
    EXPECT_FAILS(copy(), 0x2900);
    EXPECT_NE(0, ::access((to + "/one").c_str(), F_OK));
}

TEST_F(TreeLookups, FileOfAnotherVolumeIsAskedForItsOwnType) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    kit::writeFile(volume / "file", "elsewhere");
    ASSERT_EQ(0, ::mount((volume / "file").c_str(), (from + "/two").c_str(), nullptr, MS_BIND, nullptr));
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const std::vector<std::string> calls = kit::Faults::recorded();
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "VEXOGetFSType(" + from + "/two)"));
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), "VEXOGetFSType(" + from + "/one)"));
    EXPECT_EQ("elsewhere", kit::readFile(to + "/two"));
    EXPECT_EQ(0, ::umount((from + "/two").c_str()));
}

} // namespace
