// The resource fork as an attribute: what is read, written and emptied, and that the file's mode and the effective user
// are afterwards what they were.
#include "ea/ea.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char *kFork = "com.apple.ResourceFork";
constexpr uid_t kNobody = 65534;

class ResourceFork : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, which the operations become";
        }
    }
    void make(std::string_view content, mode_t mode = 0644) { kit::ForkDouble::make(path, content, mode); }
    // The rest of the test as another user, who owns the file and may become root.
    void becomeUser() {
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
        ASSERT_EQ(0, ::chown(path.c_str(), kNobody, kNobody));
        ASSERT_EQ(0, ::seteuid(kNobody));
        processAsNow();
    }
    void TearDown() override {
        Behaviour::TearDown();
        if (::geteuid() != 0) {
            kit::Faults::reset();
            (void)::seteuid(0);
        }
    }
    mode_t mode() const { return kit::statOf(path).st_mode & 07777; }
    static void expectLine(const std::string &body, const std::string &source, int times = 1) {
        EXPECT_EQ(times, kit::Log::count(LOG_ERR, body)) << kit::Log::all();
        for (const kit::LogLine &line : kit::Log::lines()) {
            EXPECT_EQ(source, line.source);
        }
    }

    const std::string path = scratch / "file";
    const std::string fork = kit::ForkDouble::forkOf(path);
    char buffer[64] = {};
};

constexpr const char *kGet = "ea/ea_xattr_get.c";
constexpr const char *kSet = "ea/ea_xattr_set.c";
constexpr const char *kRemove = "ea/ea_xattr_remove.c";

TEST_F(ResourceFork, GetReadsAllOfIt) {
    make("0123456789");
    EXPECT_EQ(10, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    EXPECT_EQ("0123456789", std::string(buffer, 10));
    EXPECT_EQ(10, VEXOEAXattrGet(path.c_str(), kFork, buffer, 10));
    EXPECT_EQ(0644u, mode());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFork, SizeQueryTellsTheLength) {
    make("0123456789");
    EXPECT_EQ(10, VEXOEAXattrGet(path.c_str(), kFork, nullptr, 0));
    EXPECT_EQ(10, VEXOEAXattrGet(path.c_str(), kFork, buffer, 0));
    EXPECT_EQ(0, buffer[0]);
    EXPECT_EQ(0, kit::Faults::count("open"));
}

TEST_F(ResourceFork, SmallBufferIsRefused) {
    make("0123456789");
    errno = 0;
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, 4), 0xBF00);
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(0, buffer[0]);
    EXPECT_EQ(0644u, mode());
}

// Where forks are shown as files, "<file>/rsrc" is one: in a directory that took the file's place it may be anything.
TEST_F(ResourceFork, WhatIsNoForkIsNotOpened) {
    const std::string outside = scratch / "outside";
    for (const bool isLink : {true, false}) {
        kit::writeFile(outside, "0123456789", 0600);
        make("0123456789");
        kit::Faults::add({.function = "open", .path = "/rsrc", .times = 0, .before = [&] {
                              ::unlink(fork.c_str());
                              ASSERT_EQ(0, isLink ? ::symlink(outside.c_str(), fork.c_str())
                                                  : ::mkfifo(fork.c_str(), 0666));
                          }});
        EXPECT_EQ(-1, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
        EXPECT_EQ(isLink ? ELOOP : EINVAL, errno);
        EXPECT_EQ(0, buffer[0]);
        kit::Faults::reset();
        ::unlink(fork.c_str());
        kit::writeFile(fork, "0123456789", 0666);
        kit::Faults::add({.function = "open", .path = "/rsrc", .before = [&] {
                              ::unlink(fork.c_str());
                              ASSERT_EQ(0, ::symlink(outside.c_str(), fork.c_str()));
                          }});
        EXPECT_EQ(-1, VEXOEAXattrSet(path.c_str(), kFork, "new", 3, 0));
        EXPECT_EQ("0123456789", kit::readFile(outside));
        kit::Faults::reset();
        std::filesystem::remove_all(path);
    }
}

TEST_F(ResourceFork, LengthOverTheResultIsRefused) {
    make("");
    ASSERT_EQ(0, ::truncate(fork.c_str(), off_t{1} << 31));
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, nullptr, 0), 0xBF00);
    EXPECT_EQ(ERANGE, errno);
}

