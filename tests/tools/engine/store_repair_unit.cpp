// What a repair of stores saves, what it leaves, and that everything comes back.
#include "ea/ea.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/store_scene.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/store_undo.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <unistd.h>

namespace {

using namespace store_scene;
using engine::Finding;

struct Undone : engine::UndoWatcher {
    bool stopped() const override { return false; }
    void undone(const std::string &place, State state, const std::string &reason) override {
        (state == State::restored ? restored : state == State::was_so ? same : left) += 1;
        reasons += state == State::left ? place + ": " + reason + "\n" : "";
    }
    int restored = 0, same = 0, left = 0;
    std::string reasons;
};

Undone undo(const StoreScene &scene) {
    Undone told;
    engine::undo_repairs(scene.quarantine(), told);
    return told;
}

// What the library reads of a stream.
std::map<std::string, std::string> attributes_of(const StoreScene &scene, const std::string &name) {
    std::map<std::string, std::string> all;
    const engine::Store store(scene / name);
    for (const auto &attribute : store.list()) {
        all[attribute.name] = store.get(attribute.name);
    }
    return all;
}

using Values = std::map<std::string, std::string>;
const Values kAll = {{"first", "11111"}, {"second", "2222"}, {"third", "333"}};

class StoreRepair : public ::testing::Test {
  protected:
    void SetUp() override { KIT_NEEDS_TO_MAKE_STORES(); }
    static int count(const Told &told, Finding::State state) {
        return static_cast<int>(std::count_if(told.findings.begin(), told.findings.end(),
                                              [&](const Finding &one) { return one.state == state; }));
    }
};

struct DamagedStream {
    const char *name;
    std::string bytes;
    Values kept;
    std::string fork = "fork";
};
std::vector<DamagedStream> damaged() {
    const std::string sound = stream::bytes(kThree, 4, "TEXTttxt") + "fork";
    return {
        {"Magic", with_number(sound, 0, 1), kAll},
        {"Version", with_number(sound, 4, 0x00010000), kAll},
        {"FinderInfoShort", with_number(sound, 34, 31), kAll},
        {"TotalSize", with_number(sound, 92, 191), kAll},
        {"DataStart", with_number(sound, 96, 170), kAll},
        {"DataLength", with_number(sound, 100, 11), kAll},
        {"RecordCount", with_number(sound, 118, 60000, 2), kAll},
        {"NameLength", with_number(sound, 150, 0, 1), {{"first", "11111"}}},
        {"ValueInRecords", with_number(sound, 120, 100), {{"second", "2222"}, {"third", "333"}}},
        {"ValueElsewhere", with_number(sound, 140, 186), {{"first", "11111"}, {"second", "2223"}, {"third", "333"}}},
        {"ForkCut", sound.substr(0, 194), kAll, "fo"},
        {"ValueCut", stream::bytes(kThree, 0, "TEXTttxt").substr(0, 190), {{"first", "11111"}, {"second", "2222"}}, ""},
        {"ExtraBytes", sound + "more", kAll}};
}

TEST_F(StoreRepair, SavesWhatCanBeReadAndUndoPutsItBackByteForByte) {
    for (const DamagedStream &one : damaged()) {
        const StoreScene scene(2);
        scene.with_stream("file", one.bytes);
        const std::string place = scene.stream("file");
        kit::setAttribute(place, "user.mark", "of the store file");
        ASSERT_EQ(0, ::chown(place.c_str(), 1234, 2345));
        ASSERT_EQ(0, ::chmod(place.c_str(), 0664));
        const timespec times[2] = {{1'000'000'000, 5}, {1'100'000'000, 7}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, place.c_str(), times, 0));
        const auto before = kit::Fingerprint::of(scene / "@eaDir");
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, place.c_str(), times, 0));

        const Told told = scene.repair();
        EXPECT_EQ(static_cast<int>(told.findings.size()), count(told, Finding::State::mended)) << one.name;
        EXPECT_LT(0, count(told, Finding::State::mended)) << one.name;
        EXPECT_EQ(Names{}, scene.names()) << one.name;
        EXPECT_EQ(one.kept, attributes_of(scene, "file")) << one.name;
        const std::string bytes = kit::readFile(place);
        EXPECT_EQ("TEXTttxt", bytes.substr(50, 8)) << one.name;
        EXPECT_TRUE(one.fork.empty() || bytes.ends_with(one.fork)) << one.name;
        const struct stat status = kit::statOf(place);
        EXPECT_EQ(0664U, status.st_mode & 07777) << one.name;
        EXPECT_EQ(1234U, status.st_uid) << one.name;
        EXPECT_EQ("of the store file", kit::attribute(place, "user.mark")) << one.name;
        EXPECT_EQ(1U, kit::namesIn(scene / "@eaDir").size()) << one.name;
        EXPECT_EQ(one.bytes, kit::readFile(scene.quarantine() + "/1.old")) << one.name;

        const Undone undone = undo(scene);
        EXPECT_EQ(1, undone.restored) << one.name << undone.reasons;
        EXPECT_EQ(1'000'000'000, kit::statOf(place).st_atim.tv_sec) << one.name;
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene / "@eaDir"), {"accessed", "created", "modified"}))
            << one.name;
        EXPECT_EQ(1'100'000'000, kit::statOf(place).st_mtim.tv_sec) << one.name;
        EXPECT_EQ(7, kit::statOf(place).st_mtim.tv_nsec) << one.name;
        const Undone again = undo(scene);
        EXPECT_EQ(1, again.same) << one.name;
    }
}

