// What a copy and a move of a store do where a neighbour has planted something in the place of one of its files: at
// every companion, on either side, of every pair of kinds.
#include "ea/ea.h"
#include "tests/ea/planted.h"
#include "tests/ea/store_copy.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace item_store;
using planted::Outside;
using planted::Thing;

constexpr std::array<int, 4> kKindsOfStores = {kAppleDouble, kNative, kEaDirectory, kFileEa};

enum class Companion { resource, stream, dot_file, entry };
constexpr std::array kCompanions = {Companion::resource, Companion::stream, Companion::dot_file, Companion::entry};

const char *name(Companion companion) {
    constexpr std::array kNames = {"Resource", "Stream", "DotFile", "Entry"};
    return kNames[static_cast<size_t>(companion)];
}

std::string pathOf(const Place &place, Companion companion) {
    switch (companion) {
    case Companion::resource:
        return place.resource();
    case Companion::stream:
        return place.stream();
    case Companion::dot_file:
        return place.dotFile();
    case Companion::entry:
        break;
    }
    return place.own() + "/thumb.jpg";
}

// Which of them a volume of that kind has.
std::vector<Companion> companionsOn(int kind) {
    switch (kind) {
    case kAppleDouble:
        return {Companion::dot_file, Companion::entry};
    case kNative:
        return {Companion::resource, Companion::entry};
    default:
        return {Companion::resource, Companion::stream, Companion::entry};
    }
}

// Such a file in good order, so that nothing else stops whoever is led to it.
std::string secretBytes(Companion companion) {
    switch (companion) {
    case Companion::resource:
        return resourceBytes(planted::kSecret, planted::kSecret);
    case Companion::stream:
        return stream::bytes({{"user.secret", planted::kSecret}});
    case Companion::dot_file:
        return stream::bytes({{"user.secret", planted::kSecret}}, static_cast<uint32_t>(planted::kSecret.size()),
                             planted::kSecret) +
               planted::kSecret;
    case Companion::entry:
        break;
    }
    return planted::kSecret;
}

using Scene = std::tuple<int, int>; // the kinds of the two volumes

class CopyPlanted : public store_copy::StoreCopy, public testing::WithParamInterface<Scene> {
  protected:
    void SetUp() override {
        StoreCopy::SetUp();
        KIT_NEEDS_ROOT("to be led away");
    }
    // A scene as new, with `scratch`/secret outside of it.
    Outside newScene(int fromKind, int toKind, const std::string &bytes, const std::string &name = "secret") {
        const std::string root = newRoot();
        prepare(fromKind, toKind, some(), root + "/tree");
        return {root + "/outside", bytes, name};
    }
    void prepare(int fromKind, int toKind, const Items &items, const std::string &root) {
        ::mkdir(root.c_str(), 0755);
        StoreCopy::prepare(fromKind, toKind, items, root);
        tree = root;
    }
    void leadsNowhere();
    void entersNoDirectoryByALink();
    void givesFilesOnly();
    // A failure has an error, and whoever is told of none has all there was.
    void expectTold(int result) {
        if (result != 0) {
            EXPECT_EQ(-1, result);
            EXPECT_NE(0u, VLIBCErrGet());
        }
    }
    std::string tree;
};

void CopyPlanted::leadsNowhere() {
    const auto [fromKind, toKind] = GetParam();
    for (const bool atSource : {true, false}) {
        for (const Companion companion : companionsOn(atSource ? fromKind : toKind)) {
            for (const Thing thing : planted::kThings) {
                for (const bool move : {false, true}) {
                    SCOPED_TRACE(std::string(planted::name(thing)) + " in place of " + name(companion) + " of the " +
                                 (atSource ? "source" : "destination") + (move ? ", moved" : ", copied"));
                    Outside outside = newScene(fromKind, toKind, secretBytes(companion));
                    planted::plant(thing, pathOf(atSource ? from : to, companion), outside);
                    outside.remember();
                    VLIBCErrSetEx(0, "", 0);
                    expectTold(copy(move, -1, -1, true));
                    outside.expectUnchanged();
                    EXPECT_EQ(std::set<std::string>{}, planted::published(tree, outside));
                }
            }
        }
    }
}

