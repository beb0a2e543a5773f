#include "tools/engine/relocate/proof.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/compare/witness.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/descent.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_chain.h"
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

constexpr char kMoved[] = "somebody has moved a directory on the way meanwhile";

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
    Descriptor top = opened(tree.parent, tree.name, tree.path);
    struct stat found {};
    if (::fstat(top.get(), &found) == 0) {
        m_seen.insert_or_assign(found.st_ino, Seen(found, false));
    }
    const dev_t device = device_of(top.get());
    DirectoryChain way;
    Descent<std::string> descent(tree.path);
    if (!way.start(std::move(top))) {
        throw_errno(displayed(tree.path));
    }
    descent.enter(remember_level(way.lowest(), device, tree.path));
    while (!descent.empty()) {
        if (const std::string *const name = m_observer.stopped() ? nullptr : descent.next()) {
            descent.path = joined(descent.path, *name);
            if (!way.descend(opened(way.lowest(), *name, descent.path), *name)) {
                throw_errno(displayed(descent.path));
            }
            descent.enter(remember_level(way.lowest(), device, descent.path));
            continue;
        }
        if (!descent.is_at_top() && !way.hold_above()) {
            throw Failure(fmt::format("{}: {}", displayed(descent.path), kMoved));
        }
        descent.leave();
        way.ascend();
    }
}

// The directories in it.
std::vector<std::string> Proof::remember_level(int directory, dev_t device, const std::string &path) {
    const auto names = names_in(fmt::format("/proc/self/fd/{}/.", directory));
    if (!names) {
        throw_errno(displayed(path));
    }
    std::vector<std::string> directories;
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
            directories.push_back(name);
        }
    }
    return directories;
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
    std::vector<Loss> losses = m_staged ? complete_copy(source, copy, options) : compare_entries(source, copy, options);
    // How many names a file has is told where all of them are known.
    std::erase_if(losses, [](const Loss &loss) { return loss.cls == LossClass::hard_link; });
    return losses;
}

LinkedNames::Tell Proof::tell_apart() {
    return [this](const std::string &first, const std::string &, const Loss &loss) { (void)m_told(first, loss); };
}

void Proof::note_name(const std::string &path, const struct stat &found, const struct stat &copied) {
    if (S_ISREG(found.st_mode) && found.st_nlink > 1) {
        (void)m_names.meet({{found.st_dev, found.st_ino},
                            {copied.st_dev, copied.st_ino},
                            found.st_nlink,
                            copied.st_nlink,
                            path,
                            path,
                            found.st_size},
                           tell_apart());
    }
}

int Proof::compare(const TreeTop &tree, const TreeTop &copy) {
    Level above{tree.parent, copy.parent, volume_facts(tree.parent, tree.type), volume_facts(copy.parent, copy.type),
                ""};
    Descriptor top = opened(tree.parent, tree.name, tree.path);
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
    Descriptor there = open_directory(copy.parent, copy.name);
    if (there.get() < 0) {
        return count + lose(tree.path, {LossClass::data, fmt::format("the copy: {}", std::strerror(errno))});
    }
    count += walk(
        std::move(top), std::move(there), tree.path, [&](int source, int target, const std::string &path, int &lost) {
            return compare_level(
                {source, target, volume_facts(source, tree.type), volume_facts(target, copy.type), path}, lost);
        });
    m_names.finish(tell_apart());
    return count;
}

int Proof::walk(Descriptor source, Descriptor copy, const std::string &path, const CompareLevel &compare) {
    int count = 0;
    DirectoryChain from, to;
    Descent<Below> descent(path);
    if (!from.start(std::move(source)) || !to.start(std::move(copy))) {
        return lose(path, {LossClass::unreadable, std::strerror(errno)});
    }
    descent.enter(compare(from.lowest(), to.lowest(), path, count));
    while (!descent.empty()) {
        if (m_observer.stopped()) {
            return count + 1;
        }
        const Below *const below = descent.next();
        if (below == nullptr) {
            if (!descent.is_at_top() && !(from.hold_above() && to.hold_above())) {
                return count + 1 + lose(descent.path, {LossClass::unreadable, kMoved});
            }
            descent.leave();
            from.ascend();
            to.ascend();
            continue;
        }
        const std::string inner = joined(descent.path, below->name);
        Descriptor one = open_directory(from.lowest(), below->name);
        Descriptor other = one.get() < 0 ? Descriptor(-1) : open_directory(to.lowest(), below->there);
        if (one.get() < 0 || other.get() < 0) {
            count += lose(inner, {LossClass::unreadable, std::strerror(errno)});
        } else if (device_of(one.get()) != m_device) {
            count += lose(inner, {LossClass::not_carried, "another volume is mounted there"});
        } else if (!from.descend(std::move(one), below->name) || !to.descend(std::move(other), below->there)) {
            return count + 1 + lose(inner, {LossClass::unreadable, std::strerror(errno)});
        } else {
            descent.path = inner;
            descent.enter(compare(from.lowest(), to.lowest(), inner, count));
        }
    }
    return count;
}

