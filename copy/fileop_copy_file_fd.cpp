// Descriptor copy whose callbacks come from the record of the file operations.
#include "copy/copy.h"

#include "copy/engine/callbacks.h"
#include "support/report.h"
#include "transfer/transfer.h"

using namespace vexo;

int VEXOFileOpCopyFileFd(int srcFd, int dstFd, int64_t size, VEXOCopyArgs *args) {
    const TransferCallbacks callbacks = {
        .progress = progress_of(args), .isCancel = cancel_of(args), .getReadSize = read_size_of(args)};
    return transfer(srcFd, dstFd, size, callbacks, VEXO_SOURCE);
}
