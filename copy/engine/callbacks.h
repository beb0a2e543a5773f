// The callbacks of a call, made from the slots of the records it was given: bare slots and slots with user data become
// the same type, an absent record or an empty slot an empty callback. The front doors call these once; behind them
// nobody asks which record a callback came from.
#pragma once

#include "copy/copy.h"
#include "support/callback.h"
#include "transfer/transfer.h"

#include <cstdint>

namespace vexo {

using ErrorReportCallback = Callback<void(const char *path, uint32_t code)>;
using RenameCallback = Callback<int(const char *dst, char *out, int size)>;
using CopyEACallback = Callback<int(const char *srcEA, const char *dstEA)>;
using DirectorySizeCallback = Callback<int64_t(const char *src, const char *dst)>;
using DestinationNameCallback = Callback<int(const char *name, char *out, int size)>;
using ReadWriteDataCallback = Callback<int(const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size)>;

template <typename Record>
ProgressCallback progress_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->progressArg; }) {
        return {record->progress, record->progressArg};
    } else {
        return ProgressCallback::bare(record->progress);
    }
}

template <typename Record>
ErrorReportCallback error_report_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->errReportArg; }) {
        return {record->errReport, record->errReportArg};
    } else {
        return ErrorReportCallback::bare(record->errReport);
    }
}

template <typename Record>
CancelCallback cancel_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->isCancelArg; }) {
        return {record->isCancel, record->isCancelArg};
    } else {
        return CancelCallback::bare(record->isCancel);
    }
}

template <typename Record>
RenameCallback rename_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->renameArg; }) {
        return {record->rename, record->renameArg};
    } else {
        return RenameCallback::bare(record->rename);
    }
}

template <typename Record>
ReadSizeCallback read_size_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->getReadSizeArg; }) {
        return {record->getReadSize, record->getReadSizeArg};
    } else {
        return ReadSizeCallback::bare(record->getReadSize);
    }
}

template <typename Record>
CopyEACallback copy_ea_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->copyEAArg; }) {
        return {record->copyEA, record->copyEAArg};
    } else {
        return CopyEACallback::bare(record->copyEA);
    }
}

template <typename Record>
DirectorySizeCallback directory_size_of(const Record *record) {
    if (record == nullptr) {
        return {};
    }
    if constexpr (requires { record->getDirSizeArg; }) {
        return {record->getDirSize, record->getDirSizeArg};
    } else {
        return DirectorySizeCallback::bare(record->getDirSize);
    }
}

inline DestinationNameCallback destination_name_of(const VEXOCopyArgs *record) {
    if (record == nullptr) {
        return {};
    }
    return {record->getDstFileName, record->getDstFileNameArg};
}

// The bare form is told the record's code pages, so the record itself is the data and outlives the callback.
inline DestinationNameCallback destination_name_of(VEXOCopyArgsEx *record) {
    if (record == nullptr || record->getDstFileName == nullptr) {
        return {};
    }
    return {[](void *data, const char *name, char *out, int size) {
                const auto *ex = static_cast<const VEXOCopyArgsEx *>(data);
                return ex->getDstFileName(name, ex->srcCodePage, ex->destCodePage, out, size);
            },
            record};
}

// A replacement for the transfer is handed its record, which outlives the callback.
inline ReadWriteDataCallback read_write_data_of(VEXOCopyArgs *record) {
    if (record == nullptr || record->readWriteData == nullptr) {
        return {};
    }
    return {[](void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size) {
                auto *args = static_cast<VEXOCopyArgs *>(data);
                return args->readWriteData(args->readWriteDataArg, src, dst, srcFd, dstFd, size, args);
            },
            record};
}

inline ReadWriteDataCallback read_write_data_of(VEXOCopyTHRArgs *record) {
    if (record == nullptr || record->readWriteData == nullptr) {
        return {};
    }
    return {[](void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size) {
                auto *thr = static_cast<VEXOCopyTHRArgs *>(data);
                return thr->readWriteData(thr->readWriteDataArg, src, dst, srcFd, dstFd, size, thr->progress,
                                          thr->isCancel, thr);
            },
            record};
}

// The bare form is also handed the progress and cancel callbacks of the options beside its record; options may be
// null. The pair outlives the callback.
struct OptionsAndEx {
    const VEXOCopyOpt *options;
    VEXOCopyArgsEx *ex;
};

inline ReadWriteDataCallback read_write_data_of(OptionsAndEx *records) {
    if (records->ex == nullptr || records->ex->readWriteData == nullptr) {
        return {};
    }
    return {[](void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size) {
                const auto *pair = static_cast<const OptionsAndEx *>(data);
                const VEXOCopyOpt *options = pair->options;
                return pair->ex->readWriteData(src, dst, srcFd, dstFd, size,
                                               options == nullptr ? nullptr : options->progress,
                                               options == nullptr ? nullptr : options->isCancel, pair->ex);
            },
            records};
}

} // namespace vexo
