// Names and sizes that a destination takes, and opening with the assurance of a regular file.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

class FatNames : public kit::Behaviour {
  protected:
    static std::string fixed(const std::string &path) {
        std::array<char, 4096> out{};
        EXPECT_EQ(0, VEXOStrReplaceFATReservedChar(path.c_str(), out.data(), out.size()));
        EXPECT_EQ(0u, VLIBCErrGet());
        return out.data();
    }
};

TEST_F(FatNames, ReservedCharactersOfTheLastComponentAreReplaced) {
    EXPECT_EQ("/volume1/a-b-.txt", fixed("/volume1/a:b?.txt"));
    EXPECT_EQ("/volume1/-----------", fixed("/volume1/\"*:<>?\\|\n\r:"));
}

TEST_F(FatNames, DirectoriesAboveAreNeverChanged) {
    EXPECT_EQ("/volume1/x:y/a-b", fixed("/volume1/x:y/a:b"));
    EXPECT_EQ("/volume1/x\ny?/a", fixed("/volume1/x\ny?/a"));
}

TEST_F(FatNames, ComponentBelowTheRoot) {
    EXPECT_EQ("/a-b", fixed("/a|b"));
    EXPECT_EQ("/ab", fixed("/ab"));
}

TEST_F(FatNames, EverythingElseStays) {
    std::string kept = "/v/ ;=+,.[]'~!@#$%^&()-_{}`\t\x01\x1f\x7f";
    EXPECT_EQ(kept, fixed(kept));
    EXPECT_EQ("/v/\xc3\xa9t\xc3\xa9-\xe6\x97\xa5\xe6\x9c\xac", fixed("/v/\xc3\xa9t\xc3\xa9:\xe6\x97\xa5\xe6\x9c\xac"));
    for (int byte = 1; byte < 256; ++byte) {
        const char character = static_cast<char>(byte);
        if (character == '/') {
            continue;
        }
        const bool reserved = std::string("\"*:<>?\\|\n\r").find(character) != std::string::npos;
        EXPECT_EQ(std::string("/v/a") + (reserved ? '-' : character) + "b",
                  fixed(std::string("/v/a") + character + "b"))
            << byte;
    }
}

TEST_F(FatNames, TrailingAndDoubledSlashes) {
    EXPECT_EQ("/v/a-b", fixed("/v/a:b/"));
    EXPECT_EQ("/v//x/a-b", fixed("/v//x/a:b//"));
}

TEST_F(FatNames, RefusedArguments) {
    std::array<char, 16> out = {'x', '\0'};
    EXPECT_FAILS(VEXOStrReplaceFATReservedChar(nullptr, out.data(), 16), 0x0D00);
    EXPECT_STREQ("copy/str_replace_fat_reserved_char.c", VLIBCErrorGetFile());
    for (const char *path : {"/", "", "a:b", "volume1/a", "./a"}) {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(VEXOStrReplaceFATReservedChar(path, out.data(), 16), 0x0D00);
    }
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOStrReplaceFATReservedChar("/a", out.data(), 0), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOStrReplaceFATReservedChar("/a", out.data(), -1), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOStrReplaceFATReservedChar("/a", nullptr, 16), 0x0D00);
    EXPECT_STREQ("x", out.data());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(FatNames, ResultIsCutToTheBuffer) {
    std::array<char, 9> out{};
    out.fill('#');
    EXPECT_EQ(0, VEXOStrReplaceFATReservedChar("/v/a:bcdef", out.data(), 8));
    EXPECT_STREQ("/v/a-bc", out.data());
    EXPECT_EQ('#', out[8]);
    EXPECT_EQ(0, VEXOStrReplaceFATReservedChar("/v/a", out.data(), 1));
    EXPECT_STREQ("", out.data());
}

