// A conversion of stores with each of its system calls killed or refused, or met by the owner of the tree: at every
// moment the old form or the new one is whole, and the same command again ends like one that nothing disturbed.
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/convert_scene.h"
#include "tests/tools/engine/sweep.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/store/store_contents.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace convert_scene;
using store_scene::Names;

struct Way {
    StoreKind from, to;
};
// Each to each.
constexpr Way kWays[] = {{StoreKind::apple_double, StoreKind::ea_directory},
                         {StoreKind::apple_double, StoreKind::file_ea},
                         {StoreKind::file_ea, StoreKind::apple_double},
                         {StoreKind::file_ea, StoreKind::ea_directory},
                         {StoreKind::ea_directory, StoreKind::file_ea},
                         {StoreKind::ea_directory, StoreKind::native},
                         {StoreKind::native, StoreKind::ea_directory},
                         {StoreKind::ea_directory, StoreKind::apple_double},
                         {StoreKind::apple_double, StoreKind::native},
                         {StoreKind::native, StoreKind::apple_double},
                         {StoreKind::file_ea, StoreKind::native},
                         {StoreKind::native, StoreKind::file_ea}};

std::string text_of(const Way &way) {
    return std::string(engine::form_name(way.from)) + " to " + engine::form_name(way.to);
}

// A file and a directory with all that a store can have.
struct SweepScene : ConvertScene {
    explicit SweepScene(const Way &which) : ConvertScene(which.from), way(which) {
        file("file");
        EXPECT_EQ(0, ::chmod((*this / "file").c_str(), 0755)); // so that the library needs no right to ask for a fork
        EXPECT_EQ(0, ::mkdir((*this / "below").c_str(), 0755));
        for (const char *const name : kEntries) {
            store_of(way.from, name, fork());
        }
        if (way.from == StoreKind::file_ea && way.to == StoreKind::ea_directory) { // which is to be given it
            kit::writeFile(resource("file"), store_scene::resource_bytes(fork(), ""));
        }
    }
    // A stock kernel shows none as a file.
    std::string fork() const { return way.to == StoreKind::native || way.from == StoreKind::native ? "" : "a fork"; }

    // Whether everything of it is in the old form or in the new one, whatever the volume is said to be.
    std::string wrong() const {
        std::string text;
        for (const char *const name : kEntries) {
            if (!is_kept(way.from, name) && !is_kept(way.to, name)) {
                text += std::string(name) + " is whole in neither form; ";
            }
        }
        return text + (kit::readFile(*this / "file") == "data" ? "" : "the file has changed; ");
    }
    std::string unfinished() const {
        std::string text;
        for (const char *const name : kEntries) {
            if (!is_kept(way.to, name)) {
                text += std::string(name) + " is not whole in the new form; ";
            }
        }
        const bool directory = way.to != StoreKind::apple_double && way.to != StoreKind::native;
        Names wanted = {"below", "file"};
        if (directory) {
            wanted.insert(wanted.begin(), "@eaDir");
        } else if (way.to == StoreKind::apple_double) {
            wanted.insert(wanted.begin(), {"._below", "._file"});
        }
        if (kit::namesIn(root()) != wanted || (directory && kit::namesIn(*this / "@eaDir").size() != 4)) {
            text += "something is left over or missing; ";
        }
        const bool attribute = has(StoreKind::file_ea, "file") || has(StoreKind::file_ea, "below");
        const bool stamped = !kit::attribute(*this / "file", "user.vexo.filea.flushtime").empty();
        if (attribute != (way.to == StoreKind::file_ea) || stamped != attribute) {
            text += "the metadata attribute is there, or is not; ";
        }
        return text + (kit::statOf(*this / "file").st_mode == (S_IFREG | 0755) ? "" : "the mode has changed; ");
    }

    static constexpr const char *kEntries[] = {"file", "below"};
    Way way;

  private:
    bool is_kept(StoreKind kind, const char *name) const {
        try {
            return is_whole(kind, name, fork());
        } catch (const engine::Failure &) {
            return false;
        }
    }
};

