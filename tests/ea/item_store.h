// What belongs to a file, put into the store of its kind of volume and read back from it, byte by byte and without the
// library: so that a test can say what it expects without saying where each kind keeps it.
#pragma once

#include "platform/core.h"
#include "platform/sdk.h"
#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace item_store {

// One type code of each group that keeps its metadata the same way.
inline constexpr int kAppleDouble = 5, kNative = 7, kEaDirectory = 1, kFileEa = 2;
inline constexpr int kFat = 0; // keeps none

inline const char *name(int kind) {
    switch (kind) {
    case kAppleDouble:
        return "AppleDouble";
    case kNative:
        return "Native";
    case kEaDirectory:
        return "EaDirectory";
    default:
        return "FileEa";
    }
}

struct Items {
    std::string finderInfo; // 32 bytes, or none
    std::string fork;
    std::map<std::string, std::string> attributes;
    std::map<std::string, std::string> extras; // other files in the file's own directory
    bool locked = false;

    bool operator==(const Items &) const = default;
};

inline std::string brief(const std::string &bytes) {
    return std::to_string(bytes.size()) + " bytes (" + std::to_string(std::hash<std::string>()(bytes) % 10000) + ")";
}
inline std::ostream &operator<<(std::ostream &out, const Items &items) {
    out << "Finder Info " << brief(items.finderInfo) << ", fork " << brief(items.fork) << ", locked " << items.locked;
    for (const auto &[key, value] : items.attributes) {
        out << ", " << key << " " << brief(value);
    }
    for (const auto &[key, value] : items.extras) {
        out << ", extra " << key << " " << brief(value);
    }
    return out;
}

// A path and where its companions are.
struct Place {
    std::string directory, base;

    std::string path() const { return directory + "/" + base; }
    std::string eaDirectory() const { return directory + "/@eaDir"; }
    std::string own() const { return eaDirectory() + "/" + base; }
    std::string resource() const { return own() + "@VexoResource"; }
    std::string stream() const { return own() + "@VexoEAStream"; }
    std::string dotFile() const { return directory + "/._" + base; }
};

inline const std::string kBlank = [] {
    std::string fork(286, '\0');
    const std::string words = "This resource fork intentionally left blank   ";
    fork.replace(16, words.size(), words);
    return fork;
}();

// A resource file of two entries.
inline std::string resourceBytes(const std::string &finderInfo, const std::string &fork) {
    std::string info = finderInfo;
    info.resize(32);
    return adouble_bytes::header({{9, 50, 32}, {2, 82, static_cast<uint32_t>(fork.size())}}, 82, 0x00051607, 0x00020000,
                                 "VEXOWARE        ")
               .substr(0, 50) +
           info + fork;
}

inline std::string metadataBytes(const std::string &finderInfo) {
    std::string bytes = adouble_bytes::metadata();
    bytes.replace(122, finderInfo.size(), finderInfo);
    return bytes;
}

inline uint32_t word(const std::string &bytes, size_t at, size_t width = 4) {
    uint32_t value = 0;
    for (size_t i = at; i < at + width && i < bytes.size(); ++i) {
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    }
    return value;
}

// `zeros` is none: a store with 32 zero bytes of Finder Info holds none.
inline std::string infoOrNone(std::string info) {
    return info.find_first_not_of('\0') == std::string::npos ? std::string() : info;
}

// Finder Info and fork as the entries of an AppleDouble file say.
inline void readDouble(const std::string &bytes, Items &into) {
    for (uint32_t at = 0; at < word(bytes, 24, 2); ++at) {
        const size_t entry = 26 + 12 * at;
        const uint32_t offset = word(bytes, entry + 4);
        const uint32_t length = word(bytes, entry + 8);
        if (offset > bytes.size()) {
            continue;
        }
        if (word(bytes, entry) == 9) {
            into.finderInfo = infoOrNone(bytes.substr(offset, 32));
        } else if (word(bytes, entry) == 2) {
            into.fork = bytes.substr(offset, length);
        }
    }
}

// Attributes that volumes keep for themselves.
inline bool isOfTheVolume(const std::string &name) {
    return name == "user.DOSATTRIB" || name == "user.netatalk.Metadata" || name == "user.vexo.filea.flushtime" ||
           name.starts_with("security.") || name.starts_with("system.") || name.starts_with("com.apple.") ||
           name.starts_with("trusted.");
}

// The attributes that a stream file's records name.
inline void readStream(const std::string &bytes, Items &into) {
    if (bytes.size() < 120 || bytes.compare(84, 4, "ATTR") != 0 || word(bytes, 34) == 32) {
        return;
    }
    size_t at = 120;
    for (uint32_t left = word(bytes, 118, 2); left > 0 && at + 11 <= bytes.size(); --left) {
        const size_t length = static_cast<uint8_t>(bytes[at + 10]);
        const uint32_t offset = word(bytes, at);
        if (offset <= bytes.size() && !isOfTheVolume(bytes.substr(at + 11, length - 1))) {
            into.attributes[bytes.substr(at + 11, length - 1)] = bytes.substr(offset, word(bytes, at + 4));
        }
        at += (length + 14) / 4 * 4;
    }
}

