// Whether an entry that stands somewhere is meant.
#pragma once

#include "tools/engine/select/selection.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace engine {

// `path` as Selection::takes_name() has it; `held`: where the entry is, for the platform's calls; `entry`: what lstat
// says of it. An archive bit that cannot be told is set.
bool is_meant(const Selection &selection, std::string_view path, const std::string &held, const struct stat &entry);

} // namespace engine
