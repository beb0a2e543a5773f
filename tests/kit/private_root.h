// A root directory of the test's own: empty but for /proc and /tmp, in memory, and gone at the end. For files and
// directories that must have a certain absolute path, where the machine's own are not to be touched or do not exist.
// The whole process lives in it, and in its "/", until the end. Needs root.
#pragma once

#include "tests/kit/volumes.h"

#include <string>
#include <string_view>

namespace kit {

class PrivateRoot {
  public:
    // Throws Unavailable.
    PrivateRoot();
    PrivateRoot(const PrivateRoot &) = delete;
    PrivateRoot &operator=(const PrivateRoot &) = delete;
    ~PrivateRoot();

    // A file with that content, and the directories on the way to it.
    void put(const std::string &path, std::string_view content) const;
    // A directory, and those on the way to it.
    void makeDirectory(const std::string &path) const;

  private:
    Volume m_volume;
    std::string m_directoryBefore;
    int m_rootBefore;
};

} // namespace kit

// The private root, or a skip with the reason.
#define KIT_REQUIRE_PRIVATE_ROOT(name)                                                                                 \
    std::optional<kit::PrivateRoot> name##Holder;                                                                      \
    try {                                                                                                              \
        name##Holder.emplace();                                                                                        \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }                                                                                                                  \
    [[maybe_unused]] const kit::PrivateRoot &name = *name##Holder
