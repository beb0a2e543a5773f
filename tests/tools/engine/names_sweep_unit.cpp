// Names that a FAT volume changes, copied or moved with their list and killed before a system call: the same once more
// finishes it under the same names, and everything comes back. With VEXO_FULL in the environment before each call.
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/sweep.h"
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/naming/name_list.h"
#include "tools/engine/report/names.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace engine;

struct NamesOnTheirWay {
    const char *name;
    Operation operation;
    bool back; // from the volume, else to it
};
void PrintTo(const NamesOnTheirWay &way, std::ostream *out) {
    *out << way.name;
}

// Of names and contents; the times of a directory are told of a stopped move by others.
class NameDifferences : public ComparisonObserver {
  public:
    bool stopped() const override { return false; }
    void loss(const std::string &first, const std::string &second, const Loss &loss) override {
        const bool name = loss.cls == LossClass::data || loss.cls == LossClass::name_changed ||
                          loss.cls == LossClass::name_clash || loss.cls == LossClass::not_carried;
        text += name ? displayed(first) + " and " + displayed(second) + ": " + loss.detail + "\n" : "";
    }
    void extra(const std::string &second, EntryKind) override { text += displayed(second) + ": extra\n"; }
    void left_over(const std::string &) override {} // a note that could not be removed: whoever comes next does
    void same(const std::string &, const std::string &) override {}
    void compared(const std::string &, EntryKind, int64_t) override {}
    void progress(int64_t) override {}

    std::string text = {};
};

std::string name_differences(const std::string &first, const std::string &second) {
    NameDifferences found;
    compare_trees(first, second, {.data = true, .reversibleNames = true}, found);
    return found.text;
}

class NamesSweep : public sweep::Sweep<::testing::TestWithParam<NamesOnTheirWay>> {
  protected:
    static void make(const std::string &top) {
        for (const char *const name : {"", "/in?", "/in*"}) {
            EXPECT_EQ(0, ::mkdir((top + name).c_str(), 0755));
        }
        for (const char *const name : {"/a?", "/a*", "/con", "/in?/x", "/in?/X", "/in*/dot."}) {
            kit::writeFile(top + name, name);
            EXPECT_EQ(0, ::chmod((top + name).c_str(), 0666)); // as the volume has it
        }
    }
    static std::string carry(const std::string &from, const std::string &to, Operation operation) {
        const TransferOptions options{.operation = operation,
                                      .conflict = Conflict::update,
                                      .links = true,
                                      .trees = true,
                                      .reversibleNames = true,
                                      .accepted = *loss_set("fat")};
        return sweep::carry(options, from, to).text;
    }
    struct Scene {
        explicit Scene(const std::string &volume) : stick(volume + "/" + base()) {
            make(whole);
            make(start);
            if (GetParam().back) {
                (void)carry(start, stick, Operation::move);
            }
        }
        std::string run() const {
            const bool back = GetParam().back;
            return carry(back ? stick : start, back ? end : stick, GetParam().operation);
        }
        const std::string &source() const { return GetParam().back ? stick : start; }
        const std::string &destination() const { return GetParam().back ? end : stick; }
        std::string base() const { return scratch.path().substr(scratch.path().rfind('/') + 1); }

        kit::ScratchDirectory scratch;
        const std::string whole = scratch / "whole", start = scratch / "start", end = scratch / "end", stick;
    };
};
INSTANTIATE_TEST_SUITE_P(Ways, NamesSweep,
                         ::testing::Values(NamesOnTheirWay{"CopyThere", Operation::copy, false},
                                           NamesOnTheirWay{"MoveThere", Operation::move, false},
                                           NamesOnTheirWay{"CopyBack", Operation::copy, true},
                                           NamesOnTheirWay{"MoveBack", Operation::move, true}),
                         [](const auto &each) { return std::string(each.param.name); });

