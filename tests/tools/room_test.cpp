// What a plan says that a run needs, held against what the volume has less afterwards.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;

struct Room {
    int64_t bytes = 0, inodes = 0;
};

int64_t member(const std::string &json, const std::string &name) {
    const size_t at = json.find("\"" + name + "\":");
    return at == std::string::npos ? -1 : std::strtoll(json.c_str() + at + name.size() + 3, nullptr, 10);
}

Room planned(Arguments arguments, const char *what = "needed") {
    arguments.insert(arguments.begin(), {"plan", "--json"});
    std::swap(arguments[1], arguments[2]);
    const ToolResult result = runTool(arguments);
    const size_t at = result.out.find("{\"event\":\"room\"");
    EXPECT_NE(std::string::npos, at) << result.out << result.err;
    const std::string room = at == std::string::npos ? "" : result.out.substr(at);
    return {member(room, std::string("bytes_") + what), member(room, std::string("inodes_") + what)};
}

// Of this volume alone: another one of the machine may answer nobody.
void writeOut(const std::string &path) {
    const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(0, ::syncfs(directory));
    ::close(directory);
}

Room used(const std::string &path) {
    writeOut(path);
    struct statvfs volume {};
    EXPECT_EQ(0, ::statvfs(path.c_str(), &volume));
    return {static_cast<int64_t>((volume.f_blocks - volume.f_bfree) * volume.f_frsize),
            static_cast<int64_t>(volume.f_files - volume.f_ffree)};
}

// `slack`: what the volume takes for itself; none: the plan is exact.
struct Kind {
    const char *name;
    int64_t slack, inodes;
};
constexpr int64_t kBlock = 4096, kMebibyte = 1 << 20;

class RoomOfAPlan : public kit::Behaviour, public ::testing::WithParamInterface<Kind> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("to mount volumes");
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    }
    static kit::Volume made() {
        const std::string kind = GetParam().name;
        return kind == "tmpfs" ? kit::Volume::tmpfs(512 * kMebibyte) : kit::Volume::loop(kind, 512 * kMebibyte);
    }
    // What is copied needs as much as it takes.
    void expect(const std::string &volume, const Arguments &options = {}) const {
        Arguments arguments = {"copy", "-r"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), {tree, volume});
        const Room needed = planned(arguments), before = used(volume);
        ASSERT_EQ(0, runTool(arguments).status);
        const Room after = used(volume);
        const auto &[name, slack, inodes] = GetParam();
        EXPECT_NEAR(static_cast<double>(after.bytes - before.bytes), static_cast<double>(needed.bytes),
                    static_cast<double>(slack));
        if (inodes >= 0) {
            EXPECT_NEAR(static_cast<double>(after.inodes - before.inodes), static_cast<double>(needed.inodes),
                        static_cast<double>(inodes));
        }
    }

    const std::string tree = scratch / "tree";
};

