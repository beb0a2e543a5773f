// Samba's server on the loopback device, for a test: shares that SMB clients see as macOS and Windows would, and
// smbclient to look at them with. Everything it writes of its own is in a directory of the test.
#pragma once

#include "tests/kit/volumes.h"

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace peers {

class Smbd {
  public:
    struct Share {
        std::string name, path;
        std::vector<std::string> options; // "fruit:metadata = stream"
    };

    // Starts the server and waits until it answers. Throws kit::Unavailable.
    Smbd(std::string directory, const std::vector<Share> &shares);
    Smbd(const Smbd &) = delete;
    Smbd &operator=(const Smbd &) = delete;
    ~Smbd();

    // Runs smbclient's commands (separated by ";") on a share, and gives what it printed.
    std::string run(const std::string &share, const std::string &commands) const;

    // What a client sees of a file.
    struct Info {
        std::string attributes; // "HSA", in smbclient's letters
        uint32_t bits;          // the same as a number
        std::string created;    // as smbclient prints it, in UTC
        std::map<std::string, uint64_t> streams;
    };
    Info info(const std::string &share, const std::string &file) const;

    // A file's or stream's ("file:stream") content; "(none)" and why, when the client cannot open it.
    std::string get(const std::string &share, const std::string &file) const;
    void put(const std::string &share, const std::string &file, const std::string &content) const;

  private:
    void writeConfiguration(const std::vector<Share> &shares) const;
    void waitUntilItAnswers(const std::string &share);
    std::string transferFile() const { return m_directory + "/transfer"; }

    std::string m_directory;
    int m_port;
    pid_t m_process = -1;
};

} // namespace peers