// What the names of a directory are on the stick, with those in it.
std::string named_in(const std::string &directory) {
    std::string text;
    for (const std::string &name : kit::namesIn(directory)) {
        text += name.starts_with(".vexofileop-") && name != kNameList ? "" : name + "\n";
        if (S_ISDIR(kit::statOf(directory + "/" + name).st_mode)) {
            text += named_in(directory + "/" + name);
        }
    }
    return text;
}

TEST_P(NamesSweep, KilledAnywhereTheSameOnceMoreFinishesItUnderTheSameNames) {
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=0").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    const Scene undisturbed(volume.path());
    const auto calls = watched({}, [&] { return undisturbed.run().empty() ? 0 : 1; }).calls;
    ASSERT_EQ("", name_differences(undisturbed.whole, undisturbed.destination()));
    const std::string names = named_in(undisturbed.destination());
    EXPECT_EQ(GetParam().back, names.find("a?\n") != std::string::npos) << names;
    EXPECT_EQ(!GetParam().back, names.find("a- (1)\n") != std::string::npos) << names;
    constexpr size_t sample = 40;
    const bool full = std::getenv("VEXO_FULL") != nullptr; // NOLINT(concurrency-mt-unsafe)
    const size_t step = full ? 1 : std::max<size_t>(1, calls.size() / sample);
    for (size_t at = 1; at < calls.size() && !HasFailure(); ++at) {
        const bool list = calls[at].path.find(kNameList) != std::string::npos ||
                          calls[at - 1].path.find(kNameList) != std::string::npos;
        if (at % step != 1 % step && (!list || sweep::only_looks(calls[at]))) {
            continue;
        }
        const Scene scene(volume.path());
        if (!killed(at, calls, [&] { (void)scene.run(); })) {
            break;
        }
        EXPECT_EQ("", kit::exists(scene.source()) ? scene.run() : "") << at;
        EXPECT_EQ("", name_differences(scene.whole, scene.destination())) << at;
        EXPECT_EQ(names, named_in(scene.destination())) << at;
        EXPECT_EQ(GetParam().operation == Operation::copy, kit::exists(scene.source())) << at;
    }
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
}

// A list that cannot be read or written keeps its names from going anywhere, so that the same once more finds nothing
// in its way.
TEST_P(NamesSweep, RefusedAnywhereASuccessHasEveryNameAndTheSameOnceMoreTheRest) {
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=0").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    const Scene undisturbed(volume.path());
    const auto calls = watched({}, [&] { return undisturbed.run().empty() ? 0 : 1; }).calls;
    const std::string names = named_in(undisturbed.destination());
    const size_t rare = std::getenv("VEXO_FULL") != nullptr ? 1 : 12; // NOLINT(concurrency-mt-unsafe)
    int refused = 0;
    for (size_t at = 0; at < calls.size() && !HasFailure(); ++at) {
        const std::string &path = calls[at].path;
        const bool list = path.find(kNameList) != std::string::npos;
        const auto errors = faults::plausibleErrors(calls[at]);
        for (const int error : errors) {
            const bool sampled = at % rare == 0 && error == errors.front();
            if ((!list && !sampled) || error == ENOENT) { // a file system that says so of what is there
                continue;
            }
            const Scene scene(volume.path());
            const faults::Plan plan = faults::planAt(faults::Plan::Action::fail, calls, at, error);
            const faults::Outcome outcome = watched(plan, [&] { return scene.run().empty() ? 0 : 1; });
            refused += outcome.reached ? 1 : 0;
            const std::string where =
                faults::nameOf(calls[at]) + " " + path + ", error " + std::to_string(error) + ", " + std::to_string(at);
            if (outcome.status == 0) {
                EXPECT_EQ("", name_differences(scene.whole, scene.destination())) << where;
            }
            const std::string again = kit::exists(scene.source()) ? scene.run() : "";
            EXPECT_EQ("", again) << where;
            EXPECT_EQ("", name_differences(scene.whole, scene.destination())) << where;
            EXPECT_EQ(names, named_in(scene.destination())) << where;
        }
    }
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_LT(20, refused);
}

} // namespace
