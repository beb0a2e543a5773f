#include "copy/engine/relocation_texts.h"

namespace vexo {
namespace {

void log_failed_stage(bool share, RelocationEvent event, Place place, const char *first, const char *second) {
    const uint32_t code = VLIBCErrGet();
    switch (event) {
    case RelocationEvent::bad_arguments:
        if (share) { // the other says it with the line of the failed stage
            VEXO_LOG_ERROR(place, "Parameters error.");
        }
        break;
    case RelocationEvent::staging_not_made:
        if (share) {
            VEXO_LOG_ERROR(place, "Failed to mkdir = %s, vexoerr=[0x%04X]", first, code);
        } else {
            VEXO_LOG_ERROR(place, "Failed to mkdir = [%s], vexoerr=[0x%04X]", first, code);
        }
        break;
    case RelocationEvent::staging_not_cleaned:
        if (share) {
            VEXO_LOG_ERROR(place, "Failed to clean share at path : %s, vexoerr=[0x%04X]", first, code);
        } else {
            VEXO_LOG_ERROR(place, "Failed to clean share at path : [%s], vexoerr=[0x%04X]", first, code);
        }
        break;
    case RelocationEvent::not_copied:
        if (share) {
            VEXO_LOG_ERROR(place, "Failed to copy share to other volume:%s, szDestPath:%s, vexoerr=[0x%04X]", first,
                           second, code);
        } else {
            VEXO_LOG_ERROR(place, "Failed to copy share to other volume:[%s],szDestPath: [%s], vexoerr=[0x%04X]", first,
                           second, code);
        }
        break;
    default:
        if (share) {
            VEXO_LOG_ERROR(place, "Failed to Copy share's data to @tmp: oldpath = %s , newpath = %s, errno=0x%X\n",
                           first, second, code);
        } else {
            VEXO_LOG_ERROR(place, "Failed to Copy share's data to @tmp: oldpath = %s, newpath = %s, errno=0x%X\n",
                           first, second, code);
        }
        break;
    }
}

void log_failed_commit(bool share, RelocationEvent event, Place place, const char *first, const char *second) {
    const uint32_t code = VLIBCErrGet();
    switch (event) {
    case RelocationEvent::destination_not_cleaned:
        VEXO_LOG_ERROR(place, "Failed to clean share at path : %s, vexoerr=[0x%04X]", first, code);
        break;
    case RelocationEvent::not_moved:
        VEXO_LOG_ERROR(place, "Failed to change share to other volume:%s, szDestPath:%s, vexoerr=[0x%04X]", first,
                       second, code);
        break;
    case RelocationEvent::source_not_removed:
        if (share) { // without the blank that the next one has: both texts are searched for
            VEXO_LOG_ERROR(place, "Failed to remove the dir which path =%s and type = [0]", first);
        } else {
            VEXO_LOG_ERROR(place, "Failed to remove the dir, path = [%s].", first);
        }
        break;
    case RelocationEvent::staged_not_removed:
        if (share) {
            VEXO_LOG_ERROR(place, "Failed to remove the dir which path = %s and type = [0]", first);
        } else {
            VEXO_LOG_ERROR(place, "Failed to remove the dir, path = [%s].", first);
        }
        break;
    default:
        if (share) {
            VEXO_LOG_ERROR(place, "Failed to move share's data from @tmp: oldpath = %s , newpath = %s, errno=0x%X\n",
                           first, second, code);
        } else {
            VEXO_LOG_ERROR(place, "Failed to move share's data from @tmp: oldpath = %s, newpath = %s, errno=0x%X\n",
                           first, second, code);
        }
        break;
    }
}

} // namespace

void log_relocation(RelocationTexts texts, RelocationEvent event, Place place, const char *first, const char *second) {
    const bool share = texts == RelocationTexts::share;
    switch (event) {
    case RelocationEvent::bad_arguments:
    case RelocationEvent::staging_not_made:
    case RelocationEvent::staging_not_cleaned:
    case RelocationEvent::not_copied:
    case RelocationEvent::stage_failed:
        log_failed_stage(share, event, place, first, second);
        break;
    case RelocationEvent::destination_not_cleaned:
    case RelocationEvent::not_moved:
    case RelocationEvent::source_not_removed:
    case RelocationEvent::staged_not_removed:
    case RelocationEvent::commit_failed:
        log_failed_commit(share, event, place, first, second);
        break;
    }
}

} // namespace vexo
