#include "tools/engine/transfer/tree_call.h"

#include "copy/copy.h"
#include "tools/engine/transfer/option_callbacks.h"

#include <utility>

namespace engine {
namespace {

// The entry point that asks each directory for the type of its volume, as the engine's own walk does, is one of the
// option family.
class Running : public OptionCallbacks {
  public:
    Running(VEXOCopyOpt &options, TransferObserver &observer) : OptionCallbacks(options), m_observer(observer) {}

    void on_progress(int64_t bytes, int64_t offset) override {
        call.bytes += bytes;
        m_observer.progress(bytes, bytes == offset);
    }
    void on_failure(const char *path, uint32_t) override { call.refused.insert(path); }
    bool on_poll() override {
        call.stopped = call.stopped || m_observer.stopped();
        return call.stopped;
    }

    TreeCall call;

  private:
    TransferObserver &m_observer;
};

} // namespace

TreeCall call_tree_copy(const std::string &source, const std::string &destination, TransferObserver &observer) {
    VEXOCopyOpt options{};
    options.overwrite = -1;
    options.ownerMode = 1;
    options.copyAcl = 1;
    Running running(options, observer);
    running.call.source = source;
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &running.call.begun);
    // Its result says less than what is there afterwards.
    (void)VEXOFileCopyDirectory(source.c_str(), destination.c_str(), &options);
    return std::move(running.call);
}

} // namespace engine
