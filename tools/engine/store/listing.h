// What lies in a directory: entries, each with what is kept for it beside it, and what belongs to no entry.
#pragma once

#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/descriptor.h"

#include <memory>
#include <string>
#include <vector>

namespace engine {

struct Listing {
    // A name in "@eaDir", or in the directory itself.
    struct Part {
        bool inStore;
        std::string name;
        bool operator==(const Part &) const = default;
    };
    struct Item {
        std::string name;
        unsigned char type; // DT_REG, DT_DIR …
        std::vector<Part> parts = {};
    };
    std::vector<Item> items;
    std::vector<Part> strangers;       // whatever is neither an entry nor part of one
    std::unique_ptr<Descriptor> store; // "@eaDir"; null: there is none
    bool cover = false;                // the store has the ".cover" that services leave in it

    int place_of(const Part &part, int directory) const { return part.inStore ? store->get() : directory; }
};
// What a stream ("VexoResource") of an entry of an open directory is called in its "@eaDir": long names are shortened
// there, by the limit of the volume. Empty: it can have none.
std::string companion_name(int directory, const std::string &name, const char *stream);

std::string part_text(const Listing::Part &part); // "@eaDir/name"

// Of an open directory on a volume that keeps stores so. Throws Failure. `unread`: an "@eaDir" that cannot be read is
// no failure but told there, and what lies in it is in no list.
Listing list_directory(int directory, StoreKind kind, std::string *unread = nullptr);

} // namespace engine
