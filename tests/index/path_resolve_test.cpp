// Making paths absolute, and resolving those under the homes.
#include "index/index.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/private_root.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char kUntouched = 'Z';

// Homes of two users, one with a link to the other's folder.
void makeHomes(const kit::PrivateRoot &root) {
    root.makeDirectory("/var/services/homes/alice/photo");
    root.makeDirectory("/var/services/homes/bob/photo");
    root.makeDirectory("/desk");
    ASSERT_EQ(0, ::symlink("../bob/photo", "/var/services/homes/alice/shared"));
    ASSERT_EQ(0, ::symlink("/var/services/homes/alice", "/desk/home"));
    ASSERT_EQ(0, ::symlink("loop", "/var/services/homes/loop"));
}

std::string realPath(const std::string &path) {
    std::string resolved(PATH_MAX, '\0');
    return ::realpath(path.c_str(), resolved.data()) == nullptr ? std::string() : std::string(resolved.c_str());
}

// The answer as the rules give it, for a buffer large enough.
struct Expected {
    std::string text;
    bool isPathItself;
};
Expected expectedFor(const std::string &path, const std::string &directory) {
    const bool isAbsolute = path.starts_with("/");
    const std::string name = !isAbsolute && path.size() >= 3 && path.starts_with("./") ? path.substr(2) : path;
    const std::string whole = isAbsolute ? path : directory + "/" + name;
    const std::string resolved = whole.starts_with("/var/services/homes/") ? realPath(whole) : std::string();
    return {resolved.empty() ? whole : resolved, isAbsolute && resolved.empty()};
}

// Resolves with a buffer of `size` bytes and checks the result, its terminator and every byte behind the buffer.
void check(const std::string &path, const std::string &directory, size_t size) {
    const Expected expected = expectedFor(path, directory);
    std::string buffer(size + 64, kUntouched);
    const char *result = VEXOPathResolve(path.c_str(), buffer.data(), static_cast<int>(size));
    const std::string where = "\"" + path + "\" in " + directory + ", " + std::to_string(size) + " bytes";
    ASSERT_NE(nullptr, result) << where;
    EXPECT_EQ(expected.isPathItself, result == path.c_str()) << where;
    EXPECT_EQ(!expected.isPathItself, result == buffer.data()) << where;
    EXPECT_EQ(expected.text.substr(0, size - 1), buffer.c_str()) << where; // of a path given back, the copy
    EXPECT_EQ(std::string(64, kUntouched), buffer.substr(size)) << where;
}

class PathResolve : public kit::Behaviour {};

TEST_F(PathResolve, NullAndEmptyBuffersGiveNull) {
    std::string buffer(8, kUntouched);
    EXPECT_EQ(nullptr, VEXOPathResolve(nullptr, buffer.data(), 8));
    EXPECT_EQ(nullptr, VEXOPathResolve("/a", nullptr, 8));
    EXPECT_EQ(nullptr, VEXOPathResolve("/a", buffer.data(), 0));
    EXPECT_EQ(nullptr, VEXOPathResolve("/a", buffer.data(), -1));
    EXPECT_EQ(nullptr, VEXOPathResolve("a", buffer.data(), INT_MIN));
    EXPECT_EQ(std::string(8, kUntouched), buffer);
}

TEST_F(PathResolve, AbsolutePathOutsideTheHomesIsGivenBack) {
    std::array<char, PATH_MAX> out{};
    const char *path = "/volume1/./a/../b//c";
    EXPECT_EQ(path, VEXOPathResolve(path, out.data(), out.size()));
    EXPECT_STREQ(path, out.data());
}

TEST_F(PathResolve, RelativePathsAreSpelledFromTheWorkingDirectory) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.makeDirectory("/desk/sub");
    ASSERT_EQ(0, ::chdir("/desk/sub"));
    const std::pair<const char *, const char *> rows[] = {
        {"name", "/desk/sub/name"},
        {"./name", "/desk/sub/name"},
        {"./n", "/desk/sub/n"},
        {"./", "/desk/sub/./"},
        {".", "/desk/sub/."},
        {"..", "/desk/sub/.."},
        {"../x", "/desk/sub/../x"},
        {".name", "/desk/sub/.name"},
        {"./.", "/desk/sub/."},
        {".//x", "/desk/sub//x"},
        {"././x", "/desk/sub/./x"},
        {"", "/desk/sub/"},
        {"./line\nfeed", "/desk/sub/line\nfeed"},
    };
    for (const auto &[path, expected] : rows) {
        std::array<char, PATH_MAX> out{};
        EXPECT_EQ(out.data(), VEXOPathResolve(path, out.data(), out.size())) << path;
        EXPECT_STREQ(expected, out.data()) << path;
    }
}

TEST_F(PathResolve, PathsUnderTheHomesAreResolved) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHomes(root);
    std::array<char, PATH_MAX> out{};
    EXPECT_EQ(out.data(), VEXOPathResolve("/var/services/homes/alice/shared", out.data(), out.size()));
    EXPECT_STREQ("/var/services/homes/bob/photo", out.data());

    ASSERT_EQ(0, ::chdir("/var/services/homes/alice"));
    EXPECT_EQ(out.data(), VEXOPathResolve("./shared", out.data(), out.size()));
    EXPECT_STREQ("/var/services/homes/bob/photo", out.data());
    EXPECT_EQ(out.data(), VEXOPathResolve("..", out.data(), out.size()));
    EXPECT_STREQ("/var/services/homes", out.data());
}

