// The walk of a directory copy: which entries are copied, how, and what happens when they fail or change meanwhile.
#include "tests/copy/tree_support.h"

#include <sys/mount.h>

#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

namespace tree {
namespace {

class TreeWalk : public BothFamilies {
  protected:
    kit::Fingerprint sourceNow() const { return kit::Fingerprint::of(request.src); }
    void makeSocket(const std::string &below) const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        ASSERT_LT(src(below).size(), sizeof address.sun_path);
        src(below).copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address));
        ::close(fd);
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeWalk, kFamilies, familyName);

TEST_P(TreeWalk, CopiesEverythingBelowTheSource) {
    putSample();
    kit::writeSparse(src("holes"), 1 << 22, {{1 << 20, 65536}});
    const kit::Fingerprint before = sourceNow();
    EXPECT_EQ(0, copy());
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.dst),
                                      {"owner", "accessed", "modified", "created", "attributes"}));
    EXPECT_EQ("", before.differenceTo(sourceNow(), {"accessed"})) << "the source changed";
    expectNotReported();
    EXPECT_TRUE(callbacks.progress.size() >= 3);
    expectNoLine();
}

TEST_P(TreeWalk, EmptyDirectoryIsMade) {
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::namesIn(request.dst).empty());
    EXPECT_TRUE(callbacks.progress.empty());
}

TEST_P(TreeWalk, StoresAndTheirLikeAreNotCopied) {
    for (const char *hidden : {"@eaDir", "@EADIR", "@Tmp", "@tmp", "@sharebin", "@ShareBin"}) {
        putDirectory(hidden);
        putFile(std::string(hidden) + "/inside");
    }
    for (const char *hidden : {"._a", "._", "._.DS_Store"}) {
        putFile(hidden);
    }
    putDirectory("._directory");
    for (const char *plain :
         {"a._", ".DS_Store", "@eaDir2", "@ea", ".VEXOPPHDB", "...", ".. ", "name\nwith line", " "}) {
        putFile(plain);
    }
    EXPECT_EQ(0, copy());
    std::vector<std::string> wanted = {"a._", ".DS_Store", "@eaDir2",         "@ea", ".VEXOPPHDB",
                                       "...", ".. ",       "name\nwith line", " "};
    std::vector<std::string> found = kit::namesIn(request.dst);
    std::erase(found, "@eaDir"); // stores may have been made for what was copied
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(wanted, found);
}

TEST_P(TreeWalk, LinksAreMadeAnewWhereverTheyLead) {
    putFile("file");
    const std::string longTarget(4000, 'x');
    const std::map<std::string, std::string> links = {
        {"toFile", "file"}, {"absolute", "/etc/passwd"}, {"nowhere", "no/such/place"},
        {"loop", "loop"},   {"up", "../../.."},          {"long", longTarget},
        {"directory", "."}};
    for (const auto &[name, target] : links) {
        ASSERT_EQ(0, ::symlink(target.c_str(), src(name).c_str()));
    }
    EXPECT_EQ(0, copy());
    for (const auto &[name, target] : links) {
        EXPECT_EQ(target, kit::Fingerprint::of(dst(name)).entries().at("").at("link")) << name;
    }
}

TEST_P(TreeWalk, DevicesPipesAndSocketsAreSkippedInSilence) {
    TREE_NEEDS_ROOT();
    putFile("file");
    ASSERT_EQ(0, ::mkfifo(src("pipe").c_str(), 0644));
    makeSocket("socket");
    const bool devices = ::mknod(src("null").c_str(), S_IFCHR | 0644, ::makedev(1, 3)) == 0;
    EXPECT_TRUE(devices || errno == EPERM);
    for (const bool stop : {false, true}) {
        request.stopOnError = stop;
        request.dst = to + (stop ? "/stopping" : "/skipping");
        EXPECT_EQ(0, copy());
        EXPECT_EQ(std::vector<std::string>{"file"}, kit::namesIn(request.dst));
    }
    expectNotReported();
    expectNoLine();
}

TEST_P(TreeWalk, SpecialFilesDoNotStopEvenWithAnOldErrorStanding) {
    ASSERT_EQ(0, ::mkfifo(src("pipe").c_str(), 0644));
    putDirectory("sub");
    putFile("sub/file");
    request.stopOnError = true;
    VLIBCErrSetEx(0x2900, "earlier", 1);
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(dst("sub/file")));
}

