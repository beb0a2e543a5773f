// Whether a path is to be indexed, and the folders of a user's home that the personal services keep.
#include "index/index.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/private_root.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char kPhotoSettings[] = "/var/packages/Pixhall/etc/settings.conf";
constexpr char kMusicSettings[] = "/var/packages/Tunehall/etc/audio.conf";
constexpr uint32_t kIndexed = 0x20;
constexpr int kNotWritten = 4711;

void answerRecycle(const std::string &path, long value) {
    kit::Faults::add(
        {.function = "VEXOShareIsShareRecycle", .result = value, .path = path, .times = 0, .answers = true});
}

class PersonalPackagePath : public kit::Behaviour {
  protected:
    // alice's home on a volume, which the platform knows by its service path.
    void makeHome(const kit::PrivateRoot &root) {
        root.makeDirectory("/volume1/homes/alice");
        root.makeDirectory("/var/services");
        ASSERT_EQ(0, ::symlink("/volume1/homes", "/var/services/homes"));
        kit::PlatformDouble::setHome("/volume1/homes/alice", "alice", "/var/services/homes/alice");
        kit::PlatformDouble::setHome("/var/services/homes/alice", "alice", "/var/services/homes/alice");
    }
};

TEST_F(PersonalPackagePath, FolderDirectlyInTheHome) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHome(root);
    const std::pair<const char *, int> rows[] = {
        {"/volume1/homes/alice/photo", 1},
        {"/volume1/homes/alice/photo/", 1},
        {"/volume1/homes/alice/photo/2020/a.jpg", 1},
        {"/volume1/homes/alice/PHOTO/a.jpg", 1},
        {"/volume1/homes/alice/Photo", 1},
        {"/volume1/homes/alice/photos", 0},
        {"/volume1/homes/alice/photos/photo", 0},
        {"/volume1/homes/alice/phot", 0},
        {"/volume1/homes/alice/photo.jpg", 0},
        {"/volume1/homes/alice/photo\n", 0},
        {"/volume1/homes/alice/docs/photo", 0},
        {"/volume1/homes/alice/music", 0},
        {"/volume1/homes/alice//photo", 0},
        {"/volume1/homes/alice/", 0},
        {"/volume1/homes/alice", 0},
    };
    for (const auto &[path, expected] : rows) {
        EXPECT_EQ(expected, VEXOIndexIsPersonalPackagePath(path, "photo", nullptr, 0)) << path;
    }
}

TEST_F(PersonalPackagePath, OffsetIsThatOfTheResolvedHome) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    makeHome(root);
    // The service path is longer than the volume's: at the resolved home's length stands something else.
    EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath("/var/services/homes/alice/photo", "photo", nullptr, 0));
    const std::string path = "/var/services/homes/alice/photo";
    const std::string atOffset = path.substr(std::strlen("/volume1/homes/alice/"));
    EXPECT_EQ(1, VEXOIndexIsPersonalPackagePath(path.c_str(), atOffset.c_str(), nullptr, 0)) << atOffset;
}

TEST_F(PersonalPackagePath, UnresolvableHomeIsTakenAsItIs) {
    kit::PlatformDouble::setHome("/nowhere/alice", "alice", "/nowhere/alice");
    EXPECT_EQ(1, VEXOIndexIsPersonalPackagePath("/nowhere/alice/photo/x", "photo", nullptr, 0));
    EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath("/nowhere/alice/x/photo", "photo", nullptr, 0));
}

TEST_F(PersonalPackagePath, PathShorterThanTheHomeIsNotReadPastItsEnd) {
    kit::PlatformDouble::setHome("/short", "alice", "/nowhere/a/very/long/home/of/a/user");
    for (const char *path : {"/short", "/short/photo"}) {
        const std::unique_ptr<char[]> exact(new char[std::strlen(path) + 1]); // a sanitizer sees a byte too many
        std::memcpy(exact.get(), path, std::strlen(path) + 1);
        EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath(exact.get(), "photo", nullptr, 0)) << path;
    }
}