TEST_F(StoreRepair, LeavesWhatTakesAGuess) {
    const std::string sound = stream::bytes(kThree, 4) + "fork";
    for (const std::string &bytes : {std::string("this is text and no stream, whoever put it there in this place"),
                                     with_number(sound, 42, 193).replace(92, 4, stream::number(190, 4)),
                                     sound.substr(0, 20), with_number(sound, 84, 1)}) {
        const StoreScene scene(2);
        scene.with_stream("file", bytes);
        const Told told = scene.repair();
        ASSERT_EQ(1U, told.findings.size());
        EXPECT_EQ(Finding::State::left, told.findings.front().state);
        EXPECT_EQ("", told.findings.front().remedy);
        EXPECT_EQ(bytes, kit::readFile(scene.stream("file")));
        EXPECT_FALSE(kit::exists(scene.quarantine())) << "nothing was changed";
    }
}

TEST_F(StoreRepair, ResourceFilesDoublesAndMetadataAttributes) {
    {
        const StoreScene scene(2);
        scene.with_resource("file", resource_bytes("fork") + "more");
        EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
        EXPECT_EQ(resource_bytes("fork"), kit::readFile(scene.resource("file")));
    }
    {
        const StoreScene scene(0);
        scene.file("file");
        const std::string sound = resource_bytes("fork");
        kit::writeFile(scene / "._file", sound.substr(0, 84));
        EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
        EXPECT_EQ(with_number(sound, 46, 2).substr(0, 84), kit::readFile(scene / "._file"));
        EXPECT_EQ(1, undo(scene).restored);
        EXPECT_EQ(sound.substr(0, 84), kit::readFile(scene / "._file"));
    }
    {
        // Entries of another program stay.
        const StoreScene scene(0);
        scene.file("file");
        std::string bytes = adouble_bytes::header({{9, 62, 32}, {4, 94, 7}, {2, 101, 4}}, 94) + "comment" + "fork";
        kit::writeFile(scene / "._file", with_number(bytes, 0, 7));
        EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
        const std::string made = kit::readFile(scene / "._file");
        EXPECT_TRUE(made.ends_with("commentfork"));
        EXPECT_EQ(Names{}, scene.names());
    }
    const StoreScene scene(2);
    scene.file("file");
    const std::string broken = with_number(adouble_bytes::metadata().replace(122, 8, "TEXTttxt"), 30, 0);
    kit::setAttribute(scene / "file", engine::kMetadataName, broken);
    EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
    EXPECT_EQ(Names{}, scene.names());
    EXPECT_EQ("TEXTttxt", engine::Store(scene / "file").metadata().finderInfo.substr(0, 8));
    EXPECT_EQ(1, undo(scene).restored);
    EXPECT_EQ(broken, kit::attribute(scene / "file", engine::kMetadataName));
}

