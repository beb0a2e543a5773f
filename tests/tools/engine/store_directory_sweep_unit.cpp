// Copies and moves that make an "@eaDir", killed before their system calls: whoever owns the files beside it gets at
// what is kept for them, whatever the umask.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/sweep.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

using engine::Operation;

class StoreDirectorySweep : public sweep::Sweep<::testing::TestWithParam<Operation>> {};
INSTANTIATE_TEST_SUITE_P(Operations, StoreDirectorySweep, ::testing::Values(Operation::copy, Operation::move),
                         [](const auto &each) { return each.param == Operation::copy ? "Copy" : "Move"; });

// Below a private name nobody looks for it.
std::string closed_below(const std::string &path) {
    std::string closed;
    for (const std::string &name : kit::namesIn(path)) {
        const std::string entry = path + "/" + name;
        const mode_t mode = kit::statOf(entry).st_mode;
        if (!S_ISDIR(mode) || name.starts_with(".vexofileop")) {
            continue;
        }
        closed += name == "@eaDir" && (mode & 0777) != 0777 ? entry + "; " : closed_below(entry);
    }
    return closed;
}

struct StoreDirectoryScene {
    StoreDirectoryScene() {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=1").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
        for (const char *directory : {"/tree", "/tree/@eaDir", "/tree/sub", "/tree/sub/@eaDir", "/to"}) {
            EXPECT_EQ(0, ::mkdir((scratch.path() + directory).c_str(), 0777));
            EXPECT_EQ(0, ::chmod((scratch.path() + directory).c_str(), 0777));
        }
        for (const char *directory : {"/tree/", "/tree/sub/"}) {
            kit::writeFile(scratch.path() + directory + "file", "data");
            kit::writeFile(scratch.path() + directory + "@eaDir/file@VexoEAStream",
                           stream::bytes({{"user.note", "value"}}));
        }
        kit::writeFile(scratch / "tree/@eaDir/sub@VexoEAStream", stream::bytes({{"user.note", "value"}}));
    }
    ~StoreDirectoryScene() { ::unsetenv("VEXOFILEOP_FSTYPES"); } // NOLINT(concurrency-mt-unsafe)
    void carry(Operation operation) const {
        const mode_t mask = ::umask(077);
        const engine::TransferOptions options{
            .operation = operation, .conflict = engine::Conflict::replace, .links = true, .trees = true};
        sweep::carry(options, scratch / "tree/file", scratch / "to/file");
        sweep::carry(options, scratch / "tree/sub", scratch / "to/sub");
        (void)::umask(mask);
    }
    kit::ScratchDirectory scratch;
};

TEST_P(StoreDirectorySweep, KilledAnywhereEachIsOpenToAll) {
    const StoreDirectoryScene whole;
    const auto calls = watched({}, [&] {
                           whole.carry(GetParam());
                           return 0;
                       }).calls;
    ASSERT_EQ("", closed_below(whole.scratch.path()));
    ASSERT_TRUE(kit::exists(whole.scratch / "to/@eaDir/file@VexoEAStream"));
    size_t runs = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        if (sweep::only_looks(calls[at])) {
            continue;
        }
        const StoreDirectoryScene scene;
        if (!killed(at, calls, [&] { scene.carry(GetParam()); })) {
            continue;
        }
        ++runs;
        EXPECT_EQ("", closed_below(scene.scratch.path())) << at << " " << faults::nameOf(calls[at]) << calls[at].path;
    }
    EXPECT_LT(20U, runs);
}

} // namespace
