// The single-file copies that an option structure drives: VEXOFileCopy and its siblings. All of them fill one request
// for the engine of copy/engine/file_copy.h.
#include "copy/copy.h"

#include "copy/engine/callbacks.h"
#include "copy/engine/copy_directory.h"
#include "copy/engine/copy_file_fd.h"
#include "copy/engine/file_copy.h"
#include "ea/carry/known.h"
#include "ea/ea.h"
#include "support/guards.h"
#include "support/report.h"

using namespace vexo;

namespace {

constexpr int kUnknownType = -1;
constexpr int kSpare = 1; // what a copyFile callback gets where nothing is handed on

// What the caller gave: one of the two option structures or none, and the callbacks beside it.
struct Records {
    VEXOCopyOpt *opt = nullptr;
    VEXOCopyOptR *optR = nullptr;
    VEXOCopyArgsEx *ex = nullptr;
    VEXOCopyTHRArgs *thr = nullptr;
    const WalkedDirectory *directory = nullptr;
};

int copy_data(void *data, const char *, const char *, int *srcFd, int *dstFd, int64_t size) {
    const Records &given = *static_cast<const Records *>(data);
    return _VEXOCopyFileFd(*srcFd, *dstFd, size, given.opt, given.optR, given.ex, given.thr);
}

int is_too_large(void *, const char *dst, int type, uint64_t size) {
    return _VEXOCopyIsFileSizeTooLarge(nullptr, dst, type, size);
}

int rename_metadata(void *, const char *src, const char *dst, int srcType) {
    return VEXOEARename(src, dst, srcType, 0);
}

int copy_metadata(void *data, const FileRef &src, const FileRef &dst, int srcType, int dstType,
                  const KnownOfFile &known) {
    const Records &given = *static_cast<const Records *>(data);
    const int move = given.opt == nullptr ? 0 : static_cast<int>(given.opt->move);
    const int eaFlags = given.opt == nullptr ? 0 : static_cast<int>(given.opt->eaFlags);
    return copy_ea(src, dst, move, eaFlags, srcType, dstType, given.ex, given.thr, nullptr, known);
}

template <typename Options>
void take_policy(FileCopyRequest &request, const Options &options) {
    request.overwrite = static_cast<Overwrite>(options.overwrite);
    request.owner = {options.ownerMode, options.uid, options.gid};
    request.move = options.move != 0;
    request.copyAcl = options.copyAcl != 0;
}

// What an entry point adds to its records: share extents where possible, or act with the caller's own rights only.
enum class Mode { plain, clone, as_caller };

int run_engine(const char *src, const char *dst, Records given, Mode mode, int32_t srcType = kUnknownType,
               int32_t dstType = kUnknownType) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    FileCopyRequest request = {.source = VEXO_SOURCE,
                               .src = src,
                               .dst = dst,
                               .srcType = &srcType,
                               .dstType = &dstType,
                               .directory = given.directory};
    if (given.opt != nullptr) {
        take_policy(request, *given.opt);
    } else if (given.optR != nullptr) {
        take_policy(request, *given.optR);
    }
    request.clone = mode == Mode::clone;
    request.asCaller = mode == Mode::as_caller;

    request.progress = progress_of(given.opt).or_else(progress_of(given.thr));
    request.errReport = error_report_of(given.opt).or_else(error_report_of(given.thr));
    request.isCancel = cancel_of(given.opt).or_else(cancel_of(given.thr));
    request.keepSource = cancel_of(given.opt); // the other record's is not asked before the source of a move goes
    request.rename = rename_of(given.opt).or_else(rename_of(given.thr));
    request.isTooLarge = {is_too_large, nullptr};
    OptionsAndEx beside = {given.opt, given.ex};
    const auto moveData = read_write_data_of(&beside).or_else(read_write_data_of(given.thr));
    request.moveData = moveData.or_else({copy_data, &given});
    request.moveDataIsOurs = !moveData;
    request.renameMetadata = {rename_metadata, nullptr};
    request.copyMetadata = {copy_metadata, &given};
    return copy_file(request);
}

template <typename Options>
int after(int result, const Options *options, const char *src, const char *dst) {
    if (result == 0 && options != nullptr) {
        do_after_steps({options->cleanArchive != 0, options->enforceInherit != 0}, src, dst, VEXO_SOURCE);
    }
    return result;
}

bool replaces_copy(const VEXOCopyArgsEx *ex) {
    return ex != nullptr && ex->copyFile != nullptr;
}

} // namespace

int vexo::copy_file_of_directory(const char *src, const char *dst, VEXOCopyOpt *opt, int dstType, VEXOCopyArgsEx *ex,
                                 const WalkedDirectory *directory) {
    return run_engine(src, dst, {.opt = opt, .ex = ex, .directory = directory}, Mode::plain, kUnknownType, dstType);
}

int VEXOFileCopy(const char *src, const char *dst, VEXOCopyOpt *opt) {
    return VEXOFileCopyEx(src, dst, opt, nullptr);
}

int VEXOFileCopyEx(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex) {
    int result = 0;
    {
        const UmaskGuard fullModes(0);
        result = replaces_copy(ex) ? ex->copyFile(src, dst, opt, kUnknownType, kUnknownType, kSpare, ex)
                                   : VEXOCopyFileExI(src, dst, opt, kUnknownType, kUnknownType, kSpare, ex);
    }
    return after(result, opt, src, dst);
}

int vexo::clone_file_of_directory(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex,
                                  const WalkedDirectory *directory) {
    int result = 0;
    {
        const UmaskGuard fullModes(0);
        result = replaces_copy(ex) ? ex->copyFile(src, dst, opt, kUnknownType, kUnknownType, kSpare, ex)
                                   : run_engine(src, dst, {.opt = opt, .ex = ex, .directory = directory}, Mode::clone);
    }
    return after(result, opt, src, dst);
}

int VEXOFileReflinkCopy(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex) {
    return clone_file_of_directory(src, dst, opt, ex, nullptr);
}

int VEXOFileCopy_r(const char *src, const char *dst, VEXOCopyOptR *optR, VEXOCopyTHRArgs *thr) {
    int result = 0;
    {
        const UmaskGuard fullModes(0);
        result = thr != nullptr && thr->copyFile != nullptr
                     ? thr->copyFile(thr->copyFileArg, src, dst, optR, kUnknownType, kUnknownType, kSpare, thr)
                     : run_engine(src, dst, {.optR = optR, .thr = thr}, Mode::as_caller);
    }
    return after(result, optR, src, dst);
}

int VEXOCopyFileExI(const char *src, const char *dst, VEXOCopyOpt *opt, int srcType, int dstType, int /*spare*/,
                    VEXOCopyArgsEx *ex) {
    return run_engine(src, dst, {.opt = opt, .ex = ex}, Mode::plain, srcType, dstType);
}

int VEXOCopyFileI(const char *src, const char *dst, VEXOCopyOpt *opt, int dstType, int spare) {
    return VEXOCopyFileExI(src, dst, opt, kUnknownType, dstType, spare, nullptr);
}
