// The callbacks that take over: the whole copy, or the transfer of its data; and what every callback is given.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyReadWrite : public EveryDoor {};
INSTANTIATE_TEST_SUITE_P(, FileCopyReadWrite, kDoors, doorName);

TEST_P(FileCopyReadWrite, TakesTheTransferOver) {
    int calls = 0;
    callbacks.readWriteData = [&](const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size) {
        ++calls;
        EXPECT_EQ(request.src, src);
        EXPECT_EQ(request.dst, dst);
        EXPECT_EQ(20000, size);
        std::string data(static_cast<size_t>(size), '\0');
        EXPECT_EQ(size, ::pread(*srcFd, data.data(), data.size(), 0));
        EXPECT_EQ(size, ::pwrite(*dstFd, data.data(), data.size(), 0));
        return 0;
    };
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, callsOf("read", request.src));
    EXPECT_EQ(0, callsOf("write", request.dst));
    EXPECT_EQ(1, callsOf("VLIBCFileUTime", request.dst));
    kit::Faults::reset();
    expectCopied();
    EXPECT_EQ(std::vector<Progress>(), callbacks.progress);
}

TEST_P(FileCopyReadWrite, PositiveAnswerIsASuccess) {
    callbacks.readWriteData = [](const char *, const char *, int *, int *, int64_t) { return 7; };
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(request.dst));
    expectNotReported();
}

TEST_P(FileCopyReadWrite, FailureKeepsItsOwnCode) {
    for (const int answer : {-1, -100}) {
        callbacks.reports.clear();
        callbacks.readWriteData = [answer](const char *, const char *, int *, int *, int64_t) {
            VLIBCErrSetEx(0x1234, "callback", 1);
            return answer;
        };
        expectFailed(copy(), 0x1234);
        expectNoDestination();
        expectSourceIntact();
    }
}

TEST_P(FileCopyReadWrite, CancelledFailureIsASuccess) {
    callbacks.readWriteData = [](const char *, const char *, int *, int *, int64_t) {
        VLIBCErrSetEx(0xA600, "callback", 1);
        return -1;
    };
    callbacks.isCancel = [] { return 1; };
    EXPECT_EQ(0, copy());
    expectNoDestination();
    expectNotReported();
}

