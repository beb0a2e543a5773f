// The value of the attribute "user.DOSATTRIB", in which Samba keeps what a DOS file has and a Unix file has not. Pure
// functions from bytes to record and back; core_attribute_store.h reads and writes the attribute.
//
// What is written is Samba's present version, 24 bytes, little-endian:
//
//      0  00 00           an empty string (older versions have the attributes there as text), padded to 2
//      2  05 00           version 5
//      4  05 00 00 00     version 5 again, padded to 4
//      8  uint32          which of the fields are valid: 0x1 attributes, 0x10 creation time
//     12  uint32          attributes
//     16  uint64          creation time, in units of 100 ns since 1601-01-01 UTC
//
// Versions 3 and 4 have other fields between attributes and creation time; they are read and become version 5 with the
// next write, as Samba itself does it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <time.h>

namespace vexo {

inline constexpr char kDosAttributeName[] = "user.DOSATTRIB";
inline constexpr size_t kDosRecordSize = 24;

// The attributes of a DOS file, as on FAT.
inline constexpr uint32_t kDosReadOnly = 0x01;
inline constexpr uint32_t kDosHidden = 0x02;
inline constexpr uint32_t kDosSystem = 0x04;
inline constexpr uint32_t kDosDirectory = 0x10;
inline constexpr uint32_t kDosArchive = 0x20;

struct DosRecord {
    std::optional<uint32_t> attributes;
    std::optional<uint64_t> creationTime; // 100 ns since 1601; never 0 nor beyond INT64_MAX, which mean "none"

    bool operator==(const DosRecord &) const = default;
    // What a copy of the file with the record `from` gets beside what has been set for it: a field that is not there,
    // and of attributes that are there the bits that the platform word has no place for.
    void add(const DosRecord &from);
};

// What the bytes say. A value that is cut short, of an unknown version or otherwise no such record gives an empty one:
// anybody who may write the file may have put anything there.
DosRecord decode_dos_record(std::span<const uint8_t> value);
std::array<uint8_t, kDosRecordSize> encode_dos_record(const DosRecord &record);

// The platform word of VLIBCStat and back; bits without a counterpart are left out.
uint32_t platform_word(uint32_t dosAttributes);
uint32_t dos_of_platform_word(uint32_t word);

timespec time_of_dos(uint64_t dosTime);
// Nothing where the format cannot hold the time (before 1601, or some 29000 years later).
std::optional<uint64_t> dos_of_time(const timespec &time);

} // namespace vexo
