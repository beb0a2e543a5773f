// vexofileop store: the stores of whole volumes.
#include "tools/vexofileop/commands/store/store_commands.h"

namespace tool {

void add_store_command(const Command &program, int &status) {
    const Command command = program.add_command("store", "Check, repair and convert the stores of a volume");
    command.require_command();
    command.set_footer("\nA store is what is kept for a file beside it: attributes, Finder Info, resource\n"
                       "fork. Exit status, as that of e2fsck, added up: 0 clean, 1 mended, 4 something\n"
                       "left as it is, 8 something could not be looked into, 16 usage.\n"
                       "Each command explains itself: vexofileop store check --help\n"
                       "Example:\n"
                       "  vexofileop store check -r /volume1");
    add_store_survey_commands(command, status);
    add_store_convert_command(command, status);
}

} // namespace tool
