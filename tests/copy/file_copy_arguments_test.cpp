// What the single-file copies refuse, and what they make of odd paths.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyArguments : public EveryDoor {};
INSTANTIATE_TEST_SUITE_P(, FileCopyArguments, kDoors, doorName);

class FileCopyArgumentsPlain : public Scene {};

// The options ask for a report, but no report is made of a call that was wrong in itself.
TEST_F(FileCopyArgumentsPlain, NullPathIsRefusedWithoutReport) {
    VEXOCopyOpt opt = optionsOf(request, callbacks);
    VEXOCopyArgsEx ex{};
    VEXOCopyOptR optR = optionsROf(request);
    VEXOCopyTHRArgs thr = thrOf(callbacks);
    VEXOCopyArgs args = argsOf(request, callbacks);
    Callbacks::current() = &callbacks;
    const char *src = request.src.c_str();
    const char *dst = request.dst.c_str();
    const std::function<int(const char *, const char *)> doors[] = {
        [&](const char *s, const char *d) { return VEXOFileCopy(s, d, &opt); },
        [&](const char *s, const char *d) { return VEXOFileCopyEx(s, d, &opt, &ex); },
        [&](const char *s, const char *d) { return VEXOFileReflinkCopy(s, d, &opt, &ex); },
        [&](const char *s, const char *d) { return VEXOFileCopy_r(s, d, &optR, &thr); },
        [&](const char *s, const char *d) { return VEXOCopyFileExI(s, d, &opt, 1, 1, 1, &ex); },
        [&](const char *s, const char *d) { return VEXOCopyFileI(s, d, &opt, 1, 1); },
        [&](const char *s, const char *d) { return VEXOFileOpCopyFile(s, d, 0, &args); },
    };
    for (const auto &door : doors) {
        for (const auto &[s, d] :
             {std::pair{static_cast<const char *>(nullptr), dst}, std::pair{src, static_cast<const char *>(nullptr)},
              std::pair{static_cast<const char *>(nullptr), static_cast<const char *>(nullptr)}}) {
            VLIBCErrSetEx(0, "", 0);
            EXPECT_FAILS(door(s, d), 0x0D00);
        }
    }
    expectNotReported();
    expectNoDestination();
    expectSourceIntact();
}

TEST_F(FileCopyArgumentsPlain, RefusalNamesTheFrontDoor) {
    EXPECT_FAILS(VEXOFileCopy(nullptr, "/x", nullptr), 0x0D00);
    EXPECT_STREQ("copy/copy_file_copy.c", VLIBCErrorGetFile());
    EXPECT_FAILS(VEXOFileOpCopyFile(nullptr, "/x", 0, nullptr), 0x0D00);
    EXPECT_STREQ("copy/fileop_copy_file.c", VLIBCErrorGetFile());
}

// A null path is refused before a copyFile callback could see it.
TEST_F(FileCopyArgumentsPlain, FileOpRefusesNullBeforeTheCallback) {
    VEXOCopyArgs args = argsOf(request, callbacks);
    bool called = false;
    args.copyFile = [](void *data, const char *, const char *, uint32_t, VEXOCopyArgs *) {
        *static_cast<bool *>(data) = true;
        return 0;
    };
    args.copyFileArg = &called;
    EXPECT_FAILS(VEXOFileOpCopyFile(request.src.c_str(), nullptr, 0, &args), 0x0D00);
    EXPECT_FALSE(called);
}

TEST_F(FileCopyArgumentsPlain, EveryFrontDoorWorksWithoutRecords) {
    const char *src = request.src.c_str();
    const char *dst = request.dst.c_str();
    const std::function<int()> doors[] = {
        [&] { return VEXOFileCopy(src, dst, nullptr); },
        [&] { return VEXOFileCopyEx(src, dst, nullptr, nullptr); },
        [&] { return VEXOFileReflinkCopy(src, dst, nullptr, nullptr); },
        [&] { return VEXOFileCopy_r(src, dst, nullptr, nullptr); },
        [&] { return VEXOCopyFileExI(src, dst, nullptr, -1, -1, 1, nullptr); },
        [&] { return VEXOCopyFileI(src, dst, nullptr, -1, 1); },
        [&] { return VEXOFileOpCopyFile(src, dst, 0, nullptr); },
    };
    FILE_COPY_NEEDS_ROOT(); // the reentrant one reports an owner that could not be set
    for (const auto &door : doors) {
        EXPECT_EQ(0, door());
        expectCopied();
        // No options: an existing destination stays.
        kit::writeFile(request.dst, "there");
        EXPECT_EQ(0, door());
        EXPECT_EQ("there", kit::readFile(request.dst));
        ASSERT_EQ(0, ::unlink(dst));
    }
    expectSourceIntact();
}

