#include "tools/engine/transfer/kept_transfer.h"

#include "copy/copy.h"
#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/belongings.h"
#include "tools/engine/transfer/link_transfer.h"
#include "tools/engine/transfer/native_carry.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"
#include "tools/engine/walk/text_hash.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

std::string path_of(int fd) {
    return fmt::format("/proc/self/fd/{}", fd);
}

// Open as the entry that it stays; a look that leaves no trace is for the owner and for root.
Descriptor open_plain(int directory, const std::string &name, int flags) {
    flags |= O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    Descriptor opened(::openat(directory, name.c_str(), flags | O_NOATIME));
    return opened.get() < 0 && errno == EPERM ? Descriptor(::openat(directory, name.c_str(), flags))
                                              : std::move(opened);
}

bool read_status(int fd, VLIBCStat &status) {
    constexpr uint32_t fields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
    return VLIBCFileStat(path_of(fd).c_str(), fields, &status) == 0;
}

// A tree of plain entries. What fails is left out, and a comparison tells it.
class KeptTransfer {
  public:
    KeptTransfer(const VolumeFacts &from, const VolumeFacts &to, bool data)
        : m_from(plain_facts(from)), m_to(plain_facts(to)), m_data(data) {}

    void directory(int from, const std::string &name, int to, const std::string &made, int depth = 0) const {
        const Descriptor source = open_plain(from, name, O_DIRECTORY);
        VLIBCStat status{};
        // Nobody else gets in before it has its own mode.
        if (source.get() < 0 || depth > kDeepestKept || !read_status(source.get(), status) ||
            (::mkdirat(to, made.c_str(), 0700) != 0 && errno != EEXIST)) {
            return;
        }
        const Descriptor copy = open_directory(to, made);
        struct stat there {};
        if (copy.get() < 0 || ::fstat(copy.get(), &there) != 0 ||
            (there.st_dev == status.st.st_dev && there.st_ino == status.st.st_ino)) {
            return;
        }
        for (const std::string &left : left_overs_in(copy.get()).gone) {
            (void)remove_left_over(copy.get(), left);
        }
        for (const std::string &inner : names_in(source.get()).value_or(std::vector<std::string>())) {
            if (!is_left_over(inner)) {
                entry(source.get(), inner, copy.get(), depth);
            }
        }
        if (!is_same(from, name, to, made)) {
            give_belongings(path_of(source.get()), status, copy.get(), m_to.owners, false);
        }
    }
    // Without what is in it.
    void empty_directory(int from, const std::string &name, int to) const {
        const Descriptor source = open_plain(from, name, O_DIRECTORY);
        VLIBCStat status{};
        if (source.get() < 0 || !read_status(source.get(), status) ||
            (::mkdirat(to, name.c_str(), 0700) != 0 && errno != EEXIST) || is_same(from, name, to, name)) {
            return;
        }
        if (const Descriptor copy = open_directory(to, name); copy.get() >= 0) {
            give_belongings(path_of(source.get()), status, copy.get(), m_to.owners, false);
        }
    }