TEST_F(FatNames, PathMayBeItsOwnResult) {
    std::array<char, 32> path = {"/v/a:b"};
    EXPECT_EQ(0, VEXOStrReplaceFATReservedChar(path.data(), path.data(), path.size()));
    EXPECT_STREQ("/v/a-b", path.data());
}

TEST_F(FatNames, EitherCopyOfThePathMayFindNoMemory) {
    for (const int nth : {1, 2}) {
        std::array<char, 32> out{};
        if (!kit::Faults::failAllocation(nth)) {
            GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
        }
        EXPECT_FAILS(VEXOStrReplaceFATReservedChar("/v/a:b", out.data(), 32), 0x0200);
        EXPECT_STREQ("", out.data());
        VLIBCErrSetEx(0, "", 0);
    }
}

// ---- Opening a regular file

class RegularFile : public kit::Behaviour {
  protected:
    std::string path() const { return scratch / "file"; }
    // Refused without a code, and with errno as it was.
    void expectRefused(const std::string &what, int flags) {
        struct stat st = {};
        VLIBCErrSetEx(0x1234, "kept", 1);
        errno = 77;
        EXPECT_EQ(-1, VEXOCopyOpenAndCheckIsRegular(what.c_str(), flags, 0, &st, nullptr));
        EXPECT_EQ(77, errno);
        EXPECT_EQ(0x1234u, VLIBCErrGet());
        EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    }
};

TEST_F(RegularFile, FillsWhatIsGiven) {
    kit::writeFile(path(), "content", 0640);
    struct stat st = {};
    VLIBCStat xst = {};
    const int both = VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY, 0644, &st, &xst);
    ASSERT_GE(both, 0);
    ::close(both);
    EXPECT_EQ(7, st.st_size);
    EXPECT_EQ(7, xst.st.st_size);
    EXPECT_EQ(st.st_ino, xst.st.st_ino);
    const int plain = VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY, 0644, &st, nullptr);
    EXPECT_GE(plain, 0);
    ::close(plain);
    const int extended = VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY, 0644, nullptr, &xst);
    EXPECT_GE(extended, 0);
    ::close(extended);
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(RegularFile, IsMadeWithTheModeGiven) {
    struct stat st = {};
    const mode_t before = ::umask(0);
    const int fd = VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_WRONLY | O_CREAT | O_EXCL, 0617, &st, nullptr);
    ::umask(before);
    ASSERT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(0617u, st.st_mode & 07777u);
    EXPECT_EQ(0617u, kit::statOf(path()).st_mode & 07777u);
}

TEST_F(RegularFile, NeedsAPathAndAPlaceForTheAnswer) {
    struct stat st = {};
    EXPECT_FAILS(VEXOCopyOpenAndCheckIsRegular(nullptr, O_RDONLY, 0, &st, nullptr), 0x0D00);
    EXPECT_STREQ("copy/copy_open_and_check_is_regular.c", VLIBCErrorGetFile());
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY | O_CREAT, 0644, nullptr, nullptr), 0x0D00);
    EXPECT_FALSE(kit::exists(path()));
}

TEST_F(RegularFile, FailedOpenLeavesItsErrno) {
    struct stat st = {};
    EXPECT_FAILS(VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY, 0, &st, nullptr), 0x0900);
    EXPECT_EQ(ENOENT, errno);
    kit::writeFile(path(), "x");
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_WRONLY | O_CREAT | O_EXCL, 0, &st, nullptr), 0x0900);
    EXPECT_EQ(EEXIST, errno);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyOpenAndCheckIsRegular(scratch.path().c_str(), O_WRONLY, 0, &st, nullptr), 0x0900);
    EXPECT_EQ(EISDIR, errno);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(RegularFile, OtherFileTypesAreRefusedWithoutACode) {
    expectRefused(scratch.path(), O_RDONLY);
    ASSERT_EQ(0, ::mkfifo((scratch / "fifo").c_str(), 0644));
    expectRefused(scratch / "fifo", O_RDWR);
    expectRefused("/dev/null", O_RDONLY);
}

