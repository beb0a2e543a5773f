// What a store holds, written as one of the files that volumes keep it in; docs/formats.md has the formats.
#pragma once

#include "tools/engine/store/store_contents.h"
#include "tools/engine/stores/store_bytes.h"

#include <cstdint>
#include <string>
#include <vector>

namespace engine {

struct FormContent {
    const StoreContents *attributesFrom = nullptr;
    std::vector<StoreContents::Attribute> attributes = {};
    const StoreContents *forkFrom = nullptr;
    uint64_t forkSize = 0;
    bool forkAtOnce = false;     // each part of it would be read with all of it
    std::string finderInfo = {}; // empty: none
};

// Into the open, empty file `to`: the attributes alone into a stream, Finder Info and fork into a resource file, all of
// it into a "._" file. Throws Failure, also for what such a file cannot hold.
void write_form(const FormContent &content, StoreFile file, int to);

} // namespace engine