class StoreConvertSweep : public sweep::Sweep<::testing::Test> {
  protected:
    static int run(const SweepScene &scene) {
        try {
            const Converted told = scene.convert(scene.way.to);
            return told.left() > 0 ? 4 : told.converted() == 2 ? 0 : 1;
        } catch (const engine::Failure &) {
            return 8;
        }
    }
    static faults::Outcome supervised(const SweepScene &scene, const faults::Plan &plan) {
        scene.be(scene.way.from);
        return watched(plan, [&] { return run(scene); });
    }
    static void check(const SweepScene &scene, const faults::Outcome &outcome, const std::string &point) {
        ASSERT_FALSE(outcome.hung) << point;
        EXPECT_EQ("", scene.wrong()) << point;
        if (WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0) {
            EXPECT_EQ("", scene.unfinished()) << "status 0, after " << point;
        }
        scene.be(scene.way.from);
        const Converted again = scene.convert(scene.way.to);
        EXPECT_EQ(0, again.left()) << "again, after " << point << ": " << again.reasons();
        EXPECT_EQ("", scene.unfinished()) << "again, after " << point;
    }
    static std::string point_of(const Way &way, const faults::SystemCall &call, size_t at) {
        return text_of(way) + ", call " + std::to_string(at) + ", " + faults::nameOf(call) + " " + call.path;
    }
    static size_t step(size_t calls, size_t points) {
        return std::getenv("VEXO_FULL") != nullptr ? 1 : std::max<size_t>(1, calls / points);
    }
    static std::vector<faults::SystemCall> calls_of(const Way &way) {
        const SweepScene scene(way);
        const faults::Outcome outcome = supervised(scene, {});
        EXPECT_EQ(0, outcome.status) << text_of(way);
        EXPECT_EQ("", scene.unfinished()) << text_of(way);
        EXPECT_LT(100U, outcome.calls.size()) << text_of(way);
        return outcome.calls;
    }
};

TEST_F(StoreConvertSweep, KilledAnywhereOneFormIsWholeAndTheNextRunFinishes) {
    KIT_NOT_SANITIZED();
    for (const Way &way : kWays) {
        const auto calls = calls_of(way);
        // A kill before a call that only looks is one before the next that does something.
        std::vector<size_t> points;
        for (size_t at = 0; at < calls.size(); ++at) {
            if (!sweep::only_looks(calls[at])) {
                points.push_back(at);
            }
        }
        for (size_t at = 0; at < points.size(); at += step(points.size(), 24)) {
            const SweepScene scene(way);
            const size_t call = points[at];
            check(scene, supervised(scene, {faults::Plan::Action::kill, call, 0, calls[call].number}),
                  "a kill before " + point_of(way, calls[call], call));
        }
    }
}

TEST_F(StoreConvertSweep, WhicheverCallFailsOneFormIsWholeAndTheNextRunFinishes) {
    KIT_NOT_SANITIZED();
    for (const Way &way : kWays) {
        const auto calls = calls_of(way);
        for (size_t at = 0; at < calls.size(); at += step(calls.size(), 18)) {
            if (faults::nameOf(calls[at]) == "readlink" && calls[at].path.starts_with("/proc/self/fd/")) {
                continue; // by which the double of a native volume knows its files
            }
            for (const int error : faults::plausibleErrors(calls[at])) {
                const SweepScene scene(way);
                check(scene, supervised(scene, {faults::Plan::Action::fail, at, error, calls[at].number}),
                      point_of(way, calls[at], at) + " with " + std::strerror(error));
            }
        }
    }
}

