// Copies to and from file systems that the usual kernel of a build machine has no driver for: FAT, exFAT, HFS+, NTFS,
// and ext4 with quota. Run in a guest that has them (run-in-guest); a test whose driver is missing skips itself.
#include "copy/copy.h"
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

namespace {

const std::string kFinderInfo = "TEXTttxt" + std::string("\x00\x00", 2) + std::string(22, '\0');
constexpr int64_t kEvenSecond = 1'000'000'000;

uint32_t fatAttributes(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    uint32_t bits = 0;
    if (::ioctl(fd, FAT_IOCTL_GET_ATTRIBUTES, &bits) != 0) {
        ADD_FAILURE() << path << ": " << std::strerror(errno);
    }
    ::close(fd);
    return bits;
}

uint32_t word(const std::string &path) {
    VLIBCStat found{};
    EXPECT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_ATTRIBUTES, &found));
    return found.attributes;
}

class Foreign : public kit::Behaviour {
  protected:
    static int copy(const std::string &from, const std::string &to, bool move = false) {
        VEXOCopyOpt options{};
        options.ownerMode = 1;
        options.move = move ? 1 : 0;
        return VEXOFileCopy(from.c_str(), to.c_str(), &options);
    }
    static std::string resourceFile(const std::string &fork) {
        return adouble_bytes::header({{9, 50, 32}, {2, 82, static_cast<uint32_t>(fork.size())}}, 50, 0x00051607,
                                     0x00020000, "VEXOWARE        ") +
               kFinderInfo + fork;
    }
    // A file with Finder Info, fork and attributes, as ext4 keeps them: in "@eaDir".
    static void makeRich(const std::string &directory, const std::string &name, const std::string &content,
                         const std::string &fork) {
        kit::writeFile(directory + "/" + name, content);
        ASSERT_EQ(0, ::mkdir((directory + "/@eaDir").c_str(), 0777));
        kit::writeFile(directory + "/@eaDir/" + name + "@VexoEAStream",
                       stream::bytes({{"comment", "sunset"}, {"note", kit::pattern(700)}}));
        kit::writeFile(directory + "/@eaDir/" + name + "@VexoResource", resourceFile(fork));
    }
    static stream::Attributes streamOf(const std::string &path, int kind) {
        stream::Attributes all;
        const int fd = VEXOEAOpen(1, path.c_str(), "VexoEAStream", O_RDONLY, kind);
        EXPECT_GE(fd, 0) << path;
        VEXOEAS *eas = fd < 0 ? nullptr : VEXOEASOpen(fd, F_RDLCK);
        if (eas != nullptr) {
            for (int at = 0; at < eas->header.attrCount; ++at) {
                const VEXOEASRecord &record = eas->records[at];
                std::string value(record.length, '\0');
                EXPECT_EQ(static_cast<int>(record.length),
                          VEXOEASRead(eas, record.name, value.data(), record.length, 0));
                all.emplace_back(record.name, value);
            }
            VEXOEASClose(eas);
        }
        ::close(fd);
        return all;
    }
};

TEST_F(Foreign, TypesAreTold) {
    const struct {
        const char *made;
        int type;
    } rows[] = {{"vfat", 0}, {"exfat", 18}, {"hfsplus", 1}, {"ntfs3", 5}};
    int found = 0;
    for (const auto &row : rows) {
        try {
            const kit::Volume volume = kit::Volume::loop(row.made, 64 << 20);
            EXPECT_EQ(row.type, VEXOGetFSType(volume.path().c_str(), 0)) << row.made;
            ++found;
        } catch (const kit::Unavailable &missing) {
            std::printf("%s\n", missing.reason.c_str());
        }
    }
    if (found == 0) {
        GTEST_SKIP() << "no driver for any of them";
    }
}

class FatFamily : public Foreign, public ::testing::WithParamInterface<const char *> {
  protected:
    static bool keepsAttributes(const kit::Volume &volume) {
        kit::writeFile(volume / "probe", "");
        const int fd = ::open((volume / "probe").c_str(), O_RDONLY | O_CLOEXEC);
        uint32_t bits = 0;
        const bool keeps = ::ioctl(fd, FAT_IOCTL_GET_ATTRIBUTES, &bits) == 0;
        ::close(fd);
        return keeps;
    }
};

