#include "tools/engine/relocate/proof.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/compare/witness.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

std::string name_at(const VolumeFacts &there, const std::string &name) {
    return volume_traits(there.type).fatNames ? base_name(fat_name("/" + name)) : name;
}

// A directory of the tree, open; the top is opened by its parent.
Descriptor opened(int parent, const std::string &name, const std::string &path) {
    const int directory = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory < 0) {
        throw_errno(displayed(path));
    }
    return Descriptor(directory);
}

dev_t device_of(int fd) {
    struct stat found {};
    return ::fstat(fd, &found) == 0 ? found.st_dev : 0;
}

} // namespace

struct Proof::Level {
    int source, copy; // open directories
    VolumeFacts sourceFacts, copyFacts;
    std::string path; // for people
};

void Proof::remember(const TreeTop &tree) {
    const Descriptor top = opened(tree.parent, tree.name, tree.path);
    struct stat found {};
    if (::fstat(top.get(), &found) == 0) {
        m_seen.insert_or_assign(found.st_ino, Seen(found, false));
    }
    remember_directory(top.get(), device_of(top.get()), store_kind(tree.type), tree.path);
}

void Proof::remember_directory(int directory, dev_t device, StoreKind kind, const std::string &path) {
    const auto names = names_in(fmt::format("/proc/self/fd/{}/.", directory));
    if (!names) {
        throw_errno(displayed(path));
    }
    for (const std::string &name : *names) {
        struct stat found {};
        if (m_observer.stopped() || ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            continue; // gone again
        }
        m_seen.insert_or_assign(found.st_ino, Seen(found, false));
        if (found.st_dev != device) {
            throw Failure(fmt::format("{}: another volume is mounted there", displayed(joined(path, name))));
        }
        if (S_ISDIR(found.st_mode)) {
            const Descriptor inner = opened(directory, name, joined(path, name));
            remember_directory(inner.get(), device, kind, joined(path, name));
        }
    }
}

bool Proof::look(int directory, const std::string &name, Fresh &fresh) const {
    struct stat now {};
    if (::fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 || now.st_dev != m_device) {
        return false;
    }
    fresh.push_back(now);
    const auto before = m_seen.find(now.st_ino);
    return before != m_seen.end() && before->second.is(now);
}

void Proof::prove(const Fresh &fresh) {
    for (const struct stat &found : fresh) {
        m_seen.insert_or_assign(found.st_ino, Seen(found, true));
    }
}

int Proof::compare_rest(const TreeTop &tree, const TreeTop &copy, int64_t since) {
    m_since = since;
    return compare(tree, copy);
}

int Proof::compare_staged(const TreeTop &tree, const TreeTop &copy) {
    m_staged = true;
    const int count = compare(tree, copy);
    m_staged = false;
    return count;
}

std::vector<Loss> Proof::losses_of(const Side &source, const Side &copy, bool known, bool times) const {
    const CompareOptions options{
        .data = !known, .times = times, .begun = m_since.has_value(), .costs = true, .stopped = [this] {
            return m_observer.stopped();
        }};
    return m_staged ? complete_copy(source, copy, options) : compare_entries(source, copy, options);
}

int Proof::compare(const TreeTop &tree, const TreeTop &copy) {
    Level above{tree.parent, copy.parent, volume_facts(tree.parent, tree.type), volume_facts(copy.parent, copy.type),
                ""};
    const Descriptor top = opened(tree.parent, tree.name, tree.path);
    m_device = device_of(top.get());
    Fresh fresh;
    const bool known = look(tree.parent, tree.name, fresh);
    int count = 0;
    for (const Loss &loss : losses_of({tree.parent, tree.name, above.sourceFacts},
                                      {copy.parent, copy.name, above.copyFacts}, known, !m_since)) {
        count += lose(tree.path, loss);
    }
    if (count == 0) {
        prove(fresh);
    }
    const Descriptor there = open_directory(copy.parent, copy.name);
    if (there.get() < 0) {
        return count + lose(tree.path, {LossClass::data, fmt::format("the copy: {}", std::strerror(errno))});
    }
    return count + compare_directory({top.get(), there.get(), volume_facts(top.get(), tree.type),
                                      volume_facts(there.get(), copy.type), tree.path});
}

