// What the fuzz targets share: an input taken apart, and a check that ends the run.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// Ends the program where a target found what must not be: NDEBUG does not switch it off.
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                             \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)

namespace fuzz {

// Takes the input from its front; behind the end there are zeros.
class Input {
  public:
    Input(const uint8_t *data, size_t size) : m_data(data), m_size(size) {}

    uint8_t byte() {
        if (m_size == 0) {
            return 0;
        }
        --m_size;
        return *m_data++;
    }
    uint16_t word() {
        const uint16_t high = byte();
        return static_cast<uint16_t>(high << 8 | byte());
    }
    // Up to the next NUL, which goes as well.
    std::string text() {
        std::string text;
        while (m_size > 0 && *m_data != 0) {
            text += static_cast<char>(byte());
        }
        (void)byte();
        return text;
    }
    std::string rest() {
        std::string all(reinterpret_cast<const char *>(m_data), m_size);
        m_size = 0;
        return all;
    }

  private:
    const uint8_t *m_data;
    size_t m_size;
};

} // namespace fuzz