#define FAT_VOLUME(volume)                                                                                             \
    KIT_REQUIRE(volume, kit::Volume::loop(GetParam(), 64 << 20, "", "iocharset=utf8"));                                \
    processAsNow()

TEST_P(FatFamily, AttributesAreThoseOfTheDirectoryEntry) {
    FAT_VOLUME(volume);
    if (!keepsAttributes(volume)) {
        GTEST_SKIP() << "this kernel tells no attributes of " << GetParam();
    }
    const std::string path = volume / "file";
    kit::writeFile(path, "x");
    EXPECT_EQ(0x2U, word(path));
    const struct {
        int command;
        uint32_t fat;
    } commands[] = {{515, 0x22}, {518, 0x20}, {522, 0x21}, {521, 0x20}, {514, 0x20}};
    for (const auto &row : commands) {
        EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), row.command)) << row.command;
        EXPECT_EQ(row.fat, fatAttributes(path)) << row.command;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const struct {
        int request;
        uint32_t fat;
    } requests[] = {{0x201, 0x00}, {0x202, 0x20}, {0x203, 0x22}, {0x204, 0x26}};
    for (const auto &row : requests) {
        EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, row.request)) << row.request;
        EXPECT_EQ(row.fat, fatAttributes(path)) << row.request;
    }
    ::close(fd);
    EXPECT_EQ(0xEU, word(path));
}

TEST_P(FatFamily, ADirectorysAttributesToo) {
    FAT_VOLUME(volume);
    if (!keepsAttributes(volume)) {
        GTEST_SKIP() << "this kernel tells no attributes of " << GetParam();
    }
    const std::string path = volume / "directory";
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0755));
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 515));
    EXPECT_EQ(0x12U, fatAttributes(path));
    EXPECT_EQ(0x4U, word(path));
}

TEST_P(FatFamily, AReadOnlyVolumeRefusesAChange) {
    FAT_VOLUME(volume);
    if (!keepsAttributes(volume)) {
        GTEST_SKIP() << "this kernel tells no attributes of " << GetParam();
    }
    kit::writeFile(volume / "file", "x");
    volume.setReadOnly(true);
    EXPECT_EQ(-1, VLIBCKernelAttrCall((volume / "file").c_str(), 515));
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ(0x2U, word(volume / "file"));
    kit::writeFile(scratch / "source", "x");
    EXPECT_FAILS(copy(scratch / "source", volume / "new"), 0x8400);
}

TEST_P(FatFamily, DosAttributesOfTheSourceArrive) {
    FAT_VOLUME(volume);
    if (!keepsAttributes(volume)) {
        GTEST_SKIP() << "this kernel tells no attributes of " << GetParam();
    }
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 32 << 20, "-q"));
    processAsNow();
    kit::writeFile(unix / "source", "x");
    const int fd = ::open((unix / "source").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x203));
    ASSERT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x204));
    ::close(fd);
    ASSERT_EQ(0, copy(unix / "source", volume / "copy"));
    EXPECT_EQ(0x26U, fatAttributes(volume / "copy"));
    ASSERT_EQ(0, copy(volume / "copy", unix / "back"));
    EXPECT_EQ(0xEU, word(unix / "back"));
}

TEST_P(FatFamily, CopyHasNoOwnerAndTheTimesThatFatCanTell) {
    FAT_VOLUME(volume);
    const std::string source = scratch / "source";
    kit::writeFile(source, "content", 0600);
    ASSERT_EQ(0, ::chown(source.c_str(), 1234, 1234));
    const timespec times[2] = {{kEvenSecond, 0}, {kEvenSecond + 1, 500'000'000}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, source.c_str(), times, 0));
    EXPECT_EQ(0, copy(source, volume / "copy"));
    EXPECT_EQ("content", kit::readFile(volume / "copy"));
    EXPECT_EQ(0U, kit::statOf(volume / "copy").st_uid);
    const int64_t seconds = kit::statOf(volume / "copy").st_mtim.tv_sec;
    EXPECT_TRUE(seconds == kEvenSecond || seconds == kEvenSecond + 1) << seconds;
    // Nothing is wrong, but for an archive bit that there is no place for.
    const std::string archiveLine = "Failed to set " + (volume / "copy") + " smb archive. Operation not supported";
    for (const kit::LogLine &line : kit::Log::lines()) {
        EXPECT_TRUE(line.priority != LOG_ERR || (line.body == archiveLine && !keepsAttributes(volume))) << line.body;
    }
}