TEST_F(PathResolve, WhatCannotBeResolvedStaysAsItIs) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHomes(root);
    std::array<char, PATH_MAX> out{};
    for (const char *path : {"/var/services/homes/nobody", "/var/services/homes/loop", "/var/services/homes"}) {
        EXPECT_EQ(path, VEXOPathResolve(path, out.data(), out.size()));
        EXPECT_STREQ(path, out.data());
    }
    ASSERT_EQ(0, ::chdir("/var/services"));
    EXPECT_EQ(out.data(), VEXOPathResolve("homes/nobody", out.data(), out.size()));
    EXPECT_STREQ("/var/services/homes/nobody", out.data());
}

// Every path of a small grammar, from several directories, with buffers that hold it, just hold it and do not.
TEST_F(PathResolve, EveryCombinationFollowsTheRules) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHomes(root);
    const std::string directories[] = {"/", "/desk", "/var/services", "/var/services/homes",
                                       "/var/services/homes/alice"};
    const std::string heads[] = {"",
                                 "./",
                                 "../",
                                 "/",
                                 ".//",
                                 "/var/services/homes/",
                                 "/var/services/homes//",
                                 "//",
                                 ".",
                                 "..",
                                 "homes/",
                                 "/VAR/services/homes/",
                                 "/var/services/homesx/",
                                 "var/services/homes/"};
    const std::string middles[] = {"",       "alice", "alice/", "alice/./shared", "alice/../bob", "home",
                                   "nobody", "loop",  "a\nb"};
    const std::string tails[] = {"", "/", "/photo", "/..", "/x\xff"};
    for (const std::string &directory : directories) {
        ASSERT_EQ(0, ::chdir(directory.c_str()));
        for (const std::string &head : heads) {
            for (const std::string &middle : middles) {
                for (const std::string &tail : tails) {
                    const std::string path = head + middle + tail;
                    const size_t length = expectedFor(path, directory).text.size();
                    for (const size_t size : {size_t{PATH_MAX}, length + 2, length + 1, std::max<size_t>(length, 1)}) {
                        check(path, directory, size);
                    }
                }
            }
        }
    }
}

TEST_F(PathResolve, NothingIsEverWrittenBehindTheBuffer) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHomes(root);
    ASSERT_EQ(0, ::chdir("/var/services/homes/alice"));
    for (const char *path :
         {"name", "./shared", "shared", "..", "/desk/home/photo", "/var/services/homes/alice/shared"}) {
        for (size_t size = 1; size <= 48; ++size) {
            check(path, "/var/services/homes/alice", size);
        }
    }
}

TEST_F(PathResolve, SmallBufferDoesNotChangeWhatIsLookedUp) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHomes(root);
    root.makeDirectory("/volume1/b");
    ASSERT_EQ(0, ::symlink("/volume1/b", "/var/services/homes/alice/a_link_with_a_long_name"));
    ASSERT_EQ(0, ::chdir("/var/services/homes/alice"));
    std::array<char, 11> out{}; // holds the resolved path, and not even the working directory
    EXPECT_EQ(out.data(), VEXOPathResolve("./a_link_with_a_long_name", out.data(), out.size()));
    EXPECT_STREQ("/volume1/b", out.data());
}

TEST_F(PathResolve, LongPathsAreKeptWhole) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHomes(root);
    ASSERT_EQ(0, ::chdir("/var/services/homes/alice"));
    for (const size_t length : {3000U, 4050U, 4068U, 4069U, 4070U, 4071U, 4095U, 4096U, 9000U}) {
        std::string name;
        while (name.size() < length) {
            name += "photo/../";
        }
        name.resize(length, '/');
        check(name, "/var/services/homes/alice", 20000);
        check("/var/services/homes/alice/" + name, "/var/services/homes/alice", 20000);
    }
}

TEST_F(PathResolve, WithoutAWorkingDirectoryThereIsNoAnswer) {
    std::string buffer(64, kUntouched);
    kit::Faults::fail("getcwd", EACCES);
    errno = 0;
    EXPECT_EQ(nullptr, VEXOPathResolve("name", buffer.data(), 64));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(std::string(64, kUntouched), buffer);

    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.makeDirectory("/gone");
    ASSERT_EQ(0, ::chdir("/gone"));
    ASSERT_EQ(0, ::rmdir("/gone"));
    EXPECT_EQ(nullptr, VEXOPathResolve("name", buffer.data(), 64));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(std::string(64, kUntouched), buffer);
    const char *absolute = "/still/works";
    EXPECT_EQ(absolute, VEXOPathResolve(absolute, buffer.data(), 64));
}

TEST_F(PathResolve, OutOfMemoryThereIsNoAnswer) {
    std::string buffer(64, kUntouched);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    const char *result = VEXOPathResolve("name", buffer.data(), 64);
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(std::string(64, kUntouched), buffer);
}

} // namespace
