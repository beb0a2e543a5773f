// What a check of stores finds in files that were damaged by hand, and that it finds nothing in sound ones and changes
// nothing anywhere.
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/store_scene.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/orphan_search.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>

namespace {

using namespace store_scene;
using engine::Finding;
using engine::FindingKind;

class StoreCheck : public ::testing::Test {
  protected:
    void SetUp() override { KIT_NEEDS_TO_MAKE_STORES(); }
    // The first detail that is told.
    static std::string detail(const StoreScene &scene) {
        const Told told = scene.check();
        return told.findings.empty() ? "" : told.findings.front().detail;
    }
};

TEST_F(StoreCheck, SoundStoresOfEveryKindAreClean) {
    for (const int type : {0, 1, 2, 7}) {
        const StoreScene scene(type);
        for (const char *name : {"one", "two"}) {
            scene.file(name);
            const engine::Store store(scene / name);
            if (type != 7) {
                store.set("user.first", "value", engine::Store::Existing::either);
                store.set("user.second", std::string(3000, 'x'), engine::Store::Existing::either);
                store.set("user.first", "another value", engine::Store::Existing::either);
            }
        }
        ::mkdir((scene / "below").c_str(), 0755);
        kit::writeFile(scene / "below/._no double", "a user's own");
        kit::writeFile(scene / ".vexofileop-notes", "a user's own");
        const Told told = scene.check("", true);
        EXPECT_EQ(Names{}, told.names(scene.root())) << type;
        EXPECT_EQ(Names{}, told.troubles) << type;
        EXPECT_EQ(2, told.totals.directories) << type;
        EXPECT_EQ(type == 7 ? 0 : 2, told.totals.stores) << type;
    }
}

TEST_F(StoreCheck, SoundFilesOfOtherMakersAreClean) {
    const StoreScene scene(2);
    scene.with_stream("empty", "");
    scene.with_stream("plain", resource_bytes(""));
    scene.with_stream("fork", stream::bytes(kThree, 4) + "fork");
    scene.with_resource("fork", resource_bytes("fork"));
    // A gap between records and values.
    std::string gap = stream::bytes({{"a", "xy"}});
    gap.insert(136, 8, '\0');
    for (const size_t at : {size_t{34}, size_t{92}}) { // the length of the Finder Info entry, the end of the values
        gap = with_number(gap, at, at == 34 ? 96 : 146);
    }
    gap = with_number(with_number(with_number(gap, 42, 146), 96, 144), 120, 144);
    scene.with_stream("gap", gap);
    EXPECT_EQ(Names{}, scene.names()) << detail(scene);
}

struct Damage {
    const char *name;
    std::string bytes, detail;
};
std::vector<Damage> damaged_streams() {
    const std::string sound = stream::bytes(kThree, 4) + "fork";
    // Records of 20, 20 and 20 bytes from 120 on, values from 180 to 192.
    return {{"Short", sound.substr(0, 20), "the header is 20 bytes long, not 26"},
            {"Magic", with_number(sound, 0, 1), "the magic is 0x00000001"},
            {"Version", with_number(sound, 4, 0x00010000), "the version is 0x00010000"},
            {"Entries", with_number(sound, 24, 14, 2), "entry 2 has the id 0"},
            {"NoFinderInfo", with_number(sound, 26, 8), "it has no Finder Info entry"},
            {"EntryIdNone", with_number(sound, 38, 0), "entry 1 has the id 0"},
            {"FinderInfoShort", with_number(sound, 34, 31), "Finder Info at 50 is not 32 bytes long"},
            {"BlockMagic", with_number(sound, 84, 1), "the attribute block at 84 does not begin with \"ATTR\""},
            {"TotalSize", with_number(sound, 92, 191), "the Finder Info entry ends at 192, and the values at 191"},
            {"DataStart", with_number(sound, 96, 170), "the values begin at 170, among the records, which end at 180"},
            {"DataLength", with_number(sound, 100, 11), "the value of attribute third ends at 192, behind that of all"},
            {"DataEndsLater", with_number(sound, 100, 13), "the values go on to 193, behind their end at 192"},
            {"RecordCount", with_number(sound, 118, 60000, 2), "the name of attribute record 3 is not all there"},
            {"NameLength", with_number(sound, 150, 0, 1), "the name of attribute record 1 is not all there"},
            {"NameWithoutEnd", with_number(sound, 156, 'x', 1).replace(157, 1, "x"),
             "the name of attribute record 1 does not end in NUL"},
            {"ValueInRecords", with_number(sound, 120, 100), "the value of attribute first is at 100, among the rec"},
            {"ValueElsewhere", with_number(sound, 140, 186), "the value of attribute second is at 186, not at 185"},
            {"ForkElsewhere", with_number(sound, 42, 193), "the resource fork is at 193, and the Finder Info ends"}};
}

TEST_F(StoreCheck, FirstBadFieldOfAStreamIsNamed) {
    for (const Damage &damage : damaged_streams()) {
        const StoreScene scene(2);
        scene.with_stream("file", damage.bytes);
        EXPECT_EQ(Names{"store-malformed-stream @eaDir/file@VexoEAStream"}, scene.names()) << damage.name;
        EXPECT_EQ(0U, detail(scene).find(damage.detail)) << damage.name << ": " << detail(scene);
    }
}

TEST_F(StoreCheck, MalformedResourceFilesDoublesAndMetadata) {
    {
        const StoreScene scene(2);
        scene.with_resource("file", with_number(resource_bytes("fork"), 42, 83));
        EXPECT_EQ(Names{"store-malformed-resource @eaDir/file@VexoResource"}, scene.names());
        EXPECT_EQ(0U, detail(scene).find("the resource fork is at 83, and the Finder Info ends at 82"));
    }
    {
        std::vector<adouble_bytes::Entry> entries = {{9, 200, 32}, {2, 232, 0}};
        while (entries.size() < 14) {
            entries.push_back({4, 200, 0});
        }
        const StoreScene scene(2);
        scene.with_resource("file", adouble_bytes::header(entries, 232));
        EXPECT_EQ("the header has 14 entries, more than 13", detail(scene).substr(0, 39));
    }
    {
        const StoreScene scene(0);
        scene.file("file");
        kit::writeFile(scene / "._file", with_number(resource_bytes("fork"), 0, 7));
        EXPECT_EQ(Names{"store-malformed-double ._file"}, scene.names());
    }
    for (const auto &[value, text] : {std::pair{adouble_bytes::metadata(401), "it has 401 bytes, not 402"},
                                      {with_number(adouble_bytes::metadata(), 0, 3), "the magic is 0x00000003"},
                                      {with_number(adouble_bytes::metadata(), 24, 7, 2), "it has 7 entries, not 8"},
                                      {with_number(adouble_bytes::metadata(), 30, 0), "it has no comment, or no"}}) {
        const StoreScene scene(2);
        scene.file("file");
        kit::setAttribute(scene / "file", engine::kMetadataName, value);
        EXPECT_EQ(Names{"store-malformed-metadata file"}, scene.names()) << text;
        EXPECT_EQ(0U, detail(scene).find(text)) << detail(scene);
    }
}

TEST_F(StoreCheck, WhatIsCutShortAndWhatFollows) {
    const std::string sound = stream::bytes(kThree, 4) + "fork";
    for (const auto &[bytes, name, text] :
         {std::tuple{sound.substr(0, 194), "store-fork-cut", "the resource fork has 4 bytes, of which 2 are there"},
          {stream::bytes(kThree).substr(0, 190), "store-value-cut", "attribute third has 3 bytes, of which 1 are"},
          {sound + "more", "store-extra-bytes", "4 bytes follow its end at 196"}}) {
        const StoreScene scene(2);
        scene.with_stream("file", bytes);
        EXPECT_EQ(Names{std::string(name) + " @eaDir/file@VexoEAStream"}, scene.names());
        EXPECT_EQ(0U, detail(scene).find(text)) << detail(scene);
    }
}

TEST_F(StoreCheck, BlocksThatWereReservedAndNotUsed) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", uint64_t{16} << 20));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=2").c_str(), 1);
    kit::writeFile(volume / "file", "data");
    ASSERT_EQ(0, ::mkdir((volume / "@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::chmod((volume / "@eaDir").c_str(), 0777));
    const std::string place = volume / "@eaDir/file@VexoEAStream";
    kit::writeFile(place, stream::bytes(kThree));
    Told sound, reserved;
    engine::survey_stores(engine::HeldEntry(volume / "file"), {}, nullptr, nullptr, sound, sound.totals);
    EXPECT_EQ(Names{}, sound.names(volume.path()));
    const int fd = ::open(place.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, 65536));
    ::close(fd);
    engine::survey_stores(engine::HeldEntry(volume / "file"), {}, nullptr, nullptr, reserved, reserved.totals);
    EXPECT_EQ(Names{"store-extra-blocks @eaDir/file@VexoEAStream"}, reserved.names(volume.path()));
    ::unsetenv("VEXOFILEOP_FSTYPES");
}

TEST_F(StoreCheck, OrphansAndWhoseTheyMayBe) {
    const StoreScene scene(2);
    scene.with_stream("holiday photo.jpg", stream::bytes(kThree));
    scene.with_stream("letter", stream::bytes(kThree));
    ASSERT_EQ(0, ::rename((scene / "holiday photo.jpg").c_str(), (scene / "holiday photo 1.jpg").c_str()));
    ASSERT_EQ(0, ::unlink((scene / "letter").c_str()));
    scene.file("entirely different");
    scene.file("noted");
    std::string stamped = adouble_bytes::header({{9, 62, 32}, {0x80494E4F, 94, 8}, {2, 102, 0}}, 102);
    const uint64_t inode = kit::statOf(scene / "noted").st_ino;
    stamped.replace(94, 8, std::string(reinterpret_cast<const char *>(&inode), 8));
    kit::writeFile(scene.resource("abcdefghij"), stamped);
    ASSERT_EQ(0, ::mkdir((scene / "@eaDir/gone").c_str(), 0777));
    kit::writeFile(scene / "@eaDir/gone/thumb", "x");
    const Told told = scene.check();
    EXPECT_EQ((Names{"store-orphan @eaDir/abcdefghij@VexoResource", "store-orphan @eaDir/gone",
                     "store-orphan @eaDir/holiday photo.jpg@VexoEAStream", "store-orphan @eaDir/letter@VexoEAStream"}),
              told.names(scene.root()));
    for (const Finding &one : told.findings) {
        const bool photo = one.place.find("holiday") != std::string::npos;
        const bool noted = one.place.find("abcdefghij") != std::string::npos;
        EXPECT_EQ(photo ? scene / "holiday photo 1.jpg" : noted ? scene / "noted" : "", one.belongs) << one.place;
        EXPECT_EQ("", one.remedy) << "whose it is nobody knows";
    }
}

TEST_F(StoreCheck, LonelyDoubleIsAnOrphanOnlyWhereItIsADouble) {
    const StoreScene scene(0);
    kit::writeFile(scene / "._gone", resource_bytes("fork"));
    kit::writeFile(scene / "._users own", "text");
    EXPECT_EQ(Names{"store-orphan ._gone"}, scene.names());
}

TEST_F(StoreCheck, OfAVolumeThatKeepsNothingOnlyWhatWasLeftIsTold) {
    const StoreScene scene(12);
    scene.with_stream("file", stream::bytes(kThree) + "more");
    ASSERT_EQ(0, ::mkdir((scene / "@eaDir/file").c_str(), 0777));
    EXPECT_EQ(Names{}, scene.names());
}

TEST_F(StoreCheck, NamesThatShareAStore) {
    const StoreScene scene(2);
    // Shortened to one name: the sum of the bytes from 241 on is the same.
    const std::string front(241, 'a');
    scene.file(front + "bcdd");
    scene.file(front + "cbdd");
    const std::string stored = engine::base_name(
        engine::stream_path(scene / (front + "bcdd"), engine::StoreKind::ea_directory, "VexoEAStream"));
    scene.make_stores();
    kit::writeFile(scene / ("@eaDir/" + stored), stream::bytes(kThree));
    EXPECT_EQ(Names{"store-shared @eaDir/" + stored}, scene.names());
    EXPECT_EQ(Names{"store-shared @eaDir/" + stored}, scene.check(front + "bcdd").names(scene.root()));
    EXPECT_EQ(Names{"store-shared @eaDir/" + stored}, scene.check(front + "cbdd").names(scene.root()));
    ASSERT_EQ(0, ::unlink((scene / (front + "cbdd")).c_str()));
    EXPECT_EQ(Names{}, scene.names());
    ASSERT_EQ(0, ::link((scene / ("@eaDir/" + stored)).c_str(), (scene.scratch / "other").c_str()));
    EXPECT_EQ(Names{"store-shared @eaDir/" + stored}, scene.names());
    EXPECT_EQ("it has 2 names", detail(scene));
}

TEST_F(StoreCheck, FinderInfoThatDiffersAndWhichIsNewer) {
    const StoreScene scene(2);
    scene.with_resource("file", resource_bytes("fork"));
    std::string metadata = adouble_bytes::metadata();
    kit::setAttribute(scene / "file", engine::kMetadataName, metadata);
    EXPECT_EQ(Names{}, scene.names()) << "one that is zero is none";
    kit::setAttribute(scene / "file", engine::kMetadataName, metadata.replace(122, 8, "TEXTttxt"));
    EXPECT_EQ(Names{}, scene.names()) << "the same";
    kit::setAttribute(scene / "file", engine::kMetadataName, metadata.replace(122, 8, "PICTxxxx"));
    const timespec later[2] = {{4'000'000'000, 0}, {4'000'000'000, 0}},
                   before[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, scene.resource("file").c_str(), later, 0));
    EXPECT_EQ(Names{"store-finder-info-differs file"}, scene.names());
    EXPECT_NE(std::string::npos, detail(scene).find("the resource file is newer")) << detail(scene);
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, scene.resource("file").c_str(), before, 0));
    EXPECT_NE(std::string::npos, detail(scene).find("changed at 2001-09-09T01:46:40Z")) << detail(scene);
    EXPECT_NE(std::string::npos, detail(scene).find("the attribute, if nothing else")) << detail(scene);
}