int Proof::compare_directory(const Level &level) {
    int count = 0;
    try {
        const Listing listing = list_directory(level.source, level.sourceFacts.store);
        std::map<ino_t, ino_t> arrived;
        Fresh fresh;
        for (const Listing::Part &part : listing.strangers) {
            count += compare_stranger(level, listing, part);
        }
        for (const Listing::Item &item : listing.items) {
            if (m_observer.stopped()) {
                return count + 1;
            }
            count += compare_entry(level, listing, item, arrived);
        }
        if (listing.store != nullptr) {
            (void)look(level.source, "@eaDir", fresh);
        }
        if (listing.cover) {
            (void)look(listing.store->get(), ".cover", fresh);
        }
        prove(fresh);
    } catch (const Failure &failure) {
        count += lose(level.path, {LossClass::unreadable, failure.what()});
    }
    return count;
}

int Proof::compare_entry(const Level &level, const Listing &listing, const Listing::Item &item,
                         std::map<ino_t, ino_t> &arrived) {
    const std::string path = joined(level.path, item.name), there = name_at(level.copyFacts, item.name);
    Fresh fresh;
    bool known = look(level.source, item.name, fresh);
    if (fresh.empty()) {
        return 0; // went away meanwhile
    }
    for (const Listing::Part &part : item.parts) {
        known = look(listing.place_of(part, level.source), part.name, fresh) && known;
    }
    const bool directory = item.type == DT_DIR;
    std::vector<Loss> losses = losses_of({level.source, item.name, level.sourceFacts},
                                         {level.copy, there, level.copyFacts}, known, !directory || !m_since);
    struct stat copied {};
    if (::fstatat(level.copy, there.c_str(), &copied, AT_SYMLINK_NOFOLLOW) == 0) {
        const auto first = arrived.try_emplace(copied.st_ino, fresh.front().st_ino);
        if (first.first->second != fresh.front().st_ino) {
            losses.push_back({LossClass::name_clash, "another entry of the source has become the same one"});
        } else if (there != item.name) {
            losses.push_back({LossClass::name_changed, fmt::format("is {} in the copy", displayed(there))});
        }
    }
    int count = 0;
    for (const Loss &loss : losses) {
        count += lose(path, loss);
    }
    for (const Listing::Part &part : item.parts) {
        if (part.inStore && part.name == item.name && count == 0) {
            count += compare_own_directory(level, listing, part, path);
        }
    }
    if (count == 0) {
        prove(fresh);
    }
    if (!directory || !S_ISDIR(copied.st_mode)) {
        return count;
    }
    const Descriptor inner = opened(level.source, item.name, path), copy = opened(level.copy, there, path);
    if (device_of(inner.get()) != m_device) {
        return lose(path, {LossClass::not_carried, "another volume is mounted there"});
    }
    return count + compare_directory({inner.get(), copy.get(), volume_facts(inner.get(), level.sourceFacts.type),
                                      volume_facts(copy.get(), level.copyFacts.type), path});
}

// What other services keep in a directory of the entry's own in "@eaDir".
int Proof::compare_own_directory(const Level &level, const Listing &listing, const Listing::Part &part,
                                 const std::string &path) {
    const Descriptor store = open_directory(level.copy, "@eaDir");
    const Descriptor source = open_directory(listing.store->get(), part.name);
    const Descriptor copy = open_directory(store.get() < 0 ? -1 : store.get(), name_at(level.copyFacts, part.name));
    if (source.get() < 0) {
        return lose(path, {LossClass::unreadable, std::strerror(errno)});
    }
    return compare_plain(source.get(), copy.get(), joined(joined(parent_of(path), "@eaDir"), part.name));
}

