// Which names and sizes, and whether links, a volume does not take, found out by asking it.
#pragma once

#include "tools/engine/losses/loss.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace engine {

// Whether the file system of this number, one of this kernel's own, takes every name as it is.
bool takes_every_name(uint32_t magic);

// Whether names in a directory of such a volume are one only where they are the same, letter by letter.
bool keeps_names_apart(const char *directory);

// What a volume calls an entry that is made under this name, where that is another, since the form of its letters is
// not that of the name, or since it leaves a dot at the end away. Asked in a private directory, made in this one and
// removed again, of names only with which that may be.
std::optional<std::string> name_kept(int directory, const std::string &name);

// Adds that change of name.
void add_kept_name(int directory, const std::string &name, std::vector<Loss> &losses);

// What becomes of an entry of this name and type in a directory that is the caller's own, and empty; a file that was
// made stays. Nothing: the volume takes the name, or something else is wrong.
std::optional<Loss> refusal_in_private(int directory, const std::string &name, mode_t type);

// In a private directory of the caller's, which stays: what becomes of symbolic links there.
std::optional<Loss> refusal_of_link(int directory);

// Both of any directory, which is open: asked in a private one, made in it and removed again. For entries that somebody
// has tried to make without success.
std::optional<Loss> refusal_of_entry(int directory, const std::string &name, mode_t type);

// The same of the size of a file, in bytes, which a driver may refuse by a number that says nothing of it. For a volume
// that keeps holes: any other fills them. Nothing: the volume takes the size, or something else is wrong.
std::optional<Loss> refusal_of_size(int directory, off_t size);

} // namespace engine
