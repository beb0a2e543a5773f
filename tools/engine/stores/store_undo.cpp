#include "tools/engine/stores/store_undo.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/quarantine.h"
#include "tools/engine/stores/store_place.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/rename.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

using UndoState = UndoWatcher::State;

// The directory of users' files, found again without following a link below what the user has named, and proven to be
// the one that the repair worked in.
Descriptor directory_of(const Quarantined &item) {
    Descriptor directory(::open(item.top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string &name : names_in_path(item.below)) {
        if (directory.get() >= 0) {
            directory = open_directory(directory.get(), name);
        }
    }
    struct stat found {};
    if (directory.get() < 0 || ::fstat(directory.get(), &found) != 0) {
        throw_errno("its directory cannot be opened");
    }
    if (found.st_ino != item.inode) {
        throw Failure("its directory is another one than that of the repair");
    }
    return directory;
}

std::string shown_place(const Quarantined &item) {
    const std::string directory = item.below.empty() ? item.top : joined(item.top, item.below);
    return joined(item.inStore ? joined(directory, "@eaDir") : directory, item.name);
}

bool same_content(int left, int right) {
    return same_bytes(left, 0, right, 0, UINT64_MAX);
}

// Owner, ACL, attributes and mode, in the order in which one does not undo the other; then the times.
void give_status(int fd, const Quarantined &item) {
    if (::fchown(fd, item.status.st_uid, item.status.st_gid) != 0) {
        struct stat now {};
        if (::fstat(fd, &now) != 0 || now.st_uid != item.status.st_uid || now.st_gid != item.status.st_gid) {
            throw_errno("it cannot be given its owner");
        }
    }
    constexpr char kAcl[] = "system.posix_acl_access";
    if (std::ranges::none_of(item.attributes, [&](const auto &one) { return one.first == kAcl; })) {
        (void)::fremovexattr(fd, kAcl); // one that was inherited from the directory
    }
    if (::fchmod(fd, item.status.st_mode & 07777) != 0 && errno != EPERM) { // of a volume that knows no such rights
        throw_errno("it cannot be given its rights");
    }
    for (const auto &[name, value] : item.attributes) {
        std::string now(size_t{1} << 16, '\0');
        const ssize_t size = ::fgetxattr(fd, name.c_str(), now.data(), now.size());
        if ((size < 0 || std::string_view(now.data(), static_cast<size_t>(size)) != value) &&
            ::fsetxattr(fd, name.c_str(), value.data(), value.size(), 0) != 0) {
            throw_errno(fmt::format("it cannot be given its attribute {}", displayed(name)));
        }
    }
    const std::array<timespec, 2> times = {item.status.st_atim, item.status.st_mtim};
    if (::futimens(fd, times.data()) != 0) {
        throw_errno("it cannot be given its times");
    }
}

void put_file_back(const KeptQuarantine &kept, const Quarantined &item, int directory, bool replace) {
    const Descriptor old = kept.open_old(item);
    PrivateFile copy(directory, item.name, 0600);
    copy.fill_from(old.get());
    if (!same_content(old.get(), copy.fd())) {
        throw Failure("it does not read as it was written");
    }
    give_status(copy.fd(), item);
    copy.put_in_place(replace);
}

UndoState undo_rewritten(const KeptQuarantine &kept, const Quarantined &item, int directory) {
    const StoreFileHeld held = open_store_file(directory, item.name, O_RDWR);
    if (held.file.get() < 0) {
        throw_errno("what stands there cannot be opened");
    }
    if (!lock_store_file(held.file.get(), F_WRLCK)) {
        throw Failure("another process has it locked");
    }
    if (!is_still(directory, item.name, held.status) || held.status.st_nlink != 1) {
        throw Failure("it was changed since the repair");
    }
    if (same_content(kept.open_old(item).get(), held.file.get())) {
        return UndoState::was_so;
    }
    if (!same_content(kept.open_new(item).get(), held.file.get())) {
        throw Failure("it was changed since the repair");
    }
    put_file_back(kept, item, directory, true);
    return UndoState::restored;
}

// In a directory that nobody else enters, and then at its place: what is given an owner is what was made.
void make_again(const KeptQuarantine &kept, const Quarantined &item, int directory) {
    if (S_ISREG(item.status.st_mode)) {
        put_file_back(kept, item, directory, false);
        return;
    }
    const PrivateDirectory maker(directory, item.name);
    constexpr char kMade[] = "made";
    const int made = S_ISLNK(item.status.st_mode)   ? ::symlinkat(item.target.c_str(), maker.fd(), kMade)
                     : S_ISDIR(item.status.st_mode) ? ::mkdirat(maker.fd(), kMade, 0700)
                                                    : ::mknodat(maker.fd(), kMade, item.status.st_mode, 0);
    if (made != 0) {
        throw_errno("it cannot be made again");
    }
    const std::array<timespec, 2> times = {item.status.st_atim, item.status.st_mtim};
    if (S_ISDIR(item.status.st_mode)) {
        give_status(open_directory(maker.fd(), kMade).get(), item);
    } else if (::fchownat(maker.fd(), kMade, item.status.st_uid, item.status.st_gid, AT_SYMLINK_NOFOLLOW) != 0 ||
               (!S_ISLNK(item.status.st_mode) && ::fchmodat(maker.fd(), kMade, item.status.st_mode & 07777, 0) != 0) ||
               ::utimensat(maker.fd(), kMade, times.data(), AT_SYMLINK_NOFOLLOW) != 0) {
        throw_errno("it cannot be given its owner, mode and times");
    }
    if (!rename_without_replacing(maker.fd(), kMade, directory, item.name)) {
        throw_errno("it cannot be put in its place");
    }
}

UndoState undo_removed(const KeptQuarantine &kept, const Quarantined &item, int directory) {
    struct stat found {};
    if (::fstatat(directory, item.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        make_again(kept, item, directory);
        return UndoState::restored;
    }
    // Nothing was taken away where the repair was stopped before.
    bool same = (found.st_mode & S_IFMT) == (item.status.st_mode & S_IFMT);
    if (same && S_ISREG(found.st_mode)) {
        const StoreFileHeld held = open_store_file(directory, item.name, O_RDONLY);
        same = held.file.get() >= 0 && same_content(kept.open_old(item).get(), held.file.get());
    } else if (same && S_ISLNK(found.st_mode)) {
        std::array<char, PATH_MAX> target{};
        const ssize_t size = ::readlinkat(directory, item.name.c_str(), target.data(), target.size());
        same = size >= 0 && item.target == std::string_view(target.data(), static_cast<size_t>(size));
    }
    if (!same) {
        throw Failure("something else stands there now");
    }
    return UndoState::was_so;
}

std::string text_in(const Descriptor &file) {
    std::string text(size_t{1} << 16, '\0');
    const ssize_t size = ::pread(file.get(), text.data(), text.size(), 0);
    if (size < 0) {
        throw_errno("its original cannot be read");
    }
    text.resize(static_cast<size_t>(size));
    return text;
}

UndoState undo_attribute(const KeptQuarantine &kept, const Quarantined &item, int directory) {
    const Descriptor entry(::openat(directory, item.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (entry.get() < 0 || ::fstat(entry.get(), &found) != 0) {
        throw_errno("cannot be looked at");
    }
    const std::string now = metadata_of(directory, item.name).value_or("");
    const std::string old = text_in(kept.open_old(item));
    if (now == old) {
        return UndoState::was_so;
    }
    if (now != text_in(kept.open_new(item)) || !is_still(directory, item.name, found) ||
        (!S_ISDIR(found.st_mode) && found.st_nlink != 1)) {
        throw Failure("it was changed since the repair");
    }
    const std::string itself = fmt::format("/proc/self/fd/{}", entry.get());
    if (::setxattr(itself.c_str(), kMetadataName, old.data(), old.size(), XATTR_REPLACE) != 0) {
        throw_errno("the metadata attribute cannot be set");
    }
    return UndoState::restored;
}

UndoState undo_one(const KeptQuarantine &kept, const Quarantined &item) {
    const Descriptor around = directory_of(item);
    const Descriptor stores = item.inStore ? open_stores(around.get()) : Descriptor(-1);
    if (item.inStore && stores.get() < 0) {
        throw_errno("\"@eaDir\" cannot be opened");
    }
    const int directory = item.inStore ? stores.get() : around.get();
    return item.what == Quarantined::What::rewritten   ? undo_rewritten(kept, item, directory)
           : item.what == Quarantined::What::attribute ? undo_attribute(kept, item, directory)
                                                       : undo_removed(kept, item, directory);
}

} // namespace

void undo_repairs(const std::string &quarantine, UndoWatcher &watcher) {
    const KeptQuarantine kept(quarantine);
    for (auto item = kept.items().rbegin(); item != kept.items().rend() && !watcher.stopped(); ++item) {
        try {
            watcher.undone(shown_place(*item), undo_one(kept, *item), "");
        } catch (const Failure &failure) {
            watcher.undone(shown_place(*item), UndoState::left, failure.what());
        }
    }
}

} // namespace engine
