// The descriptor copy as the single-file copy calls it, with the records of its caller.
#pragma once

#include "copy/copy.h"

#include <cstdint>

// Progress and cancel come from `opt` where it is given, even when its slots are empty, else from `thr`; the read size
// from `ex` where it has one, else from `thr`. Any of the records may be null; `optR` has no callbacks and is not read.
// 0, or -1 reported.
int _VEXOCopyFileFd(int srcFd, int dstFd, int64_t size, VEXOCopyOpt *opt, VEXOCopyOptR *optR, VEXOCopyArgsEx *ex,
                    VEXOCopyTHRArgs *thr);
