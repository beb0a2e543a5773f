#include "tools/engine/walk/name_block.h"

#include <cstring>

namespace engine {

void NameBlock::add(std::string_view name) {
    if (m_pieces.empty() || m_used + name.size() + 1 > kPiece) {
        m_pieces.push_back(std::make_unique_for_overwrite<char[]>(kPiece));
        m_used = 0;
    }
    char *const place = m_pieces.back().get() + m_used;
    std::memcpy(place, name.data(), name.size());
    place[name.size()] = '\0';
    m_starts.push_back(static_cast<uint32_t>((m_pieces.size() - 1) * kPiece + m_used));
    m_used += name.size() + 1;
}

std::vector<std::string> NameBlock::all() const {
    std::vector<std::string> names;
    names.reserve(size());
    for (size_t at = 0; at < size(); ++at) {
        names.emplace_back((*this)[at]);
    }
    return names;
}

std::optional<NameBlock> name_block_in(int directory) {
    NameBlock names;
    const bool read = each_entry(directory, [&names](const char *name, unsigned char) { names.add(name); });
    return read ? std::optional(std::move(names)) : std::nullopt;
}

std::optional<EntryBlock> entry_block_in(int directory) {
    EntryBlock entries;
    const bool read =
        each_entry(directory, [&entries](const char *name, unsigned char type) { entries.add(name, type); });
    return read ? std::optional(std::move(entries)) : std::nullopt;
}

} // namespace engine