TEST_P(TreeWalk, TypesThatTheDirectoryDoesNotTellAreLookedUp) {
    putSample();
    ASSERT_EQ(0, ::mkfifo(src("pipe").c_str(), 0644));
    kit::Faults::hideEntryTypes(true);
    EXPECT_EQ(0, copy());
    kit::Faults::hideEntryTypes(false);
    ::unlink(src("pipe").c_str());
    EXPECT_EQ("", sourceNow().differenceTo(kit::Fingerprint::of(request.dst),
                                           {"owner", "accessed", "modified", "created", "holes", "attributes"}));
}

class TreeUnknownType : public FamilyAndRow {};
INSTANTIATE_TEST_SUITE_P(, TreeUnknownType,
                         ::testing::Combine(kFamilies, ::testing::Values(Row{EACCES, 0x0300}, Row{ENOENT, 0x0700},
                                                                         Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
                                                                         Row{EHOSTDOWN, 0x1100}, Row{ELOOP, 0x8000})),
                         familyRowName);

TEST_P(TreeUnknownType, EntryThatCannotBeLookedAtStopsAStoppingWalk) {
    putFile("file");
    request.stopOnError = true;
    kit::Faults::hideEntryTypes(true);
    kit::Faults::failAlways("VLIBCFileLStat", row().number, src("file"));
    EXPECT_FAILS(copy(), row().code);
    const bool logged = row().code == 0x8000;
    expectLogged(source(), LOG_ERR,
                 "failed to stat source path = " + src("file") + ", reason=[" + reason(row().number) + "]", logged);
    EXPECT_EQ(logged ? 1 : 0, linesOf(source(), LOG_ERR)) << kit::Log::all();
    expectNotReported();
}

TEST_P(TreeUnknownType, EntryThatCannotBeLookedAtIsSkippedOtherwise) {
    putFile("file");
    putFile("other");
    kit::Faults::hideEntryTypes(true);
    kit::Faults::failAlways("VLIBCFileLStat", row().number, src("file"));
    EXPECT_EQ(0, copy());
    EXPECT_EQ(std::vector<std::string>{"other"}, kit::namesIn(request.dst));
    EXPECT_EQ(0, linesOf(source(), LOG_ERR)) << kit::Log::all();
}

TEST_P(TreeWalk, FailedFilesArePassedOver) {
    putSample();
    kit::Faults::failAlways("open", EACCES, src("sub/b"));
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(dst("sub/b")));
    EXPECT_TRUE(kit::exists(dst("sub/deep/c")));
    EXPECT_TRUE(kit::exists(dst("a")));
    expectReported(src("sub/b"), 0x0300);
}

TEST_P(TreeWalk, FailedFileEndsAStoppingWalkAtEveryLevel) {
    putDirectory("sub");
    putDirectory("sub/deep");
    putFile("sub/deep/file");
    request.stopOnError = true;
    kit::Faults::failAlways("open", EACCES, src("sub/deep/file"));
    EXPECT_FAILS(copy(), 0x0300);
    expectReported(src("sub/deep/file"), 0x0300);
    EXPECT_TRUE(kit::exists(dst("sub/deep"))) << "nothing is rolled back";
}

TEST_F(Scene, VanishedFileDoesNotEndAStoppingWalk) {
    for (const char *name : {"a", "b", "c"}) {
        putFile(name);
    }
    request.stopOnError = true;
    kit::PlatformDouble::setType(src("b"), -1, ENOENT); // what the look-up of a file that is gone finds
    kit::Faults::add({.function = "open", .path = src("b"), .before = [&] { ::unlink(src("b").c_str()); }});
    EXPECT_EQ(0, copyThrough(Family::opt));
    EXPECT_EQ((std::vector<std::string>{"a", "c"}), kit::namesIn(request.dst));
    expectReported(src("b"), 0x0600);
}

// There the record knows the source's type, no look-up meets the absence, and an open that fails has the code of any
// other errno.
TEST_F(Scene, VanishedFileEndsAStoppingWalkOfTheFileOperations) {
    for (const char *name : {"a", "b", "c"}) {
        putFile(name);
    }
    request.stopOnError = true;
    kit::Faults::add({.function = "open", .path = src("b"), .before = [&] { ::unlink(src("b").c_str()); }});
    EXPECT_FAILS(copyThrough(Family::fileOp), 0x8000);
    expectReported(src("b"), 0x8000);
}

