// The words of losses that a plan, a run and a comparison find out in different ways.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace engine {

inline constexpr char kLinkNotHeld[] = "is a symbolic link, which the destination's volume cannot hold";

// A link that the volume refuses all the same, with this errno.
std::string link_refused_text(int number);

// A file of `size` bytes. `limit`: the least size that the volume takes no file of; 0: nobody knows it.
std::string too_large_text(uint64_t size, uint64_t limit);

// A name of so many bytes.
std::string too_long_text(size_t size);

// `word`: "attribute" or "stream"; `name`: as people can read it; `size`: in bytes.
std::string only_first_text(const char *word, const std::string &name, uint64_t size);
std::string only_second_text(const char *word, const std::string &name);

} // namespace engine
