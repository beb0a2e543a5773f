// A file under a private name beside the one whose place it is to take.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <string>
#include <sys/types.h>

namespace engine {

// The name under which what belongs to `name` is under way in the same directory: always the same one, so that what a
// killed run left there is found by the next one.
std::string private_name_for(const std::string &name);

class PrivateFile {
  public:
    // A new, empty file in the open directory. One that a killed run left is removed; where another process works on
    // it, and where it cannot be made, this throws Failure. `directory` has to outlive it.
    PrivateFile(int directory, const std::string &name, mode_t mode);
    PrivateFile(const PrivateFile &) = delete;
    PrivateFile &operator=(const PrivateFile &) = delete;
    ~PrivateFile(); // removes what was not put in place

    int fd() const { return m_fd.get(); }
    const std::string &name() const { return m_name; }
    // The bytes of an open file. Throws Failure.
    void fill_from(int source) const;
    // Owner, mode, ACL and attributes of an open file; false where this process may not give one of them away.
    bool take_properties(int source) const;
    // Makes it durable under the name that it is for. `replace`: over what is there; otherwise nothing may be there.
    // Throws Failure.
    void put_in_place(bool replace);

  private:
    int m_directory;
    std::string m_target, m_name;
    Descriptor m_fd;
    bool m_placed = false;
};

// Whether `size` bytes of two open files are the same. Throws Failure where they cannot be read.
bool same_bytes(int left, uint64_t leftOffset, int right, uint64_t rightOffset, uint64_t size);

} // namespace engine