// What was written is read back as it lies there: a byte that is another one by then keeps the old form.
TEST_F(StoreConvertSweep, NewFormThatDoesNotReadTheSameGoesAgain) {
    KIT_NOT_SANITIZED();
    for (const Way &way : {kWays[0], kWays[1], kWays[2]}) {
        const auto calls = calls_of(way);
        int placed = 0;
        for (size_t at = 0; at < calls.size(); ++at) {
            if (faults::nameOf(calls[at]) != "renameat2") {
                continue;
            }
            ++placed;
            const SweepScene scene(way);
            faults::Plan plan{faults::Plan::Action::meet, at};
            plan.meeting = [&] {
                for (const std::string &directory : {scene.root(), scene / "@eaDir"}) {
                    for (const std::string &name : kit::exists(directory) ? kit::namesIn(directory) : Names()) {
                        if (name.starts_with(".vexofileop-ea-")) {
                            std::string bytes = kit::readFile(directory + "/" + name);
                            bytes.back() = static_cast<char>(bytes.back() ^ 1);
                            kit::writeFile(directory + "/" + name, bytes);
                        }
                    }
                }
            };
            const faults::Outcome outcome = supervised(scene, plan);
            const std::string point = point_of(way, calls[at], at);
            ASSERT_TRUE(WIFEXITED(outcome.status)) << point;
            EXPECT_EQ(4, WEXITSTATUS(outcome.status)) << point;
            check(scene, outcome, point);
        }
        EXPECT_LT(1, placed) << text_of(way);
    }
}

// Somebody who owns the tree, at each call: a link or a pipe in the place of a directory, of "@eaDir", of a store file
// or of the file.
TEST_F(StoreConvertSweep, WhateverItsOwnerPutsInPlaceLeadsNowhere) {
    KIT_NOT_SANITIZED();
    struct Exchange {
        const char *name;
        bool pipe;
    };
    constexpr Exchange kExchanges[] = {{"d", false},
                                       {"d/@eaDir", false},
                                       {"d/@eaDir/file@VexoEAStream", false},
                                       {"d/@eaDir/file@VexoResource", true},
                                       {"d/._file", false},
                                       {"d/file", true},
                                       {"d/file", false}};
    for (const Way &way : {kWays[1], kWays[2], kWays[3], kWays[5]}) {
        const size_t calls = calls_of(way).size();
        for (const Exchange &exchange : kExchanges) {
            for (size_t at = 0; at < calls; at += step(calls, 12)) {
                const SweepScene scene(way);
                const std::string elsewhere = scene.scratch / "elsewhere", place = scene.scratch / exchange.name;
                ASSERT_EQ(0, ::mkdir(elsewhere.c_str(), 0755));
                ASSERT_EQ(0, ::mkdir((elsewhere + "/@eaDir").c_str(), 0777));
                kit::writeFile(elsewhere + "/file", "data of somebody else");
                kit::writeFile(elsewhere + "/._file", stream::bytes({{"user.note", "theirs"}}));
                kit::writeFile(elsewhere + "/@eaDir/file@VexoEAStream", stream::bytes({{"user.note", "theirs"}}));
                kit::writeFile(elsewhere + "/@eaDir/file@VexoResource", store_scene::resource_bytes("theirs"));
                kit::setAttribute(elsewhere + "/file", engine::kMetadataName, ConvertScene::metadata());
                const auto before = kit::Fingerprint::of(elsewhere);
                faults::Plan plan{faults::Plan::Action::meet, at};
                plan.meeting = [&] {
                    (void)::rename(place.c_str(), (scene.scratch / "aside").c_str());
                    const std::string below = std::string(exchange.name).substr(1);
                    (void)(exchange.pipe ? ::mkfifo(place.c_str(), 0666)
                                         : ::symlink((elsewhere + below).c_str(), place.c_str()));
                };
                const faults::Outcome outcome = supervised(scene, plan);
                const std::string point = text_of(way) + ", " + exchange.name + " before call " + std::to_string(at);
                EXPECT_FALSE(outcome.hung) << point;
                EXPECT_TRUE(WIFEXITED(outcome.status)) << point;
                EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(elsewhere), {"accessed"})) << point;
            }
        }
    }
}

// What cannot be converted, since the volume has no room for the new form: whoever is killed on the way there, or back,
// leaves nothing that the next one, which cannot convert it either, does not take away.
struct Refused {
    StoreKind from, to;
    const char *volume;
};

