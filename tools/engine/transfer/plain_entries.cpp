// Entries that have nothing but what every entry has, copied one by one by descriptors: most of most trees. See
// tree_transfer.h.
#include "platform/sdk.h"
#include "tools/engine/compare/plain_files.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/stack_room.h"
#include "tools/engine/walk/units.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr uid_t kRootUser = 0; // nobody else copies so
constexpr int kPlainFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Reads a directory. False: it is not to be copied so. Where its first files are nothing more than files the others
// mostly are, too.
bool read_plain(int directory, NameBlock &names) {
    constexpr int mostAsked = 2;
    int asked = 0;
    bool plain = true;
    const bool read = each_entry(directory, [&](const char *name, unsigned char type) {
        names.add(name);
        plain = plain && !is_store_name(name);
        if (plain && type == DT_REG && asked < mostAsked) {
            ++asked;
            struct stat found {};
            plain = ::fstatat(directory, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_nlink == 1 &&
                    found.st_size <= PlainCopy::kLargest && PlainCopy::is_bare(directory, name);
        }
    });
    return read && plain;
}

bool keeps_stores(const VolumeFacts &facts) {
    return (facts.store == StoreKind::ea_directory || facts.store == StoreKind::file_ea) &&
           lists_all_attributes(facts.magic) && facts.creationTimes;
}

} // namespace

// Once a directory. Nothing is kept beside its entries, on either side, and no new file gets anything from it.
bool TreeTransfer::may_be_plain(const Level &level) {
    if (level.plain) {
        return *level.plain;
    }
    const HeldDirectory &from = level.from, &to = level.to;
    const auto is_new = [&] { return level.made || (!to.look("@eaDir") && errno == ENOENT); };
    level.plain = m_whole && m_links && !m_checking && PlainCopy::can() && !m_naming.wanted() && !m_sourceKeepsMac &&
                  !level.hasStore && !level.onTheWay && from.is_open() && to.is_open() &&
                  from.device() == m_sourceDevice && from.type() == m_sourceType && to.type() == m_destinationType &&
                  m_sourceTraits.wholeTrees && takes_every_name(to.facts().magic) && keeps_stores(from.facts()) &&
                  keeps_stores(to.facts()) && from.facts().store == to.facts().store && is_new() &&
                  !m_files.clones(from, to) && carries_all(level) && !hands_on_an_acl(to.fd());
    return *level.plain;
}

// Of what is there already the walk knows what becomes.
std::optional<bool> TreeTransfer::plain_entry(const Level &level, const std::string &name) {
    const auto found = PlainCopy::look(level.from.fd(), name);
    if (!found || found->st.st_dev != m_sourceDevice || is_private_name(name) ||
        (!level.made && (level.to.look(name) || errno != ENOENT))) {
        return std::nullopt;
    }
    if (S_ISDIR(found->st.st_mode)) {
        return plain_directory(level, name, *found);
    }
    const bool file = S_ISREG(found->st.st_mode);
    if (!file && !S_ISLNK(found->st.st_mode)) {
        return std::nullopt;
    }
    const std::string source = joined(level.source, name);
    m_observer.begins(source);
    const auto made = file ? m_plain.file(level.from.fd(), name, *found, level.to.fd())
                           : m_plain.link(level.from.fd(), name, *found, level.to.fd());
    if (!made) {
        return std::nullopt;
    }
    if (!level.made) {
        m_files.made_plain(*made, name, level.to);
    } else if (!std::exchange(level.noted, true)) {
        m_files.made_plain_in(level.to);
    }
    Outcome outcome;
    outcome.destination = joined(level.destination, name);
    if (file) {
        outcome.bytes = made->st_size;
        m_observer.progress(outcome.bytes, true);
    }
    tell(file ? EntryKind::file : EntryKind::link, source, outcome);
    return true;
}

// Both directories, the one at the destination made for this. False: it is not for this, and nothing was made; or
// somebody else is at work on it.
bool TreeTransfer::open_plain(const Level &above, const std::string &name, Level &level, NameBlock &names) const {
    struct stat opened {};
    Descriptor from(::openat(above.from.fd(), name.c_str(), kPlainFlags | O_NOATIME));
    const auto status = from.get() < 0 ? std::nullopt : PlainCopy::look(from.get());
    if (!status || m_made.contains(status->st) || !read_plain(from.get(), names) ||
        ::mkdirat(above.to.fd(), name.c_str(), S_IRWXU) != 0) {
        return false;
    }
    Descriptor to(::openat(above.to.fd(), name.c_str(), kPlainFlags));
    // Whoever owns the directory above may have put one of his there.
    if (to.get() < 0 || ::fstat(to.get(), &opened) != 0 || opened.st_dev != above.there.st_dev ||
        opened.st_uid != kRootUser || (opened.st_mode & kModeBits & ~mode_t{S_ISGID}) != S_IRWXU) {
        return false;
    }
    level.status = *status;
    level.there = opened;
    level.made = true;
    level.from = HeldDirectory(above.from, name, std::move(from), status->st);
    level.to = HeldDirectory(above.to, name, std::move(to), opened);
    // An override of types goes by the text of paths, and counts for what lies in a directory.
    const auto is_other = [](const HeldDirectory &directory) {
        return VEXOGetFSType(directory.path().c_str(), 0) != directory.type();
    };
    if (!names.empty() && (is_other(level.from) || is_other(level.to))) {
        level.from = HeldDirectory(above.from, name);
        level.to = HeldDirectory(above.to, name);
    }
    return true;
}

std::optional<bool> TreeTransfer::plain_directory(const Level &above, const std::string &name, const VLIBCStat &found) {
    Level level{joined(above.source, name), joined(above.destination, name)};
    NameBlock names;
    if (!has_stack_room() || !open_plain(above, name, level, names) || level.status.st.st_ino != found.st.st_ino) {
        return std::nullopt;
    }
    const Place source{above.from, name}, destination{above.to, name};
    level.outcome.destination = level.destination;
    m_files.begins_in(level.to);
    m_made.add(level.there, name, above.to, name);
    m_files.made_directory(level.there, name, above.to, name);
    bool complete = true;
    if (!names.empty()) {
        descend(source, destination);
        complete = entries(level, names);
        if (!ascend(level, source, destination)) {
            return failed(level.source, level.destination, {"a directory was moved away meanwhile; not finished"});
        }
    }
    if (!m_plain.finish_directory(level.from.fd(), level.status, level.to.fd())) {
        finish(level, source, destination);
    }
    if (!complete && level.outcome.status == Status::done && m_observer.stopped()) {
        level.outcome.status = Status::cancelled;
    }
    tell(EntryKind::directory, level.source, level.outcome);
    return complete && level.outcome.status == Status::done;
}

} // namespace engine
