// Cancelled and failed copies: nothing half done stays behind, nothing of the source is lost, and one report is made.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileCopyCancel : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        callbacks.getReadSize = [](int64_t, int64_t) { return int64_t{4096}; }; // five blocks
    }
    // Stops at the n-th question, counted from 0.
    void stopAt(int question) {
        callbacks.isCancel = [this, question] { return asked++ >= question ? 1 : 0; };
    }
    std::string removeLine(int number) const { return "remove dst: [" + request.dst + "] error" + reason(number); }
    void destinationCannotBeRemoved() const {
        kit::Faults::failAlways("remove", EPERM, request.dst);
        kit::Faults::failAlways("unlink", EPERM, request.dst);
    }
    int asked = 0;
};
INSTANTIATE_TEST_SUITE_P(, FileCopyCancel, kDoors, doorName);

TEST_P(FileCopyCancel, AtAnyBlockLeavesNothing) {
    for (int block = 0; block < 5; ++block) {
        asked = 0;
        callbacks.progress.clear();
        stopAt(block);
        EXPECT_EQ(0, copy()) << block;
        expectNoDestination();
        expectSourceIntact();
        EXPECT_EQ(static_cast<size_t>(block), callbacks.progress.size());
    }
    expectNotReported();
    expectNoErrorLogged(source());
}

TEST_P(FileCopyCancel, AnyAnswerButZeroStops) {
    for (const int answer : {-1, 1, 2, INT32_MIN}) {
        callbacks.isCancel = [answer] { return answer; };
        EXPECT_EQ(0, copy());
        expectNoDestination();
    }
    expectNotReported();
}

TEST_P(FileCopyCancel, NeverAnsweredDoesNotDisturb) {
    stopAt(1000);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(5, asked); // a copy is asked about its blocks only
    expectCopied();
}

TEST_P(FileCopyCancel, OfAReplacementRemovesIt) {
    kit::writeFile(request.dst, "there");
    request.overwrite = 1;
    stopAt(2);
    EXPECT_EQ(0, copy());
    expectNoDestination();
    expectSourceIntact();
}

TEST_P(FileCopyCancel, AtTheNewPlaceOfAConflictRemovesThatOnly) {
    kit::writeFile(request.dst, "there");
    const std::string other = to + "/other";
    callbacks.rename = [&](const char *, char *out, int size) {
        std::snprintf(out, static_cast<size_t>(size), "%s", other.c_str());
        return 0;
    };
    stopAt(2);
    EXPECT_EQ(0, copy());
    EXPECT_FALSE(kit::exists(other));
    EXPECT_EQ("there", kit::readFile(request.dst));
}

// The poll is asked after a failure too, whatever failed.
TEST_P(FileCopyCancel, AfterAFailureMakesItASuccess) {
    stopAt(2); // two blocks are asked for, then the failure
    kit::Faults::fail("write", EIO, request.dst, 1);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(3, asked);
    expectNoDestination();
    expectSourceIntact();
    expectNotReported();
}

TEST_P(FileCopyCancel, BeforeTheDestinationIsOpenedIsNotAsked) {
    callbacks.isCancel = [this] { return ++asked; };
    request.dst = scratch / "none/target";
    expectFailed(copy(), 0x0900);
    EXPECT_EQ(0, asked);
}

TEST_P(FileCopyCancel, WhatCannotBeRemovedIsLogged) {
    stopAt(2);
    destinationCannotBeRemoved();
    EXPECT_EQ(0, copy());
    kit::Faults::reset();
    expectLogged(source(), LOG_ERR, removeLine(EPERM));
    expectNotReported();
    expectSourceIntact();
}

TEST_P(FileCopyCancel, FailureKeepsItsCauseWhenRemovingFailsToo) {
    kit::Faults::fail("write", ENOSPC, request.dst, 1);
    destinationCannotBeRemoved();
    expectFailed(copy(), 0x2900);
    kit::Faults::reset();
    expectLogged(source(), LOG_ERR, removeLine(EPERM));
    expectSourceIntact();
}

TEST_P(FileCopyCancel, OfALargeFileWithoutRoomIsAsked) {
    kit::writeSparse(request.src, (128 << 20) + 1, {});
    kit::Faults::failAlways("fstatfs", EIO, request.dst);
    callbacks.isCancel = [] { return 1; };
    EXPECT_EQ(0, copy());
    expectNoDestination();
    expectNotReported();
}

// The question after the failure decides: one that is answered with no makes the stopped transfer a failure.
TEST_P(FileCopyCancel, PollThatChangesItsMindFails) {
    callbacks.isCancel = [this] { return asked++ == 2 ? 1 : 0; };
    expectFailed(copy(), 0xA600);
    expectNoDestination();
    expectSourceIntact();
}

// ---- Each call made to fail in turn ----

