// A file whose content arrives as the test allows: a read beyond that waits. This holds a copy in its middle for as
// long as a test likes, whatever the speed of the machine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kit {

class SlowFile {
  public:
    // Throws Unavailable where FUSE cannot be used. The content is zero bytes.
    explicit SlowFile(int64_t size);
    SlowFile(const SlowFile &) = delete;
    SlowFile &operator=(const SlowFile &) = delete;
    ~SlowFile();

    std::string path() const;  // the only file in its directory
    void allow(int64_t bytes); // the first so many; never less than before
    void allowAll();
    // Closing the file waits too, until allowAll().
    void holdClose();
    // Wait until somebody waits in a read, or in closing. False when that does not happen.
    bool waitedFor();
    bool closeWaitedFor();

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace kit
