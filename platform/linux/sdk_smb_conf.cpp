#include "platform/linux/sdk_smb_conf.h"

#include "platform/linux/text_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ini.h>
#include <initializer_list>
#include <span>

namespace vexo {
namespace {

constexpr char kDefaultFile[] = "/etc/samba/smb.conf";
constexpr char kFileVariable[] = "VEXOFILEOP_SMB_CONF";
constexpr int kDeepestInclude = 8;

// The INI parser is built with lines of 200 bytes and section names of 50, takes ":" for "=", cuts values at " ;" and
// takes an indented line for more of the value above it. Samba's configuration is different in all of that, so each
// line is handed on in a form that means the same to both: whole and without indentation, with another letter for a ":"
// in the name, and with a stand-in for a text that is long or has a ";", which the handler then finds with the
// reader.
constexpr char kColon = '\x01';
constexpr std::string_view kAside = "\x02";
constexpr size_t kLongestPlain = 48;

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter;
}

// Whether two names are the same parameter or word: neither case nor blanks count.
bool same_name(std::string_view one, std::string_view other) {
    for (;;) {
        one = trim_left(one);
        other = trim_left(other);
        if (one.empty() || other.empty()) {
            return one.empty() && other.empty();
        }
        if (lower(one.front()) != lower(other.front())) {
            return false;
        }
        one.remove_prefix(1);
        other.remove_prefix(1);
    }
}

bool is_plain(std::string_view text) {
    return text.size() <= kLongestPlain && text.find(';') == std::string_view::npos && text.find(kAside) != 0;
}

bool is_comment(std::string_view line) {
    return line.starts_with(';') || line.starts_with('#');
}

bool is_true(std::string_view value) {
    constexpr std::string_view kTrue[] = {"yes", "true", "on", "1"};
    return std::any_of(std::begin(kTrue), std::end(kTrue),
                       [&](std::string_view word) { return same_name(value, word); });
}

// Whether a list, its words parted by blanks or commas, has this one.
bool lists(std::string_view words, std::string_view wanted) {
    while (!words.empty()) {
        const size_t end = std::min(words.find_first_of(" \t,"), words.size());
        if (same_name(words.substr(0, end), wanted)) {
            return true;
        }
        words.remove_prefix(std::min(end + 1, words.size()));
    }
    return false;
}

// A file's lines on their way through the INI parser.
class Lines {
  public:
    explicit Lines(std::string_view text) : m_rest(text) {}

    // The parser's reader, called as fgets is. What it cannot hold in its line stays here.
    static char *read(char *out, int size, void *stream) {
        return static_cast<Lines *>(stream)->next({out, static_cast<size_t>(size)});
    }
    std::string_view section(const char *given) const { return given == kAside ? m_section : given; }
    std::string_view value(const char *given) const { return given == kAside ? m_value : given; }
    bool out_of_memory() const { return m_outOfMemory; }
    void stop() { m_rest = {}; }

  private:
    char *next(std::span<char> out) {
        std::string_view line;
        while (!m_rest.empty() && take_logical_line(line)) {
            if (line.empty() || is_comment(line)) {
                continue;
            }
            if (line.starts_with('[') && line.ends_with(']')) {
                m_section = keep(m_sectionText, trim(tail(line.substr(0, line.size() - 1), 1)));
                return put(out, {"[", is_plain(m_section) ? m_section : kAside, "]\n"});
            }
            const size_t equals = line.find('=');
            if (equals > kLongestPlain) {
                continue; // no parameter, or none of those that are read: Samba passes over a bad line as well
            }
            const std::string_view name = trim(line.substr(0, equals));
            m_value = trim(tail(line, equals + 1));
            char *const shown = put(out, {name, " = ", is_plain(m_value) ? m_value : kAside, "\n"});
            std::replace(shown, shown + name.size(), ':', kColon);
            return shown;
        }
        return nullptr;
    }

    // The next line with those that continue it, without blanks around it.
    bool take_logical_line(std::string_view &line) {
        line = trim(take_line(m_rest));
        if (!line.ends_with('\\') || is_comment(line)) {
            return true;
        }
        size_t length = 0;
        for (bool more = true; more;) {
            more = line.ends_with('\\') && !m_rest.empty();
            line.remove_suffix(line.ends_with('\\') ? 1 : 0);
            if (!m_joined.resize(length + line.size())) {
                m_outOfMemory = true;
                return false;
            }
            line.copy(reinterpret_cast<char *>(m_joined.data()) + length, line.size());
            length += line.size();
            line = more ? trim(take_line(m_rest)) : line;
        }
        line = trim(view_of(m_joined));
        return true;
    }

    // A section's name outlives its line, which may be a joined one.
    static std::string_view keep(PathBuffer &to, std::string_view text) {
        to.clear();
        return to.append(text).view();
    }

    // The pieces are short enough together for the parser's line; what is not is cut.
    static char *put(std::span<char> out, std::initializer_list<std::string_view> pieces) {
        size_t length = 0;
        for (const std::string_view piece : pieces) {
            length += piece.copy(out.data() + length, out.size() - 1 - length);
        }
        out[length] = '\0';
        return out.data();
    }

    std::string_view m_rest;
    std::string_view m_section, m_value;
    PathBuffer m_sectionText;
    HeapBuffer m_joined;
    bool m_outOfMemory = false;
};

// Puts the sections together and shows them.
class Reader {
  public:
    explicit Reader(Callback<bool(const ShareSection &)> visit) : m_visit(visit) {}