TEST_F(PersonalPackagePath, UserIsGivenWheneverThePathIsInAHome) {
    kit::PlatformDouble::setHome("/nowhere/alice", "alice", "/nowhere/alice");
    for (const char *path : {"/nowhere/alice/photo", "/nowhere/alice/docs"}) {
        std::string user(16, 'Z');
        VEXOIndexIsPersonalPackagePath(path, "photo", user.data(), 16);
        EXPECT_STREQ("alice", user.c_str());
        user.assign(16, 'Z');
        VEXOIndexIsPersonalPackagePath(path, "photo", user.data(), 4);
        EXPECT_EQ(std::string("ali\0ZZZZZZZZZZZZ", 16), user);
        for (const int size : {0, -1}) {
            user.assign(16, 'Z');
            VEXOIndexIsPersonalPackagePath(path, "photo", user.data(), size);
            EXPECT_EQ(std::string(16, 'Z'), user);
        }
    }
}

TEST_F(PersonalPackagePath, OutsideAHomeNothingIsGiven) {
    std::string user(8, 'Z');
    for (const long result : {0L, -1L}) {
        kit::Faults::add({.function = "VEXOServiceHomePathCheck", .result = result, .answers = true});
        EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath("/volume1/photo", "photo", user.data(), 8));
    }
    EXPECT_EQ(std::string(8, 'Z'), user);
    EXPECT_EQ(0, kit::Faults::count("VEXOHomeCheckResultFree"));
}

TEST_F(PersonalPackagePath, AnswerWithoutARecordIsNoHome) {
    kit::Faults::add({.function = "VEXOServiceHomePathCheck", .result = 1, .answers = true});
    EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath("/volume1/homes/alice/photo", "photo", nullptr, 0));
}

TEST_F(PersonalPackagePath, NullArguments) {
    kit::PlatformDouble::setHome("/nowhere/alice", "alice", "/nowhere/alice");
    EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath(nullptr, "photo", nullptr, 0));
    EXPECT_EQ(0, VEXOIndexIsPersonalPackagePath("/nowhere/alice/photo", nullptr, nullptr, 0));
    EXPECT_EQ(1, VEXOIndexIsPersonalPackagePath("/nowhere/alice/photo", "photo", nullptr, 8));
}

TEST_F(PersonalPackagePath, RecordIsFreedOnce) {
    kit::PlatformDouble::setHome("/nowhere/alice", "alice", "/nowhere/alice");
    kit::Faults::add({.function = "VEXOHomeCheckResultFree", .path = "none"}); // counts
    VEXOIndexIsPersonalPackagePath("/nowhere/alice/photo", "photo", nullptr, 0);
    EXPECT_EQ(1, kit::Faults::count("VEXOHomeCheckResultFree"));
    VEXOIndexIsPersonalPackagePath("/nowhere/alice/docs", "photo", nullptr, 0);
    EXPECT_EQ(2, kit::Faults::count("VEXOHomeCheckResultFree"));
}

class IndexIsEnabled : public kit::Behaviour {
  protected:
    // A path that is in no recycle bin by the platform of the double.
    void SetUp() override {
        kit::Behaviour::SetUp();
        answerRecycle("#recycle", 1);
        answerRecycle({}, 0);
    }
};

TEST_F(IndexIsEnabled, NullPathLeavesTheRecycleAnswerAlone) {
    int recycle = kNotWritten;
    EXPECT_EQ(0, VEXOIndexIsEnabled(nullptr, &recycle));
    EXPECT_EQ(0, VEXOIndexIsEnabled(nullptr, nullptr));
    EXPECT_EQ(kNotWritten, recycle);
}

TEST_F(IndexIsEnabled, RecycleBinIsNeverIndexedAndReportsItsValue) {
    kit::Faults::reset();
    kit::PlatformDouble::setShare("/", "any", kIndexed, false);
    answerRecycle({}, 7);
    for (const char *path :
         {"/volume1/photo/#recycle/a", "/volume1/homes/alice/#recycle/photo", "/mnt/#recycle", "/volume1"}) {
        int recycle = kNotWritten;
        EXPECT_EQ(0, VEXOIndexIsEnabled(path, &recycle)) << path;
        EXPECT_EQ(7, recycle) << path;
        EXPECT_EQ(0, VEXOIndexIsEnabled(path, nullptr)) << path;
    }
    EXPECT_EQ(0, kit::Faults::count("VEXOShareGet"));
    EXPECT_EQ(0, kit::Faults::count("VLIBCFileGetKeyValue"));
}