TEST_P(TreeWalk, AnEntryWithTheVanishedCodeDoesNotEndAStoppingWalk) {
    for (const char *name : {"a", "b", "c"}) {
        putFile(name);
    }
    request.stopOnError = true;
    int calls = 0;
    callbacks.copyFile = [&](const std::string &, const std::string &) {
        ++calls;
        VLIBCErrSetEx(0x0600, "test", 1);
        return -5;
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(3, calls);
}

TEST_P(TreeWalk, AnOlderVanishedCodeDoesNotExcuseAnotherFailure) {
    putFile("a");
    putFile("b");
    request.stopOnError = true;
    int calls = 0;
    callbacks.copyFile = [&](const std::string &, const std::string &) {
        VLIBCErrSetEx(++calls == 1 ? 0x0600 : 0x2900, "test", 1);
        return -1;
    };
    EXPECT_FAILS(copy(), 0x2900);
    EXPECT_EQ(2, calls);
}

TEST_P(TreeWalk, TheCallbacksOwnResultComesBackFromAStoppingWalk) {
    putFile("a");
    request.stopOnError = true;
    callbacks.copyFile = [](const std::string &, const std::string &) {
        VLIBCErrSetEx(0x0B00, "test", 1);
        return -7;
    };
    EXPECT_LT(copy(), 0);
    EXPECT_EQ(0x0B00U, VLIBCErrGet());
}

TEST_P(TreeWalk, VanishedDirectoryIsPassedOver) {
    putDirectory("sub");
    putFile("file");
    kit::Faults::add({.function = "opendir", .path = src("sub"), .before = [this] { ::rmdir(src("sub").c_str()); }});
    EXPECT_EQ(0, copy());
    EXPECT_EQ(std::vector<std::string>{"file"}, kit::namesIn(request.dst));
    expectReported(src("sub"), 0x0700);
}

TEST_P(TreeWalk, DirectoryThatBecameAFileIsPassedOver) {
    putDirectory("sub");
    kit::Faults::add({.function = "opendir", .path = src("sub"), .before = [this] {
                          ::rmdir(src("sub").c_str());
                          kit::writeFile(src("sub"), "now a file");
                      }});
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(dst("sub")));
    EXPECT_EQ("now a file", kit::readFile(src("sub")));
    expectReported(src("sub"), 0x8000);
    expectLine("failed to opendir: source dir name = " + src("sub") + ", reason=[" + reason(ENOTDIR) + "]");
}

