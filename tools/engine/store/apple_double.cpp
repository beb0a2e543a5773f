#include "tools/engine/store/apple_double.h"

#include "tools/engine/report/names.h"

#include <algorithm>
#include <fmt/format.h>

namespace engine {
namespace {

constexpr uint32_t kMagic = 0x00051607;
constexpr uint32_t kVersion2 = 0x00020000;
constexpr uint32_t kResourceFork = 2;
constexpr uint32_t kFinderInfo = 9;
constexpr uint32_t kFileServerInfo = 14;
constexpr size_t kHeaderSize = 26;
constexpr size_t kEntrySize = 12;
constexpr size_t kFinderInfoSize = 32;
constexpr size_t kAttributeBlock = 82; // padding, then "ATTR"
constexpr size_t kAttributeHeaderEnd = 120;
constexpr uint32_t kAttributeMagic = 0x41545452;

struct Field {
    size_t offset;
    const char *text;
};

uint64_t number(std::string_view bytes, size_t at, size_t width) {
    uint64_t value = 0;
    for (size_t index = 0; index < width; ++index) {
        value = value << 8 | static_cast<uint8_t>(bytes[at + index]);
    }
    return value;
}
uint32_t word(std::string_view bytes, size_t at) {
    return static_cast<uint32_t>(number(bytes, at, 4));
}
bool holds(std::string_view bytes, uint64_t at, uint64_t size) {
    return at <= bytes.size() && size <= bytes.size() - at;
}

void mark_bad(AppleDouble &parsed, std::string what) {
    if (parsed.bad.empty()) {
        parsed.bad = std::move(what);
    }
}

// What an entry says of the file. Its place was found inside.
void take_entry(AppleDouble &parsed, const AppleDouble::Entry &entry, std::string_view bytes) {
    if (entry.id == kFinderInfo) {
        if (entry.length < kFinderInfoSize || !holds(bytes, entry.offset, kFinderInfoSize)) {
            mark_bad(parsed, fmt::format("Finder Info at {} is not 32 bytes long", entry.offset));
        } else {
            parsed.finderInfo = bytes.substr(entry.offset, kFinderInfoSize);
        }
    } else if (entry.id == kResourceFork) {
        parsed.forkOffset = entry.offset;
        parsed.forkLength = entry.length;
    } else if (entry.id == kFileServerInfo && entry.length >= 4 && holds(bytes, uint64_t{entry.offset} + 2, 2)) {
        parsed.afpAttributes = static_cast<int>(number(bytes, entry.offset + 2, 2));
    }
}

void parse_entries(AppleDouble &parsed, std::string_view bytes, uint64_t fileSize) {
    const size_t count = static_cast<size_t>(number(bytes, kHeaderSize - 2, 2));
    for (size_t at = 0; at < count; ++at) {
        const size_t place = kHeaderSize + at * kEntrySize;
        if (!holds(bytes, place, kEntrySize)) {
            mark_bad(parsed, fmt::format("entry {} of {} lies behind the end", at, count));
            return;
        }
        const AppleDouble::Entry entry{word(bytes, place), word(bytes, place + 4), word(bytes, place + 8)};
        parsed.entries.push_back(entry);
        if (entry.id == 0) {
            mark_bad(parsed, fmt::format("entry {} has the id 0", at));
        } else if (uint64_t{entry.offset} + entry.length > fileSize) {
            mark_bad(parsed, fmt::format("entry {} ({}) ends at {}, behind the end at {}", at, entry_text(entry.id),
                                         uint64_t{entry.offset} + entry.length, fileSize));
        }
        take_entry(parsed, entry, bytes);
    }
}

void parse_records(AppleDouble &parsed, std::string_view bytes, uint64_t fileSize, size_t count) {
    constexpr size_t kFixed = 11;
    size_t place = kAttributeHeaderEnd;
    for (size_t at = 0; at < count; ++at) {
        if (!holds(bytes, place, kFixed)) {
            mark_bad(parsed, fmt::format("attribute record {} of {} lies behind the end", at, count));
            return;
        }
        const uint32_t offset = word(bytes, place);
        const uint32_t length = word(bytes, place + 4);
        const size_t nameLength = static_cast<uint8_t>(bytes[place + 10]);
        if (nameLength == 0 || !holds(bytes, place + kFixed, nameLength)) {
            mark_bad(parsed, fmt::format("the name of attribute record {} is not all there", at));
            return;
        }
        std::string_view name = bytes.substr(place + kFixed, nameLength);
        if (name.back() != '\0') {
            mark_bad(parsed, fmt::format("the name of attribute record {} does not end in NUL", at));
        }
        name = name.substr(0, name.find('\0'));
        parsed.attributes.push_back({std::string(name), offset, length});
        if (uint64_t{offset} + length > fileSize) {
            mark_bad(parsed, fmt::format("the value of attribute {} ends at {}, behind the end at {}", displayed(name),
                                         uint64_t{offset} + length, fileSize));
        }
        place += (nameLength + 14) & ~size_t{3};
    }
}

void parse_attributes(AppleDouble &parsed, std::string_view bytes, uint64_t fileSize) {
    const auto finderInfo = std::find_if(parsed.entries.begin(), parsed.entries.end(),
                                         [](const AppleDouble::Entry &entry) { return entry.id == kFinderInfo; });
    if (finderInfo == parsed.entries.end() || finderInfo->length == kFinderInfoSize ||
        !holds(bytes, 0, kAttributeHeaderEnd)) {
        return;
    }
    if (word(bytes, kAttributeBlock + 2) != kAttributeMagic) {
        mark_bad(parsed, "the attribute block at 84 does not begin with \"ATTR\"");
        return;
    }
    parsed.hasAttributeBlock = true;
    parsed.dataStart = word(bytes, kAttributeBlock + 14);
    parsed.dataLength = word(bytes, kAttributeBlock + 18);
    parse_records(parsed, bytes, fileSize, static_cast<size_t>(number(bytes, kAttributeHeaderEnd - 2, 2)));
}

} // namespace

std::string AppleDouble::fork(std::string_view bytes) const {
    return holds(bytes, forkOffset, forkLength) ? std::string(bytes.substr(forkOffset, forkLength)) : std::string();
}

AppleDouble parse_apple_double(std::string_view bytes, uint64_t fileSize) {
    AppleDouble parsed;
    if (bytes.size() < kHeaderSize) {
        mark_bad(parsed, fmt::format("the header is {} bytes long, not {}", bytes.size(), kHeaderSize));
        return parsed;
    }
    parsed.magic = word(bytes, 0);
    parsed.version = word(bytes, 4);
    parsed.filler = bytes.substr(8, 16);
    if (parsed.magic != kMagic) {
        mark_bad(parsed, fmt::format("the magic is 0x{:08X}, not 0x{:08X}", parsed.magic, kMagic));
    } else if (parsed.version != kVersion2) {
        mark_bad(parsed, fmt::format("the version is 0x{:08X}, not 0x{:08X}", parsed.version, kVersion2));
    } else {
        parse_entries(parsed, bytes, fileSize);
        parse_attributes(parsed, bytes, fileSize);
    }
    return parsed;
}

std::string entry_text(uint32_t id) {
    struct Row {
        uint32_t id;
        const char *text;
    };
    constexpr Row kRows[] = {
        {1, "data fork"},
        {2, "resource fork"},
        {3, "real name"},
        {4, "comment"},
        {5, "icon"},
        {6, "colour icon"},
        {8, "file dates"},
        {9, "Finder Info"},
        {10, "Macintosh info"},
        {11, "ProDOS info"},
        {12, "MS-DOS info"},
        {13, "AFP short name"},
        {14, "AFP file info"},
        {15, "AFP directory id"},
        {0x80444556, "device"},
        {0x80494E4F, "inode"},
        {0x8053594E, "synchronisation"},
        {0x8053567E, "file id"},
    };
    for (const Row &row : kRows) {
        if (row.id == id) {
            return row.text;
        }
    }
    return fmt::format("id 0x{:X}", id);
}

std::vector<std::string> finder_info_lines(std::string_view finderInfo) {
    struct Flag {
        uint32_t bit;
        const char *text;
    };
    constexpr Flag kFlags[] = {
        {0x0001, "isOnDesk"},      {0x0040, "isShared"},     {0x0080, "hasNoINITs"}, {0x0100, "hasBeenInited"},
        {0x0400, "hasCustomIcon"}, {0x0800, "isStationery"}, {0x1000, "nameLocked"}, {0x2000, "hasBundle"},
        {0x4000, "isInvisible"},   {0x8000, "isAlias"},
    };
    constexpr const char *kColours[] = {"none", "gray", "green", "purple", "blue", "yellow", "red", "orange"};
    if (finderInfo.size() < kFinderInfoSize) {
        return {};
    }
    const auto flags = static_cast<uint32_t>(number(finderInfo, 8, 2));
    std::string names;
    for (const Flag &flag : kFlags) {
        if ((flags & flag.bit) != 0) {
            names += std::string(names.empty() ? "" : ", ") + flag.text;
        }
    }
    const auto text = [&](size_t at) {
        const std::string_view four = finderInfo.substr(at, 4);
        return four == std::string_view("\0\0\0\0", 4) ? std::string("none") : "'" + displayed(four) + "'";
    };
    return {
        "type " + text(0) + ", creator " + text(4),
        fmt::format("flags 0x{:04X}{}{}", flags, names.empty() ? "" : ": ", names),
        fmt::format("label colour {}", kColours[(flags >> 1) & 7]),
    };
}

} // namespace engine
