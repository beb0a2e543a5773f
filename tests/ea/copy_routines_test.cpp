// What a copy does beside carrying the items: arguments, kinds, callbacks, results, log lines and error codes, and what
// hostile stores do to it.
#include "copy/copy.h"
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/ea/store_copy.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace item_store;

// The calls that a callback saw, and what it is to answer.
struct Callback {
    std::vector<std::pair<std::string, std::string>> calls;
    int result = 0;
    bool copies = true;
    int error = 0;

    int run(const char *from, const char *to) {
        const kit::FaultsOff quiet;
        calls.emplace_back(from, to);
        if (copies) {
            kit::writeFile(to, kit::readFile(from), 0600);
        }
        errno = error;
        return result;
    }
};
Callback bare;
Callback engine;
Callback fileOp;

int runBare(const char *from, const char *to) {
    return bare.run(from, to);
}
int runWithData(void *data, const char *from, const char *to) {
    return static_cast<Callback *>(data)->run(from, to);
}

class CopyRoutines : public store_copy::StoreCopy {
  protected:
    void SetUp() override {
        bare = engine = fileOp = {};
        StoreCopy::SetUp();
    }
    bool archived(const Place &place) const {
        VLIBCStat status{};
        return VLIBCFileStat(place.path().c_str(), 3, &status) == 0 && (status.attributes & VLIBC_ATTR_ARCHIVE) != 0;
    }
};

TEST_F(CopyRoutines, NullAndEmptyPathsAreRefused) {
    EXPECT_FAILS(VEXOEACopy(nullptr, "/a", 0, 0, 1, 1, 0, 0), 0x0D00);
    EXPECT_FAILS(VEXOEACopy("/a", nullptr, 0, 0, 1, 1, 0, 0), 0x0D00);
    EXPECT_FAILS(VEXOEACopy("", "/a", 0, 0, 1, 1, 0, 0), 0x0D00);
    EXPECT_FAILS(VEXOEACopy("/a", "", 0, 0, 1, 1, 0, 0), 0x0D00);
    EXPECT_STREQ("ea/ea_copy.c", VLIBCErrorGetFile());
}

TEST_F(CopyRoutines, KindsThatCannotBeToldFail) {
    prepare(kEaDirectory, kEaDirectory);
    kit::PlatformDouble::setType(from.directory, -1, EIO);
    EXPECT_EQ(-1, copy());
    EXPECT_TRUE(logged("(VEXOEACopyInternal) Failed to get fs type of " + from.path() + ".\n")) << kit::Log::all();
    kit::PlatformDouble::setType(from.directory, kEaDirectory);
    kit::PlatformDouble::setType(to.directory, -1, EIO);
    EXPECT_EQ(-1, copy());
    EXPECT_TRUE(logged("(VEXOEACopyInternal) Failed to get fs type of " + to.path() + ".\n")) << kit::Log::all();
    EXPECT_EQ(-1, VEXOEACopy(from.path().c_str(), "relative", 0, 0, -1, -1, 0, 0));
    EXPECT_TRUE(logged("(VEXOEACopyInternal) Failed to strrchr '/' of relative, reason=")) << kit::Log::all();
}

TEST_F(CopyRoutines, SourceOfAnotherKindFailsWithoutAMessage) {
    prepare(kEaDirectory, kEaDirectory);
    for (const int kind : {4, 12, 99}) {
        EXPECT_EQ(-1, copy(false, kind, kEaDirectory));
    }
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    EXPECT_FALSE(kit::exists(to.eaDirectory()));
}

TEST_F(CopyRoutines, NoStoreStillSetsTheArchiveBit) {
    for (const int kind : {0, 5, 18, 7, 1, 6, 10, 19, 22, 2, 3}) {
        prepare(kEaDirectory, kEaDirectory, {}, newRoot());
        EXPECT_EQ(0, copy(false, kEaDirectory, kind)) << kind;
        EXPECT_TRUE(archived(to)) << kind;
        EXPECT_FALSE(kit::exists(to.eaDirectory())) << kind;
        EXPECT_FALSE(kit::exists(to.dotFile())) << kind;
    }
}

TEST_F(CopyRoutines, FailingArchiveBitIsOnlyALine) {
    prepare(kEaDirectory, kNative, {});
    kit::Faults::failAlways("VLIBCKernelAttrCall", EPERM, to.path());
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Failed to set " + to.path() + " smb archive. Operation not permitted"))
        << kit::Log::all();
}

TEST_F(CopyRoutines, EveryCodeBelongsToItsGroup) {
    for (const auto &[code, group] : {std::pair{0, kAppleDouble},
                                      {5, kAppleDouble},
                                      {18, kAppleDouble},
                                      {7, kNative},
                                      {1, kEaDirectory},
                                      {6, kEaDirectory},
                                      {10, kEaDirectory},
                                      {19, kEaDirectory},
                                      {22, kEaDirectory},
                                      {12, kEaDirectory},
                                      {2, kFileEa},
                                      {3, kFileEa}}) {
        prepare(kEaDirectory, group, some(), newRoot());
        EXPECT_EQ(0, copy(false, kEaDirectory, code)) << code;
        EXPECT_EQ(some().attributes, read(to, group).attributes) << code;
        EXPECT_EQ(some().fork, read(to, group).fork) << code;
        EXPECT_EQ(some().finderInfo, read(to, group).finderInfo) << code;
    }
}

