// The names of the hidden directories, for callers that walk trees themselves.
#include "ea/ea.h"

#include "ea/names/hidden_names.h"
#include "support/report.h"

using namespace vexo;

int VEXOEAHiddenDirGet(VLIBCSzList **list) {
    if (list == nullptr || *list == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    for (const NameRule &rule : kHiddenNames) {
        if (rule.group != NameGroup::hidden_directory) {
            continue;
        }
        if (const int index = VLIBCSzListPush(list, rule.name); index == -1) {
            return index;
        }
    }
    return 0;
}
