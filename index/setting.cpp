#include "index/setting.h"

#include "platform/core.h"

#include <strings.h>

namespace vexo {

Setting read_setting(const char *file, const char *key) {
    char value[16] = {};
    if (VLIBCFileGetKeyValue(file, key, value, sizeof value, 0) < 1) {
        return Setting::missing;
    }
    return ::strcasecmp(value, "yes") == 0 ? Setting::on : Setting::off;
}

} // namespace vexo
