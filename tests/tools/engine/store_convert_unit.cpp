// What a conversion of stores brings into another form, what it leaves and tells, and that it says beforehand what it
// will do.
#include "ea/ea.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/convert_scene.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/store/private_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace convert_scene;
using engine::LossClass;
using engine::LossSet;

constexpr StoreKind kBesideAll[] = {StoreKind::apple_double, StoreKind::ea_directory, StoreKind::file_ea};
constexpr StoreKind kAllForms[] = {StoreKind::apple_double, StoreKind::ea_directory, StoreKind::file_ea,
                                   StoreKind::native};

class StoreConvert : public ::testing::Test {
  protected:
    void SetUp() override { KIT_NEEDS_TO_MAKE_STORES(); }
    static bool mentions(const std::string &text, const char *part) { return text.find(part) != std::string::npos; }
};

std::string way(StoreKind from, StoreKind to) {
    return std::string(engine::form_name(from)) + " to " + engine::form_name(to);
}

TEST_F(StoreConvert, EveryFormBecomesEveryOtherAndBackAgain) {
    for (const StoreKind from : kBesideAll) {
        for (const StoreKind to : kBesideAll) {
            if (from == to) {
                continue;
            }
            const ConvertScene scene(from);
            const std::string longName = "a" + std::string(245, 'n') + ".txt"; // shortened in "@eaDir"
            ASSERT_EQ(0, ::mkdir((scene / "below").c_str(), 0750));
            scene.with_store(from, "file");
            scene.store_of(from, "below");
            scene.file("none");
            scene.file(longName);
            const std::string stored = engine::stream_path(scene / longName, StoreKind::ea_directory, "VexoEAStream");
            if (from == StoreKind::apple_double) {
                kit::writeFile(scene.beside(longName), stream::bytes({{"user.note", "long"}}));
            } else {
                scene.make_stores();
                kit::writeFile(stored, stream::bytes({{"user.note", "long"}}));
            }
            const bool attribute = from == StoreKind::file_ea || to == StoreKind::file_ea;
            const bool files = from == StoreKind::apple_double || to == StoreKind::apple_double;
            const timespec times[2] = {{1'000'000'000, 5}, {1'100'000'000, 7}};
            for (const std::string &place : {scene / "file", scene / "below", scene.root()}) {
                ASSERT_EQ(0, ::utimensat(AT_FDCWD, place.c_str(), times, 0));
            }
            const std::set<std::string> stores = {"@eaDir", "._file", "._below", "._" + longName};
            const auto before = kit::Fingerprint::of(scene.root(), stores);

            const Converted foreseen = scene.foreseen(to);
            const Converted told = scene.convert(to);
            EXPECT_EQ(files ? 3 : 2, told.converted()) << way(from, to) << told.reasons();
            EXPECT_EQ(told.all.size(), foreseen.all.size()) << way(from, to);
            EXPECT_EQ("", told.reasons()) << way(from, to);
            for (const Conversion &one : told.all) {
                EXPECT_TRUE(one.from == from || one.file.ends_with(longName)) << way(from, to) << one.file;
            }
            for (const char *const name : {"file", "below"}) {
                EXPECT_TRUE(scene.is_whole(to, name)) << way(from, to) << " " << name;
                EXPECT_TRUE(!files || !scene.has(from, name)) << way(from, to) << " " << name;
                EXPECT_EQ(attribute && to == StoreKind::file_ea, scene.has(StoreKind::file_ea, name)) << way(from, to);
            }
            scene.be(to);
            EXPECT_EQ("long", engine::Store(scene / longName).get("user.note")) << way(from, to);
            EXPECT_EQ(to != StoreKind::apple_double, kit::exists(scene / "@eaDir")) << way(from, to);
            EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root(), stores), {"accessed", "xattrs"}))
                << way(from, to);
            EXPECT_EQ(1'100'000'000, kit::statOf(scene.root()).st_mtim.tv_sec) << way(from, to);
            EXPECT_EQ(1'000'000'000, kit::statOf(scene / "file").st_atim.tv_sec) << way(from, to);
            EXPECT_EQ(store_scene::Names{}, scene.names()) << way(from, to);

            EXPECT_EQ(0U, scene.convert(to).all.size()) << "again, " << way(from, to);
            EXPECT_EQ(files ? 3 : 2, scene.convert(from).converted()) << "back, " << way(from, to);
            EXPECT_TRUE(scene.is_whole(from, "file") && scene.is_whole(from, "below")) << "back, " << way(from, to);
            EXPECT_EQ(store_scene::Names{}, scene.names()) << "back, " << way(from, to);
        }
    }
}

