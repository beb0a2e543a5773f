// An entry that the user has named stays the one that it was, whoever exchanges a directory on the way or the entry
// itself.
#include "tools/engine/walk/held_entry.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using engine::HeldEntry;
using engine::Store;

class HeldEntries : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        for (const char *name : {"tree", "elsewhere"}) {
            ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
            kit::writeFile(scratch / name + "/file", "data");
        }
    }
    void TearDown() override { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    void setKind(int code) const {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=" + std::to_string(code)).c_str(), 1);
    }
    void exchange(const std::string &name) const {
        ASSERT_EQ(0, ::rename((scratch / "tree" + name).c_str(), (scratch / "aside").c_str()));
        ASSERT_EQ(0, ::symlink((scratch / "elsewhere" + name).c_str(), (scratch / "tree" + name).c_str()));
    }
    kit::ScratchDirectory scratch;
};

TEST_F(HeldEntries, DirectoryThatIsExchangedLeadsNowhere) {
    for (const int kind : {0, 2, 7}) {
        setKind(kind);
        const HeldEntry entry(scratch / "tree/file");
        const auto elsewhere = kit::Fingerprint::of(scratch / "elsewhere");
        exchange("");
        const Store store(entry);
        store.set("user.note", "1", Store::Existing::must_not);
        EXPECT_EQ("1", store.get("user.note")) << kind;
        EXPECT_EQ("", elsewhere.differenceTo(kit::Fingerprint::of(scratch / "elsewhere"), {"accessed"})) << kind;
        ASSERT_EQ(0, ::unlink((scratch / "tree").c_str()));
        ASSERT_EQ(0, ::rename((scratch / "aside").c_str(), (scratch / "tree").c_str()));
        EXPECT_EQ("1", Store(scratch / "tree/file").get("user.note")) << kind;
        store.remove("user.note");
    }
}

TEST_F(HeldEntries, FileThatIsExchangedIsNotTheOneThatIsChanged) {
    setKind(7);
    const HeldEntry entry(scratch / "tree/file");
    exchange("/file");
    Store(entry).set("user.note", "1", Store::Existing::must_not);
    EXPECT_EQ("", kit::attribute(scratch / "elsewhere/file", "user.note"));
    EXPECT_EQ("1", kit::attribute(scratch / "aside", "user.note"));
    EXPECT_THROW(entry.check_still(), engine::Failure);
}

TEST_F(HeldEntries, LinkIsNoEntryButAName) {
    ASSERT_EQ(0, ::symlink("file", (scratch / "tree/link").c_str()));
    const std::string link = scratch / "tree/link", none = scratch / "tree/none";
    EXPECT_THROW(HeldEntry{link}, engine::Failure);
    EXPECT_THROW(HeldEntry(link, HeldEntry::Needs::entry_or_nothing), engine::Failure);
    EXPECT_TRUE(HeldEntry(link, HeldEntry::Needs::name).is_there());
    EXPECT_THROW(HeldEntry{none}, engine::Failure);
    EXPECT_FALSE(HeldEntry(none, HeldEntry::Needs::entry_or_nothing).is_there());
    const HeldEntry file(scratch / "tree/file");
    EXPECT_EQ(scratch / "tree/@eaDir/file@VexoEAStream",
              file.shown(engine::stream_path(file.path(), engine::StoreKind::ea_directory, "VexoEAStream")));
    file.check_still();
}

template <typename Task>
std::pair<uint32_t, int> reason_of_failure(const Task &task) {
    try {
        task();
    } catch (const engine::Failure &failure) {
        return {failure.code(), failure.number()};
    }
    return {};
}

// Programs decide by them, and people read the words.
TEST_F(HeldEntries, FailureHasTheCodeOrTheNumberOfItsReason) {
    ASSERT_EQ(0, ::symlink("file", (scratch / "tree/link").c_str()));
    EXPECT_EQ(std::pair(0U, ELOOP), reason_of_failure([&] { HeldEntry{scratch / "tree/link"}; }));
    EXPECT_EQ(std::pair(0U, ENOENT), reason_of_failure([&] { HeldEntry{scratch / "tree/none"}; }));
    for (const int kind : {0, 2}) {
        setKind(kind);
        const Store store(scratch / "tree/file");
        EXPECT_EQ(0x2000U, reason_of_failure([&] { (void)store.get("none"); }).first) << kind;
        EXPECT_EQ(0x2000U, reason_of_failure([&] { store.remove("none"); }).first) << kind;
        store.set("there", "1", Store::Existing::either);
        EXPECT_EQ(EEXIST, reason_of_failure([&] { store.set("there", "2", Store::Existing::must_not); }).second);
        store.remove("there");
    }
}

} // namespace
