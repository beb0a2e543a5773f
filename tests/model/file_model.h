// The copy and the move of one file, as plainly as they can be said: both families, the option structures' and the
// flag word's.
#pragma once

#include "copy/copy.h"

#include <cstdint>
#include <functional>
#include <string>

namespace model {

// What a call asks for, whichever record it came in. Empty functions are slots that are not filled.
struct FileCall {
    bool fileOperation = false; // of the flag word's family
    int overwrite = 0;
    bool move = false, keepOwner = false, copyAcl = false, clone = false, asCaller = false;
    uint32_t ownerMode = 0, uid = 0, gid = 0;
    int32_t *srcType = nullptr, *dstType = nullptr; // -1: to be looked up
    bool writesTypesBack = false;
    bool carriesStore = true;
    int eaMove = 0, eaFlags = 0;
    uint64_t sizeLimit = 0;

    // The records that the store's copy gets.
    VEXOCopyArgsEx *ex = nullptr;
    VEXOCopyTHRArgs *thr = nullptr;
    VEXOCopyArgs *args = nullptr;

    std::function<void(int64_t bytes, int64_t offset)> progress;
    std::function<void(int64_t bytes, int64_t offset)> loopProgress; // what the descriptor copy sees
    std::function<int()> loopIsCancel;
    std::function<void(const char *path, uint32_t code)> errReport;
    std::function<int()> isCancel;   // after a failure
    std::function<int()> keepSource; // before a moved source goes
    std::function<int(const char *dst, char *out, int size)> rename;
    std::function<int64_t(int64_t last, int64_t offset)> getReadSize;
    std::function<int(const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size)> readWriteData;

    std::string source() const { return fileOperation ? "copy/fileop_copy_file.c" : "copy/copy_file_copy.c"; }
    std::string loopSource() const { return fileOperation ? "copy/fileop_copy_file_fd.c" : "copy/copy_file_copy_fd.c"; }
};

// 0, or -1 with the last error set.
int copyFile(const std::string &src, const std::string &dst, FileCall &call);

// What front doors do behind a copy that answered 0.
void afterSteps(const std::string &src, const std::string &dst, bool cleanArchive, bool enforceInherit,
                const std::string &source);

} // namespace model