TEST_F(CopyRoutines, MoveToAnAppleDoubleVolumeLeavesWhatTheCodeSays) {
    for (const int code : {1, 10, 19, 6, 22}) {
        prepare(kEaDirectory, kAppleDouble, some(), newRoot());
        EXPECT_EQ(0, copy(true, code, kAppleDouble));
        const bool drops = code == 1 || code == 10 || code == 19;
        EXPECT_EQ(drops, !kit::exists(from.eaDirectory())) << code;
        EXPECT_EQ(!drops, kit::exists(from.stream())) << code;
        EXPECT_EQ(!drops, kit::exists(from.own() + "/thumb.jpg")) << code;
        EXPECT_FALSE(kit::exists(from.resource())) << code;
    }
}

TEST_F(CopyRoutines, InternalFolderCarriesTheRestAlone) {
    for (const int code : {1, 12}) {
        KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
        processAsNow();
        const std::string folder = volume / "@internal@";
        ::mkdir(folder.c_str(), 0755);
        prepare(code, kEaDirectory, some(), folder);
        lock(to, kEaDirectory);
        EXPECT_EQ(0, copy(true, code, kEaDirectory));
        EXPECT_EQ((Items{"", "", {}, some().extras, true}), read(to, kEaDirectory)) << code;
        EXPECT_TRUE(kit::exists(from.stream()));
        EXPECT_EQ(code == 12, kit::exists(from.own())) << "a source of type 12 keeps its directory";
    }
}

// Nothing is converted there, so that a move takes nothing away that was not carried.
TEST_F(CopyRoutines, MoveOutOfAnInternalFolderLeavesWhatIsNotCarried) {
    for (const int code : {1, 6, 10}) {
        for (const bool full : {false, true}) {
            KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
            processAsNow();
            const std::string folder = volume / "@internal@";
            ::mkdir(folder.c_str(), 0755);
            prepare(code, kAppleDouble, some(), folder);
            EXPECT_EQ(0, copy(true, code, kAppleDouble, full));
            EXPECT_FALSE(kit::exists(to.dotFile()));
            Items left = some();
            left.extras = full ? std::map<std::string, std::string>() : some().extras;
            EXPECT_EQ(left, read(from, kEaDirectory)) << code << full;
            EXPECT_EQ(full ? some().extras : Items().extras, read(to, kEaDirectory).extras);
        }
    }
}

TEST_F(CopyRoutines, FolderBelowAnotherIsNoInternalFolder) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    for (const char *folder : {"plain", "@half", "half@"}) {
        const std::string outer = volume / folder;
        ::mkdir(outer.c_str(), 0755);
        ::mkdir((outer + "/@internal@").c_str(), 0755);
        prepare(kEaDirectory, kEaDirectory, some(), outer + "/@internal@");
        EXPECT_EQ(0, copy());
        EXPECT_EQ(some(), read(to, kEaDirectory)) << folder;
    }
}

TEST_F(CopyRoutines, RelativePathIsInNoInternalFolder) {
    processMayChange();
    ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
    ASSERT_EQ(0, ::mkdir("@internal@", 0755));
    prepare(kEaDirectory, kEaDirectory, some(), "@internal@");
    EXPECT_EQ(0, copy(false, kEaDirectory, kEaDirectory)) << kit::Log::all();
    EXPECT_EQ(some(), read(to, kEaDirectory));
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(CopyRoutines, CallbacksTakePlaceOfEveryFileCopy) {
    VEXOCopyArgsEx options{};
    options.copyEA = runBare;
    VEXOCopyTHRArgs thread{};
    thread.copyEA = runWithData;
    thread.copyEAArg = &engine;
    VEXOCopyArgs arguments{};
    arguments.copyEA = runWithData;
    arguments.copyEAArg = &fileOp;
    const auto run = [&](VEXOCopyArgsEx *first, VEXOCopyTHRArgs *second, VEXOCopyArgs *third) {
        bare = engine = fileOp = {};
        prepare(kEaDirectory, kEaDirectory, some(), newRoot());
        EXPECT_EQ(0, VEXOEACopyInternal(from.path().c_str(), to.path().c_str(), 1, 0, -1, -1, first, second, third));
        EXPECT_EQ(some(), read(to, kEaDirectory));
        EXPECT_EQ(Items{}, read(from, kEaDirectory));
        EXPECT_EQ(0777u, kit::statOf(to.stream()).st_mode & 07777u);
        EXPECT_EQ(0777u, kit::statOf(to.own() + "/thumb.jpg").st_mode & 07777u);
        return std::vector<size_t>{bare.calls.size(), engine.calls.size(), fileOp.calls.size()};
    };
    EXPECT_EQ((std::vector<size_t>{3, 0, 0}), run(&options, &thread, &arguments));
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{from.resource(), to.resource()},
                                                                {from.stream(), to.stream()},
                                                                {from.own() + "/thumb.jpg", to.own() + "/thumb.jpg"}}),
              bare.calls);
    EXPECT_EQ((std::vector<size_t>{0, 3, 0}), run(nullptr, &thread, &arguments));
    EXPECT_EQ((std::vector<size_t>{0, 0, 3}), run(nullptr, nullptr, &arguments));
    options.copyEA = nullptr;
    EXPECT_EQ((std::vector<size_t>{0, 0, 3}), run(&options, &thread, &arguments)) << "the engine's is ignored";
    EXPECT_EQ((std::vector<size_t>{0, 0, 0}), run(nullptr, nullptr, nullptr));
}

