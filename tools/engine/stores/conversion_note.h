// What a conversion is about to make of a store's new form. The note stands beside the entry from before the first step
// until the new form was read back, and no part of the old one goes while it does: so a run that finds one, and cannot
// bring it to its end either, knows what of the new form a killed run has made, and that nothing is only there.
#pragma once

#include "tools/engine/store/store.h"
#include "tools/engine/walk/descriptor.h"

#include <set>
#include <string>
#include <sys/types.h>

namespace engine {

struct NewForm {
    bool beside = false, stream = false, resource = false; // files that were not there, or were empty
    bool stores = false;                                   // "@eaDir"
    bool metadata = false;                                 // the attribute of volumes that have one
    std::set<std::string> attributes = {};                 // of the entry itself, that it did not have
};

class ConversionNote {
  public:
    // Of the entry `name` with that inode, in an open directory that has to outlive this.
    ConversionNote(int directory, const std::string &name, ino_t inode, StoreKind to);

    // The name under which it stands.
    const std::string &name() const { return m_name; }
    // Reads what a killed run has left. Throws Failure where another process is at work on the entry.
    void look_for_it();
    bool is_there() const { return m_file.get() >= 0; }
    const NewForm &form() const { return m_form; }
    // Makes it; one that is there stays, since it knows of more. Throws Failure.
    void write(const NewForm &form);
    // False, with errno: it is still there.
    bool remove();

  private:
    int m_directory;
    std::string m_name;
    ino_t m_inode;
    Descriptor m_file{-1}; // locked
    NewForm m_form;
};

} // namespace engine
