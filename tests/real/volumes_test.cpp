// Copies on real file systems, on loop devices: quota, room, read-only, extents.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t kNobody = 65534;

void run(const std::string &command) {
    if (std::system(("PATH=$PATH:/usr/sbin:/sbin; " + command + " >/dev/null 2>&1").c_str()) != 0) {
        throw kit::Unavailable{"not possible here: " + command};
    }
}

#define KIT_TRY(call)                                                                                                  \
    try {                                                                                                              \
        call;                                                                                                          \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }

class RealVolume : public kit::Behaviour {
  protected:
    static int copy(const std::string &from, const std::string &to, bool move = false, bool clone = false) {
        VEXOCopyOpt options{};
        options.ownerMode = 1;
        options.move = move ? 1 : 0;
        options.errReport = [](const char *, uint32_t) { ++reports; };
        reports = 0;
        return clone ? VEXOFileReflinkCopy(from.c_str(), to.c_str(), &options, nullptr)
                     : VEXOFileCopy(from.c_str(), to.c_str(), &options);
    }
    static bool sharesExtents(const std::string &path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ::fsync(fd);
        alignas(fiemap) char space[sizeof(fiemap) + sizeof(fiemap_extent)] = {};
        auto *map = reinterpret_cast<fiemap *>(space);
        map->fm_length = FIEMAP_MAX_OFFSET;
        map->fm_extent_count = 1;
        const int result = ::ioctl(fd, FS_IOC_FIEMAP, map);
        ::close(fd);
        return result == 0 && map->fm_mapped_extents == 1 && (map->fm_extents[0].fe_flags & FIEMAP_EXTENT_SHARED) != 0;
    }
    // Fills the volume until it takes no more, then frees `bytes` of it.
    static void fill(const kit::Volume &volume, off_t bytes) {
        const std::string path = volume / "filler";
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const std::string block = kit::pattern(65536);
        for (size_t size = block.size(); size >= 512;) {
            if (::write(fd, block.data(), size) < 0) {
                size /= 2;
            }
        }
        ::fsync(fd);
        const off_t length = ::lseek(fd, 0, SEEK_END);
        ASSERT_EQ(0, ::ftruncate(fd, std::max<off_t>(0, length - bytes)));
        ::fsync(fd);
        ::close(fd);
    }

    static inline int reports = 0;
};

TEST_F(RealVolume, QuotaThatIsReachedRemovesThePartialCopy) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q -O quota", "usrquota"));
    processAsNow();
    ASSERT_EQ(0, ::chmod(volume.path().c_str(), 0777));
    KIT_TRY(run("setquota -u 65534 0 1024 0 0 " + volume.path())); // 1 MiB
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    const std::string content = kit::pattern(3 << 20);
    kit::writeFile(scratch / "large", content);
    kit::writeFile(scratch / "small", "fits");
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setresgid(kNobody, kNobody, kNobody));
        ASSERT_EQ(0, ::setresuid(kNobody, kNobody, kNobody));
        EXPECT_FAILS(copy(scratch / "large", volume / "large"), 0x2400);
        EXPECT_EQ(1, reports);
        EXPECT_FALSE(kit::exists(volume / "large"));
        EXPECT_EQ(0, copy(scratch / "small", volume / "small"));
        EXPECT_EQ("fits", kit::readFile(volume / "small"));
    }));
    EXPECT_TRUE(content == kit::readFile(scratch / "large"));
}

TEST_F(RealVolume, QuotaOfFilesRefusesTheNewOne) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q -O quota", "usrquota"));
    processAsNow();
    ASSERT_EQ(0, ::chmod(volume.path().c_str(), 0777));
    KIT_TRY(run("setquota -u 65534 0 0 0 2 " + volume.path()));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    kit::writeFile(scratch / "file", "content");
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setresgid(kNobody, kNobody, kNobody));
        ASSERT_EQ(0, ::setresuid(kNobody, kNobody, kNobody));
        EXPECT_EQ(0, copy(scratch / "file", volume / "one"));
        EXPECT_EQ(0, copy(scratch / "file", volume / "two"));
        EXPECT_FAILS(copy(scratch / "file", volume / "three"), 0x2400);
        EXPECT_FALSE(kit::exists(volume / "three"));
    }));
}

class EveryRealVolume : public RealVolume, public ::testing::WithParamInterface<const char *> {
  protected:
    static kit::Volume make(const std::string &options = {}) {
        const std::string type = GetParam();
        return kit::Volume::loop(type, type == "xfs" ? 320 << 20 : 128 << 20, "-q", options);
    }
};