// A failure without any error-report callback is just a failure.
TEST_F(FileCopyArgumentsPlain, FailureWithoutRecordsFails) {
    kit::writeFile(request.dst, "there");
    VEXOCopyOpt opt{};
    opt.overwrite = -1;
    EXPECT_FAILS(VEXOFileCopy(request.src.c_str(), request.dst.c_str(), &opt), 0xA300);
    VEXOCopyOptR optR{};
    optR.overwrite = -1;
    EXPECT_FAILS(VEXOFileCopy_r(request.src.c_str(), request.dst.c_str(), &optR, nullptr), 0xA300);
    EXPECT_FAILS(VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kFailIfExists, nullptr), 0xA300);
    EXPECT_EQ("there", kit::readFile(request.dst));
}

TEST_P(FileCopyArguments, EmptySourcePathFails) {
    kit::PlatformDouble::setType("", -1, ENOENT);
    request.src.clear();
    EXPECT_EQ(-1, copy());
    EXPECT_EQ(0x0600U, VLIBCErrGet());
    EXPECT_EQ((std::vector<Report>{{"", 0x0600}}), callbacks.reports);
    expectNoDestination();
}

TEST_P(FileCopyArguments, EmptyDestinationPathFails) {
    kit::PlatformDouble::setType(".", 1);
    request.dst.clear();
    EXPECT_EQ(-1, copy());
    EXPECT_EQ(1U, callbacks.reports.size());
    expectSourceIntact();
}

TEST_P(FileCopyArguments, MissingSourceFails) {
    kit::PlatformDouble::setType(from + "/none", -1, ENOENT);
    request.src = from + "/none";
    expectFailed(copy(), 0x0600);
    expectLogged(source(), LOG_ERR, "failed to statfs " + request.src + ", reason=[" + reason(ENOENT) + "]");
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    expectNoDestination();
}

TEST_P(FileCopyArguments, MissingSourceWhoseTypeIsKnownFails) {
    request.src = from + "/none";
    expectFailed(copy(), 0x8000);
    expectLogged(source(), LOG_ERR, "failed to check [" + request.src + "] [" + reason(ENOENT) + "]");
    expectNoDestination();
}

TEST_P(FileCopyArguments, RelativePathsAreTakenFromTheWorkingDirectory) {
    const auto before = kit::ProcessState::now().workingDirectory;
    ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
    kit::PlatformDouble::setType("from", 1);
    kit::PlatformDouble::setType("to", 1);
    request.src = "from/source.bin";
    request.dst = "to/target.bin";
    EXPECT_EQ(0, copy());
    expectCopied();
    ASSERT_EQ(0, ::chdir(before.c_str()));
}

TEST_P(FileCopyArguments, NamesWithControlCharactersAreCopied) {
    for (const std::string name : {"a\nb", "tab\there", "bell\a", "percent %s%n%d", "\xff\xfe", "back\\slash", " "}) {
        request.src = from + "/" + name;
        request.dst = to + "/" + name;
        kit::writeFile(request.src, content);
        EXPECT_EQ(0, copy()) << name;
        expectCopied();
    }
    expectNotReported();
}

// What stands in a log line is text, never a format.
TEST_P(FileCopyArguments, NameInALogLineIsNoFormat) {
    request.src = from + "/%s%n%s";
    expectFailed(copy(), 0x8000);
    expectLogged(source(), LOG_ERR, "failed to check [" + request.src + "] [" + reason(ENOENT) + "]");
}

TEST_P(FileCopyArguments, OverlongNameFails) {
    request.dst = to + "/" + std::string(300, 'n');
    expectFailed(copy(), 0xC300);
    expectSourceIntact();
    EXPECT_TRUE(kit::namesIn(to).empty());
}

