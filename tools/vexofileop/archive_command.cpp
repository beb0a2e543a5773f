// vexofileop archive clear: what a backup program does after it has saved a file.
#include "backup/backup.h"
#include "platform/core.h"
#include "tools/vexofileop/commands.h"
#include "tools/vexofileop/console.h"
#include "tools/vexofileop/error_table.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/paths.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tool {
namespace {

// Why it failed; empty: it did not.
std::string clear(const std::string &path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
        return std::strerror(errno);
    }
    // Opening a pipe would wait for its other end, and none of these has the bit.
    if (!S_ISDIR(found.st_mode) && !S_ISREG(found.st_mode)) {
        return "neither a file nor a directory";
    }
    const int result = S_ISDIR(found.st_mode) ? VEXOBackupCleanDirArchiveBit(path.c_str())
                                              : VEXOBackupCleanFileArchiveBit(path.c_str());
    return result == 0 ? "" : fmt::format("{} ({})", reason_of(VLIBCErrGet()), code_text(VLIBCErrGet()));
}

int clear_all(const std::vector<std::string> &paths) {
    if (paths.empty()) {
        throw UsageError("no file given");
    }
    Console console;
    int done = 0, failed = 0;
    for (const std::string &given : paths) {
        const std::string path = absolute_path(given);
        const std::string reason = clear(path);
        if (!reason.empty()) {
            console.message(fmt::format("{}: {}", displayed(path), reason));
        }
        ++(reason.empty() ? done : failed);
    }
    return exit_status(done, failed);
}

} // namespace

void add_archive_command(CLI::App &app, int &status) {
    CLI::App &command = *app.add_subcommand("archive", "Clear the DOS archive bit");
    command.require_subcommand(1);
    CLI::App &clear = *command.add_subcommand("clear", "Clear the DOS archive bit of files and directories");
    CLI::Option *const paths = add_operands(clear, "FILE", "FILE...");
    clear.footer("\nA directory's own bit is cleared, not those of what it holds. A volume without\n"
                 "such bits is no failure.\n"
                 "Example:\n"
                 "  vexofileop archive clear /volume1/data/report.odt");
    clear.callback([&status, paths] { status = clear_all(operands_of(*paths)); });
}

} // namespace tool
