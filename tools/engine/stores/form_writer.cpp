#include "tools/engine/stores/form_writer.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint64_t kInfoAt = 50, kInfoBytes = 32, kHeaderEnd = kInfoAt + kInfoBytes, kBlockEnd = 120;
constexpr uint64_t kPartAtOnce = uint64_t{1} << 20;
constexpr size_t kLongestAttribute = 254, kMostAttributes = 65535;

std::string number_bytes(uint64_t value, int width) {
    std::string bytes;
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift & 0xff);
    }
    return bytes;
}

uint64_t record_size(const StoreContents::Attribute &attribute) {
    return (attribute.name.size() + 15) & ~uint64_t{3};
}

class FormWriter {
  public:
    FormWriter(const FormContent &content, int to) : m_content(content), m_to(to) {}

    // The file up to the fork; `block`: with the attributes behind the Finder Info.
    void head(const std::string &finderInfo, bool block, uint64_t forkSize) {
        uint64_t start = block ? kBlockEnd : kHeaderEnd;
        uint64_t values = 0;
        for (const StoreContents::Attribute &one : m_content.attributes) {
            start += block ? record_size(one) : 0;
            values += block ? one.size : 0;
        }
        const uint64_t end = start + values;
        if (end + forkSize > UINT32_MAX) {
            throw Failure("all of it together is larger than one store file can be");
        }
        std::string info = finderInfo;
        info.resize(kInfoBytes, '\0');
        put(number_bytes(0x00051607, 4) + number_bytes(0x00020000, 4) + "Mac OS X        " + number_bytes(2, 2));
        put(number_bytes(9, 4) + number_bytes(kInfoAt, 4) + number_bytes(end - kInfoAt, 4));
        put(number_bytes(2, 4) + number_bytes(end, 4) + number_bytes(forkSize, 4) + info);
        if (block) {
            put(number_bytes(0, 2) + "ATTR" + number_bytes(0, 4) + number_bytes(end, 4) + number_bytes(start, 4) +
                number_bytes(values, 4) + number_bytes(0, 8) + number_bytes(0, 6) +
                number_bytes(m_content.attributes.size(), 2));
            attributes(start);
        }
    }

    void fork() {
        const uint64_t part = m_content.forkAtOnce ? m_content.forkSize : kPartAtOnce;
        for (uint64_t done = 0; done < m_content.forkSize; done += part) {
            put(m_content.forkFrom->fork(done, std::min(part, m_content.forkSize - done)));
        }
    }

  private:
    void attributes(uint64_t at) {
        for (const StoreContents::Attribute &one : m_content.attributes) {
            std::string record = number_bytes(at, 4) + number_bytes(one.size, 4) + number_bytes(0, 2) +
                                 number_bytes(one.name.size() + 1, 1) + one.name;
            record.resize(record_size(one), '\0');
            put(record);
            at += one.size;
        }
        for (const StoreContents::Attribute &one : m_content.attributes) {
            for (uint64_t done = 0; done < one.size; done += kPartAtOnce) {
                put(m_content.attributesFrom->value(one, done, std::min(kPartAtOnce, one.size - done)));
            }
        }
    }

    void put(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::pwrite(m_to, bytes.data(), bytes.size(), static_cast<off_t>(m_at));
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                throw_errno("the new form of its store cannot be written");
            }
            m_at += static_cast<uint64_t>(written);
            bytes.remove_prefix(static_cast<size_t>(written));
        }
    }

    const FormContent &m_content;
    int m_to;
    uint64_t m_at = 0;
};

} // namespace

void write_form(const FormContent &content, StoreFile file, int to) {
    const bool block = file != StoreFile::resource && !content.attributes.empty();
    const bool resource = file != StoreFile::stream;
    const auto tooLong = std::ranges::find_if(
        content.attributes, [](const StoreContents::Attribute &one) { return one.name.size() > kLongestAttribute; });
    if (block && tooLong != content.attributes.end()) {
        throw Failure(fmt::format("the name of attribute {} is too long for a store file", displayed(tooLong->name)));
    }
    if (block && content.attributes.size() > kMostAttributes) {
        throw Failure("it has more attributes than a store file can hold");
    }
    FormWriter writer(content, to);
    writer.head(resource ? content.finderInfo : std::string(), block, resource ? content.forkSize : 0);
    if (resource) {
        writer.fork();
    }
}

} // namespace engine