TEST_F(RegularFile, LinkToAFileIsAFile) {
    kit::writeFile(path(), "x");
    ASSERT_EQ(0, ::symlink(path().c_str(), (scratch / "link").c_str()));
    struct stat st = {};
    const int fd = VEXOCopyOpenAndCheckIsRegular((scratch / "link").c_str(), O_RDONLY, 0, &st, nullptr);
    EXPECT_GE(fd, 0);
    ::close(fd);
}

TEST_F(RegularFile, FailedStatIsLoggedAndSetsNoCode) {
    kit::writeFile(path(), "x");
    for (const char *function : {"fstat", "VLIBCFileFStat"}) {
        struct stat st = {};
        VLIBCStat xst = {};
        kit::Log::reset();
        kit::Faults::fail(function, EIO, path());
        EXPECT_EQ(-1, VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY, 0, &st, &xst));
        EXPECT_EQ(EIO, errno);
        EXPECT_EQ(0u, VLIBCErrGet());
        ASSERT_EQ(1, kit::Log::count(LOG_ERR, "stat src: [" + path() + "] [(5)Input/output error]")) << kit::Log::all();
        EXPECT_EQ("copy/copy_open_and_check_is_regular.c", kit::Log::lines()[0].source);
        kit::Faults::reset();
    }
}

TEST_F(RegularFile, ExtendedStatDecidesAndStartsZeroed) {
    kit::writeFile(path(), "x");
    struct stat st = {};
    VLIBCStat xst = {};
    xst.st.st_mode = S_IFREG;
    xst.attributes = 7;
    kit::Faults::add({.function = "VLIBCFileFStat", .result = 0, .answers = true}); // fills nothing
    EXPECT_EQ(-1, VEXOCopyOpenAndCheckIsRegular(path().c_str(), O_RDONLY, 0, &st, &xst));
    EXPECT_EQ(0u, xst.st.st_mode);
    EXPECT_EQ(0u, xst.attributes);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

// ---- Size limits

class SizeLimit : public kit::Behaviour {
  protected:
    static constexpr uint64_t kFourGiB = 4294967296;

    // A place for plug-ins of this process alone. Skips aloud where there can be none.
    void usePlugins() {
        const auto mount = [] { return kit::Volume::tmpfs(1 << 20, "/usr/local/lib"); };
        m_plugins.emplace(mount());
        processAsNow();
    }
    static void install(const std::string &kind) {
        kit::writeFile("/usr/local/lib/new", kit::readFile(std::string(K7FS_PLUGINS) + "/k7fs_" + kind + ".so"), 0755);
        ASSERT_EQ(0, ::rename("/usr/local/lib/new", "/usr/local/lib/libvexok7fs-sdk.so"));
    }
    static bool isLoaded() { return kit::readFile("/proc/self/maps").find("libvexok7fs-sdk.so") != std::string::npos; }

  private:
    std::optional<kit::Volume> m_plugins;
};

#define USE_PLUGINS()                                                                                                  \
    try {                                                                                                              \
        usePlugins();                                                                                                  \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }

TEST_F(SizeLimit, FatTakesFourGiB) {
    EXPECT_EQ(kFourGiB, _VEXOCopyFsFileSizeLimitGet("/volume1/a", 0));
}

TEST_F(SizeLimit, OtherTypesHaveNoneKnown) {
    for (const int type : {-1, 1, 2, 3, 5, 6, 7, 10, 12, 18, 19, 100}) {
        EXPECT_EQ(0u, _VEXOCopyFsFileSizeLimitGet("/volume1/a", type)) << type;
        EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(nullptr, "/volume1/a", type, UINT64_MAX)) << type;
    }
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(SizeLimit, ExactlyFourGiBPassOnFat) {
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(nullptr, "/v/a", 0, kFourGiB));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(1, _VEXOCopyIsFileSizeTooLarge(nullptr, "/v/a", 0, kFourGiB + 1));
    EXPECT_EQ(0xA400u, VLIBCErrGet());
    EXPECT_STREQ("copy/copy_is_file_size_too_large.c", VLIBCErrorGetFile());
    EXPECT_EQ(1, _VEXOCopyIsFileSizeTooLarge(nullptr, "/v/a", 0, UINT64_MAX));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(SizeLimit, RecordsLimitSparesTheLookup) {
    VEXOCopyArgs args = {};
    args.dstFsFileSizeLimit = 100;
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(&args, "/v/a", 2, 100));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(1, _VEXOCopyIsFileSizeTooLarge(&args, "/v/a", 2, 101));
    EXPECT_EQ(0xAA00u, VLIBCErrGet());
    EXPECT_EQ(1, _VEXOCopyIsFileSizeTooLarge(&args, "/v/a", 0, 101));
    EXPECT_EQ(0xA400u, VLIBCErrGet());
    args.dstFsFileSizeLimit = 2 * kFourGiB;
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(&args, "/v/a", 0, kFourGiB + 1)) << "the record's limit comes first";
}

