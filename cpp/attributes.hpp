// What belongs to a file beside its data: named attributes and the resource fork, wherever its volume keeps them.
//
//  - Attributes: by name, on any volume. Each call opens and closes what it needs.
//  - Stream: the attribute stream of one file, open and locked, for many changes or parts of large values.
//  - ResourceFork: something to read, write and seek in.
//
// A change is made in place, as by the C functions (ea.h): what refuses it leaves everything as it was, but a process
// that is killed in the middle of one can leave a damaged stream. Locks are fcntl's and are never waited for:
// Code::locked. They are between processes, and a process loses one when it closes any descriptor of the same file: one
// object for a file at a time. Making a store needs root, which makes "@eaDir" for everybody to write in.
#pragma once

#include "cpp/result.hpp"
#include "ea/ea.h"
#include "platform/sdk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace vexofileop {

// The ways in which volumes keep what belongs to a file.
enum class StoreKind {
    apple_double, // a "._" file beside the file
    native,       // the file's own attributes
    ea_directory, // files in "@eaDir"
    file_ea,      // those, and an attribute with Finder Info
    none,         // not at all
};

// The kind of a volume, by the type code that VEXOGetFSType (platform/sdk.h) gives.
constexpr StoreKind store_kind(int volumeType) noexcept {
    switch (volumeType) {
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

// The kind of the volume that holds `path`, which has to be there. Errors: errno of the look-up.
inline Result<StoreKind> store_kind_of(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("look at the volume of", path);
    }
    detail::forget();
    const int type = VEXOGetFSType(place.c_str(), 1);
    if (type < 0) {
        return Error::last("look at the volume of", path);
    }
    return store_kind(type);
}

// What a stream or fork is opened for.
enum class Access {
    read,   // one that is there, with a lock that readers share
    write,  // one that is there, with a lock of its own
    create, // the same, made empty where it is not there
};

// The name of an attribute: a text without a NUL inside (such a one is refused with Code::invalid_argument). Borrows it
// for the call.
class AttributeName {
  public:
    AttributeName(const char *name) noexcept : m_name(name) {} // NOLINT(google-explicit-constructor)
    AttributeName(const std::string &name) noexcept            // NOLINT(google-explicit-constructor)
        : m_name(name.find('\0') == std::string::npos ? name.c_str() : nullptr) {}
    // Null for a name that is none.
    const char *c_str() const noexcept { return m_name; }

  private:
    const char *m_name;
};

namespace detail {

constexpr char kAttributeStream[] = "VexoEAStream";
constexpr char kResourceStream[] = "VexoResource";
constexpr char kResourceForkName[] = "com.apple.ResourceFork";
constexpr std::size_t kLargestValue = INT_MAX;

class Descriptor {
  public:
    explicit Descriptor(int fd = -1) noexcept : m_fd(fd) {}
    Descriptor(Descriptor &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor() {
        if (m_fd >= 0) {
            (void)::close(m_fd);
        }
    }
    int get() const noexcept { return m_fd; }

  private:
    int m_fd;
};

struct CloseStream {
    void operator()(VEXOEAS *stream) const noexcept { (void)VEXOEASClose(stream); }
};
struct FreeList {
    void operator()(VLIBCSzList *list) const noexcept { VLIBCSzListFree(list); }
};

// A stream file and the handle on it, which holds the lock.
struct OpenStore {
    Descriptor file; // outlives the handle, which borrows it
    std::unique_ptr<VEXOEAS, CloseStream> stream;
    std::filesystem::path path; // what it belongs to

    OpenStore(Descriptor opened, std::unique_ptr<VEXOEAS, CloseStream> handle, std::filesystem::path of)
        : file(std::move(opened)), stream(std::move(handle)), path(std::move(of)) {}
    OpenStore(OpenStore &&) = default;
    OpenStore &operator=(OpenStore &&other) noexcept {
        stream = std::move(other.stream); // the old handle before its descriptor
        file = std::move(other.file);
        path = std::move(other.path);
        return *this;
    }
};

inline Result<OpenStore> open_store(const std::filesystem::path &path, StoreKind kind, const char *stream,
                                    Access access) {
    constexpr int currentLayout = 1;
    constexpr int attempts = 16;
    const char *const doing = access == Access::read ? "read the store of" : "change the store of";
    const PathArgument place(path);
    if (!place) {
        return bad_path(doing, path);
    }
    if (kind == StoreKind::none || kind == StoreKind::native) {
        return Error(Code::none, EOPNOTSUPP, doing, path);
    }
    const int flags =
        (access == Access::read ? O_RDONLY : O_RDWR) | (access == Access::create ? O_CREAT : 0) | O_CLOEXEC;
    // One that somebody replaces or removes before the lock is there is not what anybody else sees.
    for (int attempt = 0; attempt < attempts; ++attempt) {
        forget();
        Descriptor file(
            VEXOEAOpen(currentLayout, place.c_str(), stream, flags, kind == StoreKind::apple_double ? 1 : 0));
        if (file.get() < 0) {
            return Error::last(doing, path);
        }
        std::unique_ptr<VEXOEAS, CloseStream> handle(
            VEXOEASOpen(file.get(), access == Access::read ? F_RDLCK : F_WRLCK));
        struct stat found {};
        if (!handle || ::fstat(file.get(), &found) != 0) {
            return Error::last(doing, path);
        }
        if (found.st_nlink > 0) {
            return OpenStore(std::move(file), std::move(handle), path);
        }
    }
    return Error(Code::locked, EBUSY, doing, path);
}

} // namespace detail

// An attribute of a stream: its name, owned by the stream until its next change, and the length of its value in bytes.
struct Attribute {
    std::string_view name;
    std::uint32_t size;
};

// The attribute stream of one file, open and locked. On a volume of StoreKind::native there is none: use Attributes.
//
//     auto stream = vexofileop::Stream::open("/volume1/photo/a.jpg", vexofileop::Access::create).value();
//     stream.set("comment", "sunset").value();
//     for (const vexofileop::Attribute attribute : stream) ...
//
// Any change ends iterators and what they gave. One stream belongs to one thread. A stream that was moved from may be
// assigned to or destroyed, and nothing else.
class Stream {
  public:
    // Opens the stream of `path`. Errors: Code::none with ENOENT where there is none (is_missing()), with EOPNOTSUPP
    // where the volume keeps none, and with what errno VEXOEAOpen gave; Code::locked; Code::read for a malformed one;
    // those of VEXOEAOpen and VEXOEASOpen in ea.h. Opening for a change sets the file's archive bit, and with
    // Access::create "@eaDir" is made; a stream that is made is an empty file until something is set.
    static Result<Stream> open(const std::filesystem::path &path, Access access) {
        const Result<StoreKind> kind = store_kind_of(path);
        return kind ? open(path, access, *kind) : Result<Stream>(kind.error());
    }
    // The same where the kind of the volume is known.
    static Result<Stream> open(const std::filesystem::path &path, Access access, StoreKind kind) {
        Result<detail::OpenStore> opened = detail::open_store(path, kind, detail::kAttributeStream, access);
        return opened ? Result<Stream>(Stream(std::move(*opened))) : Result<Stream>(opened.error());
    }

    // Walks over the attributes in the order of the file. Where a damaged file has a name twice, both come.
    class Iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Attribute;
        using difference_type = std::ptrdiff_t;
        using pointer = const Attribute *;
        using reference = Attribute;

        explicit Iterator(const VEXOEASRecord *record = nullptr) noexcept : m_record(record) {}
        Attribute operator*() const noexcept { return {m_record->name, m_record->length}; }
        Iterator &operator++() noexcept {
            ++m_record;
            return *this;
        }
        Iterator operator++(int) noexcept { return Iterator(m_record++); }
        bool operator==(const Iterator &other) const noexcept { return m_record == other.m_record; }
        bool operator!=(const Iterator &other) const noexcept { return m_record != other.m_record; }

      private:
        const VEXOEASRecord *m_record;
    };
    Iterator begin() const noexcept { return Iterator(handle()->records); }
    Iterator end() const noexcept { return Iterator(handle()->records + size()); }
    std::size_t size() const noexcept { return handle()->header.attrCount; }
    bool empty() const noexcept { return size() == 0; }
    bool contains(AttributeName name) const noexcept { return find(name) >= 0; }

    // A whole value. Errors: Code::attribute_missing, Code::read, Code::out_of_memory.
    Result<std::string> get(AttributeName name) const {
        const int at = find(name);
        if (at < 0) {
            return failed("read an attribute of");
        }
        std::string value(handle()->records[at].length, '\0');
        Result<std::size_t> got = read(name, value.data(), value.size(), 0);
        if (!got) {
            return got.error();
        }
        value.resize(*got);
        return value;
    }
    // At most `size` bytes of a value from `offset` on. Gives how many; 0 at and behind its end. Errors: as get().
    Result<std::size_t> read(AttributeName name, void *buffer, std::size_t size, std::uint32_t offset) const {
        detail::forget();
        if (size == 0) { // which asks the C function for the length
            return find(name) < 0 ? Result<std::size_t>(failed("read an attribute of")) : std::size_t(0);
        }
        const int got = VEXOEASRead(handle(), name.c_str(), buffer,
                                    static_cast<std::uint32_t>(std::min(size, detail::kLargestValue)), offset);
        return got < 0 ? Result<std::size_t>(failed("read an attribute of")) : static_cast<std::size_t>(got);
    }
    // Gives an attribute exactly this value; it becomes the last one. Errors: those of VEXOEASWrite in ea.h, with the
    // old value in place; where the volume refuses to put it back as well (which takes no more room than there was) the
    // attribute is missing.
    Result<void> set(AttributeName name, std::string_view value) {
        const int at = find(name);
        if (at < 0 || handle()->records[at].length <= value.size()) {
            return write(name, value, 0);
        }
        // A write makes no value shorter, and to cut one would leave a resource fork in the wrong place.
        Result<std::string> old = get(name);
        if (!old) {
            return old.error();
        }
        Result<bool> removed = remove(name);
        Result<void> written = removed ? write(name, value, 0) : Result<void>(removed.error());
        if (!written && !contains(name)) {
            (void)write(name, *old, 0).has_value();
        }
        return written;
    }
    // Writes over a value from `offset` on, which grows as needed, zeros in a gap; an attribute that is missing is
    // made. It becomes the last one. Errors: those of VEXOEASWrite in ea.h; nothing has changed then.
    Result<void> write(AttributeName name, std::string_view data, std::uint32_t offset) {
        constexpr int mayExist = 1;
        if (data.size() > detail::kLargestValue) {
            return Error(Code::invalid_argument, EFBIG, "set an attribute of", m_store.path);
        }
        detail::forget();
        const int written = VEXOEASWrite(handle(), name.c_str(), data.empty() ? "" : data.data(),
                                         static_cast<std::uint32_t>(data.size()), offset, mayExist);
        return written < 0 ? Result<void>(failed("set an attribute of")) : Result<void>();
    }
    // Removes an attribute, one of its name that it hid too. Gives whether there was one. Errors: those of
    // VEXOEASRemove in ea.h.
    Result<bool> remove(AttributeName name) {
        bool found = false;
        while (find(name) >= 0) {
            found = true;
            detail::forget();
            if (VEXOEASRemove(handle(), name.c_str()) != 0) {
                return failed("remove an attribute of");
            }
        }
        return name.c_str() == nullptr ? Result<bool>(failed("remove an attribute of")) : found;
    }
    // Makes the changes durable. Errors: Code::file_operation.
    Result<void> sync() {
        detail::forget();
        return detail::checked(VEXOEASFlush(handle()), "sync the store of", m_store.path);
    }

    // The C handle, which stays the stream's.
    VEXOEAS *handle() const noexcept { return m_store.stream.get(); }
    const std::filesystem::path &path() const noexcept { return m_store.path; }

  private:
    explicit Stream(detail::OpenStore store) : m_store(std::move(store)) {}
    int find(AttributeName name) const noexcept {
        detail::forget();
        return VEXOEASSearch(handle(), name.c_str());
    }
    Error failed(const char *doing) const { return Error::last(doing, m_store.path); }

    detail::OpenStore m_store;
};

// The named attributes of a file, on any volume that keeps some. On StoreKind::native names are complete, with their
// namespace, and are those of the file system; Finder Info is among them, the resource fork is not.
class Attributes {
  public:
    // Looks at the file's volume; nothing is opened. Errors: errno of the look-up; Code::none with EOPNOTSUPP where the
    // volume keeps nothing.
    static Result<Attributes> of(const std::filesystem::path &path) {
        Result<StoreKind> kind = store_kind_of(path);
        if (!kind) {
            return kind.error();
        }
        if (*kind == StoreKind::none) {
            return Error(Code::none, EOPNOTSUPP, "look for attributes of", path);
        }
        std::error_code failed;
        auto place = std::filesystem::absolute(path, failed);
        return failed ? Result<Attributes>(Error(Code::none, failed.value(), "look for attributes of", path))
                      : Result<Attributes>(Attributes(std::move(place), *kind));
    }
    StoreKind kind() const noexcept { return m_kind; }
    const std::filesystem::path &path() const noexcept { return m_path; }

    // The names, in the order that they are kept in; none where there is no store. Errors: those of Stream::open, or of
    // VEXOEAXattrEnum in ea.h.
    Result<std::vector<std::string>> names() const {
        if (m_kind == StoreKind::native) {
            return native_names();
        }
        std::vector<std::string> found;
        Result<Stream> stream = open(Access::read);
        if (!stream) {
            return stream.error().is_missing() ? Result<std::vector<std::string>>(std::move(found)) : stream.error();
        }
        for (const Attribute attribute : *stream) {
            if (std::find(found.begin(), found.end(), attribute.name) == found.end()) {
                found.emplace_back(attribute.name);
            }
        }
        return found;
    }
    // A value. Errors: is_missing() where there is no such attribute; those of Stream::open and Stream::get, or of
    // VEXOEAXattrGet.
    Result<std::string> get(AttributeName name) const {
        if (m_kind == StoreKind::native) {
            return native_value(m_path, name);
        }
        Result<Stream> stream = open(Access::read);
        return stream ? stream->get(name) : Result<std::string>(stream.error());
    }
    // Gives an attribute exactly this value, and makes it and the store where they are missing. Errors: those of
    // Stream::open and Stream::set, or of VEXOEAXattrSet.
    Result<void> set(AttributeName name, std::string_view value) const {
        if (m_kind == StoreKind::native) {
            return set_native(m_path, name, value);
        }
        Result<Stream> stream = open(Access::create);
        return stream ? stream->set(name, value) : Result<void>(stream.error());
    }
    // Gives whether there was one. The store stays, also one that holds nothing any more. Errors: those of Stream::open
    // and Stream::remove, or of VEXOEAXattrRemove.
    Result<bool> remove(AttributeName name) const {
        if (m_kind == StoreKind::native) {
            detail::forget();
            if (VEXOEAXattrRemove(m_path.c_str(), name.c_str()) == 0) {
                return true;
            }
            Error error = Error::last("remove an attribute of", m_path);
            return error.is_missing() ? Result<bool>(false) : Result<bool>(std::move(error));
        }
        Result<Stream> stream = open(Access::write);
        if (!stream) {
            return stream.error().is_missing() ? Result<bool>(false) : Result<bool>(stream.error());
        }
        return stream->remove(name);
    }

  private:
    friend class ResourceFork;
    Attributes(std::filesystem::path path, StoreKind kind) : m_path(std::move(path)), m_kind(kind) {}
    Result<Stream> open(Access access) const { return Stream::open(m_path, access, m_kind); }

    Result<std::vector<std::string>> native_names() const {
        constexpr int few = 16;
        detail::forget();
        VLIBCSzList *list = VLIBCSzListAlloc(few);
        const int result = list == nullptr ? -1 : VEXOEAXattrEnum(m_path.c_str(), &list);
        if (result < 0) {
            Error error = Error::last("list the attributes of", m_path);
            VLIBCSzListFree(list);
            return error;
        }
        const std::unique_ptr<VLIBCSzList, detail::FreeList> owner(list);
        return std::vector<std::string>(list->items, list->items + list->count);
    }
    static Result<std::string> native_value(const std::filesystem::path &path, AttributeName name) {
        detail::forget();
        for (;;) {
            const int size = VEXOEAXattrGet(path.c_str(), name.c_str(), nullptr, 0);
            std::string value(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
            const int got = size > 0 ? VEXOEAXattrGet(path.c_str(), name.c_str(), value.data(), size) : size;
            if (got >= 0) {
                value.resize(static_cast<std::size_t>(got));
                return value;
            }
            if (size < 0 || errno != ERANGE) { // it grew meanwhile
                return Error::last("read an attribute of", path);
            }
        }
    }
    static Result<void> set_native(const std::filesystem::path &path, AttributeName name, std::string_view value) {
        if (value.size() > detail::kLargestValue) {
            return Error(Code::invalid_argument, EFBIG, "set an attribute of", path);
        }
        detail::forget();
        return detail::checked(VEXOEAXattrSet(path.c_str(), name.c_str(), value.empty() ? "" : value.data(),
                                              static_cast<int>(value.size()), 0),
                               "set an attribute of", path);
    }

    std::filesystem::path m_path;
    StoreKind m_kind;
};

// The resource fork of a file, open, with a position like that of a file.
//
// In a store that lies in a file the fork is read and written in place, under the lock of that file: bytes are written
// before the header says that they are there, so that a kill leaves the old fork or the new one where it grew, and what
// was written so far where it was written over. On StoreKind::native the fork is held in memory, and each change
// writes all of it (one that fails may leave it empty or in part, which the next change that succeeds mends).
class ResourceFork {
  public:
    // Opens the fork of `path`. Errors: is_missing() where there is no store (Access::read, Access::write), or no fork
    // on StoreKind::native; those of Stream::open; Code::upgrade_format for a store that has no place for a fork.
    // Access::create makes what is missing; an empty fork counts as none to everybody else.
    static Result<ResourceFork> open(const std::filesystem::path &path, Access access) {
        Result<Attributes> file = Attributes::of(path);
        if (!file) {
            return file.error();
        }
        if (file->kind() == StoreKind::native) {
            Result<std::string> fork = Attributes::native_value(file->path(), detail::kResourceForkName);
            if (!fork && !(access == Access::create && fork.error().is_missing())) {
                return fork.error();
            }
            return ResourceFork(file->path(), access, fork ? std::move(*fork) : std::string());
        }
        const bool together = file->kind() == StoreKind::apple_double; // with the attributes
        Result<detail::OpenStore> opened = detail::open_store(
            file->path(), file->kind(), together ? detail::kAttributeStream : detail::kResourceStream, access);
        if (!opened) {
            return opened.error();
        }
        ResourceFork fork(std::move(*opened), access);
        Result<void> found = fork.locate();
        return found ? Result<ResourceFork>(std::move(fork)) : Result<ResourceFork>(found.error());
    }

    // In bytes.
    std::uint64_t size() const noexcept { return m_store ? m_length : m_held.size(); }
    std::uint64_t tell() const noexcept { return m_position; }
    // Any position; what is written behind the end leaves zeros before it.
    void seek(std::uint64_t position) noexcept { m_position = position; }

    // At most `size` bytes from the position on, which moves behind them. Gives how many; 0 at and behind the end.
    // Errors: Code::read, also for a store that ends before its fork does.
    Result<std::size_t> read(void *buffer, std::size_t size) {
        if (m_position >= this->size()) {
            return std::size_t(0);
        }
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(size, this->size() - m_position));
        if (!m_store) {
            std::memcpy(buffer, m_held.data() + m_position, part);
        } else if (!read_at(static_cast<char *>(buffer), part, m_offset + m_position)) {
            return Error(Code::read, errno, "read the resource fork of", m_path);
        }
        m_position += part;
        return part;
    }
    // All of it, wherever the position is. Errors: as read().
    Result<std::string> read_all() {
        std::string all(static_cast<std::size_t>(size()), '\0');
        const std::uint64_t position = std::exchange(m_position, 0);
        Result<std::size_t> got = read(all.data(), all.size());
        m_position = position;
        return got ? Result<std::string>(std::move(all)) : Result<std::string>(got.error());
    }
    // Writes all of `data` at the position, which moves behind it. Errors: Code::permission for one opened to read;
    // Code::too_large for a fork whose end does not fit the store (4 GiB; 2 GiB on StoreKind::native); Code::no_space,
    // Code::quota, Code::write; Code::upgrade_format where something else lies behind the fork, so that it cannot grow.
    // A fork that could not grow is as it was.
    Result<void> write(std::string_view data) {
        const std::uint64_t end = m_position + data.size();
        if (!m_writes) {
            return Error(Code::permission, EBADF, kWriting, m_path);
        }
        if (data.empty()) {
            return {};
        }
        if (m_position > kLargestEnd || end > largest()) {
            return Error(Code::too_large, EFBIG, kWriting, m_path);
        }
        Result<void> written = m_store ? write_in_place(data, end) : write_native(data, end);
        if (written) {
            m_position = end;
        }
        return written;
    }
    // Cuts or lengthens the fork to `length` bytes, zeros behind its end; the position stays. Errors: as write().
    Result<void> truncate(std::uint64_t length) {
        if (!m_writes) {
            return Error(Code::permission, EBADF, kWriting, m_path);
        }
        if (length > largest()) {
            return Error(Code::too_large, EFBIG, kWriting, m_path);
        }
        if (!m_store) {
            return commit(std::string(m_held)
                              .append(length > m_held.size() ? length - m_held.size() : 0, '\0')
                              .substr(0, static_cast<std::size_t>(length)));
        }
        return length == m_length ? Result<void>() : length < m_length ? shrink(length) : grow(length, {}, length);
    }
    // Makes what was written durable. Errors: Code::file_operation.
    Result<void> sync() {
        detail::forget();
        return m_store ? detail::checked(VEXOEASFlush(m_store->stream.get()), "sync the resource fork of", m_path)
                       : Result<void>();
    }

  private:
    static constexpr char kWriting[] = "write the resource fork of";
    static constexpr std::uint64_t kLargestEnd = UINT32_MAX;
    static constexpr std::size_t kEntries = 26, kEntrySize = 12, kMostEntries = 13;
    static constexpr std::uint32_t kForkId = 2;

    ResourceFork(std::filesystem::path path, Access access, std::string held)
        : m_path(std::move(path)), m_writes(access != Access::read), m_held(std::move(held)) {}
    ResourceFork(detail::OpenStore store, Access access)
        : m_path(store.path), m_writes(access != Access::read),
          m_store(std::make_unique<detail::OpenStore>(std::move(store))) {}

    std::uint64_t largest() const noexcept { return m_store ? kLargestEnd - m_offset : detail::kLargestValue; }
    int fd() const noexcept { return m_store->file.get(); }

    static std::uint32_t number_at(const unsigned char *bytes) noexcept {
        return std::uint32_t(bytes[0]) << 24 | std::uint32_t(bytes[1]) << 16 | std::uint32_t(bytes[2]) << 8 | bytes[3];
    }
    // errno is 0 where the file ends early.
    bool read_at(char *buffer, std::size_t size, std::uint64_t offset) const noexcept {
        while (size > 0) {
            errno = 0;
            const ssize_t got = ::pread(fd(), buffer, size, static_cast<off_t>(offset));
            if (got <= 0) {
                if (got < 0 && errno == EINTR) {
                    continue;
                }
                return false;
            }
            buffer += got;
            size -= static_cast<std::size_t>(got);
            offset += static_cast<std::uint64_t>(got);
        }
        return true;
    }
    bool write_at(const char *data, std::size_t size, std::uint64_t offset) const noexcept {
        while (size > 0) {
            const ssize_t put = ::pwrite(fd(), data, size, static_cast<off_t>(offset));
            if (put < 0 && errno != EINTR) {
                return false;
            }
            if (put > 0) {
                data += put;
                size -= static_cast<std::size_t>(put);
                offset += static_cast<std::uint64_t>(put);
            }
        }
        return true;
    }
    Error write_error() const {
        const int number = errno;
        const Code code = number == ENOSPC   ? Code::no_space
                          : number == EDQUOT ? Code::quota
                          : number == EFBIG  ? Code::too_large
                                             : Code::write;
        return {code, number, kWriting, m_path};
    }

    // Finds the fork by the header. A new store gets one: Finder Info of zeros, and an empty fork.
    Result<void> locate() {
        static constexpr char fresh[] = "\0\5\26\7\0\2\0\0Mac OS X        \0\2"
                                        "\0\0\0\11\0\0\0\62\0\0\0\40\0\0\0\2\0\0\0\122\0\0\0";
        std::array<char, 82> header{};
        std::memcpy(header.data(), fresh, sizeof fresh);
        struct stat found {};
        if (::fstat(fd(), &found) != 0) {
            return Error(Code::stat, errno, "read the resource fork of", m_path);
        }
        if (found.st_size == 0) {
            if (!m_writes) {
                return Error(Code::none, ENODATA, "read the resource fork of", m_path);
            }
            if (!write_at(header.data(), header.size(), 0)) {
                Error error = write_error();
                (void)!::ftruncate(fd(), 0);
                return error;
            }
        }
        return parse();
    }
    Result<void> parse() {
        std::array<unsigned char, kEntries + kEntrySize * kMostEntries> bytes{};
        ssize_t got = 0;
        do {
            got = ::pread(fd(), bytes.data(), bytes.size(), 0);
        } while (got < 0 && errno == EINTR);
        if (got < static_cast<ssize_t>(kEntries)) {
            return Error(Code::read, got < 0 ? errno : 0, "read the resource fork of", m_path);
        }
        const std::size_t entries = std::size_t(bytes[24]) << 8 | bytes[25];
        if (entries > kMostEntries || kEntries + entries * kEntrySize > static_cast<std::size_t>(got)) {
            return Error(Code::read, 0, "read the resource fork of", m_path);
        }
        std::uint64_t others = kEntries + entries * kEntrySize; // where everything else ends
        for (std::size_t at = 0; at < entries; ++at) {
            const unsigned char *entry = bytes.data() + kEntries + at * kEntrySize;
            const std::uint32_t offset = number_at(entry + 4);
            const std::uint32_t length = number_at(entry + 8);
            if (number_at(entry) != kForkId) {
                others = std::max(others, std::uint64_t(offset) + length);
                continue;
            }
            m_place = kEntries + at * kEntrySize;
            m_offset = offset;
            m_length = length;
        }
        if (m_place == 0) {
            return Error(Code::upgrade_format, 0, "read the resource fork of", m_path);
        }
        if (m_length == 0 && m_offset < others) {
            m_offset = others;
        }
        m_isLast = m_offset >= others;
        m_isApart = m_isLast || is_apart(bytes.data(), entries);
        return {};
    }
    // Whether the fork shares no byte with the header or another entry.
    bool is_apart(const unsigned char *bytes, std::size_t entries) const noexcept {
        bool apart = m_offset >= kEntries + entries * kEntrySize;
        for (std::size_t at = 0; at < entries; ++at) {
            const unsigned char *entry = bytes + kEntries + at * kEntrySize;
            const std::uint64_t from = number_at(entry + 4);
            const std::uint64_t to = from + number_at(entry + 8);
            apart = apart && (number_at(entry) == kForkId || to <= m_offset || from >= m_offset + m_length);
        }
        return apart;
    }

    Result<void> write_in_place(std::string_view data, std::uint64_t end) {
        if (end > m_length) {
            return grow(m_position, data, end);
        }
        if (!m_isApart) {
            return Error(Code::upgrade_format, 0, kWriting, m_path);
        }
        return write_at(data.data(), data.size(), m_offset + m_position) ? Result<void>() : write_error();
    }
    // Up to `end`, with `data` at `position`: what is behind the old end first, so that a full volume changes nothing.
    Result<void> grow(std::uint64_t position, std::string_view data, std::uint64_t end) {
        if (!m_isLast) {
            return Error(Code::upgrade_format, 0, kWriting, m_path);
        }
        struct stat found {};
        if (::fstat(fd(), &found) != 0 || static_cast<std::uint64_t>(found.st_size) < m_offset + m_length) {
            return Error(Code::read, 0, kWriting, m_path); // its end is lost, and zeros are not it
        }
        const std::uint64_t before = m_length;
        const auto inside = position < before ? static_cast<std::size_t>(before - position) : 0;
        const std::string_view behind = data.substr(inside);
        const std::uint64_t from = std::max(position, before);
        // Nothing of what lay behind the fork comes to light in it.
        if (::ftruncate(fd(), static_cast<off_t>(m_offset + before)) != 0 ||
            ::ftruncate(fd(), static_cast<off_t>(m_offset + end)) != 0 ||
            !write_at(behind.data(), behind.size(), m_offset + from) || !write_length(end)) {
            Error error = write_error();
            (void)write_length(before);
            (void)!::ftruncate(fd(), static_cast<off_t>(m_offset + before));
            return error;
        }
        m_length = static_cast<std::uint32_t>(end);
        return write_at(data.data(), data.size() - behind.size(), m_offset + position) ? Result<void>() : write_error();
    }
    Result<void> shrink(std::uint64_t length) {
        if (!write_length(length)) {
            Error error = write_error();
            (void)write_length(m_length);
            return error;
        }
        m_length = static_cast<std::uint32_t>(length);
        // Only room is lost where this is refused: nobody reads behind the length.
        if (m_isLast) {
            (void)!::ftruncate(fd(), static_cast<off_t>(m_offset + length));
        }
        return {};
    }
    // The fork's entry in the header: offset and length, as eight bytes at once.
    bool write_length(std::uint64_t length) const noexcept {
        std::array<char, 8> entry{};
        for (std::size_t at = 0; at < 4; ++at) {
            const auto shift = static_cast<unsigned>(24 - 8 * at);
            entry[at] = static_cast<char>(static_cast<unsigned char>(m_offset >> shift));
            entry[at + 4] = static_cast<char>(static_cast<unsigned char>(length >> shift));
        }
        return write_at(entry.data(), entry.size(), m_place + 4);
    }

    Result<void> write_native(std::string_view data, std::uint64_t end) {
        std::string fork = m_held;
        fork.resize(std::max(fork.size(), static_cast<std::size_t>(end)));
        std::copy(data.begin(), data.end(), fork.begin() + static_cast<std::ptrdiff_t>(m_position));
        return commit(std::move(fork));
    }
    Result<void> commit(std::string fork) {
        Result<void> stored = Attributes::set_native(m_path, detail::kResourceForkName, fork);
        if (stored) {
            m_held = std::move(fork);
        }
        return stored;
    }

    std::filesystem::path m_path;
    bool m_writes;
    std::string m_held;                         // StoreKind::native
    std::unique_ptr<detail::OpenStore> m_store; // the others
    std::uint64_t m_place = 0, m_offset = 0, m_length = 0, m_position = 0;
    bool m_isLast = false, m_isApart = false;
};

// Moves what belongs to a file that the caller has renamed. Errors: those of VEXOEARename in ea.h; what could be moved
// was.
inline Result<void> rename_store(const std::filesystem::path &from, const std::filesystem::path &to) {
    const detail::PathArgument old(from);
    const detail::PathArgument now(to);
    if (!old || !now) {
        return detail::bad_path("rename the store of", old ? to : from);
    }
    detail::forget();
    return detail::checked(VEXOEARename(old.c_str(), now.c_str(), -1, 0), "rename the store of", from);
}

// Copies what belongs to a file to another, whose data the caller has written. Errors: those of VEXOEACopy in ea.h.
inline Result<void> copy_store(const std::filesystem::path &from, const std::filesystem::path &to) {
    const detail::PathArgument source(from);
    const detail::PathArgument destination(to);
    if (!source || !destination) {
        return detail::bad_path("copy the store of", source ? to : from);
    }
    detail::forget();
    return detail::checked(VEXOEACopy(source.c_str(), destination.c_str(), 0, 0, -1, -1, 0, 0), "copy the store of",
                           from);
}

// Removes what belongs to a file that the caller has removed. Errors: those of VEXOEARemove in ea.h.
inline Result<void> remove_store(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("remove the store of", path);
    }
    detail::forget();
    return detail::checked(VEXOEARemove(place.c_str(), -1), "remove the store of", path);
}

} // namespace vexofileop