TEST_P(FatFamily, ReservedCharactersAreReplaced) {
    FAT_VOLUME(volume);
    kit::writeFile(scratch / "source", "content");
    EXPECT_EQ(0, copy(scratch / "source", volume / "a:b?c*d\"e<f>g|h\\i\nj"));
    EXPECT_EQ("content", kit::readFile(volume / "a-b-c-d-e-f-g-h-i-j"));
}

TEST_P(FatFamily, NameTheVolumeDoesNotTakeIsRefused) {
    FAT_VOLUME(volume);
    kit::writeFile(scratch / "source", "content");
    EXPECT_FAILS(copy(scratch / "source", volume / "tab\there"), 0x0300);
    EXPECT_EQ("content", kit::readFile(scratch / "source"));
    EXPECT_FAILS(copy(scratch / "source", volume / std::string(300, 'n')), 0xC300);
    EXPECT_EQ(0, copy(scratch / "source", volume / std::string(255, 'n')));
    EXPECT_EQ("content", kit::readFile(volume / std::string(255, 'n')));
}

TEST_P(FatFamily, TooLargeAFileIsRefusedBeforeItIsMade) {
    FAT_VOLUME(volume);
    const std::string source = scratch / "source";
    const int fd = ::open(source.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ::ftruncate(fd, (int64_t{4} << 30) + 1));
    ::close(fd);
    // FAT cannot hold it; exFAT could, but has not the room.
    EXPECT_FAILS(copy(source, volume / "copy"), std::string(GetParam()) == "vfat" ? 0xA400 : 0x2900);
    EXPECT_FALSE(kit::exists(volume / "copy"));
}

TEST_P(FatFamily, FullOneRefusesAndKeepsNoPartialCopy) {
    KIT_REQUIRE(volume, kit::Volume::loop(GetParam(), 8 << 20));
    processAsNow();
    kit::writeFile(scratch / "source", kit::pattern(16 << 20));
    EXPECT_FAILS(copy(scratch / "source", volume / "copy"), 0x2900);
    EXPECT_FALSE(kit::exists(volume / "copy"));
}

TEST_P(FatFamily, DoubleFileIsHidden) {
    FAT_VOLUME(volume);
    if (!keepsAttributes(volume)) {
        GTEST_SKIP() << "this kernel tells no attributes of " << GetParam();
    }
    kit::writeFile(volume / "file", "x");
    for (const int flags : {O_RDWR | O_CREAT, O_RDONLY}) { // made, and found without the attribute
        const int fd = VEXOEAOpen(1, (volume / "file").c_str(), "VexoEAStream", flags, 1);
        ASSERT_GE(fd, 0);
        ::close(fd);
        EXPECT_EQ(0x22U, fatAttributes(volume / "._file"));
        EXPECT_EQ(0, VLIBCKernelAttrCall((volume / "._file").c_str(), 518));
    }
}