TEST_P(TreeWalk, EntriesThatAppearMeanwhileDoNoHarm) {
    putFile("first");
    int calls = 0;
    callbacks.isCancel = [&] {
        if (++calls < 20) {
            kit::writeFile(src("new" + std::to_string(calls)), "new");
        }
        return 0;
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ("data", kit::readFile(dst("first")));
}

TEST_P(TreeWalk, DirectoryThatMayNotBeReadIsPassedOver) {
    TREE_NEEDS_ROOT();
    putDirectory("locked", 0700);
    putFile("locked/file");
    putFile("open");
    EXPECT_TRUE(kit::holdsInChild([&] {
        const AsUser user(kNobody);
        EXPECT_EQ(0, copy());
        EXPECT_TRUE(kit::exists(dst("open")));
        EXPECT_FALSE(kit::exists(dst("locked"))) << "nothing is made for a source that cannot be read";
        expectReported(src("locked"), 0x0300);
    }));
}

TEST_P(TreeWalk, DirectoryThatMayNotBeReadEndsAStoppingWalk) {
    TREE_NEEDS_ROOT();
    putDirectory("locked", 0700);
    request.stopOnError = true;
    EXPECT_TRUE(kit::holdsInChild([&] {
        const AsUser user(kNobody);
        EXPECT_FAILS(copy(), 0x0300);
    }));
}

TEST_P(TreeWalk, PathThatGetsTooLongIsAFailedEntry) {
    request.dst = to; // the destination goes over the limit where the source does not
    while (request.dst.size() < 3800) {
        request.dst += "/" + std::string(200, 'd');
        makeDirectory(request.dst);
    }
    request.dst += "/copy";
    putFile("short");
    putDirectory("long");
    const std::string lost = "long/" + std::string(250, 'n');
    putFile(lost);
    EXPECT_EQ(0, copy());
    EXPECT_EQ("data", kit::readFile(dst("short")));
    EXPECT_TRUE(kit::namesIn(dst("long")).empty());
    request.stopOnError = true;
    request.overwrite = 1;
    EXPECT_FAILS(copy(), 0xC300);
}

// ---- Conflicts
// --------------------------------------------------------------------------------------------------------

class TreeMerge : public TreeWalk {
  protected:
    void SetUp() override {
        TreeWalk::SetUp();
        putFile("both", "source's");
        putFile("only here", "source's");
        putDirectory("sub");
        putFile("sub/both", "source's");
        makeDirectory(request.dst, 0711);
        makeDirectory(dst("sub"), 0711);
        kit::writeFile(dst("both"), "destination's");
        kit::writeFile(dst("only there"), "destination's");
        kit::writeFile(dst("sub/both"), "destination's");
    }
    void expectMerged(const std::string &both) const {
        EXPECT_EQ(both, kit::readFile(dst("both")));
        EXPECT_EQ(both, kit::readFile(dst("sub/both")));
        EXPECT_EQ("destination's", kit::readFile(dst("only there")));
        EXPECT_EQ("source's", kit::readFile(dst("only here")));
        EXPECT_EQ(0711U, kit::statOf(request.dst).st_mode & 07777U) << "an existing directory keeps its mode";
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeMerge, kFamilies, familyName);

TEST_P(TreeMerge, ReplacesFilesWhenAsked) {
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    expectMerged("source's");
}
TEST_P(TreeMerge, LeavesFilesByDefault) {
    EXPECT_EQ(0, copy());
    expectMerged("destination's");
}
TEST_P(TreeMerge, PassesOverFilesThatMayNotExist) {
    request.overwrite = -1;
    EXPECT_EQ(0, copy());
    expectMerged("destination's");
    ASSERT_EQ(2U, callbacks.reports.size());
    EXPECT_EQ(0xA300U, callbacks.reports[0].code);
    EXPECT_EQ(0xA300U, callbacks.reports[1].code);
}
TEST_P(TreeMerge, StopsAtAFileThatMayNotExist) {
    request.overwrite = -1;
    request.stopOnError = true;
    EXPECT_FAILS(copy(), 0xA300);
    EXPECT_EQ("destination's", kit::readFile(dst("both")));
}
TEST_P(TreeMerge, DirectoryInPlaceOfAFileIsLeft) {
    kit::writeFile(src("clash"), "source's");
    makeDirectory(dst("clash"));
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(S_ISDIR(kit::statOf(dst("clash")).st_mode));
    EXPECT_EQ("source's", kit::readFile(dst("only here")));
}
TEST_P(TreeMerge, FileInPlaceOfADirectoryIsLeft) {
    putDirectory("clash");
    putFile("clash/inside");
    kit::writeFile(dst("clash"), "destination's");
    request.overwrite = 1;
    EXPECT_EQ(0, copy());
    EXPECT_EQ("destination's", kit::readFile(dst("clash")));
    expectReported(dst("clash"), 0xA000);
}
TEST_P(TreeMerge, LinkToADirectoryIsMergedInto) {
    putDirectory("linked");
    putFile("linked/inside");
    makeDirectory(to + "/elsewhere");
    ASSERT_EQ(0, ::symlink("../elsewhere", dst("linked").c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(to + "/elsewhere/inside"));
}
TEST_P(TreeMerge, ExistingLinkEndsTheWalk) {
    ASSERT_EQ(0, ::symlink("source", src("link").c_str()));
    ASSERT_EQ(0, ::symlink("destination", dst("link").c_str()));
    request.overwrite = 1;
    EXPECT_EQ(-1, copy());
    EXPECT_EQ("destination", kit::Fingerprint::of(dst("link")).entries().at("").at("link"));
    expectLine("Failed to create a symbolic link " + dst("link") + " -> source. reason=[" + reason(EEXIST) + "]");
}

// ---- Links that cannot be
// ---------------------------------------------------------------------------------------------

TEST_P(TreeWalk, LinkOnAVolumeWithoutLinksFailsTheWholeTree) {
    putDirectory("sub");
    putDirectory("sub/deep");
    ASSERT_EQ(0, ::symlink("x", src("sub/deep/link").c_str()));
    for (const int kind : {0, 4, 8, 10, 12, 18, 19, 22, 35, 64}) {
        kit::PlatformDouble::setType(to, kind);
        kit::Log::reset();
        VLIBCErrSetEx(0, "", 0);
        request.dst = to + "/kind" + std::to_string(kind);
        EXPECT_EQ(-1, copy()) << kind;
        EXPECT_EQ(0U, VLIBCErrGet()) << kind;
        expectLine("File system of Destination not support copy Symbolic link");
        EXPECT_TRUE(kit::exists(dst("sub/deep"))) << "what is there stays";
    }
    expectNotReported();
}

TEST_P(TreeWalk, LinksAreMadeOnTheKindsThatHoldThem) {
    ASSERT_EQ(0, ::symlink("x", src("link").c_str()));
    for (const int kind : {1, 2, 3, 5, 6, 7}) {
        kit::PlatformDouble::setType(to, kind);
        request.dst = to + "/kind" + std::to_string(kind);
        EXPECT_EQ(0, copy()) << kind << "\n" << kit::Log::all();
        EXPECT_TRUE(kit::exists(dst("link"))) << kind;
    }
}

TEST_P(TreeWalk, LinkThatCannotBeReadEndsItsLevel) {
    putDirectory("sub");
    putFile("other");
    ASSERT_EQ(0, ::symlink("x", src("sub/link").c_str()));
    kit::Faults::failAlways("readlink", EIO, src("sub/link"));
    EXPECT_EQ(0, copy()) << "the level above passes over it as over any failed entry";
    EXPECT_TRUE(kit::exists(dst("other")));
    expectLine("readlink " + src("sub/link") + " get error. reason=[" + reason(EIO) + "]");
    request.src = src("sub");
    request.dst = to + "/alone";
    EXPECT_EQ(-1, copy());
}

TEST_P(TreeWalk, LinkThatCannotBeMadeEndsItsLevel) {
    putDirectory("sub");
    ASSERT_EQ(0, ::symlink("target", src("sub/link").c_str()));
    kit::Faults::failAlways("symlink", ENOSPC, dst("sub/link"));
    EXPECT_EQ(0, copy());
    expectLine("Failed to create a symbolic link " + dst("sub/link") + " -> target. reason=[" + reason(ENOSPC) + "]");
    request.stopOnError = true;
    request.dst = to + "/stopping";
    kit::Faults::failAlways("symlink", ENOSPC, dst("sub/link"));
    EXPECT_EQ(-1, copy());
}

TEST_P(TreeWalk, DirectoryThatCannotBeReadToItsEndHasFailed) {
    putFile("file");
    for (const Row row : {Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00}, Row{EHOSTDOWN, 0x1100}, Row{EBADF, 0x8000}}) {
        callbacks.reports.clear();
        request.dst = to + "/" + ::strerrorname_np(row.number);
        kit::Faults::reset();
        kit::Faults::failAlways("readdir", row.number, request.src);
        EXPECT_FAILS(copy(), row.code);
        expectReported(request.src, row.code);
        expectLine("failed to readdir: source dir name = " + request.src + ", reason=[" + reason(row.number) + "]");
    }
}

// ---- Cancelling
// ---------------------------------------------------------------------------------------------------------

TEST_P(TreeWalk, CancelledBeforeEachEntryItEndsWithSuccess) {
    for (const char *name : {"a", "b", "c", "d"}) {
        putDirectory(name);
        putFile(std::string(name) + "/file");
    }
    timespec old[2] = {{1000000000, 5}, {1000000000, 7}};
    for (int stopAt = 1; stopAt <= 8; ++stopAt) {
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), old, 0));
        request.dst = to + "/stop" + std::to_string(stopAt);
        int asked = 0;
        callbacks.isCancel = [&] { return ++asked >= stopAt ? 1 : 0; };
        EXPECT_EQ(0, copy()) << stopAt;
        EXPECT_NE(old[1].tv_sec, kit::statOf(request.dst).st_mtim.tv_sec) << "no metadata after a cancellation";
        EXPECT_LT(kit::namesIn(request.dst).size(), 5U);
        if (stopAt == 1) {
            EXPECT_TRUE(kit::namesIn(request.dst).empty());
        }
    }
    expectNotReported();
}

