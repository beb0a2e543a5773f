// One of the two entries of a comparison, as far as it has been looked at.
#pragma once

#include "platform/core.h"
#include "tools/engine/compare/side.h"
#include "tools/engine/store/store_contents.h"
#include "tools/engine/walk/descriptor.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

// Whether an attribute is how a volume keeps something that is compared as what it means, or is none of the entry's
// own.
bool is_representation(std::string_view name);

// Whether one that a store holds may become an attribute of the file. In a store everybody may write what he likes, and
// it is not in force: on the file it would give rights, say what only the system says of it, or be something else of
// the store.
bool may_be_native(std::string_view name);

// The largest value that one which a store holds has as an attribute of the file.
constexpr uint64_t kLargestNative = 65536;

class EntryView {
  public:
    // The first look: status, DOS attributes, creation time. Throws Failure; for an entry that is not there errno is
    // ENOENT then.
    explicit EntryView(const Side &side);

    const Side &side() const { return m_side; }
    const VolumeFacts &volume() const { return m_side.volume; }
    const VLIBCStat &status() const { return m_status; }
    mode_t type() const { return m_status.st.st_mode & S_IFMT; }
    bool may_have_holes() const { return m_status.st.st_blocks * int64_t{512} < m_status.st.st_size; }
    // Those of an earlier look at it, which may have missed a creation time that is kept in an attribute.
    void take_times(const VLIBCStat &before);

    // The names of its attributes, sorted, but for those that are how the volume keeps something that is compared as
    // what it means. Throws Failure.
    void list();
    const std::vector<std::string> &names() const { return m_names; }
    bool has(const char *name) const;
    // Whether there can be more than its status tells: attributes, an ACL, a store.
    bool may_hold_more() const;

    // Opens the entry, so that what is asked from here on is asked of this one. Lists anew. Throws Failure when it is
    // no longer the one that was looked at. `forReading`: a regular file whose content is going to be read, too.
    void pin(bool forReading = false);
    // Open for reading, where it was asked for and may be; else below 0. Stays the entry's.
    int readable() const { return m_readable ? m_pin.get() : -1; }
    // A path of what was pinned, for calls that take one.
    const std::string &file() const { return m_file; }
    // Nothing: it is gone. Throws Failure.
    std::optional<std::string> attribute(const std::string &name) const;

    // Of what was pinned. Links and special files have none.
    const StoreContents &contents();

  private:
    std::vector<std::string> all_names() const;
    bool stands_for_more(const std::string &name) const;

    const Side &m_side;
    VLIBCStat m_status{};
    std::vector<std::string> m_names;
    bool m_metadata = false; // among its attributes is the one with the AppleDouble header
    Descriptor m_pin{-1};
    bool m_readable = false;
    std::string m_file;
    std::unique_ptr<StoreContents> m_contents;
};

} // namespace engine
