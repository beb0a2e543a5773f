// The layout of the five records, frozen: callers in any language bind to it.
#include "copy/copy.h"

#include <cstddef>

static_assert(sizeof(VEXOCopyArgs) == 192);
static_assert(offsetof(VEXOCopyArgs, uid) == 0);
static_assert(offsetof(VEXOCopyArgs, gid) == 4);
static_assert(offsetof(VEXOCopyArgs, fsTypeSrc) == 8);
static_assert(offsetof(VEXOCopyArgs, fsTypeDst) == 12);
static_assert(offsetof(VEXOCopyArgs, dstFsFileSizeLimit) == 16);
static_assert(offsetof(VEXOCopyArgs, cleanArchive) == 24);
static_assert(offsetof(VEXOCopyArgs, progress) == 32);
static_assert(offsetof(VEXOCopyArgs, progressArg) == 40);
static_assert(offsetof(VEXOCopyArgs, errReport) == 48);
static_assert(offsetof(VEXOCopyArgs, errReportArg) == 56);
static_assert(offsetof(VEXOCopyArgs, rename) == 64);
static_assert(offsetof(VEXOCopyArgs, renameArg) == 72);
static_assert(offsetof(VEXOCopyArgs, isCancel) == 80);
static_assert(offsetof(VEXOCopyArgs, isCancelArg) == 88);
static_assert(offsetof(VEXOCopyArgs, getReadSize) == 96);
static_assert(offsetof(VEXOCopyArgs, getReadSizeArg) == 104);
static_assert(offsetof(VEXOCopyArgs, readWriteData) == 112);
static_assert(offsetof(VEXOCopyArgs, readWriteDataArg) == 120);
static_assert(offsetof(VEXOCopyArgs, copyFile) == 128);
static_assert(offsetof(VEXOCopyArgs, copyFileArg) == 136);
static_assert(offsetof(VEXOCopyArgs, copyEA) == 144);
static_assert(offsetof(VEXOCopyArgs, copyEAArg) == 152);
static_assert(offsetof(VEXOCopyArgs, getDirSize) == 160);
static_assert(offsetof(VEXOCopyArgs, getDirSizeArg) == 168);
static_assert(offsetof(VEXOCopyArgs, getDstFileName) == 176);
static_assert(offsetof(VEXOCopyArgs, getDstFileNameArg) == 184);

static_assert(sizeof(VEXOCopyArgsEx) == 176);
static_assert(offsetof(VEXOCopyArgsEx, getReadSize) == 0);
static_assert(offsetof(VEXOCopyArgsEx, readWriteData) == 8);
static_assert(offsetof(VEXOCopyArgsEx, copyFile) == 16);
static_assert(offsetof(VEXOCopyArgsEx, copyEA) == 24);
static_assert(offsetof(VEXOCopyArgsEx, getDirSize) == 32);
static_assert(offsetof(VEXOCopyArgsEx, getDstFileName) == 40);
static_assert(offsetof(VEXOCopyArgsEx, srcCodePage) == 48);
static_assert(offsetof(VEXOCopyArgsEx, destCodePage) == 112);

static_assert(sizeof(VEXOCopyTHRArgs) == 144);
static_assert(offsetof(VEXOCopyTHRArgs, progress) == 0);
static_assert(offsetof(VEXOCopyTHRArgs, progressArg) == 8);
static_assert(offsetof(VEXOCopyTHRArgs, errReport) == 16);
static_assert(offsetof(VEXOCopyTHRArgs, errReportArg) == 24);
static_assert(offsetof(VEXOCopyTHRArgs, isCancel) == 32);
static_assert(offsetof(VEXOCopyTHRArgs, isCancelArg) == 40);
static_assert(offsetof(VEXOCopyTHRArgs, rename) == 48);
static_assert(offsetof(VEXOCopyTHRArgs, renameArg) == 56);
static_assert(offsetof(VEXOCopyTHRArgs, getReadSize) == 64);
static_assert(offsetof(VEXOCopyTHRArgs, getReadSizeArg) == 72);
static_assert(offsetof(VEXOCopyTHRArgs, readWriteData) == 80);
static_assert(offsetof(VEXOCopyTHRArgs, readWriteDataArg) == 88);
static_assert(offsetof(VEXOCopyTHRArgs, copyFile) == 96);
static_assert(offsetof(VEXOCopyTHRArgs, copyFileArg) == 104);
static_assert(offsetof(VEXOCopyTHRArgs, copyEA) == 112);
static_assert(offsetof(VEXOCopyTHRArgs, copyEAArg) == 120);
static_assert(offsetof(VEXOCopyTHRArgs, getDirSize) == 128);
static_assert(offsetof(VEXOCopyTHRArgs, getDirSizeArg) == 136);

static_assert(sizeof(VEXOCopyOpt) == 80);
static_assert(offsetof(VEXOCopyOpt, overwrite) == 0);
static_assert(offsetof(VEXOCopyOpt, move) == 4);
static_assert(offsetof(VEXOCopyOpt, stopOnError) == 8);
static_assert(offsetof(VEXOCopyOpt, ownerMode) == 12);
static_assert(offsetof(VEXOCopyOpt, copyAcl) == 16);
static_assert(offsetof(VEXOCopyOpt, enforceInherit) == 20);
static_assert(offsetof(VEXOCopyOpt, cleanArchive) == 24);
static_assert(offsetof(VEXOCopyOpt, progress) == 32);
static_assert(offsetof(VEXOCopyOpt, errReport) == 40);
static_assert(offsetof(VEXOCopyOpt, isCancel) == 48);
static_assert(offsetof(VEXOCopyOpt, rename) == 56);
static_assert(offsetof(VEXOCopyOpt, eaFlags) == 64);
static_assert(offsetof(VEXOCopyOpt, uid) == 68);
static_assert(offsetof(VEXOCopyOpt, gid) == 72);
static_assert(offsetof(VEXOCopyOpt, eaCopy) == 76);

static_assert(sizeof(VEXOCopyOptR) == 36);
static_assert(offsetof(VEXOCopyOptR, overwrite) == 0);
static_assert(offsetof(VEXOCopyOptR, move) == 4);
static_assert(offsetof(VEXOCopyOptR, stopOnError) == 8);
static_assert(offsetof(VEXOCopyOptR, ownerMode) == 12);
static_assert(offsetof(VEXOCopyOptR, copyAcl) == 16);
static_assert(offsetof(VEXOCopyOptR, enforceInherit) == 20);
static_assert(offsetof(VEXOCopyOptR, cleanArchive) == 24);
static_assert(offsetof(VEXOCopyOptR, uid) == 28);
static_assert(offsetof(VEXOCopyOptR, gid) == 32);