// Everything of a file goes to the stick and comes back.
TEST_P(FatFamily, RoundTripLosesNothing) {
    FAT_VOLUME(volume);
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    const std::string content = kit::pattern(100'000);
    const std::string fork = kit::pattern(5000, 2);
    makeRich(unix.path(), "letter.txt", content, fork);
    ASSERT_EQ(0, VLIBCKernelAttrCall((unix / "letter.txt").c_str(), 522)); // locked

    ASSERT_EQ(0, copy(unix / "letter.txt", volume / "letter.txt"));
    EXPECT_TRUE(content == kit::readFile(volume / "letter.txt"));
    EXPECT_TRUE(kit::exists(volume / "._letter.txt"));
    EXPECT_EQ(0U, kit::statOf(volume / "letter.txt").st_mode & 0222U) << "locked";
    EXPECT_EQ((stream::Attributes{{"comment", "sunset"}, {"note", kit::pattern(700)}}),
              streamOf(volume / "letter.txt", 1));

    ASSERT_EQ(0, ::mkdir((unix / "back").c_str(), 0755));
    ASSERT_EQ(0, copy(volume / "letter.txt", unix / "back/letter.txt"));
    EXPECT_TRUE(content == kit::readFile(unix / "back/letter.txt"));
    EXPECT_EQ((stream::Attributes{{"comment", "sunset"}, {"note", kit::pattern(700)}}),
              streamOf(unix / "back/letter.txt", 0));
    const std::string resource = kit::readFile(unix / "back/@eaDir/letter.txt@VexoResource");
    ASSERT_EQ(82 + fork.size(), resource.size());
    EXPECT_EQ(kFinderInfo, resource.substr(50, 32));
    EXPECT_TRUE(fork == resource.substr(82));
    EXPECT_NE(0U, word(unix / "back/letter.txt") & VLIBC_ATTR_LOCKED);
}

INSTANTIATE_TEST_SUITE_P(On, FatFamily, ::testing::Values("vfat", "exfat"),
                         [](const auto &volume) { return std::string(volume.param); });

class Hfs : public Foreign {
  protected:
    static std::string osx(const std::string &path, const std::string &name) {
        return kit::attribute(path, "osx." + name);
    }
};

#define HFS_VOLUME(volume)                                                                                             \
    KIT_REQUIRE(volume, kit::Volume::loop("hfsplus", 64 << 20));                                                       \
    processAsNow()

TEST_F(Hfs, FilesAreCopiedWithOwnerTimesAndAttributes) {
    HFS_VOLUME(volume);
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    const std::string content = kit::pattern(50'000);
    kit::writeFile(volume / "source", content, 0640);
    kit::setAttribute(volume / "source", "user.comment", "sunset");
    ASSERT_EQ(0, ::chown((volume / "source").c_str(), 1234, 1234));
    ASSERT_EQ(0, copy(volume / "source", volume / "copy"));
    EXPECT_TRUE(content == kit::readFile(volume / "copy"));
    EXPECT_EQ("sunset", kit::attribute(volume / "copy", "user.comment"));
    EXPECT_EQ(1234U, kit::statOf(volume / "copy").st_uid);
    EXPECT_EQ(0640U, kit::statOf(volume / "copy").st_mode & 07777U);
}

// The driver says that it has no attributes to whoever wants to make one that is there.
TEST_F(Hfs, CreationTimeIsSetBesideAttributesThatAreThere) {
    HFS_VOLUME(volume);
    const std::string file = volume / "file";
    kit::writeFile(file, "x");
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 515)); // hidden
    const timespec times[] = {{kEvenSecond, 0}, {kEvenSecond, 0}, {kEvenSecond / 2, 0}};
    ASSERT_EQ(0, VLIBCFileUTime(file.c_str(), 3, times));
    VLIBCStat found{};
    ASSERT_EQ(0, VLIBCFileStat(file.c_str(), VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &found));
    EXPECT_EQ(kEvenSecond / 2, found.createTime.tv_sec);
    EXPECT_EQ(VLIBC_ATTR_HIDDEN, found.attributes);
}