TEST_F(SizeLimit, RecordWithoutALimitAsksTheVolume) {
    VEXOCopyArgs args = {};
    EXPECT_EQ(1, _VEXOCopyIsFileSizeTooLarge(&args, "/v/a", 0, kFourGiB + 1));
    EXPECT_EQ(0xA400u, VLIBCErrGet());
}

TEST_F(SizeLimit, CloudWithoutPluginHasNoneKnown) {
    USE_PLUGINS();
    EXPECT_EQ(0u, _VEXOCopyFsFileSizeLimitGet("/volume1/a", 22));
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(nullptr, "/volume1/a", 22, UINT64_MAX));
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(SizeLimit, CloudPluginTellsTheLimitOfThePath) {
    USE_PLUGINS();
    install("limit");
    EXPECT_EQ(5000000u, _VEXOCopyFsFileSizeLimitGet("/v/ab", 22));
    EXPECT_EQ(6000000u, _VEXOCopyFsFileSizeLimitGet("/v/abc", 22));
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(nullptr, "/v/ab", 22, 5000000));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(1, _VEXOCopyIsFileSizeTooLarge(nullptr, "/v/ab", 22, 5000001));
    EXPECT_EQ(0xAA00u, VLIBCErrGet());
}

TEST_F(SizeLimit, CloudPluginIsLoadedAndUnloadedAtEachCall) {
    USE_PLUGINS();
    install("limit");
    EXPECT_EQ(5000000u, _VEXOCopyFsFileSizeLimitGet("/v/ab", 22));
    EXPECT_FALSE(isLoaded());
    install("failing");
    EXPECT_EQ(0u, _VEXOCopyFsFileSizeLimitGet("/v/ab", 22));
    EXPECT_FALSE(isLoaded());
    install("nameless");
    EXPECT_EQ(0u, _VEXOCopyFsFileSizeLimitGet("/v/ab", 22));
    EXPECT_FALSE(isLoaded());
    install("limit");
    EXPECT_EQ(5000000u, _VEXOCopyFsFileSizeLimitGet("/v/ab", 22));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(SizeLimit, FileThatIsNoPluginMeansNoneKnown) {
    USE_PLUGINS();
    kit::writeFile("/usr/local/lib/libvexok7fs-sdk.so", "not a library");
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(nullptr, "/v/ab", 22, UINT64_MAX));
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(SizeLimit, RecordsLimitSparesThePlugin) {
    USE_PLUGINS();
    install("limit");
    VEXOCopyArgs args = {};
    args.dstFsFileSizeLimit = 9000000;
    EXPECT_EQ(0, _VEXOCopyIsFileSizeTooLarge(&args, "/v/ab", 22, 5000001));
}

} // namespace
