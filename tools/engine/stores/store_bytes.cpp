#include "tools/engine/stores/store_bytes.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/private_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fmt/format.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>

namespace engine {
namespace {

constexpr std::string_view kGoodStart("\0\5\26\7\0\2\0\0", 8); // magic and version
constexpr std::string_view kGoodFiller = "Mac OS X        ";
constexpr uint32_t kForkId = 2, kFinderId = 9, kInodeId = 0x80494E4F;
constexpr uint64_t kEntriesAt = 26, kEntryBytes = 12, kMostEntries = 13;
constexpr uint64_t kFinderAt = 50, kFinderBytes = 32, kBlockAt = 82, kRecordsAt = 120;
constexpr uint64_t kRecordBytes = 11, kLongestRecordBytes = 268;

uint64_t big_endian(std::string_view bytes, uint64_t at, size_t width) {
    uint64_t value = 0;
    for (size_t index = 0; index < width && at + index < bytes.size(); ++index) {
        value = value << 8 | static_cast<uint8_t>(bytes[at + index]);
    }
    return value;
}
std::string big_endian_bytes(uint64_t value, size_t width) {
    std::string bytes(width, '\0');
    for (size_t at = width; at > 0; --at, value >>= 8) {
        bytes[at - 1] = static_cast<char>(value & 0xff);
    }
    return bytes;
}

std::string read_front(int fd, uint64_t most) {
    std::string bytes(most, '\0');
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw_errno("cannot be read");
        }
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

// Header and records, however many.
std::string read_headers(int fd, uint64_t size) {
    constexpr uint64_t kUsual = uint64_t{1} << 16;
    std::string bytes = read_front(fd, std::min(size, kUsual));
    const uint64_t entries = kEntriesAt + big_endian(bytes, kEntriesAt - 2, 2) * kEntryBytes;
    const uint64_t records = kRecordsAt + big_endian(bytes, kRecordsAt - 2, 2) * kLongestRecordBytes;
    const uint64_t wanted = std::min(size, std::max(entries, records));
    return wanted > bytes.size() ? read_front(fd, wanted) : bytes;
}

// One look at a file: what holds in it, and what does not.
class Look {
  public:
    Look(std::string bytes, uint64_t size, StoreFile file) : m_bytes(std::move(bytes)), m_file(file) {
        m_found.size = size;
    }

    StoreBytes run() {
        // The end of the file is looked for below: what was cut is another finding than what makes no sense.
        AppleDouble parsed = parse_apple_double(m_bytes, UINT64_MAX);
        m_found.bad = parsed.bad;
        if (!m_bytes.starts_with(kGoodStart) && m_bytes.size() >= kEntriesAt) {
            m_bytes.replace(0, kGoodStart.size(), kGoodStart); // as if only that were wrong
            parsed = parse_apple_double(m_bytes, UINT64_MAX);
        }
        take_entries(parsed);
        take_block(parsed);
        take_fork();
        check_entries(parsed);
        m_found.end = std::max(m_found.end, m_found.forkOffset + m_found.forkLength);
        if (m_found.bad.empty()) {
            check_values();
        }
        if (!m_found.bad.empty() && m_found.hopeless.empty()) {
            judge(parsed);
        }
        return std::move(m_found);
    }

  private:
    void bad(std::string what) {
        if (m_found.bad.empty()) {
            m_found.bad = std::move(what);
        }
    }
    bool holds(uint64_t at, uint64_t size) const { return at <= m_bytes.size() && size <= m_bytes.size() - at; }

    void take_entries(const AppleDouble &parsed) {
        m_found.end = kEntriesAt + parsed.entries.size() * kEntryBytes;
        for (size_t at = 0; at < parsed.entries.size(); ++at) {
            const AppleDouble::Entry &entry = parsed.entries[at];
            m_found.end = std::max(m_found.end, uint64_t{entry.offset} + entry.length);
            if (entry.id == kFinderId) {
                m_finderEnd = uint64_t{entry.offset} + entry.length;
                m_finderLength = entry.length;
                m_hasFinder = true;
            } else if (entry.id == kForkId) {
                m_found.forkEntry = kEntriesAt + at * kEntryBytes;
                m_forkAt = entry.offset;
                m_found.forkLength = entry.length;
            } else {
                m_found.parts.push_back({entry.id, entry.offset, entry.length});
            }
            if (entry.id == kInodeId && entry.length == 8 && holds(entry.offset, 8)) {
                m_found.inodeSwapped = big_endian(m_bytes, entry.offset, 8);
                std::memcpy(&m_found.inode, m_bytes.data() + entry.offset, 8);
            }
        }
        m_found.finderInfo = parsed.finderInfo;
    }

