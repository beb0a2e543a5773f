// Whether the appliance's switch for clone copies is on.
#include "copy/copy.h"

#include "copy/engine/reflink_config.h"

using namespace vexo;

int VEXOFileCopyReflinkIsEnabled(void) {
    return ConfigValue(kReflinkKey).is_yes() ? 1 : 0;
}