TEST_P(EveryRealVolume, FileArrivesWithAllThatBelongsToIt) {
    KIT_REQUIRE(volume, make());
    KIT_REQUIRE(other, make());
    processAsNow();
    const std::string content = kit::pattern(200'000);
    const std::string source = volume / "source";
    kit::writeFile(source, content, 0640);
    ASSERT_EQ(0, ::chown(source.c_str(), 1234, 2345));
    kit::setAttribute(source, "user.comment", "sunset");
    const timespec times[3] = {{1, 5}, {2, 6}, {978307200, 0}};
    ASSERT_EQ(0, VLIBCFileUTime(source.c_str(), 3, times));
    ASSERT_EQ(0, VLIBCKernelAttrCall(source.c_str(), 515));
    VLIBCStat before{};
    ASSERT_EQ(0, VLIBCFileStat(source.c_str(), 10, &before));
    ASSERT_EQ(0, copy(source, other / "copy"));
    for (const std::string &path : {other / "copy"}) {
        EXPECT_TRUE(content == kit::readFile(path));
        EXPECT_EQ("sunset", kit::attribute(path, "user.comment"));
        VLIBCStat after{};
        ASSERT_EQ(0, VLIBCFileStat(path.c_str(), 10, &after));
        EXPECT_EQ(before.st.st_mode, after.st.st_mode);
        EXPECT_EQ(1234U, after.st.st_uid);
        EXPECT_EQ(2345U, after.st.st_gid);
        EXPECT_EQ(2, after.st.st_mtim.tv_sec);
        EXPECT_EQ(6, after.st.st_mtim.tv_nsec);
        EXPECT_EQ(978307200, after.createTime.tv_sec);
        EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_HIDDEN | VLIBC_ATTR_ARCHIVE), after.attributes);
    }
    ASSERT_EQ(0, copy(source, other / "moved", true));
    EXPECT_FALSE(kit::exists(source));
    EXPECT_TRUE(content == kit::readFile(other / "moved"));
}

TEST_P(EveryRealVolume, HolesStayHoles) {
    KIT_REQUIRE(volume, make());
    processAsNow();
    const std::string source = volume / "source";
    kit::writeSparse(source, 8 << 20, {{1 << 20, 1 << 20}, {5 << 20, 65536}});
    ASSERT_EQ(0, copy(source, volume / "copy"));
    EXPECT_TRUE(kit::readFile(source) == kit::readFile(volume / "copy"));
    EXPECT_EQ(8 << 20, kit::statOf(volume / "copy").st_size);
    EXPECT_LT(kit::statOf(volume / "copy").st_blocks * 512, 4 << 20);
}

TEST_P(EveryRealVolume, FullOneRefusesAndKeepsNoPartialCopy) {
    KIT_REQUIRE(volume, make());
    processAsNow();
    const std::string content = kit::pattern(16 << 20);
    kit::writeFile(scratch / "source", content);
    fill(volume, 0);
    EXPECT_FAILS(copy(scratch / "source", volume / "copy"), 0x2900);
    EXPECT_FALSE(kit::exists(volume / "copy"));
    EXPECT_EQ(1, reports);
    EXPECT_FAILS(copy(scratch / "source", volume / "copy", true), 0x2900);
    EXPECT_TRUE(content == kit::readFile(scratch / "source"));
}

