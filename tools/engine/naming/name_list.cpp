#include "tools/engine/naming/name_list.h"

#include "tools/engine/naming/fat_form.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/private_name.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr std::string_view kFirstLine = "vexofileop names 1\n", kLastLine = "end ";
constexpr off_t kLongestList = off_t{256} << 20;

std::string escaped(const std::string &name) {
    constexpr char32_t firstPrinted = 0x20, erase = 0x7f;
    std::string text;
    for (std::string_view rest = name; !rest.empty();) {
        const Utf8Character letter = first_character(rest);
        if (!letter.valid || letter.point < firstPrinted || letter.point == erase || letter.point == '%') {
            text += fmt::format("%{:02X}", static_cast<unsigned char>(rest.front()));
        } else {
            text += rest.substr(0, letter.length);
        }
        rest.remove_prefix(letter.length);
    }
    return text;
}

// Nothing: it is the name of no entry.
std::optional<std::string> unescaped(std::string_view text) {
    constexpr size_t digits = 2;
    constexpr int hexadecimal = 16;
    std::string name;
    while (!text.empty()) {
        if (text.front() != '%') {
            name += text.front();
            text.remove_prefix(1);
            continue;
        }
        uint8_t letter = 0;
        const std::string_view code = text.substr(1, digits);
        const auto [end, error] = std::from_chars(code.data(), code.data() + code.size(), letter, hexadecimal);
        if (code.size() != digits || error != std::errc() || end != code.data() + digits) {
            return std::nullopt;
        }
        name += static_cast<char>(letter);
        text.remove_prefix(1 + digits);
    }
    const bool entry = !name.empty() && name.size() <= NAME_MAX && name != "." && name != ".." &&
                       name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
    return entry ? std::optional(name) : std::nullopt;
}

// A line, taken off with what ends it. Nothing: none is whole.
std::optional<std::string_view> take_line(std::string_view &text) {
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return line;
}

std::string content_of(int file, const struct stat &found) {
    std::string text(static_cast<size_t>(found.st_size), '\0');
    size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t got = ::read(file, text.data() + filled, text.size() - filled);
        if (got < 0) {
            throw_errno(kNameList);
        }
        if (got == 0) {
            break; // cut meanwhile, which its end will tell
        }
        filled += static_cast<size_t>(got);
    }
    text.resize(filled);
    return text;
}

} // namespace

bool is_name_list(const std::string &name) {
    return ::strcasecmp(name.c_str(), kNameList) == 0;
}

NameList::NameList(int directory) {
    const Descriptor file(::openat(directory, kNameList, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat found {};
    if (file.get() < 0 && errno == ENOENT) {
        return;
    }
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0) {
        throw_errno(kNameList);
    }
    if (!S_ISREG(found.st_mode) || found.st_size > kLongestList) {
        throw Failure(fmt::format("{} is no list of names", kNameList));
    }
    parse(content_of(file.get(), found));
}

void NameList::parse(std::string_view text) {
    if (!text.starts_with(kFirstLine)) {
        throw Failure(fmt::format("{} is no list of names", kNameList));
    }
    text.remove_prefix(kFirstLine.size());
    for (size_t number = 2;; ++number) {
        const auto line = take_line(text);
        if (line && *line == fmt::format("{}{}", kLastLine, m_originals.size()) && text.empty()) {
            return;
        }
        const size_t tab = line ? line->find('\t') : std::string_view::npos;
        if (tab == std::string_view::npos) {
            throw Failure(fmt::format("{} ends before its end, in line {}", kNameList, number));
        }
        const auto made = unescaped(line->substr(0, tab)), original = unescaped(line->substr(tab + 1));
        if (!made || !original || !is_fat_form(*made, *original) || original_of(*made) != nullptr ||
            made_of(*original) != nullptr) {
            throw Failure(fmt::format("line {} of {} is no name that an entry can have had", number, kNameList));
        }
        add(*made, *original);
    }
}

std::string NameList::text() const {
    std::string text(kFirstLine);
    for (const auto &[made, original] : m_originals) {
        text += escaped(made) + "\t" + escaped(original) + "\n";
    }
    return text + fmt::format("{}{}\n", kLastLine, m_originals.size());
}

const std::string *NameList::original_of(const std::string &made) const {
    const auto found = m_originals.find(made);
    return found == m_originals.end() ? nullptr : &found->second;
}

const std::string *NameList::made_of(const std::string &original) const {
    const auto found = m_made.find(original);
    return found == m_made.end() ? nullptr : &found->second;
}

void NameList::add(const std::string &made, const std::string &original) {
    m_originals.emplace(made, original);
    m_made.emplace(original, made);
}

void NameList::remove(const std::string &made) {
    if (const auto found = m_originals.find(made); found != m_originals.end()) {
        m_made.erase(found->second);
        m_originals.erase(found);
    }
}

void NameList::write(int directory, bool sync) const {
    if (empty()) {
        if (::unlinkat(directory, kNameList, 0) != 0 && errno != ENOENT) {
            throw_errno(kNameList);
        }
        return;
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    constexpr mode_t readable = 0644;
    std::string place = next_private_name();
    Descriptor file(::openat(directory, place.c_str(), flags, readable));
    while (file.get() < 0 && errno == EEXIST) {
        place = next_private_name();
        file = Descriptor(::openat(directory, place.c_str(), flags, readable));
    }
    if (file.get() < 0) {
        throw_errno_in(directory, kNameList);
    }
    try {
        const bool written = write_all(file.get(), text()) && (!sync || ::fsync(file.get()) == 0);
        if (!written || ::renameat(directory, place.c_str(), directory, kNameList) != 0) {
            throw_errno(kNameList);
        }
    } catch (const Failure &) {
        ::unlinkat(directory, place.c_str(), 0);
        throw;
    }
}

} // namespace engine
