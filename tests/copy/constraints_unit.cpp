// The free-space check before a large copy.
#include "copy/engine/constraints.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using vexo::check_free_space;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kUnchecked = 128 * kMiB;

class FreeSpace : public kit::Behaviour {
  protected:
    // A file on a volume that has `free` bytes left.
    static int fileOn(const kit::Volume &volume) {
        return ::open((volume / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    }
};

TEST_F(FreeSpace, SmallFilesAreNotChecked) {
    kit::Faults::failAlways("fstatfs", EIO);
    EXPECT_EQ(0, check_free_space(-1, 2, kUnchecked, "copy/front.c"));
    EXPECT_EQ(0, kit::Faults::count("fstatfs"));
}

TEST_F(FreeSpace, RemoteVolumesAreNotChecked) {
    kit::Faults::failAlways("fstatfs", EIO);
    EXPECT_EQ(0, check_free_space(-1, 12, UINT64_MAX, "copy/front.c"));
    EXPECT_EQ(0, kit::Faults::count("fstatfs"));
}

TEST_F(FreeSpace, VolumeThatIsTooSmallIsRefused) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 * kMiB));
    const int fd = fileOn(volume);
    EXPECT_EQ(0, check_free_space(fd, 2, kUnchecked, "copy/front.c"));
    EXPECT_FAILS(check_free_space(fd, 2, kUnchecked + 1, "copy/front.c"), 0x2900);
    EXPECT_STREQ("copy/front.c", VLIBCErrorGetFile());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    ::close(fd);
}

TEST_F(FreeSpace, ExactlyWhatIsFreeIsEnough) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 * kMiB));
    const int fd = fileOn(volume);
    EXPECT_EQ(0, check_free_space(fd, 0, 256 * kMiB, "copy/front.c"));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_FAILS(check_free_space(fd, 0, 256 * kMiB + 1, "copy/front.c"), 0x2900);
    ::close(fd);
}

TEST_F(FreeSpace, VolumeThatCannotBeAskedFailsWithoutACode) {
    EXPECT_EQ(-1, check_free_space(-1, 2, kUnchecked + 1, "copy/front.c"));
    EXPECT_EQ(0u, VLIBCErrGet());
    ASSERT_EQ(1, kit::Log::count(LOG_ERR, "fstatfs failed. errno=9/Bad file descriptor")) << kit::Log::all();
    EXPECT_EQ("copy/front.c", kit::Log::lines()[0].source);
}

} // namespace
