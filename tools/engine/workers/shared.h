// What a worker and the one who started it have in common: memory. What a worker has written there is known, however it
// ended.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

// Records from one process to one other, in their order. Each side calls what is its own.
class Ring {
  public:
    static constexpr size_t kBytes = size_t{256} * 1024;

    // The writer: as much of `bytes` as there is room for, and takes that off their front.
    void put(std::string_view &bytes);
    // The reader: everything that is there goes to the end of `bytes`.
    void take(std::string &bytes);

  private:
    std::atomic<uint64_t> m_written = 0, m_read = 0;
    std::array<char, kBytes> m_bytes;
};

// A short text that is never half of two, also when its writer was killed in the middle.
class Slate {
  public:
    static constexpr size_t kBytes = 4096;

    // What is longer loses its end.
    void write(std::string_view text);
    std::string read() const;

  private:
    struct Text {
        size_t size = 0;
        std::array<char, kBytes> bytes;
    };
    std::atomic<uint32_t> m_current = 0;
    std::array<Text, 2> m_texts;
};

struct SharedDesk {
    Ring ring;
    Slate slate;
};

struct SharedSigns {
    std::atomic<bool> stop = false;
    std::atomic<int> wanted = 0; // jobs that nobody has split off yet, for workers without one
};

// Memory that children share with this process, zeroed. Throws std::bad_alloc.
void *map_shared(size_t bytes);
void unmap_shared(void *memory, size_t bytes);

template <typename Type>
struct UnmapShared {
    void operator()(Type *object) const { unmap_shared(object, sizeof(Type)); }
};
template <typename Type>
using Shared = std::unique_ptr<Type, UnmapShared<Type>>;
template <typename Type>
Shared<Type> make_shared_memory() {
    return Shared<Type>(new (map_shared(sizeof(Type))) Type);
}

} // namespace engine
