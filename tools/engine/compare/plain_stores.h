// The "@eaDir" of a directory and of its copy, for files whose stores are the same to the byte.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace engine {

class PlainStores {
  public:
    PlainStores();
    ~PlainStores();
    PlainStores(const PlainStores &) = delete;
    PlainStores &operator=(const PlainStores &) = delete;

    // Of two open directories on volumes of the kernel's own, one of which has an "@eaDir". False: nothing can be said.
    bool open(int source, int copy);
    // Whether both files of the name have no store, or have stores of the same bytes in which nothing is wrong: a
    // comparison of the two would find nothing. Also where nothing was opened.
    bool are_same(const std::string &name) const;

  private:
    struct Store {
        Descriptor directory{-1};
        std::unordered_map<std::string, unsigned char> types = {}; // of what is in it

        bool open(int parent);
        unsigned char type_of(const std::string &name) const;
    };
    class Bytes;
    bool is_same(const std::string &name, bool stream) const;

    Store m_source, m_copy;
    std::unique_ptr<Bytes> m_one, m_other;
};

} // namespace engine
