// vexofileop archive clear: what a backup program does after it has saved a file.
#include "backup/backup.h"
#include "platform/core.h"
#include "tools/engine/report/failure.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/path_work.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tool {
namespace {

void clear_bit(const std::string &path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
        throw engine::Failure(std::strerror(errno));
    }
    // Opening a pipe would wait for its other end, and none of these has the bit.
    if (!S_ISDIR(found.st_mode) && !S_ISREG(found.st_mode)) {
        throw engine::Failure("neither a file nor a directory");
    }
    engine::forget_last_error();
    engine::check(S_ISDIR(found.st_mode) ? VEXOBackupCleanDirArchiveBit(path.c_str())
                                         : VEXOBackupCleanFileArchiveBit(path.c_str()),
                  "the archive bit cannot be cleared");
    // A volume without such bits is a success to the library, and so is one whose record could not be read.
    VLIBCStat status{};
    if (VLIBCFileStat(path.c_str(), VLIBC_STAT_ATTRIBUTES, &status) != 0) {
        throw engine::Failure(fmt::format("the archive bit cannot be looked at: {}", std::strerror(errno)));
    }
    if ((status.attributes & VLIBC_ATTR_ARCHIVE) != 0) {
        throw engine::Failure("the archive bit is still set, or set again");
    }
}

} // namespace

void add_archive_command(const Command &program, int &status) {
    const Command command = program.add_command("archive", "Clear the DOS archive bit");
    command.require_command();
    command.set_footer("\nA backup program clears it when it has saved a file; a change sets it again.\n"
                       "Example:\n"
                       "  vexofileop archive clear report.odt");
    const Command clear = command.add_command("clear", "Clear the DOS archive bit of files and directories");
    const PathOperands paths(clear, "FILE", "FILE...");
    clear.set_footer("\nA directory's own bit is cleared, not those of what it holds. A volume without\n"
                     "such bits is no failure.\n"
                     "Example:\n"
                     "  vexofileop archive clear /volume1/data/report.odt");
    clear.set_work([&status, paths] {
        PathWork work;
        work.each(paths.all(), clear_bit);
        status = work.finish();
    });
}

} // namespace tool
