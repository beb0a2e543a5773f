// What lies in a store file, read by its bytes: the library refuses or passes over a damaged one, this says which field
// is the first bad one, what can still be read, and writes a sound file of that. docs/formats.md has the formats.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

enum class StoreFile : uint8_t { stream, resource, apple_double };

struct StoreBytes {
    struct Value {
        std::string name;
        uint64_t offset, length;
        bool whole; // all of it is in the file, and nothing else lies there
    };
    struct Part { // of other programs: a comment, dates
        uint32_t id, offset, length;
    };
    std::string bad;      // the first bad field, in words; empty: none
    std::string hopeless; // why no sound file can be made of it; empty: one can
    uint64_t size = 0;    // of the file
    uint64_t end = 0;     // of all that it names
    bool block = false;   // it has attributes, or room for some
    std::vector<Value> values;
    std::string finderInfo; // 32 bytes; empty: none
    uint64_t forkEntry = 0; // where the header has the fork's entry; 0: it has none
    uint64_t forkOffset = 0, forkLength = 0;
    std::vector<Part> parts;
    uint64_t inode = 0, inodeSwapped = 0; // that the file had when this was written; 0: it does not say

    uint64_t values_cut() const;
    uint64_t fork_there() const; // bytes of it in the file
    bool fork_cut() const { return forkLength > 0 && fork_there() < forkLength; }
    uint64_t extra_bytes() const { return bad.empty() && !is_cut() && size > end ? size - end : 0; }
    bool is_cut() const { return values_cut() > 0 || fork_cut(); }
    bool is_sound() const { return bad.empty() && !is_cut() && extra_bytes() == 0; }
};

// Of an open file. Throws Failure where it cannot be read.
StoreBytes read_store_bytes(int fd, StoreFile file);

// Writes a sound file to `to`, which is empty, of what `from`, in which `found` was read, still has: every value that
// is whole, the Finder Info, of the fork what is there. Throws Failure, also where there is none to be made.
void write_sound_bytes(int from, const StoreBytes &found, StoreFile file, int to);

// Throws Failure where `made` has not all that write_sound_bytes() takes of `from`, byte by byte.
void check_sound_bytes(int from, const StoreBytes &found, StoreFile file, int made);

// Blocks behind the end of an open file that were reserved and not written; false too where the volume does not tell.
bool has_extra_blocks(int fd);

// The same for the value of the metadata attribute: the first bad field, empty for none.
std::string metadata_fault(std::string_view value);
// A sound one with every entry of it that can still be read; empty: there is none to be made.
std::string sound_metadata(std::string_view value);
// The value for a file with this Finder Info, comment (of at most kLongestComment bytes) and word of AFP attributes.
constexpr size_t kLongestComment = 200;
std::string metadata_value(const std::string &finderInfo, const std::string &comment, int afpAttributes);
// Its 32 bytes of Finder Info; empty: none, or all zero.
std::string metadata_finder_info(std::string_view value);

} // namespace engine
