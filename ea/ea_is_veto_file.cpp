// Whether a name is one that no client is shown: a hidden directory, "." and "..", the photo index.
#include "ea/ea.h"

#include "ea/names/hidden_names.h"

using namespace vexo;

int VEXOEAIsVetoFile(const char *name) {
    if (name == nullptr) {
        return 0;
    }
    return VEXOEAIsHiddenDir(name) == 1 || is_in_group(name, NameGroup::veto_file) ? 1 : 0;
}
