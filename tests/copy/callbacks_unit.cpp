// Callbacks made from the records' slots: bare or with data, absent or empty.
#include "copy/engine/callbacks.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using namespace vexo;

std::string heard; // what the bare callbacks were called with

void note(void *data, const std::string &what) {
    *static_cast<std::string *>(data) += what;
}
std::string numbers(int64_t a, int64_t b) {
    return std::to_string(a) + "," + std::to_string(b);
}

template <typename Record>
void fillShared(Record *record, std::string *said) {
    record->progress = [](void *data, int64_t bytes, int64_t offset) {
        note(data, "progress " + numbers(bytes, offset));
    };
    record->errReport = [](void *data, const char *path, uint32_t code) {
        note(data, std::string("error ") + path + " " + std::to_string(code));
    };
    record->isCancel = [](void *data) {
        note(data, "cancel");
        return 3;
    };
    record->rename = [](void *data, const char *dst, char *, int size) {
        note(data, std::string("rename ") + dst + " " + std::to_string(size));
        return 4;
    };
    record->getReadSize = [](void *data, int64_t last, int64_t offset) -> int64_t {
        note(data, "size " + numbers(last, offset));
        return 5;
    };
    record->copyEA = [](void *data, const char *src, const char *dst) {
        note(data, std::string("ea ") + src + " " + dst);
        return 6;
    };
    record->getDirSize = [](void *data, const char *src, const char *dst) -> int64_t {
        note(data, std::string("dir ") + src + " " + dst);
        return 7;
    };
    record->progressArg = record->errReportArg = record->isCancelArg = record->renameArg = record->getReadSizeArg =
        record->copyEAArg = record->getDirSizeArg = said;
}

template <typename Record>
void expectSharedCallbacks() {
    Record record = {};
    std::string said;
    const auto saidNow = [&said] { return std::exchange(said, {}); };
    fillShared(&record, &said);
    progress_of (&record)(1, 2);
    EXPECT_EQ("progress 1,2", saidNow());
    error_report_of (&record)("/a", 9);
    EXPECT_EQ("error /a 9", saidNow());
    EXPECT_EQ(3, cancel_of(&record)());
    EXPECT_EQ("cancel", saidNow());
    char out[1] = {};
    EXPECT_EQ(4, rename_of(&record)("/b", out, 4096));
    EXPECT_EQ("rename /b 4096", saidNow());
    EXPECT_EQ(5, read_size_of(&record)(8, 9));
    EXPECT_EQ("size 8,9", saidNow());
    EXPECT_EQ(6, copy_ea_of(&record)("/s", "/d"));
    EXPECT_EQ("ea /s /d", saidNow());
    EXPECT_EQ(7, directory_size_of(&record)("/s", "/d"));
    EXPECT_EQ("dir /s /d", saidNow());
}

TEST(Callbacks, ArgsSlotsGetTheirData) {
    expectSharedCallbacks<VEXOCopyArgs>();
}

TEST(Callbacks, ThreadSlotsGetTheirData) {
    expectSharedCallbacks<VEXOCopyTHRArgs>();
}

TEST(Callbacks, OptionSlotsAreCalledBare) {
    VEXOCopyOpt options = {};
    heard.clear();
    options.progress = [](int64_t bytes, int64_t offset) { heard += "progress " + numbers(bytes, offset) + ";"; };
    options.errReport = [](const char *path, uint32_t code) { heard += path + std::to_string(code) + ";"; };
    options.isCancel = [] { return 11; };
    options.rename = [](const char *, char *out, int size) {
        out[0] = 'n';
        return size;
    };
    progress_of (&options)(1, 2);
    error_report_of (&options)("/p", 3);
    EXPECT_EQ("progress 1,2;/p3;", heard);
    EXPECT_EQ(11, cancel_of(&options)());
    char out[2] = {};
    EXPECT_EQ(4096, rename_of(&options)("/d", out, 4096));
    EXPECT_STREQ("n", out);
}

TEST(Callbacks, ExSlotsAreCalledBare) {
    VEXOCopyArgsEx ex = {};
    ex.getReadSize = [](int64_t last, int64_t offset) { return last + offset; };
    ex.copyEA = [](const char *src, const char *) { return static_cast<int>(src[0]); };
    ex.getDirSize = [](const char *, const char *dst) { return static_cast<int64_t>(dst[0]); };
    EXPECT_EQ(30, read_size_of(&ex)(10, 20));
    EXPECT_EQ('s', copy_ea_of(&ex)("s", "d"));
    EXPECT_EQ('d', directory_size_of(&ex)("s", "d"));
}