TEST_F(ResourceFork, EmptyForkIsNoAttribute) {
    make("");
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0x0700);
    EXPECT_EQ(ENODATA, errno);
    EXPECT_STREQ(kGet, VLIBCErrorGetFile());
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, DirectoryIsRefused) {
    const std::string directory = scratch / "directory";
    ASSERT_EQ(0, ::mkdir(directory.c_str(), 0644));
    EXPECT_FAILS(VEXOEAXattrGet(directory.c_str(), kFork, buffer, sizeof buffer), 0x0700);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOEAXattrSet(directory.c_str(), kFork, "x", 1, 0), 0x0700);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOEAXattrRemove(directory.c_str(), kFork), 0x0700);
    EXPECT_EQ(0644u, kit::statOf(directory).st_mode & 07777);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFork, PathWithoutRoomForTheForkFails) {
    const std::string deep = kit::makeDeepDirectory(scratch.path(), 4089) + "/file";
    kit::writeFile(deep, "data", 0644);
    EXPECT_EQ(-1, VEXOEAXattrGet(deep.c_str(), kFork, buffer, sizeof buffer));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ(-1, VEXOEAXattrSet(deep.c_str(), kFork, "x", 1, 0));
    EXPECT_EQ(-1, VEXOEAXattrRemove(deep.c_str(), kFork));
    EXPECT_EQ(3u, kit::Log::lines().size()) << kit::Log::all();
    for (const kit::LogLine &line : kit::Log::lines()) {
        EXPECT_TRUE(line.body.starts_with("Fail to stat(" + deep)) << line.text;
        EXPECT_TRUE(line.body.ends_with("). File name too long")) << line.text;
    }
    EXPECT_EQ(0644u, kit::statOf(deep).st_mode & 07777u);
}

TEST_F(ResourceFork, MissingFileForTheReader) {
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0x0700);
    EXPECT_EQ(ENOENT, errno);
    kit::Faults::fail("stat", EIO, path);
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0x2700);
    EXPECT_EQ(EIO, errno);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFork, MissingFileForTheWriters) {
    EXPECT_FAILS(VEXOEAXattrSet(path.c_str(), kFork, "x", 1, 0), 0);
    expectLine("Fail to stat(" + path + "). No such file or directory", kSet);
    kit::Log::reset();
    EXPECT_FAILS(VEXOEAXattrRemove(path.c_str(), kFork), 0);
    expectLine("Fail to stat(" + path + "). No such file or directory", kRemove);
}