TEST_F(StoreRepair, TakesAwayWhatIsNoFileAndWhatIsEmptyAndPutsItBack) {
    const StoreScene scene(2);
    scene.with_stream("link", "");
    scene.file("pipe");
    ASSERT_EQ(0, ::unlink(scene.stream("link").c_str()));
    kit::writeFile(scene.scratch / "elsewhere", "elsewhere");
    ASSERT_EQ(0, ::symlink((scene.scratch / "elsewhere").c_str(), scene.stream("link").c_str()));
    ASSERT_EQ(0, ::lchown(scene.stream("link").c_str(), 1234, 2345));
    ASSERT_EQ(0, ::mkfifo(scene.stream("pipe").c_str(), 0640));
    ASSERT_EQ(0, ::mkdir(scene.stream("directory").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scene / "below").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scene / "below/@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::chmod((scene / "below/@eaDir").c_str(), 0777));
    const std::string change = engine::private_name_for("file@VexoEAStream");
    kit::writeFile(scene / ("@eaDir/" + change), "half", 0600);
    const auto before = kit::Fingerprint::of(scene.root());
    const Told told = scene.repair("", true);
    EXPECT_EQ(4, count(told, Finding::State::mended));
    EXPECT_EQ(1, count(told, Finding::State::left)) << "a directory may be meant";
    EXPECT_EQ((Names{"directory@VexoEAStream"}), kit::namesIn(scene / "@eaDir"));
    EXPECT_FALSE(kit::exists(scene / "below/@eaDir"));
    EXPECT_EQ("elsewhere", kit::readFile(scene.scratch / "elsewhere"));
    EXPECT_EQ(4, undo(scene).restored);
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root()), {"accessed", "created", "modified"}));
    EXPECT_EQ(4, undo(scene).same);
}

TEST_F(StoreRepair, LeavesWhatAnotherProcessHasLocked) {
    const StoreScene scene(2);
    const std::string bytes = stream::bytes(kThree) + "more";
    scene.with_stream("file", bytes);
    const int fd = ::open(scene.stream("file").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_RDLCK; // with which a check gets along
    ASSERT_EQ(0, ::fcntl(fd, F_OFD_SETLK, &lock));
    const Told told = scene.repair();
    ASSERT_EQ(1U, told.findings.size());
    EXPECT_EQ(Finding::State::left, told.findings.front().state);
    EXPECT_EQ("another process has it locked", told.findings.front().reason);
    EXPECT_EQ(bytes, kit::readFile(scene.stream("file")));
    ::close(fd);
    EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
}

TEST_F(StoreRepair, LeavesAFileThatHasOtherNames) {
    const StoreScene scene(2);
    const std::string bytes = stream::bytes(kThree) + "more";
    scene.with_stream("file", bytes);
    ASSERT_EQ(0, ::link(scene.stream("file").c_str(), (scene.scratch / "elsewhere").c_str()));
    EXPECT_EQ(0, count(scene.repair(), Finding::State::mended));
    EXPECT_EQ(bytes, kit::readFile(scene.scratch / "elsewhere"));
    EXPECT_EQ(2U, kit::statOf(scene.stream("file")).st_nlink);
    const StoreScene attribute(2);
    attribute.file("file");
    kit::setAttribute(attribute / "file", engine::kMetadataName, adouble_bytes::metadata(401));
    ASSERT_EQ(0, ::link((attribute / "file").c_str(), (attribute.scratch / "elsewhere").c_str()));
    EXPECT_EQ(0, count(attribute.repair(), Finding::State::mended));
    EXPECT_EQ(401U, kit::attribute(attribute / "file", engine::kMetadataName).size());
}

TEST_F(StoreRepair, WidensNobodysRights) {
    const StoreScene scene(2);
    scene.with_stream("file", stream::bytes(kThree) + "more");
    ASSERT_EQ(0, ::chmod(scene.stream("file").c_str(), 0600));
    const Told told = scene.repair();
    EXPECT_EQ(1, count(told, Finding::State::mended));
    EXPECT_EQ(Names{"store-closed @eaDir/file@VexoEAStream"}, scene.names());
    EXPECT_EQ(0600U, kit::statOf(scene.stream("file")).st_mode & 07777);
    EXPECT_EQ(0700U, kit::statOf(scene.quarantine()).st_mode & 07777);
    EXPECT_EQ(0600U, kit::statOf(scene.quarantine() + "/1.old").st_mode & 07777);
}

TEST_F(StoreRepair, UndoLeavesWhatWasChangedSince) {
    const StoreScene scene(2);
    scene.with_stream("file", stream::bytes(kThree) + "more");
    scene.with_stream("other", stream::bytes(kThree) + "more");
    ASSERT_EQ(2, count(scene.repair(), Finding::State::mended));
    engine::Store(scene / "file").set("first", "set since", engine::Store::Existing::either);
    const Undone undone = undo(scene);
    EXPECT_EQ(1, undone.restored);
    EXPECT_EQ(1, undone.left);
    EXPECT_NE(std::string::npos, undone.reasons.find("changed since the repair")) << undone.reasons;
    EXPECT_EQ("set since", engine::Store(scene / "file").get("first"));
    EXPECT_EQ(stream::bytes(kThree) + "more", kit::readFile(scene.stream("other")));
}

TEST_F(StoreRepair, UndoGoesIntoNoDirectoryThatWasExchanged) {
    const StoreScene scene(2);
    ASSERT_EQ(0, ::mkdir((scene / "below").c_str(), 0755));
    scene.with_stream("file", "");
    ASSERT_EQ(0, ::mkdir((scene / "below/@eaDir").c_str(), 0777));
    kit::writeFile(scene / "below/file", "data");
    kit::writeFile(scene / "below/@eaDir/file@VexoEAStream", stream::bytes(kThree) + "more");
    ASSERT_EQ(0, ::chmod((scene / "below/@eaDir").c_str(), 0777));
    ASSERT_EQ(1, count(scene.repair("", true), Finding::State::mended));
    ASSERT_EQ(0, ::rename((scene / "below").c_str(), (scene / "aside").c_str()));
    ASSERT_EQ(0, ::symlink("aside", (scene / "below").c_str()));
    EXPECT_EQ(1, undo(scene).left) << "by a link";
    ASSERT_EQ(0, ::unlink((scene / "below").c_str()));
    // Another one, in which the same stands.
    ASSERT_EQ(0, ::mkdir((scene / "below").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scene / "below/@eaDir").c_str(), 0777));
    kit::writeFile(scene / "below/@eaDir/file@VexoEAStream", stream::bytes(kThree));
    const Undone undone = undo(scene);
    EXPECT_EQ(0, undone.restored);
    EXPECT_EQ(stream::bytes(kThree), kit::readFile(scene / "below/@eaDir/file@VexoEAStream"));
    EXPECT_EQ(1, undone.left);
    EXPECT_EQ(stream::bytes(kThree), kit::readFile(scene / "aside/@eaDir/file@VexoEAStream"));
}

