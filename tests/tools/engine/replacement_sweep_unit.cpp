// A file that is replaced, with each system call on the way killed or refused: at every moment there is the old file
// with its store or the new one with its own, and whoever comes next finishes or removes what was left.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/sweep.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace engine;

bool replace(const std::string &source, const std::string &destination) {
    return sweep::carry({.conflict = Conflict::replace}, source, destination).good;
}

// Where stores are kept: in "@eaDir", or in "._" files.
enum class Keeps { streams, doubles };

class ReplacementSweep : public sweep::Sweep<::testing::TestWithParam<Keeps>> {
  protected:
    struct Scene {
        Scene() {
            if (doubles) {
                ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=0").c_str(), 1);
            }
            for (const char *name : {"from", "to"}) {
                EXPECT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
                EXPECT_TRUE(doubles || ::mkdir((scratch / name + "/@eaDir").c_str(), 0777) == 0);
            }
            kit::writeFile(source, "new");
            kit::writeFile(sourceStore, stream::bytes({{"comment", "new"}}));
            kit::writeFile(destination, "old");
            kit::writeFile(destinationStore, stream::bytes({{"comment", "old"}, {"other", "old"}}));
            if (!doubles) {
                kit::writeFile(destinationResource, "old resource");
            }
        }
        ~Scene() { ::unsetenv("VEXOFILEOP_FSTYPES"); }
        Scene(const Scene &) = delete;
        Scene &operator=(const Scene &) = delete;
        std::string storeOf(const std::string &place, const std::string &name) const {
            return scratch / (place + (doubles ? "/._" + name : "/@eaDir/" + name + "@VexoEAStream"));
        }
        bool isOld() const {
            return kit::readFile(destination) == "old" &&
                   kit::readFile(destinationStore) == stream::bytes({{"comment", "old"}, {"other", "old"}}) &&
                   (doubles || kit::readFile(destinationResource) == "old resource");
        }
        bool isNew() const {
            return kit::readFile(destination) == "new" &&
                   kit::readFile(destinationStore) == stream::bytes({{"comment", "new"}}) &&
                   !kit::exists(destinationResource);
        }
        const bool doubles = GetParam() == Keeps::doubles;
        kit::ScratchDirectory scratch;
        const std::string source = scratch / "from/file", sourceStore = storeOf("from", "file"),
                          destination = scratch / "to/file", destinationStore = storeOf("to", "file"),
                          destinationResource = scratch / "to/@eaDir/file@VexoResource";
    };
    // Another file goes into the same directory.
    static void comesNext(const Scene &scene) {
        kit::writeFile(scene.scratch / "other", "o");
        EXPECT_TRUE(replace(scene.scratch / "other", scene.scratch / "to/other"));
    }
    static std::vector<faults::SystemCall> callsOf() {
        const Scene scene;
        const auto calls = watched({}, [&] { return replace(scene.source, scene.destination) ? 0 : 1; }).calls;
        EXPECT_TRUE(scene.isNew());
        return calls;
    }
};

INSTANTIATE_TEST_SUITE_P(Stores, ReplacementSweep, ::testing::Values(Keeps::streams, Keeps::doubles),
                         [](const auto &each) { return each.param == Keeps::streams ? "Streams" : "Doubles"; });

TEST_P(ReplacementSweep, KilledAnywhereItIsTheOldFileOrTheNewOneOnceSomebodyComesNext) {
    KIT_NOT_SANITIZED();
    const auto calls = callsOf();
    ASSERT_LT(50u, calls.size());
    int finished = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        const Scene scene;
        if (!killed(at, calls, [&] { (void)replace(scene.source, scene.destination); })) {
            break;
        }
        const std::string content = kit::readFile(scene.destination);
        EXPECT_TRUE(content == "old" ? scene.isOld() : content == "new") << at;
        comesNext(scene);
        EXPECT_TRUE(content == "old" ? scene.isOld() : scene.isNew()) << at;
        const std::string kept = scene.doubles ? "._file" : "@eaDir";
        EXPECT_EQ((std::vector<std::string>{kept, "file", "other"}), kit::namesIn(scene.scratch / "to")) << at;
        if (!scene.doubles) {
            for (const std::string &name : kit::namesIn(scene.scratch / "to/@eaDir")) {
                EXPECT_FALSE(name.starts_with(".vexofileop-")) << at << ": " << name;
            }
        }
        finished += content == "new" ? 1 : 0;
        EXPECT_TRUE(replace(scene.source, scene.destination)) << at;
        EXPECT_TRUE(scene.isNew()) << at;
    }
    EXPECT_LT(3, finished);
}

