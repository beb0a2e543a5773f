#include "tools/vexofileop/arguments/near_commands.h"

#include <algorithm>
#include <numeric>

namespace tool {
namespace {

// Names of other programs, and of the same thing elsewhere. A command that is not among those to choose from is left
// out, so that "rm" is one thing to the program and another one to "ea".
struct OtherName {
    std::string_view word, command;
};
constexpr OtherName kOtherNames[] = {
    {"cp", "copy"},      {"rsync", "copy"}, {"mv", "move"},         {"ren", "move"},        {"rename", "move"},
    {"rm", "remove"},    {"del", "remove"}, {"delete", "remove"},   {"rmdir", "remove"},    {"unlink", "remove"},
    {"ls", "ea list"},   {"ls", "list"},    {"xattr", "ea"},        {"getfattr", "ea get"}, {"setfattr", "ea set"},
    {"attr", "ea"},      {"mv", "rename"},  {"cat", "get"},         {"add", "set"},         {"put", "set"},
    {"del", "rm"},       {"delete", "rm"},  {"convert", "upgrade"}, {"fix", "repair"},      {"cmp", "diff"},
    {"compare", "diff"},
};

// How many letters were left out, put in, mistaken, or changed places with their neighbour.
size_t distance(std::string_view one, std::string_view other) {
    std::vector<size_t> previous, row(other.size() + 1), next(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < one.size(); ++i) {
        next[0] = i + 1;
        for (size_t j = 0; j < other.size(); ++j) {
            next[j + 1] = std::min({row[j + 1] + 1, next[j] + 1, row[j] + (one[i] == other[j] ? 0 : 1)});
            if (i > 0 && j > 0 && one[i] == other[j - 1] && one[i - 1] == other[j]) {
                next[j + 1] = std::min(next[j + 1], previous[j - 1] + 1);
            }
        }
        previous = row;
        std::swap(row, next);
    }
    return row.back();
}

} // namespace

std::vector<std::string> near_commands(std::string_view word, const std::vector<std::string> &commands) {
    std::vector<std::string> known, slips;
    for (const std::string &command : commands) {
        const bool other = std::ranges::any_of(
            kOtherNames, [&](const OtherName &name) { return name.word == word && name.command == command; });
        const size_t blank = command.rfind(' ');
        const bool below = blank != std::string::npos;
        if (other || (below && std::string_view(command).substr(blank + 1) == word)) {
            known.push_back(command);
        } else if (const size_t far = word.size() > 4 ? 2 : 1; !below && distance(word, command) <= far) {
            slips.push_back(command);
        }
    }
    return known.empty() ? slips : known;
}

} // namespace tool