TEST_P(FileCopyArguments, OverlongPathFails) {
    std::string deep = to;
    while (deep.size() < 5000) {
        deep += "/directory";
    }
    request.dst = deep + "/target";
    expectFailed(copy(), 0xC300);
    expectSourceIntact();
    EXPECT_TRUE(kit::namesIn(to).empty());
}

TEST_P(FileCopyArguments, OverlongPathOnFatDoesNotLandElsewhere) {
    std::string deep = to;
    while (deep.size() < 5000) {
        deep += "/directory";
    }
    kit::PlatformDouble::setType(to, 0);
    request.dst = deep + "/target";
    EXPECT_EQ(-1, copy());
    EXPECT_EQ(1U, callbacks.reports.size());
    expectSourceIntact();
    EXPECT_TRUE(kit::namesIn(to).empty());
}

class FileCopySourceType : public EveryDoorAndRow {};
INSTANTIATE_TEST_SUITE_P(, FileCopySourceType,
                         ::testing::Combine(kDoors, ::testing::Values(Row{ENOENT, 0x0600}, Row{EIO, 0x0600},
                                                                      Row{ENOTDIR, 0x0600}, Row{EACCES, 0x0300})),
                         rowName);

TEST_P(FileCopySourceType, FailedLookUpEndsTheCopy) {
    kit::PlatformDouble::setType(request.src, -1, row().number);
    expectFailed(copy(), row().code);
    expectLogged(source(), LOG_ERR, "failed to statfs " + request.src + ", reason=[" + reason(row().number) + "]");
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopySourceType, FailedLookUpOfTheDestinationsDirectoryEndsTheCopy) {
    kit::PlatformDouble::setType(to, -1, row().number);
    expectFailed(copy(), row().code);
    expectLogged(source(), LOG_ERR, "failed to statfs " + to + ", reason=[" + reason(row().number) + "]");
    EXPECT_EQ(source(), VLIBCErrorGetFile());
    expectSourceIntact();
    expectNoDestination();
}

TEST_P(FileCopyArguments, LookUpThatFailsOtherwiseKeepsTheLastError) {
    kit::PlatformDouble::setType(request.src, -1, EINVAL);
    VLIBCErrSetEx(0x4321, "elsewhere", 7);
    expectFailed(copy(), 0x4321);
    expectLogged(source(), LOG_ERR, "failed to statfs " + request.src + ", reason=[" + reason(EINVAL) + "]");
    expectNoDestination();
}

TEST_P(FileCopyArguments, TypeIsAskedForTheSourceAndTheDestinationsDirectory) {
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_GE(callsOf("VEXOGetFSType", request.src), 1);
    EXPECT_GE(callsOf("VEXOGetFSType", to), 1);
    EXPECT_LT(placeOf("VEXOGetFSType", request.src), placeOf("VEXOGetFSType", to));
    EXPECT_LT(placeOf("VEXOGetFSType", to), placeOf("open", request.src));
}

TEST_F(FileCopyArgumentsPlain, GivenTypesAreNotLookedUp) {
    kit::PlatformDouble::setType(scratch.path(), -1, EIO);
    EXPECT_EQ(0, VEXOCopyFileExI(request.src.c_str(), request.dst.c_str(), nullptr, 1, 1, 1, nullptr));
    expectCopied();
}

TEST_F(FileCopyArgumentsPlain, CopyFileITakesTheDestinationsTypeOnly) {
    kit::PlatformDouble::setType(to, -1, EIO);
    EXPECT_EQ(0, VEXOCopyFileI(request.src.c_str(), request.dst.c_str(), nullptr, 1, 1));
    expectCopied();
    kit::PlatformDouble::setType(from, -1, EIO);
    EXPECT_FAILS(VEXOCopyFileI(request.src.c_str(), request.dst.c_str(), nullptr, 1, 1), 0x0600);
}

TEST_F(FileCopyArgumentsPlain, SpareNumberChangesNothing) {
    for (const int spare : {-1, 0, 1, 1024}) {
        EXPECT_EQ(0, VEXOCopyFileExI(request.src.c_str(), request.dst.c_str(), nullptr, 1, 1, spare, nullptr));
        expectCopied();
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

} // namespace
} // namespace file_copy
