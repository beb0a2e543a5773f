// Volumes of a test's own: a private mount namespace, with tmpfs and loop-mounted file systems in it. All of it is gone
// when the test's process ends. Needs root; where that or a tool is missing the test is skipped with the reason.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace kit {

// Puts this process into a mount namespace of its own, once. Throws Unavailable where it may not.
void enterPrivateMounts();

// Why a test cannot run here. KIT_REQUIRE turns it into a skip.
struct Unavailable {
    std::string reason;
};

// A mounted volume; unmounted at the end.
class Volume {
  public:
    Volume(Volume &&other) noexcept;
    Volume &operator=(Volume &&) = delete;
    Volume(const Volume &) = delete;
    Volume &operator=(const Volume &) = delete;
    ~Volume();

    // A tmpfs of at most `bytes` bytes, mounted at `at` (empty: a new directory).
    static Volume tmpfs(uint64_t bytes, const std::string &at = {});
    // A volume that keeps neither extended attributes nor ACLs nor creation times (ramfs).
    static Volume plain();
    // A file system made by mkfs.TYPE (ext4, btrfs, xfs) in a file of `bytes` bytes, mounted through a loop device.
    static Volume loop(const std::string &type, uint64_t bytes, const std::string &mkfsOptions = {},
                       const std::string &mountOptions = {});
    // The same of a driver that is a program: "ntfs-3g" or "exfat-fuse".
    static Volume fuse(const std::string &type, uint64_t bytes, const std::string &options = {});
    // A directory once more through a program (bindfs), which keeps nothing of its own.
    static Volume mirror(const std::string &directory);
    // A writable layer over a directory of the machine (such as "/etc"), so that a test can put files there.
    static Volume overlay(const std::string &directory);

    const std::string &path() const { return m_path; }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }
    // Makes the volume read-only, or writable again.
    void setReadOnly(bool on) const;

  private:
    Volume(std::string path, std::string image, std::string made, pid_t driver = -1);
    std::string m_path;
    std::string m_image; // the loop file, or the overlay's upper directory's volume
    std::string m_made;  // the directory made for the mount
    pid_t m_driver;      // the program that is the volume; -1: there is none
};

} // namespace kit

// Evaluates an expression that may throw Unavailable, and skips the test with the reason if it does.
#define KIT_REQUIRE(declaration, expression)                                                                           \
    std::optional<kit::Volume> declaration##Holder;                                                                    \
    try {                                                                                                              \
        declaration##Holder.emplace(expression);                                                                       \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }                                                                                                                  \
    [[maybe_unused]] kit::Volume &declaration = *declaration##Holder