TEST_F(CopyRoutines, CallbackThatCannotConvertLeavesTheLockOnly) {
    for (const int result : {-4, 0xC300}) {
        Items items = some();
        items.locked = true;
        prepare(kEaDirectory, kEaDirectory, items, newRoot());
        bare = {};
        bare.result = result;
        bare.copies = false;
        EXPECT_EQ(0, VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 1, 0, -1, -1, 0, 0, runBare));
        EXPECT_EQ(1u, bare.calls.size());
        EXPECT_TRUE(isPlatformLocked(to));
        EXPECT_FALSE(archived(to));
        EXPECT_EQ(items, read(from, kEaDirectory));
    }
}

TEST_F(CopyRoutines, FailingCallbackFailsTheCopy) {
    prepare(kEaDirectory, kEaDirectory);
    bare.result = -3;
    bare.error = EIO;
    EXPECT_EQ(-1, VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 1, 0, -1, -1, 0, 0, runBare));
    EXPECT_TRUE(logged("Failed to cp -f " + from.resource() + " " + to.resource() + ". Input/output error"));
    EXPECT_TRUE(logged("]EACopy fail: from [" + from.path() + "] to [" + to.path() + "] Input/output error"));
    EXPECT_EQ(some(), read(from, kEaDirectory));
}

TEST_F(CopyRoutines, UnsupportedDestinationFailsSilently) {
    prepare(kEaDirectory, kEaDirectory);
    bare.result = -1;
    bare.error = EOPNOTSUPP;
    EXPECT_EQ(-1, VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 0, 0, -1, -1, 0, 0, runBare));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(CopyRoutines, NameTooLongForAnAppleDoubleFileFails) {
    for (const auto &[fromKind, toKind] :
         {std::pair{kEaDirectory, kAppleDouble}, {kAppleDouble, kAppleDouble}, {kAppleDouble, kEaDirectory}}) {
        prepare(fromKind, toKind, {}, newRoot(), std::string(254, 'n'));
        EXPECT_FAILS(copy(), 0xC300);
        const std::string tooLong = "filename too long: [";
        std::vector<std::string> expected;
        if (fromKind == kAppleDouble) {
            expected.push_back(tooLong + from.path() + "].");
        }
        if (toKind == kAppleDouble) {
            expected.push_back(tooLong + to.path() + "].");
        }
        std::vector<std::string> lines = reports();
        ASSERT_FALSE(lines.empty());
        EXPECT_TRUE(lines.back().starts_with("[0xC300]EACopy fail: from [")) << lines.back();
        lines.pop_back();
        EXPECT_EQ(expected, lines);
    }
}

TEST_F(CopyRoutines, NamesThatAreShortenedAndOddNamesCarry) {
    for (const std::string &base :
         {std::string(246, 'n') + ".jpg", std::string("line\nfeed"), std::string("a:b?c*d")}) {
        const auto streams = [](const Place &place) {
            std::vector<std::string> names;
            for (const std::string &one : kit::namesIn(place.eaDirectory())) {
                names.push_back(kit::readFile(place.eaDirectory() + "/" + one));
            }
            return names;
        };
        prepare(kEaDirectory, kEaDirectory, {}, newRoot(), base);
        char path[4096];
        makeDirectories(from);
        for (const char *stream : {"VexoResource", "VexoEAStream"}) {
            ASSERT_EQ(0, VEXOEAPath(1, from.path().c_str(), stream, path, 4095, 0));
            kit::writeFile(path,
                           stream == std::string("VexoResource") ? resourceBytes("i", "fork") : streamBytes(some()));
        }
        const auto before = streams(from);
        EXPECT_EQ(0, copy(true)) << kit::Log::all();
        EXPECT_EQ(before, streams(to));
        EXPECT_FALSE(kit::exists(from.eaDirectory()));
    }
}

TEST_F(CopyRoutines, ReservedCharactersAreReplacedInTheAppleDoubleName) {
    prepare(kEaDirectory, kAppleDouble, some(), scratch.path(), "a:b?c");
    char name[4096];
    ASSERT_EQ(0, VEXOStrReplaceFATReservedChar(to.dotFile().c_str(), name, 4096));
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(name));
}

TEST_F(CopyRoutines, DirectoriesCarryTheirStores) {
    for (const int fromKind : {kAppleDouble, kEaDirectory, kFileEa}) {
        for (const int toKind : {kAppleDouble, kEaDirectory, kFileEa}) {
            prepare(fromKind, toKind, {}, newRoot());
            ::unlink(from.path().c_str());
            ::unlink(to.path().c_str());
            ::mkdir(from.path().c_str(), 0755);
            ::mkdir(to.path().c_str(), 0755);
            build(from, fromKind, some());
            EXPECT_EQ(0, copy(true)) << kit::Log::all();
            EXPECT_EQ(some().attributes, read(to, toKind).attributes) << name(fromKind) << name(toKind);
            EXPECT_EQ(some().finderInfo, read(to, toKind).finderInfo) << name(fromKind) << name(toKind);
        }
    }
}

TEST_F(CopyRoutines, DirectoryOfANativeVolumeHasNoFork) {
    prepare(kEaDirectory, kEaDirectory, {});
    makeVolume(from.directory, kNative);
    ::unlink(from.path().c_str());
    ASSERT_EQ(0, ::mkdir(from.path().c_str(), 0755));
    kit::setAttribute(from.path(), "com.apple.FinderInfo", some().finderInfo);
    kit::setAttribute(from.path(), "user.a", "one");
    EXPECT_EQ(0, copy()) << kit::Log::all();
    EXPECT_EQ((Items{some().finderInfo, "", {{"user.a", "one"}}, {}, false}), read(to, kEaDirectory));
}

