// Whose a store may be whose file is gone: a client has renamed the file and not the store.
#pragma once

#include "tools/engine/stores/store_bytes.h"

#include <cstddef>
#include <string>
#include <vector>

namespace engine {

struct OrphanGuess {
    std::string name = {};
    bool byInode = false;
};

// For the orphans of one directory. A look at names has an end: of very many orphans the last ones are not guessed.
class OrphanSearch {
  public:
    // `bare`: the entries of the open directory that have no store.
    OrphanGuess search(int directory, const std::vector<std::string> &bare, const std::string &base,
                       const StoreBytes &bytes);

  private:
    size_t m_compared = 0;
};

// How many bytes have to be inserted, removed or replaced to make one name of the other; more than `most`: that and 1.
size_t name_distance(const std::string &one, const std::string &other, size_t most);

} // namespace engine
