// The paths of companions, and the tests for hidden names.
#include "ea/ea.h"

#include "tests/kit/behaviour.h"

#include <array>
#include <cerrno>
#include <string>
#include <vector>

namespace {

constexpr const char *kPathStream = "VexoEAStream";

// A buffer of exactly that size on the heap, so that a sanitizer sees any byte beyond it; a guard shows it to the
// others.
class Out {
  public:
    explicit Out(int size) : m_bytes(static_cast<size_t>(size) + kGuard, '?'), m_size(size) {}
    char *data() { return m_bytes.data(); }
    int size() const { return m_size; }
    std::string text() const { return m_bytes.data(); }
    bool guardIsWhole() const { return std::string(m_bytes.end() - kGuard, m_bytes.end()) == std::string(kGuard, '?'); }

  private:
    static constexpr int kGuard = 64;
    std::vector<char> m_bytes;
    int m_size;
};

std::string pathFor(int nameMode, const std::string &path, const std::string &stream = kPathStream, int kind = 0) {
    std::array<char, 4096> out{};
    EXPECT_EQ(0, VEXOEAPath(nameMode, path.c_str(), stream.c_str(), out.data(), out.size(), kind)) << path;
    return out.data();
}

std::string directoryFor(int dirOnly, const std::string &path) {
    std::array<char, 4096> out{};
    EXPECT_EQ(0, VEXOEADirPath(dirOnly, path.c_str(), out.data(), out.size())) << path;
    return out.data();
}

std::string adFor(const std::string &path) {
    std::array<char, 8192> out{};
    EXPECT_EQ(0, VEXOEAADPath(path.c_str(), out.data(), out.size())) << path;
    return out.data();
}

class Paths : public kit::Behaviour {};

TEST_F(Paths, LayoutsOfAFile) {
    EXPECT_EQ("/v/a/@eaDir/b.txt@VexoEAStream", pathFor(1, "/v/a/b.txt"));
    EXPECT_EQ("/v/a/@eaDir/b.txt@VexoResource", pathFor(1, "/v/a/b.txt", "VexoResource"));
    EXPECT_EQ("/v/a/@eaDir/b.txt/VEXO:Resource", pathFor(0, "/v/a/b.txt", "VEXO:Resource"));
    EXPECT_EQ("/v/a/@eaDir/VEXO:Resource", pathFor(2, "/v/a/b.txt", "VEXO:Resource"));
    EXPECT_EQ("/v/a/@eaDir/x", pathFor(-1, "/v/a/b.txt", "x"));
    EXPECT_EQ("/v/a/@eaDir", directoryFor(1, "/v/a/b.txt"));
    EXPECT_EQ("/v/a/@eaDir", directoryFor(-5, "/v/a/b.txt"));
    EXPECT_EQ("/v/a/@eaDir/b.txt", directoryFor(0, "/v/a/b.txt"));
    EXPECT_EQ("/v/a/._b.txt", adFor("/v/a/b.txt"));
    EXPECT_EQ("/v/a/._b.txt", pathFor(1, "/v/a/b.txt", "ignored", 1));
    EXPECT_EQ("/v/a/@eaDir/b.txt@", pathFor(1, "/v/a/b.txt", ""));
}

TEST_F(Paths, PathWithoutSlashIsInTheWorkingDirectory) {
    EXPECT_EQ("@eaDir/b.txt@VexoEAStream", pathFor(1, "b.txt"));
    EXPECT_EQ("@eaDir/b.txt/s", pathFor(0, "b.txt", "s"));
    EXPECT_EQ("@eaDir", directoryFor(1, "b.txt"));
    EXPECT_EQ("@eaDir/b.txt", directoryFor(0, "b.txt"));
    EXPECT_EQ("._b.txt", adFor("b.txt"));
}

TEST_F(Paths, OneTrailingSlashIsIgnored) {
    EXPECT_EQ("/v/a/@eaDir/dir@VexoEAStream", pathFor(1, "/v/a/dir/"));
    EXPECT_EQ("/v/a/@eaDir/dir", directoryFor(0, "/v/a/dir/"));
    EXPECT_EQ("/v/a/dir/@eaDir/", directoryFor(0, "/v/a/dir//"));
    EXPECT_EQ("/v/a/._dir", adFor("/v/a/dir/"));
    EXPECT_EQ("/._b", adFor("/b"));
    EXPECT_EQ("/@eaDir/b", directoryFor(0, "/b"));
    EXPECT_EQ("@eaDir", directoryFor(1, "/"));
}

TEST_F(Paths, RefusedArguments) {
    std::array<char, 4096> out{};
    errno = 0;
    EXPECT_FAILS(VEXOEADirPath(1, nullptr, out.data(), 4096), 0x0D00);
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_FAILS(VEXOEADirPath(1, "/a", nullptr, 4096), 0x0D00);
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_FAILS(VEXOEADirPath(1, "", out.data(), 4096), 0x0D00);
    EXPECT_EQ(ENOENT, errno);
    for (const int kind : {0, 1}) {
        EXPECT_FAILS(VEXOEAPath(1, nullptr, kPathStream, out.data(), 4096, kind), 0x0D00);
        EXPECT_FAILS(VEXOEAPath(1, "/a", nullptr, out.data(), 4096, kind), 0x0D00);
    }
    EXPECT_FAILS(VEXOEAPath(1, "/a", kPathStream, out.data(), 4096, 2), 0x0D00);
    EXPECT_FAILS(VEXOEAPath(1, "/a", kPathStream, out.data(), 4096, -1), 0x0D00);
    EXPECT_FAILS(VEXOEAPathNoADFS(1, nullptr, kPathStream, out.data(), 4096), 0x0D00);
    EXPECT_FAILS(VEXOEAPathNoADFS(1, "/a", nullptr, out.data(), 4096), 0x0D00);
    EXPECT_FAILS(VEXOEAPathNoADFS(1, "", kPathStream, out.data(), 4096), 0x0D00);
    EXPECT_FAILS(VEXOEAPathNoADFS(1, "/a", kPathStream, nullptr, 4096), 0x0D00);
    EXPECT_FAILS(VEXOEAPathNoADFS(0, "/a", kPathStream, nullptr, 4096), 0x0D00);
    EXPECT_FAILS(VEXOEAADPath("/a", nullptr, 4096), 0x0D00);
    EXPECT_FAILS(VEXOEAADPath("/a", out.data(), 0), 0x0D00);
    EXPECT_FAILS(VEXOEAADPath("/a", out.data(), -1), 0x0D00);
    EXPECT_FAILS(VEXOEAADPath(nullptr, out.data(), 4096), 0x0D00);
}

TEST_F(Paths, DirectoryPathLengthLimitIsExact) {
    const std::string path = "/" + std::string(4087, 'd'); // 4088 bytes: with "@eaDir/" 4095
    Out out(4096);
    EXPECT_EQ(0, VEXOEADirPath(0, path.c_str(), out.data(), 4096));
    EXPECT_EQ("/@eaDir/" + path.substr(1), out.text());
    errno = 0;
    EXPECT_FAILS(VEXOEADirPath(0, (path + "d").c_str(), out.data(), 4096), 0xC300);
    EXPECT_EQ(ENAMETOOLONG, errno);
    // The trailing slash counts although it goes, and so does the base although it is not written.
    EXPECT_FAILS(VEXOEADirPath(1, (path + "/").c_str(), out.data(), 4096), 0xC300);
    for (const size_t length : {4094u, 4095u, 4096u, 5000u}) {
        EXPECT_FAILS(VEXOEADirPath(1, std::string(length, 'x').c_str(), out.data(), 4096), 0xC300);
    }
    EXPECT_TRUE(out.guardIsWhole());
}

TEST_F(Paths, DirectoryPathBufferLimitIsExact) {
    const std::string path = "/v/a/b"; // 6 bytes: 13 are asked for, the text with its NUL takes 14
    for (const int size : {-1, 0, 1, 12}) {
        Out out(16);
        errno = 0;
        EXPECT_FAILS(VEXOEADirPath(0, path.c_str(), out.data(), size), 0xC300);
        EXPECT_EQ(ENAMETOOLONG, errno);
    }
    Out cut(13);
    EXPECT_EQ(0, VEXOEADirPath(0, path.c_str(), cut.data(), 13));
    EXPECT_EQ("/v/a/@eaDir/", cut.text());
    EXPECT_TRUE(cut.guardIsWhole());
    Out whole(14);
    EXPECT_EQ(0, VEXOEADirPath(0, path.c_str(), whole.data(), 14));
    EXPECT_EQ("/v/a/@eaDir/b", whole.text());
    EXPECT_TRUE(whole.guardIsWhole());
}

TEST_F(Paths, CurrentLayoutLengthLimitIsExact) {
    // N + 9 may be 4096: "/" and 4074 bytes with the 12 of the stream.
    std::string path;
    while (path.size() < 4075) {
        path += "/" + std::string(std::min<size_t>(200, 4075 - path.size() - 1), 'd');
    }
    ASSERT_EQ(4075u, path.size());
    Out out(5000);
    EXPECT_EQ(0, VEXOEAPathNoADFS(1, path.c_str(), kPathStream, out.data(), 5000));
    EXPECT_EQ(4095u, out.text().size());
    EXPECT_EQ(0, VEXOEAPathNoADFS(1, path.c_str(), kPathStream, out.data(), 4096));
    EXPECT_EQ(4095u, out.text().size());
    EXPECT_FAILS(VEXOEAPathNoADFS(1, path.c_str(), kPathStream, out.data(), 4095), 0xC300);
    errno = 0;
    EXPECT_FAILS(VEXOEAPathNoADFS(1, (path + "d").c_str(), kPathStream, out.data(), 5000), 0xC300);
    EXPECT_EQ(ENAMETOOLONG, errno);
    // Here the trailing slash is gone before lengths are compared.
    EXPECT_EQ(0, VEXOEAPathNoADFS(1, (path + "/").c_str(), kPathStream, out.data(), 4096));
    for (const size_t length : {4094u, 4095u, 4096u, 9000u}) {
        EXPECT_FAILS(VEXOEAPathNoADFS(1, std::string(length, 'x').c_str(), kPathStream, out.data(), 4096), 0xC300);
    }
    EXPECT_FAILS(VEXOEAPathNoADFS(1, "/a", std::string(5000, 's').c_str(), out.data(), 4096), 0xC300);
}

TEST_F(Paths, OlderLayoutLengthLimitIsExact) {
    // N + 8 may be 4096, and the text then is 4096 bytes long: whole in a larger buffer, cut by one in 4096 bytes.
    const std::string path = "/" + std::string(4075, 'd');
    Out large(5000);
    EXPECT_EQ(0, VEXOEAPathNoADFS(0, path.c_str(), kPathStream, large.data(), 5000));
    EXPECT_EQ("/@eaDir/" + path.substr(1) + "/" + kPathStream, large.text());
    EXPECT_EQ(4096u, large.text().size());
    Out exact(4096);
    EXPECT_EQ(0, VEXOEAPathNoADFS(0, path.c_str(), kPathStream, exact.data(), 4096));
    EXPECT_EQ(large.text().substr(0, 4095), exact.text());
    EXPECT_TRUE(exact.guardIsWhole());
    errno = 0;
    EXPECT_FAILS(VEXOEAPathNoADFS(0, path.c_str(), kPathStream, exact.data(), 4095), 0xC300);
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_FAILS(VEXOEAPathNoADFS(0, (path + "d").c_str(), kPathStream, large.data(), 5000), 0xC300);
}

TEST_F(Paths, EverySmallBufferIsRefusedCutOrEnough) {
    const std::string path = "/v/a/b.txt";
    for (const int mode : {0, 1, 2}) {
        const std::string whole = pathFor(mode, path);
        for (int size = 0; size < 64; ++size) {
            Out out(size);
            const int result = VEXOEAPathNoADFS(mode, path.c_str(), kPathStream, out.data(), size);
            EXPECT_EQ(size >= static_cast<int>(path.size()) + 12 + (mode == 1 ? 9 : 8) ? 0 : -1, result) << size;
            if (result == 0) {
                EXPECT_EQ(whole.substr(0, static_cast<size_t>(size) - 1), out.text()) << mode << " " << size;
            }
            EXPECT_TRUE(out.guardIsWhole()) << mode << " " << size;
        }
    }
}

TEST_F(Paths, LongBaseIsShortenedToTheVolumesLimit) {
    kit::Faults::setNameLength(255);
    const std::string prefix = scratch / "";
    const std::string base = std::string(246, 'a') + ".jpg";
    EXPECT_EQ(prefix + "@eaDir/" + std::string(237, 'a') + "c.jpg@VexoEAStream", pathFor(1, prefix + base));
    const std::string fits(242, 'b');
    EXPECT_EQ(prefix + "@eaDir/" + fits + "@VexoEAStream", pathFor(1, prefix + fits));
    EXPECT_EQ(255u, pathFor(1, prefix + fits + "x").size() - prefix.size() - 7);
    // The older layout keeps the base as it is.
    EXPECT_EQ(prefix + "@eaDir/" + base + "/s", pathFor(0, prefix + base, "s"));
}

TEST_F(Paths, LimitIsTheVolumesOwn) {
    const std::string prefix = scratch / "";
    kit::Faults::setNameLength(143);
    EXPECT_EQ(143u, pathFor(1, prefix + std::string(200, 'x')).size() - prefix.size() - 7);
    kit::Faults::setNameLength(20);
    EXPECT_EQ(20u, pathFor(1, prefix + "a-long-name.txt").size() - prefix.size() - 7);
    kit::Faults::setNameLength(14);
    EXPECT_EQ(14u, pathFor(1, prefix + "a-long-name.txt").size() - prefix.size() - 7);
}

TEST_F(Paths, VolumeWithoutRoomForAStreamNameKeepsTheCommonLimit) {
    const std::string prefix = scratch / "";
    for (const long length : {0L, 1L, 12L, 13L}) {
        kit::Faults::setNameLength(length);
        EXPECT_EQ(prefix + "@eaDir/a.txt@VexoEAStream", pathFor(1, prefix + "a.txt")) << length;
        EXPECT_EQ(255u, pathFor(1, prefix + std::string(250, 'x')).size() - prefix.size() - 7) << length;
    }
}

TEST_F(Paths, LimitIsAskedOfTheNearestDirectoryThatExists) {
    kit::Faults::setNameLength(100);
    kit::Faults::record(true);
    const std::string prefix = scratch / "none//deeper/";
    EXPECT_EQ(100u, pathFor(1, prefix + std::string(200, 'x')).size() - prefix.size() - 7);
    std::vector<std::string> asked;
    for (const std::string &call : kit::Faults::recorded()) {
        if (call.starts_with("statfs(")) {
            asked.push_back(call);
        }
    }
    const std::vector<std::string> expected = {
        "statfs(" + prefix + std::string(200, 'x') + ")",
        "statfs(" + (scratch / "none//deeper)"),
        "statfs(" + (scratch / "none)"),
        "statfs(" + scratch.path() + ")",
    };
    EXPECT_EQ(expected, asked);
}

TEST_F(Paths, LimitOfARelativePathIsTheWorkingDirectorys) {
    kit::Faults::setNameLength(60);
    EXPECT_EQ(60u, pathFor(1, "none-" + std::string(200, 'x')).size() - 7);
    EXPECT_EQ(60u, pathFor(1, "none/none/" + std::string(200, 'x')).size() - 7 - 10);
}

TEST_F(Paths, LimitIsTheCommonOneWhenNobodyTells) {
    const std::string prefix = scratch / "";
    const size_t common = 255;
    kit::Faults::failAlways("statfs", EIO);
    EXPECT_EQ(common, pathFor(1, prefix + std::string(250, 'x')).size() - prefix.size() - 7);
    EXPECT_EQ(2, kit::Faults::count("statfs")); // another errno than ENOENT ends the search
    kit::Faults::reset();
    kit::Faults::failAlways("statfs", ENOENT);
    EXPECT_EQ(common, pathFor(1, "/a/b/" + std::string(250, 'x')).size() - 5 - 7);
    EXPECT_EQ(4, kit::Faults::count("statfs")); // the path, "/a/b", "/a", "/"
    EXPECT_EQ(common, pathFor(1, std::string(250, 'x')).size() - 7);
}

TEST_F(Paths, FirstFailureOfAnyKindIsFollowedUpwards) {
    kit::Faults::setNameLength(90);
    kit::Faults::fail("statfs", EACCES);
    const std::string prefix = scratch / "";
    EXPECT_EQ(90u, pathFor(1, prefix + std::string(250, 'x')).size() - prefix.size() - 7);
}

TEST_F(Paths, AppleDoubleNameHasAtMost255Bytes) {
    const std::string longest(253, 'x');
    EXPECT_EQ("/v/._" + longest, adFor("/v/" + longest));
    EXPECT_EQ("/v/._" + longest, adFor("/v/" + longest + "/"));
    std::array<char, 4096> out{};
    errno = 0;
    EXPECT_FAILS(VEXOEAADPath(("/v/x" + longest).c_str(), out.data(), 4096), 0xC300);
    EXPECT_EQ(0, errno);
    EXPECT_FAILS(VEXOEAADPath(("x" + longest + "//").c_str(), out.data(), 4096), 0xC300);
}

TEST_F(Paths, AppleDoublePathIsCutInSilence) {
    Out out(8);
    EXPECT_EQ(0, VEXOEAADPath("/v/a/b.txt", out.data(), 8));
    EXPECT_EQ("/v/a/._", out.text());
    EXPECT_TRUE(out.guardIsWhole());
    Out one(1);
    EXPECT_EQ(0, VEXOEAADPath("/v/a/b.txt", one.data(), 1));
    EXPECT_EQ("", one.text());
    std::string deep;
    while (deep.size() < 6000) {
        deep += "/" + std::string(99, 'd');
    }
    EXPECT_EQ(deep + "/._b", adFor(deep + "/b"));
}

TEST_F(Paths, AppleDoublePathOfNothingButSlashes) {
    EXPECT_EQ("._", adFor(""));
    EXPECT_EQ("._", adFor("/"));
    EXPECT_EQ("//._", adFor("///"));
}

TEST_F(Paths, LongPathNeedsMemory) {
    const std::string path(4095, 'x');
    const std::string onStack = path.substr(1); // 4094 bytes
    const std::string deep = std::string(4000, 'x') + "/" + std::string(100, 'y');
    std::array<char, 4096> out{};
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_FAILS(VEXOEADirPath(1, path.c_str(), out.data(), 4096), 0x0200);
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEAPathNoADFS(1, path.c_str(), kPathStream, out.data(), 4096), 0x0200);
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEAADPath(deep.c_str(), out.data(), 4096), 0x0200);
    kit::Faults::failAllocation(1);
    EXPECT_FAILS(VEXOEADirPath(1, onStack.c_str(), out.data(), 4096), 0xC300);
    kit::Faults::failAllocation(0);
}

