#include "tools/engine/relocate/removal.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

Problem problem_of_removal(int number) {
    return number == ENOTEMPTY || number == EEXIST ? Problem{"something was put into it meanwhile"}
                                                   : problem_of_errno(number);
}

} // namespace

bool SourceRemoval::run(const TreeTop &tree) {
    return remove_directory(tree.parent, tree.name, m_copy.parent, store_kind(tree.type), tree.path);
}

bool SourceRemoval::remove_directory(int parent, const std::string &name, int copyParent, StoreKind kind,
                                     const std::string &path) {
    const bool top = copyParent == m_copy.parent;
    const std::string there = top ? m_copy.name : name;
    const Descriptor directory = open_directory(parent, name);
    if (directory.get() < 0) {
        return errno == ENOENT || left(path, problem_of_errno(errno));
    }
    const auto proven = m_proof.holds(directory.get());
    if (!proven) {
        return left(path, {"was put there meanwhile, and stays"});
    }
    const Descriptor copy = open_directory(copyParent, there);
    // Its times are those of what was put into it or taken from it.
    if (!*proven &&
        !compare_entries({parent, name, volume_facts(parent)},
                         {copyParent, there, volume_facts(copyParent, m_copy.type)}, {.times = false, .begun = true})
             .empty()) {
        (void)empty(directory.get(), copy.get(), kind, path);
        return left(path, {"was changed meanwhile, and stays"});
    }
    return empty(directory.get(), copy.get(), kind, path) && finish(parent, name, path);
}

bool SourceRemoval::finish(int parent, const std::string &name, const std::string &path) {
    if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        return left(path, problem_of_removal(errno));
    }
    ++m_removed;
    return true;
}

bool SourceRemoval::empty(int directory, int copy, StoreKind kind, const std::string &path) {
    bool complete = true;
    try {
        const Listing listing = list_directory(directory, kind);
        for (const Listing::Item &item : listing.items) {
            if (m_observer.stopped()) {
                return false;
            }
            complete = remove_item(directory, copy, kind, listing, item, joined(path, item.name)) && complete;
        }
        for (const Listing::Part &part : listing.strangers) {
            complete = unlink(listing.place_of(part, directory), part.name, joined(path, part_text(part))) && complete;
        }
        return complete && (listing.store == nullptr || empty_store(directory, listing, path));
    } catch (const Failure &failure) {
        return left(path, {failure.what()});
    }
}

bool SourceRemoval::empty_store(int directory, const Listing &listing, const std::string &path) {
    const std::string store = joined(path, "@eaDir");
    return (!listing.cover || unlink(listing.store->get(), ".cover", joined(store, ".cover"))) &&
           finish(directory, "@eaDir", store);
}

// What other services keep for it goes first and its store last: a run that is stopped between the two leaves only what
// is known to have had an entry.
bool SourceRemoval::remove_item(int directory, int copy, StoreKind kind, const Listing &listing,
                                const Listing::Item &item, const std::string &path) {
    for (const Listing::Part &part : item.parts) {
        if (part.inStore && part.name == item.name &&
            !remove_plain(listing.store->get(), part.name, joined(joined(parent_of(path), "@eaDir"), part.name))) {
            return false;
        }
    }
    const bool gone = item.type == DT_DIR ? remove_directory(directory, item.name, copy, kind, path)
                                          : unlink(directory, item.name, path);
    bool complete = gone;
    for (const Listing::Part &part : item.parts) {
        if (gone && !(part.inStore && part.name == item.name)) {
            complete = unlink(listing.place_of(part, directory), part.name, joined(parent_of(path), part_text(part))) &&
                       complete;
        }
    }
    return complete;
}

bool SourceRemoval::remove_plain(int parent, const std::string &name, const std::string &path) {
    const Descriptor directory = open_directory(parent, name);
    if (directory.get() < 0) {
        return errno == ENOTDIR || errno == ELOOP ? unlink(parent, name, path)
                                                  : errno == ENOENT || left(path, problem_of_errno(errno));
    }
    bool complete = true;
    for (const std::string &inner :
         names_in(fmt::format("/proc/self/fd/{}/.", directory.get())).value_or(std::vector<std::string>())) {
        complete = remove_plain(directory.get(), inner, joined(path, inner)) && complete;
    }
    return complete && finish(parent, name, path);
}

bool SourceRemoval::unlink(int parent, const std::string &name, const std::string &path) {
    const Descriptor entry(::openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (entry.get() < 0) {
        return errno == ENOENT || left(path, problem_of_errno(errno));
    }
    const auto proven = m_proof.holds(entry.get());
    if (!proven || !*proven) {
        return left(path, {proven ? "was changed meanwhile, and stays" : "was put there meanwhile, and stays"});
    }
    if (::unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT) {
        return left(path, problem_of_errno(errno));
    }
    m_proof.renew(entry.get());
    ++m_removed;
    return true;
}

namespace {

class PrivateRemoval {
  public:
    PrivateRemoval(dev_t device, const Observer *observer, const NotRemoved &told)
        : m_device(device), m_observer(observer), m_told(told) {}

    bool run(int parent, const std::string &name, const std::string &path) {
        struct stat found {};
        if (::fstatat(parent, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            return errno == ENOENT || left(path, problem_of_errno(errno));
        }
        if (!S_ISDIR(found.st_mode)) {
            return ::unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT || left(path, problem_of_errno(errno));
        }
        if (found.st_dev != m_device) {
            return left(path, {"another volume is mounted there"});
        }
        if ((found.st_mode & S_IRWXU) != S_IRWXU && ::geteuid() != 0) {
            (void)::fchmodat(parent, name.c_str(), S_IRWXU, 0); // nobody else can put a link there
        }
        return empty(parent, name, path) &&
               (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 || left(path, problem_of_errno(errno)));
    }

  private:
    bool empty(int parent, const std::string &name, const std::string &path) {
        const Descriptor directory = open_directory(parent, name);
        const auto names =
            directory.get() < 0 ? std::nullopt : names_in(fmt::format("/proc/self/fd/{}/.", directory.get()));
        if (!names) {
            return left(path, problem_of_errno(errno));
        }
        bool complete = true;
        for (const std::string &inner : *names) {
            if (m_observer != nullptr && m_observer->stopped()) {
                return false;
            }
            complete = run(directory.get(), inner, joined(path, inner)) && complete;
        }
        return complete;
    }
    bool left(const std::string &path, const Problem &problem) const {
        m_told(path, problem);
        return false;
    }

    dev_t m_device;
    const Observer *m_observer;
    const NotRemoved &m_told;
};

} // namespace

bool remove_private(int parent, const std::string &name, const std::string &path, const Observer *observer,
                    const NotRemoved &told) {
    struct stat found {};
    const dev_t device = ::fstat(parent, &found) == 0 ? found.st_dev : 0;
    return PrivateRemoval(device, observer, told).run(parent, name, path);
}

} // namespace engine
