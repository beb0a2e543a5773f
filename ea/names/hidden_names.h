// The names that never are user data: the store's own directories, and files that other software keeps beside a user's.
// One table; a group holds its own rows and those of every group before it.
#pragma once

#include <cstdint>
#include <string_view>
#include <strings.h>

namespace vexo {

enum class NameGroup : uint8_t { hidden_directory, veto_file, hidden_file };
enum class NameMatch : uint8_t { ignoring_case, exact, prefix };

struct NameRule {
    const char *name;
    NameMatch match;
    NameGroup group;
};

inline constexpr NameRule kHiddenNames[] = {
    {"@eaDir", NameMatch::ignoring_case, NameGroup::hidden_directory},
    {"@tmp", NameMatch::ignoring_case, NameGroup::hidden_directory},
    {"@sharebin", NameMatch::ignoring_case, NameGroup::hidden_directory},
    {".", NameMatch::exact, NameGroup::veto_file},
    {"..", NameMatch::exact, NameGroup::veto_file},
    {".VEXOPPHDB", NameMatch::prefix, NameGroup::veto_file}, // the photo index and its journals
    {".DS_Store", NameMatch::exact, NameGroup::hidden_file},
    {"._", NameMatch::prefix, NameGroup::hidden_file}, // AppleDouble
};

inline bool matches(const NameRule &rule, const char *name) {
    if (rule.match == NameMatch::ignoring_case) {
        return ::strcasecmp(rule.name, name) == 0;
    }
    const std::string_view given = name;
    return rule.match == NameMatch::prefix ? given.starts_with(rule.name) : given == rule.name;
}

inline bool is_in_group(const char *name, NameGroup group) {
    for (const NameRule &rule : kHiddenNames) {
        if (rule.group <= group && matches(rule, name)) {
            return true;
        }
    }
    return false;
}

} // namespace vexo