TEST_P(RoomOfAPlan, OfFilesAndDirectories) {
    KIT_REQUIRE(volume, made());
    for (int number = 0; number < 20; ++number) {
        const std::string directory = tree + "/d" + std::to_string(number);
        ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
        kit::writeFile(directory + "/file", kit::pattern(static_cast<size_t>(number) * 50'000 + 1));
    }
    expect(volume.path());
}

TEST_P(RoomOfAPlan, OfHolesAndLinks) {
    KIT_REQUIRE(volume, made());
    kit::writeSparse(tree + "/sparse", 100 * kMebibyte, {{40 * kMebibyte, 3 * kMebibyte}});
    kit::writeFile(tree + "/first", kit::pattern(5 << 20));
    ASSERT_EQ(0, ::link((tree + "/first").c_str(), (tree + "/second").c_str()));
    kit::writeFile(tree + "/few", "few bytes"); // of which each name is an inode on some volumes
    for (int number = 0; number < 10; ++number) {
        ASSERT_EQ(0, ::link((tree + "/few").c_str(), (tree + "/name" + std::to_string(number)).c_str()));
    }
    ASSERT_EQ(0, ::symlink("short", (tree + "/link").c_str()));
    ASSERT_EQ(0, ::symlink(std::string(200, 'x').c_str(), (tree + "/far").c_str()));
    expect(volume.path());
    ASSERT_EQ(0, runTool({"remove", "-r", volume / "tree"}).status);
    expect(volume.path(), {"--no-hard-links"});
}

// The "@eaDir" that is made for a store, and what services keep in it.
TEST_P(RoomOfAPlan, OfWhatIsKeptBesideFiles) {
    KIT_REQUIRE(volume, made());
    for (int number = 0; number < 5; ++number) {
        const std::string directory = tree + "/d" + std::to_string(number), file = directory + "/file";
        ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
        kit::writeFile(file, "content");
        ASSERT_EQ(0, runTool({"ea", "set", file, "com.example.note", std::string(5000, 'n')}).status);
        ASSERT_EQ(0, ::mkdir((directory + "/@eaDir/file").c_str(), 0755));
        kit::writeFile(directory + "/@eaDir/file/thumb", kit::pattern(60'000));
    }
    expect(volume.path());
}

TEST_P(RoomOfAPlan, OfAFileWrittenInPlaceIsWhatItGrowsBy) {
    KIT_REQUIRE(volume, made());
    kit::writeFile(volume / "file", kit::pattern(8 << 20));
    kit::writeFile(tree + "/file", kit::pattern(11 << 20));
    const Room grown = planned({"copy", "-f", "--in-place", tree + "/file", volume / "file"});
    EXPECT_EQ(3 * kMebibyte, grown.bytes);
    EXPECT_EQ(0, grown.inodes);
    const Room before = used(volume.path());
    ASSERT_EQ(0, runTool({"copy", "-f", "--in-place", tree + "/file", volume / "file"}).status);
    EXPECT_NEAR(static_cast<double>(3 * kMebibyte), static_cast<double>(used(volume.path()).bytes - before.bytes),
                static_cast<double>(GetParam().slack));
    kit::writeFile(tree + "/file", kit::pattern(2 << 20));
    EXPECT_EQ(0, planned({"copy", "-f", "--in-place", tree + "/file", volume / "file"}).bytes);
    // Beside what it replaces it takes all of it.
    EXPECT_EQ(2 * kMebibyte, planned({"copy", "-f", tree + "/file", volume / "file"}).bytes);
}

// Room for one of the two alone.
TEST_P(RoomOfAPlan, IsThereForAReplacementInPlaceAndNotForOneBeside) {
    KIT_REQUIRE(volume, made());
    kit::writeFile(tree + "/file", kit::pattern(64 << 20, 2));
    kit::writeFile(volume / "file", kit::pattern(64 << 20));
    writeOut(volume.path());
    const Room free = planned({"copy", "-f", tree + "/file", volume / "file"}, "free");
    const int filler = ::open((volume / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ::posix_fallocate(filler, 0, free.bytes - 40 * kMebibyte));
    ::close(filler);
    writeOut(volume.path());
    for (const Arguments &command : {Arguments{"plan", "copy"}, {"copy"}}) {
        Arguments beside = command, inPlace = command;
        beside.insert(beside.end(), {"-f", tree + "/file", volume / "file"});
        inPlace.insert(inPlace.end(), {"-f", "--in-place", tree + "/file", volume / "file"});
        EXPECT_EQ(2, runTool(beside).status) << command.front();
        EXPECT_EQ(0, runTool(inPlace).status) << command.front();
    }
}

TEST_P(RoomOfAPlan, OfAClone) {
    const std::string kind = GetParam().name;
    if (kind == "tmpfs" || kind == "ext4") {
        return; // of which no file is cloned
    }
    KIT_REQUIRE(volume, made());
    kit::writeFile(volume / "file", kit::pattern(20 << 20));
    const Room needed = planned({"copy", "--clone=always", volume / "file", volume / "copy"}),
               before = used(volume.path());
    EXPECT_GT(kMebibyte, needed.bytes);
    ASSERT_EQ(0, runTool({"copy", "--clone=always", volume / "file", volume / "copy"}).status);
    EXPECT_NEAR(static_cast<double>(needed.bytes), static_cast<double>(used(volume.path()).bytes - before.bytes),
                static_cast<double>(GetParam().slack));
}

constexpr Kind kKinds[] = {{"tmpfs", 0, 4}, {"ext4", kBlock, 0}, {"xfs", kMebibyte / 2, 64}, {"btrfs", kMebibyte, -1}};
INSTANTIATE_TEST_SUITE_P(Volumes, RoomOfAPlan, ::testing::ValuesIn(kKinds),
                         [](const auto &kind) { return std::string(kind.param.name); });

} // namespace
