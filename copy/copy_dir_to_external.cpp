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
        return copy_directory_anywhere(src, staged, nullptr, nullptr, 0, cancelled);
    }
    VEXOCopyOpt watched = *opt;
    watched.move = 0;
    if (opt->isCancel == nullptr) {
        return copy_directory_anywhere(src, staged, &watched, nullptr, 0, cancelled);
    }
    watched.isCancel = ask_and_note;
    CancelWatch watch{opt->isCancel, cancelled};
    CancelWatch *const outer = watching; // a callback may start another relocation
    watching = &watch;
    const int result = copy_directory_anywhere(src, staged, &watched, nullptr, 0, cancelled);
    watching = outer;
    return result;
}

void log_event(RelocationEvent event, Place place, const char *first, const char *second) {
    switch (event) {
    case RelocationEvent::bad_arguments:
        VEXO_LOG_ERROR(place, "Parameters error.");
        break;
    case RelocationEvent::staging_not_made:
        VEXO_LOG_ERROR(place, "Failed to mkdir = %s, vexoerr=[0x%04X]", first, VLIBCErrGet());
        break;
    case RelocationEvent::staging_not_cleaned:
    case RelocationEvent::destination_not_cleaned:
        VEXO_LOG_ERROR(place, "Failed to clean share at path : %s, vexoerr=[0x%04X]", first, VLIBCErrGet());
        break;
    case RelocationEvent::not_copied:
        VEXO_LOG_ERROR(place, "Failed to copy share to other volume:%s, szDestPath:%s, vexoerr=[0x%04X]", first, second,
                       VLIBCErrGet());
        break;
    case RelocationEvent::stage_failed:
        VEXO_LOG_ERROR(place, "Failed to Copy share's data to @tmp: oldpath = %s , newpath = %s, errno=0x%X\n", first,
                       second, VLIBCErrGet());
        break;
    case RelocationEvent::not_moved:
        VEXO_LOG_ERROR(place, "Failed to change share to other volume:%s, szDestPath:%s, vexoerr=[0x%04X]", first,
                       second, VLIBCErrGet());
        break;
    case RelocationEvent::source_not_removed: // without the blank that the next one has: both texts are searched for
        VEXO_LOG_ERROR(place, "Failed to remove the dir which path =%s and type = [0]", first);
        break;
    case RelocationEvent::staged_not_removed:
        VEXO_LOG_ERROR(place, "Failed to remove the dir which path = %s and type = [0]", first);
        break;
    case RelocationEvent::commit_failed:
        VEXO_LOG_ERROR(place, "Failed to move share's data from @tmp: oldpath = %s , newpath = %s, errno=0x%X\n", first,
                       second, VLIBCErrGet());
        break;
    }
}

} // namespace

int VEXOCopyDirToExternal(const char *src, const char *dst, int keepSource, VEXOCopyOpt *opt) {
    const RelocationRequest request{keepSource != 0, true, {copy_to_staging, opt}, log_event, VEXO_SOURCE};
    return relocate(src, dst, request);
}
