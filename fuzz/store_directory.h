// A directory for the targets that work on files: made once, under TMPDIR or /dev/shm, and emptied for each input.
#pragma once

#include "fuzz/input.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fuzz {

class StoreDirectory {
  public:
    StoreDirectory() {
        const char *given = std::getenv("TMPDIR");
        m_path = std::string(given != nullptr ? given : "/dev/shm") + "/vexofileop-fuzz-XXXXXX";
        FUZZ_CHECK(::mkdtemp(m_path.data()) != nullptr);
    }
    StoreDirectory(const StoreDirectory &) = delete;
    StoreDirectory &operator=(const StoreDirectory &) = delete;
    ~StoreDirectory() { std::filesystem::remove_all(m_path); }

    void empty() const {
        for (const auto &entry : std::filesystem::directory_iterator(m_path)) {
            std::filesystem::remove_all(entry.path());
        }
    }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }
    void makeDirectory(const std::string &name) const { std::filesystem::create_directories(*this / name); }
    void write(const std::string &name, const std::string &bytes) const {
        std::ofstream(*this / name, std::ios::binary) << bytes;
    }
    bool has(const std::string &name) const { return std::filesystem::exists(*this / name); }
    std::string read(const std::string &name) const {
        std::ifstream file(*this / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

  private:
    std::string m_path;
};

} // namespace fuzz
