// The names of a directory of any size, in little more room than their bytes take.
#pragma once

#include "tools/engine/walk/directory.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace engine {

class NameBlock {
  public:
    NameBlock() = default;
    explicit NameBlock(const std::vector<std::string> &names) {
        for (const std::string &name : names) {
            add(name);
        }
    }

    // As a directory has them: at most 255 bytes.
    void add(std::string_view name);
    void clear() { *this = NameBlock(); }
    // The last ones go.
    void shrink(size_t size) { m_starts.resize(size); }
    size_t size() const { return m_starts.size(); }
    bool empty() const { return m_starts.empty(); }
    const char *operator[](size_t at) const {
        const uint32_t start = m_starts[at];
        return m_pieces[start / kPiece].get() + start % kPiece;
    }
    template <typename Predicate>
    bool any_of(const Predicate &predicate) const {
        for (size_t at = 0; at < size(); ++at) {
            if (predicate((*this)[at])) {
                return true;
            }
        }
        return false;
    }
    std::vector<std::string> all() const;

  private:
    static constexpr size_t kPiece = 65536; // bytes, so that none is ever moved
    std::vector<std::unique_ptr<char[]>> m_pieces = {};
    std::deque<uint32_t> m_starts = {};
    size_t m_used = kPiece; // of the last piece
};

// The same of entries, each with its type before its name.
class EntryBlock {
  public:
    void add(const char *name, unsigned char type) {
        m_entry.assign(1, static_cast<char>(type + 1)); // no NUL
        m_names.add(m_entry.append(name));
    }
    void clear() { m_names.clear(); }
    size_t size() const { return m_names.size(); }
    bool empty() const { return m_names.empty(); }
    Entry operator[](size_t at) const { return {m_names[at] + 1, type(at)}; }
    unsigned char type(size_t at) const { return static_cast<unsigned char>(*m_names[at] - 1); }
    template <typename Predicate>
    bool any_of(const Predicate &predicate) const {
        return m_names.any_of([&](const char *entry) { return predicate(entry + 1); });
    }
    // From that one on.
    template <typename Predicate>
    void erase_if(size_t from, const Predicate &predicate) {
        std::vector<Entry> stay;
        for (size_t at = from; at < size(); ++at) {
            if (Entry entry = (*this)[at]; !predicate(entry)) {
                stay.push_back(std::move(entry));
            }
        }
        m_names.shrink(from);
        for (const Entry &entry : stay) {
            add(entry.name.c_str(), entry.type);
        }
    }

  private:
    NameBlock m_names;
    std::string m_entry;
};

// Of an open directory, in which nobody sees that; nothing, with errno, where it cannot be read.
std::optional<NameBlock> name_block_in(int directory);
std::optional<EntryBlock> entry_block_in(int directory);

} // namespace engine
