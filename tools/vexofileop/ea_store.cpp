#include "tools/vexofileop/ea_store.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/vexofileop/apple_double.h"
#include "tools/vexofileop/error_table.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tool {
namespace {

constexpr char kEaStream[] = "VexoEAStream";
constexpr char kResource[] = "VexoResource";
constexpr char kFinderInfoName[] = "com.apple.FinderInfo";
constexpr char kResourceForkName[] = "com.apple.ResourceFork";
constexpr char kMetadataName[] = "user.netatalk.Metadata";
constexpr int kCurrentLayout = 1;
constexpr size_t kPathSize = 4096;
constexpr size_t kLargestStoreFile = size_t{1} << 30;

[[noreturn]] void failed(const std::string &what) {
    const int number = errno;
    const uint32_t code = VLIBCErrGet();
    throw StoreError(code != 0 ? fmt::format("{}: {} ({})", what, reason_of(code), code_text(code))
                               : fmt::format("{}: {}", what, std::strerror(number)));
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    int get() const { return m_fd; }

  private:
    int m_fd;
};

struct CloseStream {
    void operator()(VEXOEAS *stream) const { VEXOEASClose(stream); }
};
using Stream = std::unique_ptr<VEXOEAS, CloseStream>;

struct FreeList {
    void operator()(VLIBCSzList *list) const { VLIBCSzListFree(list); }
};

int companion(StoreKind kind) {
    return kind == StoreKind::apple_double ? 1 : 0;
}

// An open attribute stream; without a handle where there is none and none is to be made.
struct OpenStream {
    Descriptor fd;
    Stream stream;

    OpenStream(const Store &store, int flags, int lock)
        : fd(VEXOEAOpen(kCurrentLayout, store.path().c_str(), kEaStream, flags, companion(store.kind()))) {
        if (fd.get() < 0) {
            if (errno == ENOENT && (flags & O_CREAT) == 0) {
                return;
            }
            failed("cannot open the attributes");
        }
        stream.reset(VEXOEASOpen(fd.get(), lock));
        if (!stream) {
            failed("cannot read the attributes");
        }
    }
};

std::vector<std::string> native_names(const std::string &path) {
    const std::unique_ptr<VLIBCSzList, FreeList> owner(VLIBCSzListAlloc(16));
    VLIBCSzList *list = owner.get();
    if (list == nullptr || VEXOEAXattrEnum(path.c_str(), &list) < 0) {
        failed("cannot list the attributes");
    }
    std::vector<std::string> names;
    for (int at = 0; at < list->count; ++at) {
        names.emplace_back(VLIBCSzListGet(list, at));
    }
    return names;
}

std::string native_value(const std::string &path, const std::string &name, bool *found) {
    const int size = VEXOEAXattrGet(path.c_str(), name.c_str(), nullptr, 0);
    *found = size >= 0;
    if (size <= 0) {
        return {};
    }
    std::string value(static_cast<size_t>(size), '\0');
    const int got = VEXOEAXattrGet(path.c_str(), name.c_str(), value.data(), size);
    *found = got >= 0;
    value.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return value;
}

bool exists(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0;
}

bool all_zero(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == '\0'; });
}

} // namespace

StoreKind store_kind(int typeCode) {
    switch (typeCode) {
    case 0:
    case 5:
    case 18:
        return StoreKind::apple_double;
    case 7:
        return StoreKind::native;
    case 1:
    case 6:
    case 10:
    case 19:
    case 22:
        return StoreKind::ea_directory;
    case 2:
    case 3:
        return StoreKind::file_ea;
    default:
        return StoreKind::none;
    }
}

const char *kind_text(StoreKind kind) {
    switch (kind) {
    case StoreKind::apple_double:
        return "a \"._\" file";
    case StoreKind::native:
        return "the file's own attributes";
    case StoreKind::ea_directory:
        return "\"@eaDir\"";
    case StoreKind::file_ea:
        return "\"@eaDir\" and a metadata attribute";
    case StoreKind::none:
        break;
    }
    return "nothing";
}

Store::Store(std::string path) : m_path(std::move(path)) {
    VLIBCErrSetEx(0, "", 0);
    if (!exists(m_path)) {
        failed("cannot be looked at");
    }
    const int code = VEXOGetFSType(m_path.c_str(), 1);
    if (code < 0) {
        failed("its volume cannot be looked at");
    }
    m_kind = store_kind(code);
    if (m_kind == StoreKind::none) {
        throw StoreError(fmt::format("its volume (type {}) keeps nothing beside a file", code));
    }
}

std::vector<Store::Attribute> Store::list() const {
    std::vector<Attribute> attributes;
    if (m_kind == StoreKind::native) {
        for (const std::string &name : native_names(m_path)) {
            const int size = VEXOEAXattrGet(m_path.c_str(), name.c_str(), nullptr, 0);
            attributes.push_back({name, size < 0 ? 0 : static_cast<uint64_t>(size)});
        }
        return attributes;
    }
    const OpenStream open(*this, O_RDONLY, F_RDLCK);
    for (int at = 0; open.stream && at < open.stream->header.attrCount; ++at) {
        attributes.push_back({open.stream->records[at].name, open.stream->records[at].length});
    }
    return attributes;
}

