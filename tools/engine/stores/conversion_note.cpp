#include "tools/engine/stores/conversion_note.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/stores/conversion.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr char kKind[] = "conversion 1", kEnd[] = "end";
constexpr off_t kLargestNote = 1 << 20;

// The words of its parts, in the order in which they are asked for.
struct PartWord {
    const char *word;
    bool NewForm::*part;
};
constexpr std::array<PartWord, 5> kPartWords = {{{"beside", &NewForm::beside},
                                                 {"stream", &NewForm::stream},
                                                 {"resource", &NewForm::resource},
                                                 {"stores", &NewForm::stores},
                                                 {"metadata", &NewForm::metadata}}};

// Fields that each end with NUL: the kind, the inode, the parts, "attributes", their names, the end.
std::string note_of(const NewForm &form, ino_t inode) {
    std::string text = fmt::format("{}{}{}{}", kKind, '\0', inode, '\0');
    for (const PartWord &one : kPartWords) {
        if (form.*one.part) {
            text.append(one.word).push_back('\0');
        }
    }
    text.append("attributes").push_back('\0');
    for (const std::string &name : form.attributes) {
        text.append(name).push_back('\0');
    }
    text.push_back('\0'); // no name is empty
    return text.append(kEnd).append(1, '\0');
}

std::string_view take_field(std::string_view &rest) {
    const std::string_view field = rest.substr(0, rest.find('\0'));
    rest.remove_prefix(std::min(rest.size(), field.size() + 1));
    return field;
}

// Nothing: it is not whole, or not of this entry.
std::optional<NewForm> parse_note(std::string_view text, ino_t inode) {
    if (take_field(text) != kKind || take_field(text) != std::to_string(inode)) {
        return std::nullopt;
    }
    NewForm form;
    std::string_view field = take_field(text);
    for (const PartWord &one : kPartWords) {
        if (field == one.word) {
            form.*one.part = true;
            field = take_field(text);
        }
    }
    if (field != "attributes") {
        return std::nullopt;
    }
    for (field = take_field(text); !field.empty(); field = take_field(text)) {
        form.attributes.emplace(field);
    }
    return take_field(text) == kEnd && text.empty() ? std::optional(std::move(form)) : std::nullopt;
}

} // namespace

ConversionNote::ConversionNote(int directory, const std::string &name, ino_t inode, StoreKind to)
    : m_directory(directory), m_name(private_name_for(fmt::format("{}/{}", name, form_name(to)))), m_inode(inode) {}

void ConversionNote::look_for_it() {
    Descriptor file(::openat(m_directory, m_name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat found {};
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_uid != ::geteuid() ||
        found.st_size > kLargestNote) {
        return;
    }
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw Failure("another process is converting its store");
    }
    std::string text(static_cast<size_t>(found.st_size), '\0');
    const ssize_t got = ::pread(file.get(), text.data(), text.size(), 0);
    auto form = got == found.st_size ? parse_note(text, m_inode) : std::nullopt;
    m_file = std::move(file);
    if (form) {
        m_form = std::move(*form);
    } else { // that run was killed before it had made anything, or the entry is another one by now
        (void)remove();
    }
}

void ConversionNote::write(const NewForm &form) {
    if (is_there()) {
        return;
    }
    m_form = form;
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor file(::openat(m_directory, m_name.c_str(), flags, 0600));
    if (file.get() < 0 && errno == EEXIST && ::unlinkat(m_directory, m_name.c_str(), 0) == 0) {
        file = Descriptor(::openat(m_directory, m_name.c_str(), flags, 0600));
    }
    if (file.get() < 0) {
        throw_errno_in(m_directory, "a note of its conversion cannot be made");
    }
    (void)::flock(file.get(), LOCK_EX | LOCK_NB);
    if (!write_all(file.get(), note_of(form, m_inode))) {
        const int number = errno;
        (void)::unlinkat(m_directory, m_name.c_str(), 0);
        errno = number;
        throw_errno_in(m_directory, "a note of its conversion cannot be written");
    }
    m_file = std::move(file);
}

bool ConversionNote::remove() {
    if (is_there() && ::unlinkat(m_directory, m_name.c_str(), 0) != 0 && errno != ENOENT) {
        return false;
    }
    m_file = Descriptor(-1);
    return true;
}

} // namespace engine
