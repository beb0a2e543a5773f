#include "tools/engine/relocate/note.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/text_hash.h"
#include "tools/engine/walk/words.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr char kName[] = "note", kNewName[] = "note.new";
constexpr std::string_view kTitle = "vexofileop relocation 1\n";
constexpr size_t kMostBytes = 65536; // of a note: two paths, escaped, and some numbers
constexpr std::array kPhases = {"staging", "staged", "placed", "removing"};

std::string this_boot() {
    const Descriptor file(::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    char text[37] = "";
    const ssize_t got = file.get() < 0 ? 0 : ::read(file.get(), text, sizeof text - 1);
    return got > 0 ? std::string(text, static_cast<size_t>(got)) : "unknown";
}

[[noreturn]] void damaged() {
    throw Failure("the note is damaged");
}

template <typename Number>
Number number_of(std::string_view text, int base = 10) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc() || end != text.data() + text.size()) {
        damaged();
    }
    return number;
}

std::string noted_text(std::string_view word) {
    auto text = text_of_word(word);
    if (!text) {
        damaged();
    }
    return std::move(*text);
}

std::string identity_text(const std::optional<Identity> &identity) {
    return identity ? fmt::format("{}:{}", identity->device, identity->inode) : "none";
}

std::optional<Identity> identity_of(std::string_view text) {
    if (text == "none") {
        return std::nullopt;
    }
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        damaged();
    }
    return Identity{number_of<uint64_t>(text.substr(0, colon)), number_of<uint64_t>(text.substr(colon + 1))};
}

Note parsed(std::string_view text) {
    const size_t sum = text.rfind("sum ");
    if (!text.starts_with(kTitle) || sum == std::string_view::npos || !text.ends_with('\n') ||
        number_of<uint64_t>(text.substr(sum + 4, text.size() - sum - 5), 16) != text_hash(text.substr(0, sum))) {
        damaged();
    }
    std::map<std::string_view, std::string_view> fields;
    for (std::string_view rest = text.substr(kTitle.size(), sum - kTitle.size()); !rest.empty();) {
        const size_t end = rest.find('\n'), space = rest.find(' ');
        if (end == std::string_view::npos || space > end) {
            damaged();
        }
        fields[rest.substr(0, space)] = rest.substr(space + 1, end - space - 1);
        rest.remove_prefix(end + 1);
    }
    Note note;
    size_t phase = 0;
    while (phase < kPhases.size() && fields["phase"] != kPhases[phase]) {
        ++phase;
    }
    const auto source = identity_of(fields["source-is"]);
    if (phase == kPhases.size() || !source) {
        damaged();
    }
    note.phase = static_cast<Note::Phase>(phase);
    note.source = noted_text(fields["source"]);
    note.destination = noted_text(fields["destination"]);
    note.sourceIs = *source;
    note.copyIs = identity_of(fields["copy-is"]);
    note.oldIs = identity_of(fields["old-is"]);
    note.since = number_of<int64_t>(fields["since"]);
    note.boot = noted_text(fields["boot"]);
    return note;
}

} // namespace

bool Note::is(const Identity &noted, const struct stat &found) const {
    return noted.inode == found.st_ino && S_ISDIR(found.st_mode) &&
           (noted.device == found.st_dev || boot != this_boot());
}

const char *phase_text(Note::Phase phase) {
    constexpr std::array texts = {"while the copy was made", "when the copy was whole", "when the copy was in place",
                                  "while the source was removed"};
    return texts[static_cast<size_t>(phase)];
}

std::optional<Note> read_note(int directory) {
    const Descriptor file(::openat(directory, kName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw_errno("the note cannot be opened");
    }
    std::string text;
    char part[4096];
    for (ssize_t got = 1; got != 0 && text.size() < kMostBytes;) {
        got = ::read(file.get(), part, sizeof part);
        if (got < 0 && errno != EINTR) {
            throw_errno("the note cannot be read");
        }
        text.append(part, got < 0 ? 0 : static_cast<size_t>(got));
    }
    return parsed(text);
}

void write_note(int directory, Note &note) {
    note.since = std::time(nullptr);
    note.boot = this_boot();
    std::string text(kTitle);
    text += fmt::format("phase {}\nsource {}\nsource-is {}\ndestination {}\ncopy-is {}\nold-is {}\nsince {}\nboot {}\n",
                        kPhases[static_cast<size_t>(note.phase)], word_of(note.source), identity_text(note.sourceIs),
                        word_of(note.destination), identity_text(note.copyIs), identity_text(note.oldIs), note.since,
                        word_of(note.boot));
    text += fmt::format("sum {:016x}\n", text_hash(text));
    const Descriptor file(::openat(directory, kNewName, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.get() < 0) {
        throw_errno_in(directory, "the note cannot be made");
    }
    if (!write_all(file.get(), text) || ::fsync(file.get()) != 0 ||
        ::renameat(directory, kNewName, directory, kName) != 0 || ::fsync(directory) != 0) {
        throw_errno("the note cannot be written");
    }
}

void remove_note(int directory) {
    for (const char *name : {kNewName, kName}) {
        if (::unlinkat(directory, name, 0) != 0 && errno != ENOENT) {
            throw_errno("the note cannot be removed");
        }
    }
}

bool is_note_name(const std::string &name) {
    return name == kName || name == kNewName;
}

} // namespace engine
