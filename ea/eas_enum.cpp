// Lists the names of a stream's attributes.
#include "ea/ea.h"

#include "support/report.h"

using namespace vexo;

int VEXOEASEnum(VEXOEAS *eas, VLIBCSzList **list) {
    if (eas == nullptr || list == nullptr || *list == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const int count = eas->header.attrCount;
    for (int at = 0; at < count; ++at) {
        if (VLIBCSzListPush(list, eas->records[at].name) == -1) {
            VLIBCSzListRemoveAll(*list);
            return fail(Error::out_of_memory, VEXO_HERE);
        }
    }
    return count;
}
