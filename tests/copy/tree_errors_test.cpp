// What a directory copy answers, sets and logs when one of its own steps fails.
#include "tests/copy/tree_support.h"

namespace tree {
namespace {

using Rows = std::tuple<Family, Row>;
#define TREE_ROWS(Suite, ...)                                                                                          \
    class Suite : public FamilyAndRow {                                                                                \
      protected:                                                                                                       \
        void expectLineOnlyFor(uint32_t code, const std::string &body) {                                               \
            const bool logged = row().code == code;                                                                    \
            expectLogged(source(), LOG_ERR, body, logged ? 1 : 0);                                                     \
            EXPECT_EQ(logged ? 1 : 0, linesOf(source(), LOG_ERR)) << kit::Log::all();                                  \
        }                                                                                                              \
    };                                                                                                                 \
    INSTANTIATE_TEST_SUITE_P(, Suite, ::testing::Combine(kFamilies, ::testing::Values(__VA_ARGS__)), familyRowName);   \
    TEST_P(Suite, FailsAndIsReported)

TREE_ROWS(TreeRename, Row{EPERM, 0x0300}, Row{EACCES, 0x0300}, Row{EROFS, 0x0300}, Row{ENOENT, 0x0700},
          Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00}, Row{EHOSTDOWN, 0x1100}, Row{EINVAL, 0x8000}, Row{ENOSPC, 0x8000},
          Row{ENOTDIR, 0x8000}, Row{ENAMETOOLONG, 0x8000}) {
    request.move = true;
    kit::Faults::failAlways("rename", row().number);
    EXPECT_FAILS(copy(), row().code);
    const bool second = row().code == 0x1100 || row().code == 0x8000;
    expectLogged(
        source(), LOG_ERR,
        second ? "rename [" + request.src + "] to [" + request.dst + "] fail reason[" + reason(row().number) + "]"
               : "rename fail from(" + request.src + ") to(" + request.dst + ") reason[" + reason(row().number) + "]");
    EXPECT_EQ(1, linesOf(source(), LOG_ERR)) << kit::Log::all();
    expectNotReported();
    EXPECT_TRUE(kit::exists(request.src));
    EXPECT_FALSE(kit::exists(request.dst));
}

TREE_ROWS(TreeOpenSource, Row{EACCES, 0x0300}, Row{ENOENT, 0x0700}, Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
          Row{EHOSTDOWN, 0x1100}, Row{EMFILE, 0x8000}, Row{EPERM, 0x8000}) {
    kit::Faults::failAlways("opendir", row().number, request.src);
    EXPECT_FAILS(copy(), row().code);
    expectReported(request.src, row().code);
    expectLineOnlyFor(0x8000, "failed to opendir: source dir name = " + request.src + ", reason=[" +
                                  reason(row().number) + "]");
    EXPECT_FALSE(kit::exists(request.dst));
}

TREE_ROWS(TreeStatSource, Row{EACCES, 0x0300}, Row{ENOENT, 0x0700}, Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
          Row{EHOSTDOWN, 0x1100}, Row{ELOOP, 0x2700}) {
    VLIBCErrSetEx(0x1234, "earlier", 1);
    kit::Faults::failAlways("VLIBCFileStat", row().number, request.src);
    EXPECT_FAILS(copy(), row().code);
    expectNotReported();
    expectLogged(source(), LOG_ERR,
                 "VLIBCFileStat: (" + request.src + "), " + std::strerror(row().number) + ", vexoerr=1234.");
    EXPECT_FALSE(kit::exists(request.dst));
}

TREE_ROWS(TreeMakeDestination, Row{EPERM, 0x0300}, Row{EACCES, 0x0300}, Row{ENOENT, 0x0600}, Row{EIO, 0x6C00},
          Row{ENXIO, 0x6C00}, Row{ENAMETOOLONG, 0xC300}, Row{ENOSPC, 0x2900}, Row{EROFS, 0x8400},
          Row{EHOSTDOWN, 0x1100}, Row{EDQUOT, 0x2400}, Row{EMLINK, 0x8000}, Row{ENOTDIR, 0x8000}) {
    kit::Faults::failAlways("mkdir", row().number, request.dst);
    EXPECT_FAILS(copy(), row().code);
    expectReported(request.dst, row().code);
    expectLineOnlyFor(0x8000, "failed to mkdir path = " + request.dst + ", reason=[(" + std::to_string(row().number) +
                                  ")/" + std::strerror(row().number) + "]");
}

// The destination exists, but looking at it fails: it is not known to be a directory then, and that is what is said.
TREE_ROWS(TreeStatDestination, Row{ENOENT, 0xA000}, Row{EACCES, 0xA000}, Row{EIO, 0xA000}, Row{ELOOP, 0xA000}) {
    makeDirectory(request.dst);
    kit::Faults::failAlways("stat", row().number, request.dst);
    EXPECT_FAILS(copy(), row().code);
    expectReported(request.dst, row().code);
    const bool logged = row().number != ENOENT && row().number != EACCES;
    expectLogged(source(), LOG_ERR,
                 "failed to stat destination path = " + request.dst + ", reason=[" + reason(row().number) + "]",
                 logged);
    EXPECT_EQ(logged ? 1 : 0, linesOf(source(), LOG_ERR)) << kit::Log::all();
}

TREE_ROWS(TreeStatAfterRename, Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00}, Row{EHOSTDOWN, 0x1100}, Row{EACCES, 0}) {
    request.move = true;
    kit::Faults::failAlways("stat", row().number, request.dst);
    EXPECT_FAILS(copy(), row().code);
    expectLogged(source(), LOG_ERR,
                 "failed to get size of [" + request.dst + "], reason=[" + reason(row().number) + "]");
    EXPECT_TRUE(callbacks.progress.empty());
}

