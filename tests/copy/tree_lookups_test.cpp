// What a tree copy looks up once for all files of a directory, and how it notices where that does not hold.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"

#include "tests/kit/volumes.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

std::vector<std::pair<std::string, uint32_t>> reported; // by the callback

class TreeLookups : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        reported.clear();
        ASSERT_EQ(0, ::mkdir(from.c_str(), 0755));
        for (const char *name : {"/one", "/two", "/three"}) {
            kit::writeFile(from + name, name);
        }
        options.overwrite = 1;
        options.ownerMode = 1;
        options.stopOnError = 1;
        options.errReport = [](const char *path, uint32_t code) { reported.emplace_back(path, code); };
    }
    int copy() { return VEXOFileCopyDirectory(from.c_str(), to.c_str(), &options); }

    std::string from = scratch / "from";
    std::string to = scratch / "to";
    VEXOCopyOpt options = {};
};

TEST_F(TreeLookups, TypesAreAskedForOnceADirectory) {
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const int before = kit::Faults::count("VEXOGetFSType");
    kit::Faults::reset();
    for (int number = 0; number < 20; ++number) {
        kit::writeFile(from + "/more" + std::to_string(number), "more");
    }
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(before, kit::Faults::count("VEXOGetFSType"));
    EXPECT_EQ("more", kit::readFile(to + "/more7"));
}

TEST_F(TreeLookups, FileThatVanishedDoesNotEndTheWalk) {
    kit::Faults::add(
        {.function = "open", .path = "/from/two", .before = [this] { ::unlink((from + "/two").c_str()); }});
    EXPECT_EQ(0, copy());
    EXPECT_EQ((std::vector<std::pair<std::string, uint32_t>>{{from + "/two", 0x0600}}), reported);
    EXPECT_EQ("/one", kit::readFile(to + "/one"));
    EXPECT_EQ("/three", kit::readFile(to + "/three"));
    EXPECT_NE(0, ::access((to + "/two").c_str(), F_OK));
}

TEST_F(TreeLookups, DirectoryWhoseTypeIsUnknownLeavesItToItsFiles) {
    // The first two look-ups are those of the whole tree.
    kit::Faults::fail("VEXOGetFSType", EIO, {}, 2);
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ("/two", kit::readFile(to + "/two"));
}

TEST_F(TreeLookups, ExistingDestinationIsReplacedAndItselfRecognised) {
    ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
    kit::writeFile(to + "/one", "longer than what comes");
    ASSERT_EQ(0, ::link((from + "/two").c_str(), (to + "/two").c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_EQ("/one", kit::readFile(to + "/one"));
    EXPECT_EQ("/two", kit::readFile(from + "/two")) << "copied onto itself";
    EXPECT_TRUE(reported.empty());
}

TEST_F(TreeLookups, DestinationThatCannotBeMadeIsToldAsBefore) {
    const std::pair<int, uint32_t> rows[] = {{EIO, 0x6C00}, {EACCES, 0x0300}, {EROFS, 0x8400}, {ENOSPC, 0x2900}};
    for (const auto &[number, code] : rows) {
        reported.clear();
        kit::Faults::failAlways("open", number, "/to/one");
        EXPECT_FAILS(copy(), code);
        kit::Faults::reset();
        ASSERT_EQ(1u, reported.size());
        EXPECT_EQ(from + "/one", reported[0].first);
        EXPECT_EQ(code, reported[0].second);
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_F(TreeLookups, FailedCopyLeavesNoNewDestination) {
    kit::Faults::fail("write", ENOSPC, "/to/one");
    EXPECT_FAILS(copy(), 0x2900);
    EXPECT_NE(0, ::access((to + "/one").c_str(), F_OK));
}

TEST_F(TreeLookups, FileOfAnotherVolumeIsAskedForItsOwnType) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    kit::writeFile(volume / "file", "elsewhere");
    ASSERT_EQ(0, ::mount((volume / "file").c_str(), (from + "/two").c_str(), nullptr, MS_BIND, nullptr));
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const std::vector<std::string> calls = kit::Faults::recorded();
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), "VEXOGetFSType(" + from + "/two)"));
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), "VEXOGetFSType(" + from + "/one)"));
    EXPECT_EQ("elsewhere", kit::readFile(to + "/two"));
    EXPECT_EQ(0, ::umount((from + "/two").c_str()));
}

bool has(const std::vector<std::string> &calls, const std::string &call) {
    return std::count(calls.begin(), calls.end(), call) > 0;
}

// Where no file system can set other times afterwards, the copy is worked on while it is open.
TEST_F(TreeLookups, NewFilesAreFinishedOpenWhereTheirTimesStay) {
    for (const bool open : {true, false}) {
        std::filesystem::remove_all(to);
        if (!open) {
            kit::Faults::failAlways("statfs", EIO, to);
        }
        kit::Faults::record(true);
        EXPECT_EQ(0, copy());
        const std::vector<std::string> calls = kit::Faults::recorded();
        kit::Faults::reset();
        EXPECT_EQ(open, has(calls, "fsetxattr(" + to + "/one)"));
        EXPECT_TRUE(has(calls, "setxattr(" + to + "/one)")); // which the kit counts for an open file too
        EXPECT_EQ(kit::statOf(from + "/one").st_mtim.tv_nsec, kit::statOf(to + "/one").st_mtim.tv_nsec);
    }
}

std::string other; // a file that has nothing to do with the copy