// What nobody may write is locked in "._" by its mode alone, which stays what it is.
TEST_F(StoreConvert, FileThatNobodyMayWriteBecomesEveryFormAndBackAgain) {
    for (const StoreKind to : {StoreKind::ea_directory, StoreKind::file_ea}) {
        for (const mode_t mode : {0444U, 0555U, 0U}) {
            const ConvertScene scene(StoreKind::apple_double);
            scene.with_store(StoreKind::apple_double, "file");
            ASSERT_EQ(0, ::chmod((scene / "file").c_str(), mode));
            const Converted told = scene.convert(to);
            EXPECT_EQ(1, told.converted()) << mode << told.reasons();
            EXPECT_TRUE(scene.is_whole(to, "file")) << mode;
            EXPECT_EQ(1, scene.convert(StoreKind::apple_double).converted()) << "back, " << mode;
            EXPECT_EQ(mode, kit::statOf(scene / "file").st_mode & 07777);
        }
    }
}

TEST_F(StoreConvert, AttributesOfTheFileItself) {
    for (const StoreKind other : kBesideAll) {
        const ConvertScene scene(other);
        scene.with_store(other, "file", "");
        const Converted told = scene.convert(StoreKind::native);
        EXPECT_EQ(1, told.converted()) << way(other, StoreKind::native) << told.reasons();
        EXPECT_FALSE(scene.has(other, "file")) << way(other, StoreKind::native);
        EXPECT_FALSE(kit::exists(scene / "@eaDir"));
        EXPECT_TRUE(scene.is_whole(StoreKind::native, "file", "")) << way(other, StoreKind::native);
        scene.be(other);
        EXPECT_EQ(0U, scene.convert(StoreKind::native).all.size());
        // Those of a user stay the file's own, as on every volume.
        const Converted back = scene.convert(other);
        EXPECT_EQ(1, back.converted()) << way(StoreKind::native, other) << back.reasons();
        EXPECT_FALSE(scene.has(StoreKind::native, "file")) << way(StoreKind::native, other);
        EXPECT_EQ("TEXTttxt", scene.read(other, "file").finderInfo.substr(0, 8)) << way(StoreKind::native, other);
        EXPECT_EQ("of file", kit::attribute(scene / "file", "user.note"));
    }
    // On a volume that keeps stores so they are the store's.
    const ConvertScene native(StoreKind::native);
    native.with_store(StoreKind::native, "file");
    kit::setAttribute(native / "file", "user.DOSATTRIB", "of the system");
    EXPECT_EQ(1, native.convert(StoreKind::apple_double).converted());
    EXPECT_TRUE(native.is_whole(StoreKind::apple_double, "file", ""));
    EXPECT_EQ("", kit::attribute(native / "file", "user.note"));
    EXPECT_EQ("of the system", kit::attribute(native / "file", "user.DOSATTRIB"));
    // One that differs is nobody's to replace.
    const ConvertScene scene(StoreKind::ea_directory);
    scene.with_store(StoreKind::ea_directory, "file", "");
    kit::setAttribute(scene / "file", "user.note", "of somebody else");
    const auto before = kit::Fingerprint::of(scene.root());
    const Converted told = scene.convert(StoreKind::native);
    EXPECT_EQ(1, told.left());
    EXPECT_TRUE(mentions(told.reasons(), "it has an attribute user.note of its own, which differs")) << told.reasons();
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root()), {"accessed"}));
}