// The fixture sees that no descriptor stays open.
TEST_P(FileCopyReadWrite, MayExchangeTheDescriptors) {
    FILE_COPY_NEEDS_ROOT();
    callbacks.readWriteData = [this](const char *src, const char *dst, int *srcFd, int *dstFd, int64_t) {
        ::close(*srcFd);
        ::close(*dstFd);
        *srcFd = ::open(src, O_RDONLY | O_CLOEXEC);
        *dstFd = ::open(dst, O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(static_cast<ssize_t>(content.size()), ::write(*dstFd, content.data(), content.size()));
        return 0;
    };
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ(1024U, kit::statOf(request.dst).st_uid);
}

TEST_P(FileCopyReadWrite, MayCloseTheDescriptors) {
    callbacks.readWriteData = [this](const char *, const char *, int *srcFd, int *dstFd, int64_t) {
        ::close(*srcFd);
        EXPECT_EQ(static_cast<ssize_t>(content.size()), ::write(*dstFd, content.data(), content.size()));
        ::close(*dstFd);
        *srcFd = -1;
        *dstFd = -1;
        return 0;
    };
    (void)copy(); // the owner cannot be set any more
    expectCopied();
    expectNotReported();
}

TEST_P(FileCopyReadWrite, IsGivenTheNewPlaceOfAConflict) {
    kit::writeFile(request.dst, "there");
    const std::string other = to + "/other";
    callbacks.rename = [&](const char *, char *out, int size) {
        std::snprintf(out, static_cast<size_t>(size), "%s", other.c_str());
        return 0;
    };
    std::string given;
    callbacks.readWriteData = [&](const char *, const char *dst, int *, int *, int64_t) {
        given = dst;
        return 0;
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(other, given);
}

TEST_P(FileCopyReadWrite, IsCalledForAnEmptyFile) {
    kit::writeFile(request.src, "");
    int64_t size = -1;
    callbacks.readWriteData = [&](const char *, const char *, int *, int *, int64_t bytes) {
        size = bytes;
        return 0;
    };
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, size);
}

TEST_P(FileCopyReadWrite, ComesAfterTheCheckOfRoom) {
    kit::writeSparse(request.src, (128 << 20) + 1, {});
    kit::Faults::failAlways("fstatfs", EIO, request.dst);
    bool called = false;
    callbacks.readWriteData = [&](const char *, const char *, int *, int *, int64_t) {
        called = true;
        return 0;
    };
    EXPECT_EQ(-1, copy());
    EXPECT_FALSE(called);
}

// ---- What each form is given, word for word ----

class FileCopyForms : public Scene {
  protected:
    void SetUp() override {
        Scene::SetUp();
        Callbacks::current() = &callbacks;
    }
    const char *src() const { return request.src.c_str(); }
    const char *dst() const { return request.dst.c_str(); }
};

TEST_F(FileCopyForms, BareReadWriteGetsTheOptionsCallbacks) {
    static VEXOCopyArgsEx *expected;
    static int calls;
    calls = 0;
    callbacks.isCancel = [] { return 0; };
    VEXOCopyOpt opt = optionsOf(request, callbacks);
    VEXOCopyArgsEx ex{};
    expected = &ex;
    ex.readWriteData = [](const char *, const char *, int *, int *, int64_t, VEXOCopyBareProgressFn progress,
                          VEXOCopyBareIsCancelFn isCancel, VEXOCopyArgsEx *record) {
        ++calls;
        EXPECT_EQ(Bare::progress, progress);
        EXPECT_EQ(Bare::isCancel, isCancel);
        EXPECT_EQ(expected, record);
        return 0;
    };
    EXPECT_EQ(0, VEXOFileCopyEx(src(), dst(), &opt, &ex));
    opt.overwrite = 1;
    EXPECT_EQ(0, VEXOCopyFileExI(src(), dst(), &opt, 1, 1, 1, &ex));
    EXPECT_EQ(2, calls);
}

TEST_F(FileCopyForms, BareReadWriteWorksWithoutOptions) {
    static int calls;
    calls = 0;
    VEXOCopyArgsEx ex{};
    ex.readWriteData = [](const char *, const char *, int *, int *, int64_t, VEXOCopyBareProgressFn progress,
                          VEXOCopyBareIsCancelFn isCancel, VEXOCopyArgsEx *) {
        ++calls;
        EXPECT_EQ(nullptr, progress);
        EXPECT_EQ(nullptr, isCancel);
        return 0;
    };
    EXPECT_EQ(0, VEXOFileCopyEx(src(), dst(), nullptr, &ex));
    EXPECT_EQ(1, calls);
}

TEST_F(FileCopyForms, ThreadReadWriteGetsTheRecordsCallbacks) {
    FILE_COPY_NEEDS_ROOT();
    callbacks.isCancel = [] { return 0; };
    VEXOCopyOptR opt = optionsROf(request);
    VEXOCopyTHRArgs thr = thrOf(callbacks);
    struct Seen {
        VEXOCopyTHRArgs *record;
        int calls;
    } seen{&thr, 0};
    thr.readWriteData = [](void *data, const char *, const char *, int *, int *, int64_t, VEXOCopyProgressFn progress,
                           VEXOCopyIsCancelFn isCancel, VEXOCopyTHRArgs *record) {
        auto &seenHere = *static_cast<Seen *>(data);
        ++seenHere.calls;
        EXPECT_EQ(WithData::progress, progress);
        EXPECT_EQ(WithData::isCancel, isCancel);
        EXPECT_EQ(seenHere.record, record);
        return 0;
    };
    thr.readWriteDataArg = &seen;
    EXPECT_EQ(0, VEXOFileCopy_r(src(), dst(), &opt, &thr));
    EXPECT_EQ(1, seen.calls);
}

TEST_F(FileCopyForms, FileOpReadWriteGetsTheRecord) {
    VEXOCopyArgs args = argsOf(request, callbacks);
    struct Seen {
        VEXOCopyArgs *record;
        int calls;
    } seen{&args, 0};
    args.readWriteData = [](void *data, const char *, const char *, int *, int *, int64_t, VEXOCopyArgs *record) {
        auto &seenHere = *static_cast<Seen *>(data);
        ++seenHere.calls;
        EXPECT_EQ(seenHere.record, record);
        return 0;
    };
    args.readWriteDataArg = &seen;
    EXPECT_EQ(0, VEXOFileOpCopyFile(src(), dst(), 0, &args));
    EXPECT_EQ(1, seen.calls);
}

// Each slot has user data of its own.
TEST_F(FileCopyForms, EachSlotGetsItsOwnData) {
    struct Own {
        const char *name;
        int calls;
    };
    const auto check = [](void *data, const char *name) {
        auto *own = static_cast<Own *>(data);
        EXPECT_STREQ(name, own->name);
        ++own->calls;
    };
    static decltype(check) *checkIn;
    checkIn = &check;
    Own progress{"progress", 0}, report{"report", 0}, cancel{"cancel", 0}, rename{"rename", 0}, size{"size", 0};
    const auto fill = [&](auto &record) {
        record.progress = [](void *data, int64_t, int64_t) { (*checkIn)(data, "progress"); };
        record.progressArg = &progress;
        record.errReport = [](void *data, const char *, uint32_t) { (*checkIn)(data, "report"); };
        record.errReportArg = &report;
        record.isCancel = [](void *data) {
            (*checkIn)(data, "cancel");
            return 0;
        };
        record.isCancelArg = &cancel;
        record.rename = [](void *data, const char *, char *, int) {
            (*checkIn)(data, "rename");
            return -1;
        };
        record.renameArg = &rename;
        record.getReadSize = [](void *data, int64_t, int64_t) {
            (*checkIn)(data, "size");
            return int64_t{4096};
        };
        record.getReadSizeArg = &size;
    };
    FILE_COPY_NEEDS_ROOT();
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = -1;
    fill(args);
    EXPECT_EQ(0, VEXOFileOpCopyFile(src(), dst(), 0, &args));
    EXPECT_FAILS(VEXOFileOpCopyFile(src(), dst(), 0, &args), 0x0800);
    EXPECT_EQ(5, progress.calls);
    EXPECT_EQ(5, size.calls);
    EXPECT_EQ(5, cancel.calls);
    EXPECT_EQ(1, rename.calls);
    EXPECT_EQ(1, report.calls);
    ASSERT_EQ(0, ::unlink(dst()));
    VEXOCopyTHRArgs thr{};
    fill(thr);
    VEXOCopyOptR opt{};
    EXPECT_EQ(0, VEXOFileCopy_r(src(), dst(), &opt, &thr));
    EXPECT_FAILS(VEXOFileCopy_r(src(), dst(), &opt, &thr), 0x0800);
    EXPECT_EQ(10, progress.calls);
    EXPECT_EQ(10, size.calls);
    EXPECT_EQ(10, cancel.calls);
    EXPECT_EQ(2, rename.calls);
    EXPECT_EQ(2, report.calls);
}

// ---- The whole copy ----

struct Taken {
    std::string src, dst;
    void *opt = nullptr, *record = nullptr;
    uint32_t flags = 0;
    int srcType = 0, dstType = 0, spare = 0, calls = 0, result = 0;
    mode_t umask = 0777;

    void note(const char *from, const char *to, void *options, int sourceType, int destinationType, int spareNumber,
              void *callbacks) {
        ++calls;
        src = from;
        dst = to;
        opt = options;
        srcType = sourceType;
        dstType = destinationType;
        spare = spareNumber;
        record = callbacks;
        umask = ::umask(0);
        ::umask(umask);
    }
};

class FileCopyTaken : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        taken = {};
        opt = optionsOf(request, callbacks);
        optR = optionsROf(request);
        thr = thrOf(callbacks);
        args = argsOf(request, callbacks);
        Callbacks::current() = &callbacks;
        ex.copyFile = [](const char *src, const char *dst, VEXOCopyOpt *options, int srcType, int dstType, int spare,
                         VEXOCopyArgsEx *record) {
            taken.note(src, dst, options, srcType, dstType, spare, record);
            return taken.result;
        };
        thr.copyFile = [](void *data, const char *src, const char *dst, VEXOCopyOptR *options, int srcType, int dstType,
                          int spare, VEXOCopyTHRArgs *record) {
            EXPECT_EQ(&taken, data);
            taken.note(src, dst, options, srcType, dstType, spare, record);
            return taken.result;
        };
        thr.copyFileArg = &taken;
        args.copyFile = [](void *data, const char *src, const char *dst, uint32_t word, VEXOCopyArgs *record) {
            EXPECT_EQ(&taken, data);
            taken.note(src, dst, nullptr, -1, -1, 1, record);
            taken.flags = word;
            return taken.result;
        };
        args.copyFileArg = &taken;
    }
    int take() {
        const char *src = request.src.c_str();
        const char *dst = request.dst.c_str();
        return GetParam() == Door::ex          ? VEXOFileCopyEx(src, dst, &opt, &ex)
               : GetParam() == Door::reentrant ? VEXOFileCopy_r(src, dst, &optR, &thr)
                                               : VEXOFileOpCopyFile(src, dst, flags, &args);
    }
    void askForAfterSteps() {
        opt.cleanArchive = opt.enforceInherit = 1;
        optR.cleanArchive = optR.enforceInherit = 1;
        args.cleanArchive = 1;
        flags |= kEnforceInherit;
        kit::Faults::add({.function = "VLIBCKernelAttrFcntl", .result = 0, .times = 0, .answers = true});
        kit::Faults::add({.function = "VEXOACLEnforceInherit", .result = 0, .times = 0, .answers = true});
    }

    static Taken taken;
    VEXOCopyOpt opt{};
    VEXOCopyOptR optR{};
    VEXOCopyArgsEx ex{};
    VEXOCopyTHRArgs thr{};
    VEXOCopyArgs args{};
    uint32_t flags = kReplace | kKeepOwner;
};
Taken FileCopyTaken::taken;
INSTANTIATE_TEST_SUITE_P(, FileCopyTaken, kDoors, doorName);

