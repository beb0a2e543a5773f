// Names of one file at the first of two trees: what they are at the second.
#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace engine {

using Inode = std::pair<dev_t, ino_t>;

class LinkedPairs {
  public:
    struct Known {
        bool compared = false;    // the two files were, under other names
        std::string becomes = {}; // the name of a file of which this one is a part no more; empty: it is
    };
    // The file `first`, which has several names, is `second` under `path`.
    Known meet(const Inode &first, const Inode &second, const std::string &path);

  private:
    struct Linked {
        std::string path;           // the first name
        std::vector<Inode> arrived; // what it is at the second: several where it has become several
    };
    std::map<Inode, Linked> m_files;
};

} // namespace engine
