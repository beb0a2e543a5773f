#include "tools/engine/store/raw_store.h"

#include "tools/engine/store/store.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

namespace engine {
namespace {

constexpr size_t kReadBytes = size_t{16} << 20; // headers and records lie in front; a fork behind them is not read

RawStore file_store(const char *what, const std::string &path) {
    RawStore store{what, path, {}, 0};
    store.bytes = read_regular_file(path, kReadBytes, &store.size);
    return store;
}

// The path of a store itself, by its name.
const char *store_name(const std::string &path) {
    const std::string name = base_name(path);
    if (name.ends_with("@VexoEAStream")) {
        return "attribute stream";
    }
    if (name.ends_with("@VexoResource")) {
        return "resource file";
    }
    return name.starts_with("._") ? "\"._\" file" : nullptr;
}

} // namespace

std::vector<RawStore> raw_stores_of(const std::string &path) {
    if (const char *what = store_name(path); what != nullptr && exists(path)) {
        return {file_store(what, path)};
    }
    const Store store(path);
    std::vector<RawStore> stores;
    if (store.kind() == StoreKind::native) {
        for (const Store::Attribute &attribute : store.list()) {
            stores.push_back({"attribute", attribute.name, store.get(attribute.name), attribute.size});
        }
        return stores;
    }
    for (const auto &[stream, what] :
         {std::pair{"VexoEAStream", "attribute stream"}, {"VexoResource", "resource file"}}) {
        const std::string place = store.stream_path(stream);
        const bool doubled = store.kind() == StoreKind::apple_double;
        if (exists(place)) {
            stores.push_back(file_store(doubled ? "\"._\" file" : what, place));
        }
        if (doubled) {
            return stores; // both streams are that one file
        }
    }
    if (store.kind() == StoreKind::file_ea) {
        if (const std::string value = metadata_attribute(path); !value.empty()) {
            stores.push_back({"metadata attribute", kMetadataName, value, value.size()});
        }
    }
    return stores;
}

} // namespace engine
