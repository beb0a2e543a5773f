#include "tools/engine/plan/rehearsal.h"

#include "copy/copy.h"
#include "platform/core.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/findings.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/naming/fat_form.h"
#include "tools/engine/plan/guess.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/belongings.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/native_carry.h"
#include "tools/engine/transfer/special_file.h"
#include "tools/engine/walk/letter_case.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <compare>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <linux/magic.h>
#include <string_view>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kNames[] = "names";
constexpr const char *kEntry = kRehearsed;
// Between these all volumes that keep a time at all keep it.
constexpr time_t kFirstPlainTime = 315'532'800, kLastPlainTime = 2'145'916'800; // 1980, 2038

bool is_plain(const timespec &time) {
    return time.tv_sec > kFirstPlainTime && time.tv_sec < kLastPlainTime;
}

Descriptor open_entry(int directory, const std::string &name) {
    return Descriptor(::openat(directory, name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
}

std::string path_of(int directory, const std::string &name) {
    return fmt::format("/proc/self/fd/{}/{}", directory, name);
}

// Who is not root and writes to a file that did not get its source's owner takes the set-id bits from it.
mode_t bits_lost_with_owner(int copy, const struct stat &source) {
    struct stat made {};
    const bool owned = ::fstat(copy, &made) == 0 && made.st_uid == source.st_uid && made.st_gid == source.st_gid;
    if (owned || ::geteuid() == 0 || source.st_size == 0) {
        return 0;
    }
    return S_ISUID | ((source.st_mode & S_IXGRP) != 0 ? mode_t{S_ISGID} : 0);
}

// Puts a number back, or what it is to be.
class KeepTaken {
  public:
    KeepTaken(int64_t &number, int64_t wanted) : m_number(number), m_wanted(wanted) {}
    KeepTaken(const KeepTaken &) = delete;
    KeepTaken &operator=(const KeepTaken &) = delete;
    ~KeepTaken() { m_number = m_wanted; }

  private:
    int64_t &m_number;
    int64_t m_wanted;
};

// Owner, mode, times and ACLs of such an entry are not for the user to set.
bool is_somebody_elses(const Side &entry) {
    struct stat found {};
    if (::fstatat(entry.directory, entry.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 ||
        found.st_uid == ::geteuid()) {
        return false;
    }
    // O_NOATIME needs what those need: the owner, or a capability that not only root may have.
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOATIME | O_CLOEXEC;
    const Descriptor asked(::openat(entry.directory, entry.name.c_str(), flags));
    return asked.get() < 0 && ::geteuid() != 0;
}

bool is_the_owners(LossClass cls) {
    return cls == LossClass::owner || cls == LossClass::group || cls == LossClass::mode ||
           cls == LossClass::acl_access || cls == LossClass::acl_default || cls == LossClass::acl_windows ||
           cls == LossClass::creation_time || cls == LossClass::modification_time;
}

bool is_of_store(LossClass cls) {
    return cls == LossClass::stream || cls == LossClass::finder_info || cls == LossClass::resource_fork ||
           cls == LossClass::mac_attributes || cls == LossClass::locked;
}

} // namespace

Rehearsal::Rehearsal(int directory, int type, bool probe, bool reversibleNames)
    : m_directory(directory), m_volume(volume_facts(directory, type)), m_room(free_room(directory)),
      m_reversibleNames(reversibleNames && volume_traits(m_volume.type).fatNames) {
    struct statvfs volume {};
    if (::fstatvfs(directory, &volume) == 0) {
        m_longestName = volume.f_namemax;
    }
    if (probe && !m_room.readOnly) {
        m_place = ScratchPlace::in(directory);
    }
    find_out();
}

void Rehearsal::clear() const {
    for (const char *const name : {kEntry, kNames}) {
        (void)remove_left_over(m_place->fd(), name);
    }
}

// What one look tells of all entries.
void Rehearsal::find_out() {
    if (m_place == nullptr) {
        m_keepsHoles = !volume_traits(m_volume.type).fatNames;
        m_keepsHardLinks = volume_traits(m_volume.type).links;
        m_linkInodes = m_room.inodes && m_volume.magic == TMPFS_MAGIC ? 1 : 0;
        m_folds = volume_traits(m_volume.type).fatNames;
        m_directoryBytes = m_room.block;
        return;
    }
    const int place = m_place->fd();
    struct stat directory {};
    m_directoryBytes = ::fstat(place, &directory) == 0 ? directory.st_blocks * kStatBlock : m_room.block;
    const Descriptor file(::openat(place, "Aa", O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    struct stat found {};
    constexpr off_t far = off_t{1} << 20;
    m_keepsHoles = file.get() >= 0 && ::pwrite(file.get(), "x", 1, far) == 1 && ::fsync(file.get()) == 0 &&
                   ::fstat(file.get(), &found) == 0 && found.st_blocks * kStatBlock < far;
    m_largestTaken = m_keepsHoles ? far : 0;
    find_out_links();
    m_folds = ::faccessat(place, "aA", F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    if (!m_folds && !takes_every_name(m_volume.magic)) {
        const Descriptor twin(::openat(place, "aA", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        m_foldsUnseen = twin.get() < 0 && errno == EEXIST;
        (void)::unlinkat(place, "aA", 0);
    }
    constexpr timespec past{1'000'000'000, 123'456'700};
    const timespec all[] = {past, past, past};
    VLIBCStat kept{};
    m_setsCreation = VLIBCFileUTime(path_of(place, "Aa").c_str(), 3, all) == 0;
    m_keepsTimes =
        m_setsCreation &&
        VLIBCFileLStat(path_of(place, "Aa").c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &kept) == 0 &&
        kept.st.st_mtim.tv_sec == past.tv_sec && kept.createTime.tv_sec == past.tv_sec;
    (void)::unlinkat(place, "Aa", 0);
}

// A volume in memory counts each name as an inode. Others may make and remove something meanwhile: then it is asked
// again.
void Rehearsal::find_out_links() {
    constexpr int tries = 5;
    const int place = m_place->fd();
    struct statvfs before {
    }, linked{}, after{};
    for (int count = 0; count < tries; ++count) {
        const bool asked = ::fstatvfs(place, &before) == 0;
        m_keepsHardLinks = ::linkat(place, "Aa", place, "linked", 0) == 0;
        const bool told = asked && m_keepsHardLinks && ::fstatvfs(place, &linked) == 0;
        (void)::unlinkat(place, "linked", 0);
        if (!told || ::fstatvfs(place, &after) != 0) {
            return;
        }
        if (before.f_ffree == after.f_ffree) {
            m_linkInodes = before.f_ffree == linked.f_ffree + 1 ? 1 : 0;
            return;
        }
    }
}

std::vector<Loss> Rehearsal::losses_of(const Side &source, const struct stat &found, const Side *merged) {
    std::vector<Loss> losses;
    m_taken = 0;
    if (S_ISLNK(found.st_mode)) {
        return losses_of_link(source, found);
    }
    if (is_special(found.st_mode)) {
        return losses_of_special(source, found);
    }
    if (!probes()) {
        losses = guess_losses(source, m_directory, m_volume, takes_stores(source));
        m_taken = S_ISDIR(found.st_mode) ? m_directoryBytes : 0;
    } else if (const std::string key = merged == nullptr ? signature(source, found) : ""; key.empty()) {
        losses = rehearse(source, found, merged);
    } else if (const auto known = m_known.find(key); known != m_known.end()) {
        losses = known->second.losses;
        m_taken = known->second.taken;
    } else {
        losses = rehearse(source, found, merged);
        m_known.emplace(key, Known{losses, m_taken});
    }
    const KeepTaken keep(m_taken, merged == nullptr ? m_taken : 0); // what is kept for it is rehearsed, too
    add_holes(source, found, losses);
    if (merged != nullptr && is_somebody_elses(*merged)) {
        keep_what_is_the_owners(source, *merged, losses);
    } else if (merged != nullptr) {
        keep_group(source, *merged, losses);
        keep_creation(source, *merged, losses);
    }
    if (merged != nullptr && S_ISDIR(found.st_mode) && m_volume.store != StoreKind::none &&
        m_volume.store != StoreKind::native) {
        add_merged_store(source, *merged, losses);
    }
    add_companion_too_long({m_directory, source.name, m_volume}, called(source), losses);
    add_mac_attributes(source, losses);
    add_kept(source, merged, losses);
    return losses;
}

// Empty: there may be more to it than to any other entry.
std::string Rehearsal::signature(const Side &source, const struct stat &found) const {
    VLIBCStat status{};
    const std::string path = source.path();
    if (!m_keepsTimes ||
        VLIBCFileLStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &status) != 0 ||
        !is_plain(status.st.st_mtim) || !is_plain(status.createTime)) {
        return {};
    }
    if (S_ISREG(found.st_mode) && m_keepsHoles && found.st_size > m_largestTaken) {
        return {}; // it may be too large
    }
    const bool more = source.volume.store == StoreKind::apple_double || source.volume.store == StoreKind::native ||
                      !source.volume.noDirectory;
    if (more && (store_parts(path, source.volume.type, source.volume.noDirectory).any() ||
                 ::faccessat(source.directory, ("@eaDir/" + source.name).c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0)) {
        return {};
    }
    // What a volume without creation times is told of one depends on which of the times is the oldest.
    const auto order = [&](const timespec &one, const timespec &other) {
        constexpr long unit = 100;
        return std::pair(one.tv_sec, one.tv_nsec / unit) <=> std::pair(other.tv_sec, other.tv_nsec / unit);
    };
    const auto sign = [](std::strong_ordering way) { return way < 0 ? '<' : way > 0 ? '>' : '='; };
    const timespec &created = status.createTime, &changed = status.st.st_mtim, &read = status.st.st_atim;
    const std::string times = m_volume.creationTimes
                                  ? std::string()
                                  : fmt::format("{}{}{} ", sign(order(created, changed)), sign(order(created, read)),
                                                sign(order(changed, read)));
    // Not every list has the Windows ACL.
    // What is written takes set-id bits away, and nothing is written to the copy of an empty file.
    std::string text =
        fmt::format("{}{:o} {} {} {} {:x} {}", times, found.st_mode, found.st_size == 0 ? "empty" : "", found.st_uid,
                    found.st_gid, status.attributes, ::lgetxattr(path.c_str(), "security.NTACL", nullptr, 0));
    for (const std::string &name : attribute_names(path)) {
        const ssize_t size = ::lgetxattr(path.c_str(), name.c_str(), nullptr, 0);
        if (name.starts_with("system.")) {
            return {}; // what is in an ACL decides
        }
        // The record of DOS attributes has a time in it, and is compared as what it means.
        text += name == "user.DOSATTRIB" ? " dos" : fmt::format(" {}={}", name, size);
    }
    return text;
}

bool Rehearsal::make(const struct stat &found, std::vector<Loss> &losses) {
    const int place = m_place->fd();
    (void)remove_left_over(place, kEntry);
    if (S_ISDIR(found.st_mode)) {
        return ::mkdirat(place, kEntry, 0700) == 0;
    }
    const Descriptor file(::openat(place, kEntry, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.get() >= 0 && m_keepsHoles) {
        if (::ftruncate(file.get(), found.st_size) == 0) {
            m_largestTaken = std::max(m_largestTaken, found.st_size);
        } else if (errno == EFBIG) {
            losses.push_back({LossClass::file_too_large,
                              too_large_text(static_cast<uint64_t>(found.st_size), m_volume.largestFile)});
        }
    }
    return file.get() >= 0;
}

// As the copy of an entry gets what belongs to it, beside its data and its store.
void Rehearsal::dress(const Side &source, const VLIBCStat &status, bool file) const {
    const Descriptor entry = open_entry(m_place->fd(), kEntry);
    give_belongings(source.path(), status, entry.get(), m_volume.owners, file);
    if (const mode_t lost = file ? bits_lost_with_owner(entry.get(), status.st) : 0; lost != 0 && m_volume.owners) {
        (void)::fchmod(entry.get(), status.st.st_mode & kModeBits & ~lost);
    }
}

// As the directory is that another one is going to be merged into.
void Rehearsal::dress_as(const Side &merged) const {
    const Descriptor entry = open_entry(m_place->fd(), kEntry);
    copy_attributes(merged.path(), entry.get(), {"user.", "security.", "trusted.", "system.posix_acl_"},
                    Records::taken);
    VLIBCStat found{};
    if (VLIBCFileLStat(merged.path().c_str(), VLIBC_STAT_ATTRIBUTES, &found) == 0) {
        give_dos_attributes(entry.get(), found.attributes); // which are no attributes with a name on every volume
    }
}

// Where nobody can set a creation time a directory that is merged into keeps its own.
void Rehearsal::keep_creation(const Side &source, const Side &merged, std::vector<Loss> &losses) const {
    if (!probes() || m_setsCreation || !m_volume.creationTimes) {
        return;
    }
    std::erase_if(losses, [](const Loss &loss) { return loss.cls == LossClass::creation_time; });
    const CompareOptions options{};
    Findings findings{options};
    findings.attempt("creation time", [&] { compare_times(EntryView(source), EntryView(merged), findings); });
    std::ranges::copy_if(findings.losses, std::back_inserter(losses),
                         [](const Loss &loss) { return loss.cls != LossClass::modification_time; });
}

// What goes into a file or directory of somebody else leaves it what only its owner sets.
void Rehearsal::keep_what_is_the_owners(const Side &source, const Side &merged, std::vector<Loss> &losses) {
    std::erase_if(losses, [](const Loss &loss) { return is_the_owners(loss.cls); });
    std::vector<Loss> differences = compare_entries(source, merged, {.times = true, .kept = false});
    std::erase_if(differences, [](const Loss &loss) { return !is_the_owners(loss.cls); });
    struct stat found {};
    const bool file =
        ::fstatat(merged.directory, merged.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(found.st_mode);
    if (file) { // it gets the time of the writing, whichever it has
        std::erase_if(differences, [](const Loss &loss) { return loss.cls == LossClass::modification_time; });
        differences.push_back({LossClass::modification_time, "modification time becomes that of the copying"});
    }
    std::ranges::move(differences, std::back_inserter(losses));
}

// Where the group cannot be set the one that is there may be the source's.
void Rehearsal::keep_group(const Side &source, const Side &merged, std::vector<Loss> &losses) {
    struct stat found {
    }, there{};
    const bool known = ::fstatat(source.directory, source.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
                       ::fstatat(merged.directory, merged.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0;
    const auto group = std::ranges::find(losses, LossClass::group, &Loss::cls);
    if (!known || group == losses.end()) {
        return;
    }
    group->detail = fmt::format("group differs: {} and {}", found.st_gid, there.st_gid);
    if (found.st_gid == there.st_gid) {
        losses.erase(group);
    }
}

// As long as what it is called there, with a number or without.
std::string Rehearsal::called(const Side &source) const {
    return m_reversibleNames ? fat_form(source.name) : source.name;
}

// Whether a copy can have a store.
bool Rehearsal::takes_stores(const Side &source) const {
    switch (m_volume.store) {
    case StoreKind::none:
        return false;
    case StoreKind::native:
    case StoreKind::apple_double:
        return takes_companion(m_directory, called(source));
    default:
        return can_make_stores();
    }
}

// `plain`: one of those in "@eaDir", for which nothing is kept. What is kept for others is for add_kept() to tell.
std::vector<Loss> Rehearsal::rehearse(const Side &source, const struct stat &found, const Side *merged, bool plain) {
    std::vector<Loss> losses;
    VLIBCStat status{};
    constexpr uint32_t fields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
    if (!make(found, losses) || VLIBCFileLStat(source.path().c_str(), fields, &status) != 0) {
        losses.push_back({LossClass::unreadable, fmt::format("cannot be tried: {}", std::strerror(errno))});
        return losses;
    }
    if (merged != nullptr) {
        dress_as(*merged);
    }
    dress(source, status, S_ISREG(found.st_mode));
    VolumeFacts there = plain ? plain_facts(m_volume) : m_volume;
    there.noDirectory = true; // nothing is kept for what stands there
    const Side copy{m_place->fd(), kEntry, there};
    Side bare = source; // without what is kept beside it
    bare.volume.noDirectory = true;
    if (bare.volume.store != StoreKind::file_ea) {
        bare.volume.store = StoreKind::none;
    }
    const bool stores = !plain && takes_stores(source);
    const bool native = stores && goes_to_attributes(source, copy);
    struct stat made {};
    m_taken = ::fstatat(m_place->fd(), kEntry, &made, AT_SYMLINK_NOFOLLOW) == 0 ? made.st_blocks * kStatBlock : 0;
    if (native) { // some of what it holds stays behind, and the volume says which
        carry_to_attributes(source, copy);
    } else if (!plain) {
        lock_as(source, merged != nullptr);
    }
    for (Loss &loss : complete_copy(stores && !native ? bare : source, copy, {.kept = false})) {
        const bool carried = stores && !native && is_of_store(loss.cls);
        if (loss.cls != LossClass::data && loss.cls != LossClass::not_carried && !carried) {
            losses.push_back(std::move(loss));
        }
    }
    if (stores && !native) {
        add_lock(source, copy, losses);
    }
    (void)remove_left_over(m_place->fd(), kEntry);
    return losses;
}

// A look at where a link leads would leave a trace.
std::vector<Loss> Rehearsal::losses_of_link(const Side &source, const struct stat &found) {
    std::vector<Loss> losses;
    if (!volume_traits(m_volume.type).links) {
        losses.push_back({LossClass::symbolic_link, kLinkNotHeld});
        return losses;
    }
    for (const std::string &name : attribute_names(source.path())) {
        if (!is_representation(name)) {
            const ssize_t size = ::lgetxattr(source.path().c_str(), name.c_str(), nullptr, 0);
            losses.push_back(
                {LossClass::system_attribute,
                 only_first_text("attribute", displayed(name), static_cast<uint64_t>(std::max<ssize_t>(size, 0)))});
        }
    }
    uid_t user = found.st_uid;
    gid_t group = found.st_gid;
    struct stat made {};
    if (probes()) {
        const int place = m_place->fd();
        (void)remove_left_over(place, kEntry);
        const std::string target(std::clamp<size_t>(static_cast<size_t>(found.st_size), 1, PATH_MAX - 1), 'x');
        if (::symlinkat(target.c_str(), place, kEntry) != 0) {
            losses.push_back({LossClass::symbolic_link, link_refused_text(errno)});
            return losses;
        }
        // Some volumes say that they have done it, and have not.
        if ((::fchownat(place, kEntry, user, group, AT_SYMLINK_NOFOLLOW) == 0 || errno == EPERM) &&
            ::fstatat(place, kEntry, &made, AT_SYMLINK_NOFOLLOW) == 0) {
            user = made.st_uid;
            group = made.st_gid;
        }
        m_taken = ::fstatat(place, kEntry, &made, AT_SYMLINK_NOFOLLOW) == 0 ? made.st_blocks * kStatBlock : 0;
    } else if (::geteuid() != 0) {
        user = ::geteuid();
        group = user == found.st_uid ? group : ::getegid();
    }
    if (user != found.st_uid) {
        losses.push_back({LossClass::owner, fmt::format("owner differs: {} and {}", found.st_uid, user)});
    }
    if (group != found.st_gid) {
        losses.push_back({LossClass::group, fmt::format("group differs: {} and {}", found.st_gid, group)});
    }
    if (probes()) {
        const Side copy{m_place->fd(), kEntry, m_volume};
        give_times(source, copy);
        const CompareOptions options{};
        Findings findings{options};
        findings.attempt("times", [&] { compare_times(EntryView(source), EntryView(copy), findings); });
        std::ranges::move(findings.losses, std::back_inserter(losses));
        (void)remove_left_over(m_place->fd(), kEntry);
    }
    return losses;
}

// Made as the copy would be, in the private directory.
std::vector<Loss> Rehearsal::losses_of_special(const Side &source, const struct stat &found) {
    if (!probes()) {
        const bool device = S_ISCHR(found.st_mode) || S_ISBLK(found.st_mode);
        if (volume_traits(m_volume.type).links && (!device || ::geteuid() == 0)) {
            std::vector<Loss> losses = guess_losses(source, m_directory, m_volume, false);
            std::erase_if(losses, [](const Loss &loss) { return loss.cls == LossClass::creation_time; });
            return losses;
        }
        return {{LossClass::special_file, fmt::format("is {}, which cannot be made there", kind_of(found.st_mode))}};
    }
    const int place = m_place->fd();
    (void)remove_left_over(place, kEntry);
    if (auto refusal = make_special(source.directory, source.name, found, place, kEntry)) {
        return refusal->losses.empty() ? std::vector<Loss>{{LossClass::unreadable, refusal->problem.reason}}
                                       : std::move(refusal->losses);
    }
    VolumeFacts there = m_volume;
    there.noDirectory = true;
    std::vector<Loss> losses = complete_copy(source, Side{place, kEntry, there});
    (void)remove_left_over(place, kEntry);
    return losses;
}

void Rehearsal::add_holes(const Side &source, const struct stat &found, std::vector<Loss> &losses) const {
    if (!S_ISREG(found.st_mode) || found.st_blocks * kStatBlock >= found.st_size) {
        return;
    }
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor file(::openat(source.directory, source.name.c_str(), flags));
    int64_t data = 0;
    for (off_t at = ::lseek(file.get(), 0, SEEK_DATA); at >= 0;) {
        const off_t end = ::lseek(file.get(), at, SEEK_HOLE);
        data += end > at ? end - at : 0;
        at = end > at ? ::lseek(file.get(), end, SEEK_DATA) : -1;
    }
    // Holes of which nobody tells where they are stay nowhere.
    const bool told = data < found.st_size;
    data = told ? data : most_data(found, source.volume);
    const bool stays = told && m_keepsHoles && copies_holes(found);
    if (data < found.st_size && !stays && blocks_of_filled(found.st_size) > found.st_blocks) {
        losses.push_back({LossClass::hole, fmt::format("holes were filled: {} bytes more", found.st_size - data)});
    }
}

// How many blocks a file of zeros takes: a short one may take none, where its directory or its record holds it.
int64_t Rehearsal::blocks_of_filled(off_t size) const {
    constexpr off_t longest = 4096;
    const std::string zeros(static_cast<size_t>(std::clamp<off_t>(size, 0, longest)), '\0');
    const auto whole = static_cast<int64_t>((size + kStatBlock - 1) / kStatBlock);
    if (!probes() || size > longest) {
        return whole;
    }
    const int place = m_place->fd();
    const std::string name = next_private_name(); // as long as that of a copy
    struct stat found {};
    const Descriptor file(::openat(place, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const bool known = file.get() >= 0 &&
                       ::write(file.get(), zeros.data(), zeros.size()) == static_cast<ssize_t>(zeros.size()) &&
                       ::fsync(file.get()) == 0 && ::fstat(file.get(), &found) == 0;
    (void)::unlinkat(place, name.c_str(), 0);
    return known ? found.st_blocks : whole;
}

std::optional<Loss> Rehearsal::refusal_of(const std::string &name, mode_t type) {
    if (name.size() > m_longestName) {
        return Loss{LossClass::name_too_long, too_long_text(name.size())};
    }
    if (!probes() || takes_every_name(m_volume.magic)) {
        return std::nullopt;
    }
    (void)::mkdirat(m_place->fd(), kNames, 0700);
    const Descriptor names = open_directory(m_place->fd(), kNames);
    auto refusal = refusal_in_private(names.get(), name, type);
    if (refusal && S_ISLNK(type) && !volume_traits(m_volume.type).links) {
        refusal->detail = kLinkNotHeld; // by whichever name
    }
    return refusal;
}

void Rehearsal::add_kept_name(const std::string &name, std::vector<Loss> &losses) const {
    if (probes()) {
        engine::add_kept_name(m_place->fd(), name, losses);
    }
}

const std::string &Rehearsal::listed(const std::string &name) {
    if (!probes() || takes_every_name(m_volume.magic)) {
        return name;
    }
    const auto known = m_listed.find(name);
    if (known != m_listed.end()) {
        return known->second;
    }
    auto kept = name_kept(m_place->fd(), name);
    return kept ? m_listed.emplace(name, std::move(*kept)).first->second : name;
}

// A driver of FAT that knows no letter cases makes no second entry of one short name all the same.
const std::string &Rehearsal::key_unseen(const std::string &name) {
    if (const auto known = m_keys.find(name); known != m_keys.end()) {
        return known->second;
    }
    (void)::mkdirat(m_place->fd(), kNames, 0700);
    const Descriptor names = open_directory(m_place->fd(), kNames);
    const Descriptor made(::openat(names.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const bool taken = made.get() < 0 && errno == EEXIST;
    const std::string &first = m_firstOf.try_emplace(folded(name), name).first->second;
    return m_keys.emplace(name, taken ? first : name).first->second;
}

std::string Rehearsal::key_of(const std::string &wanted) {
    const std::string &name = listed(wanted);
    if (!m_folds) {
        return m_foldsUnseen ? key_unseen(name) : name;
    }
    struct stat found {};
    const std::string folds = folded(name);
    if (probes() && !m_keys.contains(folds)) {
        (void)::mkdirat(m_place->fd(), kNames, 0700);
        const Descriptor names = open_directory(m_place->fd(), kNames);
        const Descriptor made(::openat(names.get(), name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        if (made.get() >= 0 && ::fstat(made.get(), &found) == 0) {
            // Two forms of a letter may be one, too.
            m_keys.emplace(folds, m_inodes.try_emplace(found.st_ino, folds).first->second);
        }
    }
    const auto known = m_keys.find(folds);
    return known == m_keys.end() ? folds : known->second;
}

} // namespace engine
