// What Mac clients keep about a file: Finder Info, and the AppleDouble record that it is part of.
//
//  - FinderInfo: 32 bytes as a value; finder_info() and set_finder_info() for a file on any volume that keeps some.
//  - AppleDouble: a whole record, of bytes or of a file, with its entries.
//
// A change is made in place, as by the C functions (ea.h), and waits for no lock.
#pragma once

#include "cpp/attributes.hpp"
#include "cpp/result.hpp"
#include "ea/ea.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace vexofileop {

// Finder Info of a file. All zero is the same as none.
class FinderInfo {
  public:
    static constexpr std::size_t kSize = 32;
    using Bytes = std::array<std::uint8_t, kSize>;
    // Flags of the Finder; the others are to stay as they are.
    static constexpr std::uint16_t has_custom_icon = 0x0400, stationery = 0x0800, name_locked = 0x1000,
                                   has_bundle = 0x2000, invisible = 0x4000, alias = 0x8000;

    FinderInfo() noexcept = default;
    explicit FinderInfo(const Bytes &bytes) noexcept : m_bytes(bytes) {}

    const Bytes &bytes() const noexcept { return m_bytes; }
    bool empty() const noexcept { return m_bytes == Bytes{}; }
    // Four bytes each, "TEXT" and "ttxt".
    std::string type() const { return {m_bytes.begin(), m_bytes.begin() + 4}; }
    std::string creator() const { return {m_bytes.begin() + 4, m_bytes.begin() + 8}; }
    std::uint16_t flags() const noexcept { return static_cast<std::uint16_t>(m_bytes[8] << 8 | m_bytes[9]); }
    // The colour, 0 to 7, which is in the flags.
    int label() const noexcept { return flags() >> 1 & 7; }

    // Of `four` the first four bytes count; what it lacks of them are blanks, as Macs have it.
    FinderInfo &set_type(std::string_view four) noexcept { return set_four(0, four); }
    FinderInfo &set_creator(std::string_view four) noexcept { return set_four(4, four); }
    FinderInfo &set_flags(std::uint16_t flags) noexcept {
        m_bytes[8] = static_cast<std::uint8_t>(flags >> 8);
        m_bytes[9] = static_cast<std::uint8_t>(flags);
        return *this;
    }
    FinderInfo &set_label(int label) noexcept {
        return set_flags(static_cast<std::uint16_t>((flags() & ~0xE) | (label & 7) << 1));
    }

    friend bool operator==(const FinderInfo &one, const FinderInfo &other) noexcept {
        return one.m_bytes == other.m_bytes;
    }
    friend bool operator!=(const FinderInfo &one, const FinderInfo &other) noexcept { return !(one == other); }

  private:
    FinderInfo &set_four(std::size_t at, std::string_view four) noexcept {
        for (std::size_t byte = 0; byte < 4; ++byte) {
            m_bytes[at + byte] = static_cast<std::uint8_t>(byte < four.size() ? four[byte] : ' ');
        }
        return *this;
    }

    Bytes m_bytes{};
};

// A record as the C functions parse it, with the bytes that it came from: at most the first 1024.
class AppleDouble {
  public:
    // What an entry holds, by its slot in VEXOEAAdouble.
    enum class Entry : std::size_t {
        resource_fork = 2,
        comment = 4,
        dates = 8,
        finder_info = 9,
        afp_info = 14,
        device = 16,
        inode = 17,
        synchronisation = 18,
        file_id = 19,
    };