TEST_F(CopyRoutines, ExistingStoreOfTheDestinationGivesWay) {
    for (const int fromKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
        for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
            prepare(fromKind, toKind, some(), newRoot());
            build(to, toKind,
                  {kit::pattern(32, 1), kit::pattern(5000, 9), {{"user.a", "a longer value"}}, {{"old", "x"}}, false});
            EXPECT_EQ(0, copy()) << kit::Log::all();
            const Items now = read(to, toKind);
            EXPECT_EQ("one", now.attributes.at("user.a")) << name(fromKind) << name(toKind);
            EXPECT_EQ(some().fork, now.fork) << name(fromKind) << name(toKind);
            EXPECT_EQ(some().finderInfo, now.finderInfo) << name(fromKind) << name(toKind);
            const bool carries = fromKind != kAppleDouble && toKind != kAppleDouble;
            EXPECT_EQ(carries ? some().extras : (std::map<std::string, std::string>{{"old", "x"}}), now.extras);
        }
    }
}

TEST_F(CopyRoutines, MoveAcrossDevices) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    processAsNow();
    prepare(kEaDirectory, kEaDirectory, some(), scratch.path());
    to = {volume / "to", "f"};
    makeVolume(to.directory, kEaDirectory);
    makeFile(to, kEaDirectory);
    EXPECT_EQ(0, copy(true)) << kit::Log::all();
    EXPECT_EQ(some(), read(to, kEaDirectory));
    EXPECT_FALSE(kit::exists(from.eaDirectory()));
}

TEST_F(CopyRoutines, FailedMoveAcrossDevicesKeepsTheEntry) {
    prepare(kEaDirectory, kEaDirectory);
    kit::Faults::failAlways("rename", EXDEV);
    kit::Faults::fail("open", ENOSPC, to.own() + "/thumb.jpg");
    EXPECT_EQ(0, copy(true));
    EXPECT_TRUE(logged("Failed to mv " + from.own() + "/thumb.jpg to " + to.own() + "/thumb.jpg. No space left"));
    EXPECT_EQ(some().extras, read(from, kEaDirectory).extras);
}

TEST_F(CopyRoutines, FailedCopyOfAnEntryIsLoggedAndAMoveDropsIt) {
    prepare(kEaDirectory, kEaDirectory);
    kit::Faults::fail("rename", EIO);
    EXPECT_EQ(0, copy(true));
    EXPECT_TRUE(logged("Failed to cp -f " + from.own() + "/thumb.jpg to " + to.own() + "/thumb.jpg. Input/output"));
    EXPECT_FALSE(kit::exists(from.eaDirectory()));
}

// The way to an entry takes descriptors and memory. What is wanting there says nothing of the entry.
TEST_F(CopyRoutines, MoveGivesUpNothingForWantOfDescriptorsOrMemory) {
    for (const int number : {EMFILE, ENFILE, ENOMEM}) {
        prepare(kEaDirectory, kEaDirectory, some(), newRoot());
        kit::Faults::fail("rename", number);
        EXPECT_EQ(0, copy(true));
        EXPECT_TRUE(logged("Failed to cp -f " + from.own() + "/thumb.jpg to " + to.own() + "/thumb.jpg. "));
        EXPECT_EQ(some().extras, read(from, kEaDirectory).extras) << number;

        prepare(kEaDirectory, kEaDirectory, some(), newRoot());
        kit::Faults::fail("opendir", number, to.own()); // once it is made
        EXPECT_EQ(-1, copy(true));
        EXPECT_EQ(some().extras, read(from, kEaDirectory).extras) << number;
    }
}

TEST_F(CopyRoutines, CallbackThatWantsDescriptorsGivesUpNothing) {
    prepare(kEaDirectory, kEaDirectory, {"", "", {}, some().extras, false});
    VEXOCopyArgsEx options{};
    options.copyEA = [](const char *, const char *) {
        errno = EMFILE;
        return -1;
    };
    EXPECT_EQ(0, VEXOEACopyInternal(from.path().c_str(), to.path().c_str(), 1, 0, -1, -1, &options, nullptr, nullptr));
    EXPECT_EQ(some().extras, read(from, kEaDirectory).extras);
}

// Nothing stands where the directory is to be made, though a look cannot tell.
TEST_F(CopyRoutines, LookThatFailsOnceKeepsNothingFromBeingCarried) {
    for (const bool move : {false, true}) {
        prepare(kEaDirectory, kEaDirectory, some(), newRoot());
        kit::Faults::fail("lstat", EIO, to.own(), 1); // the first asks whether it is the source
        EXPECT_EQ(0, copy(move)) << kit::Log::all();
        EXPECT_EQ(some().extras, read(to, kEaDirectory).extras);
    }
}

// What a close says on the way out hides nothing of what was found before it.
TEST_F(CopyRoutines, FailingCloseGivesUpNothing) {
    for (int skip = 0; skip < 40; ++skip) {
        prepare(kEaDirectory, kEaDirectory, {"", "", {}, some().extras, false}, newRoot());
        kit::Faults::fail("close", EIO, {}, skip);
        EXPECT_EQ(0, copy(true)) << skip << kit::Log::all();
        kit::Faults::reset();
        EXPECT_EQ(some().extras, read(to, kEaDirectory).extras) << skip;
    }
}

TEST_F(CopyRoutines, MoveKeepsADirectoryThatCannotBeReadToItsEnd) {
    prepare(kEaDirectory, kEaDirectory);
    kit::Faults::failAlways("readdir", EIO, from.own());
    EXPECT_EQ(0, copy(true)) << kit::Log::all();
    EXPECT_EQ("picture", kit::readFile(from.own() + "/thumb.jpg"));
}