TEST_F(StoreRepair, QuarantineIsGoneOnWithAndKeptFromOthers) {
    const StoreScene scene(2);
    scene.with_stream("one", stream::bytes(kThree) + "more");
    ASSERT_EQ(1, count(scene.repair(), Finding::State::mended));
    // What a stopped run has left: bytes without a line, and a line that is not whole.
    kit::writeFile(scene.quarantine() + "/2.old", "half");
    const std::string whole = kit::readFile(scene.quarantine() + "/manifest");
    kit::writeFile(scene.quarantine() + "/manifest", whole + whole.substr(whole.find('\n') + 1, 40));
    EXPECT_EQ(1, undo(scene).restored);
    scene.with_stream("two", stream::bytes(kThree) + "more two");
    ASSERT_EQ(2, count(scene.repair(), Finding::State::mended));
    EXPECT_EQ("half", kit::readFile(scene.quarantine() + "/2.old"));
    EXPECT_EQ(2, undo(scene).restored);
    EXPECT_EQ(stream::bytes(kThree) + "more two", kit::readFile(scene.stream("two")));

    std::string damaged = whole;
    damaged[damaged.find("uid=") + 4] = '7';
    kit::writeFile(scene.quarantine() + "/manifest", damaged);
    EXPECT_THROW(undo(scene), engine::Failure);
    kit::writeFile(scene.quarantine() + "/manifest", whole);
    ASSERT_EQ(0, ::chmod(scene.quarantine().c_str(), 0777));
    EXPECT_THROW(undo(scene), engine::Failure) << "others may have written into it";
    EXPECT_EQ(0, count(scene.repair(), Finding::State::mended));
}