TEST_F(IndexIsEnabled, ShareIsIndexedWhenItsSwitchIsOn) {
    const std::pair<uint32_t, int> rows[] = {{0, 0}, {kIndexed, 1}, {~kIndexed, 0}, {~0U, 1}};
    for (const auto &[status, expected] : rows) {
        kit::PlatformDouble::setShare("/volume1/media", "media", status, false);
        kit::PlatformDouble::setShare("/mnt/elsewhere", "elsewhere", status, false);
        for (const char *path : {"/volume1/media", "/volume1/media/a/b", "/mnt/elsewhere/a"}) {
            int recycle = kNotWritten;
            EXPECT_EQ(expected, VEXOIndexIsEnabled(path, &recycle)) << path << " " << status;
            EXPECT_EQ(0, recycle) << path;
            EXPECT_EQ(expected, VEXOIndexIsEnabled(path, nullptr)) << path;
        }
    }
}

TEST_F(IndexIsEnabled, PathInNoShareIsNotIndexed) {
    int recycle = kNotWritten;
    kit::Faults::add({.function = "VEXOShareNamePathGet", .error = ENOENT, .times = 0});
    EXPECT_EQ(0, VEXOIndexIsEnabled("/volume1/media/a", &recycle));
    EXPECT_EQ(0, recycle);
    EXPECT_EQ(0, kit::Faults::count("VEXOShareGet"));
}

TEST_F(IndexIsEnabled, ShareWithoutARecordIsNotIndexed) {
    int recycle = kNotWritten;
    kit::PlatformDouble::setShare("/volume1/media", "media", kIndexed, false);
    kit::Faults::fail("VEXOShareGet", ENOENT);
    EXPECT_EQ(0, VEXOIndexIsEnabled("/volume1/media/a", &recycle));
    EXPECT_EQ(0, recycle);
    EXPECT_EQ(0, kit::Faults::count("VEXOShareFree"));
}

TEST_F(IndexIsEnabled, AnswerWithoutARecordIsNoShare) {
    kit::PlatformDouble::setShare("/volume1/media", "media", kIndexed, false);
    kit::Faults::add({.function = "VEXOShareGet", .result = 0, .answers = true});
    EXPECT_EQ(0, VEXOIndexIsEnabled("/volume1/media/a", nullptr));
}

TEST_F(IndexIsEnabled, ShareRecordIsFreed) {
    kit::PlatformDouble::setShare("/volume1/media", "media", kIndexed, false);
    EXPECT_EQ(1, VEXOIndexIsEnabled("/volume1/media/a", nullptr));
    EXPECT_EQ(1, kit::Faults::count("VEXOShareFree"));
}

// Every combination of the two services' settings, the homes share's own switch and a place in a home.
TEST_F(IndexIsEnabled, HomesFollowThePersonalServicesAlone) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.makeDirectory("/volume1/homes/alice");
    kit::PlatformDouble::setHome("/volume1/homes/alice", "alice", "/volume1/homes/alice");
    const char *settings[] = {nullptr, "", "no", "yes", "YES"};
    const auto put = [&](const char *file, const char *key, const char *value) {
        ::unlink(file);
        if (value != nullptr) {
            root.put(file, std::string("other=\"yes\"\n") + key + "=\"" + value + "\"\n");
        }
        return value != nullptr && ::strcasecmp(value, "yes") == 0;
    };
    struct Place {
        const char *path;
        bool isPhoto, isMusic;
    };
    const Place places[] = {
        {"/volume1/homes/alice/photo", true, false},
        {"/volume1/homes/alice/photo/a.jpg", true, false},
        {"/volume1/homes/alice/music/a.flac", false, true},
        {"/volume1/homes/alice/Music", false, true},
        {"/volume1/homes/alice/photos/a", false, false},
        {"/volume1/homes/alice/a", false, false},
        {"/volume1/homes/alice", false, false},
        {"/volume1/homes", false, false},
    };
    for (const char *photo : settings) {
        const bool photoIsOn = put(kPhotoSettings, "runpersonalpixhall", photo);
        for (const char *music : settings) {
            const bool musicIsOn = put(kMusicSettings, "enable_personal_library", music);
            for (const uint32_t status : {0U, kIndexed}) {
                kit::PlatformDouble::setShare("/volume1/homes", "homes", status, false);
                for (const Place &place : places) {
                    int recycle = kNotWritten;
                    const bool expected = (photoIsOn && place.isPhoto) || (musicIsOn && place.isMusic);
                    EXPECT_EQ(expected ? 1 : 0, VEXOIndexIsEnabled(place.path, &recycle))
                        << place.path << ", photo " << photoIsOn << ", music " << musicIsOn << ", share " << status;
                    EXPECT_EQ(0, recycle);
                }
            }
        }
    }
    EXPECT_EQ(0, kit::Faults::count("VEXOShareGet"));
}