inline std::string streamBytes(const Items &items) {
    return stream::bytes({items.attributes.begin(), items.attributes.end()});
}

inline void makeDirectories(const Place &place) {
    ::mkdir(place.eaDirectory().c_str(), 0777);
    ::chmod(place.eaDirectory().c_str(), 0777);
}

// Makes a volume of that kind at the directory, which is new.
inline void makeVolume(const std::string &directory, int kind) {
    ::mkdir(directory.c_str(), 0755);
    kit::PlatformDouble::setType(directory, kind);
    if (kind == kNative) {
        kit::NativeDouble::setVolume(directory);
    }
}

// The file itself; where forks are reached as "<file>/rsrc", with an empty one.
inline void makeFile(const Place &place, int kind) {
    if (kind == kNative) {
        kit::ForkDouble::make(place.path(), "", 0644);
    } else {
        kit::writeFile(place.path(), "data");
    }
}

inline void lock(const Place &place, int kind) {
    if (kind == kAppleDouble || kind == kNative) {
        ::chmod(place.path().c_str(), kit::statOf(place.path()).st_mode & 07555);
    } else {
        VLIBCKernelAttrCall(place.path().c_str(), 522);
    }
}

inline bool isPlatformLocked(const Place &place) {
    VLIBCStat status{};
    return VLIBCFileStat(place.path().c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) == 0 &&
           (status.attributes & VLIBC_ATTR_LOCKED) != 0;
}

inline std::string content(const std::string &path) {
    return kit::exists(path) ? kit::readFile(path) : std::string();
}

// Puts the items into the store of a file made by makeFile().
inline void build(const Place &place, int kind, const Items &items) {
    const bool hasResource = !items.fork.empty() || (!items.finderInfo.empty() && kind != kFileEa);
    if (kind == kAppleDouble) {
        if (hasResource || !items.attributes.empty()) {
            kit::writeFile(place.dotFile(), stream::bytes({items.attributes.begin(), items.attributes.end()},
                                                          static_cast<uint32_t>(items.fork.size()), items.finderInfo) +
                                                items.fork);
        }
    } else if (kind == kNative) {
        if (!items.finderInfo.empty()) {
            kit::setAttribute(place.path(), "com.apple.FinderInfo", items.finderInfo);
        }
        for (const auto &[key, value] : items.attributes) {
            kit::setAttribute(place.path(), key, value);
        }
        if (!items.fork.empty()) {
            kit::writeFile(place.path() + "/rsrc", items.fork, 0666);
        }
    } else {
        makeDirectories(place);
        if (hasResource) {
            kit::writeFile(place.resource(), resourceBytes(items.finderInfo, items.fork));
        }
        if (!items.attributes.empty()) {
            kit::writeFile(place.stream(), streamBytes(items));
        }
        if (kind == kFileEa && !items.finderInfo.empty()) {
            kit::setAttribute(place.path(), "user.netatalk.Metadata", metadataBytes(items.finderInfo));
        }
    }
    if (!items.extras.empty()) {
        makeDirectories(place);
        ::mkdir(place.own().c_str(), 0777);
        for (const auto &[key, value] : items.extras) {
            kit::writeFile(place.own() + "/" + key, value);
        }
    }
    if (items.locked) {
        lock(place, kind);
    }
}

inline std::map<std::string, std::string> nativeAttributes(const std::string &path) {
    std::map<std::string, std::string> found;
    std::string names(65536, '\0');
    const ssize_t size = ::listxattr(path.c_str(), names.data(), names.size());
    for (ssize_t at = 0; at < size;) {
        const std::string one = names.c_str() + at;
        at += static_cast<ssize_t>(one.size()) + 1;
        if (isOfTheVolume(one)) {
            continue;
        }
        std::string value(65537, '\0');
        const ssize_t length = ::getxattr(path.c_str(), one.c_str(), value.data(), value.size());
        value.resize(length < 0 ? 0 : static_cast<size_t>(length));
        found[one] = value;
    }
    return found;
}

// What the store holds.
inline Items read(const Place &place, int kind) {
    Items items;
    if (kind == kAppleDouble) {
        const std::string bytes = content(place.dotFile());
        readDouble(bytes, items);
        readStream(bytes, items);
    } else if (kind == kNative) {
        items.finderInfo = infoOrNone(kit::attribute(place.path(), "com.apple.FinderInfo"));
        items.attributes = nativeAttributes(place.path());
        items.fork = content(place.path() + "/rsrc");
    } else {
        readDouble(content(place.resource()), items);
        readStream(content(place.stream()), items);
        const std::string metadata = kit::attribute(place.path(), "user.netatalk.Metadata");
        if (kind == kFileEa) {
            items.finderInfo = metadata.size() == 402 ? infoOrNone(metadata.substr(122, 32)) : "";
        }
    }
    if (kit::exists(place.own())) {
        for (const std::string &one : kit::namesIn(place.own())) {
            items.extras[one] = kit::readFile(place.own() + "/" + one);
        }
    }
    items.locked = kind == kAppleDouble || kind == kNative ? (kit::statOf(place.path()).st_mode & 0222) == 0
                                                           : isPlatformLocked(place);
    return items;
}

} // namespace item_store
