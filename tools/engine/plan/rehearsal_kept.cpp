// What becomes of what lies in "@eaDir" and is no part of a store.
#include "platform/core.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/findings.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/plan/guess.h"
#include "tools/engine/plan/rehearsal.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <unistd.h>

#pragma weak VLIBCKernelAttrCall

namespace engine {

// Whether an "@eaDir" can be made. That is root's.
bool Rehearsal::can_make_stores() const {
    return ::geteuid() == 0 || ::faccessat(m_directory, "@eaDir", W_OK | X_OK, AT_EACCESS) == 0;
}

void Rehearsal::add_kept(const Side &source, const Side *merged, std::vector<Loss> &losses) {
    try {
        const KeptPlace empty = kept_place(source, Kept::empty_store);
        if (empty.there) {
            add_empty_store(empty, source.volume, merged, losses);
        }
        const KeptPlace own = source.volume.noDirectory || source.volume.store == StoreKind::none
                                  ? KeptPlace{}
                                  : kept_place(source, Kept::own);
        if (own.there) {
            const bool carried = m_volume.store != StoreKind::none && can_make_stores();
            const KeptPlace there = merged == nullptr ? KeptPlace{} : kept_place(*merged, Kept::own);
            const Side mine{own.parent.get(), own.name, plain_facts(source.volume)};
            const Side theirs{there.parent.get(), there.name, plain_facts(m_volume)};
            add_tree(mine, there.there ? &theirs : nullptr, "", carried, losses);
        }
    } catch (const Failure &failure) {
        losses.push_back({LossClass::unreadable, fmt::format("what is kept in \"@eaDir\": {}", failure.what())});
    }
}

// Where the directory that is merged into has one that holds something, that is the store of what lies there.
void Rehearsal::add_empty_store(const KeptPlace &empty, const VolumeFacts &facts, const Side *merged,
                                std::vector<Loss> &losses) {
    const KeptPlace there = merged == nullptr ? KeptPlace{} : kept_place(*merged, Kept::empty_store);
    struct stat found {
    }, other{};
    const bool taken = there.parent.get() >= 0 && !there.there &&
                       ::fstatat(there.parent.get(), there.name.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0;
    if (::fstatat(empty.parent.get(), empty.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 ||
        (taken && S_ISDIR(other.st_mode))) {
        return;
    }
    const Side source{empty.parent.get(), empty.name, plain_facts(facts)};
    if (taken || !add_kept_entry(source, found, empty.name, losses)) {
        losses.push_back(kept_loss(found, empty.name));
    }
}

// Each entry goes along by itself. `there`: what has its name in what it is merged into, which stays where it does not.
void Rehearsal::add_tree(const Side &source, const Side *there, const std::string &path, bool carried,
                         std::vector<Loss> &losses, int depth) {
    struct stat found {};
    if (::fstatat(source.directory, source.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (depth > kDeepestKept) {
        throw Failure("too deep");
    }
    const Descriptor inner = S_ISDIR(found.st_mode) ? open_directory(source.directory, source.name) : Descriptor(-1);
    const auto names = S_ISDIR(found.st_mode) ? names_in(inner.get()) : std::vector<std::string>();
    if (!names) {
        throw_errno("cannot be read");
    }
    const bool top = depth == 0 && !names->empty();
    if (!(carried && add_kept_entry(source, found, path, losses)) && !top) {
        add_left(source, found, there, path, losses);
    }
    const Descriptor beside = there == nullptr ? Descriptor(-1) : open_directory(there->directory, there->name);
    for (const std::string &name : *names) {
        if (!is_left_over(name)) {
            const Side other{beside.get(), name, there == nullptr ? VolumeFacts{} : there->volume};
            add_tree({inner.get(), name, source.volume}, beside.get() < 0 ? nullptr : &other,
                     path.empty() ? name : joined(path, name), carried, losses, depth + 1);
        }
    }
}

void Rehearsal::add_left(const Side &source, const struct stat &found, const Side *there, const std::string &path,
                         std::vector<Loss> &losses) {
    struct stat other {};
    if (there == nullptr || ::fstatat(there->directory, there->name.c_str(), &other, AT_SYMLINK_NOFOLLOW) != 0) {
        losses.push_back(kept_loss(found, path));
        return;
    }
    for (const Loss &loss : compare_entries(source, *there, {})) {
        losses.push_back(kept_loss(loss, path));
    }
}

// False: it stays where it is.
bool Rehearsal::add_kept_entry(const Side &source, const struct stat &found, const std::string &path,
                               std::vector<Loss> &losses) {
    if ((!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode) && !S_ISLNK(found.st_mode)) ||
        (!path.empty() && refusal_of(source.name, found.st_mode & S_IFMT))) {
        return false;
    }
    const std::vector<Loss> lacks = S_ISLNK(found.st_mode) ? losses_of_link(source, found)
                                    : !probes()            ? guess_losses(source, m_directory, m_volume, true)
                                                           : rehearse(source, found, nullptr, true);
    const auto ends = [](const Loss &loss) {
        return loss.cls == LossClass::symbolic_link || loss.cls == LossClass::file_too_large;
    };
    if (std::ranges::any_of(lacks, ends)) {
        return false;
    }
    for (const Loss &loss : lacks) {
        losses.push_back(kept_loss(loss, path));
    }
    return true;
}

// As who carries a store does, by a flag or by permissions; where a copy has those of its source that is undone again.
void Rehearsal::lock_as(const Side &source, bool merged) const {
    const bool byFlag = m_volume.store == StoreKind::ea_directory || m_volume.store == StoreKind::file_ea;
    const bool byMode = m_volume.store == StoreKind::apple_double && !m_volume.owners;
    if (!byFlag && !byMode) {
        return;
    }
    try {
        EntryView entry(source);
        entry.pin();
        const bool afp = entry.may_hold_more() && entry.contents().afp_locked();
        const bool locked = is_locked(entry.status(), source.volume.store, afp);
        const std::string path = fmt::format("/proc/self/fd/{}/{}", m_place->fd(), kRehearsed);
        struct stat made {};
        if (byMode && S_ISREG(entry.type()) && ::lstat(path.c_str(), &made) == 0) {
            constexpr mode_t all = 07777, write = S_IWUSR | S_IWGRP | S_IWOTH;
            (void)::chmod(path.c_str(), locked ? made.st_mode & all & ~write : (made.st_mode & all) | write);
        } else if (byFlag && (locked || merged) && VLIBCKernelAttrCall != nullptr) {
            constexpr int lock = 522, unlock = 521;
            (void)VLIBCKernelAttrCall(path.c_str(), locked ? lock : unlock);
        }
    } catch (const Failure &) {
        return; // the comparison tells it
    }
}

void Rehearsal::add_lock(const Side &source, const Side &copy, std::vector<Loss> &losses) {
    const CompareOptions options{};
    Findings findings{options};
    findings.attempt("lock", [&] {
        EntryView one(source), other(copy);
        one.pin();
        other.pin();
        compare_locks(one, other, findings);
    });
    std::ranges::copy_if(findings.losses, std::back_inserter(losses),
                         [](const Loss &loss) { return loss.cls == LossClass::locked; });
}

// Of what servers for Macs keep with Finder Info and fork another kind of store gets those two.
void Rehearsal::add_mac_attributes(const Side &source, std::vector<Loss> &losses) const {
    const StoreKind kind = source.volume.store;
    if (kind == m_volume.store || (kind != StoreKind::ea_directory && kind != StoreKind::file_ea) ||
        m_volume.store == StoreKind::none || !takes_stores(source)) {
        return; // all of it, or what the comparison has told
    }
    const StoreParts brought = store_parts(source.path(), source.volume.type, source.volume.noDirectory);
    if (!brought.resource && !brought.attribute) {
        return;
    }
    try {
        EntryView entry(source);
        entry.pin();
        const int attributes = entry.contents().afp_attributes() & ~StoreContents::kAfpLockedBits;
        const size_t comment = entry.contents().comment().size();
        if (attributes != 0) {
            losses.push_back(
                {LossClass::mac_attributes, fmt::format("AFP attributes differ: 0x{:04x} and 0x0000", attributes)});
        }
        if (comment > 0) {
            losses.push_back({LossClass::mac_attributes, fmt::format("comment differs: {} and 0 bytes", comment)});
        }
    } catch (const Failure &) {
        return; // told by others
    }
}

static bool has_stream(EntryView &entry, const std::string &name) {
    const auto &all = entry.contents().attributes();
    return std::ranges::find(all, name, &StoreContents::Attribute::name) != all.end();
}

// A part of a store that the source brings replaces that of the directory; one that it does not bring stays.
void Rehearsal::add_merged_store(const Side &source, const Side &merged, std::vector<Loss> &losses) const {
    Side there = merged;
    there.volume.noDirectory = false;
    const StoreParts brought = store_parts(source.path(), source.volume.type, source.volume.noDirectory);
    try {
        EntryView one(source), other(there);
        one.pin();
        other.pin();
        const StoreContents &stays = other.contents();
        // What a "._" file holds joins the streams of another kind of store.
        const bool replaced = brought.stream || (brought.appleDouble && merged.volume.store == StoreKind::apple_double);
        for (const StoreContents::Attribute &attribute : stays.attributes()) {
            if (!replaced && !one.has(attribute.name.c_str()) && !has_stream(one, attribute.name)) {
                const bool users = attribute.name.starts_with("user.");
                losses.push_back({users ? LossClass::attribute : LossClass::stream,
                                  only_second_text(users ? "attribute" : "stream", displayed(attribute.name))});
            }
        }
        if (brought.resource || brought.attribute || brought.appleDouble) {
            return;
        }
        if (!stays.finder_info().empty()) {
            losses.push_back({LossClass::finder_info, "Finder Info differs"});
        }
        if (stays.fork_size() > 0) {
            losses.push_back(
                {LossClass::resource_fork, fmt::format("resource fork differs: 0 and {} bytes", stays.fork_size())});
        }
    } catch (const Failure &failure) {
        losses.push_back({LossClass::unreadable, failure.what()});
    }
}

} // namespace engine
