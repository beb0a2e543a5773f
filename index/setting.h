// A switch in a key/value file.
#pragma once

namespace vexo {

enum class Setting { missing, off, on };

// On is "yes", in any case. Missing: no such file or key, or an empty value. Says nothing.
Setting read_setting(const char *file, const char *key);

} // namespace vexo
