// Bringing stores into the form that another kind of volume has, where they are: for a volume whose kind changes. The
// new form is written beside the old one, what both say of the entry is compared, and only then the old one goes.
// Killed anywhere, the same request again finishes.
//
// A volume answers one kind only, and here both forms are there at a time. So nothing of this asks the volume: a form
// is read by the kind that it is of (StoreContents, EntryView), and written by the bytes.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/stores/store_walk.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/held_entry.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

struct ConversionOptions {
    StoreKind to = StoreKind::ea_directory;
    SurveyOptions survey = {};
    bool dryRun = false;
    LossSet accepted = {};
};

// What became of the store of one entry.
struct Conversion {
    enum class State : uint8_t { converted, convertible, left };

    std::string file; // or of an orphan: the store file
    StoreKind from = StoreKind::none, to = StoreKind::none;
    State state = State::left;
    std::string reason = {};       // of what is left
    std::vector<Loss> losses = {}; // that it has cost, or would cost
};

// "converted", "convertible", "left".
const char *state_name(Conversion::State state);
// "native", "eadir", "double", "fileea", as people name them.
const char *form_name(StoreKind kind);
// Of such a name; none: there is no such form.
StoreKind form_of(std::string_view name);

class ConversionWatcher {
  public:
    virtual ~ConversionWatcher() = default;
    virtual bool stopped() const = 0;
    virtual void store(const Conversion &conversion) = 0;
    virtual void trouble(const std::string &path, const std::string &reason) = 0;
};

struct ConversionTotals {
    int64_t directories = 0;
    int64_t entries = 0; // that have a store, in whatever form
};

// What is kept for an entry, and of a directory what is kept for all that lies in it. Throws Failure for what has no
// store, or is one.
void convert_stores(const HeldEntry &entry, const ConversionOptions &options, ConversionWatcher &watcher,
                    ConversionTotals &totals);

} // namespace engine
