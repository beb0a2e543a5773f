// Where the original bytes of everything go that a repair changes, before it is changed: a directory of the user's with
// a manifest, from which all of it can be put back. What is in it is on the disk before anything is touched.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace engine {

// One change: what there was, and where.
struct Quarantined {
    enum class What : uint8_t { rewritten, removed, directory, attribute };
    What what = What::rewritten;
    int number = 0;                   // its bytes are in "<number>.old", what took their place in "<number>.new"
    std::string top = {}, below = {}; // the directory of users' files, as StorePlace has it
    uint64_t inode = 0;               // of that directory
    bool inStore = false;             // in its "@eaDir"
    std::string name = {};
    struct stat status {};                                            // mode with the type, owner, group, times
    std::string target = {};                                          // of a symbolic link
    std::vector<std::pair<std::string, std::string>> attributes = {}; // by name
};

// Mode, owner, times and attributes of an entry of an open directory. Throws Failure.
void take_status(int directory, const std::string &name, Quarantined &item);

class Quarantine {
  public:
    // `path` is absolute. It is made with the first thing that comes into it. One that an earlier run has made is gone
    // on with.
    explicit Quarantine(std::string path) : m_path(std::move(path)) {}

    const std::string &path() const { return m_path; }
    bool is_used() const { return m_used > 0; }
    // Whether an open directory is this one.
    bool is(const struct stat &directory) const;

    // Writes what `fill` writes into an open, empty file; `old` or `fresh` of the item, which gets its number by the
    // first of them. The file is on the disk then, open for reading. These throw Failure, and leave nothing of the
    // item.
    using Fill = std::function<void(int file)>;
    Descriptor keep_old(Quarantined &item, const Fill &fill);
    Descriptor keep_new(const Quarantined &item, const Fill &fill);
    // With this the item is complete: what it is about may be changed. An item without bytes gets its number here.
    void note(Quarantined &item);
    // Of an item that was not noted.
    void forget(const Quarantined &item);

  private:
    void open();
    Descriptor make(int number, const char *suffix) const;
    Descriptor filled(const Quarantined &item, Descriptor file, const Fill &fill);

    std::string m_path;
    Descriptor m_directory{-1}, m_manifest{-1};
    int m_last = 0, m_used = 0;
};

// What an earlier run has put into a quarantine, in its order.
class KeptQuarantine {
  public:
    // Throws Failure where there is none, or somebody else may have written into it.
    explicit KeptQuarantine(const std::string &path);

    const std::vector<Quarantined> &items() const { return m_items; }
    Descriptor open_old(const Quarantined &item) const { return open(item, ".old"); }
    Descriptor open_new(const Quarantined &item) const { return open(item, ".new"); }

  private:
    Descriptor open(const Quarantined &item, const char *suffix) const;

    Descriptor m_directory;
    std::vector<Quarantined> m_items;
};

} // namespace engine
