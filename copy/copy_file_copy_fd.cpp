// Descriptor copies whose callbacks come from the records of the copy engine.
#include "copy/engine/copy_file_fd.h"

#include "copy/engine/callbacks.h"
#include "support/report.h"
#include "transfer/transfer.h"

using namespace vexo;

int _VEXOCopyFileFd(int srcFd, int dstFd, int64_t size, VEXOCopyOpt *opt, VEXOCopyOptR * /*optR*/, VEXOCopyArgsEx *ex,
                    VEXOCopyTHRArgs *thr) {
    const TransferCallbacks callbacks = {
        .progress = opt != nullptr ? progress_of(opt) : progress_of(thr),
        .isCancel = opt != nullptr ? cancel_of(opt) : cancel_of(thr),
        .getReadSize = read_size_of(ex).or_else(read_size_of(thr)),
    };
    return transfer(srcFd, dstFd, size, callbacks, kDescriptorCopySource);
}

int VEXOCopyFileFdEx(int srcFd, int dstFd, int64_t size, VEXOCopyBareProgressFn progress,
                     VEXOCopyBareIsCancelFn isCancel, VEXOCopyArgsEx *ex) {
    VEXOCopyOpt options = {};
    options.progress = progress;
    options.isCancel = isCancel;
    return _VEXOCopyFileFd(srcFd, dstFd, size, &options, nullptr, ex, nullptr);
}

int VEXOCopyFileFd(int srcFd, int dstFd, int64_t size, VEXOCopyBareProgressFn progress,
                   VEXOCopyBareIsCancelFn isCancel) {
    return VEXOCopyFileFdEx(srcFd, dstFd, size, progress, isCancel, nullptr);
}
