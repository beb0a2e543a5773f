// The setters of the record of callbacks with user data.
#include "copy/copy.h"

#include "copy/engine/slots.h"
#include "support/report.h"

using namespace vexo;

int VEXOCopyTHRSetCallbackSetProgress(VEXOCopyTHRArgs *record, VEXOCopyProgressFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::progress, function, &VEXOCopyTHRArgs::progressArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackErrReport(VEXOCopyTHRArgs *record, VEXOCopyErrReportFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::errReport, function, &VEXOCopyTHRArgs::errReportArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackIsCancel(VEXOCopyTHRArgs *record, VEXOCopyIsCancelFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::isCancel, function, &VEXOCopyTHRArgs::isCancelArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackRename(VEXOCopyTHRArgs *record, VEXOCopyRenameFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::rename, function, &VEXOCopyTHRArgs::renameArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackGetReadSize(VEXOCopyTHRArgs *record, VEXOCopyGetReadSizeFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::getReadSize, function, &VEXOCopyTHRArgs::getReadSizeArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackReadWriteData(VEXOCopyTHRArgs *record, VEXOCopyTHRReadWriteDataFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::readWriteData, function, &VEXOCopyTHRArgs::readWriteDataArg, data,
                    VEXO_HERE);
}

int VEXOCopyTHRSetCallbackCopyFile(VEXOCopyTHRArgs *record, VEXOCopyTHRFileFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::copyFile, function, &VEXOCopyTHRArgs::copyFileArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackCopyEA(VEXOCopyTHRArgs *record, VEXOCopyEAFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::copyEA, function, &VEXOCopyTHRArgs::copyEAArg, data, VEXO_HERE);
}

int VEXOCopyTHRSetCallbackGetDirSize(VEXOCopyTHRArgs *record, VEXOCopyGetDirSizeFn function, void *data) {
    return set_slot(record, &VEXOCopyTHRArgs::getDirSize, function, &VEXOCopyTHRArgs::getDirSizeArg, data, VEXO_HERE);
}
