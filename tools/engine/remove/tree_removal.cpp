#include "tools/engine/remove/tree_removal.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/signals.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

// A directory that is open while its entries are removed: they are reached through it, so that nobody can put a link
// into the path meanwhile.
class OpenDirectory {
  public:
    OpenDirectory(int parent, const char *name) : m_fd(::openat(parent, name, kFlags)) {}
    OpenDirectory(const OpenDirectory &) = delete;
    OpenDirectory &operator=(const OpenDirectory &) = delete;
    ~OpenDirectory() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    int get() const { return m_fd; }

  private:
    static constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int m_fd;
};

const char *event_word(mode_t mode) {
    return S_ISDIR(mode) ? "directory" : S_ISLNK(mode) ? "link" : S_ISREG(mode) ? "file" : "other";
}

bool is_refused(const std::string &given) {
    std::string name = given;
    while (name.size() > 1 && name.ends_with('/')) {
        name.pop_back();
    }
    const std::string base = base_name(name);
    return base.empty() || base == "." || base == "..";
}

} // namespace

struct TreeRemoval::Entry {
    int parent; // descriptor of the directory that holds it
    std::string name;
    std::string path; // for people and for the store
    int type;         // of the volume
    mode_t mode = 0;
    bool metadata = false; // belongs to another entry: neither asked about nor counted
};

bool TreeRemoval::stopped() const {
    return stop_signal() != 0 || (m_options.stopOnError && m_failed > 0);
}

int TreeRemoval::run(const std::vector<std::string> &paths) {
    raise_descriptor_limit();
    for (const std::string &given : paths) {
        if (stopped()) {
            break;
        }
        operand(given);
    }
    return finish();
}

