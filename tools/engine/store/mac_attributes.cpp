#include "tools/engine/store/mac_attributes.h"

namespace engine {

bool keeps_mac_attributes(uint32_t magic) {
    constexpr uint32_t plain = 0x482b, withCase = 0x4858;
    return magic == plain || magic == withCase;
}

} // namespace engine
