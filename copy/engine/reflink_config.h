// The appliance's settings about clone copies, read anew at each call.
#pragma once

#include "platform/core.h"

#include <string_view>

namespace vexo {

inline constexpr const char *kApplianceConfig = "/etc/vexoinfo.conf";
inline constexpr const char *kReflinkKey = "reflink_enable";     // the switch
inline constexpr const char *kBtrfsSupportKey = "support_btrfs"; // whether it may be switched on at all

class ConfigValue {
  public:
    explicit ConfigValue(const char *key)
        : m_result(VLIBCFileGetKeyValue(kApplianceConfig, key, m_text, sizeof m_text, 0)) {}

    // As the platform answered: the value's length, 0 for an absent key, negative on failure.
    int result() const { return m_result; }
    // Exactly that: neither "Yes" nor "yes " switch anything on.
    bool is_yes() const { return m_result > 0 && std::string_view(m_text) == "yes"; }

  private:
    char m_text[1024] = {};
    int m_result;
};

} // namespace vexo
