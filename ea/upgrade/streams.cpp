// Upgrading the streams that keep their bytes: the resource and any other.
#include "ea/ea.h"
#include "ea/files/store_entry.h"
#include "ea/names/store.h"
#include "ea/upgrade/upgrade.h"
#include "platform/core.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <string_view>

namespace vexo {
namespace {

constexpr char kOldResource[] = "VEXO:Resource";

// Whether there is a stream to move, and room for it: kConverted; else the result.
int look_before_moving(const char *from, const char *to) {
    if (const int current = look_for_store(to); current != 0) {
        return current < 0 ? -1 : kAlreadyCurrent;
    }
    const int old = look_for_store(from);
    if (old <= 0) {
        return old < 0 ? -1 : kNothingOld;
    }
    return kConverted;
}

} // namespace

int upgrade_resource(const char *path) {
    PathBuffer from;
    PathBuffer to;
    if (VEXOEAPath(kOlderLayout, path, kOldResource, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0 ||
        VEXOEAPath(kCurrentLayout, path, kResourceStream, to.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    if (const int found = look_before_moving(from.c_str(), to.c_str()); found != kConverted) {
        return found;
    }
    if (rename_in_store(from.c_str(), to.c_str()) != 0) {
        return fail(Error::rename_ea, VEXO_UPGRADE_HERE);
    }
    carry_file_flags(to.c_str(), path);
    from.adopt();
    from.shorten(from.view().rfind('/'));
    return remove_old_directory(from.c_str(), kConverted);
}

int upgrade_stream(const char *path, const char *streamName) {
    PathBuffer from;
    if (VEXOEAPath(kOlderLayout, path, streamName, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    from.adopt();
    PathBuffer to(from.view());
    const size_t colon = to.view().rfind(':');
    if (colon != std::string_view::npos && colon > to.view().rfind('/')) {
        to.shorten(colon);
        to.append("@").append(from.c_str() + colon + 1);
    }
    if (const int found = look_before_moving(from.c_str(), to.c_str()); found != kConverted) {
        return found;
    }
    // One that ran and could not move it is told from success by the caller, who looks.
    return VLIBCExec("/bin/mv", from.c_str(), to.c_str(), nullptr) < 0 ? fail(Error::rename_ea, VEXO_UPGRADE_HERE)
                                                                       : kConverted;
}

} // namespace vexo
