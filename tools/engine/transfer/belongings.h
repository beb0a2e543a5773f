// What belongs to an entry beside its data and its store, given to a new one that has none of it.
#pragma once

#include "platform/core.h"

#include <string>
#include <vector>

namespace engine {

// Attributes that are how the platform keeps DOS attributes and times. A copy has its own.
enum class Records { left_out, taken };

// The names of all attributes of an entry; a link is not followed.
std::vector<std::string> attribute_names(const std::string &path);

// Those of `from`, where a link is followed, whose names begin with one of the prefixes, to an open file or directory.
void copy_attributes(const std::string &from, int to, const std::vector<std::string> &prefixes, Records records);

// Owner, ACLs, attributes, DOS attributes, times and mode of a regular file or directory. `from` is followed where it
// is a link. `status`: of `from`, with attributes and creation time. `to` is open, and nobody else's to open so far.
// `owners`: its volume keeps them. `archive`: with that attribute, as every copy of a file has it. What does not go is
// for a comparison to tell.
void give_belongings(const std::string &from, const VLIBCStat &status, int to, bool owners, bool archive);

} // namespace engine