    // Parses a header, of which 1024 bytes are looked at. Errors: Code::invalid_argument for a bad entry, Code::read
    // for what is no AppleDouble header of version 2.
    static Result<AppleDouble> parse(std::string_view bytes) {
        AppleDouble record;
        const std::size_t size = std::min(bytes.size(), sizeof record.m_record.raw);
        detail::forget();
        if (VEXOEAAdoubleRead(bytes.data(), static_cast<int>(size), &record.m_record) != 0) {
            return Error::last("read an AppleDouble record", {});
        }
        record.m_size = size;
        return record;
    }
    // The record of a file: the "._" file beside it (StoreKind::apple_double), the start of its resource file
    // (ea_directory), its metadata attribute (file_ea). Errors: is_missing() where there is none, also where a resource
    // file has less than the 741 bytes of one; Code::none with EOPNOTSUPP on other volumes; Code::locked; those of
    // parse(), VEXOEAFileEAAdoubleRead and VEXOEAEADirAdoubleRead.
    static Result<AppleDouble> of(const std::filesystem::path &path) {
        const detail::PathArgument place(path);
        const Result<StoreKind> kind = store_kind_of(path);
        if (!kind) {
            return kind.error();
        }
        if (*kind == StoreKind::apple_double) {
            return of_store(path);
        }
        if (*kind != StoreKind::file_ea && *kind != StoreKind::ea_directory) {
            return Error(Code::none, EOPNOTSUPP, kReading, path);
        }
        AppleDouble record;
        record.m_size = *kind == StoreKind::file_ea ? kAttributeSize : kResourceSize;
        detail::forget();
        const int found = *kind == StoreKind::file_ea ? VEXOEAFileEAAdoubleRead(place.c_str(), &record.m_record)
                                                      : VEXOEAEADirAdoubleRead(place.c_str(), &record.m_record);
        if (found != 0) {
            return found == 1 ? Error(Code::none, ENODATA, kReading, path) : Error::last(kReading, path);
        }
        return record;
    }

    bool has(Entry entry) const noexcept { return slot(entry).offset != 0; }
    // In bytes, as the header says; of a resource fork it may be more than bytes() has.
    std::uint64_t length(Entry entry) const noexcept { return slot(entry).length; }
    // What of the entry lies in bytes(). Borrowed from the record.
    std::string_view operator[](Entry entry) const noexcept {
        const std::uint64_t from = std::min<std::uint64_t>(slot(entry).offset, m_size);
        const std::uint64_t size = has(entry) ? std::min<std::uint64_t>(slot(entry).length, m_size - from) : 0;
        return bytes().substr(static_cast<std::size_t>(from), static_cast<std::size_t>(size));
    }
    // All zero where there is none.
    FinderInfo finder_info() const noexcept {
        const std::string_view entry = (*this)[Entry::finder_info];
        FinderInfo::Bytes bytes{};
        if (entry.size() >= bytes.size()) {
            std::memcpy(bytes.data(), entry.data(), bytes.size());
        }
        return FinderInfo(bytes);
    }
    // All of the record that was looked at. Borrowed from it.
    std::string_view bytes() const noexcept { return {reinterpret_cast<const char *>(m_record.raw), m_size}; }

    // Gives an entry other bytes, as many as it has. Errors: Code::invalid_argument for another number, or an entry
    // that is not there.
    Result<void> set(Entry entry, std::string_view value) {
        const std::string_view old = (*this)[entry];
        if (!has(entry) || value.size() != old.size()) {
            return Error(Code::invalid_argument, EINVAL, "change an AppleDouble record", {});
        }
        if (!value.empty()) { // one that lies behind bytes() is nowhere in them
            std::memcpy(m_record.raw + slot(entry).offset, value.data(), value.size());
        }
        return {};
    }
    // Stores bytes() as the record of a file; what lies behind them in a resource file stays. Errors: Code::none with
    // EOPNOTSUPP but on StoreKind::file_ea, which takes a record of 402 bytes alone (Code::invalid_argument), and
    // ea_directory; those of VEXOEAFileEAAdoubleFlush and VEXOEAEADirAdoubleFlush.
    Result<void> store(const std::filesystem::path &path) const {
        const detail::PathArgument place(path);
        const Result<StoreKind> kind = store_kind_of(path);
        if (!kind) {
            return kind.error();
        }
        if (*kind == StoreKind::file_ea && m_size != kAttributeSize) {
            return Error(Code::invalid_argument, EINVAL, kWriting, path);
        }
        const auto size = static_cast<int>(m_size);
        detail::forget();
        switch (*kind) {
        case StoreKind::file_ea:
            return detail::checked(VEXOEAFileEAAdoubleFlush(m_record.raw, size, place.c_str()), kWriting, path);
        case StoreKind::ea_directory:
            return detail::checked(VEXOEAEADirAdoubleFlush(m_record.raw, size, place.c_str()), kWriting, path);
        default:
            return Error(Code::none, EOPNOTSUPP, kWriting, path);
        }
    }