TEST_F(StoreRepair, FullQuarantineChangesNothing) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 10));
    const StoreScene scene(2);
    const std::string bytes = stream::bytes({{"large", kit::pattern(200'000)}}) + "more";
    scene.with_stream("file", bytes);
    engine::Quarantine kept(volume / "q");
    engine::StoreMender mender(kept);
    Told told;
    engine::survey_stores(engine::HeldEntry(scene.root()), {}, &mender, &kept, told, told.totals);
    ASSERT_EQ(1U, told.findings.size());
    EXPECT_EQ(Finding::State::left, told.findings.front().state);
    EXPECT_NE(std::string::npos, told.findings.front().reason.find("o space left")) << told.findings.front().reason;
    EXPECT_EQ(bytes, kit::readFile(scene.stream("file")));
    EXPECT_EQ(Names{"manifest"}, kit::namesIn(volume / "q"));
    EXPECT_EQ(1U, kit::namesIn(scene / "@eaDir").size());
}

TEST_F(StoreRepair, GivesReservedBlocksBack) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", uint64_t{16} << 20));
    const StoreScene scene(2);
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=2").c_str(), 1);
    ASSERT_EQ(0, ::mkdir((volume / "@eaDir").c_str(), 0777));
    kit::writeFile(volume / "file", "data");
    const std::string place = volume / "@eaDir/file@VexoEAStream";
    kit::writeFile(place, stream::bytes(kThree));
    const int fd = ::open(place.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, 65536));
    ::close(fd);
    engine::Quarantine kept(scene.quarantine());
    engine::StoreMender mender(kept);
    Told told;
    engine::survey_stores(engine::HeldEntry(volume / "file"), {}, &mender, &kept, told, told.totals);
    EXPECT_EQ(1, count(told, Finding::State::mended));
    EXPECT_EQ(stream::bytes(kThree), kit::readFile(place));
    EXPECT_GT(16, kit::statOf(place).st_blocks);
}

// The library's own lock, of another process.
TEST_F(StoreRepair, LeavesWhatTheLibraryHasLockedElsewhere) {
    const StoreScene scene(2);
    scene.with_stream("file", stream::bytes(kThree) + "more");
    const int fd = ::open(scene.stream("file").c_str(), O_RDWR | O_CLOEXEC);
    VEXOEAS *const stream = VEXOEASOpen(fd, F_WRLCK);
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(0, kit::inChild([&] {
                  const Told told = scene.repair();
                  return told.names(scene.root()) == Names{"store-in-use @eaDir/file@VexoEAStream"} ? 0 : 1;
              }));
    EXPECT_EQ(stream::bytes(kThree) + "more", kit::readFile(scene.stream("file")));
    VEXOEASClose(stream);
    ::close(fd);
}

TEST_F(StoreRepair, VeryManyAttributesOfOneName) {
    const StoreScene scene(2);
    std::string records, values;
    constexpr size_t number = 65'535, start = 120 + number * 16;
    for (size_t at = 0; at < number; ++at) {
        records += stream::number(start + at, 4) + stream::number(1, 4) + stream::number(0, 2) + stream::number(2, 1) +
                   std::string("a\0\0\0\0", 5);
        values += static_cast<char>('a' + at % 26);
    }
    std::string bytes = stream::bytes({}).substr(0, 118) + stream::number(number, 2) + records + values;
    const uint64_t end = bytes.size();
    bytes = with_number(with_number(with_number(bytes, 34, end - 50), 42, end), 92, end);
    scene.with_stream("file", with_number(with_number(bytes, 96, start), 100, number) + "more");
    EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
    scene.with_stream("file", with_number(with_number(bytes, 96, start), 100, number + 1));
    EXPECT_EQ(1, count(scene.repair(), Finding::State::mended));
    EXPECT_EQ((Values{{"a", values.substr(number - 1)}}), attributes_of(scene, "file"));
}

TEST_F(StoreRepair, WhatIsLargerThanAnyStoreFillsNoQuarantine) {
    const StoreScene scene(2);
    scene.with_stream("file", stream::bytes(kThree));
    ASSERT_EQ(0, ::truncate(scene.stream("file").c_str(), off_t{1} << 40));
    const Told told = scene.repair();
    ASSERT_EQ(1U, told.findings.size());
    EXPECT_EQ("it is larger than any store can be", told.findings.front().reason);
}

} // namespace
