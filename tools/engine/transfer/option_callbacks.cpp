#include "tools/engine/transfer/option_callbacks.h"

namespace engine {
namespace {

// The library calls back on the thread that called it, so that each thread has its own.
thread_local OptionCallbacks *running = nullptr;

void on_progress(int64_t bytes, int64_t offset) {
    running->on_progress(bytes, offset);
}

void on_failure(const char *path, uint32_t code) {
    running->on_failure(path, code);
}

int on_poll() {
    return running->on_poll() ? 1 : 0;
}

} // namespace

OptionCallbacks::OptionCallbacks(VEXOCopyOpt &options) {
    running = this;
    options.progress = engine::on_progress;
    options.errReport = engine::on_failure;
    options.isCancel = engine::on_poll;
}

OptionCallbacks::~OptionCallbacks() {
    running = nullptr;
}

} // namespace engine
