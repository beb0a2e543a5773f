#define FUSE_USE_VERSION 31
#include "tests/copy/failing_volume.h"

#include "tests/kit/fuse_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fuse.h>
#include <map>
#include <mutex>
#include <optional>
#include <sys/stat.h>

namespace kit {

struct FailingVolume::State {
    std::mutex mutex;
    std::map<std::string, std::string> files; // by "/name"
    int writesUntilFailure = -1, error = 0;   // -1: none fails
    bool losesFirst = false;
    std::optional<FuseServer> server;
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
    m_state->server.emplace(operations, m_state.get(), "/tmp/vexofileop-failing-XXXXXX");
}

FailingVolume::~FailingVolume() = default;

std::string FailingVolume::operator/(const std::string &name) const {
    return m_state->server->directory() + "/" + name;
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
