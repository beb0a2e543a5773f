// Whether a name is one of the hidden directories.
#include "ea/ea.h"

#include "support/report.h"

using namespace vexo;

int VEXOEAIsHiddenDirName(const char *name) {
    if (name == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    return *name == '@' || *name == '.' ? VEXOEAIsHiddenDir(name) : 0;
}
