#include "tools/engine/transfer/completion.h"

#include "platform/core.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/kept_transfer.h"
#include "tools/engine/transfer/system_attributes.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#pragma weak VLIBCKernelAttrFcntl

namespace engine {
namespace {

// Who is not root needs to write to what keeps a creation time, also where that is read-only.
void set_times(const std::string &path, mode_t mode, const timespec *times) {
    if (VLIBCFileUTime(path.c_str(), 3, times) == 0 || ::geteuid() == 0 || (mode & S_IWUSR) != 0 ||
        ::chmod(path.c_str(), (mode & kModeBits) | S_IWUSR) != 0) {
        return;
    }
    (void)VLIBCFileUTime(path.c_str(), 3, times);
    (void)::chmod(path.c_str(), mode & kModeBits);
}

// An entry that stays the one it is; a link is not followed.
struct Held {
    explicit Held(const Side &side)
        : entry(::openat(side.directory, side.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
        if (entry.get() >= 0 && ::fstat(entry.get(), &status) == 0) {
            path = fmt::format("/proc/self/fd/{}", entry.get());
        }
    }
    bool keeps_more() const { return !path.empty() && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)); }

    Descriptor entry;
    struct stat status {};
    std::string path = {}; // empty: it is not there
};

void set_archive(const Side &copy) {
    VLIBCStat found{};
    if (VLIBCFileLStat(copy.path().c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &found) != 0 ||
        !S_ISREG(found.st.st_mode) || (found.attributes & VLIBC_ATTR_ARCHIVE) != 0) {
        return;
    }
    const Descriptor file(::openat(copy.directory, copy.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() >= 0) {
        give_dos_attributes(file.get(), VLIBC_ATTR_ARCHIVE);
    }
}

// Not every volume gives a new file all bits that it is made with; and where permissions are what locks an entry, the
// state of the lock comes after them. Who has another owner gets no set-id bits; and where an ACL could not go along,
// its mask is nobody's right: the library makes a copy with the mode of its source, whose group's bits are that mask.
// What it has made lies where nobody else gets in.
void give_mode(const Held &from, const Held &to) {
    constexpr mode_t rights = S_IRWXU | S_IRWXG | S_IRWXO;
    const bool same = from.status.st_uid == to.status.st_uid && from.status.st_gid == to.status.st_gid;
    mode_t mode = to.status.st_mode & kModeBits & ~rights;
    mode |= mode_for_copy(from.path, from.status.st_mode, to.path) & rights;
    if (same) {
        mode |= from.status.st_mode & kModeBits & ~rights;
    }
    if (mode != (to.status.st_mode & kModeBits)) {
        (void)::chmod(to.path.c_str(), mode);
    }
}

// Says of attributes that are still not there what the volume has said of them.
void add_reasons(const RefusedAttributes &refused, std::vector<Loss> &losses) {
    for (const auto &[name, number] : refused) {
        const std::string begin = fmt::format("attribute {}", displayed(name));
        for (Loss &loss : losses) {
            const bool meant = loss.detail.starts_with(begin + ":") || loss.detail.starts_with(begin + " differs:");
            loss.number = meant ? number : loss.number;
        }
    }
}

bool is_time(const Loss &loss) {
    return loss.cls == LossClass::creation_time || loss.cls == LossClass::modification_time;
}

bool is_loss_of_the_system(const Loss &loss) {
    return loss.cls == LossClass::system_attribute || loss.cls == LossClass::acl_windows;
}

} // namespace

int change_dos_attribute(int fd, int command) {
    return VLIBCKernelAttrFcntl != nullptr ? VLIBCKernelAttrFcntl(fd, command) : ::fcntl(fd, command);
}

void give_dos_attributes(int fd, uint32_t attributes) {
    constexpr struct {
        uint32_t bit;
        int command;
    } rows[] = {{VLIBC_ATTR_ARCHIVE, 0x202}, {VLIBC_ATTR_HIDDEN, 0x203}, {VLIBC_ATTR_SYSTEM, 0x204}};
    for (const auto &row : rows) {
        if ((attributes & row.bit) != 0) {
            (void)change_dos_attribute(fd, row.command);
        }
    }
}

void give_times(const Side &from, const Side &to, const VLIBCStat *before) {
    VLIBCStat found{};
    const bool known = VLIBCFileLStat(from.path().c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found) == 0;
    if (before == nullptr && !known) {
        return;
    }
    const VLIBCStat &source = before != nullptr ? *before : found;
    // One that an attribute keeps may have been missed before; what is guessed without one is never older later.
    const timespec created = known ? older_of(source.createTime, found.createTime) : source.createTime;
    const timespec times[] = {source.st.st_atim, source.st.st_mtim, created};
    // By descriptor: the path of the library's call would follow a link.
    const Held there(to);
    if (there.keeps_more()) {
        set_times(there.path, there.status.st_mode, times);
    } else if (!there.path.empty()) {
        (void)::utimensat(to.directory, to.name.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
}

std::vector<Loss> complete_copy(const Side &source, const Side &copy, const CompareOptions &options, bool carried) {
    if (options.kept && !carried) {
        carry_kept(source, copy, false);
    }
    std::vector<Loss> losses = compare_entries(source, copy, options);
    const bool late = options.times && std::ranges::any_of(losses, is_time);
    const bool ofTheSystem = ::geteuid() == 0 && std::ranges::any_of(losses, is_loss_of_the_system);
    // Where the mount gives the modes, taking the right to write away would set the read-only attribute.
    const bool mode = copy.volume.owners && std::ranges::find(losses, LossClass::mode, &Loss::cls) != losses.end();
    const bool users = std::ranges::find(losses, LossClass::attribute, &Loss::cls) != losses.end();
    if (!late && !ofTheSystem && !mode && !users) {
        return losses;
    }
    RefusedAttributes refused;
    if (const Held from(source), to(copy); from.keeps_more() && to.keeps_more()) {
        if (ofTheSystem) {
            refused = copy_system_attributes(from.path, to.path);
        }
        if (users) {
            std::ranges::move(copy_user_attributes(from.path, to.path), std::back_inserter(refused));
        }
        if (mode) {
            give_mode(from, to);
        }
    }
    if (late) {
        set_archive(copy);
        give_times(source, copy, options.before);
    }
    losses = compare_entries(source, copy, options);
    add_reasons(refused, losses);
    return losses;
}

} // namespace engine
