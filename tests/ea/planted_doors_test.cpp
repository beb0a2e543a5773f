// What a local user may plant in "@eaDir", against every door that root opens there: nothing outside is changed or
// published, and nothing is waited for.
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/ea/planted.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using item_store::Place;
using planted::kSecret;

using item_store::kEaDirectory;
using item_store::kFat;
using item_store::kFileEa;

// A file with a store in both layouts, the names that a rename moves it to, and what one door does with it.
struct Scene {
    Place file;
    Place renamed;

    const char *path() const { return m_path.c_str(); }
    const char *newPath() const { return m_newPath.c_str(); }
    // For what is made there only where nothing stands.
    void makeRoom(const std::string &companion) const {
        struct stat status;
        if (::lstat(file.eaDirectory().c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            ::unlink(companion.c_str());
        }
    }

    std::string m_path = file.path();
    std::string m_newPath = renamed.path();
};

struct Door {
    const char *name;
    std::function<int(const Scene &)> run;
    std::vector<std::string> places; // below the scene's root
};

int openAndWrite(int nameMode, const Scene &scene, const char *stream, int flags, int kind) {
    const int fd = VEXOEAOpen(nameMode, scene.path(), stream, flags, kind);
    if (fd >= 0) {
        EXPECT_LE(::write(fd, "x", 1), 1);
        ::close(fd);
    }
    return fd < 0 ? 1 : 0;
}

int openInEveryWay(int nameMode, const Scene &scene, const char *stream, int kind) {
    for (const int access : {O_RDONLY, O_WRONLY, O_RDWR}) {
        for (const int more : {0, O_CREAT, O_CREAT | O_TRUNC, O_CREAT | O_APPEND, O_CREAT | O_EXCL}) {
            (void)openAndWrite(nameMode, scene, stream, access | more, kind);
        }
    }
    return 0;
}

const std::vector<std::string> kStreams = {"from/@eaDir/f@VexoResource", "from/@eaDir/f@VexoEAStream"};
const std::vector<std::string> kResource = {"from/@eaDir/f@VexoResource"};
const std::vector<std::string> kDot = {"from/._f"};
const std::vector<std::string> kOwn = {"from/@eaDir/f", "from/@eaDir/f/colour", "from/@eaDir/f/VEXO:Resource",
                                       "from/@eaDir/f/VEXO:Other", "from/@eaDir/f/VEXO@Other"};
const std::vector<std::string> kMoved = {"from/@eaDir/f@VexoResource",
                                         "from/@eaDir/f@VexoEAStream",
                                         "from/@eaDir/f",
                                         "from/@eaDir/f/colour",
                                         "from/._f",
                                         "to/@eaDir/g@VexoResource",
                                         "to/@eaDir/g@VexoEAStream",
                                         "to/@eaDir/g",
                                         "to/._g",
                                         "to/@eaDir"};

std::vector<std::string> together(std::vector<std::string> one, const std::vector<std::string> &other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

const std::vector<Door> &doors() {
    static const auto info = kit::pattern(32, 3);
    static const std::vector<Door> all = {
        {"open current", [](const Scene &s) { return openInEveryWay(1, s, "VexoEAStream", 0); }, kStreams},
        {"open older", [](const Scene &s) { return openInEveryWay(0, s, "colour", 0); }, kOwn},
        {"open AppleDouble", [](const Scene &s) { return openInEveryWay(1, s, "VexoEAStream", 1); }, kDot},
        {"read header",
         [](const Scene &s) {
             VEXOEAAdouble header;
             return VEXOEAEADirAdoubleRead(s.path(), &header);
         },
         kResource},
        {"write header",
         [](const Scene &s) { return VEXOEAEADirAdoubleFlush(info.data(), static_cast<int>(info.size()), s.path()); },
         kResource},
        {"write Finder Info", [](const Scene &s) { return VEXOEAEADirFSFInfoWrite(s.path(), info.data()); }, kResource},
        {"sync", [](const Scene &s) { return EACheckNeedSync(s.path()) + VEXOEAFileEAFSFinfoEASync(s.path(), 0); },
         kResource},
        {"check", [](const Scene &s) { return VEXOEACheckADFile(s.file.dotFile().c_str()); }, kDot},
        {"repair", [](const Scene &s) { return VEXOEAFixErrorAD(s.path()); },
         together(kStreams, {"from/@eaDir/f@VexoResourceTmp"})},
        {"remove from FAT", [](const Scene &s) { return VEXOEARemove(s.path(), kFat); }, together(kOwn, kDot)},
        {"remove", [](const Scene &s) { return VEXOEARemove(s.path(), kEaDirectory); }, together(kOwn, kStreams)},
        {"remove from file-EA", [](const Scene &s) { return VEXOEARemove(s.path(), kFileEa); },
         together(kOwn, kStreams)},
        {"remove the resource", [](const Scene &s) { return VEXOEARemoveWithoutEAStream(s.path(), kEaDirectory); },
         together(kOwn, kStreams)},
        {"remove the directory",
         [](const Scene &s) { return EARemoveEADir((s.file.own() + "@x").c_str()); },
         {"from/@eaDir/.cover"}},
        {"remove what dangles",
         [](const Scene &s) {
             VEXOEARemoveDanglingEADir((s.file.directory + "/empty").c_str());
             return 0;
         },
         {"from/empty/@eaDir", "from/empty/@eaDir/x"}},
        {"rename on FAT", [](const Scene &s) { return VEXOEARename(s.path(), s.newPath(), kFat, 0); }, kMoved},
        {"rename", [](const Scene &s) { return VEXOEARename(s.path(), s.newPath(), kEaDirectory, 0); }, kMoved},
        {"rename a stream",
         [](const Scene &s) { return VEXOEARenameByStream(s.path(), s.newPath(), kEaDirectory, "VexoEAStream"); },
         kMoved},
        {"upgrade attributes",
         [](const Scene &s) {
             s.makeRoom(s.file.stream());
             return VEXOEAUpgrade(s.path(), "VexoEAStream");
         },
         together(kOwn, kDot)},
        {"upgrade attributes there", [](const Scene &s) { return VEXOEAUpgrade(s.path(), "VexoEAStream"); }, kStreams},
        {"upgrade resource",
         [](const Scene &s) {
             s.makeRoom(s.file.resource());
             return VEXOEAUpgrade(s.path(), "VexoResource");
         },
         kOwn},
        {"upgrade resource there", [](const Scene &s) { return VEXOEAUpgrade(s.path(), "VexoResource"); }, kResource},
        {"upgrade other", [](const Scene &s) { return VEXOEAUpgrade(s.path(), "VEXO:Other"); }, kOwn},
    };
    return all;
}

class PlantedDoors : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("to be worth leading away");
    }
    // What is kept outside: sound for everybody who would read it, and secret.
    static std::string store() { return stream::bytes({{"secret", kSecret}}); }

