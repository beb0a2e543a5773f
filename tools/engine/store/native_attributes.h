// The attributes of a file on a volume that keeps extended metadata in them, by the library's own access, to which the
// resource fork is one of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

constexpr char kFinderInfoName[] = "com.apple.FinderInfo";
constexpr char kResourceForkName[] = "com.apple.ResourceFork";

// Names that give rights, or say what only the system says of a file.
bool is_of_the_system(std::string_view name);

// All of these throw Failure. A size or value of nothing: there is no such attribute.
// `forks`: whether the volume can have resource forks, which are asked for by name: a file that may not be executed is
// given that right for the moment then.
std::vector<std::string> native_names(const std::string &path, bool forks = true);
std::optional<uint64_t> native_size(const std::string &path, const std::string &name);
std::optional<std::string> native_value(const std::string &path, const std::string &name);
// `flags` as for setxattr.
void set_native_value(const std::string &path, const std::string &name, const std::string &value, int flags);
void remove_native(const std::string &path, const std::string &name);

} // namespace engine
