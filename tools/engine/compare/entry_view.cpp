#include "tools/engine/compare/entry_view.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/look.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace engine {
namespace {

// How DOS attributes, their times and the state of a store are kept, here and by other programs, what a kernel or a
// security module gives to a file where it lies, and how an NTFS volume keeps the owner, the group, the mode and the
// device number of an entry.
constexpr std::string_view kRepresentations[] = {"user.DOSATTRIB",
                                                 "user.vexo.filea.flushtime",
                                                 "user.cifs.dosattrib",
                                                 "user.cifs.creationtime",
                                                 "system.dos_attrib",
                                                 "system.ntfs_attrib",
                                                 "system.ntfs_attrib_be",
                                                 "system.ntfs_times",
                                                 "system.ntfs_times_be",
                                                 "system.ntfs_crtime",
                                                 "system.ntfs_crtime_be",
                                                 "security.selinux",
                                                 "security.evm",
                                                 "security.SMACK64",
                                                 "security.SMACK64EXEC",
                                                 "security.SMACK64MMAP",
                                                 "security.SMACK64TRANSMUTE",
                                                 "$LXUID",
                                                 "$LXGID",
                                                 "$LXMOD",
                                                 "$LXDEV"};
// Settings of a volume, and the form in which XFS shows root the ACLs once more.
constexpr std::string_view kOfTheVolume[] = {"btrfs.", "trusted.SGI_ACL_"};
constexpr char kMacFinderInfo[] = "osx.com.apple.FinderInfo";

// Asks a call for a list or a value: first with what mostly is room enough.
template <typename Call>
std::optional<std::string> grown(const Call &call) {
    std::string bytes(1024, '\0');
    for (;;) {
        const ssize_t got = call(bytes.data(), bytes.size());
        if (got >= 0) {
            bytes.resize(static_cast<size_t>(got));
            return bytes;
        }
        if (errno != ERANGE || bytes.size() > (size_t{16} << 20)) {
            return std::nullopt;
        }
        bytes.resize(bytes.size() * 64);
    }
}

} // namespace

bool is_representation(std::string_view name) {
    return std::ranges::find(kRepresentations, name) != std::end(kRepresentations) ||
           std::ranges::any_of(kOfTheVolume, [&](std::string_view prefix) { return name.starts_with(prefix); });
}

bool may_be_native(std::string_view name) {
    return !is_representation(name) && !is_of_the_system(name) && name != kMetadataName && name != kFinderInfoName &&
           name != kResourceForkName;
}

EntryView::EntryView(const Side &side) : m_side(side) {
    constexpr uint32_t fields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
    if (side.name.empty() || side.name == ".." || side.name.find('/') != std::string::npos) {
        errno = EINVAL;
        throw Failure("it has no name in a directory");
    }
    if (VLIBCFileLStat(side.path().c_str(), fields, &m_status) != 0) {
        const int number = errno;
        try {
            throw_errno("cannot be looked at");
        } catch (const Failure &) {
            errno = number;
            throw;
        }
    }
}

void EntryView::take_times(const VLIBCStat &before) {
    m_status.st.st_mtim = before.st.st_mtim;
    m_status.st.st_ctim = before.st.st_ctim;
    m_status.st.st_atim = before.st.st_atim;
    m_status.createTime = older_of(before.createTime, m_status.createTime);
}

bool EntryView::stands_for_more(const std::string &name) const {
    return is_representation(name) || (volume().store == StoreKind::file_ea && name == kMetadataName) ||
           (volume().store == StoreKind::native && (name == kFinderInfoName || name == kResourceForkName));
}