TEST_P(TreeWalk, NotAskedForWhatIsHidden) {
    putDirectory("@eaDir");
    putFile("._x");
    int asked = 0;
    callbacks.isCancel = [&] { return ++asked, 0; };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, asked);
}

// ---- Names
// --------------------------------------------------------------------------------------------------------------

TEST_P(TreeWalk, DestinationNamesComeFromTheCallback) {
    putSample();
    callbacks.srcCodePage = "CP950";
    callbacks.destCodePage = "UTF-8";
    std::vector<std::string> asked;
    callbacks.name = [&](const std::string &name, std::string &out) {
        asked.push_back(name);
        out = "new-" + name;
        return name == "b" ? -1 : name == "c" ? 3 : 0;
    };
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(dst("new-sub/new-deep/new-c")));
    EXPECT_TRUE(kit::exists(dst("new-sub/b")));
    EXPECT_TRUE(kit::exists(dst("new-sub/new-link")));
    EXPECT_TRUE(kit::exists(dst("new-a")));
    std::sort(asked.begin(), asked.end());
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c", "deep", "empty", "link", "sub"}), asked);
}

TEST_P(TreeWalk, ReservedCharactersAreReplacedAtEveryLevelOfFat) {
    for (const int kind : {0, 18}) {
        kit::PlatformDouble::setType(to, kind);
        const std::string name = "kind" + std::to_string(kind);
        request.dst = to + "/" + name + ":top";
        if (kind == 0) {
            putDirectory("a?b");
            putDirectory("a?b/c*d");
            putFile("a?b/c*d/e|f");
        }
        EXPECT_EQ(0, copy()) << kit::Log::all();
        EXPECT_EQ("data", kit::readFile(to + "/" + name + "-top/a-b/c-d/e-f"));
    }
}

