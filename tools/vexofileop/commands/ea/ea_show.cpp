#include "tools/vexofileop/commands/ea/ea_show.h"

#include "tools/engine/report/names.h"
#include "tools/engine/store/apple_double.h"
#include "tools/vexofileop/output/hex.h"

#include <fmt/format.h>

namespace tool {

std::vector<std::string> store_lines(const engine::RawStore &store, bool *sound) {
    std::vector<std::string> lines = {
        fmt::format("{}: {} ({} bytes)", store.what, engine::displayed(store.place), store.size)};
    if (store.what == "attribute" || store.size == 0) {
        return lines;
    }
    const engine::AppleDouble parsed = engine::parse_apple_double(store.bytes, store.size);
    lines.push_back(fmt::format("  AppleDouble 0x{:08X}, version 0x{:08X}, \"{}\"", parsed.magic, parsed.version,
                                engine::displayed(parsed.filler)));
    for (const engine::AppleDouble::Entry &entry : parsed.entries) {
        lines.push_back(
            fmt::format("  entry {}: {} bytes at {}", engine::entry_text(entry.id), entry.length, entry.offset));
    }
    for (const std::string &line : engine::finder_info_lines(parsed.finderInfo)) {
        lines.push_back("  Finder Info: " + line);
    }
    if (parsed.afpAttributes >= 0) {
        lines.push_back(fmt::format("  AFP attributes 0x{:04X}", parsed.afpAttributes));
    }
    if (parsed.hasAttributeBlock) {
        lines.push_back(fmt::format("  {} attributes, {} bytes of values at {}", parsed.attributes.size(),
                                    parsed.dataLength, parsed.dataStart));
    }
    for (const engine::AppleDouble::Attribute &attribute : parsed.attributes) {
        lines.push_back(fmt::format("  attribute {}: {} bytes", engine::displayed(attribute.name), attribute.length));
    }
    lines.push_back(fmt::format("  resource fork: {} bytes", parsed.forkLength));
    if (!parsed.bad.empty()) {
        lines.push_back("  malformed: " + parsed.bad);
        *sound = false;
    }
    return lines;
}

Json store_json(const engine::RawStore &store, bool *sound) {
    Json out;
    out.add_text("store", store.what);
    out.add_name("place", store.place);
    out.add_number("size", static_cast<int64_t>(store.size));
    if (store.what == "attribute" || store.size == 0) {
        return out;
    }
    const engine::AppleDouble parsed = engine::parse_apple_double(store.bytes, store.size);
    for (const engine::AppleDouble::Entry &entry : parsed.entries) {
        Json row;
        row.add_number("id", entry.id);
        row.add_text("text", engine::entry_text(entry.id));
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
    for (const engine::AppleDouble::Attribute &attribute : parsed.attributes) {
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