  private:
    bool is_same(int from, const std::string &name, int to, const std::string &made) const {
        return compare_entries({from, name, m_from}, {to, made, m_to}, {.data = m_data}).empty();
    }
    void entry(int from, const std::string &name, int to, int depth) const {
        struct stat found {
        }, there{};
        if (::fstatat(from, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            return;
        }
        if (S_ISDIR(found.st_mode)) {
            directory(from, name, to, name, depth + 1);
        } else if ((S_ISREG(found.st_mode) || S_ISLNK(found.st_mode)) &&
                   (::fstatat(to, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0 || !is_same(from, name, to, name))) {
            const std::string made = next_private_name();
            const bool whole = S_ISREG(found.st_mode) ? file(from, name, to, made) : link(from, name, found, to, made);
            if (!whole || ::renameat(to, made.c_str(), to, name.c_str()) != 0) {
                ::unlinkat(to, made.c_str(), 0);
            }
        }
    }
    bool file(int from, const std::string &name, int to, const std::string &made) const {
        const Descriptor source = open_plain(from, name, 0);
        VLIBCStat status{};
        if (source.get() < 0 || !read_status(source.get(), status) || !S_ISREG(status.st.st_mode)) {
            return false;
        }
        constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        const Descriptor copy(::openat(to, made.c_str(), flags, 0600));
        if (copy.get() < 0) {
            return false;
        }
        try {
            copy_bytes(source.get(), 0, copy.get(), 0, UINT64_MAX);
        } catch (const Failure &) {
            return false;
        }
        give_belongings(path_of(source.get()), status, copy.get(), m_to.owners, true);
        return true;
    }
    bool link(int from, const std::string &name, const struct stat &found, int to, const std::string &made) const {
        char target[PATH_MAX] = "";
        if (!volume_traits(m_to.type).links || ::readlinkat(from, name.c_str(), target, sizeof target - 1) < 0 ||
            ::symlinkat(target, to, made.c_str()) != 0) {
            return false;
        }
        finish_link(found, to, made);
        return true;
    }

    VolumeFacts m_from, m_to;
    bool m_data;
};

// In place of the library's copy of one file of a store. What is no part of one it shall leave alone.
int copy_part(void *, const char *from, const char *to) {
    if (base_name(parent_of(to)) != kStoreName) {
        return 0;
    }
    constexpr int common = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const Descriptor source(::open(from, O_RDONLY | common));
    const Descriptor copy(::open(to, O_RDWR | O_CREAT | common, 0600));
    struct stat found {
    }, there{};
    if (source.get() < 0 || copy.get() < 0 || ::fstat(source.get(), &found) != 0 || ::fstat(copy.get(), &there) != 0 ||
        !S_ISREG(found.st_mode) || !S_ISREG(there.st_mode) || ::ftruncate(copy.get(), 0) != 0) {
        return -1;
    }
    try {
        copy_bytes(source.get(), 0, copy.get(), 0, UINT64_MAX);
        return 0;
    } catch (const Failure &) {
        ::unlink(to);
        return -1;
    }
}

KeptPlace place_or_none(const Side &entry, Kept what) {
    try {
        return kept_place(entry, what);
    } catch (const Failure &) {
        return {};
    }
}

bool is_one(const KeptPlace &one, const KeptPlace &other) {
    struct stat first {
    }, second{};
    return one.there && other.there &&
           ::fstatat(one.parent.get(), one.name.c_str(), &first, AT_SYMLINK_NOFOLLOW) == 0 &&
           ::fstatat(other.parent.get(), other.name.c_str(), &second, AT_SYMLINK_NOFOLLOW) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Always the same for a name, so that the next run finds what a killed one has left under it.
std::string name_aside(const std::string &name) {
    return fmt::format(".vexofileop-kept-{:016x}", text_hash(name));
}

// What a run that was killed has left aside is where it was again; whoever is at work has it locked. What came in its
// place meanwhile stays, and so does what it has of the same name. False: there is still something aside.
bool put_back(int parent, const std::string &aside, const std::string &name) {
    const Descriptor left = open_directory(parent, aside);
    if (left.get() < 0) {
        return errno == ENOENT;
    }
    if (::flock(left.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        return false;
    }
    if (rename_without_replacing(parent, aside, parent, name)) {
        return true;
    }
    const Descriptor there = open_directory(parent, name);
    for (const std::string &inner : names_in(left.get()).value_or(std::vector<std::string>())) {
        (void)rename_without_replacing(left.get(), inner, there.get(), inner);
    }
    return ::unlinkat(parent, aside.c_str(), AT_REMOVEDIR) == 0;
}

// The "@eaDir" that the library would make for a store, and close to others for a moment. Where there was nothing to
// put into it, it goes again.
class MadeForStore {
  public:
    MadeForStore(const Side &source, const Side &copy, bool stored) : m_directory(copy.directory) {
        const StoreKind kind = copy.volume.store;
        m_made = (kind == StoreKind::ea_directory || kind == StoreKind::file_ea) &&
                 (stored ||
                  (source.volume.store == StoreKind::native && ::llistxattr(source.path().c_str(), nullptr, 0) > 0)) &&
                 lacks_store_directory(m_directory) &&
                 make_store_directory(fmt::format("/proc/self/fd/{}/{}", m_directory, kStoreName)) == 0;
    }
    MadeForStore(const MadeForStore &) = delete;
    MadeForStore &operator=(const MadeForStore &) = delete;
    ~MadeForStore() {
        if (m_made) {
            const int number = errno;
            (void)::unlinkat(m_directory, kStoreName, AT_REMOVEDIR);
            errno = number;
        }
    }

  private:
    int m_directory;
    bool m_made = false;
};

} // namespace

void carry_own_directory(const Side &source, const Side &copy, bool data) {
    if (source.volume.noDirectory || source.volume.store == StoreKind::none || copy.volume.store == StoreKind::none) {
        return;
    }
    const KeptPlace from = place_or_none(source, Kept::own);
    if (!from.there) {
        return;
    }
    KeptPlace to = place_or_none(copy, Kept::own);
    if (to.parent.get() < 0) {
        (void)make_store_directory(fmt::format("/proc/self/fd/{}/{}", copy.directory, kStoreName));
        to = place_or_none(copy, Kept::own);
    }
    if (to.parent.get() >= 0 && !is_one(from, to)) {
        KeptTransfer(source.volume, copy.volume, data)
            .directory(from.parent.get(), from.name, to.parent.get(), to.name);
    }
}

void carry_empty_store(const Side &source, const Side &copy) {
    const KeptPlace from = place_or_none(source, Kept::empty_store);
    if (!from.there) {
        return;
    }
    const KeptPlace to = place_or_none(copy, Kept::empty_store);
    struct stat found {};
    // One that holds something is as it was made for that.
    if (to.there ||
        (to.parent.get() >= 0 && ::fstatat(to.parent.get(), kStoreName, &found, AT_SYMLINK_NOFOLLOW) != 0)) {
        KeptTransfer(source.volume, copy.volume, false).empty_directory(from.parent.get(), kStoreName, to.parent.get());
    }
}

void carry_kept(const Side &source, const Side &copy, bool data) {
    carry_own_directory(source, copy, data);
    carry_empty_store(source, copy);
}

std::optional<Problem> carry_beside(const Side &source, const Side &copy, bool stored, bool *locked) {
    const auto carry = [&](VEXOCopyArgs *record) {
        if (goes_to_attributes(source, copy)) {
            carry_to_attributes(source, copy, locked);
            return;
        }
        const MadeForStore made(source, copy, stored);
        const int result = VEXOEACopyInternal(source.path().c_str(), copy.path().c_str(), 0, 0, source.volume.type,
                                              copy.volume.type, nullptr, nullptr, record);
        if (locked != nullptr) {
            *locked = result != 0 && VLIBCErrGet() == kLocked;
        }
    };
    const KeptPlace from = source.volume.noDirectory ? KeptPlace{} : place_or_none(source, Kept::own);
    if (!from.there) {
        carry(nullptr);
        return std::nullopt;
    }
    const std::unique_ptr<VEXOCopyArgs, decltype(&VEXOCopyArgsFree)> record(VEXOCopyArgsAlloc(), &VEXOCopyArgsFree);
    KeptPlace to = place_or_none(copy, Kept::own);
    if (record == nullptr || is_one(from, to)) {
        return std::nullopt;
    }
    record->copyEA = &copy_part;
    // The library would remove what the copy has in its own directory. It is nobody's left-over under these names.
    std::string aside = name_aside(to.name);
    if (to.parent.get() >= 0) {
        aside = put_back(to.parent.get(), aside, to.name)
                    ? aside
                    : fmt::format(".vexofileop-kept{}", next_private_name().substr(11));
        to = place_or_none(copy, Kept::own);
    }
    const Descriptor held = to.there ? open_directory(to.parent.get(), to.name) : Descriptor(-1);
    (void)::flock(held.get(), LOCK_EX | LOCK_NB); // for as long as it is not where it was
    const bool moved = to.there && ::renameat(to.parent.get(), to.name.c_str(), to.parent.get(), aside.c_str()) == 0;
    carry(record.get());
    if (moved && ::renameat(to.parent.get(), aside.c_str(), to.parent.get(), to.name.c_str()) != 0) {
        const int number = errno;
        Problem problem = problem_of_errno(number);
        problem.reason = fmt::format("what was in {} before is in {}: {}", displayed("@eaDir/" + to.name),
                                     displayed("@eaDir/" + aside), problem.reason);
        return problem;
    }
    carry_kept(source, copy, true);
    return std::nullopt;
}

} // namespace engine
