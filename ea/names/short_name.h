// How a name becomes short enough to carry the name of a stream behind it.
#pragma once

#include "support/file_ref.h"

#include <cstddef>
#include <span>

namespace vexo {

// What "@VexoEAStream" and "@VexoResource" add to a name.
inline constexpr size_t kStreamSuffixLength = 13;
// The limit of a base where the volume tells none: 255 bytes a name.
inline constexpr size_t kDefaultBaseLimit = 255 - kStreamSuffixLength;

// The longest base that leaves room for a stream's name on the volume of a file, which need not exist: the nearest
// directory above it that does is asked. At least 1. Says nothing, changes errno.
size_t base_limit_of(const FileRef &file);

// Shortens a name in place to exactly `limit` (at least 1) bytes when it is longer, and gives its length. One byte
// computed from what is cut stands for it, so that most long names stay apart; a short extension is kept.
size_t shorten_base(std::span<char> name, size_t limit);

} // namespace vexo
