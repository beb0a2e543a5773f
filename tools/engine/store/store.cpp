#include "tools/engine/store/store.h"

#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/store/stream_change.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/patience.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <linux/limits.h>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint32_t kNotFound = 0x2000;
constexpr size_t kPathSize = 4096;

int companion(StoreKind kind) {
    return kind == StoreKind::apple_double ? 1 : 0;
}

[[noreturn]] void throw_not_found() {
    throw Failure(fmt::format("{} ({})", reason_of(kNotFound), code_text(kNotFound)), kNotFound);
}

// A change that another process came in between of is made anew, on what that has left.
void unless_overtaken(const std::function<void()> &change) {
    for (Patience patience;;) {
        try {
            change();
            return;
        } catch (const Overtaken &) {
            if (!patience.wait()) {
                throw;
            }
        }
    }
}

// An open attribute stream, locked for reading; false where there is none.
class OpenStream {
  public:
    explicit OpenStream(const Store &store) {
        // One that is replaced or removed before the lock is there is not what anybody else sees.
        do {
            m_stream.reset();
            m_fd = std::make_unique<Descriptor>(
                VEXOEAOpen(kCurrentLayout, store.path().c_str(), kEaStream, O_RDONLY, companion(store.kind())));
            if (m_fd->get() < 0 && errno == ENOENT) {
                return;
            }
            check(m_fd->get(), "cannot open the attributes");
            m_stream = open_stream(m_fd->get(), F_RDLCK);
        } while (is_removed());
    }
    explicit operator bool() const { return m_stream != nullptr; }
    VEXOEAS *get() const { return m_stream.get(); }
    const VEXOEAS *operator->() const { return m_stream.get(); }

  private:
    bool is_removed() const {
        struct stat found {};
        return ::fstat(m_fd->get(), &found) == 0 && found.st_nlink == 0;
    }

    std::unique_ptr<Descriptor> m_fd; // outlives the stream, which does not own it
    StreamHandle m_stream;
};

} // namespace

// By the path as it was given, since an override of types goes by the text of paths; one that is too long is asked for
// by what is held.
int volume_type(const std::string &given, const std::string &held) {
    forget_last_error();
    int code = VEXOGetFSType(given.c_str(), 1);
    if (code < 0) {
        code = VEXOGetFSType(held.c_str(), 1);
    }
    check(code, "its volume cannot be looked at");
    return code;
}

int volume_type(const HeldEntry &entry) {
    return volume_type(entry.given(), entry.itself());
}

int volume_type_beside(const HeldEntry &entry) {
    return volume_type(parent_of(entry.given()), parent_of(entry.path()));
}

Store::Store(std::string path) : m_path(std::move(path)), m_file(m_path) {
    check_there(m_path);
    const int code = VEXOGetFSType(m_path.c_str(), 1);
    check(code, "its volume cannot be looked at");
    take_type(code);
}

Store::Store(const HeldEntry &entry) : m_path(entry.path()), m_file(entry.itself()) {
    take_type(volume_type(entry));
}

void Store::take_type(int code) {
    m_kind = store_kind(code);
    if (m_kind == StoreKind::none) {
        throw Failure(fmt::format("its volume (type {}) keeps nothing beside a file", code), 0, EOPNOTSUPP);
    }
}

std::vector<Store::Attribute> Store::list() const {
    std::vector<Attribute> attributes;
    if (m_kind == StoreKind::native) {
        for (const std::string &name : native_names(m_file)) {
            attributes.push_back({name, native_size(m_file, name).value_or(0)});
        }
        return attributes;
    }
    forget_last_error();
    const OpenStream stream(*this);
    for (int at = 0; stream && at < stream->header.attrCount; ++at) {
        attributes.push_back({stream->records[at].name, stream->records[at].length});
    }
    return attributes;
}

std::string Store::get(const std::string &name) const {
    if (m_kind == StoreKind::native) {
        const auto value = native_value(m_file, name);
        return value ? *value : (throw_not_found(), std::string());
    }
    forget_last_error();
    const OpenStream stream(*this);
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

// The kernel takes no larger one as an attribute of the file, but for a fork, which is none to it.
uint64_t Store::largest_value(const std::string &name) const {
    return m_kind == StoreKind::native && name != kResourceForkName ? XATTR_SIZE_MAX : kLargestValue;
}

void Store::set(const std::string &name, const std::string &value, Existing existing) const {
    if (m_kind == StoreKind::native) {
        const int flags = existing == Existing::must_not ? XATTR_CREATE
                          : existing == Existing::must   ? XATTR_REPLACE
                                                         : 0;
        set_native_value(m_file, name, value, flags);
        return;
    }
    if (value.size() > kLargestValue) {
        throw Failure("the value is too large");
    }
    commit({name, value}, existing);
}

void Store::set(const std::string &name, int file, uint64_t size, Existing existing) const {
    if (size > largest_value(name) || m_kind == StoreKind::native) {
        throw Failure("the value is too large");
    }
    commit({.name = name, .value = {}, .fromFile = ValueInFile{file, size}}, existing);
}

void Store::commit(const StreamEdit &edit, Existing existing) const {
    unless_overtaken([&] {
        const StreamChange change(m_path, m_kind, existing != Existing::must, m_file);
        const bool there = change.has(edit.name);
        if ((there && existing == Existing::must_not) || (!there && existing == Existing::must)) {
            throw Failure(there ? "the attribute exists" : "there is no such attribute", there ? 0 : kNotFound,
                          there ? EEXIST : 0);
        }
        change.commit({edit});
    });
}

void Store::remove(const std::string &name) const {
    if (m_kind == StoreKind::native) {
        remove_native(m_file, name);
        return;
    }
    unless_overtaken([&] {
        const StreamChange change(m_path, m_kind, false, m_file);
        if (!change.has(name)) {
            throw_not_found();
        }
        change.commit({{name, std::nullopt}});
    });
}

std::string Store::stream_path(const char *stream) const {
    return engine::stream_path(m_path, m_kind, stream);
}

std::string stream_path(const std::string &path, StoreKind kind, const char *stream) {
    std::array<char, kPathSize> place{};
    check(VEXOEAPath(kCurrentLayout, path.c_str(), stream, place.data(), kPathSize - 1, companion(kind)),
          "its store has no path");
    return place.data();
}

} // namespace engine
