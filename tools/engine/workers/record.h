// Numbers and texts in one row of bytes, between processes of one program: neither version nor byte order matters.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

namespace engine {

class RecordWriter {
  public:
    template <typename Number>
    RecordWriter &number(Number value) {
        static_assert(std::is_trivially_copyable_v<Number>);
        m_bytes.append(reinterpret_cast<const char *>(&value), sizeof value);
        return *this;
    }
    RecordWriter &text(std::string_view value) {
        number(static_cast<uint32_t>(value.size()));
        m_bytes.append(value);
        return *this;
    }
    const std::string &bytes() const { return m_bytes; }

  private:
    std::string m_bytes;
};

// What is asked for beyond the end is 0 and empty: a reader asks for what its writer has written.
class RecordReader {
  public:
    explicit RecordReader(std::string_view bytes) : m_rest(bytes) {}

    template <typename Number>
    Number number() {
        static_assert(std::is_trivially_copyable_v<Number>);
        Number value{};
        if (m_rest.size() >= sizeof value) {
            std::memcpy(&value, m_rest.data(), sizeof value);
            m_rest.remove_prefix(sizeof value);
        }
        return value;
    }
    std::string_view view() {
        const auto size = number<uint32_t>();
        const std::string_view value = m_rest.substr(0, size);
        m_rest.remove_prefix(value.size());
        return value;
    }
    std::string text() { return std::string(view()); }
    bool is_at_end() const { return m_rest.empty(); }
    std::string_view rest() const { return m_rest; }

  private:
    std::string_view m_rest;
};

} // namespace engine
