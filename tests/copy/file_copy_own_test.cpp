// The single-file copies where only their author knows where to look: what is left behind when a late step fails, who
// keeps the last error, and how often the file system is asked.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

// What the callbacks saw, and how they answer.
struct Calls {
    std::vector<std::string> reports; // "path 0xCODE"
    std::string newName;
    int cancelAnswer = 0;
    int cancelPolls = 0;
};
Calls calls;

void note_report(const char *path, uint32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, " 0x%04X", code);
    calls.reports.push_back(path + std::string(text));
    VLIBCErrSetEx(0x1234, "a callback of the caller", 1);
    errno = EXFULL;
}

int answer_cancel() {
    ++calls.cancelPolls;
    VLIBCErrSetEx(0x4321, "a callback of the caller", 2);
    return calls.cancelAnswer;
}

void note_report_with_data(void *, const char *path, uint32_t code) {
    note_report(path, code);
}

int answer_cancel_with_data(void *) {
    return answer_cancel();
}

class FileCopyOwn : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        calls = Calls();
        source = scratch / "source";
        target = scratch / "target";
        kit::writeFile(source, content, 0640);
        kit::PlatformDouble::setType(scratch.path(), 1);
        options.errReport = note_report;
        options.isCancel = answer_cancel;
    }
    int copy() { return VEXOFileCopy(source.c_str(), target.c_str(), &options); }
    int moveAcrossVolumes() {
        options.move = 1;
        kit::Faults::fail("rename", EXDEV);
        return copy();
    }

    const std::string content = kit::pattern(100'000);
    std::string source, target;
    VEXOCopyOpt options{};
};

TEST_F(FileCopyOwn, SetIdBitsStayWithTheirOwnerAndNoOther) {
    ASSERT_EQ(0, ::chmod(source.c_str(), 06755));
    options.ownerMode = 1;
    ASSERT_EQ(0, copy());
    EXPECT_EQ(06755u, kit::statOf(target).st_mode & 07777u);

    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a file away";
    }
    options.ownerMode = 0;
    ASSERT_EQ(0, VEXOFileCopy(source.c_str(), (scratch / "given away").c_str(), &options));
    EXPECT_EQ(0755u, kit::statOf(scratch / "given away").st_mode & 07777u);
    EXPECT_EQ(1024u, kit::statOf(scratch / "given away").st_uid);
    EXPECT_EQ(100u, kit::statOf(scratch / "given away").st_gid);
}

TEST_F(FileCopyOwn, SetIdBitsThatCannotComeBackAreOnlyALine) {
    ASSERT_EQ(0, ::chmod(source.c_str(), 06755));
    options.ownerMode = 1;
    kit::Faults::fail("fchmod", EPERM, "target");
    EXPECT_EQ(0, copy());
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "failed to fchmod destination to mode=6755, errno=1/" +
                                              std::string(std::strerror(EPERM))))
        << kit::Log::all();
}

TEST_F(FileCopyOwn, ReplacedFileKeepsItsOwnMode) {
    kit::writeFile(target, "old", 0600);
    ASSERT_EQ(0, ::chmod(source.c_str(), 04755));
    options.ownerMode = 1;
    options.overwrite = 1;
    ASSERT_EQ(0, copy());
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_EQ(0600u, kit::statOf(target).st_mode & 07777u);
}

TEST_F(FileCopyOwn, DataLostAtCloseFailTheCopy) {
    kit::Faults::fail("close", EDQUOT, "target");
    EXPECT_FAILS(copy(), 0x2400);
    EXPECT_FALSE(kit::exists(target));
    EXPECT_EQ(std::vector<std::string>{source + " 0x2400"}, calls.reports);
    EXPECT_EQ(
        1, kit::Log::count(LOG_ERR, "failed to close destination [" + target + "], errno=122/" + std::strerror(EDQUOT)))
        << kit::Log::all();
}

TEST_F(FileCopyOwn, CloseThatLosesNothingIsNoFailure) {
    kit::Faults::fail("close", EINTR, "target");
    EXPECT_EQ(0, copy());
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_EQ(std::string::npos, kit::Log::all().find("failed to close")) << kit::Log::all();
}

TEST_F(FileCopyOwn, DataLostAtCloseKeepTheSourceOfAMove) {
    kit::Faults::fail("close", EIO, "target");
    EXPECT_FAILS(moveAcrossVolumes(), 0x0600);
    EXPECT_FALSE(kit::exists(target));
    EXPECT_EQ(content, kit::readFile(source));
}