// After the walk. An empty directory has no failed entry, so the call succeeds although this failed.
TREE_ROWS(TreeStatAgain, Row{EACCES, 0x0300}, Row{ENOENT, 0x0700}, Row{EIO, 0x2700}, Row{EHOSTDOWN, 0x2700}) {
    kit::Faults::failAlways("VLIBCFileFStat", row().number, request.src);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(row().code, VLIBCErrGet());
    expectLogged(source(), LOG_ERR,
                 "failed to stat source path = " + request.dst + ", reason=[" + reason(row().number) + "]");
    expectNotReported();
}

TREE_ROWS(TreeOpenDestination, Row{EACCES, 0x0300}, Row{ENOENT, 0x0600}, Row{EIO, 0x6C00}, Row{ENXIO, 0x6C00},
          Row{EHOSTDOWN, 0x1100}, Row{EPERM, 0x8000}) {
    kit::Faults::failAlways("opendir", row().number, request.dst);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(row().code, VLIBCErrGet());
    expectLineOnlyFor(0x8000, "failed to open dest path = " + request.dst + ", reason=[" + reason(row().number) + "]");
}

class TreeErrors : public BothFamilies {};
INSTANTIATE_TEST_SUITE_P(, TreeErrors, kFamilies, familyName);

// Another attempt could finish the directory, so it stays where it was.
TEST_P(TreeErrors, DirectoryThatCannotBeFinishedForWantOfDescriptorsHasFailed) {
    for (const int number : {EMFILE, ENFILE}) {
        kit::Faults::reset();
        acrossVolumes();
        kit::Faults::failAlways("opendir", number, request.dst);
        request.move = true;
        request.overwrite = 1;
        EXPECT_FAILS(copy(), 0x8000);
        expectReported(request.dst, 0x8000);
        EXPECT_TRUE(kit::exists(request.src));
        callbacks.reports.clear();
        ::rmdir(request.dst.c_str());
    }
}

TEST_P(TreeErrors, AfterTheWalkTheLastEntrysFailureIsTheResult) {
    ASSERT_EQ(0, ::mkfifo(src("pipe").c_str(), 0644));
    kit::Faults::failAlways("VLIBCFileFStat", EIO, request.src);
    EXPECT_FAILS(copy(), 0x2700);
}

TEST_P(TreeErrors, DestinationThatIsAFile) {
    kit::writeFile(request.dst, "here first");
    EXPECT_FAILS(copy(), 0xA000);
    expectReported(request.dst, 0xA000);
    EXPECT_EQ("here first", kit::readFile(request.dst));
}

TEST_P(TreeErrors, DanglingLinkInPlaceOfTheDestination) {
    ASSERT_EQ(0, ::symlink("nowhere", request.dst.c_str()));
    EXPECT_FAILS(copy(), 0xA000);
    EXPECT_FALSE(kit::exists(to + "/nowhere"));
}

TEST_P(TreeErrors, MissingParent) {
    request.dst = to + "/no/parent";
    EXPECT_FAILS(copy(), 0x0600);
    expectReported(request.dst, 0x0600);
}

TEST_P(TreeErrors, SourceThatIsAFile) {
    request.src = from + "/file";
    kit::writeFile(request.src, "x");
    EXPECT_FAILS(copy(), 0x8000);
    EXPECT_FALSE(kit::exists(request.dst));
}