    // The C record.
    const VEXOEAAdouble &record() const noexcept { return m_record; }

  private:
    static constexpr std::size_t kAttributeSize = 402, kResourceSize = 741;
    static constexpr char kReading[] = "read the AppleDouble record of";
    static constexpr char kWriting[] = "write the AppleDouble record of";

    AppleDouble() noexcept : m_record{} {}
    const VEXOEAAdoubleEntry &slot(Entry entry) const noexcept {
        return m_record.entries[static_cast<std::size_t>(entry)];
    }
    static Result<AppleDouble> of_store(const std::filesystem::path &path) {
        const Result<detail::OpenStore> store =
            detail::open_store(path, StoreKind::apple_double, detail::kAttributeStream, Access::read);
        if (!store) {
            return store.error();
        }
        std::array<char, sizeof(VEXOEAAdouble::raw)> start{};
        ssize_t got = 0;
        do {
            got = ::pread(store->file.get(), start.data(), start.size(), 0);
        } while (got < 0 && errno == EINTR);
        if (got <= 0) {
            return got < 0 ? Error(Code::read, errno, kReading, path) : Error(Code::none, ENODATA, kReading, path);
        }
        return parse({start.data(), static_cast<std::size_t>(got)});
    }

    VEXOEAAdouble m_record;
    std::size_t m_size = 0;
};

