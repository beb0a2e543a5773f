// The names of a file's attributes, listed once for what would be a call for each name otherwise. Where a volume lists
// all that it keeps, a name that is missing is an attribute that is missing.
#pragma once

#include "support/file_ref.h"
#include "support/keep_errno.h"

#include <cstddef>
#include <cstring>
#include <string_view>

namespace vexo {

class AttributeNames {
  public:
    AttributeNames() = default;
    AttributeNames(const char *text, size_t size) {
        if (size <= kRoom) {
            std::memcpy(m_text, text, size);
            m_size = static_cast<ssize_t>(size);
            end();
        }
    }
    // Leaves them unknown where there is no list, or one that is longer than those of ordinary files.
    void list(const FileRef &file) {
        const KeepErrno keep;
        m_size = file.list_attributes(m_text, kRoom);
        end();
    }
    bool known() const { return m_size >= 0; }
    // As the kernel gives them: each ends with a NUL, and so does the text. Only of known ones.
    std::string_view text() const { return {m_text, static_cast<size_t>(m_size)}; }

    template <typename Predicate>
    bool any(Predicate matches) const {
        for (std::string_view rest = text(); !rest.empty();) {
            const std::string_view name = rest.substr(0, rest.find('\0'));
            if (matches(name)) {
                return true;
            }
            rest.remove_prefix(name.size() < rest.size() ? name.size() + 1 : rest.size());
        }
        return false;
    }
    bool has(std::string_view wanted) const {
        return any([wanted](std::string_view name) { return name == wanted; });
    }

  private:
    void end() {
        if (known()) {
            m_text[m_size] = '\0';
        }
    }

    static constexpr size_t kRoom = 1024;
    ssize_t m_size = -1;
    char m_text[kRoom + 1]; // set as far as m_size, and a NUL
};

} // namespace vexo