    SmbConf run(const char *file) {
        const SmbConf result = parse(file, 0);
        if (result == SmbConf::read) {
            finish();
        }
        return result;
    }

  private:
    struct Source {
        Reader &reader;
        Lines lines;
        int depth;
    };

    SmbConf parse(const char *file, int depth) {
        const HeapBuffer text = read_text_file(file);
        if (!text) {
            return errno == ENOENT ? SmbConf::none : SmbConf::broken;
        }
        Source source{*this, Lines(view_of(text)), depth};
        (void)::ini_parse_stream(
            [](char *out, int size, void *stream) {
                return Lines::read(out, size, &static_cast<Source *>(stream)->lines);
            },
            &source, take_parameter, &source);
        if (source.lines.out_of_memory()) {
            errno = ENOMEM;
            return SmbConf::broken;
        }
        return SmbConf::read;
    }

    // The parser's handler: not 0 for a parameter that is all right.
    static int take_parameter(void *user, const char *section, const char *name, const char *value) {
        auto &source = *static_cast<Source *>(user);
        Reader &reader = source.reader;
        // In front of the first section of an included file the including file's section goes on.
        if (const std::string_view named = source.lines.section(section); !named.empty()) {
            reader.enter(named);
        }
        if (reader.m_enough) {
            source.lines.stop();
        } else if (same_name(name, "include")) {
            reader.include(source.lines.value(value), source.depth);
        } else {
            reader.set(name, source.lines.value(value));
        }
        return 1;
    }

    void include(std::string_view file, int depth) {
        const PathBuffer path(file);
        // With a substitution it is another file for everybody who connects.
        if (depth < kDeepestInclude && !path.overflowed() && file.find('%') == std::string_view::npos) {
            (void)parse(path.c_str(), depth + 1); // Samba too goes on without a file that is not there
        }
    }

    void enter(std::string_view section) {
        if (m_inSection && same_share(section, m_now.name_view())) {
            return;
        }
        finish();
        m_inSection = section.size() < sizeof(m_now.name); // a longer name is no share that anybody could connect to
        m_now = ShareSection();
        section.substr(0, sizeof(m_now.name) - 1).copy(m_now.name, sizeof(m_now.name) - 1);
        if (!is_global()) {
            m_now.repository = m_global.repository;
            m_now.indexed = m_global.indexed;
            m_now.encrypted = m_global.encrypted;
            m_recycles = m_globalRecycles;
        }
    }

    bool is_global() const { return same_share(m_now.name_view(), "global"); }

    void set(std::string_view name, std::string_view value) {
        if (same_name(name, "path") || same_name(name, "directory")) {
            set_path(value);
        } else if (same_name(name, "vexo\x01index")) {
            m_now.indexed = is_true(value);
        } else if (same_name(name, "vexo\x01"
                                   "encrypted")) {
            m_now.encrypted = is_true(value);
        } else if (same_name(name, "vfs objects") || same_name(name, "vfs object")) {
            m_recycles = lists(value, "recycle");
        } else if (same_name(name, "recycle\x01repository")) {
            m_now.repository.clear();
            m_now.repository.append(value);
        }
    }

    // Without quotes and slashes at the end, and with the share's own name put in.
    void set_path(std::string_view value) {
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            value = tail(value.substr(0, value.size() - 1), 1);
        }
        while (value.size() > 1 && value.ends_with('/')) {
            value.remove_suffix(1);
        }
        m_now.path.clear();
        while (!value.empty()) {
            const size_t own = m_now.is_homes() ? std::string_view::npos : value.find("%S");
            m_now.path.append(value.substr(0, own));
            if (own == std::string_view::npos) {
                break;
            }
            m_now.path.append(m_now.name_view());
            value.remove_prefix(own + 2);
        }
    }

    void finish() {
        if (!m_inSection || m_enough) {
            return;
        }
        m_inSection = false;
        if (is_global()) {
            m_global = m_now;
            m_globalRecycles = m_recycles;
            return;
        }
        // The module's own name for the bin, where only the module is named; a name alone is a bin too, emptied by
        // hands other than Samba's.
        if (m_recycles && m_now.repository.empty()) {
            m_now.repository.append(".recycle");
        }
        m_enough = !m_visit(m_now);
    }

    Callback<bool(const ShareSection &)> m_visit;
    ShareSection m_now, m_global;
    bool m_inSection = false, m_recycles = false, m_globalRecycles = false;
    bool m_enough = false;
};

} // namespace

bool ShareSection::is_homes() const {
    return same_share(name_view(), "homes");
}

bool ShareSection::is_folder() const {
    return !path.overflowed() && path.view().starts_with('/') && path.view().find('%') == std::string_view::npos;
}

bool same_share(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](char left, char right) { return lower(left) == lower(right); });
}

SmbConf visit_shares(Callback<bool(const ShareSection &)> visit) {
    const char *file = ::secure_getenv(kFileVariable);
    Reader reader(visit);
    return reader.run(file == nullptr || *file == '\0' ? kDefaultFile : file);
}

bool share_holds(const ShareSection &share, std::string_view path, PathBuffer &sharePath) {
    if (!share.is_folder()) {
        return false;
    }
    if (path_is_in(path, share.path.view())) {
        sharePath = share.path;
        return true;
    }
    if (::realpath(share.path.c_str(), sharePath.fill()) == nullptr) {
        return false;
    }
    sharePath.adopt();
    return path_is_in(path, sharePath.view());
}

} // namespace vexo