namespace detail {

constexpr char kFinderInfoName[] = "com.apple.FinderInfo";
constexpr char kReadingFinderInfo[] = "read the Finder Info of";
constexpr char kWritingFinderInfo[] = "write the Finder Info of";

// None where there is no store.
inline Result<FinderInfo> finder_info_in(const std::filesystem::path &path, StoreKind kind, const char *stream) {
    const Result<OpenStore> store = open_store(path, kind, stream, Access::read);
    if (!store) {
        return store.error().is_missing() ? Result<FinderInfo>(FinderInfo()) : store.error();
    }
    FinderInfo::Bytes bytes{};
    std::memcpy(bytes.data(), store->stream->header.finderInfo, bytes.size());
    return FinderInfo(bytes);
}

inline Result<FinderInfo> native_finder_info(const std::filesystem::path &path) {
    const Result<Attributes> file = Attributes::of(path);
    const Result<std::string> value = file ? file->get(kFinderInfoName) : Result<std::string>(file.error());
    if (!value) {
        return value.error().is_missing() ? Result<FinderInfo>(FinderInfo()) : value.error();
    }
    FinderInfo::Bytes bytes{};
    if (value->size() != bytes.size()) {
        return Error(Code::read, 0, kReadingFinderInfo, path);
    }
    std::memcpy(bytes.data(), value->data(), bytes.size());
    return FinderInfo(bytes);
}

inline Result<void> set_native_finder_info(const std::filesystem::path &path, const FinderInfo &info) {
    const Result<Attributes> file = Attributes::of(path);
    if (!file) {
        return file.error();
    }
    if (info.empty()) {
        const Result<bool> removed = file->remove(kFinderInfoName);
        return removed ? Result<void>() : Result<void>(removed.error());
    }
    return file->set(kFinderInfoName, {reinterpret_cast<const char *>(info.bytes().data()), info.bytes().size()});
}

// In a "._" file, which is made where it is missing: a header with an empty fork.
inline Result<void> set_adouble_finder_info(const std::filesystem::path &path, const FinderInfo &info) {
    const Access access = info.empty() ? Access::write : Access::create;
    Result<OpenStore> store = open_store(path, StoreKind::apple_double, kAttributeStream, access);
    if (!store) {
        return info.empty() && store.error().is_missing() ? Result<void>() : store.error();
    }
    struct stat found {};
    if (::fstat(store->file.get(), &found) != 0) {
        return Error(Code::stat, errno, kWritingFinderInfo, path);
    }
    if (found.st_size == 0 && info.empty()) {
        return {};
    }
    if (found.st_size == 0) {
        static constexpr char start[] = "\0\5\26\7\0\2\0\0Mac OS X        \0\2"
                                        "\0\0\0\11\0\0\0\62\0\0\0\40\0\0\0\2\0\0\0\122\0\0\0";
        std::array<char, sizeof start + FinderInfo::kSize> file{};
        std::memcpy(file.data(), start, sizeof start);
        std::memcpy(file.data() + sizeof start, info.bytes().data(), info.bytes().size());
        const ssize_t put = ::pwrite(store->file.get(), file.data(), file.size(), 0);
        if (put != static_cast<ssize_t>(file.size())) {
            const int number = put < 0 ? errno : ENOSPC;
            (void)!::ftruncate(store->file.get(), 0); // half a header would be taken for a damaged file
            return Error(Code::write, number, kWritingFinderInfo, path);
        }
        return {};
    }
    std::memcpy(store->stream->header.finderInfo, info.bytes().data(), info.bytes().size());
    forget();
    return checked(EASWriteFinderInfo(store->stream.get()), kWritingFinderInfo, path);
}

// In the resource file, which is made where it is missing, unless there is nothing to say.
inline Result<void> set_resource_finder_info(const std::filesystem::path &path, StoreKind kind,
                                             const FinderInfo &info) {
    const PathArgument place(path);
    if (info.empty()) {
        const Result<OpenStore> store = open_store(path, kind, kResourceStream, Access::read);
        if (!store) {
            return store.error().is_missing() ? Result<void>() : store.error();
        }
        struct stat found {};
        if (::fstat(store->file.get(), &found) != 0) {
            return Error(Code::stat, errno, kWritingFinderInfo, path);
        }
        if (found.st_size == 0) {
            return {};
        }
    }
    forget();
    return checked(VEXOEAEADirFSFInfoWrite(place.c_str(), info.bytes().data()), kWritingFinderInfo, path);
}

// The metadata attribute follows the resource file, but for zeros, which say nothing to it.
inline Result<void> set_attribute_finder_info(const std::filesystem::path &path, const FinderInfo &info) {
    const PathArgument place(path);
    if (!info.empty()) {
        forget();
        return checked(VEXOEAFileEAFSFinfoEASync(place.c_str(), 0), kWritingFinderInfo, path);
    }
    Result<AppleDouble> record = AppleDouble::of(path);
    if (!record) {
        return record.error().is_missing() ? Result<void>() : record.error();
    }
    const std::string zeros((*record)[AppleDouble::Entry::finder_info].size(), '\0');
    const Result<void> changed = record->set(AppleDouble::Entry::finder_info, zeros);
    return changed ? record->store(path) : changed;
}

} // namespace detail

// The Finder Info of a file or directory, all zero where there is none. On StoreKind::file_ea it is that of the
// resource file, or of the metadata attribute where the former says nothing or is to follow the latter
// (EACheckNeedSync). Errors: Code::none with EOPNOTSUPP where the volume keeps none; Code::read for a malformed store;
// those of Stream::open and AppleDouble::of.
inline Result<FinderInfo> finder_info(const std::filesystem::path &path) {
    const Result<StoreKind> kind = store_kind_of(path);
    if (!kind) {
        return kind.error();
    }
    switch (*kind) {
    case StoreKind::native:
        return detail::native_finder_info(path);
    case StoreKind::none:
        return Error(Code::none, EOPNOTSUPP, detail::kReadingFinderInfo, path);
    case StoreKind::apple_double:
        return detail::finder_info_in(path, *kind, detail::kAttributeStream);
    case StoreKind::ea_directory:
    case StoreKind::file_ea:
        break;
    }
    Result<FinderInfo> info = detail::finder_info_in(path, *kind, detail::kResourceStream);
    if (!info || *kind == StoreKind::ea_directory) {
        return info;
    }
    const detail::PathArgument place(path);
    detail::forget();
    if (!info->empty() && EACheckNeedSync(place.c_str()) != 1) {
        return info;
    }
    const Result<AppleDouble> record = AppleDouble::of(path);
    if (!record) {
        return record.error().is_missing() ? info : Result<FinderInfo>(record.error());
    }
    return record->finder_info();
}

