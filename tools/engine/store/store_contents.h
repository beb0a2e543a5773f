// What a file's store holds, read in one go: names and lengths at once, bytes as they are asked for.
#pragma once

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

class StoreContents {
  public:
    struct Place {
        int directory;    // open: the one that holds the file
        std::string name; // the file's name in it
        std::string file; // a path of the file itself, for what is kept in its attributes
        StoreKind kind;
        bool noDirectory = false; // there is no "@eaDir" in it
        bool noForks = false;     // the volume shows no resource forks, whatever kind it is read as
    };
    // Opens what there is, following no link, and holds its lock for reading. What cannot be read is among the
    // problems; the rest is there.
    explicit StoreContents(Place place);

    struct Attribute {
        std::string name;
        uint64_t size;
        uint64_t offset; // in the stream file
    };
    // By name, each name once. On native attributes all of the file's but Finder Info and fork.
    const std::vector<Attribute> &attributes() const { return m_attributes; }
    // `size` bytes from `offset` on, all of which must be there. These two throw Failure.
    std::string value(const Attribute &attribute, uint64_t offset, uint64_t size) const;
    std::string fork(uint64_t offset, uint64_t size) const;
    std::string value(const Attribute &attribute) const { return value(attribute, 0, attribute.size); }
    std::string fork() const { return fork(0, m_forkSize); }

    uint64_t fork_size() const { return m_forkSize; }
    // 32 bytes; empty: none, or all zero.
    const std::string &finder_info() const { return m_finderInfo; }
    // What Mac clients wrote beside it: the comment, and the word of the AFP attributes, of which some bits say that
    // the file may not be changed.
    const std::string &comment() const { return m_comment; }
    int afp_attributes() const { return m_afpAttributes; }
    bool afp_locked() const { return (m_afpAttributes & kAfpLockedBits) != 0; }
    // Each of these keeps clients from changing the file in one way.
    static constexpr int kAfpLockedBits = 0x0100 | 0x0080 | 0x0020;
    const std::vector<std::string> &problems() const { return m_problems; }

  private:
    struct Close {
        void operator()(VEXOEAS *stream) const { VEXOEASClose(stream); }
    };
    using File = std::unique_ptr<Descriptor>;

    template <typename Task>
    void attempt(const Task &task);
    void read_native();
    File open(const char *stream) const;
    void read_stream();
    void read_resource();
    void read_metadata_attribute();
    void take_afp(const AppleDouble &header, std::string_view bytes);

    Place m_place;
    File m_streamFile, m_resourceFile; // outlive the stream; a "._" file is both, opened once
    std::unique_ptr<VEXOEAS, Close> m_stream;
    std::vector<Attribute> m_attributes;
    std::string m_finderInfo;
    uint64_t m_forkOffset = 0, m_forkSize = 0;
    std::string m_comment;
    int m_afpAttributes = 0;
    std::vector<std::string> m_problems;
};

// Whether clients see a file locked: by its permissions on volumes whose files the AFP service cannot mark, else by the
// platform's flag or the AFP attributes. `status` has the attributes.
bool is_locked(const VLIBCStat &status, StoreKind kind, bool afpLocked);

} // namespace engine
