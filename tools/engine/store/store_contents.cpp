#include "tools/engine/store/store_contents.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kStreamName[] = "VexoEAStream";
constexpr char kResourceName[] = "VexoResource";
// The header of a store ends here, but for one with very many attributes.
constexpr size_t kFirstBytes = size_t{64} << 10;
constexpr size_t kLongestHeader = size_t{32} << 20;
// A shorter resource file has no AFP word that the library would find; the metadata attribute always has this length.
constexpr uint64_t kResourceHeader = 741;
constexpr size_t kMetadataLength = 402;
constexpr uint32_t kComment = 4;

bool all_zero(std::string_view bytes) {
    return std::ranges::all_of(bytes, [](char byte) { return byte == '\0'; });
}

struct stat status_of(int fd) {
    struct stat found {};
    if (::fstat(fd, &found) != 0) {
        throw_errno("cannot look at it");
    }
    return found;
}

std::string read_bytes(int fd, uint64_t offset, uint64_t size) {
    const auto end = static_cast<uint64_t>(status_of(fd).st_size);
    if (offset > end || size > end - offset) {
        throw Failure("it is longer than what holds it");
    }
    std::string bytes(size, '\0');
    for (size_t done = 0; done < size;) {
        const ssize_t got = ::pread(fd, bytes.data() + done, size - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            throw got < 0 ? Failure(fmt::format("cannot read it: {}", std::strerror(errno)))
                          : Failure("it ends too early");
        }
        done += static_cast<size_t>(got);
    }
    return bytes;
}

// The header of a resource file and what it was read from.
AppleDouble header_of(int fd, std::string &bytes) {
    const auto size = static_cast<uint64_t>(status_of(fd).st_size);
    bytes = read_bytes(fd, 0, std::min<uint64_t>(size, kFirstBytes));
    AppleDouble header = parse_apple_double(bytes, size);
    if (!header.bad.empty() && size > kFirstBytes) {
        bytes = read_bytes(fd, 0, std::min<uint64_t>(size, kLongestHeader));
        header = parse_apple_double(bytes, size);
    }
    return header;
}

std::string part_of(const std::optional<std::string> &value, uint64_t offset, uint64_t size) {
    if (!value || offset > value->size() || size > value->size() - offset) {
        throw Failure("it became shorter meanwhile");
    }
    return value->substr(offset, size);
}

} // namespace

StoreContents::StoreContents(Place place) : m_place(std::move(place)) {
    if (m_place.kind == StoreKind::none) {
        return;
    }
    if (m_place.kind == StoreKind::native) {
        attempt([this] { read_native(); });
        return;
    }
    attempt([this] { read_resource(); });
    attempt([this] { read_stream(); });
    if (m_place.kind == StoreKind::file_ea) {
        attempt([this] { read_metadata_attribute(); });
    }
    if (all_zero(m_finderInfo)) {
        m_finderInfo.clear();
    }
}

template <typename Task>
void StoreContents::attempt(const Task &task) {
    try {
        task();
    } catch (const Failure &failure) {
        m_problems.emplace_back(failure.what());
    }
}

void StoreContents::read_native() {
    for (const std::string &name : native_names(m_place.file, !m_place.noForks)) {
        const uint64_t size = native_size(m_place.file, name).value_or(0);
        if (name == kResourceForkName) {
            m_forkSize = size;
        } else if (name != kFinderInfoName) {
            m_attributes.push_back({name, size, 0});
        }
    }
    std::ranges::sort(m_attributes, {}, &Attribute::name);
    m_finderInfo = native_value(m_place.file, kFinderInfoName).value_or("");
    if (all_zero(m_finderInfo)) {
        m_finderInfo.clear();
    }
}

