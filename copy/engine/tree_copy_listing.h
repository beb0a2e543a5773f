// The entries of one directory of a tree that is being walked. Its stream can be closed while a walk is far below it:
// what has not been read by then is kept in memory, the length of its name and two bytes an entry, so that each entry
// comes exactly once whatever happens to the directory meanwhile. (Places in a stream do not outlive it on every file
// system, and to begin again and skip names would pass over what took the name of an entry that was moved away.)
#pragma once

#include "support/dir.h"
#include "support/heap.h"

#include <cstddef>
#include <optional>
#include <sys/stat.h>

namespace vexo {

// The directory's own two names, and those that belong to a store.
bool is_never_carried(const char *name);

// Says nothing: failures are told by errno.
class Listing {
  public:
    struct Entry {
        const char *name; // valid until the stream is read on or closed
        unsigned char type;
    };

    Listing() = default;
    explicit Listing(Dir &&directory) : m_directory(static_cast<Dir &&>(directory)) {}

    bool is_open() const { return static_cast<bool>(m_directory); }
    int fd() const { return ::dirfd(m_directory.get()); }

    // The next entry that is carried; nothing: the end where errno is 0.
    std::optional<Entry> next();
    // Whether the open directory holds an entry that is carried, be it one that was read already. true where that is
    // not known.
    bool holds_entries();

    // Reads the rest into memory and closes the stream. What goes wrong here is what next() ends with.
    void set_aside();
    // Goes on with the same directory opened anew. false: with ESTALE, it is another.
    bool take_up(Dir &&directory, bool inodesProve);

  private:
    bool keep(const dirent &entry);

    Dir m_directory;
    bool m_setAside = false; // the entries come from memory
    int m_end = 0;           // what reading the rest ended with
    std::optional<struct stat> m_identity = {};
    HeapBuffer m_rest; // a type and a name with its NUL, again and again
    size_t m_restLength = 0;
    size_t m_restRead = 0;
};

} // namespace vexo