TEST_P(TreeErrors, FatNameThatCannotBeMade) {
    kit::PlatformDouble::setType(to, 0);
    request.dst = to + "/" + std::string(4096, 'x');
    EXPECT_EQ(-1, copy());
    EXPECT_FALSE(kit::exists(request.dst));
}

TEST_P(TreeErrors, OtherSpellingsOfTheSameFolderWork) {
    putFile("file");
    request.dst += "/";
    request.src += "/";
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(to + "/copy/file"));
}

// ---- Volumes' types
// ---------------------------------------------------------------------------------------------------

class TreeTypes : public FamilyAndRow {
  protected:
    void expectSaid(const std::string &path) {
        expectLogged(source(), LOG_ERR,
                     std::get<0>(GetParam()) == Family::opt
                         ? "failed to statfs " + path + ", reason=[" + reason(row().number) + "]"
                         : "VEXOGetFSType [" + path + "] failed. (" + std::strerror(row().number) + ")");
        EXPECT_EQ(1, linesOf(source(), LOG_ERR)) << kit::Log::all();
        expectNotReported();
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeTypes,
                         ::testing::Combine(kFamilies, ::testing::Values(Row{EIO, 0x0600}, Row{ENOENT, 0x0600},
                                                                         Row{ENOTDIR, 0x0600}, Row{EACCES, 0x0300},
                                                                         Row{EINVAL, 0x1234})),
                         familyRowName);
TEST_P(TreeTypes, OfTheSource) {
    VLIBCErrSetEx(0x1234, "earlier", 1);
    kit::PlatformDouble::setType(request.src, -1, row().number);
    EXPECT_FAILS(copy(), row().code);
    expectSaid(request.src);
}
TEST_P(TreeTypes, OfTheDestinationsParent) {
    VLIBCErrSetEx(0x1234, "earlier", 1);
    kit::PlatformDouble::setType(to, -1, row().number);
    EXPECT_FAILS(copy(), row().code);
    expectSaid(to);
    EXPECT_FALSE(kit::exists(request.dst));
}

TEST_F(Scene, NullPathsAreRefused) {
    const char *path = request.src.c_str();
    VEXOCopyOpt opt{};
    EXPECT_FAILS(VEXOFileCopyDirectory(nullptr, path, &opt), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOFileCopyDirectory(path, nullptr, nullptr), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOFileCopyDirectoryEx(nullptr, nullptr, nullptr, nullptr), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOFileReflinkCopyDirectory(path, nullptr, &opt), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyDirectoryI(nullptr, path, &opt, 1, 1), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyDirectoryExI(path, nullptr, &opt, 1, 1, 0, nullptr), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOFileOpCopyDir(nullptr, path, 0, nullptr), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOFileOpCopyDir(path, nullptr, kRelocate, nullptr), 0x0D00);
}

TEST_F(Scene, OptionsMayBeMissing) {
    putSample();
    EXPECT_EQ(0, VEXOFileCopyDirectory(request.src.c_str(), (to + "/1").c_str(), nullptr));
    EXPECT_EQ(0, VEXOFileCopyDirectoryEx(request.src.c_str(), (to + "/2").c_str(), nullptr, nullptr));
    EXPECT_EQ(0, VEXOFileReflinkCopyDirectory(request.src.c_str(), (to + "/3").c_str(), nullptr));
    EXPECT_EQ(0, VEXOCopyDirectoryI(request.src.c_str(), (to + "/4").c_str(), nullptr, 1, 1));
    EXPECT_EQ(0, VEXOCopyDirectoryExI(request.src.c_str(), (to + "/5").c_str(), nullptr, 1, 1, 77, nullptr));
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), (to + "/6").c_str(), 0, nullptr));
    for (const char *name : {"1", "2", "3", "4", "5", "6"}) {
        EXPECT_EQ("", kit::Fingerprint::of(request.src)
                          .differenceTo(kit::Fingerprint::of(to + "/" + name),
                                        {"owner", "accessed", "modified", "created", "holes", "attributes"}));
    }
}

