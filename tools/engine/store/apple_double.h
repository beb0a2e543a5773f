// Reading AppleDouble bytes for people: stream files, resource files, "._" files and the metadata attribute. Unlike the
// library, which refuses a malformed file, this says which field is the first bad one. Pure functions over untrusted
// bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

struct AppleDouble {
    struct Entry {
        uint32_t id, offset, length;
    };
    struct Attribute {
        std::string name;
        uint32_t offset, length;
    };
    uint32_t magic = 0, version = 0;
    std::string filler;
    std::vector<Entry> entries;
    std::string finderInfo; // 32 bytes; empty: there is none
    bool hasAttributeBlock = false;
    uint32_t dataStart = 0, dataLength = 0;
    std::vector<Attribute> attributes;
    uint64_t forkOffset = 0, forkLength = 0; // length 0: no fork
    int afpAttributes = -1;                  // the word; -1: there is none
    std::string bad;                         // the first bad field, in words; empty: none

    // The fork's bytes, out of those that were parsed.
    std::string fork(std::string_view bytes) const;
};

// `bytes` are the first of a file of `fileSize` bytes.
AppleDouble parse_apple_double(std::string_view bytes, uint64_t fileSize);

// An entry's id in words.
std::string entry_text(uint32_t id);
// Type, creator, flags and label of a Finder Info of 32 bytes, a line each.
std::vector<std::string> finder_info_lines(std::string_view finderInfo);

} // namespace engine