TEST_F(StoreCheck, LayoutsAndForms) {
    {
        const StoreScene scene(2);
        scene.with_stream("half", stream::bytes(kThree));
        scene.file("old");
        for (const char *name : {"@eaDir/half", "@eaDir/old"}) {
            ASSERT_EQ(0, ::mkdir((scene / name).c_str(), 0777));
        }
        kit::writeFile(scene / "@eaDir/half/second", "2222");
        kit::writeFile(scene / "@eaDir/old/anything", "value");
        EXPECT_EQ((Names{"store-half-upgraded @eaDir/half", "store-old-layout @eaDir/old"}), scene.names());
        kit::writeFile(scene / "._old", resource_bytes("fork"));
        kit::writeFile(scene / "._half", resource_bytes("fork"));
        const Names names = scene.names();
        EXPECT_EQ((Names{"store-half-converted ._half", "store-half-upgraded @eaDir/half",
                         "store-old-layout @eaDir/old", "store-other-form ._old"}),
                  names);
    }
    const StoreScene scene(0);
    scene.with_stream("file", stream::bytes(kThree));
    EXPECT_EQ(Names{"store-other-form @eaDir/file@VexoEAStream"}, scene.names());
    kit::writeFile(scene / "._file", resource_bytes("fork"));
    EXPECT_EQ(Names{"store-half-converted @eaDir/file@VexoEAStream"}, scene.names());
    const StoreScene other(1);
    other.file("file");
    kit::setAttribute(other / "file", engine::kMetadataName, adouble_bytes::metadata());
    EXPECT_EQ(Names{"store-other-form file"}, other.names());
}

