// What a relocation leaves beside its staged tree, so that a second run knows where the first was stopped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

// A directory by what cannot be given to another one while it is there.
struct Identity {
    uint64_t device = 0, inode = 0;
    static Identity of(const struct stat &found) { return {found.st_dev, found.st_ino}; }
    bool operator==(const Identity &) const = default;
};

struct Note {
    enum class Phase {
        staging,  // the copy is being made; source and destination are as they were
        staged,   // it is whole, and about to take the destination's place
        placed,   // it stands at the destination; nothing of the source is removed yet
        removing, // everything was proven to be in it, and the source is being removed
    };
    Phase phase = Phase::staging;
    std::string source, destination;
    Identity sourceIs = {};
    std::optional<Identity> copyIs = {}, oldIs = {}; // the staged tree; what stood at the destination
    int64_t since = 0;                               // when the phase began, in seconds
    std::string boot = {};                           // device numbers are those of this boot

    // Whether what was found is what was noted. Across a reboot a volume may get another number.
    bool is(const Identity &noted, const struct stat &found) const;
};

const char *phase_text(Note::Phase phase); // for people: "the copy was being made"

// The note in an open directory; nothing: there is none. Throws Failure for one that cannot be read or is damaged.
std::optional<Note> read_note(int directory);
// Takes the place of the one before at once, and is on the disk then. Sets `since` and `boot`. Throws Failure.
void write_note(int directory, Note &note);
// Throws Failure.
void remove_note(int directory);
// Whether a name in the place is that of the note, also of one that was not finished.
bool is_note_name(const std::string &name);

} // namespace engine