TEST_F(IndexIsEnabled, HomesIsTheSecondComponentOfAVolumePath) {
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.put(kPhotoSettings, "runpersonalpixhall=yes\n");
    kit::PlatformDouble::setShare("/", "root", kIndexed, false);
    struct Row {
        const char *home;
        bool isHomes;
    };
    const Row rows[] = {
        {"/volume1/homes/alice", true},  {"/volume22/HOMES/alice", true},       {"/volumeUSB1/Homes/alice", true},
        {"/volume1//homes/alice", true}, {"/volume/homes/alice", true},         {"/volume1/homesx/alice", false},
        {"/volume1/home/alice", false},  {"/volume1/media/homes/alice", false}, {"/Volume1/homes/alice", false},
        {"/homes/alice", false},         {"/var/services/homes/alice", false},  {"//volume1/homes/alice", false},
    };
    for (const Row &row : rows) {
        kit::PlatformDouble::setHome(row.home, "alice", row.home);
        const std::string home = row.home;
        EXPECT_EQ(1, VEXOIndexIsEnabled((home + "/photo/a").c_str(), nullptr)) << home; // both ways
        EXPECT_EQ(row.isHomes ? 0 : 1, VEXOIndexIsEnabled((home + "/docs/a").c_str(), nullptr)) << home;
    }
}

TEST_F(IndexIsEnabled, VolumeWithoutAShareIsLookedUpAsAnyPath) {
    kit::PlatformDouble::setShare("/", "root", kIndexed, false);
    for (const char *path : {"/volume1", "/volume1/", "/volume1//", "/volume", "relative", ""}) {
        kit::PlatformDouble::setShare(path, "own", kIndexed, false);
        EXPECT_EQ(1, VEXOIndexIsEnabled(path, nullptr)) << path;
    }
}

// With nothing of the platform doubled: users, shares and settings as a machine has them.
TEST(IndexOnAMachine, AnswersFromItsConfiguration) {
    kit::Faults::reset();
    kit::PlatformDouble::reset();
    KIT_REQUIRE_PRIVATE_ROOT(root);
    root.put("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\nalice:x:1000:1000::/volume1/homes/alice:/bin/sh\n");
    root.put("/etc/group", "root:x:0:\nalice:x:1000:\n");
    root.put("/etc/samba/smb.conf", "[homes]\npath = /volume1/homes/%S\n"
                                    "[media]\npath = /volume1/media\nvexo:index = yes\nvfs objects = recycle\n"
                                    "recycle:repository = #recycle\n"
                                    "[plain]\npath = /volume1/plain\n");
    for (const char *directory : {"/volume1/homes/alice/photo", "/volume1/homes/alice/photos",
                                  "/volume1/homes/alice/music", "/volume1/media/#recycle", "/volume1/plain"}) {
        root.makeDirectory(directory);
    }
    root.put(kPhotoSettings, "runpersonalpixhall=\"yes\"\n");
    const auto ask = [](const char *path) {
        int recycle = kNotWritten;
        const int answer = VEXOIndexIsEnabled(path, &recycle);
        return std::pair(answer, recycle != 0);
    };
    EXPECT_EQ(std::pair(1, false), ask("/volume1/media/a.jpg"));
    EXPECT_EQ(std::pair(0, true), ask("/volume1/media/#recycle/a.jpg"));
    EXPECT_EQ(std::pair(0, false), ask("/volume1/plain/a.jpg"));
    EXPECT_EQ(std::pair(0, false), ask("/volume1/unknown/a.jpg"));
    EXPECT_EQ(std::pair(1, false), ask("/volume1/homes/alice/photo/a.jpg"));
    EXPECT_EQ(std::pair(0, false), ask("/volume1/homes/alice/photos/a.jpg"));
    EXPECT_EQ(std::pair(0, false), ask("/volume1/homes/alice/music/a.flac"));
    root.put(kMusicSettings, "enable_personal_library=\"Yes\"\n");
    EXPECT_EQ(std::pair(1, false), ask("/volume1/homes/alice/music/a.flac"));
    std::array<char, 32> user{};
    EXPECT_EQ(1, VEXOIndexIsPersonalPackagePath("/volume1/homes/alice/photo", "photo", user.data(), user.size()));
    EXPECT_STREQ("alice", user.data());
}

} // namespace
