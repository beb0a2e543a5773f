#include "tools/engine/remove/tree_removal.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

bool is_refused(const std::string &path) {
    const std::string name = base_name(path);
    return name.empty() || name == "..";
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

void TreeRemoval::run(const std::string &given) {
    const bool slash = given.size() > 1 && given.ends_with('/');
    const bool itself = given.ends_with("/.");
    std::string path = given.substr(0, given.size() - (itself ? 2 : slash ? 1 : 0));
    path = path.empty() ? "/" : path;
    Entry entry{AT_FDCWD, base_name(path), path, -1};
    if (itself || is_refused(path)) {
        failed(entry, {"refused; \"/\", \".\" and \"..\" are never removed"});
        return;
    }
    // Open while entries are removed: they are reached through it, so that nobody can put a link into the path
    // meanwhile.
    const Descriptor parent = open_directory(AT_FDCWD, parent_of(path) + "/.");
    struct stat found {};
    if (parent.get() < 0 || ::fstatat(parent.get(), entry.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        if (!m_options.force || (errno != ENOENT && errno != ENOTDIR)) {
            failed(entry, problem_of_errno(errno));
        }
        return;
    }
    if (slash && !S_ISDIR(found.st_mode)) {
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
    return confirmed(entry, RemovalQuestion::entry) && unlink(entry, 0);
}

bool TreeRemoval::remove_directory(const Entry &entry) {
    if (!m_options.recursive) {
        return failed(entry, problem_of_directory());
    }
    const Descriptor directory = open_directory(entry.parent, entry.name);
    if (directory.get() < 0) {
        return failed(entry, problem_of_errno(errno));
    }
    if (!confirmed(entry, RemovalQuestion::into_directory)) {
        return false;
    }
    if (!empty(entry, directory.get())) {
        return false; // said of the entry that stays
    }
    return confirmed(entry, RemovalQuestion::directory) && unlink(entry, AT_REMOVEDIR);
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
        if (m_observer.stopped()) {
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
    m_observer.entry(entry.path, entry.mode, Status::done, nullptr);
    return true;
}

bool TreeRemoval::confirmed(const Entry &entry, RemovalQuestion question) {
    if (entry.metadata || m_observer.may_remove(entry.path, question)) {
        return true;
    }
    m_observer.entry(entry.path, entry.mode, Status::skipped, nullptr);
    return false;
}

bool TreeRemoval::failed(const Entry &entry, const Problem &problem) {
    m_observer.entry(entry.path, entry.mode, Status::failed, &problem);
    return false;
}

} // namespace engine