std::vector<std::string> EntryView::all_names() const {
    const std::string named = m_side.path();
    const auto list = grown([&](char *bytes, size_t size) {
        return m_readable       ? ::flistxattr(m_pin.get(), bytes, size)
               : m_file.empty() ? ::llistxattr(named.c_str(), bytes, size)
                                : ::listxattr(m_file.c_str(), bytes, size);
    });
    std::vector<std::string> names;
    if (!list && errno != EOPNOTSUPP && errno != ENOSYS && errno != ENODATA) { // the last of HFS+, which means none
        throw_errno("its attributes cannot be listed");
    }
    for (std::string_view rest = list ? *list : std::string_view(); !rest.empty();) {
        const std::string_view name = rest.substr(0, rest.find('\0'));
        names.emplace_back(name);
        rest.remove_prefix(std::min(rest.size(), name.size() + 1));
    }
    return names;
}

void EntryView::list() {
    m_names = all_names();
    m_metadata = std::ranges::find(m_names, kMetadataName) != m_names.end();
    std::erase_if(m_names, [this](const std::string &name) { return stands_for_more(name); });
    std::ranges::sort(m_names);
}

bool EntryView::has(const char *name) const {
    return std::ranges::binary_search(m_names, name);
}

bool EntryView::may_hold_more() const {
    if (!m_names.empty() || m_metadata) {
        return true;
    }
    if (!S_ISREG(type()) && !S_ISDIR(type())) {
        return false;
    }
    struct stat companion {};
    switch (volume().store) {
    case StoreKind::none:
        return false;
    case StoreKind::native:
        return true; // no list has a resource fork
    case StoreKind::apple_double:
        return ::fstatat(m_side.directory, ("._" + m_side.name).c_str(), &companion, AT_SYMLINK_NOFOLLOW) == 0 ||
               (errno != ENOENT && errno != ENAMETOOLONG) || !volume().noDirectory;
    default:
        return !volume().noDirectory;
    }
}

void EntryView::pin(bool forReading) {
    // Without waiting, should something else stand there now; and a look that leaves no trace is for the owner and for
    // root.
    constexpr int reading = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
    Descriptor opened(-1);
    for (const int flags : {reading | O_NOATIME, reading, O_PATH | O_NOFOLLOW | O_CLOEXEC}) {
        m_readable = (flags & O_PATH) == 0;
        if (forReading || !m_readable) {
            opened = Descriptor(::openat(m_side.directory, m_side.name.c_str(), flags));
        }
        if (opened.get() >= 0 || (errno != EPERM && errno != EACCES && forReading)) {
            break;
        }
    }
    struct stat found {};
    if (opened.get() < 0 || ::fstat(opened.get(), &found) != 0) {
        throw_errno("cannot be opened");
    }
    if (found.st_dev != m_status.st.st_dev || found.st_ino != m_status.st.st_ino ||
        (found.st_mode & S_IFMT) != type()) {
        throw Failure("was replaced meanwhile");
    }
    m_pin.swap(opened);
    m_file = "/proc/self/fd/" + std::to_string(m_pin.get());
    list();
}

std::optional<std::string> EntryView::attribute(const std::string &name) const {
    auto value = grown([&](char *bytes, size_t size) { return ::getxattr(m_file.c_str(), name.c_str(), bytes, size); });
    if (!value && errno != ENODATA) {
        throw_errno("cannot be read");
    }
    if (value && name == kMacFinderInfo) {
        // The driver gives one of every file: zeros where nobody has set any, with the type and the creator of files
        // that were made from Linux as question marks.
        const std::string_view known = std::string_view(*value).substr(value->starts_with("????????") ? 8 : 0);
        if (std::ranges::all_of(known, [](char byte) { return byte == '\0'; })) {
            return std::nullopt;
        }
    }
    return value;
}

const StoreContents &EntryView::contents() {
    if (m_contents == nullptr) {
        const bool keeps = S_ISREG(type()) || S_ISDIR(type());
        m_contents = std::make_unique<StoreContents>(StoreContents::Place{m_side.directory, m_side.name, m_file,
                                                                          keeps ? volume().store : StoreKind::none,
                                                                          volume().noDirectory, volume().noForks});
    }
    return *m_contents;
}

} // namespace engine