TEST_F(FileCopyOwn, DestinationThatCannotBeCheckedIsNotLeftBehind) {
    kit::Faults::fail("fstat", EIO, "target");
    EXPECT_FAILS(copy(), 0x6C00);
    EXPECT_FALSE(kit::exists(target));

    options.overwrite = 1;
    kit::Faults::fail("fstat", ENOMEM, "target");
    EXPECT_FAILS(copy(), 0x8000);
    EXPECT_FALSE(kit::exists(target));
    EXPECT_EQ(content, kit::readFile(source));
}

TEST_F(FileCopyOwn, SpecialFileAtTheDestinationIsRefusedAndStays) {
    ASSERT_EQ(0, ::mkfifo(target.c_str(), 0600));
    const int reader = ::open(target.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_LE(0, reader);
    options.overwrite = 1;
    EXPECT_FAILS(copy(), 0x8000);
    EXPECT_TRUE(S_ISFIFO(kit::statOf(target).st_mode));
    EXPECT_EQ(std::vector<std::string>{source + " 0x8000"}, calls.reports);
    ::close(reader);
}

TEST_F(FileCopyOwn, MissingDirectoryKeepsTheCodeOfOpen) {
    const std::string deep = scratch / "none/target";
    EXPECT_FAILS(VEXOCopyFileExI(source.c_str(), deep.c_str(), &options, 1, 1, 1, nullptr), 0x0900);
    EXPECT_EQ(1u, calls.reports.size());
}

TEST_F(FileCopyOwn, OldErrnoIsNotTakenForTheReason) {
    errno = EIO;
    EXPECT_FAILS(VEXOCopyFileExI(scratch.path().c_str(), target.c_str(), nullptr, 1, 1, 1, nullptr), 0x8000);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "failed to check [" + scratch.path() + "] [(0)Success]")) << kit::Log::all();
}

TEST_F(FileCopyOwn, NameTooLongForTheFixUpIsRefusedNotCut) {
    kit::PlatformDouble::setType(scratch.path(), 0);
    std::string deep = scratch.path();
    while (deep.size() <= 4096) {
        deep += "/d";
    }
    EXPECT_FAILS(VEXOCopyFileI(source.c_str(), deep.c_str(), &options, 0, 1), 0xC300);
    EXPECT_EQ(std::vector<std::string>{source + " 0xC300"}, calls.reports);
}

TEST_F(FileCopyOwn, CallbacksDoNotSpeakOverTheCause) {
    kit::Faults::fail("write", ENOSPC, "target");
    kit::Faults::fail("sendfile", ENOSPC, "target");
    EXPECT_FAILS(copy(), 0x2900);
    EXPECT_FALSE(kit::exists(target));
    EXPECT_EQ(std::vector<std::string>{source + " 0x2900"}, calls.reports);
    EXPECT_LE(1, calls.cancelPolls);
}

TEST_F(FileCopyOwn, PartialDestinationThatStaysIsLoggedUnderTheCause) {
    kit::Faults::fail("write", EFBIG, "target");
    kit::Faults::fail("remove", EROFS, "target");
    EXPECT_FAILS(copy(), 0xAA00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "remove dst: [" + target + "] error(30)" + std::strerror(EROFS)))
        << kit::Log::all();
}

TEST_F(FileCopyOwn, UnterminatedNameFromTheCallbackIsBounded) {
    kit::writeFile(target, "old");
    options.rename = [](const char *, char *out, int size) {
        std::memset(out, 'x', static_cast<size_t>(size));
        return 0;
    };
    EXPECT_FAILS(copy(), 0xC300);
    EXPECT_EQ("old", kit::readFile(target));
}

TEST_F(FileCopyOwn, CallbackMayPutOtherDescriptorsInPlace) {
    VEXOCopyArgsEx extra{};
    extra.readWriteData = [](const char *, const char *dst, int *srcFd, int *dstFd, int64_t, VEXOCopyBareProgressFn,
                             VEXOCopyBareIsCancelFn, VEXOCopyArgsEx *) {
        ::close(*srcFd);
        *srcFd = -1;
        ::close(*dstFd);
        *dstFd = ::open(dst, O_WRONLY | O_TRUNC);
        return static_cast<int>(::write(*dstFd, "mine", 4));
    };
    EXPECT_EQ(0, VEXOFileCopyEx(source.c_str(), target.c_str(), &options, &extra));
    EXPECT_EQ("mine", kit::readFile(target));
}