std::vector<Proof::Below> Proof::compare_level(const Level &level, int &count) {
    std::vector<Below> below;
    try {
        const Listing listing = list_directory(level.source, level.sourceFacts.store);
        std::map<ino_t, ino_t> arrived;
        Fresh fresh;
        for (const Listing::Part &part : listing.strangers) {
            count += compare_stranger(level, listing, part);
        }
        for (const Listing::Item &item : listing.items) {
            if (m_observer.stopped()) {
                ++count;
                return {};
            }
            count += compare_entry(level, listing, item, arrived, below);
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
    return below;
}

int Proof::compare_entry(const Level &level, const Listing &listing, const Listing::Item &item,
                         std::map<ino_t, ino_t> &arrived, std::vector<Below> &below) {
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
        note_name(path, fresh.front(), copied);
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
    if (directory && S_ISDIR(copied.st_mode)) {
        below.push_back({item.name, there});
    }
    return count;
}

// What other services keep in a directory of the entry's own in "@eaDir".
int Proof::compare_own_directory(const Level &level, const Listing &listing, const Listing::Part &part,
                                 const std::string &path) {
    const Descriptor store = open_directory(level.copy, "@eaDir");
    Descriptor source = open_directory(listing.store->get(), part.name);
    Descriptor copy = open_directory(store.get(), name_at(level.copyFacts, part.name));
    if (source.get() < 0) {
        return lose(path, {LossClass::unreadable, std::strerror(errno)});
    }
    const std::string own = joined(joined(parent_of(path), "@eaDir"), part.name);
    return copy.get() < 0 ? compare_without_copy(source.get(), own)
                          : walk(std::move(source), std::move(copy), own,
                                 [this](int from, int to, const std::string &inner, int &count) {
                                     return compare_plain_level(from, to, inner, count);
                                 });
}

// Directories in it are not proven, and stay.
int Proof::compare_without_copy(int source, const std::string &path) {
    const auto names = names_in(fmt::format("/proc/self/fd/{}/.", source));
    int count = names ? 0 : lose(path, {LossClass::unreadable, std::strerror(errno)});
    for (const std::string &name : names.value_or(std::vector<std::string>())) {
        Fresh fresh;
        (void)look(source, name, fresh);
        const int lost = lose(joined(path, name), {LossClass::not_carried, "is not in the copy"});
        count += lost;
        if (lost == 0 && !fresh.empty() && !S_ISDIR(fresh.front().st_mode)) {
            prove(fresh);
        }
    }
    return count;
}

std::vector<Proof::Below> Proof::compare_plain_level(int source, int copy, const std::string &path, int &count) {
    std::vector<Below> below;
    const auto names = names_in(fmt::format("/proc/self/fd/{}/.", source));
    if (!names) {
        count += lose(path, {LossClass::unreadable, std::strerror(errno)});
        return below;
    }
    for (const std::string &name : *names) {
        Fresh fresh;
        (void)look(source, name, fresh);
        int lost = 0;
        for (const Loss &loss :
             compare_entries({source, name, plain_facts(volume_facts(source))},
                             {copy, name, plain_facts(volume_facts(copy))}, {.data = true, .times = !m_since})) {
            lost += lose(joined(path, name), loss);
        }
        count += lost;
        if (lost > 0) {
            continue;
        }
        prove(fresh);
        if (!fresh.empty() && S_ISDIR(fresh.front().st_mode)) {
            below.push_back({name, name});
        }
    }
    return below;
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
