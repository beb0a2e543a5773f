// Everything that a file's store holds, whatever it is kept in.
#include "tools/engine/store/store.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/walk/descriptor.h"

#include <algorithm>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace engine {
namespace {

constexpr char kResource[] = "VexoResource";
constexpr size_t kLargestStoreFile = size_t{1} << 30;
// Each of these in the AFP attribute word keeps clients from changing the file in one way.
constexpr int kAfpLockedBits = 0x0100 | 0x0080 | 0x0020;

bool all_zero(std::string_view bytes) {
    return std::ranges::all_of(bytes, [](char byte) { return byte == '\0'; });
}

// Bits in the AFP attribute word of the header that a reader of the library finds.
bool has_locked_bits(const std::string &path, int (*read)(const char *, VEXOEAAdouble *)) {
    constexpr size_t fileServerInfo = 14;
    VEXOEAAdouble record{};
    if (read(path.c_str(), &record) != 0) {
        return false;
    }
    const uint64_t place = record.entries[fileServerInfo].offset + 2;
    if (place == 2 || place + 2 > sizeof record.raw) {
        return false;
    }
    return ((record.raw[place] << 8 | record.raw[place + 1]) & kAfpLockedBits) != 0;
}

// Where the library reads it too: write permission on volumes whose files the AFP service cannot mark, else the
// platform's flag or the attribute word.
bool is_locked(const std::string &path, StoreKind kind) {
    VLIBCStat status{};
    const bool seen = VLIBCFileStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) == 0;
    if (kind == StoreKind::apple_double || kind == StoreKind::native) {
        return seen && (status.st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
    }
    return (seen && (status.attributes & VLIBC_ATTR_LOCKED) != 0) ||
           has_locked_bits(path, kind == StoreKind::file_ea ? VEXOEAFileEAAdoubleRead : VEXOEAEADirAdoubleRead);
}

} // namespace

std::string metadata_attribute(const std::string &path) {
    std::string value(1024, '\0');
    const ssize_t size = ::getxattr(path.c_str(), kMetadataName, value.data(), value.size());
    value.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return value;
}

Store::Metadata Store::metadata() const {
    Metadata all;
    for (const Attribute &attribute : list()) {
        if (m_kind != StoreKind::native || (attribute.name != kFinderInfoName && attribute.name != kResourceForkName)) {
            all.attributes[attribute.name] = get(attribute.name);
        }
    }
    struct stat found {};
    if (m_kind == StoreKind::native) {
        all.finderInfo = native_value(m_path, kFinderInfoName).value_or("");
        all.fork = native_value(m_path, kResourceForkName).value_or("");
    } else if (const std::string resource = stream_path(kResource); ::lstat(resource.c_str(), &found) == 0) {
        uint64_t size = 0;
        const std::string bytes = read_regular_file(resource, kLargestStoreFile, &size);
        const AppleDouble header = parse_apple_double(bytes, size);
        all.finderInfo = header.finderInfo;
        all.fork = header.fork(bytes);
    }
    if (m_kind == StoreKind::file_ea) {
        const std::string value = metadata_attribute(m_path);
        const AppleDouble header = parse_apple_double(value, value.size());
        // The resource file follows the attribute at the next copy.
        if (all_zero(all.finderInfo) || (!header.finderInfo.empty() && EACheckNeedSync(m_path.c_str()) == 1)) {
            all.finderInfo = header.finderInfo;
        }
    }
    if (all_zero(all.finderInfo)) {
        all.finderInfo.clear();
    }
    all.locked = is_locked(m_path, m_kind);
    return all;
}

} // namespace engine
