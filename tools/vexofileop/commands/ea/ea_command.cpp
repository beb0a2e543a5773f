// vexofileop ea: the extended metadata of files, whatever their volumes keep it in.
#include "tools/vexofileop/commands/ea/ea_commands.h"

namespace tool {

void add_ea_command(const Command &program, int &status) {
    const Command command = program.add_command("ea", "Extended metadata: attributes, Finder Info, forks");
    command.require_command();
    command.set_footer("\nNo symbolic link is followed that is named as a file, as with getfattr -h: name\n"
                       "the file itself. Links on the way to it are followed.\n"
                       "Each command explains itself: vexofileop ea set --help\n"
                       "Example:\n"
                       "  vexofileop ea list photo.jpg");
    add_ea_attribute_commands(command, status);
    add_ea_inspection_commands(command, status);
    add_ea_store_commands(command, status);
    add_ea_upgrade_command(command, status);
}

} // namespace tool