TEST_P(ReplacementSweep, RefusedAnywhereNothingIsLostUnderASuccess) {
    KIT_NOT_SANITIZED();
    const auto calls = callsOf();
    int refused = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        for (const int error : faults::plausibleErrors(calls[at])) {
            const Scene scene;
            const faults::Outcome outcome = watched(faults::planAt(faults::Plan::Action::fail, calls, at, error),
                                                    [&] { return replace(scene.source, scene.destination) ? 0 : 1; });
            refused += outcome.reached ? 1 : 0;
            const std::string where =
                faults::nameOf(calls[at]) + " " + calls[at].path + ", error " + std::to_string(error);
            if (error == ENOENT) { // of something that is there: nobody can guard against a file system that says so
                EXPECT_FALSE(kit::readFile(scene.destination).empty()) << where;
            } else if (outcome.status == 0) {
                EXPECT_TRUE(scene.isNew()) << where;
            } else if (kit::readFile(scene.destination) == "old") {
                EXPECT_TRUE(scene.isOld()) << where;
            } else {
                EXPECT_EQ("new", kit::readFile(scene.destination)) << where;
            }
        }
    }
    EXPECT_LT(50, refused);
}

// What -n passes over afterwards is whole: what was half done has not got the name.
TEST_P(ReplacementSweep, KilledAnywhereTheNextOneThatReplacesNothingFinishesIt) {
    KIT_NOT_SANITIZED();
    const auto fresh_in = [](const Scene &scene) { return scene.scratch / "to/fresh"; };
    const Scene whole;
    // Fewer than where something is replaced.
    const auto calls = watched({}, [&] { return replace(whole.source, fresh_in(whole)) ? 0 : 1; }).calls;
    ASSERT_LT(50U, calls.size());
    for (size_t at = 0; at < calls.size(); at += 5) {
        const Scene scene;
        const std::string fresh = fresh_in(scene);
        (void)killed(at, calls, [&] { (void)replace(scene.source, fresh); });
        (void)sweep::carry({.conflict = Conflict::skip}, scene.source, fresh);
        EXPECT_EQ("new", kit::readFile(fresh)) << at;
        EXPECT_EQ(stream::bytes({{"comment", "new"}}), kit::readFile(scene.storeOf("to", "fresh"))) << at;
    }
}

// Whoever looks before he renames may see what was not there yet. Each call in turn says so.
TEST_P(ReplacementSweep, LookThatSawNothingReplacesNothing) {
    const auto supervised = [](const Scene &scene, Operation operation, const faults::Plan &plan) {
        return watched(plan, [&] {
            (void)sweep::carry({.operation = operation}, scene.source, scene.destination);
            return 0;
        });
    };
    for (const Operation operation : {Operation::copy, Operation::move}) {
        const auto calls = supervised(Scene(), operation, {}).calls;
        ASSERT_LT(5u, calls.size());
        // A look that fails lets it go on for as long as it would without anything there.
        for (size_t at = 0; at < calls.size(); ++at) {
            for (const int error : {ENOENT, EINVAL}) {
                const Scene scene;
                (void)supervised(scene, operation, faults::planAt(faults::Plan::Action::fail, calls, at, error));
                EXPECT_TRUE(scene.isOld()) << at << ", error " << error;
                EXPECT_EQ("new", kit::readFile(scene.source)) << at << ", error " << error;
            }
        }
    }
}

} // namespace
