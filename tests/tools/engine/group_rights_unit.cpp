// Copies of entries whose ACL has a mask that gives more than the owning group has: on a volume without ACLs the group
// of the copy has what the source gives it, and never more for a moment.
#include "tests/ea/stream_bytes.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tools/engine/transfer/transfer.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using namespace engine;

class GroupWatcher : public TransferObserver {
  public:
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(EntryKind, const std::string &, const Outcome &) override {}
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }
};

void giveAcl(const std::string &path, const char *text) {
    acl_t acl = ::acl_from_text(text);
    EXPECT_EQ(0, ::acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl)) << path;
    ::acl_free(acl);
}

constexpr char kFileAcl[] = "u::rw-,u:1234:rw-,g::r--,m::rw-,o::---",
               kDirectoryAcl[] = "u::rwx,u:1234:rwx,g::r-x,m::rwx,o::---";

// Entries where anybody gets to whose mode lets the group write, though no ACL says that this is the mask.
void findWide(const std::string &directory, std::string &wide) {
    for (const std::string &name : kit::namesIn(directory)) {
        const std::string path = directory + "/" + name;
        const struct stat found = kit::statOf(path);
        const bool acl = !kit::attribute(path, "system.posix_acl_access").empty();
        if ((found.st_mode & S_IWGRP) != 0 && !acl && name != "@eaDir" && !S_ISLNK(found.st_mode)) {
            wide += path + " ";
        }
        if (S_ISDIR(found.st_mode) && (found.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
            findWide(path, wide);
        }
    }
}

class GroupRights : public ::testing::TestWithParam<std::tuple<std::string, bool, Operation, bool>> {
  protected:
    void SetUp() override {
        KIT_NOT_SANITIZED();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root mounts volumes";
        }
        if (const std::string why = faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
    }
    static void make(const std::string &top) {
        for (const char *directory : {"", "/sub", "/sub/below"}) {
            ASSERT_EQ(0, ::mkdir((top + directory).c_str(), 0755));
        }
        for (const char *file : {"/file", "/sub/file", "/sub/below/file"}) {
            kit::writeFile(top + file, "content");
            ASSERT_EQ(0, ::chown((top + file).c_str(), 7, 8));
            giveAcl(top + file, kFileAcl);
        }
        ASSERT_EQ(0, ::mkfifo((top + "/sub/pipe").c_str(), 0600));
        giveAcl(top + "/sub/pipe", kFileAcl);
        for (const char *directory : {"/sub/below", "/sub"}) {
            giveAcl(top + directory, kDirectoryAcl);
        }
    }
};

TEST_P(GroupRights, AreNeverMoreThanTheSourceGives) {
    const auto &[kind, single, operation, whole] = GetParam();
    KIT_REQUIRE(volume, kind == "ramfs" ? kit::Volume::plain() : kit::Volume::tmpfs(64 << 20));
    const kit::ScratchDirectory scratch;
    const TransferOptions options{
        .operation = operation, .links = true, .specials = true, .trees = !single, .countsAlone = whole};
    const bool tree = options.trees;
    size_t calls = 1, looked = 0;
    for (size_t at = 0; at <= calls; at += 1 + calls / 150) {
        const std::string from = scratch / ("from" + std::to_string(at)), to = volume / ("to" + std::to_string(at));
        make(from);
        ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
        const faults::Outcome outcome = faults::supervise(
            {.action = at == 0 ? faults::Plan::Action::watch : faults::Plan::Action::kill, .at = at - 1},
            [&](faults::Window &window) {
                GroupWatcher observer;
                window.open();
                Transfer(options, observer).run(tree ? from : from + "/file", to + "/copy");
                window.close();
            });
        calls = at == 0 ? outcome.calls.size() : calls;
        std::string wide;
        findWide(to, wide);
        EXPECT_EQ("", wide) << at << " of " << calls;
        ++looked;
        if (at == 0) {
            const std::string file = single ? to + "/copy" : to + "/copy/sub/below/file";
            constexpr mode_t all = 07777, plain = 0640, masked = 0660;
            EXPECT_EQ(kind == "ramfs" ? plain : masked, kit::statOf(file).st_mode & all);
        }
        if (HasFailure()) {
            break;
        }
    }
    EXPECT_LT(20u, looked);
}

INSTANTIATE_TEST_SUITE_P(Copies, GroupRights,
                         ::testing::Values(std::tuple{"ramfs", true, Operation::copy, false},
                                           std::tuple{"tmpfs", true, Operation::copy, false},
                                           std::tuple{"ramfs", false, Operation::copy, false},
                                           std::tuple{"ramfs", false, Operation::copy, true},
                                           std::tuple{"ramfs", true, Operation::move, false}));

// Where stores are "._" files the library lets everybody write to what it carries one for.
TEST(OpenToNobody, CopyOfAFileWithADouble) {
    KIT_NOT_SANITIZED();
    if (const std::string why = faults::unavailable(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    size_t calls = 1;
    for (size_t at = 0; at < calls; ++at) {
        const kit::ScratchDirectory scratch;
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((scratch / "to").c_str(), 0755));
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=5").c_str(), 1);
        kit::writeFile(scratch / "file", "content", 0600);
        kit::writeFile(scratch / "._file", stream::bytes({{"comment", "kept"}}));
        std::string open;
        const std::function<void(const std::string &)> look = [&](const std::string &directory) {
            for (const std::string &name : kit::namesIn(directory)) {
                const struct stat found = kit::statOf(directory + "/" + name);
                const bool store = name.starts_with("._"); // which everybody may write by its nature
                open += S_ISREG(found.st_mode) && (found.st_mode & S_IWOTH) != 0 && !store ? name + " " : "";
                if (S_ISDIR(found.st_mode) && (found.st_mode & S_IXOTH) != 0) {
                    look(directory + "/" + name);
                }
            }
        };
        const faults::Plan plan{
            .action = faults::Plan::Action::meet, .at = at, .meeting = [&] { look(scratch / "to"); }};
        const faults::Outcome outcome = faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            GroupWatcher observer;
            Transfer({}, observer).run(scratch / "file", scratch / "to/file");
            window.close();
        });
        ::unsetenv("VEXOFILEOP_FSTYPES");
        calls = std::max(calls, outcome.calls.size());
        EXPECT_EQ("", open) << at;
        EXPECT_EQ("content", kit::readFile(scratch / "to/file"));
        EXPECT_EQ(stream::bytes({{"comment", "kept"}}), kit::readFile(scratch / "to/._file")) << at;
        EXPECT_EQ(0600U, kit::statOf(scratch / "to/file").st_mode & 07777);
        EXPECT_EQ((std::vector<std::string>{"._file", "file"}), kit::namesIn(scratch / "to"));
        if (::testing::Test::HasFailure()) {
            break;
        }
    }
    EXPECT_LT(50U, calls);
}

} // namespace
