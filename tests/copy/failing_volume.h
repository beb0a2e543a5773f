// A volume whose program fails when a test says so, and tells each failure once, as programs and servers behind a
// volume do. It holds the regular files that are made in it, in memory.
#pragma once

#include <memory>
#include <string>

namespace kit {

class FailingVolume {
  public:
    // Throws Unavailable where FUSE cannot be used.
    FailingVolume();
    FailingVolume(const FailingVolume &) = delete;
    FailingVolume &operator=(const FailingVolume &) = delete;
    ~FailingVolume();

    std::string operator/(const std::string &name) const;
    // The write request after the next `skip` answers `error`, and nothing is written.
    void failWrite(int error, int skip);
    // That write request answers success and loses its bytes; the one behind it answers EIO.
    void loseWrite(int skip);

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace kit
