#include "tools/engine/transfer/tree_call.h"

#include "copy/copy.h"

#include <utility>

namespace tool {
namespace {

// The entry point that asks each directory for the type of its volume, as the tool's own walk does, has callbacks
// without user data.
struct Running {
    const TreeCallHooks *hooks;
    TreeCall call;
} *running = nullptr;

void on_progress(int64_t bytes, int64_t offset) {
    running->call.bytes += bytes;
    running->hooks->progress(bytes, bytes == offset);
}

void on_failure(const char *path, uint32_t) {
    running->call.refused.insert(path);
}

int on_poll() {
    running->call.stopped = running->call.stopped || running->hooks->stopped();
    return running->call.stopped ? 1 : 0;
}

} // namespace

TreeCall call_tree_copy(const std::string &source, const std::string &destination, const TreeCallHooks &hooks) {
    Running state{&hooks, {}};
    running = &state;
    VEXOCopyOpt options{};
    options.overwrite = -1;
    options.ownerMode = 1;
    options.copyAcl = 1;
    options.progress = on_progress;
    options.errReport = on_failure;
    options.isCancel = on_poll;
    // Its result says less than what is there afterwards.
    (void)VEXOFileCopyDirectory(source.c_str(), destination.c_str(), &options);
    running = nullptr;
    return std::move(state.call);
}

} // namespace tool
