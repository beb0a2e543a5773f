// Removing a tree together with what belongs to it.
#include "copy/copy.h"

#include "ea/ea.h"
#include "support/report.h"

#include <string_view>

using namespace vexo;

int VLIBCopyRemoveDir(const char *path) {
    if (path == nullptr) {
        set_error(Error::invalid_argument, VEXO_HERE);
        VEXO_LOG_ERROR(VEXO_HERE, "Bad arguments; szPath = [%s]\n", "(null)");
        return -1;
    }
    if (!std::string_view(path).starts_with("/volume") && VLIBCFileCheckDir(path) != 1) {
        return 0;
    }
    if (VLIBCExec("/bin/rm", "-Rf", path, nullptr) != 0) {
        // A 0 all the same: callers learn of it through the last error alone.
        VEXO_LOG_ERROR(VEXO_HERE, "Failed to remove %s", path);
        set_error(Error::write, VEXO_HERE);
        return 0;
    }
    (void)VEXOEARemove(path, -1);
    return 0;
}