TEST_F(StoreConvert, WhatTheNewFormCannotHoldStaysUnlessItIsAccepted) {
    struct Case {
        const char *name;
        StoreKind from, to;
        LossClass cls;
        std::function<void(const ConvertScene &)> make;
    };
    const auto marked = [](size_t at, const std::string &bytes) {
        return [=](const ConvertScene &scene) {
            scene.with_store(StoreKind::file_ea, "file");
            std::string value = ConvertScene::metadata();
            value.replace(at, bytes.size(), bytes);
            if (at == 154) { // the length of the comment
                value = store_scene::with_number(value, 34, bytes.size());
            }
            kit::setAttribute(scene / "file", engine::kMetadataName, value);
        };
    };
    const std::vector<Case> cases = {
        {"comment", StoreKind::file_ea, StoreKind::apple_double, LossClass::mac_attributes, marked(154, "a comment")},
        {"comment", StoreKind::file_ea, StoreKind::ea_directory, LossClass::mac_attributes, marked(154, "a comment")},
        {"flags", StoreKind::file_ea, StoreKind::ea_directory, LossClass::mac_attributes,
         marked(372, std::string("\0\1", 2))},
        {"locked", StoreKind::file_ea, StoreKind::apple_double, LossClass::locked, marked(372, std::string("\1\0", 2))},
        {"entry", StoreKind::apple_double, StoreKind::ea_directory, LossClass::mac_attributes,
         [](const ConvertScene &scene) {
             scene.file("file");
             kit::writeFile(
                 scene.beside("file"),
                 adouble_bytes::header({{9, 62, 32}, {4, 94, 7}, {2, 101, 4}}, 94).replace(62, 8, "TEXTttxt") +
                     "comment" + "fork");
         }},
        {"fork", StoreKind::ea_directory, StoreKind::native, LossClass::resource_fork,
         [](const ConvertScene &scene) { scene.with_store(StoreKind::ea_directory, "file"); }},
        {"large", StoreKind::apple_double, StoreKind::native, LossClass::attribute,
         [](const ConvertScene &scene) {
             scene.file("file");
             kit::writeFile(scene.beside("file"),
                            stream::bytes({{"user.large", kit::pattern(70'000)}, {"user.b", "b"}}));
         }},
        {"name", StoreKind::ea_directory, StoreKind::native, LossClass::stream,
         [](const ConvertScene &scene) {
             scene.with_stream("file", stream::bytes({{"no prefix", "v"}, {"user.b", "b"}}));
         }},
    };
    for (const Case &one : cases) {
        const ConvertScene scene(one.from);
        one.make(scene);
        const std::string what = std::string(one.name) + ", " + way(one.from, one.to);
        const auto before = kit::Fingerprint::of(scene.root());
        const Converted foreseen = scene.foreseen(one.to), told = scene.convert(one.to);
        ASSERT_EQ(1U, told.all.size()) << what << told.reasons();
        EXPECT_EQ(1, told.left()) << what;
        ASSERT_EQ(1U, told.all.front().losses.size()) << what << told.reasons();
        EXPECT_EQ(one.cls, told.all.front().losses.front().cls) << what << told.reasons();
        EXPECT_EQ(told.reasons(), foreseen.reasons()) << what;
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root()), {"accessed"})) << what;

        LossSet accepted;
        accepted.add(one.cls);
        EXPECT_EQ(1, scene.foreseen(one.to, accepted).count(Conversion::State::convertible)) << what;
        const Converted done = scene.convert(one.to, accepted);
        ASSERT_EQ(1U, done.all.size()) << what;
        EXPECT_EQ(1, done.converted()) << what << done.reasons();
        EXPECT_EQ(foreseen.all.front().losses, done.all.front().losses) << what;
        EXPECT_FALSE(one.to != StoreKind::ea_directory && scene.has(StoreKind::ea_directory, "file")) << what;
        EXPECT_EQ(0U, scene.convert(one.to).all.size()) << "again, " << what;
    }
}

// In a store anybody may write what he likes.
TEST_F(StoreConvert, WhatAStoreHoldsGivesItsFileNoRights) {
    const std::string capability("\1\0\0\2\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20); // to be anybody
    for (const char *const name : {"security.capability", "trusted.mark", "system.posix_acl_access", "user.DOSATTRIB",
                                   "user.netatalk.Metadata", "com.apple.FinderInfo", "com.apple.ResourceFork"}) {
        const ConvertScene scene(StoreKind::ea_directory);
        scene.with_stream("file", stream::bytes({{name, capability}, {"user.b", "b"}}));
        EXPECT_EQ(1, scene.foreseen(StoreKind::native).left()) << name;
        EXPECT_EQ(1, scene.convert(StoreKind::native).left()) << name;
        const Converted told = scene.convert(StoreKind::native, *engine::loss_set("all"));
        EXPECT_EQ(1, told.converted()) << name << told.reasons();
        EXPECT_EQ("", kit::attribute(scene / "file", name)) << name;
        EXPECT_EQ("b", kit::attribute(scene / "file", "user.b")) << name;
    }
}

TEST_F(StoreConvert, CommentAndAfpAttributesComeIntoTheMetadataAttribute) {
    const ConvertScene scene(StoreKind::ea_directory);
    // Finder Info last, so that the fork follows it.
    std::string header = adouble_bytes::header({{4, 100, 7}, {14, 120, 4}, {9, 709, 32}, {2, 741, 4}}, 741);
    header.replace(100, 7, "comment").replace(122, 2, std::string("\1\1", 2)).replace(709, 8, "TEXTttxt");
    scene.with_resource("file", header + "fork");
    const Converted told = scene.convert(StoreKind::file_ea);
    EXPECT_EQ(1, told.converted()) << told.reasons();
    EXPECT_EQ("", told.reasons());
    EXPECT_TRUE(scene.read(StoreKind::file_ea, "file").locked);
    const std::string value = kit::attribute(scene / "file", engine::kMetadataName);
    EXPECT_EQ(402U, value.size());
    EXPECT_EQ("comment", value.substr(154, 7));
    EXPECT_EQ(store_scene::Names{}, scene.names());
}

TEST_F(StoreConvert, FinderInfoOfTheAttributeAloneComesIntoTheResourceFile) {
    for (const bool resource : {false, true}) {
        const ConvertScene scene(StoreKind::file_ea);
        scene.file("file");
        kit::setAttribute(scene / "file", engine::kMetadataName, ConvertScene::metadata());
        if (resource) {
            scene.with_resource("file", store_scene::resource_bytes("a fork", ""));
        }
        const Converted told = scene.convert(StoreKind::ea_directory);
        EXPECT_EQ(1, told.converted()) << told.reasons();
        const auto all = scene.read(StoreKind::ea_directory, "file");
        EXPECT_EQ("TEXTttxt", all.finderInfo.substr(0, 8));
        EXPECT_EQ(resource ? "a fork" : "", all.fork);
        EXPECT_EQ("", kit::attribute(scene / "file", engine::kMetadataName));
        EXPECT_EQ("", kit::attribute(scene / "file", "user.vexo.filea.flushtime"));
    }
}

TEST_F(StoreConvert, TwoFormsThatAreTheSameBecomeOne) {
    for (const StoreKind to : kAllForms) {
        for (const StoreKind other : kBesideAll) {
            if (other == to ||
                (to != StoreKind::native && to != StoreKind::apple_double && other != StoreKind::apple_double)) {
                continue; // those of "@eaDir" are one place
            }
            const ConvertScene scene(to);
            scene.with_store(to, "file", to == StoreKind::native ? "" : "a fork");
            scene.store_of(other, "file", to == StoreKind::native ? "" : "a fork");
            const Converted told = scene.convert(to);
            EXPECT_EQ(1, told.converted()) << way(other, to) << told.reasons();
            EXPECT_FALSE(scene.has(other, "file")) << way(other, to);
            EXPECT_TRUE(scene.is_whole(to, "file", to == StoreKind::native ? "" : "a fork")) << way(other, to);
        }
    }
}

TEST_F(StoreConvert, TwoFormsThatDifferAreLeftAndTold) {
    struct Case {
        StoreKind to;
        std::function<void(const ConvertScene &)> change;
        const char *what;
    };
    const auto beside = [](const std::string &bytes) {
        return [=](const ConvertScene &scene) { kit::writeFile(scene.beside("file"), bytes); };
    };
    const auto attributes = ConvertScene::attributes("file");
    const auto fewer = stream::Attributes(attributes.begin(), attributes.begin() + 1);
    const std::vector<Case> cases = {
        {StoreKind::apple_double, beside(stream::bytes(attributes, 6, "TEXTttxu") + "a fork"), "the Finder Info"},
        {StoreKind::apple_double, beside(stream::bytes(attributes, 6, "TEXTttxt") + "a fOrk"), "the resource fork"},
        {StoreKind::ea_directory, beside(stream::bytes(fewer, 6, "TEXTttxt") + "a fork"), "the attributes"},
        {StoreKind::file_ea, beside(stream::bytes(attributes, 6, "TEXTttxu") + "a fork"), "the Finder Info"},
        {StoreKind::native, beside(stream::bytes({{"user.note", "other"}}, 6, "TEXTttxt") + "a fork"),
         "the attributes"},
    };
    LossSet all = *engine::loss_set("all"); // accepts no guess
    for (const Case &one : cases) {
        const ConvertScene scene(one.to);
        scene.with_store(StoreKind::ea_directory, "file");
        one.change(scene);
        const auto before = kit::Fingerprint::of(scene.root());
        const Converted told = scene.convert(one.to, all);
        EXPECT_EQ(1, told.left()) << one.what;
        EXPECT_TRUE(mentions(told.reasons(), one.what)) << engine::form_name(one.to) << told.reasons();
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root()), {"accessed"})) << one.what;
    }
    const ConvertScene scene(StoreKind::file_ea);
    scene.with_store(StoreKind::file_ea, "file");
    kit::setAttribute(scene / "file", engine::kMetadataName, ConvertScene::metadata().replace(122, 8, "TEXTttxu"));
    EXPECT_TRUE(mentions(scene.convert(StoreKind::ea_directory, all).reasons(), "kept twice and differs"));
}

