#include "tests/tools/screen.h"

#include <algorithm>
#include <stdexcept>

namespace kit {
namespace {

class Screen {
  public:
    explicit Screen(size_t columns) : m_columns(columns) {}

    // Takes the first character or sequence. How many bytes that were.
    size_t take(std::string_view bytes) {
        constexpr std::string_view eraseToEnd = "\x1b[K";
        if (bytes.starts_with(eraseToEnd)) {
            row().resize(std::min(row().size(), m_column));
            return eraseToEnd.size();
        }
        const auto byte = static_cast<unsigned char>(bytes.front());
        if (byte == '\r') {
            m_column = 0;
        } else if (byte == '\n') {
            ++m_row;
        } else if (byte < 0x20 || byte == 0x7f) {
            throw std::runtime_error("a control character reached the screen: " + std::to_string(byte));
        } else {
            return put(bytes);
        }
        return 1;
    }
    std::vector<std::string> rows() const {
        std::vector<std::string> texts;
        for (const auto &characters : m_rows) {
            std::string text;
            for (const std::string &character : characters) {
                text += character.empty() ? " " : character;
            }
            texts.push_back(text.substr(0, text.find_last_not_of(' ') + 1));
        }
        while (!texts.empty() && texts.back().empty()) {
            texts.pop_back();
        }
        return texts;
    }

  private:
    std::vector<std::string> &row() {
        m_rows.resize(std::max(m_rows.size(), m_row + 1));
        return m_rows[m_row];
    }
    size_t put(std::string_view bytes) {
        size_t length = 1;
        while (length < bytes.size() && (static_cast<unsigned char>(bytes[length]) & 0xC0) == 0x80) {
            ++length;
        }
        if (m_column == m_columns) { // a terminal wraps when the next character comes
            ++m_row;
            m_column = 0;
        }
        row().resize(std::max(row().size(), m_column + 1));
        row()[m_column++] = bytes.substr(0, length);
        return length;
    }

    size_t m_columns, m_row = 0, m_column = 0;
    std::vector<std::vector<std::string>> m_rows; // of characters
};

} // namespace

std::vector<std::string> rowsOnScreen(std::string_view bytes, size_t columns) {
    Screen screen(columns);
    while (!bytes.empty()) {
        bytes.remove_prefix(screen.take(bytes));
    }
    return screen.rows();
}

} // namespace kit