class HiddenNames : public kit::Behaviour {};

TEST_F(HiddenNames, Table) {
    struct Row {
        const char *name;
        int directory, directoryName, veto, file, name2;
    };
    const std::vector<Row> rows = {
        {"@eaDir", 1, 1, 1, 1, 0},
        {"@EADIR", 1, 1, 1, 1, 0},
        {"@tmp", 1, 1, 1, 1, 0},
        {"@Tmp", 1, 1, 1, 1, 0},
        {"@sharebin", 1, 1, 1, 1, 0},
        {"@ShareBin", 1, 1, 1, 1, 0},
        {"@eaDirs", 0, 0, 0, 0, 0},
        {"@eaDi", 0, 0, 0, 0, 0},
        {"eaDir", 0, 0, 0, 0, 0},
        {"", 0, 0, 0, 0, 0},
        {"@", 0, 0, 0, 0, 0},
        {"foo/@eaDir", 0, 0, 0, 0, 0},
        {"@eaDir/x", 0, 0, 0, 0, 0},
        {"/x/@eaDir", 1, 0, 1, 1, 0},
        {"/x/@eaDir/", 1, 0, 1, 1, 0},
        {"/x/@eaDir/y", 0, 0, 0, 0, 0},
        {"/", 0, 0, 0, 0, 0},
        {"/x/.", 0, 0, 0, 0, 0},
        {".", 0, 0, 1, 1, 0},
        {"..", 0, 0, 1, 1, 0},
        {"...", 0, 0, 0, 0, 0},
        {".VEXOPPHDB", 0, 0, 1, 1, 0},
        {".VEXOPPHDB-wal", 0, 0, 1, 1, 0},
        {".VEXOPPHD", 0, 0, 0, 0, 0},
        {".vexopphdb", 0, 0, 0, 0, 0},
        {"VEXOPPHDB", 0, 0, 0, 0, 0},
        {".DS_Store", 0, 0, 0, 1, 0},
        {".DS_Store2", 0, 0, 0, 0, 0},
        {".ds_store", 0, 0, 0, 0, 0},
        {"._", 0, 0, 0, 1, 0},
        {"._x", 0, 0, 0, 1, 0},
        {".x", 0, 0, 0, 0, 0},
        {"_.x", 0, 0, 0, 0, 0},
        {"a:b", 0, 0, 0, 0, 1},
        {":", 0, 0, 0, 0, 1},
        {"._a:", 0, 0, 0, 1, 1},
        {"line\nfeed", 0, 0, 0, 0, 0},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(row.directory, VEXOEAIsHiddenDir(row.name)) << row.name;
        EXPECT_EQ(row.directoryName, VEXOEAIsHiddenDirName(row.name)) << row.name;
        EXPECT_EQ(row.veto, VEXOEAIsVetoFile(row.name)) << row.name;
        EXPECT_EQ(row.file, VEXOEAIsHiddenFile(row.name)) << row.name;
        EXPECT_EQ(row.name2, VEXOEAIsHiddenName(row.name)) << row.name;
    }
}

