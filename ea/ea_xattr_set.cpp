// Gives a file an attribute; the resource fork is one by name.
#include "ea/ea.h"

#include "ea/double/resource_fork.h"
#include "ea/names/argument.h"

#include <sys/xattr.h>

using namespace vexo;

int VEXOEAXattrSet(const char *path, const char *name, const void *value, int size, int flags) {
    if (path == nullptr) {
        return refuse_argument("((void *)0) != szPath", VEXO_HERE);
    }
    if (name == nullptr) {
        return refuse_argument("((void *)0) != szName", VEXO_HERE);
    }
    if (value == nullptr) {
        return refuse_argument("((void *)0) != szValue", VEXO_HERE);
    }
    if (size < 0) {
        return refuse_argument("0 <= cbValue", VEXO_HERE);
    }
    if (is_resource_fork(name)) {
        return set_resource_fork(path, value, size, flags, VEXO_SOURCE);
    }
    return ::setxattr(path, name, value, static_cast<size_t>(size), flags);
}
