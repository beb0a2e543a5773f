// Permissions, which are the mode or an ACL, and what new entries of a directory inherit.
#include "tools/engine/compare/findings.h"
#include "tools/engine/compare/granted_mode.h"

#include <acl/libacl.h>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <type_traits>

namespace engine {
namespace {

constexpr char kAccess[] = "system.posix_acl_access";
constexpr char kDefault[] = "system.posix_acl_default";

struct FreeAcl {
    void operator()(void *object) const { ::acl_free(object); }
};
using Acl = std::unique_ptr<std::remove_pointer_t<acl_t>, FreeAcl>;

Acl checked(acl_t acl) {
    if (acl == nullptr) {
        throw_errno("cannot be read");
    }
    return Acl(acl);
}

// Of an entry without an ACL it is the mode; of a directory without a default one it is empty.
Acl acl_of(const EntryView &entry, acl_type_t type) {
    if (type == ACL_TYPE_ACCESS && !entry.has(kAccess)) {
        return checked(::acl_from_mode(entry.status().st.st_mode));
    }
    return checked(type == ACL_TYPE_DEFAULT && !entry.has(kDefault) ? ::acl_init(0)
                                                                    : ::acl_get_file(entry.file().c_str(), type));
}

std::string text_of(const Acl &acl) {
    const std::unique_ptr<char, FreeAcl> text(::acl_to_any_text(acl.get(), nullptr, ',', TEXT_NUMERIC_IDS));
    return text == nullptr || *text == '\0' ? "none" : text.get();
}

mode_t bits_of(acl_entry_t entry) {
    acl_permset_t set = nullptr;
    if (::acl_get_permset(entry, &set) != 0) {
        return 0;
    }
    return (::acl_get_perm(set, ACL_READ) > 0 ? 4U : 0U) | (::acl_get_perm(set, ACL_WRITE) > 0 ? 2U : 0U) |
           (::acl_get_perm(set, ACL_EXECUTE) > 0 ? 1U : 0U);
}

// What owner, group and others may do, where the mode of a file with an ACL shows the mask in place of the group.
mode_t rights_of(const Acl &acl) {
    mode_t owner = 0, group = 0, others = 0, mask = 7;
    acl_entry_t entry = nullptr;
    for (int result = ::acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &entry); result == 1;
         result = ::acl_get_entry(acl.get(), ACL_NEXT_ENTRY, &entry)) {
        acl_tag_t tag = ACL_UNDEFINED_TAG;
        ::acl_get_tag_type(entry, &tag);
        mode_t *const place = tag == ACL_USER_OBJ    ? &owner
                              : tag == ACL_GROUP_OBJ ? &group
                              : tag == ACL_OTHER     ? &others
                              : tag == ACL_MASK      ? &mask
                                                     : nullptr;
        if (place != nullptr) {
            *place = bits_of(entry);
        }
    }
    return owner << 6 | (group & mask) << 3 | others;
}

void compare_acls(const EntryView &one, const EntryView &other, acl_type_t type, LossClass cls, Findings &findings) {
    const Acl first = acl_of(one, type), second = acl_of(other, type);
    if (::acl_cmp(first.get(), second.get()) != 0) {
        findings.add(cls, fmt::format("{} ACL differs: {} and {}", type == ACL_TYPE_ACCESS ? "access" : "default",
                                      text_of(first), text_of(second)));
    }
}

void compare_rights(const EntryView &one, const EntryView &other, mode_t first, mode_t second, Findings &findings) {
    constexpr mode_t special = S_ISUID | S_ISGID | S_ISVTX;
    first |= one.status().st.st_mode & special;
    second |= other.status().st.st_mode & special;
    if (first == second) {
        return;
    }
    const bool mask = one.has(kAccess) && !other.has(kAccess) && (first & S_IRWXG) != (second & S_IRWXG) &&
                      (one.status().st.st_mode & S_IRWXG) == (second & S_IRWXG);
    findings.add(LossClass::mode, fmt::format("permissions differ: {:04o} and {:04o}{}", first, second,
                                              mask ? ", where the mask of the ACL became the group's rights" : ""));
}

std::string access_attribute(const std::string &path) {
    char value[4096];
    const ssize_t size = ::getxattr(path.c_str(), kAccess, value, sizeof value);
    return {value, size < 0 ? 0 : static_cast<size_t>(size)};
}

} // namespace

mode_t granted_mode(const std::string &path, mode_t mode) {
    if (::getxattr(path.c_str(), kAccess, nullptr, 0) <= 0) {
        return mode;
    }
    const Acl acl(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    const mode_t group = acl == nullptr ? 0 : rights_of(acl) & S_IRWXG;
    return (mode & ~mode_t{S_IRWXG}) | group;
}

mode_t mode_for_copy(const std::string &from, mode_t mode, const std::string &to) {
    const mode_t granted = granted_mode(from, mode);
    return granted != mode && access_attribute(from) == access_attribute(to) ? mode : granted;
}

bool has_acls(const EntryView &entry) {
    return entry.has(kAccess) || entry.has(kDefault);
}

void compare_permissions(const EntryView &one, const EntryView &other, Findings &findings) {
    constexpr mode_t rights = S_IRWXU | S_IRWXG | S_IRWXO;
    if (!one.volume().owners || S_ISLNK(one.type())) {
        return;
    }
    if (!has_acls(one) && !has_acls(other)) {
        compare_rights(one, other, one.status().st.st_mode & rights, other.status().st.st_mode & rights, findings);
        return;
    }
    findings.attempt("access ACL", [&] {
        if (one.has(kAccess) || other.has(kAccess)) {
            compare_acls(one, other, ACL_TYPE_ACCESS, LossClass::acl_access, findings);
        }
        compare_rights(one, other, rights_of(acl_of(one, ACL_TYPE_ACCESS)), rights_of(acl_of(other, ACL_TYPE_ACCESS)),
                       findings);
    });
    findings.attempt("default ACL", [&] {
        if (one.has(kDefault) || other.has(kDefault)) {
            compare_acls(one, other, ACL_TYPE_DEFAULT, LossClass::acl_default, findings);
        }
    });
}

} // namespace engine
