// Moves the resource fork inside a stream file.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/guards.h"
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

// How a piece fared.
struct Piece {
    enum Outcome : uint8_t { moved, at_end, no_seek, not_read, not_written } outcome;
    ssize_t got;
    size_t wanted;

    bool failed() const { return outcome > at_end; }
};

// Says nothing; errno is the system's. A piece that cannot be written is put back: the places may overlap.
Piece move_piece(const Move &move, uint64_t at, uint32_t size) {
    uint8_t buffer[kChunk];
    if (!eas::seek_to(move.fd, move.from + at)) {
        return {Piece::no_seek, 0, size};
    }
    const ssize_t got = ::read(move.fd, buffer, size);
    if (got <= 0) {
        return {got < 0 ? Piece::not_read : Piece::at_end, got, size};
    }
    if (!eas::seek_to(move.fd, move.to + at)) {
        return {Piece::no_seek, got, size};
    }
    if (!eas::write_all(move.fd, buffer, static_cast<size_t>(got))) {
        const KeepErrno keep;
        (void)(eas::seek_to(move.fd, move.from + at) && eas::write_all(move.fd, buffer, static_cast<size_t>(got)));
        return {Piece::not_written, got, size};
    }
    return {Piece::moved, got, size};
}

// Both give how many bytes of the fork are at their new place, and how the last piece fared.
uint32_t move_from_start(const Move &move, uint32_t length, Piece &last) {
    uint32_t done = 0;
    while (done < length) {
        const uint32_t rest = length - done;
        last = move_piece(move, done, rest < kChunk ? rest : kChunk);
        if (last.outcome != Piece::moved) {
            break;
        }
        done += static_cast<uint32_t>(last.got);
    }
    return done;
}

uint32_t move_from_end(const Move &move, uint32_t length, Piece &last) {
    uint32_t rest = length;
    while (rest > 0) {
        const uint32_t size = rest < kChunk ? rest : kChunk;
        last = move_piece(move, rest - size, size);
        if (last.outcome != Piece::moved) {
            break;
        }
        rest -= size;
    }
    return length - rest;
}

// The two lines name the function as well, and end in a line feed of their own.
int refuse(const Piece &piece, Place place) {
    if (piece.outcome == Piece::no_seek) {
        return fail(Error::seek, place);
    }
    if (piece.outcome == Piece::not_read) {
        syslog(LOG_ERR, "%s:%d(%s) failed to read, cRead=%d, cToRead=%d, reason=%s.\n", place.file,
               static_cast<int>(place.line), "EASMoveRFork", static_cast<int>(piece.got),
               static_cast<int>(piece.wanted), std::strerror(errno));
        return fail(Error::read, place);
    }
    syslog(LOG_ERR, "%s:%d(%s) failed to write, reason=%s.\n", place.file, static_cast<int>(place.line), "EASMoveRFork",
           std::strerror(errno));
    return fail(Error::write, place);
}

int move_down(const Move &move, uint32_t length) {
    Piece last{};
    const uint32_t done = move_from_start(move, length, last);
    if (!last.failed()) {
        return 0;
    }
    const int refused = refuse(last, VEXO_HERE);
    const KeepErrors keep;
    (void)move_from_end({move.fd, move.from, move.to}, done, last);
    return refused;
}

// The file gets longer where it must; it is never cut below what it was, for something else may lie behind.
int move_up(const Move &move, uint32_t length) {
    const auto size = eas::size_of(move.fd);
    if (!size || length > *size) {
        return fail(Error::read, VEXO_HERE); // no fork is longer than the file it lies in
    }
    const uint64_t end = move.to + length;
    if (*size < end && ::ftruncate(move.fd, static_cast<off_t>(end)) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    Piece last{};
    const uint32_t done = move_from_end(move, length, last);
    if (!last.failed()) {
        return 0;
    }
    const int refused = refuse(last, VEXO_HERE);
    const KeepErrors keep;
    const uint32_t rest = length - done;
    (void)move_from_start({move.fd, move.from + rest, move.to + rest}, done, last);
    (void)::ftruncate(move.fd, static_cast<off_t>(*size));
    return refused;
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
    return newOffset < oldOffset ? move_down(move, length) : move_up(move, length);
}