TEST_F(HiddenNames, NullNames) {
    EXPECT_FAILS(VEXOEAIsHiddenDir(nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEAIsHiddenDirName(nullptr), 0x0D00);
    EXPECT_EQ(0, VEXOEAIsVetoFile(nullptr));
    EXPECT_EQ(0, VEXOEAIsHiddenFile(nullptr));
    EXPECT_EQ(0, VEXOEAIsHiddenName(nullptr));
}

TEST_F(HiddenNames, AbsolutePathNeedsMemory) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_FAILS(VEXOEAIsHiddenDir("/x/@eaDir"), 0x0200);
}

TEST_F(HiddenNames, DirectoriesAreListedInOrder) {
    VLIBCSzList *list = VLIBCSzListAlloc(1);
    VLIBCSzListPush(&list, "before");
    EXPECT_EQ(0, VEXOEAHiddenDirGet(&list));
    ASSERT_EQ(4, list->count);
    EXPECT_STREQ("before", VLIBCSzListGet(list, 0));
    EXPECT_STREQ("@eaDir", VLIBCSzListGet(list, 1));
    EXPECT_STREQ("@tmp", VLIBCSzListGet(list, 2));
    EXPECT_STREQ("@sharebin", VLIBCSzListGet(list, 3));
    VLIBCSzListFree(list);
}

