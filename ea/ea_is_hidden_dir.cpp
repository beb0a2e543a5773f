// Whether a name, or the last component of an absolute path, is one of the hidden directories.
#include "ea/ea.h"

#include "ea/names/hidden_names.h"
#include "support/heap.h"
#include "support/report.h"

#include <libgen.h>

using namespace vexo;

namespace {

int is_hidden_directory(const char *name) {
    // Most names are turned away by their first byte.
    if (*name != '@' && *name != '.') {
        return 0;
    }
    return is_in_group(name, NameGroup::hidden_directory) ? 1 : 0;
}

} // namespace

int VEXOEAIsHiddenDir(const char *nameOrPath) {
    if (nameOrPath == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (*nameOrPath != '/') {
        return is_hidden_directory(nameOrPath);
    }
    HeapString copy(nameOrPath);
    if (!copy) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    const char *base = ::basename(copy.get());
    if (base == nullptr || *base == '\0') {
        return fail(Error::empty_base_name, VEXO_HERE);
    }
    return is_hidden_directory(base);
}
