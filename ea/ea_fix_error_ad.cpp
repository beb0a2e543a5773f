// Repairing a resource file that holds extended attributes: they go into the attribute stream, where they belong, and
// the resource file is written anew without them.
#include "ea/ea.h"

#include "ea/carry/conversion.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/entry.h"
#include "ea/names/store.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <fcntl.h>

using namespace vexo;

namespace {

// The attributes that the resource file holds, into the attribute stream. 0, also when it holds none, or -1.
int move_attributes(const char *path, const Fd &source) {
    const int count = attribute_count(source.get());
    if (count <= 0) {
        return count;
    }
    const Fd stream(VEXOEAOpen(kCurrentLayout, path, kEaStream, O_RDWR | O_CREAT, kStreamCompanion));
    if (!stream) {
        return fail(Error::open, VEXO_HERE);
    }
    return write_attributes(source.get(), stream.get());
}

int repair(const char *path, const char *resource, const char *temporary) {
    const Fd source = open_store_file(resource, O_RDONLY);
    if (!source) {
        return fail(Error::open, VEXO_HERE);
    }
    (void)unlink_store_file(temporary); // of a repair that was cut short
    if (convert_apple_double(resource, temporary, ConvertMode::plain) < 0 || move_attributes(path, source) < 0) {
        return -1;
    }
    // An empty resource file needs no repair and gave no other.
    return rename_in_store(temporary, resource) == 0 || errno == ENOENT ? 0 : fail(Error::rename_ea, VEXO_HERE);
}

} // namespace

int VEXOEAFixErrorAD(const char *path) {
    PathBuffer resource;
    if (VEXOEAPath(kCurrentLayout, path, kResourceStream, resource.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    if (!names_entry(path)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    resource.adopt();
    PathBuffer temporary(resource.view());
    temporary.append("Tmp");
    if (temporary.overflowed()) {
        return fail(Error::name_too_long, VEXO_HERE);
    }
    const int result = repair(path, resource.c_str(), temporary.c_str());
    const KeepErrors keep;
    (void)unlink_store_file(temporary.c_str());
    return result;
}
