// A volume that this process serves by a thread of its own, mounted for as long as this lives.
//
// Include it in a source file that defines FUSE_USE_VERSION first and links with libfuse3.
#pragma once

#include "tests/kit/faults.h"
#include "tests/kit/volumes.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fuse.h>
#include <fuse_lowlevel.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

namespace kit {

class FuseServer {
  public:
    // `directory` is a pattern of mkdtemp; what `operations` find in their context is `data`. Throws Unavailable where
    // this process may not mount.
    FuseServer(const fuse_operations &operations, void *data, std::string directory)
        : m_directory(std::move(directory)) {
        if (::access("/dev/fuse", R_OK | W_OK) != 0 || ::mkdtemp(m_directory.data()) == nullptr) {
            throw Unavailable{"FUSE cannot be used here"};
        }
        char name[] = "kit";
        char *arguments[] = {name, nullptr};
        fuse_args none = FUSE_ARGS_INIT(1, arguments);
        m_session = fuse_new(&none, &operations, sizeof operations, data);
        fuse_opt_free_args(&none);
        if (m_session == nullptr || fuse_mount(m_session, m_directory.c_str()) != 0) {
            if (m_session != nullptr) {
                fuse_destroy(m_session);
            }
            ::rmdir(m_directory.c_str());
            throw Unavailable{"FUSE cannot mount here"};
        }
        m_end = ::eventfd(0, EFD_CLOEXEC); // not earlier: nobody closes it where there is no volume
        ::fcntl(fuse_session_fd(fuse_get_session(m_session)), F_SETFL, O_NONBLOCK);
        m_loop = std::thread([this] { serve(); });
    }
    FuseServer(const FuseServer &) = delete;
    FuseServer &operator=(const FuseServer &) = delete;
    // Nobody may be waiting inside the operations any more.
    ~FuseServer() {
        // That it is unmounted would not end the loop: whatever took a mount namespace of its own meanwhile has the
        // volume still, for as long as it lives.
        ::eventfd_write(m_end, 1);
        m_loop.join();
        ::umount2(m_directory.c_str(), MNT_DETACH);
        fuse_unmount(m_session); // finds nothing mounted, and releases its memory
        fuse_destroy(m_session);
        ::close(m_end);
        ::rmdir(m_directory.c_str());
    }

    const std::string &directory() const { return m_directory; }

  private:
    void serve() const {
        const FaultsOff aside; // its calls are nobody's that a test counts or makes fail, and they come at any time
        fuse_session *const session = fuse_get_session(m_session);
        fuse_buf request{};
        std::array<pollfd, 2> waited{{{fuse_session_fd(session), POLLIN, 0}, {m_end, POLLIN, 0}}};
        while (!fuse_session_exited(session)) {
            if (::poll(waited.data(), waited.size(), -1) < 0) {
                continue;
            }
            if (waited[1].revents != 0) {
                break;
            }
            const int size = fuse_session_receive_buf(session, &request);
            if (size > 0) {
                fuse_session_process_buf(session, &request);
            } else if (size != -EINTR && size != -EAGAIN) {
                break;
            }
        }
        std::free(request.mem); // NOLINT(cppcoreguidelines-no-malloc): the session's
    }

    std::string m_directory;
    int m_end = -1;
    fuse *m_session = nullptr;
    std::thread m_loop;
};

} // namespace kit
