// Converting one store of a file from the old layout, which kept every attribute as a small file of its own and named
// streams with ":", into the current one.
#include "ea/ea.h"

#include "ea/names/entry.h"
#include "ea/names/store.h"
#include "ea/upgrade/upgrade.h"
#include "support/report.h"

#include <string_view>

using namespace vexo;

int VEXOEAUpgrade(const char *path, const char *streamName) {
    if (path == nullptr || streamName == nullptr || !names_entry(path)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const std::string_view name = streamName;
    if (name == kEaStream) {
        return upgrade_attributes(path);
    }
    if (name == kResourceStream) {
        return upgrade_resource(path);
    }
    return name.starts_with(kOldPrefix) ? upgrade_stream(path, streamName) : fail(Error::invalid_argument, VEXO_HERE);
}