TEST_F(TreeLookups, FilesThatACallbackPutsInPlaceAreOnlyClosed) {
    other = scratch / "other";
    kit::writeFile(other, "other", 0600);
    const timespec past[] = {{1000000001, 0}, {1000000002, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, other.c_str(), past, 0));
    kit::setAttribute(from + "/one", "user.mine", "one");
    VEXOCopyArgsEx extra{};
    extra.readWriteData = [](const char *, const char *, int *srcFd, int *dstFd, int64_t, VEXOCopyBareProgressFn,
                             VEXOCopyBareIsCancelFn, VEXOCopyArgsEx *) {
        const bool written = ::write(*dstFd, "mine", 4) == 4;
        for (int *const slot : {srcFd, dstFd}) {
            ::close(*slot);
            *slot = ::open(other.c_str(), O_RDWR);
        }
        return written ? 0 : -1;
    };
    options.copyAcl = 1;
    EXPECT_EQ(0, VEXOFileCopyDirectoryEx(from.c_str(), to.c_str(), &options, &extra));
    EXPECT_EQ("mine", kit::readFile(to + "/one"));
    EXPECT_EQ("one", kit::attribute(to + "/one", "user.mine"));
    EXPECT_EQ(kit::statOf(from + "/one").st_mtim.tv_sec, kit::statOf(to + "/one").st_mtim.tv_sec);
    EXPECT_EQ(1000000002, kit::statOf(other).st_mtim.tv_sec);
    EXPECT_EQ(0600u, kit::statOf(other).st_mode & 07777);
    EXPECT_EQ("", kit::attribute(other, "user.mine"));
}

// Whoever owns the tree could have root copy what he may not read.
TEST_F(TreeLookups, EntriesThatBecomeLinksMeanwhileAreNotFollowed) {
    const std::string secret = scratch / "secret";
    ASSERT_EQ(0, ::mkdir(secret.c_str(), 0700));
    kit::writeFile(secret + "/inside", "secret");
    ASSERT_EQ(0, ::mkdir((from + "/sub").c_str(), 0755));
    kit::writeFile(from + "/sub/own", "own");
    kit::Faults::add({.function = "open", .path = "/from/two", .before = [&] {
                          ::unlink((from + "/two").c_str());
                          ASSERT_EQ(0, ::symlink((secret + "/inside").c_str(), (from + "/two").c_str()));
                      }});
    kit::Faults::add({.function = "open", .path = "/from/sub", .before = [&] {
                          std::filesystem::remove_all(from + "/sub");
                          ASSERT_EQ(0, ::symlink(secret.c_str(), (from + "/sub").c_str()));
                      }});
    options.stopOnError = 0;
    (void)copy();
    EXPECT_EQ((std::set<std::pair<std::string, uint32_t>>{{from + "/two", 0x8000}, {from + "/sub", 0x8000}}),
              (std::set<std::pair<std::string, uint32_t>>(reported.begin(), reported.end())));
    EXPECT_FALSE(kit::exists(to + "/two"));
    EXPECT_FALSE(kit::exists(to + "/sub"));
    EXPECT_EQ("/one", kit::readFile(to + "/one"));
}

TEST_F(TreeLookups, SourceThatIsALinkIsFollowed) {
    const std::string link = scratch / "link";
    ASSERT_EQ(0, ::symlink(from.c_str(), link.c_str()));
    EXPECT_EQ(0, VEXOFileCopyDirectory(link.c_str(), to.c_str(), &options));
    EXPECT_EQ("/two", kit::readFile(to + "/two"));
}

// Somebody renames a directory while it is copied, once its first file has been asked for.
void renameMeanwhile(const std::string &directory, VEXOCopyOpt &options) {
    static std::string renamed;
    renamed = directory;
    static int asked;
    asked = 0;
    options.isCancel = [] {
        if (++asked == 2) {
            ::rename(renamed.c_str(), (renamed + ".away").c_str());
        }
        return 0;
    };
}

TEST_F(TreeLookups, SourceThatMovesAwayIsNoCopyWithoutStreams) {
    ASSERT_EQ(0, ::mkdir((from + "/@eaDir").c_str(), 0777));
    renameMeanwhile(from, options);
    (void)copy();
    EXPECT_EQ(2u, reported.size()) << "files that could no longer be opened";
}

// Without a store beside them all of the files is reached by their names in the open directories.
TEST_F(TreeLookups, DirectoryThatIsRenamedMeanwhileIsCopiedWhole) {
    for (const std::string &renamed : {from, to}) {
        renameMeanwhile(renamed, options);
        (void)copy();
        options.isCancel = nullptr;
        const std::string copied = renamed == to ? to + ".away" : to;
        for (const char *const name : {"/one", "/two"}) {
            EXPECT_EQ(name, kit::readFile(copied + name)) << renamed;
        }
        if (renamed == from) {
            EXPECT_TRUE(reported.empty());
            ASSERT_EQ(0, ::rename((from + ".away").c_str(), from.c_str()));
            std::filesystem::remove_all(to);
        }
    }
}

// What a copy has made in a directory that was renamed goes again, and not what has its path by then.
TEST_F(TreeLookups, HalfACopyIsRemovedWhereItWasMade) {
    kit::Faults::add({.function = "write", .error = EIO, .path = "/two", .before = [&] {
                          ASSERT_EQ(0, ::rename(to.c_str(), (to + ".away").c_str()));
                          ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
                          kit::writeFile(to + "/two", "somebody else's");
                      }});
    options.stopOnError = 0;
    (void)copy();
    EXPECT_EQ("somebody else's", kit::readFile(to + "/two"));
    EXPECT_FALSE(kit::exists(to + ".away/two"));
}

} // namespace
