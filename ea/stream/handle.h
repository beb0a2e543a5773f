// Owner of a stream handle.
#pragma once

#include "ea/ea.h"
#include "support/guards.h"

namespace vexo {

class StreamHandle {
  public:
    StreamHandle() = default;
    // Opened with a lock of that type on a descriptor that stays the caller's; empty, with the last error, when it
    // failed.
    StreamHandle(int fd, int lockType) : m_eas(VEXOEASOpen(fd, lockType)) {}
    explicit StreamHandle(VEXOEAS *eas) : m_eas(eas) {}
    StreamHandle(StreamHandle &&other) noexcept : m_eas(other.release()) {}
    StreamHandle &operator=(StreamHandle &&other) noexcept {
        if (this != &other) {
            reset();
            m_eas = other.release();
        }
        return *this;
    }
    StreamHandle(const StreamHandle &) = delete;
    StreamHandle &operator=(const StreamHandle &) = delete;
    ~StreamHandle() { reset(); }

    explicit operator bool() const { return m_eas != nullptr; }
    VEXOEAS *get() const { return m_eas; }
    VEXOEAS *operator->() const { return m_eas; }
    VEXOEAS *release() {
        VEXOEAS *eas = m_eas;
        m_eas = nullptr;
        return eas;
    }
    // Closes it; errno and the last error stay what they were.
    void reset() {
        if (m_eas != nullptr) {
            const KeepErrors keep;
            (void)VEXOEASClose(release());
        }
    }
    // Closes it for a caller that wants to know whether the lock was released: 0 or -1.
    [[nodiscard]] int close() { return m_eas == nullptr ? 0 : VEXOEASClose(release()); }

  private:
    VEXOEAS *m_eas = nullptr;
};

// Takes a value longer than `size` bytes out of the stream, before one of that size is written in its place: a write
// leaves what lies behind it, and the end of the old value would be taken for the new one's. 0, or -1 with the last
// error.
inline int remove_longer(VEXOEAS *eas, const char *name, uint32_t size) {
    int index = -1;
    {
        const KeepErrors keep; // most streams have no such attribute
        index = VEXOEASSearch(eas, name);
    }
    return index >= 0 && eas->records[index].length > size ? VEXOEASRemove(eas, name) : 0;
}

} // namespace vexo
