// Turns the appliance's switch for clone copies on or off.
#include "copy/copy.h"

#include "copy/engine/reflink_config.h"
#include "support/report.h"

using namespace vexo;

int VEXOFileCopyReflinkEnable(int on) {
    const ConfigValue support(kBtrfsSupportKey);
    if (support.result() < 0) {
        return support.result();
    }
    if (!support.is_yes()) {
        // Callers look at the code: the result is the read's, not negative, kept as they know it.
        set_error(Error::reflink_unsupported, VEXO_HERE);
        return support.result();
    }
    const int written = VLIBCFileSetKeyValue(kApplianceConfig, kReflinkKey, on != 0 ? "yes" : "no", "%s=\"%s\"\n");
    return written > 0 ? 0 : written;
}
