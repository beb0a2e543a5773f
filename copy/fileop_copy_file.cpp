// The single-file copy that a flag word and a VEXOCopyArgs drive, for the file-operation services.
#include "copy/copy.h"

#include "copy/engine/callbacks.h"
#include "copy/engine/file_copy.h"
#include "copy/engine/fileop_copy.h"
#include "copy/engine/fileop_flags.h"
#include "ea/carry/known.h"
#include "ea/ea.h"
#include "support/guards.h"
#include "support/report.h"

using namespace vexo;

namespace {

// What the steps need of the call.
struct Caller {
    uint32_t flags;
    VEXOCopyArgs *args;
};

int copy_data(void *data, const char *, const char *, int *srcFd, int *dstFd, int64_t size) {
    return VEXOFileOpCopyFileFd(*srcFd, *dstFd, size, static_cast<VEXOCopyArgs *>(data));
}

int is_too_large(void *data, const char *dst, int type, uint64_t size) {
    return _VEXOCopyIsFileSizeTooLarge(static_cast<VEXOCopyArgs *>(data), dst, type, size);
}

int rename_metadata(void *, const char *src, const char *dst, int srcType) {
    return VEXOEARename(src, dst, srcType, 0);
}

int copy_metadata(void *data, const FileRef &src, const FileRef &dst, int srcType, int dstType,
                  const KnownOfFile &known) {
    const Caller &caller = *static_cast<const Caller *>(data);
    return copy_ea(src, dst, (caller.flags & kFileOpMove) != 0 ? 1 : 0, (caller.flags & kFileOpWholeEaDir) != 0 ? 1 : 0,
                   srcType, dstType, nullptr, nullptr, caller.args, known);
}

Overwrite overwrite_of(uint32_t flags) {
    if ((flags & kFileOpFailIfExists) != 0) {
        return Overwrite::fail;
    }
    return (flags & kFileOpReplace) != 0 ? Overwrite::replace : Overwrite::leave;
}

int run_engine(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args, const WalkedDirectory *directory) {
    int32_t srcType = -1;
    int32_t dstType = -1;
    FileCopyRequest request = {.source = VEXO_SOURCE,
                               .src = src,
                               .dst = dst,
                               .srcType = &srcType,
                               .dstType = &dstType,
                               .directory = directory};
    request.overwrite = overwrite_of(flags);
    request.owner.mode = (flags & kFileOpKeepOwner) != 0 ? OwnerPolicy::kKeep : OwnerPolicy::kChosen;
    request.move = (flags & kFileOpMove) != 0;
    request.clone = (flags & kFileOpClone) != 0;
    request.copyAcl = (flags & kFileOpCopyAcl) != 0;
    request.asCaller = (flags & kFileOpAsCaller) != 0;
    if (args != nullptr) {
        request.owner.uid = args->uid;
        request.owner.gid = args->gid;
        request.srcType = &args->fsTypeSrc;
        request.dstType = &args->fsTypeDst;
    }

    request.progress = progress_of(args);
    request.errReport = error_report_of(args);
    request.isCancel = cancel_of(args);
    request.keepSource = request.isCancel;
    request.rename = rename_of(args);
    request.isTooLarge = {is_too_large, args};
    Caller caller = {flags, args};
    const auto moveData = read_write_data_of(args);
    request.moveData = moveData.or_else({copy_data, args});
    request.moveDataIsOurs = !moveData;
    if ((flags & kFileOpNoMetadata) == 0) {
        request.renameMetadata = {rename_metadata, nullptr};
        request.copyMetadata = {copy_metadata, &caller};
    }
    return copy_file(request);
}

} // namespace

int vexo::copy_fileop_file(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args,
                           const WalkedDirectory *directory) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    int result = 0;
    {
        const UmaskGuard fullModes(0);
        result = args != nullptr && args->copyFile != nullptr ? args->copyFile(args->copyFileArg, src, dst, flags, args)
                                                              : run_engine(src, dst, flags, args, directory);
    }
    if (result == 0) {
        do_after_steps({args != nullptr && args->cleanArchive != 0, (flags & kFileOpEnforceInherit) != 0}, src, dst,
                       VEXO_SOURCE);
    }
    return result;
}

int VEXOFileOpCopyFile(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args) {
    return copy_fileop_file(src, dst, flags, args, nullptr);
}