    // Records as long as they make sense, where a block was meant to be.
    void take_block(const AppleDouble &parsed) {
        const bool named = holds(kBlockAt, kRecordsAt - kBlockAt) && m_bytes.compare(kBlockAt + 2, 4, "ATTR") == 0;
        m_found.block = parsed.hasAttributeBlock || (named && m_file == StoreFile::stream);
        if (!m_found.block) {
            m_blockLost = m_hasFinder && m_finderLength > kFinderBytes;
            return;
        }
        if (m_found.finderInfo.empty() && m_file == StoreFile::stream) {
            m_found.finderInfo = m_bytes.substr(kFinderAt, kFinderBytes); // where every file has it that is of ours
        }
        m_valuesEnd = big_endian(m_bytes, kBlockAt + 10, 4);
        m_dataStart = big_endian(m_bytes, kBlockAt + 14, 4);
        m_dataEnd = m_dataStart + big_endian(m_bytes, kBlockAt + 18, 4);
        m_count = big_endian(m_bytes, kRecordsAt - 2, 2);
        m_recordsEnd = kRecordsAt;
        while (m_found.values.size() < m_count && holds(m_recordsEnd, kRecordBytes)) {
            const uint64_t length = big_endian(m_bytes, m_recordsEnd + 10, 1);
            if (length == 0 || !holds(m_recordsEnd + kRecordBytes, length) ||
                m_bytes[m_recordsEnd + kRecordBytes + length - 1] != '\0') {
                break;
            }
            const char *const name = m_bytes.data() + m_recordsEnd + kRecordBytes;
            m_found.values.push_back(
                {name, big_endian(m_bytes, m_recordsEnd, 4), big_endian(m_bytes, m_recordsEnd + 4, 4), false});
            m_recordsEnd += (length + 14) & ~uint64_t{3};
        }
        for (StoreBytes::Value &value : m_found.values) {
            value.whole = value.offset >= m_recordsEnd && value.offset + value.length <= m_found.size;
            m_found.end = std::max(m_found.end, value.offset + value.length);
        }
        m_found.end = std::max({m_found.end, m_recordsEnd, m_valuesEnd, m_dataEnd});
    }

    // By its entry. The library takes it for what follows the Finder Info; of three that tell, two have to agree.
    void take_fork() {
        m_found.forkOffset = m_found.forkLength > 0 ? m_forkAt : 0;
        if (m_found.forkLength == 0 || m_file == StoreFile::apple_double || m_forkAt == m_finderEnd ||
            (m_found.block && m_forkAt == m_valuesEnd)) {
            return;
        }
        bad(fmt::format("the resource fork is at {}, and the Finder Info ends at {}", m_forkAt, m_finderEnd));
        if (m_found.block && m_finderEnd == m_valuesEnd) {
            m_found.forkOffset = m_finderEnd;
        } else {
            m_found.hopeless = "nobody can tell where the resource fork begins";
        }
    }

    void check_entries(const AppleDouble &parsed) {
        if (!m_hasFinder && m_file != StoreFile::apple_double && m_found.size > 0) {
            bad("it has no Finder Info entry");
        }
        if (parsed.entries.size() > kMostEntries) {
            bad(fmt::format("the header has {} entries, more than {}", parsed.entries.size(), kMostEntries));
        }
        if (m_hasFinder && m_finderLength != kFinderBytes && !holds(0, kRecordsAt)) {
            bad(fmt::format("the attribute block is not all there: the file ends at {}", m_found.size));
        }
        if (!m_found.block || !m_found.bad.empty()) {
            return;
        }
        if (m_found.values.size() < m_count) {
            bad(fmt::format("attribute record {} of {} is no record", m_found.values.size(), m_count));
        } else if (m_dataStart < m_recordsEnd) {
            bad(fmt::format("the values begin at {}, among the records, which end at {}", m_dataStart, m_recordsEnd));
        } else if (m_file == StoreFile::stream && m_finderEnd != m_valuesEnd) {
            bad(fmt::format("the Finder Info entry ends at {}, and the values at {}", m_finderEnd, m_valuesEnd));
        } else if (m_file == StoreFile::stream && m_dataEnd > m_valuesEnd) {
            bad(fmt::format("the values go on to {}, behind their end at {}", m_dataEnd, m_valuesEnd));
        }
    }