TEST_P(EveryRealVolume, NearlyFullOneTakesWhatFitsOnly) {
    KIT_REQUIRE(volume, make());
    processAsNow();
    kit::writeFile(scratch / "large", kit::pattern(24 << 20));
    kit::writeFile(scratch / "small", kit::pattern(300'000));
    fill(volume, 8 << 20);
    EXPECT_FAILS(copy(scratch / "large", volume / "large"), 0x2900);
    EXPECT_FALSE(kit::exists(volume / "large"));
    EXPECT_EQ(0, copy(scratch / "small", volume / "small"));
    EXPECT_TRUE(kit::pattern(300'000) == kit::readFile(volume / "small"));
}

TEST_P(EveryRealVolume, ReadOnlyOneRefuses) {
    KIT_REQUIRE(volume, make());
    processAsNow();
    kit::writeFile(scratch / "source", "content");
    kit::writeFile(volume / "there", "old");
    volume.setReadOnly(true);
    EXPECT_FAILS(copy(scratch / "source", volume / "new"), 0x8400);
    EXPECT_EQ("old", kit::readFile(volume / "there"));
    EXPECT_EQ(0, copy(volume / "there", scratch / "copy")); // as a source it is good
    EXPECT_EQ("old", kit::readFile(scratch / "copy"));
    EXPECT_FAILS(copy(volume / "there", volume / "renamed", true), 0x0300);
}

// A volume does not become read-only under an open file of one's own; the kernel's emergency remount, after an error of
// the device, does that. What a copy meets then is EROFS or EIO of its next calls.
TEST_P(EveryRealVolume, RemountReadOnlyBetweenTwoFilesStopsTheSecond) {
    KIT_REQUIRE(volume, make());
    processAsNow();
    kit::writeFile(scratch / "source", "content");
    EXPECT_EQ(0, copy(scratch / "source", volume / "first"));
    volume.setReadOnly(true);
    EXPECT_FAILS(copy(scratch / "source", volume / "second"), 0x8400);
    volume.setReadOnly(false);
    EXPECT_EQ(0, copy(scratch / "source", volume / "second"));
    EXPECT_EQ("content", kit::readFile(volume / "first"));
    EXPECT_EQ("content", kit::readFile(volume / "second"));
}

INSTANTIATE_TEST_SUITE_P(On, EveryRealVolume, ::testing::Values("ext4", "btrfs", "xfs"),
                         [](const auto &volume) { return std::string(volume.param); });

// ext4 shut down in the middle, as after an error of the device: every later call fails with EIO.
TEST_F(RealVolume, OneThatShutsDownInTheMiddleFailsTheCopyAndKeepsTheSource) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    const std::string content = kit::pattern(20 << 20);
    kit::writeFile(scratch / "source", content);
    static std::string path;
    path = volume.path();
    static bool shut;
    shut = false;
    VEXOCopyOpt options{};
    options.move = 1;
    options.ownerMode = 1;
    options.progress = [](int64_t, int64_t) {
        constexpr unsigned long kShutdown = _IOR('X', 125, uint32_t);
        uint32_t withoutFlush = 2;
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        shut = ::ioctl(fd, kShutdown, &withoutFlush) == 0 || shut;
        ::close(fd);
    };
    EXPECT_EQ(-1, VEXOFileCopy((scratch / "source").c_str(), (volume / "copy").c_str(), &options));
    EXPECT_TRUE(shut);
    EXPECT_EQ(0x0600U, VLIBCErrGet());
    EXPECT_TRUE(content == kit::readFile(scratch / "source"));
}

TEST_F(RealVolume, CloneOnOneVolumeSharesItsExtents) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 128 << 20, "-q"));
    processAsNow();
    const std::string content = kit::pattern(4 << 20);
    kit::writeFile(volume / "source", content);
    ASSERT_EQ(0, copy(volume / "source", volume / "clone", false, true));
    EXPECT_TRUE(content == kit::readFile(volume / "clone"));
    EXPECT_TRUE(sharesExtents(volume / "clone"));
    ASSERT_EQ(0, copy(volume / "source", volume / "copy"));
    EXPECT_FALSE(sharesExtents(volume / "copy"));
}

TEST_F(RealVolume, CloneToAnotherVolumeBecomesACopy) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 128 << 20, "-q"));
    KIT_REQUIRE(other, kit::Volume::loop("btrfs", 128 << 20, "-q"));
    processAsNow();
    const std::string content = kit::pattern(1 << 20);
    kit::writeFile(volume / "source", content);
    ASSERT_EQ(0, copy(volume / "source", other / "clone", false, true));
    EXPECT_TRUE(content == kit::readFile(other / "clone"));
    EXPECT_FALSE(sharesExtents(other / "clone"));
    EXPECT_EQ(-4, VEXOFileCopyIsCloneable((volume / "source").c_str(), other.path().c_str(), 0));
}

TEST_F(RealVolume, CompressedVolumeTakesAndGivesTheSameBytes) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 128 << 20, "-q", "compress-force=zstd"));
    processAsNow();
    const std::string content(8 << 20, 'z');
    kit::writeFile(scratch / "source", content);
    ASSERT_EQ(0, copy(scratch / "source", volume / "copy"));
    ASSERT_EQ(0, copy(volume / "copy", volume / "clone", false, true));
    EXPECT_TRUE(content == kit::readFile(volume / "clone"));
}

TEST_F(RealVolume, CloneAcrossTheNodatacowSettingBecomesACopy) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 128 << 20, "-q"));
    processAsNow();
    ASSERT_EQ(0, ::mkdir((volume / "plain").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((volume / "nocow").c_str(), 0755));
    KIT_TRY(run("chattr +C " + (volume / "nocow")));
    const std::string content = kit::pattern(1 << 20);
    kit::writeFile(volume / "plain/source", content);
    EXPECT_EQ(-5, VEXOFileCopyIsCloneable((volume / "plain/source").c_str(), (volume / "nocow").c_str(), 0));
    ASSERT_EQ(0, copy(volume / "plain/source", volume / "nocow/copy", false, true));
    EXPECT_TRUE(content == kit::readFile(volume / "nocow/copy"));
    EXPECT_FALSE(sharesExtents(volume / "nocow/copy"));
}

} // namespace