TEST_F(StoreCheck, WhatIsNoFileIsToldAndNotOpened) {
    const StoreScene scene(2);
    for (const char *name : {"link", "pipe", "socket", "directory", "device"}) {
        scene.file(name);
    }
    scene.make_stores();
    kit::writeFile(scene.scratch / "elsewhere", with_number(stream::bytes(kThree), 0, 7));
    ASSERT_EQ(0, ::symlink((scene.scratch / "elsewhere").c_str(), scene.stream("link").c_str()));
    ASSERT_EQ(0, ::mkfifo(scene.stream("pipe").c_str(), 0666));
    ASSERT_EQ(0, ::mknod(scene.resource("socket").c_str(), S_IFSOCK | 0666, 0));
    ASSERT_EQ(0, ::mkdir(scene.stream("directory").c_str(), 0777));
    ASSERT_EQ(0, ::mknod(scene.stream("device").c_str(), S_IFCHR | 0666, makedev(1, 3)));
    const Told told = scene.check();
    EXPECT_EQ((Names{"store-wrong-kind @eaDir/device@VexoEAStream", "store-wrong-kind @eaDir/directory@VexoEAStream",
                     "store-wrong-kind @eaDir/link@VexoEAStream", "store-wrong-kind @eaDir/pipe@VexoEAStream",
                     "store-wrong-kind @eaDir/socket@VexoResource"}),
              told.names(scene.root()));
    EXPECT_EQ(Names{}, told.troubles);
    EXPECT_EQ(3, std::count_if(told.findings.begin(), told.findings.end(),
                               [](const Finding &one) { return one.remedy == "taken away"; }));
    const StoreScene linked(2);
    ASSERT_EQ(0, ::symlink((scene / "@eaDir").c_str(), (linked / "@eaDir").c_str()));
    linked.file("pipe");
    EXPECT_EQ(Names{"store-wrong-kind @eaDir"}, linked.names());
}

