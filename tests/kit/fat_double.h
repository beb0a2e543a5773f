// The attribute calls of a FAT volume, which few test machines can mount: the ioctls that read and write a file's
// attributes are answered for files under the directories that the test names, and go on to the kernel elsewhere.
#pragma once

#include <cstdint>
#include <string>

namespace kit {

class FatDouble {
  public:
    // Everything under `directory` is on the volume; a file's attributes are those of an archive until they are set.
    static void setVolume(const std::string &directory);
    static uint32_t attributes(const std::string &file);
    static void setAttributes(const std::string &file, uint32_t attributes);
    // Forgets volumes and attributes. Every test starts so.
    static void reset();
};

// For the wrapper of ioctl(): whether this was an attribute call on such a volume; it is done then.
bool answerFatCall(int fd, unsigned long request, void *argument);

} // namespace kit
