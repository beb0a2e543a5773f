// Finds an attribute in a stream handle by its name.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <cstring>

using namespace vexo;

int VEXOEASSearch(VEXOEAS *eas, const char *name) {
    if (eas == nullptr || name == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    // From the last: where a file has a name twice, the younger one counts.
    for (int index = eas->records == nullptr ? 0 : eas->header.attrCount; index > 0; --index) {
        const char *candidate = eas->records[index - 1].name;
        if (candidate != nullptr && std::strcmp(candidate, name) == 0) {
            return index - 1;
        }
    }
    return fail(Error::attribute_missing, VEXO_HERE);
}
