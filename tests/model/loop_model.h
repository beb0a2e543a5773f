// The descriptor copy, as plainly as it can be said.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace model {

// Empty functions are slots that are not filled.
struct LoopCallbacks {
    std::function<void(int64_t bytes, int64_t offset)> progress;
    std::function<int()> isCancel;
    std::function<int64_t(int64_t last, int64_t offset)> getReadSize;
};

// 0, or -1 with the last error set under the name `source`.
int copyDescriptor(int srcFd, int dstFd, int64_t size, const LoopCallbacks &callbacks, const std::string &source);

} // namespace model
