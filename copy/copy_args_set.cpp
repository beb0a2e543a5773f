// The setters of the file operations' record.
#include "copy/copy.h"

#include "copy/engine/slots.h"
#include "support/report.h"

using namespace vexo;

int VEXOCopyArgsSetUserUID(VEXOCopyArgs *record, uint32_t uid) {
    if (record == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    record->uid = uid;
    return 0;
}

int VEXOCopyArgsSetUserGID(VEXOCopyArgs *record, uint32_t gid) {
    if (record == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    record->gid = gid;
    return 0;
}

int VEXOCopyArgsSetFsTypeSrc(VEXOCopyArgs *record, int type) {
    if (record == nullptr || type < 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    record->fsTypeSrc = type;
    return 0;
}

int VEXOCopyArgsSetFsTypeDst(VEXOCopyArgs *record, int type) {
    if (record == nullptr || type < 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    record->fsTypeDst = type;
    return 0;
}

int VEXOCopyArgsSetDstFsFileSizeLimit(VEXOCopyArgs *record, uint64_t bytes) {
    if (record == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    record->dstFsFileSizeLimit = bytes;
    return 0;
}

int VEXOCopyArgsSetCleanArchive(VEXOCopyArgs *record, uint32_t on) {
    if (record == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    record->cleanArchive = on;
    return 0;
}

int VEXOCopyArgsSetFnSetProgress(VEXOCopyArgs *record, VEXOCopyProgressFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::progress, function, &VEXOCopyArgs::progressArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnErrReport(VEXOCopyArgs *record, VEXOCopyErrReportFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::errReport, function, &VEXOCopyArgs::errReportArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnIsCancel(VEXOCopyArgs *record, VEXOCopyIsCancelFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::isCancel, function, &VEXOCopyArgs::isCancelArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnRename(VEXOCopyArgs *record, VEXOCopyRenameFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::rename, function, &VEXOCopyArgs::renameArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnGetReadSize(VEXOCopyArgs *record, VEXOCopyGetReadSizeFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::getReadSize, function, &VEXOCopyArgs::getReadSizeArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnReadWriteData(VEXOCopyArgs *record, VEXOCopyReadWriteDataFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::readWriteData, function, &VEXOCopyArgs::readWriteDataArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnCopyFile(VEXOCopyArgs *record, VEXOCopyFileFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::copyFile, function, &VEXOCopyArgs::copyFileArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnCopyEA(VEXOCopyArgs *record, VEXOCopyEAFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::copyEA, function, &VEXOCopyArgs::copyEAArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnGetDirSize(VEXOCopyArgs *record, VEXOCopyGetDirSizeFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::getDirSize, function, &VEXOCopyArgs::getDirSizeArg, data, VEXO_HERE);
}

int VEXOCopyArgsSetFnGetDstFileName(VEXOCopyArgs *record, VEXOCopyGetDstFileNameFn function, void *data) {
    return set_slot(record, &VEXOCopyArgs::getDstFileName, function, &VEXOCopyArgs::getDstFileNameArg, data, VEXO_HERE);
}