TEST_P(TreeWalk, FilesGoThroughTheCallbackInPlaceOfTheCopy) {
    putDirectory("sub");
    putFile("sub/file");
    std::vector<std::pair<std::string, std::string>> calls;
    callbacks.copyFile = [&](const std::string &one, const std::string &two) {
        calls.emplace_back(one, two);
        return 0;
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{src("sub/file"), dst("sub/file")}}), calls);
    EXPECT_FALSE(kit::exists(dst("sub/file")));
}

TEST_F(Scene, CopyFileCallbackOfTheExRecordGetsTheArgumentsOfTheCopy) {
    putFile("file");
    struct Seen {
        VEXOCopyOpt *opt;
        int srcType, dstType, spare;
        VEXOCopyArgsEx *ex;
    };
    static Seen seen;
    VEXOCopyOpt opt{};
    VEXOCopyArgsEx ex{};
    ex.copyFile = [](const char *, const char *, VEXOCopyOpt *o, int s, int d, int spare, VEXOCopyArgsEx *e) {
        seen = {o, s, d, spare, e};
        return 0;
    };
    EXPECT_EQ(0, VEXOFileCopyDirectoryEx(request.src.c_str(), request.dst.c_str(), &opt, &ex));
    EXPECT_EQ(&opt, seen.opt);
    EXPECT_EQ(-1, seen.srcType);
    EXPECT_EQ(1, seen.dstType);
    EXPECT_EQ(0, seen.spare);
    EXPECT_EQ(&ex, seen.ex);
}

TEST_F(Scene, CopyFileCallbackOfTheFileOpRecordGetsFlagsAndRecord) {
    putFile("file");
    struct Seen {
        uint32_t flags;
        VEXOCopyArgs *args;
    };
    Seen seen{};
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = -1;
    args.copyFileArg = &seen;
    args.copyFile = [](void *data, const char *, const char *, uint32_t flags, VEXOCopyArgs *record) {
        *static_cast<Seen *>(data) = {flags, record};
        return 0;
    };
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kCopyAcl | kNoEa, &args));
    EXPECT_EQ(static_cast<uint32_t>(kCopyAcl | kNoEa), seen.flags);
    EXPECT_EQ(&args, seen.args);
}

// ---- Into itself
// --------------------------------------------------------------------------------------------------------

TEST_P(TreeWalk, CopyBelowItselfLeavesItselfOut) {
    putSample();
    const kit::Fingerprint before = sourceNow();
    request.dst = src("sub/inside");
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(dst("sub/inside"))) << "the copy is not copied";
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.dst),
                                      {"owner", "accessed", "modified", "created", "holes", "attributes"}));
    EXPECT_TRUE(kit::readFile(src("a")) == kit::pattern(5000));
}