    void check_values() {
        uint64_t next = m_dataStart;
        for (const StoreBytes::Value &value : m_found.values) {
            const std::string name = displayed(value.name);
            if (value.offset < m_recordsEnd) {
                bad(fmt::format("the value of attribute {} is at {}, among the records", name, value.offset));
            } else if (m_file == StoreFile::stream && value.offset != next) {
                bad(fmt::format("the value of attribute {} is at {}, not at {}, behind the one before", name,
                                value.offset, next));
            } else if (value.offset + value.length > m_dataEnd) {
                bad(fmt::format("the value of attribute {} ends at {}, behind that of all values at {}", name,
                                value.offset + value.length, m_dataEnd));
            }
            next = value.offset + value.length;
        }
        if (m_file == StoreFile::stream && m_found.block && next != m_dataEnd) {
            bad(fmt::format("the values end at {}, not at {} as the header has it", next, m_dataEnd));
        }
    }

    // Whether anything can be saved.
    void judge(const AppleDouble &parsed) {
        if (m_blockLost || (parsed.entries.empty() && !m_found.block)) {
            m_found.hopeless = "nothing in it can be told apart any more";
        } else if (m_found.block && !m_found.parts.empty()) {
            m_found.hopeless = "it has entries of another program beside the attributes";
        } else if (!m_found.block && m_found.finderInfo.empty() && m_found.fork_there() == 0) {
            m_found.hopeless = "nothing of it can be read";
        }
    }

    std::string m_bytes;
    StoreFile m_file;
    StoreBytes m_found;
    bool m_hasFinder = false, m_blockLost = false;
    uint64_t m_finderEnd = 0, m_finderLength = 0, m_forkAt = 0;
    uint64_t m_valuesEnd = 0, m_dataStart = 0, m_dataEnd = 0, m_recordsEnd = kRecordsAt, m_count = 0;
};

std::string entry_bytes(uint32_t id, uint64_t offset, uint64_t length) {
    return big_endian_bytes(id, 4) + big_endian_bytes(offset, 4) + big_endian_bytes(length, 4);
}

std::string finder_bytes(const StoreBytes &found) {
    return found.finderInfo.empty() ? std::string(kFinderBytes, '\0') : found.finderInfo;
}

void write_front(int to, std::string_view bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t put = ::pwrite(to, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            throw_errno("a copy of it cannot be written");
        }
        done += static_cast<size_t>(put);
    }
}

// Of a name that is there several times the last one counts. One look at each, of which there may be very many.
using LastValues = std::unordered_map<std::string_view, const StoreBytes::Value *>;
LastValues last_values(const StoreBytes &found, bool wholeAlone) {
    LastValues last;
    for (const StoreBytes::Value &value : found.values) {
        if (value.whole || !wholeAlone) {
            last[value.name] = &value;
        }
    }
    return last;
}

struct SoundPlace {
    const StoreBytes::Value *value;
    uint64_t offset;
};
// Where the values of a new file lie, the last of each name; the end of all of them.
uint64_t place_values(const StoreBytes &found, std::vector<SoundPlace> &places) {
    uint64_t at = kRecordsAt;
    const LastValues last = last_values(found, true);
    for (const StoreBytes::Value &value : found.values) {
        if (value.whole && last.at(value.name) == &value) {
            places.push_back({&value, 0});
            at += (value.name.size() + 1 + 14) & ~uint64_t{3};
        }
    }
    for (SoundPlace &place : places) {
        place.offset = at;
        at += place.value->length;
    }
    if (at > UINT32_MAX) {
        throw Failure("what can be read of it does not fit into one file");
    }
    return at;
}

std::string block_bytes(const std::vector<SoundPlace> &places, uint64_t end) {
    const uint64_t start = places.empty() ? end : places.front().offset;
    std::string block = std::string(2, '\0') + "ATTR" + big_endian_bytes(0, 4) + big_endian_bytes(end, 4) +
                        big_endian_bytes(start, 4) + big_endian_bytes(end - start, 4) + std::string(14, '\0') +
                        big_endian_bytes(places.size(), 2);
    for (const SoundPlace &place : places) {
        const std::string &name = place.value->name;
        std::string record = big_endian_bytes(place.offset, 4) + big_endian_bytes(place.value->length, 4) +
                             big_endian_bytes(0, 2) + big_endian_bytes(name.size() + 1, 1) + name;
        record.resize((name.size() + 1 + 14) & ~size_t{3}, '\0');
        block += record;
    }
    return block;
}

void write_block_file(int from, const StoreBytes &found, int to) {
    std::vector<SoundPlace> places;
    const uint64_t end = place_values(found, places);
    write_front(to, std::string(kGoodStart) + std::string(kGoodFiller) + big_endian_bytes(2, 2) +
                        entry_bytes(kFinderId, kFinderAt, end - kFinderAt) +
                        entry_bytes(kForkId, end, found.fork_there()) + finder_bytes(found) + block_bytes(places, end));
    for (const SoundPlace &place : places) {
        copy_bytes(from, place.value->offset, to, place.offset, place.value->length);
    }
    copy_bytes(from, found.forkOffset, to, end, found.fork_there());
    if (found.fork_there() == 0 && ::ftruncate(to, static_cast<off_t>(end)) != 0) {
        throw_errno("a copy of it cannot be written");
    }
}

// Without attributes: the entries one behind the other, Finder Info first and the fork last.
void write_plain_file(int from, const StoreBytes &found, int to) {
    std::vector<StoreBytes::Part> parts;
    std::ranges::copy_if(found.parts, std::back_inserter(parts), [&](const StoreBytes::Part &part) {
        return part.id != 0 && uint64_t{part.offset} + part.length <= found.size;
    });
    uint64_t at = kEntriesAt + (parts.size() + 2) * kEntryBytes;
    std::string header = std::string(kGoodStart) + std::string(kGoodFiller) + big_endian_bytes(parts.size() + 2, 2) +
                         entry_bytes(kFinderId, at, kFinderBytes);
    at += kFinderBytes;
    const uint64_t partsAt = at;
    for (const StoreBytes::Part &part : parts) {
        header += entry_bytes(part.id, at, part.length);
        at += part.length;
    }
    write_front(to, header + entry_bytes(kForkId, at, found.fork_there()) + finder_bytes(found));
    at = partsAt;
    for (const StoreBytes::Part &part : parts) {
        copy_bytes(from, part.offset, to, at, part.length);
        at += part.length;
    }
    copy_bytes(from, found.forkOffset, to, at, found.fork_there());
}

// The same file but for its end.
bool is_end_alone(const StoreBytes &found) {
    return found.bad.empty() && found.values_cut() == 0;
}

constexpr size_t kMetadataBytes = 402;
struct MetadataPlace {
    uint32_t id;
    uint64_t offset, length, room;
    const char *text;
};
constexpr std::array<MetadataPlace, 8> kMetadataPlaces = {{{4, 154, 0, 200, "comment"},
                                                           {8, 354, 16, 16, "file dates"},
                                                           {9, 122, 32, 32, "Finder Info"},
                                                           {14, 370, 4, 4, "AFP file info"},
                                                           {0x80444556, 374, 0, 8, "device"},
                                                           {kInodeId, 382, 0, 8, "inode"},
                                                           {0x8053594E, 390, 0, 8, "synchronisation"},
                                                           {0x8053567E, 398, 0, 4, "file id"}}};

const AppleDouble::Entry *metadata_entry(const AppleDouble &parsed, uint32_t id) {
    const auto found = std::find_if(parsed.entries.rbegin(), parsed.entries.rend(),
                                    [&](const AppleDouble::Entry &entry) { return entry.id == id; });
    return found == parsed.entries.rend() ? nullptr : &*found;
}

} // namespace

