// Moving the contents of a shared folder to another volume.
#include "copy/copy.h"

#include "copy/engine/copy_directory.h"
#include "copy/engine/relocation.h"
#include "support/report.h"

using namespace vexo;

namespace {

// The cancel callback of the relocation that this thread runs, and whether it ever wanted to stop: a copy that was
// cancelled inside its last file is a success to the walk, but nothing to commit. A bare callback has no user data, so
// the thread holds it.
struct CancelWatch {
    VEXOCopyBareIsCancelFn isCancel;
    bool *cancelled;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local CancelWatch *watching = nullptr;

int ask_and_note() {
    const int answer = watching->isCancel();
    *watching->cancelled = *watching->cancelled || answer != 0;
    return answer;
}

// Always a copy: a source that was moved into the staging directory would be lost with it when the relocation fails.
int copy_to_staging(void *data, const char *src, const char *staged, bool *cancelled) {
    const auto *opt = static_cast<const VEXOCopyOpt *>(data);
    if (opt == nullptr) {
        return copy_directory_anywhere(src, staged, nullptr, nullptr, kStagingFlag, cancelled);
    }
    VEXOCopyOpt watched = *opt;
    watched.move = 0;
    if (opt->isCancel == nullptr) {
        return copy_directory_anywhere(src, staged, &watched, nullptr, kStagingFlag, cancelled);
    }
    watched.isCancel = ask_and_note;
    CancelWatch watch{opt->isCancel, cancelled};
    CancelWatch *const outer = watching; // a callback may start another relocation
    watching = &watch;
    const int result = copy_directory_anywhere(src, staged, &watched, nullptr, kStagingFlag, cancelled);
    watching = outer;
    return result;
}

} // namespace

int VEXOCopyDirToExternal(const char *src, const char *dst, int keepSource, VEXOCopyOpt *opt) {
    const RelocationRequest request{keepSource != 0, true, {copy_to_staging, opt}, RelocationTexts::share, VEXO_SOURCE};
    return relocate(src, dst, request);
}
