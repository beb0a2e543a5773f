// A tree that is copied or moved with -u, as a whole or by the names in it, killed before a system call: the same once
// more finishes it, the end is that of a run that nobody stopped, and what was to be kept of the old files is kept. A
// sample of the calls, with those at which a file and its store are parted; with VEXO_FULL in the environment all.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/sweep.h"
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace engine;

// What is asked for: a tree, or names below it; and where the old files are kept.
struct UpdateWay {
    const char *name;
    Operation operation = Operation::copy;
    bool relative = false, kept = false;
};
void PrintTo(const UpdateWay &way, std::ostream *out) {
    *out << way.name;
}

using Names = std::vector<std::string>;

// Of all kinds, in an order in which directories are come back to.
Names all_kinds() {
    return {"new/one", "in/deep", "file", "new/zz", "pipe", "in/again", "new/two", "link", "new/three"};
}

// Of a move those that have not gone yet.
Names names_at(const std::string &source, Names names = all_kinds()) {
    std::erase_if(names, [&](const std::string &name) { return !kit::exists(source + "/" + name); });
    return names;
}

std::string update(const UpdateWay &way, const std::string &source, const std::string &destination,
                   const std::string &backups = {}, const Names &names = all_kinds()) {
    sweep::Watcher watcher;
    Transfer transfer({.operation = way.operation,
                       .conflict = Conflict::update,
                       .links = true,
                       .specials = true,
                       .trees = true,
                       .countsAlone = true,
                       .backup = {way.kept && !backups.empty(), "", backups}},
                      watcher);
    if (!way.relative) {
        transfer.run(source, destination);
    } else {
        for (const std::string &name : names) {
            const bool gone = !kit::exists(source + "/" + name); // which is told, as of any name that is not there
            const std::string before = watcher.told.text;
            transfer.run_below(source, destination, name, {.trees = true});
            watcher.told.text = gone ? before : watcher.told.text;
        }
    }
    transfer.leave();
    return watcher.told.text;
}

// Nobody gives times to the directory that listed names are below.
class Differences : public ComparisonObserver {
  public:
    explicit Differences(std::string unlisted) : m_unlisted(std::move(unlisted)) {}
    bool stopped() const override { return false; }
    void loss(const std::string &first, const std::string &, const Loss &loss) override {
        const bool time = loss.cls == LossClass::modification_time && S_ISDIR(kit::statOf(first).st_mode);
        const bool unknown = first == m_unlisted && (time || loss.cls == LossClass::creation_time);
        text += unknown ? "" : displayed(first) + ": " + loss.detail + "\n";
    }
    void extra(const std::string &first, EntryKind) override { text += displayed(first) + ": extra\n"; }
    void same(const std::string &, const std::string &) override {}
    void compared(const std::string &, EntryKind, int64_t) override {}
    void progress(int64_t) override {}

    std::string text;

  private:
    std::string m_unlisted;
};

