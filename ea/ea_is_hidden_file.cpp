// Whether a name is one that is not user data: a veto file, or what Apple clients leave beside a user's files.
#include "ea/ea.h"

#include "ea/names/hidden_names.h"

using namespace vexo;

int VEXOEAIsHiddenFile(const char *name) {
    if (name == nullptr) {
        return 0;
    }
    return VEXOEAIsVetoFile(name) != 0 || is_in_group(name, NameGroup::hidden_file) ? 1 : 0;
}