void TreeRemoval::operand(const std::string &given) {
    const std::string path = absolute_path(given);
    Entry entry{AT_FDCWD, base_name(path), path, -1};
    if (is_refused(given) || path == "/") {
        failed(entry, {"refused; \"/\", \".\" and \"..\" are never removed"});
        return;
    }
    const OpenDirectory parent(AT_FDCWD, (parent_of(path) + "/.").c_str());
    struct stat found {};
    if (parent.get() < 0 || ::fstatat(parent.get(), entry.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        if (!m_options.force || (errno != ENOENT && errno != ENOTDIR)) {
            failed(entry, problem_of_errno(errno));
        }
        return;
    }
    if (given.ends_with('/') && !S_ISDIR(found.st_mode)) {
        failed(entry, {fmt::format("is {}, not a directory; give it without the slash",
                                   S_ISREG(found.st_mode) ? "a file" : kind_of(found.st_mode))});
        return;
    }
    entry.parent = parent.get();
    entry.mode = found.st_mode;
    entry.type = VEXOGetFSType(parent_of(path).c_str(), 0);
    remove(entry);
}

// Whether it is gone.
bool TreeRemoval::remove(const Entry &entry) {
    if (S_ISDIR(entry.mode)) {
        return remove_directory(entry);
    }
    return confirmed(entry, "remove {}?") && unlink(entry, 0);
}

bool TreeRemoval::remove_directory(const Entry &entry) {
    if (!m_options.recursive) {
        return failed(entry, {"is a directory; -r removes it with everything in it"});
    }
    const OpenDirectory directory(entry.parent, entry.name.c_str());
    if (directory.get() < 0) {
        return failed(entry, problem_of_errno(errno));
    }
    if (!confirmed(entry, "go into the directory {}?")) {
        return false;
    }
    if (!empty(entry, directory.get())) {
        return false; // said of the entry that stays
    }
    return confirmed(entry, "remove the directory {}?") && unlink(entry, AT_REMOVEDIR);
}

bool TreeRemoval::empty(const Entry &entry, int fd) {
    const auto names = names_in(fmt::format("/proc/self/fd/{}/.", fd));
    if (!names) {
        return failed(entry, problem_of_errno(errno));
    }
    const int type = VEXOGetFSType(entry.path.c_str(), 0);
    bool complete = true;
    for (const std::string &name : *names) {
        const NameKind kind = name_kind(entry.path, name, type);
        if (!entry.metadata && (kind == NameKind::store || kind == NameKind::companion)) {
            continue; // goes with what it belongs to
        }
        if (stopped()) {
            return false;
        }
        Entry inner{fd, name, joined(entry.path, name), type};
        inner.metadata = entry.metadata;
        struct stat found {};
        if (::fstatat(fd, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            complete = errno == ENOENT ? complete : failed(inner, problem_of_errno(errno));
            continue;
        }
        inner.mode = found.st_mode;
        complete = remove(inner) && complete;
    }
    return complete && (entry.metadata || remove_metadata(entry, fd));
}

// What is left when all entries are gone: a store, or metadata, of entries that were removed by somebody else.
bool TreeRemoval::remove_metadata(const Entry &entry, int fd) {
    VEXOEARemoveDanglingEADir(entry.path.c_str());
    bool complete = true;
    for (const std::string &name :
         names_in(fmt::format("/proc/self/fd/{}/.", fd)).value_or(std::vector<std::string>())) {
        struct stat found {};
        const NameKind kind = name_kind(entry.path, name, entry.type);
        const bool belongs = kind == NameKind::store || name.starts_with("._");
        if (belongs && ::fstatat(fd, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
            complete = remove({fd, name, joined(entry.path, name), entry.type, found.st_mode, true}) && complete;
        }
    }
    return complete;
}

bool TreeRemoval::unlink(const Entry &entry, int flags) {
    if (::unlinkat(entry.parent, entry.name.c_str(), flags) != 0 && errno != ENOENT) {
        return failed(entry,
                      errno == ENOTEMPTY ? Problem{"something was put into it meanwhile"} : problem_of_errno(errno));
    }
    if (entry.metadata) {
        return true;
    }
    VLIBCErrSetEx(0, "", 0);
    if (VEXOEARemove(entry.path.c_str(), entry.type) != 0) {
        failed(entry, {"removed, but not all of its extended metadata", VLIBCErrGet()});
        return true;
    }
    ++m_done;
    tell(entry, Status::done, nullptr);
    return true;
}

bool TreeRemoval::confirmed(const Entry &entry, const char *question) {
    if (!m_options.ask || entry.metadata ||
        m_console.confirm(fmt::format(fmt::runtime(question), displayed(entry.path)))) {
        return true;
    }
    if (stop_signal() == 0) {
        ++m_kept;
        tell(entry, Status::skipped, nullptr);
    }
    return false;
}

bool TreeRemoval::failed(const Entry &entry, const Problem &problem) {
    ++m_failed;
    tell(entry, Status::failed, &problem);
    return false;
}

void TreeRemoval::tell(const Entry &entry, Status status, const Problem *problem) {
    if (problem != nullptr) {
        m_console.message(problem->code == 0 ? fmt::format("{}: {}", displayed(entry.path), problem->reason)
                                             : fmt::format("{}: {} ({})", displayed(entry.path), problem->reason,
                                                           code_text(problem->code)));
    }
    if (m_options.json) {
        Json line;
        line.add_text("event", event_word(entry.mode));
        line.add_text("operation", "remove");
        line.add_text("status", word_of(status));
        line.add_name("path", entry.path);
        if (problem != nullptr) {
            Json error;
            if (problem->code != 0) {
                error.add_text("code", code_text(problem->code));
            }
            error.add_text("reason", problem->reason);
            line.add_object("error", std::move(error));
        }
        m_console.line(line.line());
    } else if (m_options.verbose && status != Status::failed) {
        m_console.line(displayed(entry.path) + (status == Status::done ? "" : " (kept)"));
    }
}

int TreeRemoval::finish() {
    int status = stop_signal() != 0 ? exitSignal + stop_signal() : exit_status(m_done + m_kept, m_failed);
    if (stop_signal() != 0) {
        m_console.message(fmt::format("stopped; {} removed", m_done));
    } else if (stopped()) {
        m_console.message("stopped at the first failure (--stop-on-error)");
    }
    if (m_options.json) {
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", "remove");
        summary.add_number("done", m_done);
        summary.add_number("skipped", m_kept);
        summary.add_number("failed", m_failed);
        summary.add_flag("cancelled", stop_signal() != 0);
        summary.add_number("exit_status", status);
        m_console.line(summary.line());
    } else if (m_options.recursive && !m_options.quiet) {
        m_console.line(fmt::format("{} removed, {} kept, {} failed", m_done, m_kept, m_failed));
    }
    if (!m_console.check_output() && status == exitAll) {
        status = exitSome;
    }
    return status;
}

} // namespace tool