TEST_P(FileCopyTaken, CallbackCopiesInPlaceOfTheLibrary) {
    kit::Faults::record(true);
    EXPECT_EQ(0, take());
    EXPECT_EQ(1, taken.calls);
    EXPECT_EQ(request.src, taken.src);
    EXPECT_EQ(request.dst, taken.dst);
    EXPECT_EQ(-1, taken.srcType);
    EXPECT_EQ(-1, taken.dstType);
    EXPECT_EQ(1, taken.spare);
    if (GetParam() == Door::fileOp) {
        EXPECT_EQ(kReplace | kKeepOwner, taken.flags);
        EXPECT_EQ(&args, taken.record);
    } else {
        EXPECT_EQ(GetParam() == Door::ex ? static_cast<void *>(&opt) : &optR, taken.opt);
        EXPECT_EQ(GetParam() == Door::ex ? static_cast<void *>(&ex) : &thr, taken.record);
    }
    EXPECT_EQ(0, kit::Faults::count("VEXOGetFSType"));
    EXPECT_EQ(0, kit::Faults::count("open"));
    EXPECT_EQ(0, kit::Faults::count("stat"));
    expectNoDestination();
}

TEST_P(FileCopyTaken, CallbackRunsWithUmaskZero) {
    const mode_t before = ::umask(027);
    EXPECT_EQ(0, take());
    EXPECT_EQ(0U, taken.umask);
    taken.result = -1;
    EXPECT_EQ(-1, take());
    EXPECT_EQ(027U, ::umask(before));
}

