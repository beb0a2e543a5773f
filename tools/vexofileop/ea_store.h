// What a file has in its store of extended metadata, whatever its volume keeps it in.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

// How a volume keeps what belongs to a file.
enum class StoreKind { apple_double, native, ea_directory, file_ea, none };
StoreKind store_kind(int typeCode);
const char *kind_text(StoreKind kind);

// Why the store could not be used, in words and with the code.
class StoreError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Store {
  public:
    // Looks at the volume. Throws StoreError for a file that is not there and a volume that keeps nothing.
    explicit Store(std::string path);

    StoreKind kind() const { return m_kind; }
    const std::string &path() const { return m_path; }

    struct Attribute {
        std::string name;
        uint64_t size;
    };
    std::vector<Attribute> list() const;
    std::string get(const std::string &name) const;
    enum class Existing { either, must_not, must };
    void set(const std::string &name, const std::string &value, Existing existing) const;
    void remove(const std::string &name) const;

    // The file that a stream lies in: "VexoEAStream" or "VexoResource" in "@eaDir", or the "._" file.
    std::string stream_path(const char *stream) const;

    // Everything, to compare with what another file has: the Finder Info (empty: none, or all zero), the resource fork,
    // the attributes by name, the locked state.
    struct Metadata {
        std::string finderInfo, fork;
        std::map<std::string, std::string> attributes;
        bool locked = false;
    };
    Metadata metadata() const;

  private:
    std::string m_path;
    StoreKind m_kind;
};

// The content of a file, at most `most` bytes of it; its whole size goes into `size`. Throws StoreError.
std::string read_store_file(const std::string &path, size_t most, uint64_t *size);

} // namespace tool