void CopyPlanted::entersNoDirectoryByALink() {
    const auto [fromKind, toKind] = GetParam();
    for (const bool atSource : {true, false}) {
        for (const bool own : {false, true}) {
            for (const bool move : {false, true}) {
                SCOPED_TRACE(std::string("a link to a directory in place of ") + (own ? "@eaDir/f" : "@eaDir") +
                             " of the " + (atSource ? "source" : "destination") + (move ? ", moved" : ", copied"));
                Outside outside = newScene(fromKind, toKind, planted::kSecret, "thumb.jpg");
                kit::writeFile(outside.directory() + "/f@VexoResource", secretBytes(Companion::resource), 0600);
                kit::writeFile(outside.directory() + "/f@VexoEAStream", secretBytes(Companion::stream), 0600);
                ::mkdir((outside.directory() + "/f").c_str(), 0700);
                kit::writeFile(outside.directory() + "/f/thumb.jpg", planted::kSecret, 0600);
                const Place &place = atSource ? from : to;
                if (own) {
                    makeDirectories(place);
                }
                planted::plantDirectoryLink(own ? place.own() : place.eaDirectory(), outside);
                outside.remember();
                VLIBCErrSetEx(0, "", 0);
                expectTold(copy(move, -1, -1, true));
                outside.expectUnchanged();
                EXPECT_EQ(std::set<std::string>{}, planted::published(tree, outside));
            }
        }
    }
}

TEST_P(CopyPlanted, LeadsNowhere) {
    EXPECT_TRUE(planted::holdsWithoutHanging([this] { leadsNowhere(); }));
}

TEST_P(CopyPlanted, EntersNoDirectoryByALink) {
    EXPECT_TRUE(planted::holdsWithoutHanging([this] { entersNoDirectoryByALink(); }));
}

INSTANTIATE_TEST_SUITE_P(EveryPair, CopyPlanted,
                         testing::Combine(testing::ValuesIn(kKindsOfStores), testing::ValuesIn(kKindsOfStores)),
                         [](const testing::TestParamInfo<Scene> &scene) {
                             return std::string(item_store::name(std::get<0>(scene.param))) + "To" +
                                    item_store::name(std::get<1>(scene.param));
                         });

// A function of the caller's opens what it is given by its path, and would follow.
int copyByPath(const char *from, const char *to) {
    const kit::FaultsOff quiet;
    kit::writeFile(to, kit::readFile(from), 0600);
    return 0;
}

void CopyPlanted::givesFilesOnly() {
    const auto [fromKind, toKind] = GetParam();
    for (const bool atSource : {true, false}) {
        for (const Companion companion : {Companion::resource, Companion::stream, Companion::entry}) {
            for (const Thing thing : planted::kThings) {
                SCOPED_TRACE(std::string(planted::name(thing)) + " in place of " + name(companion) + " of the " +
                             (atSource ? "source" : "destination"));
                Outside outside = newScene(fromKind, toKind, secretBytes(companion));
                planted::plant(thing, pathOf(atSource ? from : to, companion), outside);
                outside.remember();
                VLIBCErrSetEx(0, "", 0);
                expectTold(VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 0, 1, -1, -1, 0, 0, copyByPath));
                outside.expectUnchanged();
                EXPECT_EQ(std::set<std::string>{}, planted::published(tree, outside));
            }
        }
    }
}

class CopyByCaller : public CopyPlanted {};

TEST_P(CopyByCaller, GetsFilesOnly) {
    EXPECT_TRUE(planted::holdsWithoutHanging([this] { givesFilesOnly(); }));
}

INSTANTIATE_TEST_SUITE_P(Stores, CopyByCaller,
                         testing::Values(Scene{kEaDirectory, kEaDirectory}, Scene{kEaDirectory, kFileEa},
                                         Scene{kFileEa, kFileEa}));

class CopyOfSnapshots : public CopyPlanted {};

// Stores of hard-linked snapshots have several names, and everybody may do with them what a copy does.
TEST_F(CopyOfSnapshots, GoesOn) {
    for (const int fromKind : {kAppleDouble, kEaDirectory, kFileEa}) {
        for (const int toKind : kKindsOfStores) {
            const std::string root = newRoot();
            prepare(fromKind, toKind, some(), root);
            for (const Companion companion : kCompanions) {
                const std::string path = pathOf(from, companion);
                if (kit::exists(path)) {
                    ::chmod(path.c_str(), 0777);
                    ASSERT_EQ(0, ::link(path.c_str(), (root + "/" + name(companion)).c_str()));
                }
            }
            EXPECT_EQ(0, copy()) << item_store::name(fromKind) << kit::Log::all();
            EXPECT_EQ(some().fork, read(to, toKind).fork);
            EXPECT_EQ(some().attributes, read(to, toKind).attributes);
        }
    }
}

} // namespace
