// Owner of a buffered stream.
#pragma once

#include <cstdio>

namespace vexo {

class StdioFile {
  public:
    StdioFile(const char *path, const char *mode) : m_stream(std::fopen(path, mode)) {}
    StdioFile(const StdioFile &) = delete;
    StdioFile &operator=(const StdioFile &) = delete;
    ~StdioFile() { (void)close(); }

    explicit operator bool() const { return m_stream != nullptr; }
    FILE *get() const { return m_stream; }
    // Writes out what is buffered and closes. false, with errno: some of it did not arrive.
    [[nodiscard]] bool close() {
        FILE *const stream = m_stream;
        m_stream = nullptr;
        return stream == nullptr || std::fclose(stream) == 0;
    }

  private:
    FILE *m_stream;
};

} // namespace vexo
