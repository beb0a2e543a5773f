// Whether any service of the appliance needs an index of media files, found out once in a thread.
#include "index/index.h"

#include <cstdint>

namespace {

constexpr int32_t kUnknown = -1;

// The initial-exec model keeps the dynamic loader out of the library's dependencies.
[[gnu::tls_model("initial-exec")]] constinit thread_local int32_t answer = kUnknown;

} // namespace

int VEXOIndexIsNeed(void) {
    (void)VEXOInitSupportValue();
    if (answer == kUnknown) {
        // The file index is left out on purpose: it is no index of media files.
        const bool needed = VEXOPhotoServiceIsSupport() == 1 || VEXOMediaServiceIsSupport() == 1 ||
                            VEXOVideoServiceIsSupport() == 1 || VEXOPPhotoServiceIsSupport() == 1;
        answer = needed ? 1 : 0;
    }
    return answer;
}
