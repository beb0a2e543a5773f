// What is wrong with the stores of one directory. Looks, and changes nothing.
#pragma once

#include "tools/engine/stores/finding.h"
#include "tools/engine/stores/store_bytes.h"
#include "tools/engine/stores/store_place.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace engine {

// What a finding is about, for whoever mends it.
struct Subject {
    enum class Mend : uint8_t { none, rewrite, attribute, remove, remove_directory };
    Mend mend = Mend::none;
    bool inStore = false; // `name` is in "@eaDir", and not beside it
    std::string name = {};
    StoreFile file = StoreFile::stream; // what is rewritten
};

struct FoundInStore {
    Finding finding;
    Subject subject;
};

struct DirectoryFindings {
    std::vector<FoundInStore> found;
    int64_t stores = 0; // files and attributes that were looked into
};

struct CheckHooks {
    // What could not be read, with the reason.
    std::function<void(const std::string &path, const std::string &reason)> trouble;
    std::function<bool()> stopped; // ends it early, with what it has found
};

// `only`: what is kept for that entry alone; empty: everything in the directory. Throws Failure for a directory that
// cannot be read.
DirectoryFindings check_directory(const StorePlace &place, const std::string &only, const CheckHooks &hooks);

} // namespace engine