TEST_F(Scene, UmaskIsClearedByTheDoorsThatLookTheTypesUp) {
    ASSERT_EQ(0, ::chmod(request.src.c_str(), 0777));
    const mode_t before = ::umask(0027);
    EXPECT_EQ(0, VEXOFileCopyDirectory(request.src.c_str(), (to + "/1").c_str(), nullptr));
    EXPECT_EQ(0, VEXOFileReflinkCopyDirectory(request.src.c_str(), (to + "/2").c_str(), nullptr));
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), (to + "/3").c_str(), 0, nullptr));
    EXPECT_EQ(0, VEXOCopyDirectoryI(request.src.c_str(), (to + "/4").c_str(), nullptr, 1, 1));
    EXPECT_EQ(0027U, ::umask(before));
    for (const char *name : {"1", "2", "3"}) {
        EXPECT_EQ(0777U, kit::statOf(to + "/" + name).st_mode & 07777U) << name;
    }
    EXPECT_EQ(0750U, kit::statOf(to + "/4").st_mode & 07777U);
}

TEST_F(Scene, DoorsWithGivenTypesLookNoneUp) {
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOCopyDirectoryI(request.src.c_str(), request.dst.c_str(), nullptr, 1, 1));
    EXPECT_EQ(0, kit::Faults::count("VEXOGetFSType"));
}

TEST_F(Scene, ClonesAreTriedOnlyByTheCloningDoor) {
    putFile("file");
    kit::PlatformDouble::setType(scratch.path(), 3);
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOFileCopyDirectory(request.src.c_str(), (to + "/plain").c_str(), nullptr));
    EXPECT_EQ(0, kit::Faults::count("VEXOFSMntPathGet") + kit::Faults::count("ioctl"));
    EXPECT_EQ(0, VEXOFileReflinkCopyDirectory(request.src.c_str(), (to + "/cloned").c_str(), nullptr));
    EXPECT_LT(0, kit::Faults::count("VEXOFSMntPathGet") + kit::Faults::count("ioctl") +
                     kit::Faults::count("VLIBCFileGetKeyValue"));
    EXPECT_EQ("data", kit::readFile(to + "/cloned/file"));
}

// ---- The record of the file-operation family
// -----------------------------------------------------------------------------

TEST_F(Scene, WhatTheRecordDoesNotTellIsWrittenBack) {
    kit::PlatformDouble::setType(from, 2);
    kit::PlatformDouble::setType(to, 0);
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = -1;
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), 0, &args));
    EXPECT_EQ(2, args.fsTypeSrc);
    EXPECT_EQ(0, args.fsTypeDst);
    EXPECT_EQ(_VEXOCopyFsFileSizeLimitGet(to.c_str(), 0), args.dstFsFileSizeLimit);
    EXPECT_NE(0U, args.dstFsFileSizeLimit);
}

TEST_F(Scene, WhatTheRecordTellsIsKept) {
    putFile("file", "longer than three");
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = 1;
    args.dstFsFileSizeLimit = 3;
    kit::PlatformDouble::setType(scratch.path(), -1, EIO);
    EXPECT_EQ(-1, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), kStopOnError, &args));
    EXPECT_EQ(0xAA00U, VLIBCErrGet());
    EXPECT_EQ(3U, args.dstFsFileSizeLimit);
    EXPECT_EQ(1, args.fsTypeSrc);
    EXPECT_FALSE(kit::exists(dst("file")));
}

TEST_F(Scene, FileOverTheRecordsLimitLeavesNothingBehind) {
    putFile("file", "longer than three");
    putFile("few", "abc");
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = -1;
    args.dstFsFileSizeLimit = 3;
    EXPECT_EQ(0, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), 0, &args));
    EXPECT_FALSE(kit::exists(dst("file")));
    EXPECT_EQ("abc", kit::readFile(dst("few")));
}

TEST_P(TreeErrors, ErrorCallbackCannotHideTheCause) {
    const std::string inTheWay = request.dst;
    kit::writeFile(inTheWay, "no directory");
    callbacks.onReport = [] { VLIBCErrSetEx(0x1234, "elsewhere.c", 1); };
    EXPECT_FAILS(copy(), 0xA000);
    expectReported(inTheWay, 0xA000);
}

TEST_F(Scene, RecordsTypesAreWrittenBackEvenWhenTheCopyFails) {
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = -1;
    kit::writeFile(request.dst, "in the way");
    EXPECT_EQ(-1, VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), 0, &args));
    EXPECT_EQ(1, args.fsTypeSrc);
    EXPECT_EQ(1, args.fsTypeDst);
}

TEST_F(Scene, MemoryForTheMissingRecordCanRunOut) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    const int result = VEXOFileOpCopyDir(request.src.c_str(), request.dst.c_str(), 0, nullptr);
    kit::Faults::failAllocation(0);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0x0200U, VLIBCErrGet());
    EXPECT_FALSE(kit::exists(request.dst));
}

} // namespace
} // namespace tree
