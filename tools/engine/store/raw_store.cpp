#include "tools/engine/store/raw_store.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/stream_change.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>

namespace engine {
namespace {

constexpr size_t kReadBytes = size_t{16} << 20; // headers and records lie in front; a fork behind them is not read

RawStore read_store(const char *what, const std::string &place, const std::string &path) {
    RawStore store{what, place, {}, 0};
    store.bytes = read_regular_file(path, kReadBytes, &store.size);
    return store;
}

// A companion of the entry, where there is one: neither a link in its place nor one in place of "@eaDir" is followed.
std::optional<RawStore> companion(const HeldEntry &entry, StoreKind kind, const char *what, const std::string &place) {
    const Descriptor directory = open_store_directory(place, kind, false);
    const Descriptor file(directory.get() < 0 ? -1
                                              : ::openat(directory.get(), base_name(place).c_str(),
                                                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0 && errno == ENOENT) {
        return std::nullopt;
    }
    const std::string shown = entry.shown(place);
    if (file.get() < 0) {
        throw_errno(fmt::format("cannot open {}", displayed(shown)));
    }
    return read_store(what, shown, fmt::format("/proc/self/fd/{}", file.get()));
}

// A store itself, by its name.
const char *store_name(const std::string &name) {
    if (name.ends_with("@VexoEAStream")) {
        return "attribute stream";
    }
    if (name.ends_with("@VexoResource")) {
        return "resource file";
    }
    return name.starts_with("._") ? "\"._\" file" : nullptr;
}

} // namespace

std::vector<RawStore> raw_stores_of(const HeldEntry &entry) {
    if (const char *what = store_name(entry.name()); what != nullptr) {
        return {read_store(what, entry.given(), entry.itself())};
    }
    const Store store(entry);
    std::vector<RawStore> stores;
    if (store.kind() == StoreKind::native) {
        for (const Store::Attribute &attribute : store.list()) {
            stores.push_back({"attribute", attribute.name, store.get(attribute.name), attribute.size});
        }
        return stores;
    }
    const bool doubled = store.kind() == StoreKind::apple_double;
    for (const auto &[stream, what] :
         {std::pair{"VexoEAStream", doubled ? "\"._\" file" : "attribute stream"}, {"VexoResource", "resource file"}}) {
        if (auto found = companion(entry, store.kind(), what, store.stream_path(stream))) {
            stores.push_back(std::move(*found));
        }
        if (doubled) {
            return stores; // both streams are that one file
        }
    }
    if (store.kind() == StoreKind::file_ea) {
        if (const std::string value = metadata_attribute(entry.itself()); !value.empty()) {
            stores.push_back({"metadata attribute", kMetadataName, value, value.size()});
        }
    }
    return stores;
}

} // namespace engine