TEST_F(HiddenNames, ListThatCannotGrowStopsTheWalk) {
    EXPECT_FAILS(VEXOEAHiddenDirGet(nullptr), 0x0D00);
    VLIBCSzList *none = nullptr;
    EXPECT_FAILS(VEXOEAHiddenDirGet(&none), 0x0D00);
    VLIBCSzList *list = VLIBCSzListAlloc(1);
    kit::Faults::fail("VLIBCSzListPush", ENOMEM, "@tmp");
    EXPECT_EQ(-1, VEXOEAHiddenDirGet(&list));
    EXPECT_EQ(1, list->count);
    VLIBCSzListFree(list);
}

class CheckADFile : public kit::Behaviour {
  protected:
    const std::string magic{"\x00\x05\x16\x07rest", 8};
};

TEST_F(CheckADFile, GenuineBesideItsFile) {
    kit::writeFile(scratch / "x", "");
    kit::writeFile(scratch / "._x", magic);
    EXPECT_EQ(0, VEXOEACheckADFile((scratch / "._x").c_str()));
    kit::writeFile(scratch / "._y", magic.substr(0, 4));
    ASSERT_EQ(0, ::symlink("nowhere", (scratch / "y").c_str()));
    EXPECT_EQ(0, VEXOEACheckADFile((scratch / "._y").c_str()));
}

