// How the access functions refuse a bad argument: one line that quotes the condition, and the last error.
#pragma once

#include "support/report.h"

namespace vexo {

// Reports: the line and 0x0D00. `condition` is the text of the condition that does not hold; always -1.
[[nodiscard]] inline int refuse_argument(const char *condition, Place place) {
    VEXO_LOG_ERROR(place, "Invaild Argument (%s)=[%d]\n", condition, 0);
    return fail(Error::invalid_argument, place);
}

} // namespace vexo
