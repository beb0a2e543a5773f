#include "tools/engine/store/store.h"

#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/walk/descriptor.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kEaStream[] = "VexoEAStream";
constexpr uint32_t kNotFound = 0x2000;
constexpr int kCurrentLayout = 1;
constexpr size_t kPathSize = 4096;

int companion(StoreKind kind) {
    return kind == StoreKind::apple_double ? 1 : 0;
}

[[noreturn]] void throw_not_found() {
    throw Failure(fmt::format("{} ({})", reason_of(kNotFound), code_text(kNotFound)));
}

// An open attribute stream, locked; false where there is none and none is to be made.
class OpenStream {
  public:
    // `flags` as for open().
    OpenStream(const Store &store, int flags, int lock) {
        // A stream that was removed with its last attribute after it was opened here is not written to: nobody would
        // find that again.
        do {
            m_stream.reset();
            m_fd = std::make_unique<Descriptor>(
                VEXOEAOpen(kCurrentLayout, store.path().c_str(), kEaStream, flags, companion(store.kind())));
            if (m_fd->get() < 0 && errno == ENOENT && (flags & O_CREAT) == 0) {
                return;
            }
            check(m_fd->get(), "cannot open the attributes");
            m_stream.reset(VEXOEASOpen(m_fd->get(), lock));
            if (!m_stream) {
                throw_last_error("cannot read the attributes");
            }
        } while (is_removed());
    }
    explicit operator bool() const { return m_stream != nullptr; }
    VEXOEAS *get() const { return m_stream.get(); }
    const VEXOEAS *operator->() const { return m_stream.get(); }

    // Whether it holds nothing at all: no attribute, and in a "._" file neither Finder Info nor a fork nor what other
    // programs keep there.
    bool is_empty() const {
        constexpr std::array<uint8_t, sizeof m_stream->header.finderInfo> none{};
        uint32_t offset = 0;
        uint32_t length = 0;
        const bool hasFork = EASGetRForkLocation(m_stream.get(), &offset, &length) == 0 && length > 0;
        return m_stream->header.attrCount == 0 && m_stream->header.entryCount == 2 && !hasFork &&
               std::equal(none.begin(), none.end(), m_stream->header.finderInfo);
    }

  private:
    struct Close {
        void operator()(VEXOEAS *stream) const { VEXOEASClose(stream); }
    };
    bool is_removed() const {
        struct stat found {};
        return ::fstat(m_fd->get(), &found) == 0 && found.st_nlink == 0;
    }

    std::unique_ptr<Descriptor> m_fd; // outlives the stream, which does not own it
    std::unique_ptr<VEXOEAS, Close> m_stream;
};

} // namespace

Store::Store(std::string path) : m_path(std::move(path)) {
    check_there(m_path);
    const int code = VEXOGetFSType(m_path.c_str(), 1);
    check(code, "its volume cannot be looked at");
    m_kind = store_kind(code);
    if (m_kind == StoreKind::none) {
        throw Failure(fmt::format("its volume (type {}) keeps nothing beside a file", code));
    }
}

std::vector<Store::Attribute> Store::list() const {
    std::vector<Attribute> attributes;
    if (m_kind == StoreKind::native) {
        for (const std::string &name : native_names(m_path)) {
            attributes.push_back({name, native_size(m_path, name).value_or(0)});
        }
        return attributes;
    }
    forget_last_error();
    const OpenStream stream(*this, O_RDONLY, F_RDLCK);
    for (int at = 0; stream && at < stream->header.attrCount; ++at) {
        attributes.push_back({stream->records[at].name, stream->records[at].length});
    }
    return attributes;
}

std::string Store::get(const std::string &name) const {
    if (m_kind == StoreKind::native) {
        const auto value = native_value(m_path, name);
        return value ? *value : (throw_not_found(), std::string());
    }
    forget_last_error();
    const OpenStream stream(*this, O_RDONLY, F_RDLCK);
    if (!stream) {
        throw_not_found();
    }
    char none = 0;
    const int size = VEXOEASRead(stream.get(), name.c_str(), &none, 0, 0);
    check(size, "cannot read it");
    std::string value(static_cast<size_t>(size), '\0');
    if (size > 0 && VEXOEASRead(stream.get(), name.c_str(), value.data(), static_cast<uint32_t>(size), 0) != size) {
        throw_last_error("cannot read it");
    }
    return value;
}

void Store::set(const std::string &name, const std::string &value, Existing existing) const {
    if (m_kind == StoreKind::native) {
        const int flags = existing == Existing::must_not ? XATTR_CREATE
                          : existing == Existing::must   ? XATTR_REPLACE
                                                         : 0;
        set_native_value(m_path, name, value, flags);
        return;
    }
    if (value.size() > UINT32_MAX) {
        throw Failure("the value is too large");
    }
    forget_last_error();
    const OpenStream stream(*this, O_RDWR | (existing == Existing::must ? 0 : O_CREAT), F_WRLCK);
    const bool there = stream && VEXOEASSearch(stream.get(), name.c_str()) >= 0;
    if ((there && existing == Existing::must_not) || (!there && existing == Existing::must)) {
        throw Failure(there ? "the attribute exists" : "there is no such attribute");
    }
    forget_last_error();
    constexpr int kOverwrite = 1;
    // A shorter write would leave the end of a longer value.
    if (there) {
        check(VEXOEASTruncate(stream.get(), name.c_str(), 0), "cannot write it");
    }
    check(VEXOEASWrite(stream.get(), name.c_str(), value.data(), static_cast<uint32_t>(value.size()), 0, kOverwrite),
          "cannot write it");
}

void Store::remove(const std::string &name) const {
    if (m_kind == StoreKind::native) {
        remove_native(m_path, name);
        return;
    }
    forget_last_error();
    const OpenStream stream(*this, O_RDWR, F_WRLCK);
    if (!stream || VEXOEASSearch(stream.get(), name.c_str()) < 0) {
        throw_not_found();
    }
    forget_last_error();
    check(VEXOEASRemove(stream.get(), name.c_str()), "cannot remove it");
    // Under the lock, so that nobody is writing to it.
    if (stream.is_empty()) {
        const std::string place = stream_path(kEaStream);
        if (::unlink(place.c_str()) == 0) {
            (void)EARemoveEADir(place.c_str()); // Where other files have their stores in it, it stays.
        }
    }
}

std::string Store::stream_path(const char *stream) const {
    std::array<char, kPathSize> path{};
    check(VEXOEAPath(kCurrentLayout, m_path.c_str(), stream, path.data(), kPathSize - 1, companion(m_kind)),
          "its store has no path");
    return path.data();
}

} // namespace engine