TEST_F(CopyRoutines, FailedChmodOfAnEntryIsOnlyALine) {
    prepare(kEaDirectory, kEaDirectory, {"", "", {}, some().extras, false});
    const std::string entry = to.own() + "/thumb.jpg";
    kit::Faults::fail("fchmod", EPERM, entry);
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(logged("Failed to chmod " + entry + ". Operation not permitted"));
    kit::Faults::fail("fchmod", EPERM, entry);
    EXPECT_EQ(0, VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 0, 0, -1, -1, 0, 0, runBare));
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, "Failed to chmod " + entry));
    VEXOCopyArgs arguments{};
    arguments.copyEA = runWithData;
    arguments.copyEAArg = &fileOp;
    kit::Faults::fail("fchmod", EPERM, entry);
    EXPECT_EQ(0,
              VEXOEACopyInternal(from.path().c_str(), to.path().c_str(), 0, 0, -1, -1, nullptr, nullptr, &arguments));
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, "Fail to chmod " + entry + ". (Operation not permitted)"));
}

TEST_F(CopyRoutines, OtherEntriesThanRegularFilesAreNotCarried) {
    for (const bool hidden : {false, true}) {
        prepare(kEaDirectory, kEaDirectory, some(), newRoot());
        ::mkdir((from.own() + "/inner").c_str(), 0755);
        ASSERT_EQ(0, ::symlink("/etc/passwd", (from.own() + "/link").c_str()));
        ASSERT_EQ(0, ::mkfifo((from.own() + "/fifo").c_str(), 0644));
        kit::Faults::hideEntryTypes(hidden);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(std::vector<std::string>{"thumb.jpg"}, kit::namesIn(to.own())) << hidden;
    }
}

// The metadata attribute is the only place of its Finder Info until that is written back into the resource file. Where
// that is not permitted the rest is carried all the same, and a move takes the attribute away.
TEST_F(CopyRoutines, FinderInfoThatMayNotBeWrittenBackIsLostWithAMove) {
    for (const int kind : {kAppleDouble, kNative}) {
        for (const bool move : {false, true}) {
            prepare(kFileEa, kind, {kit::pattern(32, 7), "", {{"user.a", "one"}}, {}, false}, newRoot());
            kit::Faults::fail("open", EACCES, from.resource()); // to make it
            EXPECT_EQ(0, copy(move)) << kit::Log::all();
            const Items arrived = read(to, kind);
            EXPECT_EQ("one", arrived.attributes.at("user.a"));
            EXPECT_EQ(std::string(), arrived.finderInfo == std::string(32, '\0') ? "" : arrived.finderInfo);
            EXPECT_EQ(move, kit::attribute(from.path(), "user.netatalk.Metadata").empty()) << kind;
        }
    }
}

TEST_F(CopyRoutines, SourceThatCannotBeRemovedFails) {
    prepare(kAppleDouble, kAppleDouble, some(), newRoot());
    kit::Faults::fail("unlink", EACCES, from.dotFile());
    EXPECT_FAILS(copy(true), 0x2A00);
    EXPECT_TRUE(logged("Failed to remove [" + from.dotFile() + "]. Permission denied")) << kit::Log::all();
    for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
        prepare(kEaDirectory, toKind, some(), newRoot());
        kit::Faults::fail("unlink", EACCES, from.resource());
        EXPECT_FAILS(copy(true), 0x2A00);
        EXPECT_EQ(some().fork, read(from, kEaDirectory).fork);
    }
    prepare(kNative, kEaDirectory, some(), newRoot());
    makeDirectories(from);
    kit::writeFile(from.resource(), "left over");
    kit::Faults::fail("unlink", EACCES, from.resource());
    EXPECT_FAILS(copy(true), 0x2A00);
    EXPECT_TRUE(logged("Failed to remove [" + from.path() + "]->[" + to.path() + "]. Permission denied"));
    prepare(kFileEa, kEaDirectory, some(), newRoot());
    kit::Faults::fail("removexattr", EIO, from.path());
    EXPECT_FAILS(copy(true), 0x2A00);
    EXPECT_TRUE(logged("remove xattr from [" + from.path() + "] Input/output error"));
}

TEST_F(CopyRoutines, SourceThatVanishesBeforeItsRemovalIsNoFailure) {
    for (const int fromKind : {kAppleDouble, kEaDirectory}) {
        for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
            prepare(fromKind, toKind, some(), newRoot());
            kit::Faults::fail("unlink", ENOENT, fromKind == kAppleDouble ? from.dotFile() : from.resource());
            EXPECT_EQ(0, copy(true)) << name(fromKind) << name(toKind);
            EXPECT_EQ(std::vector<std::string>{}, reports());
        }
    }
    prepare(kFileEa, kEaDirectory, some(), newRoot());
    kit::Faults::fail("removexattr", ENOENT, from.path());
    EXPECT_EQ(0, copy(true));
    EXPECT_EQ(std::vector<std::string>{}, reports());
}

TEST_F(CopyRoutines, StreamThatMayNotBeLookedAtStaysWhereItIs) {
    for (const int error : {EPERM, ENOENT, EACCES}) {
        prepare(kEaDirectory, kEaDirectory, {"", kit::pattern(300), {}, {}, false}, newRoot());
        kit::Faults::add({.function = "open", .error = error, .path = from.resource(), .times = 2});
        kit::Faults::fail("lstat", error, from.resource());
        EXPECT_EQ(0, copy(true)) << error;
        kit::Faults::reset();
        EXPECT_EQ(std::vector<std::string>{}, reports());
        EXPECT_TRUE(kit::exists(from.resource()));
        EXPECT_FALSE(kit::exists(to.resource()));
    }
}