uint64_t StoreBytes::values_cut() const {
    return static_cast<uint64_t>(std::ranges::count_if(
        values, [&](const Value &value) { return value.length > 0 && value.offset + value.length > size; }));
}

uint64_t StoreBytes::fork_there() const {
    return forkOffset >= size ? 0 : std::min(forkLength, size - forkOffset);
}

StoreBytes read_store_bytes(int fd, StoreFile file) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        throw_errno("cannot be looked at");
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size == 0) {
        return {}; // a stream that nothing was written to yet
    }
    return Look(read_headers(fd, size), size, file).run();
}

void write_sound_bytes(int from, const StoreBytes &found, StoreFile file, int to) {
    if (!found.hopeless.empty()) {
        throw Failure(found.hopeless);
    }
    if (is_end_alone(found)) {
        copy_bytes(from, 0, to, 0, std::min(found.size, found.end));
        if (found.fork_cut()) {
            const std::string length = big_endian_bytes(found.fork_there(), 4);
            if (::pwrite(to, length.data(), length.size(), static_cast<off_t>(found.forkEntry + 8)) != 4) {
                throw_errno("a copy of it cannot be written");
            }
        }
    } else if (found.block || file == StoreFile::stream) {
        write_block_file(from, found, to);
    } else {
        write_plain_file(from, found, to);
    }
}