TEST_F(StoreCheck, WhoIsKeptOut) {
    const StoreScene scene(2);
    scene.with_stream("file", stream::bytes(kThree));
    ASSERT_EQ(0, ::chmod(scene.stream("file").c_str(), 0600));
    EXPECT_EQ(Names{"store-closed @eaDir/file@VexoEAStream"}, scene.names());
    ASSERT_EQ(0, ::chmod((scene / "file").c_str(), 0600));
    EXPECT_EQ(Names{}, scene.names()) << "who may not read the file need not read its store";
    ASSERT_EQ(0, ::chown((scene / "file").c_str(), 1000, 1000));
    ASSERT_EQ(0, ::chmod(scene.stream("file").c_str(), 0644));
    EXPECT_EQ(Names{"store-closed @eaDir/file@VexoEAStream"}, scene.names()) << "its owner may not change it";
    ASSERT_EQ(0, ::chmod(scene.stream("file").c_str(), 0777));
    EXPECT_EQ(Names{}, scene.names());
    ASSERT_EQ(0, ::chmod((scene / "@eaDir").c_str(), 0700));
    EXPECT_EQ(Names{"store-closed @eaDir"}, scene.names());
}

TEST_F(StoreCheck, LeftOversAndEmptyDirectories) {
    const StoreScene scene(2);
    scene.with_stream("file", stream::bytes(kThree));
    engine::Maker gone = engine::own_maker();
    gone.begun += 1; // a process of this number that began at another time
    const std::string proven = engine::private_name(gone, 3);
    kit::writeFile(scene / proven, "half");
    kit::writeFile(scene / engine::next_private_name(), "at work");
    const std::string change = engine::private_name_for("file@VexoEAStream");
    kit::writeFile(scene / ("@eaDir/" + change), "half");
    ASSERT_EQ(0, ::mkdir((scene / "@tmp").c_str(), 0777));
    kit::writeFile(scene / "@tmp/staged", "x");
    ASSERT_EQ(0, ::mkdir((scene / "below").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scene / "below/@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::chmod((scene / "below/@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::mkdir((scene / "@eaDir/file").c_str(), 0777));
    EXPECT_EQ((Names{"store-empty @eaDir/file", "store-empty below/@eaDir", "store-left-over " + proven,
                     "store-left-over @eaDir/" + change, "store-left-over @tmp"}),
              scene.check("", true).names(scene.root()));
}

TEST_F(StoreCheck, StoreThatAnotherProcessHasLockedIsNotLookedInto) {
    const StoreScene scene(2);
    scene.with_stream("file", with_number(stream::bytes(kThree), 0, 7));
    const int fd = ::open(scene.stream("file").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(0, ::fcntl(fd, F_OFD_SETLK, &lock));
    EXPECT_EQ(Names{"store-in-use @eaDir/file@VexoEAStream"}, scene.names());
    ::close(fd);
    EXPECT_EQ(Names{"store-malformed-stream @eaDir/file@VexoEAStream"}, scene.names());
}

TEST_F(StoreCheck, ChangesNothingAccessTimesIncluded) {
    const StoreScene scene(2);
    for (const Damage &damage : damaged_streams()) {
        scene.with_stream(damage.name, damage.bytes);
    }
    scene.with_resource("Short", resource_bytes("fork") + "more");
    kit::setAttribute(scene / "Short", engine::kMetadataName, "short");
    kit::writeFile(scene / "._Short", resource_bytes("fork"));
    const auto before = kit::Fingerprint::of(scene.root());
    const timespec old[2] = {{1'000'000'000, 0}, {1'000'000'001, 0}};
    const std::vector<std::string> read = {scene / "@eaDir", scene / "._Short", scene.resource("Short"), scene.root()};
    for (const std::string &path : read) { // which a look as others take it would change
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), old, 0));
    }
    EXPECT_LT(18U, scene.check("", true).findings.size());
    for (const std::string &path : read) {
        EXPECT_EQ(1'000'000'000, kit::statOf(path).st_atim.tv_sec) << path;
    }
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root()), {"accessed", "modified"}));
}

