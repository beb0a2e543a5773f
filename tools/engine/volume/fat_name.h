// Names on volumes of the FAT family.
#pragma once

#include <string>

namespace engine {

// The path with the last component as such a volume takes it.
std::string fat_name(const std::string &path);

} // namespace engine
