// Marks a file for the next backup: its companions have changed, so it has.
#include "ea/ea.h"

#include "support/dos_attributes.h"

int EASetSmbArchive(const char *path) {
    return vexo::command_attribute(path, vexo::AttributeCommand::set_archive);
}
