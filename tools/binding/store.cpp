#include "tools/engine/store/store.h"

#include "cpp/attributes.hpp"
#include "cpp/services.hpp"
#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/store_contents.h"
#include "tools/engine/walk/held_entry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

// What belongs to a file. An opaque record of the C interface.
struct VexoFork {
    vexofileop::ResourceFork fork;
};

namespace binding {
namespace {

constexpr size_t kFinderInfoSize = 32;
constexpr size_t kFinderInfoEntry = 9;
constexpr size_t kMetadataSize = 402;

// The store of a file that stays the one that it is.
class HeldStore {
  public:
    explicit HeldStore(const char *path) : m_entry(entry_path_of(path)), m_store(m_entry) {}
    const engine::Store *operator->() const { return &m_store; }
    const engine::HeldEntry &entry() const { return m_entry; }

  private:
    engine::HeldEntry m_entry;
    engine::Store m_store;
};

void check_name(const char *name) {
    if (name == nullptr || *name == '\0') {
        errno = EINVAL;
        engine::throw_errno("an attribute has a name");
    }
}

std::string finder_info(const HeldStore &store) {
    const engine::HeldEntry &entry = store.entry();
    const engine::StoreContents contents({entry.directory(), entry.name(), entry.itself(), store->kind()});
    if (contents.finder_info().empty() && !contents.problems().empty()) {
        throw engine::Failure(contents.problems().front());
    }
    return contents.finder_info();
}

// In a "._" file it lies with the attributes.
void set_in_apple_double(const std::string &path, const char *bytes) {
    vexofileop::Stream stream =
        vexofileop::Stream::open(path, vexofileop::Access::create, vexofileop::StoreKind::apple_double).value();
    VEXOEAS *const handle = stream.handle();
    struct stat found {};
    engine::check(::fstat(handle->fd, &found), "cannot write it");
    std::memcpy(handle->header.finderInfo, bytes, kFinderInfoSize);
    engine::forget_last_error();
    engine::check(found.st_size == 0 ? VEXOEASWriteHeader(handle) : EASWriteFinderInfo(handle), "cannot write it");
}

// The attribute of the file that has it once more: what is in the resource file comes into it, but for zeros, which
// that takes for nothing.
void set_in_attribute(const std::string &path, const char *bytes) {
    engine::forget_last_error();
    VEXOEAAdouble metadata{};
    const int found = VEXOEAFileEAAdoubleRead(path.c_str(), &metadata);
    engine::check(found, "cannot read the metadata attribute");
    const uint64_t place = metadata.entries[kFinderInfoEntry].offset;
    if (found == 0 && place + kFinderInfoSize <= kMetadataSize) {
        std::memcpy(metadata.raw + place, bytes, kFinderInfoSize);
        engine::check(VEXOEAFileEAAdoubleFlush(metadata.raw, kMetadataSize, path.c_str()), "cannot write it");
    }
    engine::check(VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), "cannot write it");
}

void set_finder_info(const HeldStore &store, const char *bytes) {
    const std::string path = store.entry().path();
    switch (store->kind()) {
    case engine::StoreKind::native:
        engine::set_native_value(store.entry().itself(), engine::kFinderInfoName, std::string(bytes, kFinderInfoSize),
                                 0);
        break;
    case engine::StoreKind::apple_double:
        set_in_apple_double(path, bytes);
        break;
    default:
        engine::forget_last_error();
        engine::check(VEXOEAEADirFSFInfoWrite(path.c_str(), bytes), "cannot write it");
        if (store->kind() == engine::StoreKind::file_ea) {
            set_in_attribute(path, bytes);
        }
    }
}

} // namespace
} // namespace binding

extern "C" {

int vexo_attributes(const char *path, VexoNameFn each, void *data, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const binding::HeldStore store(path);
        for (const engine::Store::Attribute &attribute : store->list()) {
            each(data, attribute.name.c_str(), attribute.size);
        }
    });
}

int vexo_attribute(const char *path, const char *name, VexoValueFn take, void *data, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        binding::check_name(name);
        const std::string value = binding::HeldStore(path)->get(name);
        take(data, value.data(), value.size());
    });
}

int vexo_set_attribute(const char *path, const char *name, const char *value, uint64_t size, int existing,
                       VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        using Existing = engine::Store::Existing;
        binding::check_name(name);
        const binding::HeldStore store(path);
        if (size > store->largest_value(name)) {
            throw engine::Failure("the value is too large for the volume", 0xBF00, EFBIG);
        }
        store->set(name, std::string(value, size),
                   existing == VEXO_SET_NEW        ? Existing::must_not
                   : existing == VEXO_SET_EXISTING ? Existing::must
                                                   : Existing::either);
    });
}

int vexo_remove_attribute(const char *path, const char *name, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        binding::check_name(name);
        binding::HeldStore(path)->remove(name);
    });
}

const char *vexo_kept_in(const char *path, VexoFailure *failure) {
    const char *text = nullptr;
    binding::guarded(failure, [&] { text = engine::kind_text(binding::HeldStore(path)->kind()); });
    return text;
}

int vexo_finder_info(const char *path, char *bytes, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const std::string found = binding::finder_info(binding::HeldStore(path));
        std::memset(bytes, 0, binding::kFinderInfoSize);
        std::copy_n(found.data(), std::min(found.size(), binding::kFinderInfoSize), bytes);
    });
}

int vexo_set_finder_info(const char *path, const char *bytes, VexoFailure *failure) {
    return binding::guarded(failure, [&] { binding::set_finder_info(binding::HeldStore(path), bytes); });
}

VexoFork *vexo_fork_open(const char *path, int access, VexoFailure *failure) {
    VexoFork *opened = nullptr;
    binding::guarded(failure, [&] {
        const engine::HeldEntry entry(binding::entry_path_of(path)); // which is there, and is no link
        const auto how = access == VEXO_FORK_READ    ? vexofileop::Access::read
                         : access == VEXO_FORK_WRITE ? vexofileop::Access::write
                                                     : vexofileop::Access::create;
        opened = new VexoFork{vexofileop::ResourceFork::open(entry.given(), how).value()};
    });
    return opened;
}

void vexo_fork_close(VexoFork *fork) {
    delete fork;
}

int64_t vexo_fork_size(VexoFork *fork) {
    return static_cast<int64_t>(fork->fork.size());
}

int64_t vexo_fork_read(VexoFork *fork, char *bytes, uint64_t size, uint64_t offset, VexoFailure *failure) {
    int64_t got = -1;
    binding::guarded(failure, [&] {
        fork->fork.seek(offset);
        got = static_cast<int64_t>(fork->fork.read(bytes, size).value());
    });
    return got;
}

int vexo_fork_write(VexoFork *fork, const char *bytes, uint64_t size, uint64_t offset, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        fork->fork.seek(offset);
        fork->fork.write({bytes, size}).value();
    });
}

int vexo_fork_truncate(VexoFork *fork, uint64_t length, VexoFailure *failure) {
    return binding::guarded(failure, [&] { fork->fork.truncate(length).value(); });
}

int vexo_fork_sync(VexoFork *fork, VexoFailure *failure) {
    return binding::guarded(failure, [&] { fork->fork.sync().value(); });
}

int vexo_archive_bit(const char *path, VexoFailure *failure) {
    int set = -1;
    binding::guarded(failure, [&] { set = vexofileop::has_archive_bit(binding::path_of(path)).value() ? 1 : 0; });
    return set;
}

} // extern "C"
