// Clones on a real btrfs volume, and what happens where there can be none.
#include "copy/engine/clone.h"

#include "tests/kit/behaviour.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

using vexo::clone_file;
using vexo::CloneResult;

constexpr uint64_t kVolumeSize = 256 * 1024 * 1024;

// Two open files: a source with content, an empty destination.
struct Files {
    Files(const std::string &source, const std::string &destination)
        : sourcePath(source), destinationPath(destination) {
        kit::writeFile(source, kit::pattern(1000001));
        from = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
        to = ::open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;
    ~Files() {
        ::close(from);
        ::close(to);
    }
    std::string sourcePath;
    std::string destinationPath;
    int from;
    int to;
};

// Whether a file has extents, and all of them are shared with another.
bool isShared(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ::fsync(fd);
    alignas(fiemap) std::array<char, sizeof(fiemap) + 64 * sizeof(fiemap_extent)> space{};
    auto *map = reinterpret_cast<fiemap *>(space.data());
    map->fm_length = FIEMAP_MAX_OFFSET;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = 64;
    const int asked = ::ioctl(fd, FS_IOC_FIEMAP, map);
    ::close(fd);
    bool shared = asked == 0 && map->fm_mapped_extents > 0;
    for (unsigned at = 0; shared && at < map->fm_mapped_extents; ++at) {
        shared = (map->fm_extents[at].fe_flags & FIEMAP_EXTENT_SHARED) != 0;
    }
    return shared;
}

class Clone : public kit::Behaviour {
  protected:
    // Refused in silence, with the destination as it was.
    static void expectFallback(const Files &files) {
        EXPECT_EQ(CloneResult::fallback, clone_file(files.to, files.from, "copy/front.c"));
        EXPECT_EQ(0u, VLIBCErrGet());
        EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
        EXPECT_EQ("", kit::readFile(files.destinationPath));
    }
};

TEST_F(Clone, SharesTheExtentsOfItsSource) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", kVolumeSize));
    {
        const Files files(volume / "source", volume / "destination");
        ASSERT_FALSE(isShared(files.sourcePath));
        EXPECT_EQ(CloneResult::done, clone_file(files.to, files.from, "copy/front.c"));
        EXPECT_TRUE(isShared(files.destinationPath));
        EXPECT_EQ(kit::readFile(files.sourcePath), kit::readFile(files.destinationPath));
    }
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Clone, OtherVolumeFallsBack) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", kVolumeSize));
    KIT_REQUIRE(other, kit::Volume::loop("btrfs", kVolumeSize));
    expectFallback(Files(volume / "source", other / "destination"));
}

TEST_F(Clone, OtherFileSystemFallsBack) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", kVolumeSize));
    expectFallback(Files(volume / "source", scratch / "destination"));
}

TEST_F(Clone, FileSystemWithoutClonesFallsBack) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(kVolumeSize));
    expectFallback(Files(volume / "source", volume / "destination"));
}

TEST_F(Clone, AnyOtherErrnoFallsBack) {
    const Files files(scratch / "source", scratch / "destination");
    for (const int error : {EXDEV, EOPNOTSUPP, EINVAL, EPERM, EIO, ENOTTY, EBADF}) {
        SCOPED_TRACE(std::strerror(error));
        kit::Faults::fail("ioctl", error, files.destinationPath);
        expectFallback(files);
        kit::Faults::reset();
    }
}

TEST_F(Clone, NoRoomFails) {
    const Files files(scratch / "source", scratch / "destination");
    kit::Faults::fail("ioctl", ENOSPC, files.destinationPath);
    EXPECT_EQ(CloneResult::failed, clone_file(files.to, files.from, "copy/front.c"));
    EXPECT_EQ(0x2900u, VLIBCErrGet());
    EXPECT_STREQ("copy/front.c", VLIBCErrorGetFile());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Clone, QuotaFails) {
    const Files files(scratch / "source", scratch / "destination");
    kit::Faults::fail("ioctl", EDQUOT, files.destinationPath);
    EXPECT_EQ(CloneResult::failed, clone_file(files.to, files.from, "copy/front.c"));
    EXPECT_EQ(0x2400u, VLIBCErrGet());
}

} // namespace
