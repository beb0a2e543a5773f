#include "tools/engine/workers/shared.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/mman.h>

namespace engine {

void *map_shared(size_t bytes) {
    void *const memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return memory;
}

void unmap_shared(void *memory, size_t bytes) {
    ::munmap(memory, bytes);
}

void Ring::put(std::string_view &bytes) {
    uint64_t written = m_written.load(std::memory_order_relaxed);
    while (!bytes.empty()) {
        const size_t room = kBytes - static_cast<size_t>(written - m_read.load(std::memory_order_acquire));
        const auto at = static_cast<size_t>(written % kBytes);
        const size_t part = std::min({room, kBytes - at, bytes.size()});
        if (part == 0) {
            return;
        }
        std::memcpy(m_bytes.data() + at, bytes.data(), part);
        bytes.remove_prefix(part);
        written += part;
        m_written.store(written, std::memory_order_release);
    }
}

void Ring::take(std::string &bytes) {
    uint64_t read = m_read.load(std::memory_order_relaxed);
    const uint64_t written = m_written.load(std::memory_order_acquire);
    while (read != written) {
        const auto at = static_cast<size_t>(read % kBytes);
        const size_t part = std::min(static_cast<size_t>(written - read), kBytes - at);
        bytes.append(m_bytes.data() + at, part);
        read += part;
    }
    m_read.store(read, std::memory_order_release);
}

void Slate::write(std::string_view text) {
    const uint32_t next = 1 - m_current.load(std::memory_order_relaxed);
    Text &to = m_texts[next];
    to.size = std::min(text.size(), kBytes);
    std::memcpy(to.bytes.data(), text.data(), to.size);
    m_current.store(next, std::memory_order_release);
}

std::string Slate::read() const {
    const Text &text = m_texts[m_current.load(std::memory_order_acquire)];
    return {text.bytes.data(), text.size};
}

} // namespace engine