TEST_F(FileCopyOwn, SourceThatCannotBeRemovedIsLoggedAndTheMoveSucceeds) {
    kit::Faults::fail("unlink", EACCES, "source");
    EXPECT_EQ(0, moveAcrossVolumes());
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_EQ(content, kit::readFile(source));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "failed to remove source [" + source + "], reason=[(13)" +
                                              std::strerror(EACCES) + "]"))
        << kit::Log::all();
}

TEST_F(FileCopyOwn, OnlyOptionsAreAskedBeforeTheSourceGoes) {
    options.isCancel = [] { return ++calls.cancelPolls > 1 ? 1 : 0; }; // once before the only block, then at the end
    EXPECT_EQ(0, moveAcrossVolumes());
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_TRUE(kit::exists(source));

    ASSERT_EQ(0, ::unlink(target.c_str()));
    calls.cancelPolls = 0;
    VEXOCopyTHRArgs thread{};
    thread.isCancel = [](void *) { return ++calls.cancelPolls > 1 ? 1 : 0; };
    VEXOCopyOptR plain{};
    plain.move = 1;
    plain.ownerMode = 1;
    kit::Faults::fail("rename", EXDEV);
    EXPECT_EQ(0, VEXOFileCopy_r(source.c_str(), target.c_str(), &plain, &thread));
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_FALSE(kit::exists(source));
}

TEST_F(FileCopyOwn, OwnerNotSetIsToldAfterAWholeCopyAndNotReported) {
    VEXOCopyTHRArgs thread{};
    thread.errReport = note_report_with_data;
    thread.isCancel = answer_cancel_with_data;
    VEXOCopyOptR plain{};
    plain.ownerMode = 1;
    plain.move = 1;
    kit::Faults::fail("rename", EXDEV);
    kit::Faults::fail("fchown", EPERM, "target");
    EXPECT_FAILS(VEXOFileCopy_r(source.c_str(), target.c_str(), &plain, &thread), 0xFA00);
    EXPECT_STREQ("copy/copy_file_copy.c", VLIBCErrorGetFile());
    EXPECT_EQ(content, kit::readFile(target));
    EXPECT_FALSE(kit::exists(source));
    EXPECT_TRUE(calls.reports.empty());
    EXPECT_EQ("", kit::Log::all());
}

TEST_F(FileCopyOwn, OwnerNotSetDoesNotTouchASkippedCopy) {
    kit::writeFile(target, "old");
    kit::Faults::failAlways("fchown", EPERM);
    EXPECT_EQ(0, VEXOFileCopy_r(source.c_str(), target.c_str(), nullptr, nullptr));
    EXPECT_EQ("old", kit::readFile(target));
    EXPECT_EQ(0, VEXOFileCopy_r(source.c_str(), source.c_str(), nullptr, nullptr));
    EXPECT_EQ(content, kit::readFile(source));
}

TEST_F(FileCopyOwn, RemoteVolumeKnowsTheSourceByItsPath) {
    const std::string detour = scratch / "detour";
    ASSERT_EQ(0, ::symlink(scratch.path().c_str(), detour.c_str()));
    kit::PlatformDouble::setType(scratch.path(), 12);
    options.overwrite = 1;
    EXPECT_EQ(0, VEXOFileCopy(source.c_str(), (detour + "/source").c_str(), &options));
    EXPECT_EQ(content, kit::readFile(source));
    kit::writeFile(target, "old");
    EXPECT_EQ(0, copy());
    EXPECT_EQ(content, kit::readFile(target));
}

TEST_F(FileCopyOwn, FileOperationWritesTypesBack) {
    VEXOCopyArgs *args = VEXOCopyArgsAlloc();
    ASSERT_NE(nullptr, args);
    kit::PlatformDouble::setType(scratch / "missing", -7, ENOENT);
    EXPECT_FAILS(VEXOFileOpCopyFile((scratch / "missing").c_str(), target.c_str(), 0, args), 0x0600);
    EXPECT_EQ(-1, args->fsTypeSrc);
    EXPECT_EQ(-1, args->fsTypeDst);

    EXPECT_FAILS(VEXOFileOpCopyFile(source.c_str(), (scratch / "missing/a").c_str(), 0, args), 0x0600);
    EXPECT_STREQ("copy/fileop_copy_file.c", VLIBCErrorGetFile());
    EXPECT_EQ(1, args->fsTypeSrc);
    EXPECT_EQ(-7, args->fsTypeDst);

    args->fsTypeDst = -1;
    EXPECT_EQ(0, VEXOFileOpCopyFile(source.c_str(), target.c_str(), 0, args));
    EXPECT_EQ(1, args->fsTypeDst);
    VEXOCopyArgsFree(args);
}

