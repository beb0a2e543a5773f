// Copying or moving a directory tree: the front doors that take a VEXOCopyOpt and a VEXOCopyArgsEx.
#include "copy/engine/copy_directory.h"

#include "copy/engine/callbacks.h"
#include "copy/engine/tree_copy.h"
#include "ea/ea.h"
#include "platform/sdk.h"
#include "support/errno_table.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/report.h"

#include <cerrno>
#include <libgen.h>

using namespace vexo;

namespace {

// What the callbacks of a tree need of the caller's records.
struct Caller {
    VEXOCopyOpt *opt;
    VEXOCopyArgsEx *ex;
    int srcKind;
    int dstKind;
    uint32_t flags;
};

const Caller &caller_of(void *data) {
    return *static_cast<const Caller *>(data);
}

int copy_regular_file(void *data, const char *src, const char *dst, const WalkedDirectory *directory) {
    const Caller &caller = caller_of(data);
    constexpr int kLookUp = -1;
    if (caller.ex != nullptr && caller.ex->copyFile != nullptr) {
        return caller.ex->copyFile(src, dst, caller.opt, kLookUp, caller.dstKind, 0, caller.ex);
    }
    if ((caller.flags & kCloneFlag) != 0) {
        return clone_file_of_directory(src, dst, caller.opt, caller.ex, directory);
    }
    return copy_file_of_directory(src, dst, caller.opt, caller.dstKind, caller.ex, directory);
}

int copy_metadata(void *data, const char *src, const char *dst) {
    const Caller &caller = caller_of(data);
    const VEXOCopyOpt *opt = caller.opt;
    return VEXOEACopyEx(src, dst, opt == nullptr ? 0 : static_cast<int>(opt->move),
                        opt == nullptr ? 0 : static_cast<int>(opt->eaFlags), caller.srcKind, caller.dstKind, 0,
                        opt == nullptr || opt->eaCopy != 1 ? 1 : 0, caller.ex == nullptr ? nullptr : caller.ex->copyEA);
}

int rename_metadata(void *data, const char *src, const char *dst) {
    return VEXOEARename(src, dst, caller_of(data).srcKind, 0);
}

int type_unknown(const char *path, const char *source) {
    const int number = errno;
    VEXO_LOG_ERROR(VEXO_AT(source), "failed to statfs %s, reason=[(%d)%m]", path, number);
    if (const std::optional<Error> error = find_error(kTypeLookupErrors, number)) {
        set_error(*error, VEXO_AT(source));
    }
    return -1;
}

} // namespace

namespace vexo {

int look_up_directory_kinds(const char *src, const char *dst, DirectoryKinds *kinds, const char *source) {
    kinds->src = VEXOGetFSType(src, 0);
    if (kinds->src < 0) {
        return type_unknown(src, source);
    }
    HeapString copy(dst);
    if (!copy) {
        return fail(Error::out_of_memory, VEXO_AT(source));
    }
    const char *parent = ::dirname(copy.get());
    kinds->dst = VEXOGetFSType(parent, 0);
    return kinds->dst < 0 ? type_unknown(parent, source) : 0;
}

int copy_directory(const char *src, const char *dst, int srcKind, int dstKind, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex,
                   uint32_t flags, bool *cancelled) {
    Caller caller{opt, ex, srcKind, dstKind, flags};
    TreeRequest request{};
    request.srcKind = srcKind;
    request.dstKind = dstKind;
    request.pathsMustFit = (flags & kStagingFlag) != 0;
    if (opt != nullptr) {
        request.move = opt->move != 0;
        request.replaces = opt->overwrite == 1;
        request.stopOnError = opt->stopOnError != 0;
        request.keepOwner = opt->ownerMode == 1;
        request.copyAcl = opt->copyAcl != 0;
        request.cleanArchive = opt->cleanArchive != 0;
        request.uid = opt->uid;
        request.gid = opt->gid;
    }
    request.progress = progress_of(opt);
    request.errReport = error_report_of(opt);
    request.isCancel = cancel_of(opt);
    request.dirSize = directory_size_of(ex);
    request.dstName = destination_name_of(ex);
    request.copyFile = {copy_regular_file, &caller};
    request.copyMetadata = {copy_metadata, &caller};
    request.carriesMetadata = true;
    request.renameMetadata = {rename_metadata, &caller};
    request.source = VEXO_SOURCE;
    return copy_tree(src, dst, request, cancelled);
}

int copy_directory_anywhere(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex, uint32_t flags,
                            bool *cancelled) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    DirectoryKinds kinds;
    if (look_up_directory_kinds(src, dst, &kinds, VEXO_SOURCE) < 0) {
        return -1;
    }
    const UmaskGuard mask(0);
    return copy_directory(src, dst, kinds.src, kinds.dst, opt, ex, flags, cancelled);
}

} // namespace vexo

int VEXOCopyDirectoryExI(const char *src, const char *dst, VEXOCopyOpt *opt, int srcKind, int dstKind, int /*spare*/,
                         VEXOCopyArgsEx *ex) {
    bool cancelled = false;
    return copy_directory(src, dst, srcKind, dstKind, opt, ex, 0, &cancelled);
}

int VEXOCopyDirectoryI(const char *src, const char *dst, VEXOCopyOpt *opt, int srcKind, int dstKind) {
    return VEXOCopyDirectoryExI(src, dst, opt, srcKind, dstKind, 0, nullptr);
}

int VEXOFileCopyDirectoryEx(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex) {
    bool cancelled = false;
    return copy_directory_anywhere(src, dst, opt, ex, 0, &cancelled);
}

int VEXOFileCopyDirectory(const char *src, const char *dst, VEXOCopyOpt *opt) {
    return VEXOFileCopyDirectoryEx(src, dst, opt, nullptr);
}

int VEXOFileReflinkCopyDirectory(const char *src, const char *dst, VEXOCopyOpt *opt) {
    bool cancelled = false;
    return copy_directory_anywhere(src, dst, opt, nullptr, kCloneFlag, &cancelled);
}
