// Reads an attribute of a file; the resource fork is one by name.
#include "ea/ea.h"

#include "ea/double/resource_fork.h"
#include "ea/names/argument.h"

#include <sys/xattr.h>

using namespace vexo;

int VEXOEAXattrGet(const char *path, const char *name, void *value, int size) {
    if (path == nullptr) {
        return refuse_argument("((void *)0) != szPath", VEXO_HERE);
    }
    if (name == nullptr) {
        return refuse_argument("((void *)0) != szName", VEXO_HERE);
    }
    if (size < 0 || (size > 0 && value == nullptr)) {
        return refuse_argument("((0 < cbValue && NULL != szValue) || 0 == cbValue)", VEXO_HERE);
    }
    if (is_resource_fork(name)) {
        return get_resource_fork(path, value, size, VEXO_SOURCE);
    }
    return static_cast<int>(::getxattr(path, name, value, static_cast<size_t>(size)));
}