TEST_F(FileCopyOwn, SmallCopyAsksForNothingTwice) {
    kit::writeFile(source, "small");
    kit::Faults::record(true);
    constexpr int kKeepsNothing = 4; // beside a file: the store has its own costs
    ASSERT_EQ(0, VEXOCopyFileExI(source.c_str(), target.c_str(), &options, kKeepsNothing, kKeepsNothing, 1, nullptr));
    EXPECT_EQ(0, kit::Faults::count("VEXOGetFSType"));
    EXPECT_EQ(1, kit::Faults::count("stat"));
    EXPECT_EQ(2, kit::Faults::count("open"));
    EXPECT_EQ(1, kit::Faults::count("VLIBCFileFStat"));
    EXPECT_EQ(1, kit::Faults::count("VLIBCFileUTime"));
    EXPECT_EQ(0, kit::Faults::count("fchmod"));
    EXPECT_EQ(0, kit::Faults::count("realpath"));
    EXPECT_EQ(0, kit::Faults::count("ioctl"));
    EXPECT_EQ(0, kit::Faults::count("fstatfs"));
    EXPECT_EQ(0, kit::Faults::count("sendfile"));
    EXPECT_EQ(1, kit::Faults::count("write"));
}

// Whatever fails: the source is whole unless the move is done, the destination is whole or absent, a failure is
// reported once. (The fixture looks after descriptors, umask and user.)
class FileCopyOwnFaults : public FileCopyOwn, public ::testing::WithParamInterface<const char *> {};

TEST_P(FileCopyOwnFaults, NothingIsLeftHalfDone) {
    for (const uint32_t move : {0u, 1u}) {
        for (int nth = 0; nth < 20; ++nth) {
            SCOPED_TRACE("move " + std::to_string(move) + ", call " + std::to_string(nth));
            ::unlink(target.c_str());
            kit::writeFile(source, content, 0640);
            kit::Faults::reset();
            calls = Calls();
            if (move != 0) {
                kit::Faults::fail("rename", EXDEV);
            }
            kit::Faults::fail(GetParam(), EIO, {}, nth);
            options.move = move;
            options.copyAcl = 1;
            VLIBCErrSetEx(0, "", 0);
            const int result = copy();
            const bool reached = kit::Faults::count(GetParam()) > nth;
            kit::Faults::reset();
            if (result == 0) {
                EXPECT_EQ(content, kit::readFile(target));
                EXPECT_TRUE(calls.reports.empty());
            } else {
                EXPECT_FALSE(kit::exists(target));
                EXPECT_EQ(content, kit::readFile(source));
                EXPECT_NE(0u, VLIBCErrGet());
                EXPECT_EQ(1u, calls.reports.size());
            }
            if (!reached) {
                EXPECT_EQ(0, result);
                break;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EachCall, FileCopyOwnFaults,
                         ::testing::Values("open", "fstat", "stat", "read", "write", "sendfile", "fchown", "close",
                                           "VEXOGetFSType", "VLIBCFileFStat", "VLIBCFileUTime", "VEXOACLCopy",
                                           "VEXOACLArchiveCopy", "VLIBCKernelAttrFcntl", "unlink"),
                         [](const auto &given) { return std::string(given.param); });

TEST(DefaultGenerateNewNameOwn, TakesItsInputAsOutput) {
    const kit::ScratchDirectory scratch;
    char path[4096];
    std::snprintf(path, sizeof path, "%s/a.tar.gz", scratch.path().c_str());
    EXPECT_EQ(0, Default_GenerateNewName(path, path, sizeof path));
    EXPECT_EQ(scratch / "a.tar (1).gz", path);
}

TEST(DefaultGenerateNewNameOwn, RefusesNullsAndNoRoom) {
    char out[8];
    EXPECT_FAILS(Default_GenerateNewName(nullptr, out, sizeof out), 0x0D00);
    EXPECT_FAILS(Default_GenerateNewName("/a", nullptr, 8), 0x0D00);
    EXPECT_FAILS(Default_GenerateNewName("/a", out, 0), 0x0D00);
    EXPECT_FAILS(Default_GenerateNewName("/a.b", out, sizeof out), 0x0D00); // "/a (1).b" needs nine
}

} // namespace
