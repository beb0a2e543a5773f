#define FUSE_USE_VERSION 31
#include "tests/tools/slow_file.h"

#include "tests/kit/fuse_server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fuse.h>
#include <mutex>
#include <optional>

namespace kit {

struct SlowFile::State {
    int64_t size = 0;
    std::mutex mutex;
    std::condition_variable changed;
    int64_t allowed = 0;
    int64_t asked = 0; // the end of the last read
    bool closeHeld = false, closeWaits = false;
    bool readWaits() const { return asked > allowed; }
    std::optional<FuseServer> server;
};

namespace {

constexpr std::chrono::seconds kPatience{120}; // only a test that fails waits as long
constexpr const char *kName = "/slow";

} // namespace

// The operations reach the state through the session; they are members for the sake of access to it.
struct SlowFileOperations {
    template <class State>
    static State &state() {
        return *static_cast<State *>(fuse_get_context()->private_data);
    }

    template <class State>
    static int attributes(const char *path, struct stat *out, fuse_file_info *) {
        *out = {};
        const bool root = std::strcmp(path, "/") == 0;
        if (!root && std::strcmp(path, kName) != 0) {
            return -ENOENT;
        }
        out->st_mode = root ? S_IFDIR | 0755 : S_IFREG | 0644;
        out->st_nlink = 1;
        out->st_size = root ? 0 : state<State>().size;
        out->st_blocks = (out->st_size + 511) / 512;
        return 0;
    }

    static int open(const char *, fuse_file_info *info) {
        info->direct_io = 1; // one request for each read, none ahead of it
        return 0;
    }

    static int list(const char *, void *names, fuse_fill_dir_t add, off_t, fuse_file_info *, fuse_readdir_flags) {
        for (const char *const name : {".", "..", kName + 1}) {
            add(names, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
        }
        return 0;
    }

    template <class State>
    static int read(const char *, char *buffer, size_t size, off_t offset, fuse_file_info *) {
        State &file = state<State>();
        const int64_t end = std::min(file.size, offset + static_cast<int64_t>(size));
        if (end <= offset) {
            return 0;
        }
        std::unique_lock lock(file.mutex);
        file.asked = end;
        file.changed.notify_all();
        file.changed.wait(lock, [&] { return !file.readWaits(); });
        std::memset(buffer, 0, static_cast<size_t>(end - offset));
        return static_cast<int>(end - offset);
    }

    template <class State>
    static int flush(const char *, fuse_file_info *) {
        State &file = state<State>();
        std::unique_lock lock(file.mutex);
        file.closeWaits = file.closeHeld;
        file.changed.notify_all();
        file.changed.wait(lock, [&] { return !file.closeHeld; });
        return 0;
    }
};

SlowFile::SlowFile(int64_t size) : m_state(std::make_unique<State>()) {
    m_state->size = size;
    fuse_operations operations{};
    operations.getattr = SlowFileOperations::attributes<State>;
    operations.readdir = SlowFileOperations::list;
    operations.open = SlowFileOperations::open;
    operations.read = SlowFileOperations::read<State>;
    operations.flush = SlowFileOperations::flush<State>;
    m_state->server.emplace(operations, m_state.get(), "/tmp/vexofileop-slow-XXXXXX");
}

SlowFile::~SlowFile() {
    allowAll();
}

std::string SlowFile::path() const {
    return m_state->server->directory() + kName;
}

void SlowFile::allow(int64_t bytes) {
    const std::lock_guard lock(m_state->mutex);
    m_state->allowed = std::max(m_state->allowed, bytes);
    m_state->changed.notify_all();
}

void SlowFile::allowAll() {
    const std::lock_guard lock(m_state->mutex);
    m_state->allowed = m_state->size;
    m_state->closeHeld = false;
    m_state->changed.notify_all();
}

void SlowFile::holdClose() {
    const std::lock_guard lock(m_state->mutex);
    m_state->closeHeld = true;
}

bool SlowFile::waitedFor() {
    std::unique_lock lock(m_state->mutex);
    return m_state->changed.wait_for(lock, kPatience, [&] { return m_state->readWaits(); });
}

bool SlowFile::closeWaitedFor() {
    std::unique_lock lock(m_state->mutex);
    return m_state->changed.wait_for(lock, kPatience, [&] { return m_state->closeWaits; });
}

} // namespace kit