TEST_P(FileCopyTaken, ResultIsReturnedAsItIs) {
    askForAfterSteps();
    for (const int result : {-1, -7, 1, 42}) {
        taken.result = result;
        EXPECT_EQ(result, take());
    }
    EXPECT_EQ(0, kit::Faults::count("VEXOACLEnforceInherit"));
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrFcntl"));
    expectNotReported(); // the callback's business
}

TEST_P(FileCopyTaken, AfterStepsFollowASuccess) {
    askForAfterSteps();
    kit::Faults::record(true);
    EXPECT_EQ(0, take());
    EXPECT_EQ(1, callsOf("VEXOACLEnforceInherit", request.dst));
    EXPECT_EQ(1, callsOf("VLIBCKernelAttrFcntl", request.src));
}

TEST_P(FileCopyTaken, WithoutOptionsTheCallbackGetsNone) {
    if (GetParam() == Door::fileOp) {
        GTEST_SKIP() << "has no options beside its record";
    }
    const char *src = request.src.c_str();
    const char *dst = request.dst.c_str();
    EXPECT_EQ(0, GetParam() == Door::ex ? VEXOFileCopyEx(src, dst, nullptr, &ex)
                                        : VEXOFileCopy_r(src, dst, nullptr, &thr));
    EXPECT_EQ(1, taken.calls);
    EXPECT_EQ(nullptr, taken.opt);
}

class FileCopyTakenPlain : public FileCopyTaken {};
INSTANTIATE_TEST_SUITE_P(, FileCopyTakenPlain, ::testing::Values(Door::ex), doorName);

TEST_P(FileCopyTakenPlain, ReflinkDoorHandsOverToo) {
    EXPECT_EQ(0, VEXOFileReflinkCopy(request.src.c_str(), request.dst.c_str(), &opt, &ex));
    EXPECT_EQ(1, taken.calls);
    EXPECT_EQ(&opt, taken.opt);
    EXPECT_EQ(&ex, taken.record);
    EXPECT_EQ(-1, taken.srcType);
    EXPECT_EQ(-1, taken.dstType);
    EXPECT_EQ(1, taken.spare);
    expectNoDestination();
}

// What a callback calls to let the library copy after all must not come back to the callback.
TEST_P(FileCopyTakenPlain, InnerDoorDoesNotHandOver) {
    EXPECT_EQ(0, VEXOCopyFileExI(request.src.c_str(), request.dst.c_str(), &opt, 1, 1, 1, &ex));
    EXPECT_EQ(0, taken.calls);
    expectCopied();
}

} // namespace
} // namespace file_copy