TEST_P(TreeWalk, CopyIntoItselfChangesNothing) {
    putSample();
    const kit::Fingerprint before = sourceNow();
    request.dst = request.src;
    for (const int overwrite : {0, 1}) {
        request.overwrite = overwrite;
        copy();
        EXPECT_EQ("", before.differenceTo(sourceNow(), {"owner", "accessed", "created", "modified", "attributes"}))
            << overwrite;
        request.dst = request.src + "/.";
    }
}

TEST_P(TreeWalk, MoveBelowItselfIsRefused) {
    putSample();
    const kit::Fingerprint before = sourceNow();
    request.move = true;
    request.dst = src("sub/inside");
    EXPECT_FAILS(copy(), 0x8000);
    EXPECT_EQ("", before.differenceTo(sourceNow(), {"accessed"}));
    expectLine("rename [" + request.src + "] to [" + request.dst + "] fail reason[" + reason(EINVAL) + "]");
}

// ---- What a directory is
// ---------------------------------------------------------------------------------------------

TEST_P(TreeWalk, NewDirectoriesGetSetIdBitsWithTheirOwner) {
    TREE_NEEDS_ROOT();
    for (const mode_t mode : {02755U, 04711U, 07777U, 01777U}) {
        putDirectory("mode" + std::to_string(mode));
        ASSERT_EQ(0, ::chmod(src("mode" + std::to_string(mode)).c_str(), mode));
    }
    putDirectory("merged");
    ASSERT_EQ(0, ::chmod(src("merged").c_str(), 06755));
    makeDirectory(request.dst);
    makeDirectory(dst("merged"));
    for (const bool keepOwner : {false, true}) {
        request.keepOwner = keepOwner;
        request.dst = to + (keepOwner ? "/kept" : "/given");
        makeDirectory(request.dst);
        makeDirectory(dst("merged"));
        EXPECT_EQ(0, copy());
        for (const mode_t mode : {02755U, 04711U, 07777U, 01777U}) {
            EXPECT_EQ(mode, kit::statOf(dst("mode" + std::to_string(mode))).st_mode & 07777U);
        }
        EXPECT_EQ(0755U, kit::statOf(dst("merged")).st_mode & 07777U) << "its own";
    }
}

TEST_P(TreeWalk, SetIdBitsStayAwayWhereTheOwnerIsNotSet) {
    TREE_NEEDS_ROOT();
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 06755));
    kit::Faults::failAlways("fchown", EPERM, request.dst);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0755U, kit::statOf(request.dst).st_mode & 07777U);
    kit::Faults::reset();
    kit::PlatformDouble::setType(to, 12); // which keeps no owners
    request.dst = to + "/remote";
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0755U, kit::statOf(request.dst).st_mode & 07777U);
}

TEST_P(TreeWalk, SetIdBitsThatCannotBeSetAreLogged) {
    TREE_NEEDS_ROOT();
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 02755));
    kit::Faults::failAlways("fchmod", EROFS, request.dst);
    EXPECT_EQ(0, copy());
    expectLine("failed to fchmod destination to mode=2755, errno=30/" + std::string(std::strerror(EROFS)));
}

// ---- One directory under two names, and paths without a name
// ---------------------------------------------------------

TEST_P(TreeWalk, RemoteDestinationInTheSourceIsKnownByItsPath) {
    kit::PlatformDouble::setType(scratch.path(), 12);
    putSample();
    ASSERT_EQ(0, ::unlink(src("sub/link").c_str())); // which the volume does not hold
    ASSERT_EQ(0, ::symlink(request.src.c_str(), (from + "/link").c_str()));
    for (const std::string &inside : {src("sub/inside"), from + "/link/sub/linked", from + "/./tree/sub/dotted"}) {
        request.dst = inside;
        EXPECT_EQ(0, copy());
        EXPECT_TRUE(kit::exists(dst("sub/b")));
        EXPECT_FALSE(kit::exists(dst("sub/" + inside.substr(inside.rfind('/') + 1)))) << "the copy is not copied";
    }
}