// A companion, which is a regular file in a directory that is one; nothing where there is none.
StoreContents::File StoreContents::open(const char *stream) const {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const bool beside = m_place.kind == StoreKind::apple_double;
    constexpr size_t kLongestBeside = 253; // with "._" as long as a name can be
    if (beside ? m_place.name.size() > kLongestBeside : m_place.noDirectory) {
        return nullptr;
    }
    const std::string path = fmt::format("/proc/self/fd/{}/{}", m_place.directory, m_place.name);
    char place[PATH_MAX] = "";
    check(VEXOEAPath(1, path.c_str(), stream, place, sizeof place - 1, beside ? 1 : 0), "its store has no path");
    const Descriptor directory(
        beside ? ::dup(m_place.directory)
               : ::openat(m_place.directory, kStoreName, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const std::string name = base_name(place);
    // A look that leaves no trace is for the owner and for root.
    const auto opened = [&](int more) {
        return directory.get() < 0 ? -1 : ::openat(directory.get(), name.c_str(), flags | more);
    };
    auto file = std::make_unique<Descriptor>(opened(O_NOATIME));
    if (file->get() < 0 && directory.get() >= 0 && errno == EPERM) {
        *file = Descriptor(opened(0));
    }
    if (file->get() < 0) {
        // Where something else has the name of a store, there is none.
        if (errno == ENOENT || (directory.get() < 0 && (errno == ENOTDIR || errno == ELOOP))) {
            return nullptr;
        }
        throw_errno(fmt::format("cannot open {}", displayed(name)));
    }
    if (!S_ISREG(status_of(file->get()).st_mode)) {
        throw Failure(fmt::format("{} is no regular file", displayed(name)));
    }
    return file;
}

void StoreContents::read_stream() {
    const bool beside = m_place.kind == StoreKind::apple_double;
    if (!beside) {
        m_streamFile = open(kStreamName);
    }
    const File &file = beside ? m_resourceFile : m_streamFile;
    if (!file) {
        return;
    }
    forget_last_error();
    m_stream.reset(VEXOEASOpen(file->get(), F_RDLCK));
    if (!m_stream) {
        throw_last_error("cannot read the attributes");
    }
    for (int at = 0; at < m_stream->header.attrCount; ++at) {
        const VEXOEASRecord &record = m_stream->records[at];
        m_attributes.push_back({record.name, record.length, record.offset});
    }
    // Of a name that comes twice the last record counts.
    std::ranges::reverse(m_attributes);
    std::ranges::stable_sort(m_attributes, {}, &Attribute::name);
    const auto same = [](const Attribute &one, const Attribute &other) { return one.name == other.name; };
    m_attributes.erase(std::unique(m_attributes.begin(), m_attributes.end(), same), m_attributes.end());
}

void StoreContents::take_afp(const AppleDouble &header, std::string_view bytes) {
    m_afpAttributes |= std::max(header.afpAttributes, 0);
    for (const AppleDouble::Entry &entry : header.entries) {
        if (entry.id == kComment && entry.offset <= bytes.size() && entry.length <= bytes.size() - entry.offset) {
            m_comment = bytes.substr(entry.offset, entry.length);
        }
    }
}

void StoreContents::read_resource() {
    m_resourceFile = open(kResourceName);
    if (!m_resourceFile) {
        return;
    }
    const auto size = static_cast<uint64_t>(status_of(m_resourceFile->get()).st_size);
    if (size == 0) {
        return; // as one that was just made
    }
    std::string bytes;
    const AppleDouble header = header_of(m_resourceFile->get(), bytes);
    m_finderInfo = header.finderInfo;
    m_forkOffset = header.forkOffset;
    m_forkSize = header.forkLength;
    if (m_place.kind == StoreKind::ea_directory && size >= kResourceHeader) {
        take_afp(header, bytes);
    }
    if (!header.bad.empty()) {
        throw Failure(fmt::format("the resource file is malformed: {}", header.bad));
    }
}

void StoreContents::read_metadata_attribute() {
    errno = 0;
    const std::string value = metadata_attribute(m_place.file);
    if (value.empty()) {
        if (errno == ERANGE) {
            throw Failure("the metadata attribute is malformed: it is too long");
        }
        return;
    }
    const AppleDouble header = parse_apple_double(value, value.size());
    if (value.size() == kMetadataLength) {
        take_afp(header, value);
    }
    const std::string named = fmt::format("/proc/self/fd/{}/{}", m_place.directory, m_place.name);
    // The resource file follows the attribute at the next copy.
    if (all_zero(m_finderInfo) || (!header.finderInfo.empty() && EACheckNeedSync(named.c_str()) == 1)) {
        m_finderInfo = header.finderInfo;
    }
    if (!header.bad.empty()) {
        throw Failure(fmt::format("the metadata attribute is malformed: {}", header.bad));
    }
}

std::string StoreContents::value(const Attribute &attribute, uint64_t offset, uint64_t size) const {
    return m_place.kind == StoreKind::native ? part_of(native_value(m_place.file, attribute.name), offset, size)
                                             : read_bytes(m_stream->fd, attribute.offset + offset, size);
}

std::string StoreContents::fork(uint64_t offset, uint64_t size) const {
    if (size == 0) {
        return {};
    }
    return m_place.kind == StoreKind::native ? part_of(native_value(m_place.file, kResourceForkName), offset, size)
                                             : read_bytes(m_resourceFile->get(), m_forkOffset + offset, size);
}

bool is_locked(const VLIBCStat &status, StoreKind kind, bool afpLocked) {
    if (kind == StoreKind::apple_double || kind == StoreKind::native) {
        return (status.st.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
    }
    return afpLocked || (status.attributes & VLIBC_ATTR_LOCKED) != 0;
}

} // namespace engine
