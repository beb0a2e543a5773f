// What the parts of a comparison add their differences to.
#pragma once

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/failure.h"

#include <string>
#include <string_view>
#include <vector>

namespace engine {

struct Findings {
    const CompareOptions &options;
    std::vector<Loss> losses = {};

    void add(LossClass cls, std::string detail) { losses.push_back({cls, std::move(detail)}); }
    // What a part cannot read is told, and the others go on.
    template <typename Part>
    void attempt(const char *what, const Part &part) {
        try {
            part();
        } catch (const Failure &failure) {
            add(LossClass::unreadable, std::string(what) + ": " + failure.what());
        }
    }
    bool stopped() const { return options.stopped && options.stopped(); }
};

// As what an attribute is lost. `inForce`: it is one of the file itself; in a store a name means nothing to the system.
LossClass class_of_attribute(std::string_view name, bool inForce);

// The parts. `one` and `other` are of one type; those that say so are pinned.
void compare_owners(const EntryView &one, const EntryView &other, Findings &findings);
void compare_permissions(const EntryView &one, const EntryView &other, Findings &findings); // pinned where one has ACLs
bool has_acls(const EntryView &entry);
void compare_times(const EntryView &one, const EntryView &other, Findings &findings);
void compare_dos_attributes(const EntryView &one, const EntryView &other, Findings &findings);
void compare_attributes(EntryView &one, EntryView &other, Findings &findings); // pinned
void compare_stores(EntryView &one, EntryView &other, Findings &findings);     // pinned
void compare_own_directories(const EntryView &one, const EntryView &other, Findings &findings);
void compare_empty_stores(const EntryView &one, const EntryView &other, Findings &findings); // of directories
void compare_locks(EntryView &one, EntryView &other, Findings &findings);
void compare_content(const EntryView &one, const EntryView &other, Findings &findings); // pinned
void compare_holes(const EntryView &one, const EntryView &other, Findings &findings);   // pinned

} // namespace engine
