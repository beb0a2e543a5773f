// vexofileop relocate: a whole directory to another place, put there at once or not at all.
#include "copy/copy.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

struct Options {
    bool keepSource = false, yes = false, noProgress = false, json = false;
};

// The library's callbacks for this operation have no user data.
Console *console = nullptr;
int64_t doneBytes = 0;

void on_progress(int64_t bytes, int64_t) {
    doneBytes += bytes;
    console->progress(doneBytes);
}

void on_error(const char *path, uint32_t code) {
    console->message(fmt::format("{}: {} ({})", displayed(path), reason_of(code), code_text(code)));
}

int on_poll() {
    return stop_signal() != 0 ? 1 : 0;
}

std::string staging_of(const std::string &destination) {
    return joined(parent_of(destination), "@tmp");
}

bool exists(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0;
}

// What must hold before anything is touched. Throws UsageError.
void check(const std::string &source, const std::string &destination) {
    struct stat from {};
    if (::lstat(source.c_str(), &from) != 0 || !S_ISDIR(from.st_mode)) {
        throw UsageError(
            fmt::format("{}: {}", displayed(source), exists(source) ? "not a directory" : std::strerror(errno)));
    }
    if (lies_in(destination, source)) {
        throw UsageError(fmt::format("{}: lies in the source", displayed(destination)));
    }
    // What stands at the destination, and in the staging directory, is removed.
    for (const std::string &emptied : {destination, staging_of(destination)}) {
        if (exists(emptied) && lies_in(source, emptied)) {
            throw UsageError(
                fmt::format("{}: lies in {}, which a relocation empties", displayed(source), displayed(emptied)));
        }
    }
    struct stat to {};
    if (::lstat(destination.c_str(), &to) == 0 && !S_ISDIR(to.st_mode)) {
        throw UsageError(fmt::format("{}: exists and is not a directory", displayed(destination)));
    }
    if (::stat(parent_of(destination).c_str(), &to) != 0 || !S_ISDIR(to.st_mode)) {
        throw UsageError(fmt::format("{}: no such directory", displayed(parent_of(destination))));
    }
    const std::string name = base_name(destination);
    if (name == "." || name == ".." || name.empty() || name == "@tmp") {
        throw UsageError(fmt::format("{}: give the full path that the directory is to have", displayed(destination)));
    }
}

std::string explanation(const std::string &source, const std::string &destination, bool keepSource) {
    const std::string staging = displayed(staging_of(destination));
    const std::string from = displayed(source), to = displayed(destination);
    std::string text = fmt::format("{} goes to {} in these steps:\n", from, to);
    int number = 0;
    const auto step = [&](const std::string &what) { text += fmt::format("  {}. {}\n", ++number, what); };
    step(fmt::format("The tree is copied into {}.{}", staging,
                     exists(staging_of(destination)) ? " WHAT IS IN THERE NOW IS REMOVED." : ""));
    if (exists(destination)) {
        step(fmt::format("{} IS REMOVED WITH EVERYTHING IN IT.", to));
    }
    step(fmt::format("The copy is renamed to {} and compared with the source.", to));
    step(keepSource ? fmt::format("{} stays.", from) : fmt::format("{} is removed, if the copy has everything.", from));
    text.pop_back();
    return text;
}

// Names what the source has and the copy has not. Data are not read again: the library reports what it could not write.
class Comparison {
  public:
    explicit Comparison(Console &out) : m_console(out) {}

    int differences(const std::string &source, const std::string &destination, int type) {
        const auto names = names_in(source);
        if (!names) {
            return missing(source, "cannot be read");
        }
        int count = mac_attributes(source);
        for (const std::string &name : *names) {
            switch (name_kind(source, name, type)) {
            case NameKind::ordinary:
                count += difference(joined(source, name), joined(destination, name), type);
                break;
            case NameKind::stray:
            case NameKind::system:
                count += missing(joined(source, name), "not carried along");
                break;
            default:
                break;
            }
        }
        return count;
    }

  private:
    int difference(const std::string &source, const std::string &wanted, int type) {
        struct stat from {};
        struct stat to {};
        if (::lstat(source.c_str(), &from) != 0) {
            return 0; // went away meanwhile
        }
        const std::string destination = exists(wanted) ? wanted : fat_name(wanted);
        if (::lstat(destination.c_str(), &to) != 0) {
            const bool special = !S_ISREG(from.st_mode) && !S_ISDIR(from.st_mode) && !S_ISLNK(from.st_mode);
            return missing(source, special ? fmt::format("is {}, which cannot be copied", kind_of(from.st_mode))
                                           : "was not copied");
        }
        if ((from.st_mode & S_IFMT) != (to.st_mode & S_IFMT) || (S_ISREG(from.st_mode) && from.st_size != to.st_size)) {
            return missing(source, "differs from its copy");
        }
        return S_ISDIR(from.st_mode) ? differences(source, destination, type) : mac_attributes(source);
    }
    int mac_attributes(const std::string &path) {
        return keeps_mac_attributes(parent_of(path)) && has_mac_attributes(path)
                   ? missing(path, "has attributes set by a Mac, which were not carried")
                   : 0;
    }
    int missing(const std::string &path, const std::string &what) {
        m_console.message(fmt::format("{}: {}", displayed(path), what));
        return 1;
    }

    Console &m_console;
};

class Relocation {
  public:
    Relocation(const Options &options, std::string source, std::string destination)
        : m_options(options), m_source(std::move(source)), m_destination(std::move(destination)) {}

