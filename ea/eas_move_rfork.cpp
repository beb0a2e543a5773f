// Moves the resource fork inside a stream file.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

using namespace vexo;

namespace {

constexpr uint32_t kChunk = 16384;

struct Move {
    int fd;
    uint64_t to, from;
};

// These two lines name the function as well, and end in a line feed of their own.
int refuse_read(ssize_t got, size_t wanted, Place place) {
    syslog(LOG_ERR, "%s:%d(%s) failed to read, cRead=%d, cToRead=%d, reason=%s.\n", place.file,
           static_cast<int>(place.line), "EASMoveRFork", static_cast<int>(got), static_cast<int>(wanted),
           std::strerror(errno));
    return fail(Error::read, place);
}

int refuse_write(Place place) {
    syslog(LOG_ERR, "%s:%d(%s) failed to write, reason=%s.\n", place.file, static_cast<int>(place.line), "EASMoveRFork",
           std::strerror(errno));
    return fail(Error::write, place);
}

// Moves the piece at `at` of the fork. Gives what was moved, 0 at the end of the file, -1 on failure.
int move_piece(const Move &move, uint64_t at, uint32_t size) {
    uint8_t buffer[kChunk];
    if (!eas::seek_to(move.fd, move.from + at)) {
        return fail(Error::seek, VEXO_HERE);
    }
    const ssize_t got = ::read(move.fd, buffer, size);
    if (got < 0) {
        return refuse_read(got, size, VEXO_HERE);
    }
    if (got == 0) {
        return 0;
    }
    if (!eas::seek_to(move.fd, move.to + at)) {
        return fail(Error::seek, VEXO_HERE);
    }
    if (!eas::write_all(move.fd, buffer, static_cast<size_t>(got))) {
        return refuse_write(VEXO_HERE);
    }
    return static_cast<int>(got);
}

int move_from_start(const Move &move, uint32_t length) {
    uint32_t done = 0;
    while (done < length) {
        const uint32_t rest = length - done;
        const int moved = move_piece(move, done, rest < kChunk ? rest : kChunk);
        if (moved <= 0) {
            return moved;
        }
        done += static_cast<uint32_t>(moved);
    }
    return 0;
}

int move_from_end(const Move &move, uint32_t length) {
    uint32_t rest = length;
    while (rest > 0) {
        const uint32_t size = rest < kChunk ? rest : kChunk;
        const int moved = move_piece(move, rest - size, size);
        if (moved <= 0) {
            return moved;
        }
        rest -= size;
    }
    return 0;
}

// The file gets longer where it must; it is never cut, for something else may lie behind.
int extend(int fd, uint64_t size, uint64_t end) {
    if (size < end && ::ftruncate(fd, static_cast<off_t>(end)) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    return 0;
}

} // namespace

int EASMoveRFork(VEXOEAS *eas, uint32_t newOffset, uint32_t oldOffset, uint32_t length) {
    if (!eas::is_open(eas)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (length == 0 || newOffset == oldOffset) {
        return 0;
    }
    const Move move{eas->fd, newOffset, oldOffset};
    if (newOffset < oldOffset) {
        return move_from_start(move, length);
    }
    const auto size = eas::size_of(eas->fd);
    if (!size || length > *size) {
        return fail(Error::read, VEXO_HERE); // no fork is longer than the file it lies in
    }
    if (extend(eas->fd, *size, uint64_t{newOffset} + length) != 0) {
        return -1;
    }
    return move_from_end(move, length);
}