TEST_F(StoreConvert, NamesOfOneFileHaveOneSetOfAttributes) {
    const ConvertScene scene(StoreKind::file_ea);
    scene.with_store(StoreKind::ea_directory, "one");
    ASSERT_EQ(0, ::link((scene / "one").c_str(), (scene / "two").c_str()));
    scene.store_of(StoreKind::ea_directory, "two");
    const Converted told = scene.convert(StoreKind::file_ea);
    EXPECT_EQ(2, told.left());
    EXPECT_TRUE(mentions(told.reasons(), "it has 2 names")) << told.reasons();
    EXPECT_EQ("", kit::attribute(scene / "one", engine::kMetadataName));
    // Where each name has files of its own nothing is between them.
    EXPECT_EQ(2, scene.convert(StoreKind::apple_double).converted());
    EXPECT_TRUE(scene.is_whole(StoreKind::apple_double, "one") && scene.is_whole(StoreKind::apple_double, "two"));
    EXPECT_FALSE(kit::exists(scene / "@eaDir"));
}

TEST_F(StoreConvert, WhatCannotBeDoneIsLeftAsItIsAndTold) {
    struct Case {
        const char *reason;
        StoreKind to;
        std::function<void(const ConvertScene &)> make;
    };
    const std::string longName(254, 'n'), twin = std::string(250, 'n') + "n.ab";
    const std::vector<Case> cases = {
        {"name-too-long", StoreKind::apple_double,
         [&](const ConvertScene &scene) {
             scene.file(longName);
             scene.make_stores();
             const std::string place = engine::stream_path(scene / longName, StoreKind::ea_directory, "VexoEAStream");
             kit::writeFile(place, stream::bytes({{"user.a", "a"}}));
         }},
        {"store-shared", StoreKind::ea_directory,
         [](const ConvertScene &scene) {
             for (const char *const end : {"xy", "yx"}) { // whose bytes have one sum
                 const std::string name = std::string(248, 'n') + end;
                 scene.file(name);
                 kit::writeFile(scene.beside(name), stream::bytes({{"user.a", end}}));
             }
         }},
        {"store repair", StoreKind::apple_double,
         [](const ConvertScene &scene) {
             scene.with_stream("file", stream::bytes({{"user.a", "a"}}) + "more");
         }},
        {"ea upgrade", StoreKind::apple_double,
         [](const ConvertScene &scene) {
             scene.with_store(StoreKind::ea_directory, "file");
             ASSERT_EQ(0, ::mkdir((scene / "@eaDir/file").c_str(), 0777));
             kit::writeFile(scene / "@eaDir/file/user.old", "old");
         }},
        {"is no file", StoreKind::apple_double,
         [](const ConvertScene &scene) {
             scene.with_store(StoreKind::ea_directory, "file");
             ASSERT_EQ(0, ::unlink(scene.resource("file").c_str()));
             ASSERT_EQ(0, ::mkfifo(scene.resource("file").c_str(), 0666));
         }},
        {"is no file", StoreKind::apple_double,
         [](const ConvertScene &scene) {
             scene.with_store(StoreKind::ea_directory, "file");
             ASSERT_EQ(0, ::symlink("file", scene.beside("file").c_str()));
         }},
        {"stands in the way", StoreKind::apple_double,
         [](const ConvertScene &scene) {
             scene.with_store(StoreKind::ea_directory, "file");
             kit::writeFile(scene.beside("file"), "a user's own");
         }},
        {"store-orphan", StoreKind::apple_double,
         [](const ConvertScene &scene) {
             scene.with_store(StoreKind::ea_directory, "gone");
             ASSERT_EQ(0, ::unlink((scene / "gone").c_str()));
         }},
        {"store-orphan", StoreKind::ea_directory,
         [](const ConvertScene &scene) {
             scene.with_store(StoreKind::apple_double, "gone");
             ASSERT_EQ(0, ::unlink((scene / "gone").c_str()));
             kit::writeFile(scene / "._notes", "a user's own, of which nothing is told");
         }},
    };
    LossSet all = *engine::loss_set("all");
    for (const Case &one : cases) {
        const ConvertScene scene(one.to);
        one.make(scene);
        const auto before = kit::Fingerprint::of(scene.root());
        const Converted told = scene.convert(one.to, all);
        EXPECT_EQ(0, told.converted()) << one.reason;
        EXPECT_LT(0, told.left()) << one.reason;
        EXPECT_TRUE(mentions(told.reasons(), one.reason)) << one.reason << ": " << told.reasons();
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.root()), {"accessed"})) << one.reason;
        EXPECT_EQ(told.reasons(), scene.foreseen(one.to, all).reasons()) << one.reason;
    }
}