// A tree, one that stands at the destination already, and the same that nobody touches.
struct UpdateScene {
    UpdateScene(const std::string &volume, const UpdateWay &asked)
        : way(asked), destination(volume + "/" + base()), backups(volume + "/" + base() + ".kept") {
        for (const char *name : {"", "/@eaDir", "/in", "/new"}) {
            EXPECT_EQ(0, ::mkdir((source + name).c_str(), 0755));
        }
        for (const char *name : {"", "/@eaDir", "/in"}) {
            EXPECT_EQ(0, ::mkdir((destination + name).c_str(), 0755));
        }
        for (const char *name : {"/file", "/in/deep", "/new/one", "/new/two", "/new/three"}) {
            kit::writeFile(source + name, "content of " + std::string(name));
        }
        for (const std::string &name : {std::string("/in/again"), std::string("/new/zz")}) {
            EXPECT_EQ(0, ::link((source + "/file").c_str(), (source + name).c_str()));
        }
        EXPECT_EQ(0, ::symlink("file", (source + "/link").c_str()));
        EXPECT_EQ(0, ::mkfifo((source + "/pipe").c_str(), 0640));
        kit::writeFile(source + "/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "new"}}));
        kit::writeFile(source + "/@eaDir/new@VexoEAStream", stream::bytes({{"comment", "of a directory"}}));
        kit::writeFile(destination + "/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "old"}}));
        kit::writeFile(destination + "/@eaDir/file@VexoResource", "old resource");
        kit::writeFile(destination + "/file", "old");
        kit::writeFile(destination + "/in/again", "old, too");
        if (way.relative) {
            EXPECT_EQ(0, ::mkdir(reference.c_str(), 0755));
        }
        EXPECT_EQ("", update({"", Operation::copy, way.relative}, source, reference));
    }
    std::string run() const { return update(way, source, destination, backups); }
    std::string base() const { return scratch.path().substr(scratch.path().rfind('/') + 1); }
    std::string difference() const {
        Differences found(way.relative ? reference : "");
        compare_trees(reference, destination, {.data = true}, found);
        const bool linked =
            kit::statOf(destination + "/file").st_ino == kit::statOf(destination + "/in/again").st_ino &&
            kit::statOf(destination + "/file").st_ino == kit::statOf(destination + "/new/zz").st_ino;
        return found.text + (linked ? "" : "names of one file are several\n") + left_in(destination) + lost_of_old();
    }
    // Of what was to be kept.
    std::string lost_of_old() const {
        if (!way.kept) {
            return "";
        }
        const auto has = [&](const std::string &name, const std::string &content) {
            // Of a tree that is named the name lies below the directory of backups, too.
            const std::string path = backups + (way.relative ? "" : "/" + base()) + name;
            return kit::exists(path) && kit::readFile(path) == content ? "" : path + " is not what it was\n";
        };
        return has("/file", "old") + has("/in/again", "old, too") + has("/@eaDir/file@VexoResource", "old resource") +
               has("/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "old"}}));
    }
    static std::string left_in(const std::string &directory) {
        std::string left;
        for (const std::string &name : kit::namesIn(directory)) {
            const std::string path = directory + "/" + name;
            left += name.starts_with(".vexofileop-") ? path + " is left\n" : "";
            left += S_ISDIR(kit::statOf(path).st_mode) ? left_in(path) : "";
        }
        return left;
    }

    kit::ScratchDirectory scratch;
    const std::string source = scratch / "source", reference = scratch / "reference";
    const UpdateWay way;
    const std::string destination, backups;
};

bool has_note(const std::string &directory) {
    return std::ranges::any_of(kit::namesIn(directory), is_private_name);
}

class UpdateSweep : public sweep::Sweep<::testing::TestWithParam<UpdateWay>> {};
INSTANTIATE_TEST_SUITE_P(Ways, UpdateSweep,
                         ::testing::Values(UpdateWay{"Copy"}, UpdateWay{"Move", Operation::move},
                                           UpdateWay{"NamesCopied", Operation::copy, true},
                                           UpdateWay{"NamesMoved", Operation::move, true},
                                           UpdateWay{"CopyThatKeeps", Operation::copy, false, true},
                                           UpdateWay{"MoveThatKeeps", Operation::move, false, true},
                                           UpdateWay{"NamesCopiedThatKeep", Operation::copy, true, true}),
                         [](const auto &each) { return std::string(each.param.name); });

// A sample, and whatever follows a step that removes or renames something: there a file and what is kept for it are
// parted.
std::vector<size_t> points_of(const std::vector<faults::SystemCall> &calls) {
    constexpr size_t sample = 40;
    const bool full = std::getenv("VEXO_FULL") != nullptr; // NOLINT(concurrency-mt-unsafe)
    const size_t step = full ? 1 : std::max<size_t>(1, calls.size() / sample);
    std::vector<size_t> points;
    for (size_t at = 1; at < calls.size(); ++at) {
        const int before = calls[at - 1].number;
        const bool parts =
            before == SYS_unlink || before == SYS_unlinkat || before == SYS_rmdir || before == SYS_renameat;
        if (at % step == 1 % step || parts) {
            points.push_back(at);
        }
    }
    return points;
}

TEST_P(UpdateSweep, KilledAnywhereTheSameOnceMoreFinishesIt) {
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const UpdateScene whole(volume.path(), GetParam());
    const auto calls = watched({}, [&] { return whole.run().empty() ? 0 : 1; }).calls;
    ASSERT_LT(200U, calls.size());
    ASSERT_EQ("", whole.difference());
    const bool move = GetParam().operation == Operation::move;
    for (const size_t at : points_of(calls)) {
        const UpdateScene scene(volume.path(), GetParam());
        if (!killed(at, calls, [&] { (void)scene.run(); })) {
            break;
        }
        const std::string told = kit::exists(scene.source) ? scene.run() : "";
        EXPECT_EQ("", told) << at;
        EXPECT_EQ("", scene.difference()) << at;
        EXPECT_TRUE(!move || names_at(scene.source).empty()) << at;
        EXPECT_EQ(!move || GetParam().relative, kit::exists(scene.source)) << at;
        // Where the tree goes, and not in it: of what was all over whoever comes next removes it.
        if (has_note(volume.path())) {
            EXPECT_FALSE(kit::exists(scene.source + "/new")) << at;
            kit::writeFile(scene.scratch / "next", "");
            EXPECT_EQ("", update({"", Operation::move}, scene.scratch / "next", scene.destination + ".next"));
        }
        EXPECT_FALSE(has_note(volume.path())) << at;
        if (HasFailure()) {
            break;
        }
    }
}

// What a directory has for itself in "@eaDir" is put aside while the store of another one comes: wherever that ends,
// the same once more brings it back, and leaves nothing.
TEST_P(UpdateSweep, KilledAnywhereAMergedDirectoryKeepsWhatOnlyItHas) {
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    struct Merged {
        explicit Merged(const std::string &destination) : to(destination) {
            for (const std::string &top : {from, to}) {
                for (const char *name : {"", "/@eaDir", "/in", "/@eaDir/in"}) {
                    EXPECT_EQ(0, ::mkdir((top + name).c_str(), 0755));
                }
            }
            kit::writeFile(from + "/@eaDir/in/index", "new");
            kit::writeFile(from + "/@eaDir/in@VexoEAStream", stream::bytes({{"comment", "new"}}));
            kit::writeFile(to + "/@eaDir/in/index", "old");
            kit::writeFile(to + "/@eaDir/in/own", "own");
        }
        void run() const { (void)update(GetParam(), from, to, to + ".kept", {"in"}); }
        std::string difference() const {
            const std::string own = to + "/@eaDir/in/own", index = to + "/@eaDir/in/index";
            return std::string(kit::exists(own) && kit::readFile(own) == "own" ? "" : "its own is gone\n") +
                   (kit::exists(index) && kit::readFile(index) == "new" ? "" : "the new one is not there\n") +
                   UpdateScene::left_in(to);
        }
        kit::ScratchDirectory scratch;
        const std::string from = scratch / "from", to;
    };
    const auto supervised = [](const Merged &scene, const faults::Plan &plan) {
        return faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            scene.run();
            window.close();
        });
    };
    Merged(volume / "first").run(); // what a process learns once the killed ones know from this one
    const Merged whole(volume / "whole");
    const auto calls = supervised(whole, {}).calls;
    ASSERT_EQ("", whole.difference());
    int aside = 0;
    // A few calls depend on what else has run: that something is aside is met well within the time that it is.
    const auto is_aside = [](const auto &call) { return call.path.find(".vexofileop-kept-") != std::string::npos; };
    const auto asked = std::ranges::find_if(calls, is_aside) - calls.begin();
    const auto back = calls.rend() - std::find_if(calls.rbegin(), calls.rend(), is_aside);
    const auto middle = static_cast<size_t>(asked + back) / 2;
    for (size_t at = 1; at < calls.size(); ++at) {
        if (at != middle && calls[at - 1].path.find(".vexofileop-") == std::string::npos &&
            calls[at].path.find(".vexofileop-") == std::string::npos) {
            continue;
        }
        const Merged scene(volume / std::to_string(at));
        if (!supervised(scene, faults::planAt(faults::Plan::Action::kill, calls, at)).reached) {
            break;
        }
        aside += UpdateScene::left_in(scene.to).find(".vexofileop-kept-") == std::string::npos ? 0 : 1;
        if (kit::exists(scene.from)) {
            scene.run();
        }
        EXPECT_EQ("", scene.difference()) << at;
    }
    EXPECT_LT(0, aside);
}

// The "._" file of a directory that is there already: half of one could not be read any more, nor brought to its end.
TEST_P(UpdateSweep, KilledAnywhereADirectoryHasItsDoubleWhole) {
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const auto run = [](const std::string &from, const std::string &to) {
        (void)update(GetParam(), from, to, to + ".kept", {"in"});
    };
    const auto make = [](const std::string &from, const std::string &to) {
        for (const std::string &directory : {from, from + "/@eaDir", from + "/in", to, to + "/in"}) {
            EXPECT_EQ(0, ::mkdir(directory.c_str(), 0755));
        }
        kit::writeFile(from + "/@eaDir/in@VexoEAStream", stream::bytes({{"comment", "new"}}));
        kit::writeFile(to + "/._in", stream::bytes({{"own", "of the destination"}}));
    };
    const auto is_whole = [](const std::string &to) {
        const std::string double_ = kit::readFile(to + "/._in");
        return double_.find("of the destination") != std::string::npos && double_.find("comment") != std::string::npos;
    };
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=5").c_str(), 1);
    const size_t step = std::getenv("VEXO_FULL") != nullptr ? 1 : 3; // NOLINT(concurrency-mt-unsafe)
    size_t calls = 1;
    for (size_t at = 0; at < calls; at += step) {
        const kit::ScratchDirectory scratch;
        const std::string from = scratch / "from", to = volume / std::to_string(at);
        make(from, to);
        const faults::Plan plan{.action = faults::Plan::Action::kill, .at = at};
        const faults::Outcome outcome = faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            run(from, to);
            window.close();
        });
        calls = outcome.reached ? at + step + 1 : calls;
        if (kit::exists(from)) {
            run(from, to);
        }
        EXPECT_TRUE(is_whole(to)) << at;
        EXPECT_EQ("", UpdateScene::left_in(to)) << at;
        if (HasFailure()) {
            break;
        }
    }
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_LT(50U, calls);
}

} // namespace
