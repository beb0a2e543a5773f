// The DOS archive bit of an entry: whoever changes the entry sets it, and who has saved it clears it.
#pragma once

#include <optional>
#include <string>

namespace engine {

// Of an open file or directory (no O_PATH). Nothing, with errno: it cannot be told. Where the volume keeps no such bits
// none is set.
std::optional<bool> has_archive_bit(int fd);

// False, with errno: EOPNOTSUPP where the volume keeps no such bits. What is so already is not written.
bool set_archive_bit(int fd);
bool clear_archive_bit(int fd);

// What the volume of a directory does with such bits. Nothing is changed for that. Throws Failure where the directory
// cannot be opened.
enum class BitKeeping { kept, none, read_only };
BitKeeping keeping_of_bits(const std::string &directory);

// While this stands nobody opens the file for writing: whoever tries waits until it is gone. It does not come about
// where somebody has it open for writing already, and on a volume, or for a user, whom the kernel refuses it.
class WriteBarrier {
  public:
    // `fd`: open for reading alone.
    explicit WriteBarrier(int fd);
    WriteBarrier(const WriteBarrier &) = delete;
    WriteBarrier &operator=(const WriteBarrier &) = delete;
    ~WriteBarrier();

    bool has_writer() const { return m_writer; }

  private:
    int m_fd;
    bool m_stands = false, m_writer = false;
};

} // namespace engine
