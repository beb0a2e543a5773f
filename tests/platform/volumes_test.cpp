// Volumes: their types, where they are mounted, and how a path splits into volume and rest.
#include "platform/sdk.h"

#include "tests/kit/behaviour.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class FsType : public kit::Behaviour {
  protected:
    void TearDown() override {
        ::unsetenv("VEXOFILEOP_FSTYPES");
        Behaviour::TearDown();
    }
    static int typeOf(const std::string &path) { return VEXOGetFSType(path.c_str(), 0); }
};

TEST_F(FsType, ComesFromTheVolume) {
    const struct {
        const char *made;
        uint64_t size;
        int type;
    } rows[] = {{"ext4", 16 << 20, 2}, {"btrfs", 128 << 20, 3}, {"xfs", 320 << 20, 2}};
    for (const auto &row : rows) {
        KIT_REQUIRE(volume, kit::Volume::loop(row.made, row.size));
        EXPECT_EQ(row.type, typeOf(volume.path())) << row.made;
        EXPECT_EQ(row.type, VEXOGetFSType(volume.path().c_str(), 1)) << row.made;
    }
    KIT_REQUIRE(memory, kit::Volume::tmpfs(1 << 20));
    EXPECT_EQ(1, typeOf(memory.path()));
}

TEST_F(FsType, OfWhatIsNotThereFailsWithErrno) {
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=3").c_str(), 1);
    EXPECT_EQ(-1, typeOf(scratch / "none"));
    EXPECT_EQ(ENOENT, errno);
    kit::writeFile(scratch / "file", "x");
    EXPECT_EQ(-1, typeOf(scratch / "file/below"));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(-1, VEXOGetFSType(nullptr, 0));
    EXPECT_EQ(EFAULT, errno);
}

TEST_F(FsType, TheEnvironmentOverridesByWholeComponents) {
    for (const char *name : {"a", "a/b", "ab"}) {
        ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
    }
    const int real = typeOf(scratch.path());
    ::setenv(
        "VEXOFILEOP_FSTYPES",
        ("bad:" + (scratch / "a") + "/=18:" + (scratch / "a/b") + "=7:relative=5:" + (scratch / "ab") + "=x").c_str(),
        1);
    EXPECT_EQ(18, typeOf(scratch / "a"));
    EXPECT_EQ(18, typeOf(scratch / "a/"));
    EXPECT_EQ(7, typeOf(scratch / "a/b"));
    EXPECT_EQ(real, typeOf(scratch / "ab"));
    EXPECT_EQ(real, typeOf(scratch.path()));
    ::setenv("VEXOFILEOP_FSTYPES", "/=12", 1);
    EXPECT_EQ(12, typeOf(scratch.path()));
}

TEST_F(FsType, OverridesHoldForPathsThatGoUpAndForWhatIsOpen) {
    for (const char *name : {"a", "a/b", "c", "c/d"}) {
        ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
    }
    ASSERT_EQ(0, ::symlink((scratch / "a/b").c_str(), (scratch / "c/link").c_str()));
    const int real = typeOf(scratch.path());
    ::setenv("VEXOFILEOP_FSTYPES", ((scratch / "a") + "=18").c_str(), 1);
    EXPECT_EQ(18, typeOf(scratch / "c/../a"));
    EXPECT_EQ(18, typeOf(scratch / "c/d/../../a/b"));
    EXPECT_EQ(real, typeOf(scratch / "a/.."));
    EXPECT_EQ(real, typeOf(scratch / "a/../c"));
    EXPECT_EQ(18, typeOf(scratch / "c/link/..")); // as the kernel goes, not by the text
    const int open = ::open((scratch / "a/b").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(18, typeOf("/proc/self/fd/" + std::to_string(open)));
    EXPECT_EQ(18, typeOf("/proc/self/fd/" + std::to_string(open) + "/."));
    ::close(open);
    const int here = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(0, ::chdir((scratch / "a").c_str()));
    EXPECT_EQ(18, typeOf("b"));
    EXPECT_EQ(real, typeOf("../c"));
    ASSERT_EQ(0, ::fchdir(here));
    ::close(here);
}

TEST_F(FsType, TheFileOverridesAndTheEnvironmentIsFirst) {
    KIT_REQUIRE(etc, kit::Volume::overlay("/etc"));
    processAsNow();
    ASSERT_EQ(0, ::mkdir((scratch / "with blank").c_str(), 0755));
    ::mkdir("/etc/vexofileop", 0755);
    const int real = typeOf(scratch.path());
    kit::writeFile("/etc/vexofileop/fstypes", "# types\n\n" + scratch.path() + "\t19\n  " + (scratch / "with blank") +
                                                  "   22  \nnonsense\n/ five\n");
    EXPECT_EQ(19, typeOf(scratch.path()));
    EXPECT_EQ(22, typeOf(scratch / "with blank"));
    EXPECT_EQ(real, typeOf(std::filesystem::path(scratch.path()).parent_path()));
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=3").c_str(), 1);
    EXPECT_EQ(3, typeOf(scratch / "with blank"));
}

class MountPath : public kit::Behaviour {
  protected:
    static std::string of(const std::string &path) {
        std::array<char, 4096> out{};
        return VEXOFSMntPathGet(path.c_str(), out.data(), out.size()) == 0 ? out.data() : "failed";
    }
};

TEST_F(MountPath, IsWhereTheVolumeIsMounted) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    kit::writeFile(volume / "file", "x");
    ASSERT_EQ(0, ::symlink((volume / "file").c_str(), (scratch / "link").c_str()));
    EXPECT_EQ(volume.path(), of(volume.path()));
    EXPECT_EQ(volume.path(), of(volume / "file"));
    EXPECT_EQ(volume.path(), of(scratch / "link"));
    EXPECT_EQ("/", of("/"));
    EXPECT_EQ("/proc", of("/proc/self"));
}