TEST_F(StoreConvert, WhatAnotherProcessHasLockedIsLeft) {
    for (const int kind : {F_RDLCK, F_WRLCK}) {
        const ConvertScene scene(StoreKind::ea_directory);
        scene.with_store(StoreKind::ea_directory, "file");
        const int fd = ::open(scene.stream("file").c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock {};
        lock.l_type = static_cast<short>(kind);
        ASSERT_EQ(0, ::fcntl(fd, F_OFD_SETLK, &lock));
        const Converted told = scene.convert(StoreKind::apple_double);
        EXPECT_EQ(1, told.left());
        EXPECT_TRUE(mentions(told.reasons(), "another process has @eaDir/file@VexoEAStream locked")) << told.reasons();
        EXPECT_FALSE(kit::exists(scene.beside("file")));
        ::close(fd);
        EXPECT_EQ(1, scene.convert(StoreKind::apple_double).converted());
    }
}

TEST_F(StoreConvert, FullVolumeAndReadOnlyOneLeaveTheOldForm) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 10));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=1").c_str(), 1);
    kit::writeFile(volume / "file", "data");
    ASSERT_EQ(0, ::mkdir((volume / "@eaDir").c_str(), 0777));
    kit::writeFile(volume / "@eaDir/file@VexoEAStream", stream::bytes({{"user.a", kit::pattern(150'000)}}));
    kit::writeFile(volume / "@eaDir/file@VexoResource", store_scene::resource_bytes("fork"));
    const auto before = kit::Fingerprint::of(volume.path());
    const auto convert = [&](StoreKind to = StoreKind::apple_double) { // as it is foreseen
        Converted told, foreseen;
        engine::convert_stores(engine::HeldEntry(volume.path()), {.to = to, .dryRun = true}, foreseen, foreseen.totals);
        engine::convert_stores(engine::HeldEntry(volume.path()), {.to = to}, told, told.totals);
        EXPECT_EQ(told.left(), foreseen.left()) << foreseen.reasons();
        const auto cause = [](const std::string &reasons) { return reasons.substr(reasons.rfind(": ") + 1); };
        EXPECT_EQ(cause(told.reasons()), cause(foreseen.reasons()));
        return told;
    };
    Converted told = convert();
    EXPECT_EQ(1, told.left());
    EXPECT_TRUE(mentions(told.reasons(), "o space left")) << told.reasons();
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(volume.path()), {"accessed"}));
    volume.setReadOnly(true);
    told = convert();
    EXPECT_EQ(1, told.left());
    EXPECT_TRUE(mentions(told.reasons(), "ead-only file system")) << told.reasons();
    volume.setReadOnly(false);

    // What was there of the new form by then goes again.
    for (const char *const stream : {"/@eaDir/file@VexoEAStream", "/@eaDir/file@VexoResource"}) {
        ASSERT_EQ(0, ::unlink((volume.path() + stream).c_str()));
    }
    ASSERT_EQ(0, ::rmdir((volume / "@eaDir").c_str()));
    kit::writeFile(volume / "._file", stream::bytes({{"user.a", kit::pattern(60'000)}}, 70'000) + kit::pattern(70'000));
    const auto with_double = kit::Fingerprint::of(volume.path());
    told = convert(StoreKind::ea_directory);
    EXPECT_EQ(1, told.left()) << told.reasons();
    EXPECT_TRUE(mentions(told.reasons(), "o space left")) << told.reasons();
    EXPECT_EQ("", with_double.differenceTo(kit::Fingerprint::of(volume.path()), {"accessed"}));
    ::unsetenv("VEXOFILEOP_FSTYPES");
}

// ext4 has room for so much beside a file, and no more.
TEST_F(StoreConvert, WhatAVolumeDoesNotTakeIsFoundOutBeforehand) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", uint64_t{16} << 20));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=1").c_str(), 1);
    kit::writeFile(volume / "file", "data");
    ASSERT_EQ(0, ::mkdir((volume / "@eaDir").c_str(), 0777));
    kit::writeFile(volume / "@eaDir/file@VexoEAStream",
                   stream::bytes({{"user.large", kit::pattern(9000)}, {"user.small", "small"}}));
    const auto before = kit::Fingerprint::of(volume.path());
    const auto convert = [&](bool dryRun, const LossSet &accepted) {
        Converted told;
        engine::convert_stores(engine::HeldEntry(volume / "file"),
                               {.to = StoreKind::native, .dryRun = dryRun, .accepted = accepted}, told, told.totals);
        return told;
    };
    const Converted foreseen = convert(true, {}), told = convert(false, {});
    EXPECT_EQ(1, told.left());
    EXPECT_TRUE(mentions(told.reasons(), "attribute user.large: only at the first, 9000 bytes")) << told.reasons();
    EXPECT_EQ(told.reasons(), foreseen.reasons());
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(volume.path()), {"accessed"}));
    const LossSet accepted = LossSet().add(LossClass::attribute);
    EXPECT_EQ(1, convert(false, accepted).converted());
    EXPECT_EQ("small", kit::attribute(volume / "file", "user.small"));
    EXPECT_FALSE(kit::exists(volume / "@eaDir"));
    ::unsetenv("VEXOFILEOP_FSTYPES");
}

// A driver that is a program, which keeps a file that is open under another name when it is removed.
TEST_F(StoreConvert, VolumeOfAProgramWithoutAttributes) {
    KIT_REQUIRE(volume, kit::Volume::fuse("exfat-fuse", uint64_t{16} << 20));
    const auto be = [&](int type) {
        ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=" + std::to_string(type)).c_str(), 1);
    };
    const auto convert = [&](StoreKind to) {
        Converted told;
        engine::convert_stores(engine::HeldEntry(volume.path()), {.to = to}, told, told.totals);
        return told;
    };
    be(18);
    kit::writeFile(volume / "file", "data");
    kit::writeFile(volume / "._file", stream::bytes({{"user.note", "note"}}, 4, "TEXTttxt") + "fork");
    Converted told = convert(StoreKind::file_ea);
    EXPECT_EQ(1, told.left()) << "which it has no place for";
    EXPECT_EQ((store_scene::Names{"._file", "file"}), kit::namesIn(volume.path())) << told.reasons();
    told = convert(StoreKind::ea_directory);
    EXPECT_EQ(1, told.converted()) << told.reasons();
    EXPECT_EQ((store_scene::Names{"@eaDir", "file"}), kit::namesIn(volume.path()));
    be(1);
    EXPECT_EQ("note", engine::Store(volume / "file").get("user.note"));
    told = convert(StoreKind::apple_double);
    EXPECT_EQ(1, told.converted()) << told.reasons();
    EXPECT_EQ((store_scene::Names{"._file", "file"}), kit::namesIn(volume.path()));
    be(18);
    EXPECT_EQ("fork", engine::Store(volume / "file").metadata().fork);
    ::unsetenv("VEXOFILEOP_FSTYPES");
}

TEST_F(StoreConvert, NobodyGetsRightsThatHeHadNot) {
    const ConvertScene scene(StoreKind::ea_directory);
    scene.with_store(StoreKind::ea_directory, "file");
    for (const std::string &place : {scene.stream("file"), scene.resource("file"), scene / "file"}) {
        ASSERT_EQ(0, ::chown(place.c_str(), 1234, 2345));
        ASSERT_EQ(0, ::chmod(place.c_str(), 0640));
    }
    ASSERT_EQ(1, scene.convert(StoreKind::apple_double).converted());
    EXPECT_EQ(0640U, kit::statOf(scene.beside("file")).st_mode & 07777);
    EXPECT_EQ(1234U, kit::statOf(scene.beside("file")).st_uid);
    ASSERT_EQ(1, scene.convert(StoreKind::native, *engine::loss_set("resource-fork")).converted());
    ASSERT_EQ(1, scene.convert(StoreKind::ea_directory).converted());
    EXPECT_EQ(0640U, kit::statOf(scene.resource("file")).st_mode & 07777);
    EXPECT_EQ(2345U, kit::statOf(scene.resource("file")).st_gid);
    EXPECT_EQ(0640U, kit::statOf(scene / "file").st_mode & 07777);
}

TEST_F(StoreConvert, WhatOtherServicesKeepForAFileStays) {
    const ConvertScene scene(StoreKind::ea_directory);
    scene.with_store(StoreKind::ea_directory, "file");
    ASSERT_EQ(0, ::mkdir((scene / "@eaDir/file").c_str(), 0777));
    kit::writeFile(scene / "@eaDir/file/VEXOPHOTO_THUMB.jpg", "a picture");
    const Converted told = scene.convert(StoreKind::apple_double);
    EXPECT_EQ(1, told.converted()) << told.reasons();
    EXPECT_EQ("a picture", kit::readFile(scene / "@eaDir/file/VEXOPHOTO_THUMB.jpg"));
    EXPECT_EQ(store_scene::Names{"file"}, kit::namesIn(scene / "@eaDir"));
}

TEST_F(StoreConvert, OneEntryAlone) {
    const ConvertScene scene(StoreKind::ea_directory);
    scene.with_store(StoreKind::ea_directory, "one");
    scene.with_store(StoreKind::ea_directory, "two");
    EXPECT_EQ(1, scene.convert(StoreKind::apple_double, {}, false, "one").converted());
    EXPECT_TRUE(scene.is_whole(StoreKind::apple_double, "one"));
    EXPECT_TRUE(scene.is_whole(StoreKind::ea_directory, "two"));
}

} // namespace
