// Owner of an ACL, and the few steps on files that the functions of the library share. Nothing here reports: failures
// leave errno.
#pragma once

#include "support/file_ref.h"

#include <acl/libacl.h>
#include <sys/acl.h>

namespace vexo {

class Acl {
  public:
    Acl() = default;
    explicit Acl(acl_t acl) : m_acl(acl) {}
    Acl(Acl &&other) noexcept : m_acl(other.m_acl) { other.m_acl = nullptr; }
    Acl &operator=(Acl &&other) noexcept {
        if (this != &other) {
            free();
            m_acl = other.m_acl;
            other.m_acl = nullptr;
        }
        return *this;
    }
    Acl(const Acl &) = delete;
    Acl &operator=(const Acl &) = delete;
    ~Acl() { free(); }

    explicit operator bool() const { return m_acl != nullptr; }
    acl_t get() const { return m_acl; }
    acl_t *slot() { return &m_acl; }
    bool empty() const { return m_acl == nullptr || ::acl_entries(m_acl) == 0; }
    // Says no more than a mode does.
    bool is_mode() const { return m_acl != nullptr && ::acl_equiv_mode(m_acl, nullptr) == 0; }

  private:
    void free() {
        if (m_acl != nullptr) {
            ::acl_free(m_acl);
        }
    }

    acl_t m_acl = nullptr;
};

// Empty owner with errno; EOPNOTSUPP: the volume has no ACLs. A directory without a default ACL has one of no entries.
inline Acl read_acl(const char *path, acl_type_t type) {
    return Acl(::acl_get_file(path, type));
}
inline Acl read_access_acl(const FileRef &file) {
    return Acl(file.is_open() ? ::acl_get_fd(file.fd()) : ::acl_get_file(file.path(), ACL_TYPE_ACCESS));
}

// Gives an access ACL. On a volume without ACLs one that is a mode becomes the mode; anything more would be lost, and
// fails with EOPNOTSUPP.
int give_access_acl(const FileRef &file, const Acl &acl);

// Gives a directory a default ACL, or takes it away where `acl` is empty. On a volume without ACLs an empty one is
// what it has; another fails with EOPNOTSUPP.
int give_default_acl(const char *path, const Acl &acl);

} // namespace vexo