    int run() {
        check(m_source, m_destination);
        if (!agreed()) {
            return exitNone;
        }
        raise_descriptor_limit();
        const int status = relocate();
        if (m_options.json) {
            tell(status);
        }
        return m_console.check_output() || status != exitAll ? status : exitSome;
    }

  private:
    bool agreed() {
        if (m_options.yes) {
            return true;
        }
        m_console.message(explanation(m_source, m_destination, m_options.keepSource));
        if (!Console::can_ask()) {
            throw UsageError("there is no terminal to ask on; -y goes ahead without asking");
        }
        return m_console.confirm("go ahead?");
    }

    int relocate() {
        if (!m_options.noProgress && !m_options.json && Console::can_show_progress()) {
            m_console.start_progress(totals_of(m_source, [] { return stop_signal() != 0; }).bytes);
        }
        if (copy() != 0) {
            return stop_signal() != 0 ? exitSignal + stop_signal() : static_cast<int>(exitNone);
        }
        const int left = Comparison(m_console).differences(m_source, m_destination, VEXOGetFSType(m_source.c_str(), 0));
        if (left > 0) {
            m_console.message(fmt::format("the copy is in place; {} {} in it, so {} stays as it is", left,
                                          left == 1 ? "entry is not" : "entries are not", displayed(m_source)));
            return exitSome;
        }
        return m_options.keepSource ? exitAll : remove_source();
    }

    // The source is always kept by the library and removed here, after the comparison: what its copy passes over would
    // otherwise go with it. Of its two relocations this one carries owners and ACLs; that of VEXOFileOpCopyDir copies
    // with none of its flags.
    int copy() {
        struct stat before {};
        ::stat(m_source.c_str(), &before);
        VEXOCopyOpt options{};
        options.stopOnError = 1;
        options.ownerMode = 1;
        options.copyAcl = 1;
        options.progress = on_progress;
        options.errReport = on_error;
        options.isCancel = on_poll;
        console = &m_console;
        VLIBCErrSetEx(0, "", 0);
        const int result = VEXOCopyDirToExternal(m_source.c_str(), m_destination.c_str(), 1, &options);
        const uint32_t code = VLIBCErrGet();
        console = nullptr;
        m_console.clear_progress();
        ::rmdir(staging_of(m_destination).c_str()); // Where nothing else is in it.
        if (result == 0) {
            ::chmod(m_destination.c_str(), before.st_mode & 07777); // The library opens a share to everybody.
            return 0;
        }
        const std::string untouched = displayed(m_source) + " is as it was";
        constexpr uint32_t kLastStep = 0x3A00;
        m_console.message(stop_signal() != 0
                              ? "stopped; " + untouched
                              : fmt::format("{} -> {}: {} ({}); {}{}", displayed(m_source), displayed(m_destination),
                                            reason_of(code), code_text(code), untouched,
                                            code == kLastStep ? ", what stood at the destination is gone" : ""));
        return -1;
    }

    int remove_source() {
        RemovalOptions removal;
        removal.recursive = true;
        removal.force = true;
        removal.quiet = true;
        const int status = TreeRemoval(removal).run({m_source});
        if (status != exitAll) {
            m_console.message(
                fmt::format("the copy is in place; {} could not be removed entirely", displayed(m_source)));
            return exitSome;
        }
        return exitAll;
    }

    void tell(int status) {
        Json line;
        line.add_text("event", "summary");
        line.add_text("operation", "relocate");
        line.add_text("status", status == exitAll ? "done" : status == exitSome ? "partly" : "failed");
        line.add_name("source", m_source);
        line.add_name("destination", m_destination);
        line.add_flag("source_kept", exists(m_source));
        line.add_number("exit_status", status);
        m_console.line(line.line());
    }

    const Options &m_options;
    std::string m_source, m_destination;
    Console m_console;
};

} // namespace

void add_relocate_command(const Command &program, int &status) {
    const Command command = program.add_command("relocate", "Bring a whole directory to another place, all at once");
    const auto options = std::make_shared<Options>();
    command.add_flag("--keep-source", options->keepSource, "leave the source where it is");
    command.add_flag("-y,--yes", options->yes, "do not explain and ask first");
    command.add_flag("--json", options->json, "a JSON object that tells what came of it");
    command.add_flag("--no-progress", options->noProgress, "no progress line on a terminal");
    const Option operands = command.add_operands("SRC", "SRC DST");
    command.set_footer("\nThe tree is copied into \"@tmp\" beside DST, which is emptied first; then DST is\n"
                       "REMOVED with everything in it and the copy takes its place. SRC is removed only\n"
                       "when everything in it arrived. DST is the new path itself, not a directory to\n"
                       "put SRC into. Owners, ACLs and extended metadata go along; the first entry that\n"
                       "fails ends it, with SRC and DST as they were.\n"
                       "Exit status: 0 done; 1 in place, but not all of it; 2 nothing done.\n"
                       "Example:\n"
                       "  vexofileop relocate --keep-source /volume1/photo /volume2/photo");
    command.set_work([&status, options, operands] {
        const std::vector<std::string> paths = operands.values();
        if (paths.size() != 2) {
            throw UsageError("give the directory and the path that it is to have");
        }
        status = Relocation(*options, absolute_path(paths[0]), absolute_path(paths[1])).run();
    });
}

} // namespace tool