int Proof::compare_plain(int source, int copy, const std::string &path) {
    const auto names = names_in(fmt::format("/proc/self/fd/{}/.", source));
    if (!names) {
        return lose(path, {LossClass::unreadable, std::strerror(errno)});
    }
    int count = 0;
    for (const std::string &name : *names) {
        const std::string inner = joined(path, name);
        Fresh fresh;
        (void)look(source, name, fresh);
        const auto losses = copy < 0 ? std::vector<Loss>{{LossClass::not_carried, "is not in the copy"}}
                                     : compare_entries({source, name, plain_facts(volume_facts(source))},
                                                       {copy, name, plain_facts(volume_facts(copy))},
                                                       {.data = true, .times = !m_since});
        int lost = 0;
        for (const Loss &loss : losses) {
            lost += lose(inner, loss);
        }
        count += lost;
        if (lost > 0) {
            continue;
        }
        prove(fresh);
        if (!fresh.empty() && S_ISDIR(fresh.front().st_mode)) {
            const Descriptor from = opened(source, name, inner), to = opened(copy, name, inner);
            count += compare_plain(from.get(), to.get(), inner);
        }
    }
    return count;
}

int Proof::compare_stranger(const Level &level, const Listing &listing, const Listing::Part &part) {
    if (is_rest(level, listing, part)) {
        Fresh fresh;
        (void)look(listing.place_of(part, level.source), part.name, fresh);
        prove(fresh);
        return 0;
    }
    return lose(joined(level.path, part_text(part)),
                {LossClass::not_carried, "belongs to the system or to no entry, and stays where it is"});
}

// What was kept for an entry that is removed already: proven with it, and left by a stop between the two.
bool Proof::is_rest(const Level &level, const Listing &listing, const Listing::Part &part) const {
    const auto now = m_since ? Witness::of(listing.place_of(part, level.source), part.name) : std::nullopt;
    if (!now || now->seen().st_ctim.tv_sec > *m_since) {
        return false;
    }
    const size_t at = part.name.rfind('@');
    const std::string owner = !part.inStore && part.name.starts_with("._")        ? part.name.substr(2)
                              : part.inStore && at != std::string::npos && at > 0 ? part.name.substr(0, at)
                                                                                  : part.name;
    return S_ISREG(now->seen().st_mode) && Witness::of(level.copy, name_at(level.copyFacts, owner)) &&
           !Witness::of(level.source, owner);
}

std::optional<bool> Proof::holds(int fd) const {
    struct stat now {};
    if (::fstat(fd, &now) != 0 || now.st_dev != m_device) {
        return false;
    }
    const auto found = m_seen.find(now.st_ino);
    const bool proven = found != m_seen.end() && found->second.proven;
    return proven ? std::optional(found->second.is(now)) : std::nullopt;
}

void Proof::renew(int fd) {
    struct stat now {};
    const auto found = ::fstat(fd, &now) == 0 ? m_seen.find(now.st_ino) : m_seen.end();
    if (found == m_seen.end()) {
        return;
    }
    if (now.st_nlink == 0) {
        m_seen.erase(found); // a new file may get the number
        return;
    }
    Seen expected = found->second;
    expected.changed = now.st_ctim;
    found->second = expected.is(now) ? expected : found->second;
}

Proof::Seen::Seen(const struct stat &found, bool isProven)
    : mode(found.st_mode), proven(isProven), size(found.st_size), modified(found.st_mtim), changed(found.st_ctim) {}

bool Proof::Seen::is(const struct stat &now) const {
    struct stat then = now; // the same inode
    then.st_mode = mode;
    then.st_size = size;
    then.st_mtim = modified;
    then.st_ctim = changed;
    return Witness(then).is(now);
}

} // namespace engine