TEST_F(StoreCheck, OfAFileOnlyWhatIsKeptForThat) {
    const StoreScene scene(2);
    scene.with_stream("one", stream::bytes(kThree) + "more");
    scene.with_stream("two", stream::bytes(kThree) + "more");
    kit::writeFile(scene.stream("gone"), stream::bytes(kThree));
    EXPECT_EQ(Names{"store-extra-bytes @eaDir/two@VexoEAStream"}, scene.check("two").names(scene.root()));
    ASSERT_EQ(0, ::symlink("two", (scene / "link").c_str()));
    EXPECT_THROW(scene.check("link"), engine::Failure);
    EXPECT_THROW(scene.check("@eaDir"), engine::Failure);
    EXPECT_THROW(scene.check("none"), engine::Failure);
}

TEST_F(StoreCheck, NamesOfAnyBytes) {
    const StoreScene scene(2);
    const std::string name = "line\nfeed \xff";
    scene.with_stream(name, stream::bytes({{"a\nb", "12"}}).substr(0, 137));
    EXPECT_EQ(Names{"store-value-cut @eaDir/" + name + "@VexoEAStream"}, scene.names());
    EXPECT_EQ(0U, detail(scene).find("attribute a\\nb has 2 bytes"));
}

TEST(NameDistance, CountsAndEnds) {
    EXPECT_EQ(0U, engine::name_distance("photo", "photo", 3));
    EXPECT_EQ(1U, engine::name_distance("photo", "phot", 3));
    EXPECT_EQ(2U, engine::name_distance("photo", "ph0t", 3));
    EXPECT_EQ(4U, engine::name_distance("photo", "letter", 3));
    EXPECT_EQ(4U, engine::name_distance("photo", "photo and more", 3));
}

} // namespace
