#include "tools/engine/transfer/belongings.h"

#include "platform/acl.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/transfer/system_attributes.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#pragma weak VLIBCFileIsRecord

namespace engine {
namespace {

std::vector<std::string> names_by(ssize_t (*ask)(const char *, char *, size_t), const std::string &path) {
    std::string list(size_t{64} << 10, '\0');
    const ssize_t size = ask(path.c_str(), list.data(), list.size());
    std::vector<std::string> names;
    for (std::string_view rest(list.data(), size < 0 ? 0 : static_cast<size_t>(size)); !rest.empty();) {
        names.emplace_back(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(names.back().size() + 1);
    }
    return names;
}

} // namespace

std::vector<std::string> attribute_names(const std::string &path) {
    return names_by(&::llistxattr, path);
}

void copy_attributes(const std::string &from, int to, const std::vector<std::string> &prefixes, Records records) {
    for (const std::string &name : names_by(&::listxattr, from)) {
        if (std::ranges::none_of(prefixes, [&](const std::string &prefix) { return name.starts_with(prefix); }) ||
            (records == Records::left_out && VLIBCFileIsRecord != nullptr && VLIBCFileIsRecord(name.c_str()) != 0)) {
            continue;
        }
        std::string value(size_t{64} << 10, '\0');
        const ssize_t size = ::getxattr(from.c_str(), name.c_str(), value.data(), value.size());
        if (size >= 0) {
            (void)::fsetxattr(to, name.c_str(), value.data(), static_cast<size_t>(size), 0);
        }
    }
}

void give_belongings(const std::string &from, const VLIBCStat &status, int to, bool owners, bool archive) {
    const std::string path = fmt::format("/proc/self/fd/{}", to);
    if (owners && ::fchown(to, status.st.st_uid, status.st.st_gid) != 0) {
        errno = 0; // as a comparison tells
    }
    (void)VEXOACLCopy(from.c_str(), path.c_str());
    (void)VEXOACLArchiveCopy(from.c_str(), path.c_str());
    copy_attributes(from, to, {"user."}, Records::left_out);
    if (::geteuid() == 0) {
        copy_system_attributes(from, path);
    }
    give_dos_attributes(to, status.attributes | (archive ? uint32_t{VLIBC_ATTR_ARCHIVE} : 0));
    const timespec times[] = {status.st.st_atim, status.st.st_mtim, status.createTime};
    (void)VLIBCFileUTime(path.c_str(), 3, times);
    // Where the mount gives the modes, the library gives a file what leaves all to that.
    constexpr mode_t open = 0666;
    (void)::fchmod(
        to, !S_ISDIR(status.st.st_mode) && !owners ? open : mode_for_copy(from, status.st.st_mode & kModeBits, path));
    struct stat now {};
    if (::fstat(to, &now) == 0 && now.st_mtim.tv_nsec != status.st.st_mtim.tv_nsec) {
        (void)::futimens(to, times);
    }
}

} // namespace engine
