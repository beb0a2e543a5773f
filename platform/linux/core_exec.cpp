// Running a program and waiting for it.
#include "platform/core.h"

#include "support/heap.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vexo {
namespace {

// How the program starts: with nothing to read, no descriptors of the caller's beyond the first three, no signals
// blocked, and SIGPIPE as usual though the caller may ignore it.
class SpawnSetup {
  public:
    SpawnSetup() {
        m_error = ::posix_spawn_file_actions_init(&m_actions);
        if (m_error != 0) {
            return;
        }
        m_error = ::posix_spawnattr_init(&m_attributes);
        if (m_error != 0) {
            ::posix_spawn_file_actions_destroy(&m_actions);
            return;
        }
        m_made = true;
        sigset_t none, pipe;
        ::sigemptyset(&none);
        ::sigemptyset(&pipe);
        ::sigaddset(&pipe, SIGPIPE);
        const int results[] = {
            ::posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
            ::posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1),
            ::posix_spawnattr_setsigmask(&m_attributes, &none),
            ::posix_spawnattr_setsigdefault(&m_attributes, &pipe),
            ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
        };
        for (const int result : results) {
            m_error = m_error == 0 ? result : m_error;
        }
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;
    ~SpawnSetup() {
        if (m_made) {
            ::posix_spawnattr_destroy(&m_attributes);
            ::posix_spawn_file_actions_destroy(&m_actions);
        }
    }

    int error() const { return m_error; }
    const posix_spawn_file_actions_t *actions() const { return &m_actions; }
    const posix_spawnattr_t *attributes() const { return &m_attributes; }

  private:
    posix_spawn_file_actions_t m_actions;
    posix_spawnattr_t m_attributes;
    int m_error = 0;
    bool m_made = false;
};

// Callers may end the list by a plain 0, an int of which only the lower half is sure. No string lies at a multiple of
// 4 GiB.
bool ends_list(const char *argument) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument)) == 0;
}

int wait_for(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1; // the caller ignores SIGCHLD: nobody can tell any more
        }
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    errno = EINTR;
    return -1;
}

int spawn(const char *program, char *const *arguments) {
    const SpawnSetup setup;
    pid_t child = -1;
    const int error = setup.error() != 0
                          ? setup.error()
                          : ::posix_spawn(&child, program, setup.actions(), setup.attributes(), arguments, environ);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return wait_for(child);
}

} // namespace
} // namespace vexo

using namespace vexo;

int VLIBCExec(const char *program, ...) {
    if (program == nullptr || *program == '\0') {
        errno = EINVAL;
        return -1;
    }
    va_list given;
    va_start(given, program);
    va_list again;
    va_copy(again, given);
    size_t count = 0;
    while (!ends_list(va_arg(given, const char *))) {
        ++count;
    }
    va_end(given);

    HeapBuffer block = HeapBuffer::zeroed((count + 2) * sizeof(char *));
    if (block) {
        // posix_spawn takes the strings as they are and changes none.
        auto **arguments = reinterpret_cast<char **>(block.data());
        arguments[0] = const_cast<char *>(program);
        for (size_t at = 1; at <= count; ++at) {
            arguments[at] = const_cast<char *>(va_arg(again, const char *));
        }
    }
    va_end(again);
    if (!block) {
        errno = ENOMEM;
        return -1;
    }
    return spawn(program, reinterpret_cast<char *const *>(block.data()));
}
