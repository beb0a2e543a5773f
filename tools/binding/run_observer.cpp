#include "tools/binding/run_observer.h"

#include <array>
#include <cstddef>

namespace binding {

int32_t status_of(engine::Status status) {
    constexpr std::array statuses{VEXO_DONE, VEXO_SKIPPED, VEXO_FAILED, VEXO_CANCELLED};
    return statuses[static_cast<size_t>(status)];
}

} // namespace binding