TEST_F(CopyRoutines, FifoInPlaceOfAStreamIsNotWaitedFor) {
    for (const int toKind : {kAppleDouble, kEaDirectory, kFileEa}) {
        prepare(kEaDirectory, toKind, {}, newRoot());
        makeDirectories(from);
        ASSERT_EQ(0, ::mkfifo(from.resource().c_str(), 0644));
        EXPECT_FAILS(copy(), 0x0900);
    }
}

TEST_F(CopyRoutines, OwnDirectoryOfTheDestinationThatCannotGoFails) {
    for (const bool move : {false, true}) {
        prepare(kEaDirectory, kEaDirectory, {"", "", {}, some().extras, false}, newRoot());
        build(to, kEaDirectory, {"", "", {}, {{"old", "x"}}, false});
        kit::Faults::fail("unlink", EBUSY, to.own() + "/old");
        EXPECT_FAILS(copy(move), 0x3900);
        EXPECT_EQ((std::vector<std::string>{"Fail to remove (" + to.own() + "/old) (16)(Device or resource busy)",
                                            "Failed to rm -rf " + to.own() + ". Device or resource busy",
                                            "Failed to rm -rf " + to.own() + ".\n"}),
                  reports());
        EXPECT_EQ(!move, kit::exists(from.eaDirectory())) << "a move drops what it has no place for";
    }
}

TEST_F(CopyRoutines, OwnDirectoryThatCannotBeReadFails) {
    prepare(kEaDirectory, kEaDirectory);
    kit::Faults::fail("opendir", EMFILE, from.own());
    EXPECT_FAILS(copy(true), 0x0900);
    EXPECT_EQ(std::vector<std::string>{"Failed to opendir " + from.own() + ", reason = Too many open files."},
              reports());
    EXPECT_EQ(some().extras, read(from, kEaDirectory).extras);
}

TEST_F(CopyRoutines, OwnDirectoryOfTheSourceThatCannotGoIsOnlyALine) {
    prepare(kEaDirectory, kEaDirectory);
    kit::Faults::fail("rmdir", EBUSY, from.own());
    EXPECT_EQ(0, copy(true));
    EXPECT_EQ((std::vector<std::string>{"Fail to remove (" + from.own() + ") (16)(Device or resource busy)",
                                        "Failed to rm -rf " + from.own() + ". Device or resource busy"}),
              reports());
    EXPECT_EQ(some(), read(to, kEaDirectory));
}

TEST_F(CopyRoutines, ConvertedResourceThatStaysLeavesItsCodeOnly) {
    prepare(kEaDirectory, kAppleDouble);
    kit::Faults::fail("unlink", EACCES, from.resource(), 1); // the first is the conversion's own
    EXPECT_EQ(0, copy(true));
    EXPECT_EQ(0x2A00u, VLIBCErrGet());
    EXPECT_EQ(std::vector<std::string>{}, reports());
}

TEST_F(CopyRoutines, EntryThatCannotBeCopiedIsOnlyALine) {
    const Items extras{"", "", {}, some().extras, false};
    prepare(kEaDirectory, kEaDirectory, extras, newRoot());
    kit::Faults::fail("open", EACCES, from.own() + "/thumb.jpg");
    EXPECT_EQ(0, copy());
    const std::string places = from.own() + "/thumb.jpg to " + to.own() + "/thumb.jpg. ";
    EXPECT_EQ(std::vector<std::string>{"Failed to cp -f " + places + "Permission denied"}, reports());
    kit::Log::reset();
    bare.result = -1;
    bare.error = EIO;
    bare.copies = false;
    EXPECT_EQ(0, VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 0, 0, -1, -1, 0, 0, runBare));
    EXPECT_EQ(std::vector<std::string>{"Failed to cp -f " + places + "Input/output error"}, reports());
}

TEST_F(CopyRoutines, MetadataThatMayNotBeReadIsTolerated) {
    for (const int error : {EACCES, EPERM}) {
        for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
            prepare(kFileEa, toKind, some(), newRoot());
            kit::Faults::fail("getxattr", error, from.path());
            EXPECT_EQ(0, copy()) << name(toKind) << kit::Log::all();
            EXPECT_FALSE(logged("Failed file sync")) << kit::Log::all();
            EXPECT_EQ(some().fork, read(to, toKind).fork);
        }
    }
}

TEST_F(CopyRoutines, NewerMetadataGoIntoTheResourceFirst) {
    prepare(kFileEa, kEaDirectory);
    const std::string newer = kit::pattern(32, 99);
    const int64_t later = ::time(nullptr) + 1000;
    const std::string_view stamp(reinterpret_cast<const char *>(&later), sizeof later);
    kit::setAttribute(from.path(), "user.netatalk.Metadata", metadataBytes(newer));
    kit::setAttribute(from.path(), "user.vexo.filea.flushtime", stamp);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(newer, read(to, kEaDirectory).finderInfo);
    EXPECT_EQ(some().fork, read(to, kEaDirectory).fork);
    EXPECT_NE(stamp, kit::attribute(from.path(), "user.vexo.filea.flushtime")) << "stamped anew";
}

