// What Macs keep in the attributes of an HFS+ volume. Linux shows them under names of its own ("osx.com.apple.…"),
// which the library does not carry, and a resource fork not at all.
#pragma once

#include <cstdint>

namespace engine {

// Whether the directory lies on such a volume.
bool keeps_mac_attributes(uint32_t magic);

} // namespace engine