std::string Store::get(const std::string &name) const {
    VLIBCErrSetEx(0, "", 0);
    if (m_kind == StoreKind::native) {
        bool found = false;
        std::string value = native_value(m_path, name, &found);
        if (!found) {
            failed("no such attribute");
        }
        return value;
    }
    const OpenStream open(*this, O_RDONLY, F_RDLCK);
    char none = 0;
    if (!open.stream) {
        throw StoreError(fmt::format("{} ({})", reason_of(0x2000), code_text(0x2000)));
    }
    const int size = VEXOEASRead(open.stream.get(), name.c_str(), &none, 0, 0);
    if (size < 0) {
        failed("cannot read it");
    }
    std::string value(static_cast<size_t>(size), '\0');
    if (size > 0 &&
        VEXOEASRead(open.stream.get(), name.c_str(), value.data(), static_cast<uint32_t>(size), 0) != size) {
        failed("cannot read it");
    }
    return value;
}

void Store::set(const std::string &name, const std::string &value, Existing existing) const {
    VLIBCErrSetEx(0, "", 0);
    if (m_kind == StoreKind::native) {
        const int flags = existing == Existing::must_not ? XATTR_CREATE
                          : existing == Existing::must   ? XATTR_REPLACE
                                                         : 0;
        if (VEXOEAXattrSet(m_path.c_str(), name.c_str(), value.c_str(), static_cast<int>(value.size()), flags) != 0) {
            failed("cannot write it");
        }
        return;
    }
    const OpenStream open(*this, O_RDWR | O_CREAT, F_WRLCK);
    const bool there = VEXOEASSearch(open.stream.get(), name.c_str()) >= 0;
    if ((there && existing == Existing::must_not) || (!there && existing == Existing::must)) {
        throw StoreError(there ? "the attribute exists" : "there is no such attribute");
    }
    VLIBCErrSetEx(0, "", 0);
    constexpr int kOverwrite = 1;
    // A shorter write would leave the end of a longer value.
    if (there && VEXOEASTruncate(open.stream.get(), name.c_str(), 0) != 0) {
        failed("cannot write it");
    }
    if (VEXOEASWrite(open.stream.get(), name.c_str(), value.data(), static_cast<uint32_t>(value.size()), 0,
                     kOverwrite) < 0) {
        failed("cannot write it");
    }
}

void Store::remove(const std::string &name) const {
    VLIBCErrSetEx(0, "", 0);
    if (m_kind == StoreKind::native) {
        if (VEXOEAXattrRemove(m_path.c_str(), name.c_str()) != 0) {
            failed("cannot remove it");
        }
        return;
    }
    const OpenStream open(*this, O_RDWR, F_WRLCK);
    if (!open.stream || VEXOEASSearch(open.stream.get(), name.c_str()) < 0) {
        throw StoreError(fmt::format("{} ({})", reason_of(0x2000), code_text(0x2000)));
    }
    if (VEXOEASRemove(open.stream.get(), name.c_str()) != 0) {
        failed("cannot remove it");
    }
}

std::string Store::stream_path(const char *stream) const {
    std::array<char, kPathSize> path{};
    if (VEXOEAPath(kCurrentLayout, m_path.c_str(), stream, path.data(), kPathSize - 1, companion(m_kind)) != 0) {
        failed("its store has no path");
    }
    return path.data();
}

Store::Metadata Store::metadata() const {
    Metadata all;
    for (const Attribute &attribute : list()) {
        if (m_kind != StoreKind::native || (attribute.name != kFinderInfoName && attribute.name != kResourceForkName)) {
            all.attributes[attribute.name] = get(attribute.name);
        }
    }
    if (m_kind == StoreKind::native) {
        bool found = false;
        all.finderInfo = native_value(m_path, kFinderInfoName, &found);
        all.fork = native_value(m_path, kResourceForkName, &found);
    } else if (const std::string resource = stream_path(kResource); exists(resource)) {
        uint64_t size = 0;
        const std::string bytes = read_store_file(resource, kLargestStoreFile, &size);
        const AppleDouble parsed = parse_apple_double(bytes, size);
        all.finderInfo = parsed.finderInfo;
        all.fork = parsed.fork(bytes);
    }
    if (m_kind == StoreKind::file_ea && all_zero(all.finderInfo)) {
        std::string value(1024, '\0');
        const ssize_t size = ::getxattr(m_path.c_str(), kMetadataName, value.data(), value.size());
        value.resize(size < 0 ? 0 : static_cast<size_t>(size));
        all.finderInfo = parse_apple_double(value, value.size()).finderInfo;
    }
    if (all_zero(all.finderInfo)) {
        all.finderInfo.clear();
    }
    VLIBCStat status{};
    if (VLIBCFileStat(m_path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) == 0) {
        const bool byMode = m_kind == StoreKind::apple_double || m_kind == StoreKind::native;
        all.locked = byMode ? (status.st.st_mode & 0222) == 0 : (status.attributes & VLIBC_ATTR_LOCKED) != 0;
    }
    return all;
}

std::string read_store_file(const std::string &path, size_t most, uint64_t *size) {
    VLIBCErrSetEx(0, "", 0);
    const Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat found {};
    if (fd.get() < 0 || ::fstat(fd.get(), &found) != 0) {
        failed("cannot open its store");
    }
    if (!S_ISREG(found.st_mode)) {
        throw StoreError("its store is no regular file");
    }
    *size = static_cast<uint64_t>(found.st_size);
    std::string bytes(std::min<size_t>(most, static_cast<size_t>(found.st_size)), '\0');
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

} // namespace tool