    Scene makeScene() {
        const std::string root = scratch / ("scene" + std::to_string(++m_scenes));
        for (const char *directory : {"", "/from", "/to", "/from/@eaDir", "/to/@eaDir", "/from/@eaDir/f", "/from/empty",
                                      "/from/empty/@eaDir"}) {
            ::mkdir((root + directory).c_str(), 0777);
            ::chmod((root + directory).c_str(), 0777);
        }
        Scene scene{.file = {root + "/from", "f"}, .renamed = {root + "/to", "g"}};
        kit::writeFile(scene.file.path(), "data");
        kit::writeFile(scene.renamed.path(), "data");
        kit::writeFile(scene.file.resource(), stream::bytes({{"wrong", "place"}}));
        kit::writeFile(scene.file.stream(), stream::bytes({{"a", "1"}}));
        kit::writeFile(scene.file.dotFile(), stream::bytes({{"b", "2"}}));
        kit::writeFile(scene.file.own() + "/colour", "green");
        kit::writeFile(scene.file.own() + "/VEXO:Resource", item_store::resourceBytes("", "fork"));
        kit::writeFile(scene.file.own() + "/VEXO:Other", "other");
        return scene;
    }
    static std::string rootOf(const Scene &scene) {
        return scene.file.directory.substr(0, scene.file.directory.rfind('/'));
    }

    // Once, before a call whose path has that text: the directory goes away, and a link to what is outside takes its
    // place.
    void exchangeBefore(const char *call, const std::string &path, const std::string &directory,
                        const planted::Outside &outside, bool &exchanged) {
        kit::Faults::add({.function = call, .path = path, .before = [&, directory] {
                              if (!exchanged) {
                                  exchanged = true;
                                  EXPECT_EQ(0, ::rename(directory.c_str(), (scratch / "away").c_str()));
                                  EXPECT_EQ(0, ::symlink(outside.directory().c_str(), directory.c_str()));
                              }
                          }});
    }

  private:
    int m_scenes = 0;
};

TEST_F(PlantedDoors, LeadNowhereAndWaitForNobody) {
    for (const Door &door : doors()) {
        for (const planted::Thing thing : planted::kThings) {
            for (const std::string &place : door.places) {
                SCOPED_TRACE(std::string(door.name) + ", " + planted::name(thing) + " at " + place);
                const Scene scene = makeScene();
                const std::string root = rootOf(scene);
                planted::Outside outside(root + ".outside", store());
                planted::plant(thing, root + "/" + place, outside);
                outside.remember();
                EXPECT_NE(-1, planted::withoutHanging([&] { return door.run(scene) == 0 ? 0 : 1; })) << "it hung";
                outside.expectUnchanged();
                EXPECT_TRUE(planted::published(root, outside).empty());
            }
        }
        if (HasFailure()) {
            break;
        }
    }
}

