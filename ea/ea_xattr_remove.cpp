// Takes an attribute from a file; the resource fork is one by name, and is emptied.
#include "ea/ea.h"

#include "ea/double/resource_fork.h"
#include "ea/names/argument.h"

#include <sys/xattr.h>

using namespace vexo;

int VEXOEAXattrRemove(const char *path, const char *name) {
    if (path == nullptr) {
        return refuse_argument("((void *)0) != szPath", VEXO_HERE);
    }
    if (name == nullptr) {
        return refuse_argument("NULL != szName", VEXO_HERE);
    }
    if (is_resource_fork(name)) {
        return remove_resource_fork(path, VEXO_SOURCE);
    }
    return ::removexattr(path, name);
}