TEST_F(CopyRoutines, MetadataThatCannotBeWrittenBackFail) {
    prepare(kFileEa, kEaDirectory, {kit::pattern(32), "", {}, {}, false});
    kit::Faults::fail("open", EMFILE, from.resource());
    EXPECT_EQ(-1, copy(true));
    EXPECT_TRUE(logged("]Failed file sync [" + from.path() + "]->[" + to.path() + "]. Too many open files"));
    EXPECT_EQ(kit::pattern(32), read(from, kFileEa).finderInfo);
    kit::setAttribute(from.path(), "user.vexo.filea.flushtime", std::string(8, '\0'));
    kit::Faults::fail("lstat", EIO, from.resource());
    kit::Log::reset();
    EXPECT_EQ(-1, copy(true));
    EXPECT_TRUE(logged("]Failed file sync [" + from.path() + "]->[" + to.path() + "]. Input/output error"));
}

TEST_F(CopyRoutines, FinderInfoBeyondTheHeaderIsNone) {
    prepare(kFileEa, kEaDirectory, {"", "fork", {}, {}, false});
    std::vector<adouble_bytes::Entry> entries = adouble_bytes::kMetadata;
    entries[2] = {9, 1000, 8};
    kit::setAttribute(from.path(), "user.netatalk.Metadata", adouble_bytes::header(entries, 402));
    EXPECT_EQ(0, copy()) << kit::Log::all();
    EXPECT_EQ((Items{"", "fork", {}, {}, false}), read(to, kEaDirectory));
}

TEST_F(CopyRoutines, KindOfARootEntryIsAskedOfTheRoot) {
    prepare(kEaDirectory, kEaDirectory);
    kit::PlatformDouble::setType("/", 99);
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOEACopy(from.path().c_str(), "/vexofileop-no-such-file", 0, 0, kEaDirectory, -1, 0, 0));
    EXPECT_EQ("VEXOGetFSType(/)", kit::Faults::recorded().front());
}

TEST_F(CopyRoutines, OversizeValueIsSkippedWithItsMessage) {
    prepare(kEaDirectory, kNative, {"", "", {{"user.large", std::string(65537, 'x')}}, {}, false});
    EXPECT_EQ(0, copy(true));
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, "65537 exceed xattr maiximal size (65536), ignore copy ea user.large [" +
                                                from.path() + "]"))
        << kit::Log::all();
    EXPECT_EQ(0x0100u, VLIBCErrGet());
    EXPECT_TRUE(kit::exists(from.stream()));
}

TEST_F(CopyRoutines, EntryThatFailsDoesNotStopTheOthers) {
    prepare(kEaDirectory, kNative, {"", "", {{"bad", "no namespace"}, {"user.b", "2"}}, {}, false});
    EXPECT_EQ(-1, copy(true));
    EXPECT_EQ(0x0B00u, VLIBCErrGet());
    EXPECT_EQ("2", kit::attribute(to.path(), "user.b"));
    EXPECT_TRUE(kit::exists(from.stream()));
}

TEST_F(CopyRoutines, UserAttributesTravelAndTheirFailureIsOnlyALine) {
    for (const auto &[fromKind, toKind] : {std::pair{kEaDirectory, kEaDirectory},
                                           {kEaDirectory, kFileEa},
                                           {kFileEa, kEaDirectory},
                                           {kFileEa, kFileEa}}) {
        prepare(fromKind, toKind, some(), newRoot());
        kit::setAttribute(from.path(), "user.own", "value");
        kit::setAttribute(from.path(), "trusted.own", "stays");
        EXPECT_EQ(0, copy());
        EXPECT_EQ("", kit::attribute(to.path(), "trusted.own"));
        EXPECT_EQ("value", kit::attribute(to.path(), "user.own")) << name(fromKind) << name(toKind);
        kit::Faults::fail("listxattr", EIO, from.path());
        EXPECT_EQ(0, copy());
        EXPECT_TRUE(logged("Failed to copy user extended attributes [" + from.path() + "]->[" + to.path() +
                           "]. Input/output error"))
            << kit::Log::all();
        kit::Faults::reset();
    }
}

// Hostile stores fail the copy, without harm to the source.
TEST_F(CopyRoutines, HostileStoresLeaveTheSourceAsItWas) {
    const std::string good = resourceBytes(kit::pattern(32), "fork");
    const std::string ofStream = streamBytes(some());
    const auto with = [](std::string bytes, size_t at, uint32_t value, size_t width) {
        return bytes.replace(at, width, adouble_bytes::number(value, width));
    };
    const std::vector<std::string> resources = {
        with(good, 4, 0x00010000, 4),
        with(good, 0, 0x12345678, 4),
        good.substr(0, 20),
        good.substr(0, 40),
        with(good, 24, 0xffff, 2),
        with(good, 46, 0xffffffff, 4),
        with(good, 42, 0xfffffff0, 4),
    };
    const std::vector<std::string> streams = {with(ofStream, 118, 0xffff, 2), with(ofStream, 24, 14, 2),
                                              with(ofStream, 124, 0xffffffff, 4), with(ofStream, 120, 0xfffffff0, 4),
                                              ofStream.substr(0, 60)};
    for (const int toKind : {kAppleDouble, kNative, kFileEa}) {
        for (size_t number = 0; number < resources.size() + streams.size(); ++number) {
            prepare(kEaDirectory, toKind, {}, newRoot());
            makeDirectories(from);
            const bool resource = number < resources.size();
            const std::string &bytes = resource ? resources[number] : streams[number - resources.size()];
            const std::string &place = resource ? from.resource() : from.stream();
            kit::writeFile(place, bytes);
            const bool asItIs = toKind == kFileEa && !resource; // the stream file is carried without a look at it
            const bool magicUnread = toKind == kNative && number == 1;
            const bool skippedAsOversize = toKind == kNative && number == resources.size() + 2;
            if (!asItIs && !magicUnread) {
                EXPECT_EQ(skippedAsOversize ? 0 : -1, copy(true)) << name(toKind) << number << kit::Log::all();
                EXPECT_EQ(bytes, content(place)) << name(toKind) << number;
            }
        }
    }
    for (const int toKind : {kNative, kEaDirectory, kFileEa}) {
        for (size_t number = 0; number < resources.size(); ++number) {
            prepare(kAppleDouble, toKind, {}, newRoot());
            kit::writeFile(from.dotFile(), resources[number]);
            if (toKind != kNative || number != 1) {
                EXPECT_EQ(-1, copy(true)) << name(toKind) << number << kit::Log::all();
                EXPECT_EQ(resources[number], content(from.dotFile())) << name(toKind) << number;
            }
        }
    }
}