TEST_F(MountPath, NamesWithBlanksAndLineFeedsAreGivenBack) {
    const std::string odd = scratch / "a b\tc\nd\\040e#f";
    ASSERT_EQ(0, ::mkdir(odd.c_str(), 0755));
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20, odd));
    processAsNow();
    EXPECT_EQ(odd, of(odd));
}

TEST_F(MountPath, ABindMountIsItsOwnAndTheLastMountWins) {
    ASSERT_EQ(0, ::mkdir((scratch / "bound").c_str(), 0755));
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    ASSERT_EQ(0, ::mkdir((volume / "inner").c_str(), 0755));
    kit::writeFile(volume / "inner/file", "x");
    ASSERT_EQ(0, ::mount((volume / "inner").c_str(), (scratch / "bound").c_str(), nullptr, MS_BIND, nullptr));
    EXPECT_EQ(scratch / "bound", of(scratch / "bound/file"));
    EXPECT_EQ(volume.path(), of(volume / "inner/file"));
    KIT_REQUIRE(over, kit::Volume::tmpfs(1 << 20, scratch / "bound"));
    kit::writeFile(over / "top", "x");
    EXPECT_EQ(scratch / "bound", of(scratch / "bound/top"));
    ::umount2((scratch / "bound").c_str(), MNT_DETACH);
    ::umount2((scratch / "bound").c_str(), MNT_DETACH);
}

TEST_F(MountPath, FailuresAreTold) {
    EXPECT_EQ("failed", of(scratch / "none"));
    EXPECT_EQ(ENOENT, errno);
    char small[2] = "x";
    EXPECT_EQ(-1, VEXOFSMntPathGet("/proc", small, sizeof(small)));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_STREQ("x", small);
    EXPECT_EQ(-1, VEXOFSMntPathGet(nullptr, small, sizeof(small)));
    EXPECT_EQ(-1, VEXOFSMntPathGet("/", nullptr, 5));
    EXPECT_EQ(-1, VEXOFSMntPathGet("/", small, 0));
    EXPECT_EQ(EINVAL, errno);
}

class VolumePath : public kit::Behaviour {
  protected:
    static std::string split(const std::string &path) {
        std::array<char, 4096> volume{}, rest{};
        const int result = VolumePathParseEx(path.c_str(), volume.data(), volume.size(), rest.data(), rest.size());
        return result == 0 ? std::string(volume.data()) + " " + rest.data() : "failed";
    }
};

TEST_F(VolumePath, ATopDirectoryNamedVolumeIsOne) {
    EXPECT_EQ("/volume1 a/b", split("/volume1/a/b"));
    EXPECT_EQ("/volume1 a//b/", split("/volume1//a//b/"));
    EXPECT_EQ("/volume12 ", split("/volume12"));
    EXPECT_EQ("/volumeUSB1 usbshare/@eaDir", split("/volumeUSB1/usbshare/@eaDir"));
}

TEST_F(VolumePath, ElsewhereItIsTheLowestMountPoint) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    EXPECT_EQ(volume.path() + " a/b", split(volume / "a/b")); // there or not
    EXPECT_EQ(volume.path() + " ", split(volume.path()));
    EXPECT_EQ(volume.path() + " ", split(volume.path() + "//"));
    EXPECT_EQ("/ no-such-directory/x", split("/no-such-directory/x"));
    EXPECT_EQ("/ ", split("/"));
    kit::writeFile(volume / "file", "x");
    EXPECT_EQ(volume.path() + " file", split(volume / "file"));
}

TEST_F(VolumePath, FailuresAreTold) {
    EXPECT_EQ("failed", split("relative/path"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("failed", split(""));
    EXPECT_EQ("failed", split("/" + std::string(5000, 'x')));
    EXPECT_EQ(ENAMETOOLONG, errno);
    char small[4] = "", large[100] = "";
    EXPECT_EQ(-1, VolumePathParseEx("/volume1/a", small, sizeof(small), large, sizeof(large)));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(-1, VolumePathParseEx("/volume1/abcd", large, sizeof(large), small, sizeof(small)));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(-1, VolumePathParseEx(nullptr, large, sizeof(large), small, sizeof(small)));
}

} // namespace