TEST_F(CheckADFile, NullAndEmptyPaths) {
    EXPECT_FAILS(VEXOEACheckADFile(nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEACheckADFile(""), 0x0D00);
}

// What is taken for an orphan may be removed.
TEST_F(CheckADFile, CompanionThatCannotBeLookedAtIsNotAbsent) {
    kit::writeFile(scratch / "._x", std::string("\x00\x05\x16\x07", 4));
    kit::writeFile(scratch / "x", "");
    kit::Faults::fail("lstat", EIO);
    EXPECT_FAILS(VEXOEACheckADFile((scratch / "._x").c_str()), 0x2700);
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, VEXOEACheckADFile((scratch / "._x").c_str()));
}

TEST_F(CheckADFile, OtherNames) {
    kit::writeFile(scratch / "x", magic);
    EXPECT_EQ(-2, VEXOEACheckADFile((scratch / "x").c_str()));
    EXPECT_EQ(-2, VEXOEACheckADFile((scratch / ".x").c_str()));
    EXPECT_EQ(-2, VEXOEACheckADFile("/"));
}

TEST_F(CheckADFile, OtherContent) {
    kit::writeFile(scratch / "x", "");
    EXPECT_EQ(-3, VEXOEACheckADFile((scratch / "._x").c_str())); // missing
    kit::writeFile(scratch / "._x", magic.substr(0, 3));
    EXPECT_EQ(-3, VEXOEACheckADFile((scratch / "._x").c_str())); // short
    kit::writeFile(scratch / "._x", std::string("\x07\x16\x05\x00", 4));
    EXPECT_EQ(-3, VEXOEACheckADFile((scratch / "._x").c_str())); // the other byte order
    kit::writeFile(scratch / "._x", "");
    EXPECT_EQ(-3, VEXOEACheckADFile((scratch / "._x").c_str()));
    ASSERT_EQ(0, ::mkdir((scratch / "._d").c_str(), 0755));
    EXPECT_EQ(-3, VEXOEACheckADFile((scratch / "._d").c_str()));
}