TEST_F(CopyRoutines, LengthsThatTheFilesDoNotHoldHaveTheReadCode) {
    const std::string fork = resourceBytes("", "fork").replace(46, 4, adouble_bytes::number(5000, 4));
    const std::string value =
        streamBytes({"", "", {{"user.a", "one"}}, {}, false}).replace(124, 4, adouble_bytes::number(5000, 4));
    for (const int toKind : {kNative, kAppleDouble}) {
        prepare(kEaDirectory, toKind, {}, newRoot());
        makeDirectories(from);
        kit::writeFile(from.resource(), fork);
        EXPECT_FAILS(copy(), 0x0A00);
        ::unlink(from.resource().c_str());
        VLIBCErrSetEx(0, "", 0);
        kit::writeFile(from.stream(), value);
        EXPECT_FAILS(copy(), 0x0A00);
    }
}

TEST_F(CopyRoutines, MemoryForAValueMayRunOut) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    const Items large{"", kit::pattern(60000, 2), {{"user.large", kit::pattern(60000, 5)}}, {}, false};
    struct Row {
        int fromKind, toKind, nth;
    };
    for (const Row &row : {Row{kEaDirectory, kNative, 1}, Row{kEaDirectory, kNative, 2}, Row{kNative, kEaDirectory, 1},
                           Row{kNative, kNative, 1}}) {
        const std::string root = volume / std::to_string(row.fromKind * 100 + row.toKind * 10 + row.nth);
        ::mkdir(root.c_str(), 0755);
        prepare(row.fromKind, row.toKind, large, root);
        kit::Faults::onlyAllocationsFrom(60000);
        if (!kit::Faults::failAllocation(row.nth)) {
            GTEST_SKIP() << "the sanitizer has the allocator";
        }
        EXPECT_FAILS(copy(), 0x0100);
        kit::Faults::reset();
        EXPECT_EQ(large, read(from, row.fromKind));
    }
}

TEST_F(CopyRoutines, CountThatIsNeitherTwoNorThirteenFailsAfterTheAttributes) {
    prepare(kEaDirectory, kNative, some());
    kit::writeFile(from.resource(),
                   resourceBytes("", "").replace(24, 2, std::string("\0\3", 2)) + std::string(50, 'x'));
    EXPECT_FAILS(copy(), 0x0A00);
    EXPECT_EQ("one", kit::attribute(to.path(), "user.a"));
    EXPECT_TRUE(logged("Failed to cp [" + from.path() + "]->[" + to.path() + "]. "));
}

TEST_F(CopyRoutines, MissingEntryHasItsOwnCode) {
    prepare(kEaDirectory, kNative, {});
    makeDirectories(from);
    kit::writeFile(from.resource(), adouble_bytes::header({{9, 50, 32}, {4, 82, 0}}, 82));
    EXPECT_FAILS(copy(), 0x2A00);
}

TEST_F(CopyRoutines, ConverterSaysWhatFailed) {
    prepare(kEaDirectory, kAppleDouble, {"", "fork", {}, {}, false});
    struct Row {
        const char *function;
        int error;
        std::string path, line;
        int reason;
    };
    const std::string both = "Failed to copy " + from.resource() + " to " + to.dotFile() + ", reason = ";
    for (const Row &row :
         {Row{"open", EACCES, from.resource(), "failed to open " + from.resource() + ", reason=Permission denied.\n",
              -2},
          Row{"open", EACCES, to.dotFile(),
              "(EACopyAdoubleV2) failed to open " + to.dotFile() + ", reason=Permission denied.\n", -2},
          Row{"pwrite", ENOSPC, to.dotFile(),
              "(EACopyAdoubleV2) failed to write to " + to.dotFile() + ", reason=No space left on device.\n", -9},
          Row{"pwrite", EIO, to.dotFile(),
              "(EACopyAdoubleV2) failed to write to " + to.dotFile() + ", reason=Input/output error.\n", -5},
          Row{"pread", EIO, from.resource(), "failed to read " + from.resource() + ", reason=Input/output error.\n",
              -1}}) {
        kit::Log::reset();
        kit::Faults::reset();
        kit::Faults::fail(row.function, row.error, row.path);
        EXPECT_EQ(-1, copy());
        EXPECT_TRUE(logged(row.line)) << row.line << kit::Log::all();
        EXPECT_TRUE(logged(both + std::to_string(row.reason) + ".")) << kit::Log::all();
    }
    kit::Faults::reset();
    kit::writeFile(from.resource(), resourceBytes("", "").replace(4, 4, adouble_bytes::number(0x00010000, 4)));
    EXPECT_FAILS(copy(), 0x0A00);
    EXPECT_TRUE(logged("Apple double v1 doens't support now"));
}

} // namespace
