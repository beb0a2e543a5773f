#include "platform/linux/core_dos_attribute.h"

#include "platform/core.h"

#include <cstring>
#include <string_view>

namespace vexo {
namespace {

constexpr uint32_t kValidAttributes = 0x1;
constexpr uint32_t kValidCreationTime = 0x10;
constexpr uint16_t kVersion = 5;

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kNanosecondsPerUnit = 100;
constexpr int64_t kSecondsFrom1601To1970 = 11'644'473'600;

// Little-endian fields with bounds checks; a field that is not all there ends the reading.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> bytes) : m_bytes(bytes) {}

    uint64_t take(size_t width) {
        if (!m_ok || width > m_bytes.size() - m_at) {
            m_ok = false;
            return 0;
        }
        uint64_t value = 0;
        for (size_t at = width; at > 0; --at) {
            value = value << 8 | m_bytes[m_at + at - 1];
        }
        m_at += width;
        return value;
    }
    void skip(size_t size) {
        m_ok = m_ok && size <= m_bytes.size() - m_at;
        m_at += m_ok ? size : 0;
    }
    void align(size_t width) { skip((width - m_at % width) % width); }
    bool ok() const { return m_ok; }

  private:
    std::span<const uint8_t> m_bytes;
    size_t m_at = 0;
    bool m_ok = true;
};

// Bytes between the attributes and the creation time, by version.
constexpr std::optional<size_t> bytes_before_creation_time(uint16_t version) {
    switch (version) {
    case 3:
        return 4 + 8 + 8; // size of the extended attributes, size, allocated size
    case 4:
        return 8; // the time the file number was made from
    case 5:
        return 0;
    default:
        return std::nullopt;
    }
}

int hex_digit(uint8_t byte) {
    if (byte >= '0' && byte <= '9') {
        return byte - '0';
    }
    const int lower = byte | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The oldest form: the attributes as text and nothing else, "0x20", with or without its NUL.
std::optional<uint32_t> attributes_as_text(std::span<const uint8_t> value) {
    if (!value.empty() && value.back() == 0) {
        value = value.first(value.size() - 1);
    }
    if (value.size() < 3 || value.size() > 10 || value[0] != '0' || (value[1] | 0x20) != 'x') {
        return std::nullopt;
    }
    uint32_t attributes = 0;
    for (const uint8_t byte : value.subspan(2)) {
        const int digit = hex_digit(byte);
        if (digit < 0) {
            return std::nullopt;
        }
        attributes = attributes << 4 | static_cast<uint32_t>(digit);
    }
    return attributes;
}

// 0 and the values that are negative as a signed number are how SMB says that there is no time.
bool is_time(uint64_t dosTime) {
    return dosTime != 0 && dosTime <= static_cast<uint64_t>(INT64_MAX);
}

// The attributes that the platform has a bit for.
struct WordRow {
    uint32_t dos, platform;
};
constexpr WordRow kWordRows[] = {
    {kDosArchive, VLIBC_ATTR_ARCHIVE},
    {kDosHidden, VLIBC_ATTR_HIDDEN},
    {kDosSystem, VLIBC_ATTR_SYSTEM},
    {kDosReadOnly, VLIBC_ATTR_LOCKED},
};

void put(uint8_t *to, uint64_t value, size_t width) {
    for (size_t at = 0; at < width; ++at) {
        to[at] = static_cast<uint8_t>(value >> (8 * at));
    }
}

} // namespace

DosRecord decode_dos_record(std::span<const uint8_t> value) {
    if (const auto attributes = attributes_as_text(value)) {
        return {attributes, std::nullopt};
    }
    const void *end = value.empty() ? nullptr : std::memchr(value.data(), 0, value.size());
    if (end == nullptr) {
        return {};
    }
    Reader reader(value);
    reader.skip(static_cast<size_t>(static_cast<const uint8_t *>(end) - value.data()) + 1);
    reader.align(2);
    const auto version = static_cast<uint16_t>(reader.take(2));
    const auto again = static_cast<uint16_t>(reader.take(2));
    reader.align(4);
    const auto between = bytes_before_creation_time(version);
    if (!reader.ok() || version != again || !between) {
        return {};
    }
    const auto valid = static_cast<uint32_t>(reader.take(4));
    const auto attributes = static_cast<uint32_t>(reader.take(4));
    DosRecord record;
    if (reader.ok() && (valid & kValidAttributes) != 0) {
        record.attributes = attributes;
    }
    reader.skip(*between);
    const uint64_t time = reader.take(8);
    if (reader.ok() && (valid & kValidCreationTime) != 0 && is_time(time)) {
        record.creationTime = time;
    }
    return record;
}

std::array<uint8_t, kDosRecordSize> encode_dos_record(const DosRecord &record) {
    const uint32_t valid = (record.attributes ? kValidAttributes : 0) | (record.creationTime ? kValidCreationTime : 0);
    std::array<uint8_t, kDosRecordSize> bytes{};
    put(&bytes[2], kVersion, 2);
    put(&bytes[4], kVersion, 4);
    put(&bytes[8], valid, 4);
    put(&bytes[12], record.attributes.value_or(0), 4);
    put(&bytes[16], record.creationTime.value_or(0), 8);
    return bytes;
}

uint32_t platform_word(uint32_t dosAttributes) {
    uint32_t word = 0;
    for (const WordRow &row : kWordRows) {
        word |= (dosAttributes & row.dos) != 0 ? row.platform : 0;
    }
    return word;
}

uint32_t dos_of_platform_word(uint32_t word) {
    uint32_t attributes = 0;
    for (const WordRow &row : kWordRows) {
        attributes |= (word & row.platform) != 0 ? row.dos : 0;
    }
    return attributes;
}

void DosRecord::add(const DosRecord &from) {
    constexpr uint32_t kSetBySteps = kDosArchive | kDosHidden | kDosSystem | kDosReadOnly;
    if (!attributes) {
        attributes = from.attributes;
    } else if (from.attributes) {
        attributes = *attributes | (*from.attributes & ~kSetBySteps);
    }
    if (!creationTime) {
        creationTime = from.creationTime;
    }
}

timespec time_of_dos(uint64_t dosTime) {
    const auto units = static_cast<int64_t>(dosTime);
    return {units / kUnitsPerSecond - kSecondsFrom1601To1970, units % kUnitsPerSecond * kNanosecondsPerUnit};
}

std::optional<uint64_t> dos_of_time(const timespec &time) {
    if (time.tv_nsec < 0 || time.tv_nsec >= 1'000'000'000 || time.tv_sec < -kSecondsFrom1601To1970 ||
        time.tv_sec >= INT64_MAX / kUnitsPerSecond - kSecondsFrom1601To1970) {
        return std::nullopt;
    }
    const int64_t units = (time.tv_sec + kSecondsFrom1601To1970) * kUnitsPerSecond + time.tv_nsec / kNanosecondsPerUnit;
    return is_time(static_cast<uint64_t>(units)) ? std::optional(static_cast<uint64_t>(units)) : std::nullopt;
}

} // namespace vexo