void check_sound_bytes(int from, const StoreBytes &found, StoreFile file, int made) {
    const StoreBytes now = read_store_bytes(made, file);
    const auto refuse = [](const char *what) {
        throw Failure(fmt::format("{} did not come through: nothing was changed", what));
    };
    if (!now.is_sound()) {
        refuse("what was read of it");
    }
    if (now.finderInfo != found.finderInfo && !(found.finderInfo.empty() && now.finderInfo == finder_bytes(found))) {
        refuse("the Finder Info");
    }
    if (now.forkLength != found.fork_there() ||
        !same_bytes(from, found.forkOffset, made, now.forkOffset, now.forkLength)) {
        refuse("the resource fork");
    }
    const LastValues there = last_values(now, false);
    for (const auto &[name, value] : last_values(found, true)) {
        const auto copy = there.find(name);
        if (copy == there.end() || copy->second->length != value->length ||
            !same_bytes(from, value->offset, made, copy->second->offset, value->length)) {
            refuse("an attribute");
        }
    }
}

bool has_extra_blocks(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || status.st_blksize <= 0) {
        return false;
    }
    const auto block = static_cast<uint64_t>(status.st_blksize);
    alignas(fiemap) char room[sizeof(fiemap) + sizeof(fiemap_extent)] = {};
    auto *const map = reinterpret_cast<fiemap *>(room);
    map->fm_start = (static_cast<uint64_t>(status.st_size) + block - 1) / block * block;
    map->fm_length = FIEMAP_MAX_OFFSET - map->fm_start;
    map->fm_extent_count = 1;
    return ::ioctl(fd, FS_IOC_FIEMAP, map) == 0 && map->fm_mapped_extents == 1 &&
           (map->fm_extents[0].fe_flags & FIEMAP_EXTENT_UNWRITTEN) != 0 &&
           map->fm_extents[0].fe_logical >= map->fm_start;
}

std::string metadata_fault(std::string_view value) {
    if (value.size() != kMetadataBytes) {
        return fmt::format("it has {} bytes, not {}", value.size(), kMetadataBytes);
    }
    const AppleDouble parsed = parse_apple_double(value, value.size());
    if (!parsed.bad.empty()) {
        return parsed.bad;
    }
    if (parsed.entries.size() != kMetadataPlaces.size()) {
        return fmt::format("it has {} entries, not {}", parsed.entries.size(), kMetadataPlaces.size());
    }
    for (const MetadataPlace &place : kMetadataPlaces) {
        const AppleDouble::Entry *const entry = metadata_entry(parsed, place.id);
        if (entry == nullptr || entry->offset == 0) {
            return fmt::format("it has no {}, or no place for that", place.text);
        }
    }
    return {};
}

std::string sound_metadata(std::string_view value) {
    const AppleDouble parsed = parse_apple_double(value, UINT64_MAX);
    std::string made = std::string(kGoodStart) + std::string(16, '\0') + big_endian_bytes(kMetadataPlaces.size(), 2);
    if (value.size() >= kEntriesAt && parsed.entries.empty()) {
        return {};
    }
    std::string held(kMetadataBytes, '\0');
    int saved = 0;
    for (const MetadataPlace &place : kMetadataPlaces) {
        const AppleDouble::Entry *const entry = metadata_entry(parsed, place.id);
        const bool readable = entry != nullptr && entry->offset > 0 && entry->length > 0 &&
                              entry->length <= place.room && uint64_t{entry->offset} + entry->length <= value.size();
        made += entry_bytes(place.id, place.offset, readable ? entry->length : place.length);
        if (readable) {
            held.replace(place.offset, entry->length, value.substr(entry->offset, entry->length));
            ++saved;
        }
    }
    made += held.substr(made.size());
    return saved > 0 ? made : std::string();
}

std::string metadata_value(const std::string &finderInfo, const std::string &comment, int afpAttributes) {
    constexpr uint32_t kCommentId = 4, kAfpId = 14;
    std::string made = std::string(kGoodStart) + std::string(16, '\0') + big_endian_bytes(kMetadataPlaces.size(), 2);
    for (const MetadataPlace &place : kMetadataPlaces) {
        made += entry_bytes(place.id, place.offset, place.id == kCommentId ? comment.size() : place.length);
    }
    made.resize(kMetadataBytes, '\0');
    for (const MetadataPlace &place : kMetadataPlaces) {
        const std::string held = place.id == kFinderId    ? finderInfo
                                 : place.id == kCommentId ? comment
                                 : place.id == kAfpId
                                     ? big_endian_bytes(static_cast<uint64_t>(afpAttributes), place.room)
                                     : std::string();
        made.replace(place.offset, std::min<size_t>(held.size(), place.room), held, 0, place.room);
    }
    return made;
}

std::string metadata_finder_info(std::string_view value) {
    std::string info = parse_apple_double(value, value.size()).finderInfo;
    const bool zero = std::ranges::all_of(info, [](char byte) { return byte == '\0'; });
    return zero ? std::string() : info;
}

} // namespace engine
