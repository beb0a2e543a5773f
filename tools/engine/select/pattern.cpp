#include "tools/engine/select/pattern.h"

#include "tools/engine/select/wildcard.h"

#include <algorithm>

namespace engine {

Pattern::Pattern(std::string_view text) {
    m_directories = text.size() > 1 && text.ends_with('/');
    text.remove_suffix(m_directories ? 1 : 0);
    m_anchored = text.starts_with('/');
    text.remove_prefix(m_anchored ? 1 : 0);
    m_text = text;
    m_wild = text.find_first_of("*?[") != std::string_view::npos;
    m_everything = text.find("**") != std::string_view::npos;
    m_withDirectory = text.ends_with("***");
    m_slashes = static_cast<int>(std::ranges::count(text, '/'));
}

// The last names of the path, as many as the pattern has.
bool Pattern::matches_end(std::string_view path, std::string_view pattern) const {
    size_t start = path.size();
    for (int names = 0; names <= m_slashes; ++names) {
        if (start == 0) {
            return false; // the path has fewer
        }
        start = path.rfind('/', start - 1);
        if (start == std::string_view::npos) {
            start = 0;
            if (names < m_slashes) {
                return false;
            }
        }
    }
    path.remove_prefix(start);
    path.remove_prefix(path.starts_with('/') ? 1 : 0);
    return wildcard_matches(pattern, path);
}

bool Pattern::matches(std::string_view path, bool directory) const {
    if (m_directories && !directory) {
        return false;
    }
    if (!m_wild) {
        return path == m_text ||
               (!m_anchored && path.ends_with(m_text) && path[path.size() - m_text.size() - 1] == '/');
    }
    std::string whole(path);
    whole += m_withDirectory && directory ? "/" : "";
    if (m_anchored) {
        return wildcard_matches(m_text, whole);
    }
    if (!m_everything) {
        return matches_end(path, m_text);
    }
    // "**/a" is an "a" at the top too.
    if (m_text.starts_with("**") && wildcard_matches(m_text, "/" + whole)) {
        return true;
    }
    for (size_t start = 0; start != std::string::npos; start = whole.find('/', start)) {
        start = start > 0 ? start + 1 : 0;
        if (wildcard_matches(m_text, std::string_view(whole).substr(start))) {
            return true;
        }
    }
    return false;
}

} // namespace engine