// Everything of a file goes there, to "@eaDir", and comes back, also when it is moved.
TEST_F(Hfs, RoundTripLosesNothing) {
    HFS_VOLUME(volume);
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    const std::string content = kit::pattern(100'000);
    const std::string fork = kit::pattern(5000, 2);
    for (const bool move : {false, true}) {
        const std::string from = unix / (move ? "moved" : "copied");
        ASSERT_EQ(0, ::mkdir(from.c_str(), 0755));
        makeRich(from, "letter.txt", content, fork);
        ASSERT_EQ(0, VLIBCKernelAttrCall((from + "/letter.txt").c_str(), 522)); // locked
        ASSERT_EQ(0, copy(from + "/letter.txt", volume / "letter.txt", move));
        EXPECT_EQ(move, !kit::exists(from + "/letter.txt"));
        EXPECT_EQ((stream::Attributes{{"comment", "sunset"}, {"note", kit::pattern(700)}}),
                  streamOf(volume / "letter.txt", 0));
        EXPECT_EQ(kFinderInfo + fork, kit::readFile(volume / "@eaDir/letter.txt@VexoResource").substr(50));
        EXPECT_NE(0U, word(volume / "letter.txt") & VLIBC_ATTR_LOCKED);

        const std::string back = from + " back";
        ASSERT_EQ(0, ::mkdir(back.c_str(), 0755));
        ASSERT_EQ(0, copy(volume / "letter.txt", back + "/letter.txt", true));
        EXPECT_TRUE(content == kit::readFile(back + "/letter.txt"));
        EXPECT_EQ(2U, streamOf(back + "/letter.txt", 0).size());
        EXPECT_EQ(kFinderInfo + fork, kit::readFile(back + "/@eaDir/letter.txt@VexoResource").substr(50));
        EXPECT_NE(0U, word(back + "/letter.txt") & VLIBC_ATTR_LOCKED);
        EXPECT_TRUE(kit::namesIn(volume.path()).empty());
    }
}

// Linux's driver knows Apple's attributes as "osx.com.apple.…" only and refuses their own names.
TEST_F(Hfs, ApplesNamesAreRefusedByTheDriver) {
    HFS_VOLUME(volume);
    kit::writeFile(volume / "file", "x");
    EXPECT_EQ(-1, VEXOEAXattrSet((volume / "file").c_str(), "com.apple.FinderInfo", kFinderInfo.data(), 32, 0));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(0, VEXOEAXattrSet((volume / "file").c_str(), "osx.com.apple.FinderInfo", kFinderInfo.data(), 32, 0));
    // The driver gives a file's type and creator, the first eight bytes, as it keeps them itself.
    EXPECT_EQ(32U, osx(volume / "file", "com.apple.FinderInfo").size());
}

// Why it is no volume of native attributes here: what an administrator gets who says that it is.
TEST_F(Hfs, AsAVolumeOfNativeAttributesItTakesTheDataAlone) {
    HFS_VOLUME(volume);
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=7").c_str(), 1);
    makeRich(unix.path(), "letter.txt", "text", "fork");
    EXPECT_EQ(0, copy(unix / "letter.txt", volume / "letter.txt"));
    EXPECT_FAILS(VEXOEAMKDir(0, (volume / "@eaDir").c_str()), 0x2A00);
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_NE(std::string::npos, kit::Log::all().find("Failed to cp [")) << kit::Log::all();
    EXPECT_TRUE(kit::exists(unix / "@eaDir/letter.txt@VexoResource")) << "the source's store is the only one";
}

// As a volume of "._" files, which a Mac can merge into the files again, it loses nothing either.
TEST_F(Hfs, AsAVolumeOfDoubleFilesItLosesNothing) {
    HFS_VOLUME(volume);
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=5").c_str(), 1);
    makeRich(unix.path(), "letter.txt", "text", "fork");
    ASSERT_EQ(0, copy(unix / "letter.txt", volume / "letter.txt"));
    ASSERT_EQ(0, ::mkdir((unix / "back").c_str(), 0755));
    ASSERT_EQ(0, copy(volume / "letter.txt", unix / "back/letter.txt"));
    ::unsetenv("VEXOFILEOP_FSTYPES");
    const std::string resource = kit::readFile(unix / "back/@eaDir/letter.txt@VexoResource");
    ASSERT_EQ(82U + 4, resource.size());
    EXPECT_EQ(kFinderInfo + "fork", resource.substr(50));
    EXPECT_EQ(2U, streamOf(unix / "back/letter.txt", 0).size());
}

// The AppleDouble way, on a driver that leaves streams to others.
TEST_F(Foreign, NtfsKeepsDoubleFiles) {
    KIT_REQUIRE(volume, kit::Volume::loop("ntfs3", 64 << 20, "-F -Q"));
    KIT_REQUIRE(unix, kit::Volume::loop("ext4", 64 << 20, "-q"));
    processAsNow();
    const std::string fork = kit::pattern(5000, 2);
    makeRich(unix.path(), "letter.txt", "text", fork);
    ASSERT_EQ(0, copy(unix / "letter.txt", volume / "letter.txt"));
    EXPECT_TRUE(kit::exists(volume / "._letter.txt"));
    ASSERT_EQ(0, ::mkdir((unix / "back").c_str(), 0755));
    ASSERT_EQ(0, copy(volume / "letter.txt", unix / "back/letter.txt", true));
    EXPECT_EQ("text", kit::readFile(unix / "back/letter.txt"));
    EXPECT_EQ(82 + fork.size(), kit::readFile(unix / "back/@eaDir/letter.txt@VexoResource").size());
    EXPECT_FALSE(kit::exists(volume / "letter.txt"));
    EXPECT_FALSE(kit::exists(volume / "._letter.txt"));
}

} // namespace
