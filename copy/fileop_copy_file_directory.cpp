// Copying, moving or relocating a directory tree by a flag word and a VEXOCopyArgs.
#include "copy/copy.h"

#include "copy/engine/callbacks.h"
#include "copy/engine/fileop_copy.h"
#include "copy/engine/fileop_flags.h"
#include "copy/engine/relocation.h"
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

// What the callbacks of a tree need of the call.
struct Caller {
    uint32_t flags;
    VEXOCopyArgs *args;
};

const Caller &caller_of(void *data) {
    return *static_cast<const Caller *>(data);
}

int copy_regular_file(void *data, const char *src, const char *dst, const WalkedDirectory *directory) {
    const Caller &caller = caller_of(data);
    if (caller.args->copyFile != nullptr) {
        return caller.args->copyFile(caller.args->copyFileArg, src, dst, caller.flags, caller.args);
    }
    return copy_fileop_file(src, dst, caller.flags, caller.args, directory);
}

int copy_metadata(void *data, const char *src, const char *dst) {
    const Caller &caller = caller_of(data);
    return VEXOEACopyInternal(src, dst, (caller.flags & kFileOpMove) != 0 ? 1 : 0,
                              (caller.flags & kFileOpWholeEaDir) != 0 ? 1 : 0, caller.args->fsTypeSrc,
                              caller.args->fsTypeDst, nullptr, nullptr, caller.args);
}

int rename_metadata(void *data, const char *src, const char *dst) {
    return VEXOEARename(src, dst, caller_of(data).args->fsTypeSrc, 0);
}

int nothing_to_copy(void * /*data*/, const char * /*src*/, const char * /*dst*/) {
    return 0;
}

// The tree itself, however it was asked for.
int copy_directory(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args, bool staging,
                   bool *cancelled) {
    Caller caller{flags, args};
    TreeRequest request{};
    request.srcKind = args->fsTypeSrc;
    request.dstKind = args->fsTypeDst;
    request.srcKindHolds = true;
    request.pathsMustFit = staging;
    request.move = (flags & kFileOpMove) != 0;
    request.replaces = (flags & kFileOpFailIfExists) == 0 && (flags & kFileOpReplace) != 0;
    request.stopOnError = (flags & kFileOpStopOnError) != 0;
    request.keepOwner = (flags & kFileOpKeepOwner) != 0;
    request.copyAcl = (flags & kFileOpCopyAcl) != 0;
    request.cleanArchive = args->cleanArchive != 0;
    request.uid = args->uid;
    request.gid = args->gid;
    request.progress = progress_of(args);
    request.errReport = error_report_of(args);
    request.isCancel = cancel_of(args);
    request.dirSize = directory_size_of(args);
    request.dstName = destination_name_of(args);
    request.copyFile = {copy_regular_file, &caller};
    request.copyMetadata = {nothing_to_copy, nullptr};
    if ((flags & kFileOpNoMetadata) == 0) {
        request.copyMetadata = {copy_metadata, &caller};
        request.carriesMetadata = true;
        request.renameMetadata = {rename_metadata, &caller};
    }
    request.source = VEXO_SOURCE;
    return copy_tree(src, dst, request, cancelled);
}

int type_unknown(const char *path) {
    const int number = errno;
    VEXO_LOG_ERROR(VEXO_HERE, "VEXOGetFSType [%s] failed. (%m)", path);
    if (const std::optional<Error> error = find_error(kTypeLookupErrors, number)) {
        set_error(*error, VEXO_HERE);
    }
    return -1;
}

// What the record does not say yet is looked up and written into it.
int complete_record(const char *src, const char *dst, VEXOCopyArgs *args) {
    if (args->fsTypeSrc < 0) {
        args->fsTypeSrc = VEXOGetFSType(src, 0);
        if (args->fsTypeSrc < 0) {
            return type_unknown(src);
        }
    }
    if (args->fsTypeDst < 0) {
        HeapString copy(dst);
        if (!copy) {
            return fail(Error::out_of_memory, VEXO_HERE);
        }
        const char *parent = ::dirname(copy.get());
        args->fsTypeDst = VEXOGetFSType(parent, 0);
        if (args->fsTypeDst < 0) {
            return type_unknown(parent);
        }
    }
    if (args->dstFsFileSizeLimit == 0) {
        args->dstFsFileSizeLimit = _VEXOCopyFsFileSizeLimitGet(dst, args->fsTypeDst);
    }
    return 0;
}