TEST_P(TreeWalk, MoveOntoItselfByAnotherNameRemovesNothing) {
    KIT_REQUIRE(other, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    putSample();
    ASSERT_EQ(0, ::unlink(src("sub/link").c_str())); // which would be made anew
    putStore(src("empty"), "", "mine");
    for (const int type : {1, 12}) {
        kit::PlatformDouble::setType(scratch.path(), type);
        makeDirectory(request.dst);
        const kit::Fingerprint before = kit::Fingerprint::of(request.src);
        request.move = true;
        request.overwrite = 1;
        if (type == 1) {
            ASSERT_EQ(0, ::mount(request.src.c_str(), request.dst.c_str(), nullptr, MS_BIND, nullptr));
        } else {
            ASSERT_EQ(0, ::rmdir(request.dst.c_str()));
            ASSERT_EQ(0, ::symlink(request.src.c_str(), request.dst.c_str()));
            acrossVolumes();
        }
        EXPECT_EQ(0, copy());
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(request.src),
                                          {"owner", "accessed", "modified", "created", "attributes"}));
        EXPECT_TRUE(kit::exists(src("empty/@eaDir")));
        if (type == 1) {
            ASSERT_EQ(0, ::umount(request.dst.c_str()));
            ASSERT_EQ(0, ::rmdir(request.dst.c_str()));
        }
    }
}

TEST_P(TreeWalk, DestinationWithoutANameOfItsOwnIsRefused) {
    putSample();
    makeDirectory(request.dst);
    kit::writeFile(to + "/a", "the neighbour's");
    putStore(to, "copy", "its own");
    putStore(request.dst, "", "its own");
    const kit::Fingerprint before = kit::Fingerprint::of(to);
    const std::string directory = request.dst;
    request.overwrite = 1;
    for (const bool move : {false, true}) {
        request.move = move;
        for (const char *name : {"/.", "/..", "/./", "/.//", "/../"}) {
            request.dst = directory + name;
            EXPECT_FAILS(copy(), 0x0D00);
        }
        request.dst = "/";
        EXPECT_FAILS(copy(), 0x0D00);
    }
    expectNotReported();
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(to), {"accessed"}));
    EXPECT_TRUE(kit::exists(src("sub/b")));
}

TEST_P(TreeWalk, MoveOfASourceWithoutANameOfItsOwnIsRefused) {
    putSample();
    const std::string directory = request.src;
    request.move = true;
    for (const char *name : {"/.", "/sub/..", "/./"}) {
        request.src = directory + name;
        EXPECT_FAILS(copy(), 0x0D00);
        EXPECT_FALSE(kit::exists(request.dst));
    }
}

TEST_P(TreeWalk, SlashesAndDotsBehindTheNamesAreNotPartOfThem) {
    KIT_NEEDS_TO_MAKE_STORES();
    putSample();
    putStore(from, "tree", "mine");
    const std::string source = request.src;
    int number = 0;
    for (const char *name : {"/", "//", "/.", "/././/"}) {
        request.src = source + name;
        const std::string copied = "copy" + std::to_string(++number);
        request.dst = to + "/" + copied + "/";
        EXPECT_EQ(0, copy());
        EXPECT_EQ("mine", storeOf(to, copied)) << name;
        EXPECT_TRUE(kit::exists(to + "/" + copied + "/sub/b"));
    }
    request.src = source + "/";
    request.dst = to + "/moved//";
    request.move = true;
    EXPECT_EQ(0, copy());
    EXPECT_EQ("mine", storeOf(to, "moved"));
    EXPECT_FALSE(kit::exists(source));
}

TEST_P(TreeWalk, LinkWithASlashBehindItIsNotMoved) {
    putSample();
    ASSERT_EQ(0, ::symlink(request.src.c_str(), (from + "/link").c_str()));
    request.src = from + "/link/";
    request.move = true;
    EXPECT_EQ(-1, copy());
    EXPECT_TRUE(kit::exists(from + "/link"));
    EXPECT_FALSE(kit::exists(request.dst));
}

// The record holds the types: nobody asks for them again.
TEST_F(Scene, FileOperationAsksForNoTypeThatItsRecordHolds) {
    putSample();
    kit::Faults::record(true);
    VEXOCopyArgs args = argsOf(request, callbacks);
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kNoEa, &args));
    EXPECT_EQ(2, kit::Faults::count("VEXOGetFSType")) << "one of either volume";
    kit::Faults::reset();
    kit::Faults::record(true);
    request.dst += "-again";
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kNoEa, &args));
    EXPECT_EQ(0, kit::Faults::count("VEXOGetFSType"));
    EXPECT_EQ(kit::pattern(70000, 2), kit::readFile(dst("sub/b")));
}

} // namespace
} // namespace tree