TEST_F(ResourceFork, AbsentForkIsSilentForTheReaderOnly) {
    make("");
    ASSERT_EQ(0, ::unlink(fork.c_str()));
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0);
    EXPECT_EQ(ENOENT, errno);
    kit::Faults::fail("stat", EACCES, "/rsrc");
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0);
    EXPECT_EQ(EACCES, errno);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();

    EXPECT_FAILS(VEXOEAXattrSet(path.c_str(), kFork, "x", 1, 0), 0);
    expectLine("Fail to stat(" + fork + "). No such file or directory", kSet);
    kit::Log::reset();
    EXPECT_FAILS(VEXOEAXattrRemove(path.c_str(), kFork), 0);
    expectLine("Fail to stat(" + fork + "). No such file or directory", kRemove);
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, VolumeWithoutForksHasItsLine) {
    kit::writeFile(path, "an ordinary file");
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0);
    EXPECT_EQ(ENOTDIR, errno);
    expectLine("Fail to stat(" + fork + "). Not a directory", kGet);
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, ForkThatDoesNotOpen) {
    make("0123456789");
    kit::Faults::failAlways("open", EMFILE, "/rsrc");
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0);
    EXPECT_EQ(EMFILE, errno);
    expectLine("Fail to open(" + fork + "). Too many open files", kGet);
    kit::Log::reset();
    EXPECT_FAILS(VEXOEAXattrSet(path.c_str(), kFork, "x", 1, 0), 0);
    expectLine("Fail to open(" + fork + "). Too many open files", kSet);
    kit::Log::reset();
    EXPECT_FAILS(VEXOEAXattrRemove(path.c_str(), kFork), 0);
    expectLine("Fail to open(" + fork + "). Too many open files", kRemove);
    kit::Faults::reset();
    EXPECT_EQ("0123456789", kit::ForkDouble::read(path));
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, ForkThatShrinksMeanwhileIsAShortRead) {
    make("0123456789");
    kit::Faults::add(
        {.function = "open", .path = "rsrc", .before = [&] { ASSERT_EQ(0, ::truncate(fork.c_str(), 3)); }});
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer), 0);
    ASSERT_EQ(1u, kit::Log::lines().size()) << kit::Log::all();
    EXPECT_EQ(LOG_ERR, kit::Log::lines()[0].priority);
    EXPECT_EQ(0u, kit::Log::lines()[0].body.find("Fail to read(" + fork + "). "));
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, SetReplacesTheContent) {
    make("an older and longer fork");
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), kFork, "new", 3, 0));
    EXPECT_EQ("new", kit::ForkDouble::read(path));
    const std::string large = kit::pattern(100000);
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), kFork, large.data(), static_cast<int>(large.size()), XATTR_REPLACE));
    EXPECT_EQ(large, kit::ForkDouble::read(path));
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), kFork, "", 0, 0));
    EXPECT_EQ("", kit::ForkDouble::read(path));
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), kFork, "created", 7, XATTR_CREATE));
    EXPECT_EQ("created", kit::ForkDouble::read(path));
    EXPECT_EQ(0644u, mode());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFork, CreateOnlyLeavesExistingData) {
    make("data");
    EXPECT_FAILS(VEXOEAXattrSet(path.c_str(), kFork, "new", 3, XATTR_CREATE), 0);
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ("data", kit::ForkDouble::read(path));
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, ReplaceOnlyNeedsData) {
    make("");
    EXPECT_FAILS(VEXOEAXattrSet(path.c_str(), kFork, "new", 3, XATTR_REPLACE), 0);
    EXPECT_EQ(ENODATA, errno);
    EXPECT_EQ("", kit::ForkDouble::read(path));
}

// Small data fail at the close of the stream, large ones in the write.
TEST_F(ResourceFork, FullVolumeFailsTheWrite) {
    for (const char *call : {"pwrite", "close"}) { // some volumes tell it only then
        make("");
        kit::Faults::fail(call, ENOSPC, "/rsrc");
        EXPECT_FAILS(VEXOEAXattrSet(path.c_str(), kFork, "more than fits", 14, 0), 0);
        EXPECT_EQ(ENOSPC, errno);
        expectLine("Fail to write(" + fork + "). No space left on device", kSet);
        EXPECT_EQ(0644u, mode());
        kit::Faults::reset();
        kit::Log::reset();
        std::filesystem::remove_all(path);
    }
}

TEST_F(ResourceFork, RemoveEmptiesTheFork) {
    make("data");
    EXPECT_EQ(0, VEXOEAXattrRemove(path.c_str(), kFork));
    EXPECT_TRUE(kit::exists(fork));
    EXPECT_EQ("", kit::ForkDouble::read(path));
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, RemoveLeavesAnEmptyForkAlone) {
    make("");
    kit::Faults::failAlways("open", EIO, "rsrc");
    EXPECT_EQ(0, VEXOEAXattrRemove(path.c_str(), kFork));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFork, ModeThatAllowsIsNotTouched) {
    make("data", 0744);
    kit::Faults::failAlways("fchmod", EIO);
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    EXPECT_EQ(0, kit::Faults::count("fchmod"));
    EXPECT_EQ(0, kit::Faults::count("seteuid"));
}

TEST_F(ResourceFork, SpecialModeBitsAreRestored) {
    make("data", 07640);
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), kFork, "new", 3, 0));
    EXPECT_EQ(07640u, mode());
}