// The record that a staging copy works with, in the place of the caller's: it notes whether the caller ever wanted to
// stop (a copy that was cancelled inside its last file is a success to the walk, but nothing to commit). The caller's
// callbacks are handed the caller's record, and find it as it is.
class WatchedRecord {
  public:
    WatchedRecord(VEXOCopyArgs *caller, bool *cancelled) : m_record(*caller), m_caller(caller), m_cancelled(cancelled) {
        if (caller->isCancel != nullptr) {
            m_record.isCancel = ask;
            m_record.isCancelArg = this;
        }
        if (caller->copyFile != nullptr) {
            m_record.copyFile = copy_file;
            m_record.copyFileArg = this;
        }
        if (caller->readWriteData != nullptr) {
            m_record.readWriteData = read_write_data;
            m_record.readWriteDataArg = this;
        }
    }
    WatchedRecord(const WatchedRecord &) = delete;
    WatchedRecord &operator=(const WatchedRecord &) = delete;
    ~WatchedRecord() = default;

    VEXOCopyArgs *get() { return &m_record; }

  private:
    static const WatchedRecord &of(void *data) { return *static_cast<const WatchedRecord *>(data); }
    static int ask(void *data) {
        const WatchedRecord &watch = of(data);
        const VEXOCopyArgs &caller = *watch.m_caller;
        const int answer = caller.isCancel == nullptr ? 0 : caller.isCancel(caller.isCancelArg);
        *watch.m_cancelled = *watch.m_cancelled || answer != 0;
        return answer;
    }
    static int copy_file(void *data, const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *) {
        VEXOCopyArgs *caller = of(data).m_caller;
        return caller->copyFile(caller->copyFileArg, src, dst, flags, caller);
    }
    static int read_write_data(void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                               VEXOCopyArgs *) {
        VEXOCopyArgs *caller = of(data).m_caller;
        return caller->readWriteData(caller->readWriteDataArg, src, dst, srcFd, dstFd, size, caller);
    }

    VEXOCopyArgs m_record;
    VEXOCopyArgs *m_caller;
    bool *m_cancelled;
};

// What the caller's own callbacks copy asks the caller's own cancel callback, unseen: it is asked once more at the end.
int copy_to_staging(void *data, const char *src, const char *staged, bool *cancelled) {
    WatchedRecord watched(static_cast<VEXOCopyArgs *>(data), cancelled);
    const int result = copy_directory(src, staged, 0, watched.get(), true, cancelled);
    if (result == 0 && watched.get()->isCancel != nullptr && !*cancelled) {
        (void)watched.get()->isCancel(watched.get()->isCancelArg);
    }
    return result;
}

int run(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args) {
    if (complete_record(src, dst, args) < 0) {
        return -1;
    }
    const UmaskGuard mask(0);
    if ((flags & kFileOpRelocate) == 0) {
        bool cancelled = false;
        return copy_directory(src, dst, flags, args, false, &cancelled);
    }
    const RelocationRequest request{
        (flags & kFileOpMove) != 0, false, {copy_to_staging, args}, RelocationTexts::file_operation, VEXO_SOURCE};
    return relocate(src, dst, request);
}

// Owner of a record that stands in for the one the caller did not give.
class DefaultRecord {
  public:
    DefaultRecord() : m_record(VEXOCopyArgsAlloc()) {}
    DefaultRecord(const DefaultRecord &) = delete;
    DefaultRecord &operator=(const DefaultRecord &) = delete;
    ~DefaultRecord() { VEXOCopyArgsFree(m_record); }
    VEXOCopyArgs *get() const { return m_record; }

  private:
    VEXOCopyArgs *m_record;
};

} // namespace

int VEXOFileOpCopyDir(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (args != nullptr) {
        return run(src, dst, flags, args);
    }
    const DefaultRecord record;
    return record.get() == nullptr ? -1 : run(src, dst, flags, record.get());
}
