#include "tools/vexofileop/commands/ea/ea_show.h"

#include "tools/engine/report/names.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/input.h"
#include "tools/vexofileop/output/hex.h"

#include <fmt/format.h>
#include <sys/stat.h>

namespace tool {
namespace {

constexpr size_t kShownBytes = size_t{16} << 20; // headers and records lie in front; a fork behind them is not read

bool exists(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0;
}

ShownStore file_store(const char *what, const std::string &path) {
    ShownStore store{what, path, {}, 0};
    store.bytes = read_regular_file(path, kShownBytes, &store.size);
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

std::vector<ShownStore> stores_of(const std::string &path) {
    if (const char *what = store_name(path); what != nullptr && exists(path)) {
        return {file_store(what, path)};
    }
    const Store store(path);
    std::vector<ShownStore> stores;
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

std::vector<std::string> store_lines(const ShownStore &store, bool *sound) {
    std::vector<std::string> lines = {fmt::format("{}: {} ({} bytes)", store.what, displayed(store.place), store.size)};
    if (store.what == "attribute" || store.size == 0) {
        return lines;
    }
    const AppleDouble parsed = parse_apple_double(store.bytes, store.size);
    lines.push_back(fmt::format("  AppleDouble 0x{:08X}, version 0x{:08X}, \"{}\"", parsed.magic, parsed.version,
                                displayed(parsed.filler)));
    for (const AppleDouble::Entry &entry : parsed.entries) {
        lines.push_back(fmt::format("  entry {}: {} bytes at {}", entry_text(entry.id), entry.length, entry.offset));
    }
    for (const std::string &line : finder_info_lines(parsed.finderInfo)) {
        lines.push_back("  Finder Info: " + line);
    }
    if (parsed.afpAttributes >= 0) {
        lines.push_back(fmt::format("  AFP attributes 0x{:04X}", parsed.afpAttributes));
    }
    if (parsed.hasAttributeBlock) {
        lines.push_back(fmt::format("  {} attributes, {} bytes of values at {}", parsed.attributes.size(),
                                    parsed.dataLength, parsed.dataStart));
    }
    for (const AppleDouble::Attribute &attribute : parsed.attributes) {
        lines.push_back(fmt::format("  attribute {}: {} bytes", displayed(attribute.name), attribute.length));
    }
    lines.push_back(fmt::format("  resource fork: {} bytes", parsed.forkLength));
    if (!parsed.bad.empty()) {
        lines.push_back("  malformed: " + parsed.bad);
        *sound = false;
    }
    return lines;
}

Json store_json(const ShownStore &store, bool *sound) {
    Json out;
    out.add_text("store", store.what);
    out.add_name("place", store.place);
    out.add_number("size", static_cast<int64_t>(store.size));
    if (store.what == "attribute" || store.size == 0) {
        return out;
    }
    const AppleDouble parsed = parse_apple_double(store.bytes, store.size);
    for (const AppleDouble::Entry &entry : parsed.entries) {
        Json row;
        row.add_number("id", entry.id);
        row.add_text("text", entry_text(entry.id));
        row.add_number("offset", entry.offset);
        row.add_number("length", entry.length);
        out.add_to_list("entries", std::move(row));
    }
    if (!parsed.finderInfo.empty()) {
        out.add_text("finder_info_hex", hex_digits(parsed.finderInfo));
    }
    if (parsed.afpAttributes >= 0) {
        out.add_number("afp_attributes", parsed.afpAttributes);
    }
    for (const AppleDouble::Attribute &attribute : parsed.attributes) {
        Json row;
        row.add_name("name", attribute.name);
        row.add_number("size", attribute.length);
        out.add_to_list("attributes", std::move(row));
    }
    out.add_number("fork_size", static_cast<int64_t>(parsed.forkLength));
    out.add_flag("sound", parsed.bad.empty());
    if (!parsed.bad.empty()) {
        out.add_text("malformed", parsed.bad);
        *sound = false;
    }
    return out;
}

} // namespace tool
