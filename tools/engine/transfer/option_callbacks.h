// The callbacks of the library's option family, which come without user data.
#pragma once

#include "copy/copy.h"

#include <cstdint>

namespace engine {

// What one call of the library with a VEXOCopyOpt says on its way. While this lives, the record's callbacks of the
// thread that made it lead here; one at a time.
class OptionCallbacks {
  public:
    explicit OptionCallbacks(VEXOCopyOpt &options);
    OptionCallbacks(const OptionCallbacks &) = delete;
    OptionCallbacks &operator=(const OptionCallbacks &) = delete;
    virtual ~OptionCallbacks();

    // So many more bytes are done, `offset` of this file.
    virtual void on_progress(int64_t bytes, int64_t offset) = 0;
    virtual void on_failure(const char *path, uint32_t code) = 0;
    // Whether to stop.
    virtual bool on_poll() = 0;
};

} // namespace engine
