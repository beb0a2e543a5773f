// Directories that the library copies with one call: which ones, and what is there afterwards. See tree_transfer.h.
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/compare/plain_files.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/link_transfer.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/stack_room.h"
#include "tools/engine/walk/working_directory.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr mode_t kPermissions = 0777, kAllModeBits = 07777;
constexpr size_t kMostAtOnce = 500;       // entries that one of several processes takes as a whole
constexpr off_t kSizeOfCounting = 20'000; // of a directory: not to be listed only to be counted

// Whether owners can be given, and modes do not stand in the way: the library makes a read-only directory before what
// goes into it. Tried on a file without a name, which nobody else can open: "nobody" is who owners look like that have
// no number here. Root may be refused too: by a server, or where it has not all of root's rights, as in a container.
bool has_all_rights(const char *directory) {
    constexpr uid_t nobody = 65534;
    const Descriptor file(::open(directory, O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (file.get() < 0 || ::fchown(file.get(), nobody, nobody) != 0 || ::fchmod(file.get(), 0) != 0) {
        return false;
    }
    const std::string again = fmt::format("/proc/self/fd/{}", file.get());
    return Descriptor(::open(again.c_str(), O_WRONLY | O_CLOEXEC)).get() >= 0;
}

// Whether only this user, or root, makes and exchanges entries of a directory.
bool is_ours(const struct stat &directory) {
    constexpr mode_t others = S_IWGRP | S_IWOTH;
    return (directory.st_uid == ::geteuid() || directory.st_uid == 0) && (directory.st_mode & others) == 0;
}

int64_t size_of(const HeldDirectory &directory, const std::string &name) {
    const auto found = directory.look(name);
    return found && S_ISREG(found->st_mode) ? found->st_size : 0;
}

} // namespace

// A directory is handed over when nobody else can reach its destination, nothing stands there yet, and nobody else can
// exchange anything in it.
bool TreeTransfer::may_be_whole(const Level &level, const std::string &name, const struct stat &found) {
    return m_whole && !m_checking && level.made && !m_files.clones(level.from, level.to) &&
           found.st_dev == m_sourceDevice && m_sourceTraits.wholeTrees && takes_every_name(level.to.facts().magic) &&
           !m_sourceKeepsMac && carries_all(level) && is_ours(level.status.st) &&
           is_ours_all_down(level.from.fd(), name);
}

// Of files that have other names the library would copy each for itself. A look at a few is enough where whole trees
// are linked with one another; one that hides behind them becomes a link afterwards.
bool TreeTransfer::has_linked_files(int directory, const std::vector<Entry> &entries) const {
    constexpr int mostAsked = 2;
    int asked = 0;
    for (const Entry &entry : entries) {
        struct stat found {};
        if (entry.type != DT_REG || !m_files.keeps_hard_links()) {
            continue;
        }
        if (::fstatat(directory, entry.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_nlink > 1) {
            return true;
        }
        if (++asked == mostAsked) {
            break;
        }
    }
    return false;
}

// The same of a directory with all those in it. An "@eaDir", which is everybody's by design, is not asked: what the
// library takes from there it opens without following a link. One that has failed once is not looked through again.
bool TreeTransfer::is_ours_all_down(int parent, const std::string &name) {
    m_lookedAt = 0;
    Descriptor directory = open_directory(parent, name);
    return is_ours_all_down(directory, 0);
}

bool TreeTransfer::is_ours_all_down(Descriptor &directory, int depth) {
    constexpr int mostHeld = 6;
    struct stat here {
    }, again{};
    if (!has_stack_room() || directory.get() < 0 || ::fstat(directory.get(), &here) != 0 || !is_ours(here) ||
        m_made.contains(here) || m_shared.contains({here.st_dev, here.st_ino}) ||
        (m_telling != nullptr && here.st_size > kSizeOfCounting)) {
        return false;
    }
    const auto entries = entries_in(directory.get());
    const auto below = [&](const std::string &name) {
        Descriptor child = open_directory(directory.get(), name);
        if (depth >= mostHeld) {
            directory = Descriptor(-1);
        }
        bool ours = is_ours_all_down(child, depth + 1);
        if (ours && directory.get() < 0) { // the way back, for which the child is still open
            directory = open_directory(child.get(), "..");
            ours = directory.get() >= 0 && ::fstat(directory.get(), &again) == 0 && same(here, again);
        }
        return ours;
    };
    m_lookedAt += entries ? entries->size() : 0;
    if (m_telling != nullptr && m_lookedAt > kMostAtOnce) {
        return false;
    }
    const bool ours = entries && !has_linked_files(directory.get(), *entries) &&
                      std::ranges::all_of(*entries, [&](const Entry &entry) {
                          return !is_private_name(entry.name) &&
                                 (entry.type != DT_DIR || is_store_name(entry.name) || below(entry.name));
                      });
    if (!ours && (m_telling == nullptr || m_lookedAt <= kMostAtOnce)) {
        m_shared.insert({here.st_dev, here.st_ino});
    }
    return ours;
}

// Whether the destination's volume takes everything that a source can have, asked once a volume.
bool TreeTransfer::carries_all(const Level &level) {
    const char *const directory = level.destination.c_str();
    const dev_t device = level.there.st_dev;
    if (!m_carryAll.contains(device) && !m_carryLess.contains(device)) {
        const bool all = ::geteuid() == 0 && volume_traits(VEXOGetFSType(directory, 0)).wholeTrees &&
                         has_all_rights(directory) && keeps_names_apart(directory);
        (all ? m_carryAll : m_carryLess).insert(device);
    }
    return m_carryAll.contains(device);
}

// In a private directory, so that nobody takes for whole what is not. The library gives what it makes the mode of its
// source, and nobody could tell from a stopped command's whose it is; the directory around it is closed.
void TreeTransfer::copy_whole(const Place &source, const Place &destination, bool withStore) {
    if (m_observer.stopped()) {
        return;
    }
    m_observer.begins(source.path());
    const std::string room = next_private_name(), made = "tree";
    const HeldDirectory inside =
        ::mkdirat(destination.in.fd(), room.c_str(), 0700) == 0 ? HeldDirectory(destination.in, room) : HeldDirectory();
    if (!inside.is_open()) {
        failed(source.path(), destination.path(), problem_of_errno(errno));
        return;
    }
    const bool inherits = hands_on_an_acl(destination.in.fd());
    TreeCall call = call_library(source, inside.below(made));
    call.inherits = inherits;
    const Renaming renaming{
        .from = inside, .before = made, .to = destination.in, .name = destination.name, .withStore = withStore};
    std::optional<Problem> problem;
    const auto placed = inside.look(made) ? rename_with_store(renaming) : Problem{};
    if (!placed) {
        problem = problem_of_placing(errno);
    }
    auto stays = clear_away(destination.in.fd(), room);
    if (placed && !placed->reason.empty()) { // what tells of its store may stand there still
        stays = placed;
    }
    if (problem) {
        failed(source.path(), destination.path(), std::move(*problem));
        return;
    }
    if (call.all_arrived()) {
        m_observer.arrived(destination.path(), 0, call.bytes);
    }
    m_checking = true; // What did not arrive is copied one by one.
    check(source, destination, call.source, call);
    m_checking = false;
    if (stays) { // beside the tree, which has arrived
        failed(source.path(), destination.path(), std::move(*stays));
    }
}

// Files with stores go by their paths, each of them. A process of this run's own, which nobody else has a part of, goes
// to where the source is.
TreeCall TreeTransfer::call_library(const Place &source, const std::string &destination) const {
    const WorkingDirectory working;
    const bool near = m_telling != nullptr && working.enter(source.in.fd());
    return call_tree_copy(near ? "./" + source.name : source.held(), destination, m_observer);
}

// One level of the tree that the library has copied.
void TreeTransfer::check(const Place &source, const Place &destination, const std::string &held, const TreeCall &call) {
    Level level{source.path(), destination.path()};
    level.outcome.destination = level.destination;
    level.made = true;
    level.to = HeldDirectory(destination.in, destination.name);
    if (!level.to.is_open() || ::fstat(level.to.fd(), &level.there) != 0) {
        directory(source, destination);
        return;
    }
    m_made.add(level.there, source.name, destination.in, destination.name);
    level.from = HeldDirectory(source.in, source.name);
    level.held = held;
    const auto found = compare(level, call);
    if (!found) {
        return;
    }
    descend(source, destination);
    check_files(level, found->files, call);
    for (const std::string &name : found->links) {
        check_link(level, name);
    }
    for (const std::string &name : found->directories) {
        check({level.from, name}, {level.to, name}, joined(held, name), call);
    }
    copy_rest(level, *found);
    if (!ascend(level, source, destination)) {
        failed(level.source, level.destination, {"a directory was moved away meanwhile; not finished"});
        return;
    }
    check_directory(level, source, destination, !found->rest.empty());
    tell(EntryKind::directory, level.source, level.outcome);
}

// Nothing: the source cannot be read, which has been told.
std::optional<TreeTransfer::Found> TreeTransfer::compare(Level &level, const TreeCall &call) {
    if (!level.from.is_open() ||
        VLIBCFileStat(level.from.itself().c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME,
                      &level.status) != 0) {
        (void)unreadable(level);
        return std::nullopt;
    }
    auto entries = entries_in(level.from.fd());
    if (!entries) {
        (void)unreadable(level);
        return std::nullopt;
    }
    Types types;
    // One that cannot be read shows nothing, and the walk meets what is there.
    for (Entry &copy : entries_in(level.to.fd()).value_or(std::vector<Entry>())) {
        types.insert({std::move(copy.name), copy.type});
    }
    Found found;
    for (Entry &entry : *entries) {
        sort_entry(level, std::move(entry), types, call, found);
    }
    return found;
}

// Believes a success only when it can be seen: an entry has arrived when one of its name and type is there and the
// library has not reported it.
void TreeTransfer::sort_entry(Level &level, Entry entry, const Types &types, const TreeCall &call, Found &found) const {
    const NameKind kind = name_kind(level.source, entry.name, m_sourceType);
    if (kind == NameKind::store) {
        level.hasStore = true;
        return;
    }
    const auto copy = types.find(entry.name);
    const bool arrived =
        kind == NameKind::ordinary && copy != types.end() && copy->second == entry.type &&
        (call.refused.empty() || entry.type == DT_DIR || !call.refused.contains(joined(level.held, entry.name)));
    std::vector<std::string> &names = !arrived               ? found.rest
                                      : entry.type == DT_REG ? found.files
                                      : entry.type == DT_LNK ? found.links
                                      : entry.type == DT_DIR ? found.directories
                                                             : found.rest;
    names.push_back(std::move(entry.name));
}

// Files are there, in all likelihood with everything.
void TreeTransfer::check_files(const Level &level, const std::vector<std::string> &names, const TreeCall &call) {
    const bool bytesKnown = call.all_arrived();
    const DirectoryPair pair{level.from.fd(),  level.to.fd(), level.from.facts(),
                             level.to.facts(), call.begun,    call.inherits};
    const std::vector<std::string> rest =
        m_files.compares() ? files_to_compare(pair, names) : std::vector<std::string>();
    // Whoever compares by himself has links all the same.
    for (const std::string &name : m_files.compares() ? std::vector<std::string>() : names) {
        m_files.link_names(level.from, level.to, name);
    }
    auto files = static_cast<int>(names.size() - rest.size());
    int64_t bytes = 0;
    for (const std::string &name : bytesKnown ? std::vector<std::string>() : names) {
        bytes += size_of(level.from, name);
    }
    for (const std::string &name : rest) {
        Outcome outcome;
        outcome.losses = m_files.losses_of(level.from, level.to, name);
        if (outcome.losses.empty()) {
            ++files;
            continue;
        }
        outcome.bytes = bytesKnown ? 0 : size_of(level.from, name);
        bytes -= outcome.bytes;
        outcome.destination = joined(level.destination, name);
        tell(EntryKind::file, joined(level.source, name), outcome);
    }
    m_observer.arrived(level.destination, files, bytes);
}

// The library makes links, and leaves owner and times of a link to chance.
void TreeTransfer::check_link(const Level &level, const std::string &name) {
    if (const auto found = level.from.look(name)) {
        finish_link(*found, level.to.fd(), name);
    }
    Outcome outcome;
    outcome.destination = joined(level.destination, name);
    outcome.losses = m_files.losses_of(level.from, level.to, name);
    tell(EntryKind::link, joined(level.source, name), outcome);
}

// What has not arrived, with its reason, by the engine's own walk.
void TreeTransfer::copy_rest(const Level &level, const Found &found) {
    if (found.rest.empty()) {
        return;
    }
    for (const std::string &name : found.files) {
        m_files.remember(level.to, name);
    }
    for (const std::string &name : found.rest) {
        if (m_observer.stopped()) {
            return;
        }
        entry(level, name);
    }
}

void TreeTransfer::check_directory(Level &level, const Place &source, const Place &destination, bool entriesMade) {
    const bool finished = is_finished(level);
    if (finished) {
        level.status.st.st_atim = level.there.st_atim; // as it was before the library read the source
    }
    if (!finished || entriesMade) {
        finish(level, source, destination);
        return;
    }
    // A new directory never gets these bits from its mode alone.
    constexpr mode_t special = kAllModeBits & ~kPermissions;
    if (((level.there.st_mode ^ level.status.st.st_mode) & special) != 0) {
        const std::string to = level.to.itself();
        (void)::chmod(to.c_str(), mode_for_copy(level.from.itself(), level.status.st.st_mode & kAllModeBits, to));
    }
    compare_level(level, source, destination);
    if (std::ranges::any_of(level.outcome.losses,
                            [](const Loss &loss) { return loss.cls != LossClass::not_carried; })) {
        level.outcome.losses.clear();
        finish(level, source, destination);
    }
}

// The library sets the times of a directory last.
bool TreeTransfer::is_finished(const Level &level) const {
    const struct stat &from = level.status.st, &to = level.there;
    return from.st_dev == m_sourceDevice && from.st_uid == to.st_uid && from.st_gid == to.st_gid &&
           ((from.st_mode ^ to.st_mode) & kPermissions) == 0 && from.st_mtim.tv_sec == to.st_mtim.tv_sec &&
           from.st_mtim.tv_nsec == to.st_mtim.tv_nsec;
}

} // namespace engine