// In the place of a directory of the store: a link to one of root's that holds what a store holds.
TEST_F(PlantedDoors, DirectoriesOfTheStoreThatAreLinksAreNotEntered) {
    for (const Door &door : doors()) {
        for (const char *place : {"from/@eaDir", "from/@eaDir/f", "to/@eaDir", "to/@eaDir/g", "from/empty/@eaDir"}) {
            SCOPED_TRACE(std::string(door.name) + ", link at " + place);
            const Scene scene = makeScene();
            const std::string root = rootOf(scene);
            planted::Outside outside(root + ".outside", store(), "f@VexoEAStream");
            for (const char *directory : {"f", "g"}) {
                ::mkdir((outside.directory() + "/" + directory).c_str(), 0700);
                kit::writeFile(outside.directory() + "/" + directory + "/colour", kSecret, 0600);
            }
            for (const char *name : {"f@VexoResource", "g@VexoResource", "g@VexoEAStream", "colour", "f/VEXO:Resource",
                                     "f/VEXO:Other", "VEXO:Resource", "VEXO:Other"}) {
                kit::writeFile(outside.directory() + "/" + name, store(), 0600);
            }
            planted::plantDirectoryLink(root + "/" + place, outside);
            outside.remember();
            EXPECT_NE(-1, planted::withoutHanging([&] { return door.run(scene) == 0 ? 0 : 1; })) << "it hung";
            outside.expectUnchanged();
        }
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(PlantedDoors, LinkInPlaceOfAnEmptyDirectoryStays) {
    const Scene scene = makeScene();
    planted::Outside outside(scratch / "outside", "", ".cover");
    ASSERT_EQ(0, std::system(("rm -rf '" + scene.file.eaDirectory() + "'").c_str()));
    planted::plantDirectoryLink(scene.file.eaDirectory(), outside);
    outside.remember();
    EXPECT_EQ(-1, EARemoveEADir(scene.file.stream().c_str()));
    outside.expectUnchanged();
    EXPECT_TRUE(kit::exists(outside.file()));
}

// Between the mkdir and what opens the new directory to all.
TEST_F(PlantedDoors, DirectoryThatIsExchangedWhileItIsMadeIsNotOpenedToAll) {
    const Scene scene = makeScene();
    const std::string directory = scratch / "@eaDir";
    planted::Outside outside(scratch / "outside", store());
    outside.remember();
    bool exchanged = false;
    for (const char *call : {"open", "chmod"}) {
        exchangeBefore(call, directory, directory, outside, exchanged);
    }
    EXPECT_FAILS(VEXOEAMKDir(0, directory.c_str()), 0x2A00);
    EXPECT_TRUE(exchanged);
    outside.expectUnchanged();
}

// While it is being emptied.
TEST_F(PlantedDoors, DirectoryThatIsExchangedWhileItIsRemovedLeadsNowhere) {
    const Scene scene = makeScene();
    const std::string inner = scene.file.own() + "/inner";
    ::mkdir(inner.c_str(), 0777);
    for (const char *name : {"one", "two", "secret"}) {
        kit::writeFile(inner + "/" + name, "x");
    }
    planted::Outside outside(scratch / "outside", store());
    outside.remember();
    bool exchanged = false;
    for (const char *call : {"unlink", "remove"}) {
        exchangeBefore(call, inner + "/", inner, outside, exchanged);
    }
    EXPECT_FAILS(EARemove(0, scene.path()), 0x3900);
    EXPECT_TRUE(exchanged);
    outside.expectUnchanged();
}

TEST_F(PlantedDoors, DeepDirectoriesGoWithFewDescriptors) {
    const Scene scene = makeScene();
    EXPECT_TRUE(kit::holdsInChild([&] {
        std::string name = scene.file.own();
        int at = ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int level = 0; level < 3000; ++level) { // deeper than a path is long
            ASSERT_EQ(0, ::mkdirat(at, "deep", 0777));
            const int next = ::openat(at, "deep", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ::close(at);
            at = next;
            ASSERT_LE(0, at);
            if (level % 500 == 0) {
                ::close(::openat(at, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
            }
        }
        ::close(at);
        EXPECT_EQ(0, EARemove(0, scene.path()));
        EXPECT_FALSE(kit::exists(scene.file.own()));
    }));
}

// A file of the store that has other names is used as far as everybody may.
TEST_F(PlantedDoors, StoreOfASnapshotOfHardLinksIsReadAndWritten) {
    const Scene scene = makeScene();
    ::chmod(scene.file.stream().c_str(), 0777);
    ASSERT_EQ(0, ::link(scene.file.stream().c_str(), (scratch / "snapshot").c_str()));
    const int fd = VEXOEAOpen(1, scene.path(), "VexoEAStream", O_RDWR, 0);
    EXPECT_LE(0, fd);
    EXPECT_EQ(0, ::fcntl(fd, F_GETFD));
    EXPECT_EQ(0, ::fcntl(fd, F_GETFL) & O_NONBLOCK) << "the descriptor is as it was asked for";
    ::close(fd);
}

} // namespace
