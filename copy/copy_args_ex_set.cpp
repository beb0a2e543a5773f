// The setters of the record that rides beside a VEXOCopyOpt.
#include "copy/copy.h"

#include "copy/engine/slots.h"
#include "support/report.h"

#include <cstdio>
#include <cstring>

using namespace vexo;

namespace {

// Keeps one byte less than would fit: callers know the names cut at 62.
template <size_t Size>
void set_code_page(char (&field)[Size], const char *name) {
    std::memset(field, 0, Size);
    if (name != nullptr) {
        std::snprintf(field, Size - 1, "%s", name);
    }
}

} // namespace

int VEXOCopyArgsExSetGetReadSize(VEXOCopyArgsEx *record, VEXOCopyBareGetReadSizeFn function) {
    return set_slot(record, &VEXOCopyArgsEx::getReadSize, function, VEXO_HERE);
}

int VEXOCopyArgsExSetReadWriteData(VEXOCopyArgsEx *record, VEXOCopyBareReadWriteDataFn function) {
    return set_slot(record, &VEXOCopyArgsEx::readWriteData, function, VEXO_HERE);
}

int VEXOCopyArgsExSetCopyFile(VEXOCopyArgsEx *record, VEXOCopyBareFileFn function) {
    return set_slot(record, &VEXOCopyArgsEx::copyFile, function, VEXO_HERE);
}

int VEXOCopyArgsExSetCopyEA(VEXOCopyArgsEx *record, VEXOCopyBareEAFn function) {
    return set_slot(record, &VEXOCopyArgsEx::copyEA, function, VEXO_HERE);
}

int VEXOCopyArgsExSetGetDirSize(VEXOCopyArgsEx *record, VEXOCopyBareGetDirSizeFn function) {
    return set_slot(record, &VEXOCopyArgsEx::getDirSize, function, VEXO_HERE);
}

int VEXOCopyArgsExSetGetDstFileName(VEXOCopyArgsEx *record, VEXOCopyBareGetDstFileNameFn function) {
    return set_slot(record, &VEXOCopyArgsEx::getDstFileName, function, VEXO_HERE);
}

int VEXOCopyArgsExSetSrcCodePage(VEXOCopyArgsEx *record, const char *name) {
    if (record == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    set_code_page(record->srcCodePage, name);
    return 0;
}

int VEXOCopyArgsExSetDestCodePage(VEXOCopyArgsEx *record, const char *name) {
    if (record == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    set_code_page(record->destCodePage, name);
    return 0;
}
