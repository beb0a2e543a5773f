#define FUSE_USE_VERSION 31
#include "tests/copy/failing_volume.h"

#include "tests/kit/volumes.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fuse.h>
#include <map>
#include <mutex>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace kit {

struct FailingVolume::State {
    std::string directory = "/tmp/vexofileop-failing-XXXXXX";
    std::mutex mutex;
    std::map<std::string, std::string> files; // by "/name"
    int writesUntilFailure = -1, error = 0;   // -1: none fails
    bool losesFirst = false;
    fuse *session = nullptr;
    std::thread loop;
};

// The operations reach the state through the session; they are members for the sake of access to it.
struct FailingVolumeOperations {
    template <class State>
    static State &state() {
        return *static_cast<State *>(fuse_get_context()->private_data);
    }

    static void *begin(fuse_conn_info *, fuse_config *settings) {
        settings->hard_remove = 1;
        settings->direct_io = 1; // each write as one request
        return fuse_get_context()->private_data;
    }

    template <class State>
    static int attributes(const char *path, struct stat *out, fuse_file_info *) {
        const std::lock_guard lock(state<State>().mutex);
        *out = {};
        out->st_nlink = 1;
        out->st_mode = S_IFDIR | 0755;
        if (std::strcmp(path, "/") == 0) {
            return 0;
        }
        const auto file = state<State>().files.find(path);
        if (file == state<State>().files.end()) {
            return -ENOENT;
        }
        out->st_mode = S_IFREG | 0644;
        out->st_size = static_cast<off_t>(file->second.size());
        out->st_blocks = (out->st_size + 511) / 512;
        return 0;
    }

    template <class State>
    static int create(const char *path, mode_t, fuse_file_info *) {
        const std::lock_guard lock(state<State>().mutex);
        state<State>().files[path].clear();
        return 0;
    }

    static int open(const char *, fuse_file_info *) { return 0; }

    template <class State>
    static int truncate(const char *path, off_t size, fuse_file_info *) {
        const std::lock_guard lock(state<State>().mutex);
        state<State>().files[path].resize(static_cast<size_t>(size));
        return 0;
    }

    template <class State>
    static int read(const char *path, char *buffer, size_t size, off_t offset, fuse_file_info *) {
        const std::lock_guard lock(state<State>().mutex);
        const std::string &content = state<State>().files[path];
        const auto at = static_cast<size_t>(offset);
        return at >= content.size() ? 0 : static_cast<int>(content.copy(buffer, size, at));
    }

    template <class State>
    static int write(const char *path, const char *bytes, size_t size, off_t offset, fuse_file_info *) {
        State &volume = state<State>();
        const std::lock_guard lock(volume.mutex);
        std::string &content = volume.files[path];
        const auto at = static_cast<size_t>(offset);
        content.resize(std::max(content.size(), at + size));
        if (volume.writesUntilFailure >= 0 && volume.writesUntilFailure-- == 0) {
            if (!volume.losesFirst) {
                return -volume.error;
            }
            volume.losesFirst = false;
            volume.writesUntilFailure = 0; // the next tells it
            return static_cast<int>(size);
        }
        content.replace(at, size, bytes, size);
        return static_cast<int>(size);
    }

    template <class State>
    static int unlink(const char *path) {
        const std::lock_guard lock(state<State>().mutex);
        return state<State>().files.erase(path) == 0 ? -ENOENT : 0;
    }

    // Owner, mode and times are taken and not kept.
    static int changeOwner(const char *, uid_t, gid_t, fuse_file_info *) { return 0; }
    static int changeMode(const char *, mode_t, fuse_file_info *) { return 0; }
    static int changeTimes(const char *, const timespec *, fuse_file_info *) { return 0; }
};

FailingVolume::FailingVolume() : m_state(std::make_unique<State>()) {
    enterPrivateMounts(); // now: what is mounted before that stays mounted outside
    if (::access("/dev/fuse", R_OK | W_OK) != 0 || ::mkdtemp(m_state->directory.data()) == nullptr) {
        throw Unavailable{"FUSE cannot be used here"};
    }
    fuse_operations operations{};
    operations.init = FailingVolumeOperations::begin;
    operations.getattr = FailingVolumeOperations::attributes<State>;
    operations.create = FailingVolumeOperations::create<State>;
    operations.open = FailingVolumeOperations::open;
    operations.truncate = FailingVolumeOperations::truncate<State>;
    operations.read = FailingVolumeOperations::read<State>;
    operations.write = FailingVolumeOperations::write<State>;
    operations.unlink = FailingVolumeOperations::unlink<State>;
    operations.chown = FailingVolumeOperations::changeOwner;
    operations.chmod = FailingVolumeOperations::changeMode;
    operations.utimens = FailingVolumeOperations::changeTimes;
    char name[] = "failing";
    char *arguments[] = {name, nullptr};
    fuse_args none = FUSE_ARGS_INIT(1, arguments);
    m_state->session = fuse_new(&none, &operations, sizeof operations, m_state.get());
    fuse_opt_free_args(&none);
    if (m_state->session == nullptr || fuse_mount(m_state->session, m_state->directory.c_str()) != 0) {
        ::rmdir(m_state->directory.c_str());
        throw Unavailable{"FUSE cannot mount here"};
    }
    m_state->loop = std::thread([session = m_state->session] { fuse_loop(session); });
}

FailingVolume::~FailingVolume() {
    ::umount2(m_state->directory.c_str(), MNT_DETACH); // ends the loop
    m_state->loop.join();
    fuse_unmount(m_state->session); // finds nothing mounted, and releases its memory
    fuse_destroy(m_state->session);
    ::rmdir(m_state->directory.c_str());
}

std::string FailingVolume::operator/(const std::string &name) const {
    return m_state->directory + "/" + name;
}

void FailingVolume::failWrite(int error, int skip) {
    const std::lock_guard lock(m_state->mutex);
    m_state->error = error;
    m_state->writesUntilFailure = skip;
}

void FailingVolume::loseWrite(int skip) {
    failWrite(EIO, skip);
    const std::lock_guard lock(m_state->mutex);
    m_state->losesFirst = true;
}

} // namespace kit