// Gives a file or directory this Finder Info, and makes the store where it is missing; all zero makes none, and leaves
// none behind in one that is there. On StoreKind::file_ea the resource file is written first, then the metadata
// attribute. Errors: Code::none with EOPNOTSUPP where the volume keeps none; those of Stream::open,
// VEXOEAEADirFSFInfoWrite, VEXOEAFileEAFSFinfoEASync and EASWriteFinderInfo in ea.h.
inline Result<void> set_finder_info(const std::filesystem::path &path, const FinderInfo &info) {
    const Result<StoreKind> kind = store_kind_of(path);
    if (!kind) {
        return kind.error();
    }
    switch (*kind) {
    case StoreKind::native:
        return detail::set_native_finder_info(path, info);
    case StoreKind::none:
        return Error(Code::none, EOPNOTSUPP, detail::kWritingFinderInfo, path);
    case StoreKind::apple_double:
        return detail::set_adouble_finder_info(path, info);
    case StoreKind::ea_directory:
    case StoreKind::file_ea:
        break;
    }
    Result<void> written = detail::set_resource_finder_info(path, *kind, info);
    return written && *kind == StoreKind::file_ea ? detail::set_attribute_finder_info(path, info) : written;
}

// Brings the metadata attribute of a file in step with its resource file, where EACheckNeedSync says that it is not;
// other volumes than those of StoreKind::file_ea have nothing to bring in step. Gives whether there was. Errors: those
// of EACheckNeedSync and VEXOEAFileEAFSFinfoEASync in ea.h.
inline Result<bool> synchronise_finder_info(const std::filesystem::path &path) {
    constexpr int onlyWhereKept = 1;
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("synchronise the Finder Info of", path);
    }
    detail::forget();
    const int needed = EACheckNeedSync(place.c_str());
    if (needed != 1) {
        return needed == 0 ? Result<bool>(false) : Error::last("synchronise the Finder Info of", path);
    }
    detail::forget();
    if (VEXOEAFileEAFSFinfoEASync(place.c_str(), onlyWhereKept) != 0) {
        return Error::last("synchronise the Finder Info of", path);
    }
    return true;
}

// Where a volume of StoreKind::apple_double keeps what belongs to a file: "<dir>/._<name>", whether it is there or not.
// Errors: Code::invalid_argument; Code::name_too_long.
inline Result<std::filesystem::path> apple_double_path(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    std::array<char, PATH_MAX> buffer{};
    if (!place) {
        return detail::bad_path("look for the AppleDouble file of", path);
    }
    detail::forget();
    if (VEXOEAADPath(place.c_str(), buffer.data(), static_cast<int>(buffer.size())) != 0) {
        return Error::last("look for the AppleDouble file of", path);
    }
    if (std::strlen(buffer.data()) + 1 == buffer.size()) { // cut in silence
        return Error(Code::name_too_long, ENAMETOOLONG, "look for the AppleDouble file of", path);
    }
    return std::filesystem::path(buffer.data());
}

// Whether `path` is an AppleDouble file that belongs to a file beside it; what cannot be told is a "no".
inline bool is_apple_double_file(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    return place && VEXOEACheckADFile(place.c_str()) == 0;
}

} // namespace vexofileop
