// Names for what is under way: an entry stands under one in the directory that it is made for, and gets its own name
// when it is whole. Who looks into such a directory after a kill knows what was not finished.
//
// Two forms. ".vexofileop-<maker>-<n>", with a suffix behind it or without, holds nothing that is not somewhere else as
// well, and says who has made it (maker.h): once it is proven that this process is gone anybody may remove it. Whatever
// else begins with ".vexofileop-" is a command's own, and only that command knows what it is worth; or it is a user's.
#pragma once

#include "tools/engine/report/problem.h"
#include "tools/engine/walk/maker.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

// A name of the first form that this process has not given before. Somebody else may use it all the same: make the
// entry so that an existing one fails it, and take the next.
std::string next_private_name();

std::string private_name(const Maker &maker, int number);

// Nothing: it is not of the first form.
std::optional<Maker> maker_of(std::string_view privateName);

// Of either form, or a user's own entry that is called so.
bool is_private_name(std::string_view name);

// Of the first form, and proven to be of a process that is gone: no entry for anybody to copy.
bool is_left_over(std::string_view name);

// Whether another process may be at work on an entry of an open directory, by its name: one of the first form whose
// maker is not proven to be gone, and another private one that somebody holds a lock on.
bool may_be_under_way(int directory, const std::string &name);

// The name without its suffix (".store"); empty for one that is not of the first form.
std::string_view without_suffix(std::string_view privateName);

// What stands in an open directory under names of the first form, in order; nothing where it cannot be listed.
struct LeftOvers {
    std::vector<std::string> gone;    // of processes that are
    std::vector<std::string> unknown; // of which that cannot be proven: of another machine, or another container
};
LeftOvers left_overs_in(int directory);

// Behind a name of the first form: a directory in which a plan tries what its volume takes.
inline constexpr std::string_view kTrialSuffix = ".plan";

// Whether an entry of an open directory is such a one of a process that is gone, made by this user or, for root, by
// anybody, and holds nothing but what plans make there: whoever finds it removes it.
bool is_trial_left_over(int directory, const std::string &name);

// Removes a file, a link or a directory with everything in it. No link is followed, and no mounted volume is entered.
// False, with errno: it is still there, or some of it.
bool remove_left_over(int directory, const std::string &name);

// The same of what this run has made itself: what does not go is told, since nobody else would know what it is.
std::optional<Problem> clear_away(int directory, const std::string &name);

} // namespace engine