TEST_F(ResourceFork, OwnerIsLentExecutionForTheOperation) {
    make("data");
    mode_t during = 0;
    kit::Faults::add({.function = "open", .path = "rsrc", .before = [&] { during = mode(); }});
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    EXPECT_EQ(0744u, during);
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, UserBecomesRootForTheOperation) {
    make("data");
    becomeUser();
    uid_t during = 0;
    kit::Faults::add({.function = "open", .times = 0, .before = [&] { during = ::geteuid(); }});
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    EXPECT_EQ(0u, during);
    EXPECT_EQ(kNobody, ::geteuid());
    EXPECT_EQ(0, VEXOEAXattrSet(path.c_str(), kFork, "newer", 5, 0));
    EXPECT_EQ(kNobody, ::geteuid());
    EXPECT_EQ(0, VEXOEAXattrRemove(path.c_str(), kFork));
    EXPECT_EQ(kNobody, ::geteuid());
    EXPECT_EQ(0644u, mode());
    EXPECT_EQ(0, kit::statOf(fork).st_size);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFork, UserIsRestoredAfterAFailure) {
    make("0123456789");
    becomeUser();
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, 4), 0xBF00);
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(kNobody, ::geteuid());
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, UserWhoMayExecuteStaysWhoHeIs) {
    make("data", 0744);
    becomeUser();
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    EXPECT_EQ(0, kit::Faults::count("seteuid"));
}

// The owner can lend himself the permission without being root.
TEST_F(ResourceFork, RefusedRootIsLoggedAndTheOperationGoesOn) {
    make("data");
    becomeUser();
    kit::Faults::failAlways("seteuid", EPERM);
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    expectLine("Fail to seteuid(0). Operation not permitted", kGet);
    EXPECT_EQ(1u, kit::Log::lines().size());
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, RefusedChmodIsLoggedAndTheOperationGoesOn) {
    make("data"); // root passes through the double without the permission
    kit::Faults::fail("fchmod", EPERM);
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    expectLine("Fail to chmod. Operation not permitted", kGet);
    EXPECT_EQ(1u, kit::Log::lines().size());
    EXPECT_EQ(0644u, mode());
}

// Somebody puts a link in the file's place, between the look and the permission, and while it is lent.
TEST_F(ResourceFork, ExchangedFileIsNotTheOneThatIsLentThePermission) {
    const std::string victim = scratch / "victim";
    const std::string away = scratch / "away";
    for (const char *const call : {"open", "fchmod", "chmod"}) {
        make("data", 0640);
        kit::writeFile(victim, "secret", 0600);
        bool exchanged = false;
        kit::Faults::add({.function = call, .before = [&] {
                              if (!exchanged) {
                                  exchanged = true;
                                  EXPECT_EQ(0, ::rename(path.c_str(), away.c_str()));
                                  EXPECT_EQ(0, ::symlink(victim.c_str(), path.c_str()));
                              }
                          }});
        (void)VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer);
        EXPECT_EQ(std::string(call) != "chmod", exchanged); // no mode is changed by a path
        EXPECT_EQ(0600u, kit::statOf(victim).st_mode & 07777) << call;
        EXPECT_EQ(0640u, kit::statOf(exchanged ? away : path).st_mode & 07777) << call;
        kit::Faults::reset();
        if (exchanged) {
            EXPECT_EQ(0, ::unlink(path.c_str()));
        }
        std::filesystem::remove_all(away);
        std::filesystem::remove_all(path);
        kit::ForkDouble::reset();
    }
}

TEST_F(ResourceFork, ModeThatCannotBeGivenBackIsLogged) {
    make("data");
    kit::Faults::fail("fchmod", EROFS, path, 1);
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    expectLine("Fail to chmod. Read-only file system", kGet);
    EXPECT_EQ(0744u, mode());
}

TEST_F(ResourceFork, UserThatCannotBeGivenBackIsLogged) {
    make("data");
    becomeUser();
    processMayChange();
    kit::Faults::add({.function = "seteuid", .error = EAGAIN, .skip = 1, .times = 0});
    EXPECT_EQ(4, VEXOEAXattrGet(path.c_str(), kFork, buffer, sizeof buffer));
    expectLine("Fail to seteuid() back. Resource temporarily unavailable", kGet);
    EXPECT_EQ(0644u, mode());
}

TEST_F(ResourceFork, CleanUpDoesNotSpeakOverTheCause) {
    make("0123456789");
    kit::Faults::fail("fchmod", EROFS, path, 1);
    EXPECT_FAILS(VEXOEAXattrGet(path.c_str(), kFork, buffer, 4), 0xBF00);
    EXPECT_EQ(ERANGE, errno);
}

} // namespace