TEST_F(CheckADFile, WithoutCompanion) {
    kit::writeFile(scratch / "._x", magic);
    EXPECT_EQ(-4, VEXOEACheckADFile((scratch / "._x").c_str()));
    kit::writeFile(scratch / "._", magic);
    EXPECT_EQ(-4, VEXOEACheckADFile((scratch / "._").c_str()));
}

TEST_F(CheckADFile, PathWithoutPartsHasNoAnswer) {
    for (const char *part : {"dirname", "basename"}) {
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::fail(part, EINVAL);
        EXPECT_FAILS(VEXOEACheckADFile("/x/._x"), 0);
    }
}

TEST_F(CheckADFile, NeedsMemory) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_FAILS(VEXOEACheckADFile("/x/._x"), 0x0200);
    kit::Faults::failAllocation(2);
    EXPECT_FAILS(VEXOEACheckADFile("/x/._x"), 0x0200);
    kit::Faults::failAllocation(0);
}

TEST_F(HiddenNames, PathWithoutABaseIsRefused) {
    kit::Faults::fail("basename", EINVAL);
    EXPECT_FAILS(VEXOEAIsHiddenDir("/x/@eaDir"), 0x9A00);
    EXPECT_EQ(0, VEXOEAIsHiddenDir("/"));
}

TEST_F(HiddenNames, NothingIsLogged) {
    std::array<char, 16> out{};
    (void)VEXOEAPath(1, "/a-rather-long-path", kPathStream, out.data(), 16, 0);
    (void)VEXOEAIsHiddenDir(nullptr);
    (void)VEXOEACheckADFile("");
    EXPECT_EQ("", kit::Log::all());
}

} // namespace