class RefusedConversion : public sweep::Sweep<::testing::TestWithParam<Refused>> {
  protected:
    // ext4 has room for so much beside a file, and no more.
    void fill(const std::string &volume) const {
        kit::writeFile(volume + "/file", "data");
        EXPECT_EQ(0, ::chmod((volume + "/file").c_str(), 0755)); // so that the library needs no right to ask for a fork
        if (GetParam().from == StoreKind::apple_double) {
            kit::writeFile(volume + "/._file", stream::bytes({{"user.a", kit::pattern(60'000)}}, 70'000, "TEXTttxt") +
                                                   kit::pattern(70'000));
        } else {
            kit::setAttribute(volume + "/file", "user.own", kit::pattern(400));
            ASSERT_EQ(0, ::mkdir((volume + "/@eaDir").c_str(), 0777));
            kit::writeFile(
                volume + "/@eaDir/file@VexoEAStream",
                stream::bytes({{"user.a", "small"}, {"user.b", kit::pattern(500)}, {"user.c", kit::pattern(300)}}));
        }
    }
    Converted convert(const std::string &volume) const {
        Converted told;
        engine::convert_stores(engine::HeldEntry(volume), {.to = GetParam().to}, told, told.totals);
        return told;
    }
};
INSTANTIATE_TEST_SUITE_P(Ways, RefusedConversion,
                         ::testing::Values(Refused{StoreKind::apple_double, StoreKind::ea_directory, "tmpfs"},
                                           Refused{StoreKind::apple_double, StoreKind::file_ea, "tmpfs"},
                                           Refused{StoreKind::ea_directory, StoreKind::native, "ext4"}),
                         [](const auto &each) {
                             return std::string(engine::form_name(each.param.from)) + "_" +
                                    engine::form_name(each.param.to);
                         });

TEST_P(RefusedConversion, KilledAnywhereTheNextOneLeavesEverythingAsItWas) {
    KIT_NOT_SANITIZED();
    const bool ext4 = GetParam().volume == std::string("ext4");
    KIT_REQUIRE(volume, ext4 ? kit::Volume::loop("ext4", uint64_t{16} << 20) : kit::Volume::tmpfs(256 << 10));
    const std::string types = volume.path() + "=" + std::to_string(type_of(GetParam().from));
    ::setenv("VEXOFILEOP_FSTYPES", types.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    fill(volume.path());
    const auto before = kit::Fingerprint::of(volume.path());
    const auto run = [&] { return convert(volume.path()).left() == 1 ? 0 : 1; };
    const faults::Outcome whole = watched({}, run);
    ASSERT_EQ(0, whole.status);
    ASSERT_EQ("", before.differenceTo(kit::Fingerprint::of(volume.path()), {"accessed"}));
    std::vector<size_t> points;
    for (size_t at = 0; at < whole.calls.size(); ++at) {
        if (!sweep::only_looks(whole.calls[at])) {
            points.push_back(at);
        }
    }
    const bool full = std::getenv("VEXO_FULL") != nullptr; // NOLINT(concurrency-mt-unsafe)
    const size_t every = full ? 1 : std::max<size_t>(1, points.size() / 30);
    size_t met = 0;
    for (size_t index = 0; index < points.size() && !HasFailure(); index += every) {
        const size_t at = points[index];
        const std::string point =
            std::to_string(at) + " " + faults::nameOf(whole.calls[at]) + " " + whole.calls[at].path;
        // One of these runs makes a few calls less than the first.
        (void)watched(faults::planAt(faults::Plan::Action::kill, whole.calls, at), run);
        const std::set<std::string> ignored = {"accessed", "modified"}; // of directories, after a kill
        met += before.differenceTo(kit::Fingerprint::of(volume.path()), ignored).empty() ? 0U : 1U;
        const Converted again = convert(volume.path());
        EXPECT_EQ(1, again.left()) << point;
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(volume.path()), ignored)) << point << "\n"
                                                                                         << again.reasons();
    }
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_LT(5U, met);
}

} // namespace
