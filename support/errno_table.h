// errno to error code, as tables: one per situation, a row per errno, shared by every place in that situation.
#pragma once

#include "support/error_codes.h"

#include <cerrno>
#include <cstddef>
#include <optional>
#include <span>

namespace vexo {

struct ErrnoRow {
    int number;
    Error error;
};
using ErrnoTable = std::span<const ErrnoRow>;

// The row's code; nothing when the table has no row for that errno.
constexpr std::optional<Error> find_error(ErrnoTable table, int number) {
    for (const ErrnoRow &row : table) {
        if (row.number == number) {
            return row.error;
        }
    }
    return std::nullopt;
}

// The type of a source's or a destination's volume could not be read.
inline constexpr ErrnoRow kTypeLookupErrors[] = {
    {ENOENT, Error::io},
    {EIO, Error::io},
    {ENOTDIR, Error::io},
    {EACCES, Error::permission},
};

// A stat that failed because the storage is gone.
inline constexpr ErrnoRow kStorageErrors[] = {
    {EIO, Error::device},
    {ENXIO, Error::device},
    {EHOSTDOWN, Error::host_down},
};

} // namespace vexo
