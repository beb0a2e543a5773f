// Messages between two processes, each of them whole, with open files in them.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace engine {

class Channel {
  public:
    // Bytes of a message: less than any kernel takes at once.
    static constexpr size_t kMostBytes = size_t{64} * 1024;
    static constexpr size_t kMostFiles = 4;

    struct Message {
        std::string bytes = {};
        std::vector<Descriptor> files = {};
    };

    explicit Channel(Descriptor end) : m_end(std::move(end)) {}
    // The two ends of a new one; nothing, with errno.
    static std::optional<std::pair<Channel, Channel>> pair();

    // False, with errno: the other end is gone, or there is no room for it.
    bool send(std::string_view bytes, std::initializer_list<int> files = {}) const;
    bool send(const Message &message) const;
    // Waits for the next one. Nothing: the other end is gone and has said everything.
    std::optional<Message> receive() const;
    int fd() const { return m_end.get(); }

  private:
    bool send(std::string_view bytes, const int *files, size_t count) const;

    Descriptor m_end;
};

} // namespace engine
