// A file under a private name beside the one whose place it is to take.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace engine {

// The name under which what belongs to `name` is under way in the same directory: always the same one, so that what a
// killed run left there is found by the next one.
std::string private_name_for(const std::string &name);

class PrivateFile {
  public:
    // A new, empty file in the open directory. One that a killed run left is removed; where another process works on
    // it this waits. Throws Failure where that takes too long, and where it cannot be made. `directory` has to outlive
    // it.
    PrivateFile(int directory, const std::string &name, mode_t mode);
    PrivateFile(const PrivateFile &) = delete;
    PrivateFile &operator=(const PrivateFile &) = delete;
    ~PrivateFile(); // removes what was not put in place

    int fd() const { return m_fd.get(); }
    const std::string &name() const { return m_name; }
    // The bytes of an open file. Throws Failure.
    void fill_from(int source) const;
    // Under the name that it is for, as the function below.
    void put_in_place(bool replace);

  private:
    int m_directory;
    std::string m_target, m_name;
    Descriptor m_fd;
    bool m_placed = false;
};

// A new directory that only this user enters, under the private name for `name`. One that a killed run left is removed
// first; where another process works in it, and where it cannot be made, this throws Failure. `parent` has to outlive
// it.
class PrivateDirectory {
  public:
    PrivateDirectory(int parent, const std::string &name);
    PrivateDirectory(const PrivateDirectory &) = delete;
    PrivateDirectory &operator=(const PrivateDirectory &) = delete;
    ~PrivateDirectory(); // removes it with everything in it

    int fd() const { return m_fd.get(); }

  private:
    void make();

    int m_parent;
    std::string m_name;
    Descriptor m_fd;
};

// Gives an open file owner, mode, ACL and attributes of another; false where this process may not. Throws Failure.
bool take_properties(int source, int to);

// The same where what takes the place of somebody else's may be ours; the mode is that of the other in any case.
void take_properties_of_ours(int source, int to);

// Where the volume knows it. Throws Failure.
void give_mode(int fd, mode_t mode);

// Makes the open file `fd`, which is `name` in `directory`, durable and renames it there to `target`. `replace`: over
// what is there; otherwise nothing may be there. Throws Failure, and Overtaken where there is.
void put_in_place(int directory, int fd, const std::string &name, const std::string &target, bool replace);

// Appends `size` bytes of an open file to another, at `to`. Throws Failure.
void copy_bytes(int source, uint64_t from, int target, uint64_t to, uint64_t size);

// Whether `size` bytes of two open files are the same. Throws Failure where they cannot be read.
bool same_bytes(int left, uint64_t leftOffset, int right, uint64_t rightOffset, uint64_t size);

} // namespace engine