class FileCopyFaults : public EveryDoor {};
INSTANTIATE_TEST_SUITE_P(, FileCopyFaults, kDoors, doorName);

TEST_P(FileCopyFaults, NoFailingCallLosesAnything) {
    const char *functions[] = {
        "VEXOGetFSType", "open",           "VLIBCFileFStat", "fstat",     "stat",     "lseek",
        "read",          "write",          "fallocate",      "ftruncate", "fchown",   "fstatfs",
        "remove",        "VLIBCFileUTime", "VEXOACLCopy",    "access",    "realpath", "VEXOACLArchiveCopy"};
    kit::writeSparse(request.src, 1 << 20, {{65536, 65536}, {262144, 4096}});
    content = kit::readFile(request.src);
    request.copyAcl = true;
    callbacks.getReadSize = [](int64_t, int64_t) { return int64_t{16384}; };
    const mode_t before = ::umask(027);
    for (const char *function : functions) {
        for (int nth = 0; nth < 4; ++nth) {
            for (const int number : {EIO, ENOMEM, ENOSPC}) {
                SCOPED_TRACE(std::string(function) + " " + std::to_string(nth) + " " + std::strerror(number));
                kit::Faults::reset();
                callbacks.reports.clear();
                VLIBCErrSetEx(0, "", 0);
                kit::Faults::fail(function, number, scratch.path(), nth);
                const int result = copy();
                const uint32_t code = VLIBCErrGet();
                kit::Faults::reset();
                expectSourceIntact();
                EXPECT_EQ(027U, ::umask(027));
                if (result == 0 || code == 0xFA00) {
                    expectCopied();
                    expectNotReported();
                    EXPECT_EQ(0, ::unlink(request.dst.c_str()));
                } else {
                    EXPECT_EQ(-1, result);
                    expectNoDestination();
                    EXPECT_EQ((std::vector<Report>{{request.src, code}}), callbacks.reports);
                }
            }
        }
    }
    ::umask(before);
}

TEST_P(FileCopyFaults, NoFailingCallLosesAMovedFile) {
    const char *functions[] = {"VEXOGetFSType", "open",   "VLIBCFileFStat", "fstat",  "stat",           "read",
                               "write",         "fchown", "chown",          "rename", "VLIBCFileUTime", "access"};
    request.move = true;
    for (const bool across : {false, true}) {
        for (const char *function : functions) {
            for (int nth = 0; nth < 3; ++nth) {
                SCOPED_TRACE(std::string(function) + " " + std::to_string(nth) + (across ? " across" : ""));
                kit::writeFile(request.src, content);
                ::unlink(request.dst.c_str());
                kit::Faults::reset();
                callbacks.reports.clear();
                VLIBCErrSetEx(0, "", 0);
                if (across) {
                    kit::Faults::fail("rename", EXDEV, request.src);
                }
                kit::Faults::fail(function, EIO, scratch.path(), nth);
                const int result = copy();
                const uint32_t code = VLIBCErrGet();
                kit::Faults::reset();
                if (kit::exists(request.src)) {
                    expectSourceIntact();
                    EXPECT_EQ(-1, result);
                    expectNoDestination();
                } else {
                    expectCopied(); // a move that failed after its rename has moved
                }
                EXPECT_EQ(result == 0 || code == 0xFA00 ? 0U : 1U, callbacks.reports.size());
            }
        }
    }
}

// The record's callbacks must not allocate here.
TEST(FileCopyAllocations, NoFailingAllocationLosesAnything) {
    kit::ScratchDirectory scratch;
    const std::string src = scratch / "source";
    const std::string dst = scratch / "target";
    const std::string content = kit::pattern(20000);
    kit::writeFile(src, content);
    VEXOCopyArgs args{};
    args.fsTypeSrc = 1;
    args.fsTypeDst = 1;
    int reports = 0;
    args.errReport = [](void *data, const char *, uint32_t) { ++*static_cast<int *>(data); };
    args.errReportArg = &reports;
    bool failedOnce = false;
    for (int nth = 1; nth <= 8; ++nth) {
        reports = 0;
        VLIBCErrSetEx(0, "", 0);
        if (!kit::Faults::failAllocation(nth)) {
            GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
        }
        const int result = VEXOFileOpCopyFile(src.c_str(), dst.c_str(), kNoEa, &args);
        kit::Faults::reset();
        EXPECT_EQ(content, kit::readFile(src));
        if (result == 0) {
            EXPECT_EQ(content, kit::readFile(dst));
            EXPECT_EQ(0, reports);
            EXPECT_EQ(0, ::unlink(dst.c_str()));
        } else {
            failedOnce = true;
            EXPECT_EQ(-1, result);
            EXPECT_NE(0U, VLIBCErrGet());
            EXPECT_EQ(1, reports);
            EXPECT_FALSE(kit::exists(dst));
        }
    }
    EXPECT_TRUE(failedOnce);
}

} // namespace
} // namespace file_copy
