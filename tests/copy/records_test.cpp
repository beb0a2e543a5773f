// Making, filling and releasing the option records.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <syslog.h>

namespace {

class Records : public kit::Behaviour {};

// Callbacks told apart by their address; none of them is ever called here.
void progress(void *, int64_t, int64_t) {}
void errReport(void *, const char *, uint32_t) {}
int renameTo(void *, const char *, char *, int) {
    return 0;
}
int isCancel(void *) {
    return 0;
}
int64_t getReadSize(void *, int64_t, int64_t) {
    return 0;
}
int readWriteData(void *, const char *, const char *, int *, int *, int64_t, VEXOCopyArgs *) {
    return 0;
}
int readWriteDataThr(void *, const char *, const char *, int *, int *, int64_t, VEXOCopyProgressFn, VEXOCopyIsCancelFn,
                     VEXOCopyTHRArgs *) {
    return 0;
}
int copyFile(void *, const char *, const char *, uint32_t, VEXOCopyArgs *) {
    return 0;
}
int copyFileThr(void *, const char *, const char *, VEXOCopyOptR *, int, int, int, VEXOCopyTHRArgs *) {
    return 0;
}
int copyEA(void *, const char *, const char *) {
    return 0;
}
int64_t getDirSize(void *, const char *, const char *) {
    return 0;
}
int getDstFileName(void *, const char *, char *, int) {
    return 0;
}
int64_t bareReadSize(int64_t, int64_t) {
    return 0;
}
int bareReadWriteData(const char *, const char *, int *, int *, int64_t, VEXOCopyBareProgressFn, VEXOCopyBareIsCancelFn,
                      VEXOCopyArgsEx *) {
    return 0;
}
int bareCopyFile(const char *, const char *, VEXOCopyOpt *, int, int, int, VEXOCopyArgsEx *) {
    return 0;
}
int bareCopyEA(const char *, const char *) {
    return 0;
}
int64_t bareDirSize(const char *, const char *) {
    return 0;
}
int bareDstFileName(const char *, const char *, const char *, char *, int) {
    return 0;
}

template <typename Record>
std::string bytesOf(const Record &record) {
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

// The pointers of a record from a byte offset on, as they lie there.
template <typename Pointer, typename Record>
Pointer pointerAt(const Record &record, size_t offset) {
    Pointer pointer;
    std::memcpy(&pointer, bytesOf(record).data() + offset, sizeof pointer);
    return pointer;
}

// A setter of a slot with user data stores both at the slot's place and nothing else, keeps them over a refusal, and
// refuses a null record and a null callback.
template <typename Record, typename Function>
void expectPairSetter(int (*setter)(Record *, Function, void *), Function function, size_t offset) {
    Record record = {};
    int data = 0;
    EXPECT_EQ(0, setter(&record, function, &data));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(function, pointerAt<Function>(record, offset));
    EXPECT_EQ(&data, pointerAt<int *>(record, offset + sizeof(void *)));
    const std::string before = bytesOf(record);
    EXPECT_FAILS(setter(&record, nullptr, nullptr), 0x0D00);
    EXPECT_EQ(before, bytesOf(record));
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(setter(nullptr, function, &data), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    std::string untouched = before;
    std::memset(untouched.data() + offset, 0, 2 * sizeof(void *));
    EXPECT_EQ(std::string(sizeof(Record), '\0'), untouched) << "another field was written";
}

template <typename Function>
void expectBareSetter(int (*setter)(VEXOCopyArgsEx *, Function), Function function, size_t offset) {
    VEXOCopyArgsEx record = {};
    EXPECT_EQ(0, setter(&record, function));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(function, pointerAt<Function>(record, offset));
    const std::string before = bytesOf(record);
    EXPECT_FAILS(setter(&record, nullptr), 0x0D00);
    EXPECT_EQ(before, bytesOf(record));
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(setter(nullptr, function), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    std::string untouched = before;
    std::memset(untouched.data() + offset, 0, sizeof(void *));
    EXPECT_EQ(std::string(sizeof(VEXOCopyArgsEx), '\0'), untouched) << "another field was written";
}

TEST_F(Records, FreshArgsKnowNoTypes) {
    VEXOCopyArgs *record = VEXOCopyArgsAlloc();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(-1, record->fsTypeSrc);
    EXPECT_EQ(-1, record->fsTypeDst);
    record->fsTypeSrc = 0;
    record->fsTypeDst = 0;
    EXPECT_EQ(std::string(192, '\0'), bytesOf(*record));
    VEXOCopyArgsFree(record);
}

TEST_F(Records, FreshExAndThreadRecordsAreZero) {
    VEXOCopyArgsEx *ex = VEXOCopyArgsExAlloc();
    ASSERT_NE(nullptr, ex);
    EXPECT_EQ(std::string(176, '\0'), bytesOf(*ex));
    VEXOCopyArgsExFree(ex);
    VEXOCopyTHRArgs *thr = VEXOCopyTHRArgsAlloc();
    ASSERT_NE(nullptr, thr);
    EXPECT_EQ(std::string(144, '\0'), bytesOf(*thr));
    VEXOCopyTHRArgsFree(thr);
}

TEST_F(Records, FreeingNullDoesNothing) {
    VEXOCopyArgsFree(nullptr);
    VEXOCopyArgsExFree(nullptr);
    VEXOCopyTHRArgsFree(nullptr);
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Records, ArgsWithoutMemorySetTheCodeAndLogNothing) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(nullptr, VEXOCopyArgsAlloc());
    EXPECT_EQ(0x0200u, VLIBCErrGet());
    EXPECT_STREQ("copy/copy_args_alloc.c", VLIBCErrorGetFile());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Records, ExWithoutMemoryLogsAndSetsNoCode) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(nullptr, VEXOCopyArgsExAlloc());
    EXPECT_EQ(0u, VLIBCErrGet());
    ASSERT_EQ(1, kit::Log::count(LOG_ERR, "Failed to alloc node name, errno=Cannot allocate memory"))
        << kit::Log::all();
    EXPECT_EQ("copy/copy_args_ex_alloc.c", kit::Log::lines()[0].source);
}

TEST_F(Records, ThreadRecordWithoutMemoryLogsAndSetsNoCode) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(nullptr, VEXOCopyTHRArgsAlloc());
    EXPECT_EQ(0u, VLIBCErrGet());
    ASSERT_EQ(1, kit::Log::count(LOG_ERR, "Failed to alloc, errno=Cannot allocate memory")) << kit::Log::all();
    EXPECT_EQ("copy/copy_thr_args_alloc.c", kit::Log::lines()[0].source);
}

TEST_F(Records, ValuesAreStored) {
    VEXOCopyArgs record = {};
    EXPECT_EQ(0, VEXOCopyArgsSetUserUID(&record, 4294967295U));
    EXPECT_EQ(0, VEXOCopyArgsSetUserGID(&record, 101));
    EXPECT_EQ(0, VEXOCopyArgsSetFsTypeSrc(&record, 22));
    EXPECT_EQ(0, VEXOCopyArgsSetFsTypeDst(&record, 18));
    EXPECT_EQ(0, VEXOCopyArgsSetDstFsFileSizeLimit(&record, UINT64_MAX));
    EXPECT_EQ(0, VEXOCopyArgsSetCleanArchive(&record, 2));
    EXPECT_EQ(4294967295U, record.uid);
    EXPECT_EQ(101U, record.gid);
    EXPECT_EQ(22, record.fsTypeSrc);
    EXPECT_EQ(18, record.fsTypeDst);
    EXPECT_EQ(UINT64_MAX, record.dstFsFileSizeLimit);
    EXPECT_EQ(2U, record.cleanArchive);
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Records, ValueSettersRefuseANullRecord) {
    const auto refused = [](int result) {
        EXPECT_FAILS(result, 0x0D00);
        EXPECT_STREQ("copy/copy_args_set.c", VLIBCErrorGetFile());
        VLIBCErrSetEx(0, "", 0);
    };
    refused(VEXOCopyArgsSetUserUID(nullptr, 1));
    refused(VEXOCopyArgsSetUserGID(nullptr, 1));
    refused(VEXOCopyArgsSetFsTypeSrc(nullptr, 1));
    refused(VEXOCopyArgsSetFsTypeDst(nullptr, 1));
    refused(VEXOCopyArgsSetDstFsFileSizeLimit(nullptr, 1));
    refused(VEXOCopyArgsSetCleanArchive(nullptr, 1));
}

TEST_F(Records, TypeZeroIsATypeAndNegativeIsNot) {
    VEXOCopyArgs record = {};
    record.fsTypeSrc = -1;
    record.fsTypeDst = -1;
    EXPECT_EQ(0, VEXOCopyArgsSetFsTypeSrc(&record, 0));
    EXPECT_EQ(0, VEXOCopyArgsSetFsTypeDst(&record, 0));
    EXPECT_FAILS(VEXOCopyArgsSetFsTypeSrc(&record, -1), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyArgsSetFsTypeDst(&record, -2), 0x0D00);
    EXPECT_EQ(0, record.fsTypeSrc);
    EXPECT_EQ(0, record.fsTypeDst);
}

TEST_F(Records, ArgsSettersStoreCallbackAndData) {
    expectPairSetter(VEXOCopyArgsSetFnSetProgress, progress, offsetof(VEXOCopyArgs, progress));
    expectPairSetter(VEXOCopyArgsSetFnErrReport, errReport, offsetof(VEXOCopyArgs, errReport));
    expectPairSetter(VEXOCopyArgsSetFnRename, renameTo, offsetof(VEXOCopyArgs, rename));
    expectPairSetter(VEXOCopyArgsSetFnIsCancel, isCancel, offsetof(VEXOCopyArgs, isCancel));
    expectPairSetter(VEXOCopyArgsSetFnGetReadSize, getReadSize, offsetof(VEXOCopyArgs, getReadSize));
    expectPairSetter(VEXOCopyArgsSetFnReadWriteData, readWriteData, offsetof(VEXOCopyArgs, readWriteData));
    expectPairSetter(VEXOCopyArgsSetFnCopyFile, copyFile, offsetof(VEXOCopyArgs, copyFile));
    expectPairSetter(VEXOCopyArgsSetFnCopyEA, copyEA, offsetof(VEXOCopyArgs, copyEA));
    expectPairSetter(VEXOCopyArgsSetFnGetDirSize, getDirSize, offsetof(VEXOCopyArgs, getDirSize));
    expectPairSetter(VEXOCopyArgsSetFnGetDstFileName, getDstFileName, offsetof(VEXOCopyArgs, getDstFileName));
}

TEST_F(Records, ThreadSettersStoreCallbackAndData) {
    expectPairSetter(VEXOCopyTHRSetCallbackSetProgress, progress, offsetof(VEXOCopyTHRArgs, progress));
    expectPairSetter(VEXOCopyTHRSetCallbackErrReport, errReport, offsetof(VEXOCopyTHRArgs, errReport));
    expectPairSetter(VEXOCopyTHRSetCallbackIsCancel, isCancel, offsetof(VEXOCopyTHRArgs, isCancel));
    expectPairSetter(VEXOCopyTHRSetCallbackRename, renameTo, offsetof(VEXOCopyTHRArgs, rename));
    expectPairSetter(VEXOCopyTHRSetCallbackGetReadSize, getReadSize, offsetof(VEXOCopyTHRArgs, getReadSize));
    expectPairSetter(VEXOCopyTHRSetCallbackReadWriteData, readWriteDataThr, offsetof(VEXOCopyTHRArgs, readWriteData));
    expectPairSetter(VEXOCopyTHRSetCallbackCopyFile, copyFileThr, offsetof(VEXOCopyTHRArgs, copyFile));
    expectPairSetter(VEXOCopyTHRSetCallbackCopyEA, copyEA, offsetof(VEXOCopyTHRArgs, copyEA));
    expectPairSetter(VEXOCopyTHRSetCallbackGetDirSize, getDirSize, offsetof(VEXOCopyTHRArgs, getDirSize));
}

TEST_F(Records, ExSettersStoreTheBareCallback) {
    expectBareSetter(VEXOCopyArgsExSetGetReadSize, bareReadSize, offsetof(VEXOCopyArgsEx, getReadSize));
    expectBareSetter(VEXOCopyArgsExSetReadWriteData, bareReadWriteData, offsetof(VEXOCopyArgsEx, readWriteData));
    expectBareSetter(VEXOCopyArgsExSetCopyFile, bareCopyFile, offsetof(VEXOCopyArgsEx, copyFile));
    expectBareSetter(VEXOCopyArgsExSetCopyEA, bareCopyEA, offsetof(VEXOCopyArgsEx, copyEA));
    expectBareSetter(VEXOCopyArgsExSetGetDirSize, bareDirSize, offsetof(VEXOCopyArgsEx, getDirSize));
    expectBareSetter(VEXOCopyArgsExSetGetDstFileName, bareDstFileName, offsetof(VEXOCopyArgsEx, getDstFileName));
}

TEST_F(Records, UserDataMayBeNull) {
    VEXOCopyArgs record = {};
    int data = 0;
    EXPECT_EQ(0, VEXOCopyArgsSetFnIsCancel(&record, isCancel, &data));
    EXPECT_EQ(0, VEXOCopyArgsSetFnIsCancel(&record, isCancel, nullptr));
    EXPECT_EQ(isCancel, record.isCancel);
    EXPECT_EQ(nullptr, record.isCancelArg);
}

TEST_F(Records, CodePageNamesAreStored) {
    VEXOCopyArgsEx record = {};
    EXPECT_EQ(0, VEXOCopyArgsExSetSrcCodePage(&record, "UTF-8"));
    EXPECT_EQ(0, VEXOCopyArgsExSetDestCodePage(&record, "CP932"));
    EXPECT_STREQ("UTF-8", record.srcCodePage);
    EXPECT_STREQ("CP932", record.destCodePage);
}

TEST_F(Records, LongCodePageNameIsCutTo62Characters) {
    const std::string name = kit::pattern(100, 7);
    std::string printable;
    for (const char byte : name) {
        printable += static_cast<char>('a' + (static_cast<unsigned char>(byte) % 26));
    }
    VEXOCopyArgsEx record = {};
    std::memset(record.srcCodePage, 'x', sizeof record.srcCodePage);
    EXPECT_EQ(0, VEXOCopyArgsExSetSrcCodePage(&record, printable.c_str()));
    EXPECT_EQ(printable.substr(0, 62) + std::string(2, '\0'), std::string(record.srcCodePage, 64));
    EXPECT_EQ(0, VEXOCopyArgsExSetDestCodePage(&record, printable.substr(0, 63).c_str()));
    EXPECT_EQ(printable.substr(0, 62), record.destCodePage);
    EXPECT_EQ(0, VEXOCopyArgsExSetDestCodePage(&record, printable.substr(0, 62).c_str()));
    EXPECT_EQ(printable.substr(0, 62), record.destCodePage);
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Records, EmptyOrNullCodePageNameClearsTheWholeField) {
    VEXOCopyArgsEx record = {};
    for (const char *nothing : {static_cast<const char *>(nullptr), ""}) {
        std::memset(record.srcCodePage, 'x', sizeof record.srcCodePage);
        std::memset(record.destCodePage, 'y', sizeof record.destCodePage);
        EXPECT_EQ(0, VEXOCopyArgsExSetSrcCodePage(&record, nothing));
        EXPECT_EQ(std::string(64, '\0'), std::string(record.srcCodePage, 64));
        EXPECT_EQ(std::string(64, 'y'), std::string(record.destCodePage, 64));
        EXPECT_EQ(0, VEXOCopyArgsExSetDestCodePage(&record, nothing));
        EXPECT_EQ(std::string(64, '\0'), std::string(record.destCodePage, 64));
    }
}

TEST_F(Records, ShorterCodePageNameLeavesNothingOfTheEarlierOne) {
    VEXOCopyArgsEx record = {};
    EXPECT_EQ(0, VEXOCopyArgsExSetSrcCodePage(&record, "ISO-8859-15"));
    EXPECT_EQ(0, VEXOCopyArgsExSetSrcCodePage(&record, "BIG5"));
    EXPECT_EQ("BIG5" + std::string(60, '\0'), std::string(record.srcCodePage, 64));
}

TEST_F(Records, CodePageSettersRefuseANullRecord) {
    EXPECT_FAILS(VEXOCopyArgsExSetSrcCodePage(nullptr, "UTF-8"), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(VEXOCopyArgsExSetDestCodePage(nullptr, nullptr), 0x0D00);
    EXPECT_STREQ("copy/copy_args_ex_set.c", VLIBCErrorGetFile());
}

} // namespace