TEST(Callbacks, AbsentRecordsAndEmptySlotsGiveEmptyCallbacks) {
    VEXOCopyArgs args = {};
    VEXOCopyArgsEx ex = {};
    VEXOCopyTHRArgs thr = {};
    VEXOCopyOpt options = {};
    args.progressArg = args.isCancelArg = thr.progressArg = &args; // data without a function is nothing
    EXPECT_FALSE(progress_of(&args) || progress_of(&thr) || progress_of(&options));
    EXPECT_FALSE(error_report_of(&args) || error_report_of(&thr) || error_report_of(&options));
    EXPECT_FALSE(cancel_of(&args) || cancel_of(&thr) || cancel_of(&options));
    EXPECT_FALSE(rename_of(&args) || rename_of(&thr) || rename_of(&options));
    EXPECT_FALSE(read_size_of(&args) || read_size_of(&thr) || read_size_of(&ex));
    EXPECT_FALSE(copy_ea_of(&args) || copy_ea_of(&thr) || copy_ea_of(&ex));
    EXPECT_FALSE(directory_size_of(&args) || directory_size_of(&thr) || directory_size_of(&ex));
    EXPECT_FALSE(destination_name_of(&args) || destination_name_of(&ex));
    EXPECT_FALSE(read_write_data_of(&args) || read_write_data_of(&thr));

    const VEXOCopyArgs *noArgs = nullptr;
    const VEXOCopyOpt *noOptions = nullptr;
    const VEXOCopyArgsEx *noEx = nullptr;
    const VEXOCopyTHRArgs *noThr = nullptr;
    EXPECT_FALSE(progress_of(noArgs) || progress_of(noThr) || progress_of(noOptions));
    EXPECT_FALSE(error_report_of(noOptions) || cancel_of(noThr) || rename_of(noArgs));
    EXPECT_FALSE(read_size_of(noEx) || copy_ea_of(noEx) || directory_size_of(noEx));
    EXPECT_FALSE(destination_name_of(noArgs));
    EXPECT_FALSE(destination_name_of(static_cast<VEXOCopyArgsEx *>(nullptr)));
    EXPECT_FALSE(read_write_data_of(static_cast<VEXOCopyArgs *>(nullptr)));
    EXPECT_FALSE(read_write_data_of(static_cast<VEXOCopyTHRArgs *>(nullptr)));
    OptionsAndEx pair = {&options, nullptr};
    EXPECT_FALSE(read_write_data_of(&pair));
    pair.ex = &ex;
    EXPECT_FALSE(read_write_data_of(&pair));
}

TEST(Callbacks, DestinationNameKnowsTheCodePagesOfAnExRecord) {
    VEXOCopyArgsEx ex = {};
    VEXOCopyArgsExSetSrcCodePage(&ex, "UTF-8");
    VEXOCopyArgsExSetDestCodePage(&ex, "CP932");
    ex.getDstFileName = [](const char *name, const char *src, const char *dst, char *, int size) {
        heard = std::string(name) + " " + src + " " + dst + " " + std::to_string(size);
        return 1;
    };
    char out[1] = {};
    EXPECT_EQ(1, destination_name_of(&ex)("entry", out, 4096));
    EXPECT_EQ("entry UTF-8 CP932 4096", heard);
}

TEST(Callbacks, DestinationNameOfArgsGetsItsData) {
    VEXOCopyArgs args = {};
    std::string said;
    args.getDstFileName = [](void *data, const char *name, char *, int) {
        note(data, name);
        return 2;
    };
    args.getDstFileNameArg = &said;
    char out[1] = {};
    EXPECT_EQ(2, destination_name_of(&args)("entry", out, 4096));
    EXPECT_EQ("entry", said);
}

TEST(Callbacks, TransferReplacementIsHandedItsRecord) {
    int srcFd = 3;
    int dstFd = 4;
    VEXOCopyArgs args = {};
    args.readWriteData = [](void *data, const char *, const char *, int *src, int *dst, int64_t size,
                            VEXOCopyArgs *record) {
        *src = 30;
        *dst = 40;
        return record->readWriteDataArg == data && size == 5 ? 6 : -1;
    };
    args.readWriteDataArg = &args;
    EXPECT_EQ(6, read_write_data_of(&args)("/s", "/d", &srcFd, &dstFd, 5));
    EXPECT_EQ(30, srcFd);
    EXPECT_EQ(40, dstFd);

    VEXOCopyTHRArgs thr = {};
    thr.progress = [](void *, int64_t, int64_t) {};
    thr.isCancel = [](void *) { return 0; };
    thr.readWriteData = [](void *data, const char *, const char *, int *, int *, int64_t size,
                           VEXOCopyProgressFn progress, VEXOCopyIsCancelFn isCancel, VEXOCopyTHRArgs *record) {
        return record == data && progress == record->progress && isCancel == record->isCancel && size == 5 ? 7 : -1;
    };
    thr.readWriteDataArg = &thr;
    EXPECT_EQ(7, read_write_data_of(&thr)("/s", "/d", &srcFd, &dstFd, 5));
}

TEST(Callbacks, BareTransferReplacementIsHandedTheOptionsCallbacks) {
    VEXOCopyArgsEx ex = {};
    ex.readWriteData = [](const char *src, const char *dst, int *, int *, int64_t size, VEXOCopyBareProgressFn progress,
                          VEXOCopyBareIsCancelFn isCancel, VEXOCopyArgsEx *record) {
        heard = std::string(src) + dst + std::to_string(size) + (progress != nullptr ? "p" : "-") +
                (isCancel != nullptr ? "c" : "-") + (record->copyEA != nullptr ? "ea" : "");
        return 8;
    };
    ex.copyEA = [](const char *, const char *) { return 0; };
    VEXOCopyOpt options = {};
    options.isCancel = [] { return 0; };
    OptionsAndEx records = {&options, &ex};
    int fd = 0;
    EXPECT_EQ(8, read_write_data_of(&records)("/s", "/d", &fd, &fd, 5));
    EXPECT_EQ("/s/d5-cea", heard);
    records.options = nullptr;
    EXPECT_EQ(8, read_write_data_of(&records)("/s", "/d", &fd, &fd, 6));
    EXPECT_EQ("/s/d6--ea", heard);
}

} // namespace
