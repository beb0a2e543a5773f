// What a file has in its store of extended metadata, whatever its volume keeps it in.
#pragma once

#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/held_entry.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace engine {

// The attribute in which a volume of the kind file_ea keeps Finder Info and AFP attributes, and what a file has there.
constexpr char kMetadataName[] = "user.netatalk.Metadata";
std::string metadata_attribute(const std::string &path);

// The file that a stream of `path` lies in on a volume of that kind: "VexoEAStream" or "VexoResource" in "@eaDir", or
// the "._" file. Throws Failure for a path that is too long.
std::string stream_path(const std::string &path, StoreKind kind, const char *stream);

// The type of the volume that an entry, which is there, lies on; and that of its directory, beside which another volume
// may be mounted on the entry. All of these throw Failure.
int volume_type(const HeldEntry &entry);
int volume_type_beside(const HeldEntry &entry);
// The same of a directory by the path as it was given, or by what is held of it where that path is too long.
int volume_type(const std::string &given, const std::string &held);

// The most bytes that the value of an attribute can have.
constexpr uint64_t kLargestValue = INT32_MAX;

struct StreamEdit;

class Store {
  public:
    // Looks at the volume. Throws Failure for a file that is not there and a volume that keeps nothing.
    explicit Store(std::string path);
    // The same of one that is held, and there; `entry` has to outlive it.
    explicit Store(const HeldEntry &entry);

    StoreKind kind() const { return m_kind; }
    const std::string &path() const { return m_path; }

    struct Attribute {
        std::string name;
        uint64_t size;
    };
    // On native attributes the resource fork is one of them.
    std::vector<Attribute> list() const;
    std::string get(const std::string &name) const;
    // The most bytes that the value of this attribute can have here.
    uint64_t largest_value(const std::string &name) const;
    enum class Existing { either, must_not, must };
    // All of it or nothing, whatever stops it: nothing else that is kept for the file changes.
    void set(const std::string &name, const std::string &value, Existing existing) const;
    // The same of a value that a regular file holds, of which no more than a part at a time is in memory. Not for a
    // volume that keeps attributes in the file itself.
    void set(const std::string &name, int file, uint64_t size, Existing existing) const;
    // With its last attribute a store that holds nothing else goes too.
    void remove(const std::string &name) const;

    std::string stream_path(const char *stream) const;

    // Everything, to compare with what another file has: the Finder Info (empty: none, or all zero), the resource fork,
    // the attributes by name, and whether AFP clients see it locked.
    struct Metadata {
        std::string finderInfo, fork;
        std::map<std::string, std::string> attributes;
        bool locked = false;
    };
    Metadata metadata() const;

  private:
    void take_type(int code);
    void commit(const StreamEdit &edit, Existing existing) const;

    std::string m_path;
    std::string m_file; // the file itself, for what is kept in its attributes
    StoreKind m_kind = StoreKind::none;
};

} // namespace engine
