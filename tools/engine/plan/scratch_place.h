// A private directory in one that is only to be asked what its volume takes. It is gone again at the end, and the
// directory has the times that it had before. One of a plan that was killed goes with the next one that is made there.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <memory>
#include <string>
#include <sys/stat.h>

namespace engine {

class ScratchPlace {
  public:
    // In an open directory (O_PATH too). Null where this user may not make anything in it, or may not put its times
    // back: then nothing has changed.
    static std::unique_ptr<ScratchPlace> in(int directory);
    ScratchPlace(const ScratchPlace &) = delete;
    ScratchPlace &operator=(const ScratchPlace &) = delete;
    ~ScratchPlace();

    int fd() const { return m_place.get(); }

  private:
    ScratchPlace(Descriptor above, const struct stat &before, std::string name);

    Descriptor m_above;
    struct stat m_before, m_made = {}; // of the directory above
    std::string m_name;
    Descriptor m_place{-1};
};

} // namespace engine
