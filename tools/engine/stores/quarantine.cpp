#include "tools/engine/stores/quarantine.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/text_hash.h"
#include "tools/engine/walk/words.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <string_view>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kManifest[] = "manifest";
constexpr std::string_view kManifestTitle = "vexofileop quarantine 1\n";
constexpr std::array kWhatWords = {"rewritten", "removed", "directory", "attribute"};

std::string hex_word(std::string_view bytes) {
    std::string word;
    for (const char byte : bytes) {
        word += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    }
    return word;
}

std::string manifest_line(const Quarantined &item) {
    const struct stat &status = item.status;
    std::string line =
        fmt::format("{} number={} top={} below={} inode={} in={} name={} mode={:o} uid={} gid={} accessed={}.{:09} "
                    "modified={}.{:09} target={}",
                    kWhatWords[static_cast<size_t>(item.what)], item.number, word_of(item.top), word_of(item.below),
                    item.inode, item.inStore ? "store" : "directory", word_of(item.name), status.st_mode, status.st_uid,
                    status.st_gid, status.st_atim.tv_sec, status.st_atim.tv_nsec, status.st_mtim.tv_sec,
                    status.st_mtim.tv_nsec, word_of(item.target));
    for (const auto &[name, value] : item.attributes) {
        line += fmt::format(" attribute={}:{}", word_of(name), hex_word(value));
    }
    return line + fmt::format(" sum={:016x}\n", text_hash(line));
}

template <typename Number>
bool take_number(std::string_view text, Number &number, int base = 10) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

bool take_time(std::string_view text, timespec &time) {
    const size_t dot = text.find('.');
    return dot != std::string_view::npos && take_number(text.substr(0, dot), time.tv_sec) &&
           take_number(text.substr(dot + 1), time.tv_nsec);
}

bool take_text(std::string_view word, std::string &text) {
    auto found = text_of_word(word);
    text = found.value_or("");
    return found.has_value();
}

bool take_attribute_word(std::string_view word, Quarantined &item) {
    const size_t colon = word.rfind(':');
    std::string name, value;
    if (colon == std::string_view::npos || !take_text(word.substr(0, colon), name)) {
        return false;
    }
    for (std::string_view digits = word.substr(colon + 1); !digits.empty(); digits.remove_prefix(2)) {
        unsigned char byte = 0;
        if (digits.size() < 2 || !take_number(digits.substr(0, 2), byte, 16)) {
            return false;
        }
        value += static_cast<char>(byte);
    }
    item.attributes.emplace_back(std::move(name), std::move(value));
    return true;
}

bool take_field(std::string_view key, std::string_view value, Quarantined &item) {
    if (key == "number") {
        return take_number(value, item.number);
    }
    if (key == "top" || key == "below" || key == "name" || key == "target") {
        return take_text(value, key == "top"     ? item.top
                                : key == "below" ? item.below
                                : key == "name"  ? item.name
                                                 : item.target);
    }
    if (key == "inode") {
        return take_number(value, item.inode);
    }
    if (key == "in") {
        item.inStore = value == "store";
        return item.inStore || value == "directory";
    }
    if (key == "mode") {
        return take_number(value, item.status.st_mode, 8);
    }
    if (key == "uid" || key == "gid") {
        return take_number(value, key == "uid" ? item.status.st_uid : item.status.st_gid);
    }
    if (key == "accessed" || key == "modified") {
        return take_time(value, key == "accessed" ? item.status.st_atim : item.status.st_mtim);
    }
    return key == "attribute" && take_attribute_word(value, item);
}

// One line without its line feed. False: it is damaged, or was not written to its end.
bool parse_line(std::string_view line, Quarantined &item) {
    const size_t sum = line.rfind(" sum=");
    uint64_t hash = 0;
    if (sum == std::string_view::npos || !take_number(line.substr(sum + 5), hash, 16) ||
        hash != text_hash(line.substr(0, sum))) {
        return false;
    }
    line = line.substr(0, sum);
    const std::string_view word = line.substr(0, line.find(' '));
    const auto *const what = std::ranges::find(kWhatWords, word, [](const char *one) { return std::string_view(one); });
    if (what == kWhatWords.end()) {
        return false;
    }
    item.what = static_cast<Quarantined::What>(what - kWhatWords.begin());
    for (std::string_view rest = line.substr(word.size()); !rest.empty();) {
        rest.remove_prefix(1); // the blank
        const std::string_view field = rest.substr(0, rest.find(' '));
        const size_t equals = field.find('=');
        if (equals == std::string_view::npos || !take_field(field.substr(0, equals), field.substr(equals + 1), item)) {
            return false;
        }
        rest.remove_prefix(field.size());
    }
    return item.number > 0 && !item.name.empty() && item.name.find('/') == std::string::npos;
}

struct Manifest {
    std::vector<Quarantined> items;
    uint64_t whole = 0; // bytes; what follows was being written when a run was stopped
};

Manifest parse_manifest(std::string_view text) {
    Manifest manifest;
    if (!text.starts_with(kManifestTitle)) {
        throw Failure("its manifest is none of this program's, or damaged");
    }
    manifest.whole = kManifestTitle.size();
    while (manifest.whole < text.size()) {
        const std::string_view rest = text.substr(manifest.whole);
        const size_t end = rest.find('\n');
        Quarantined item;
        if (end == std::string_view::npos) {
            break;
        }
        if (!parse_line(rest.substr(0, end), item)) {
            throw Failure("its manifest is damaged");
        }
        manifest.items.push_back(std::move(item));
        manifest.whole += end + 1;
    }
    return manifest;
}

std::string whole_text(int fd) {
    std::string text;
    char part[65536];
    for (ssize_t got = 1; got != 0;) {
        got = ::pread(fd, part, sizeof part, static_cast<off_t>(text.size()));
        if (got < 0 && errno != EINTR) {
            throw_errno("its manifest cannot be read");
        }
        text.append(part, got < 0 ? 0 : static_cast<size_t>(got));
    }
    return text;
}

// Whose else bytes are in it would be put into files as root.
void check_private(int directory) {
    struct stat found {};
    if (::fstat(directory, &found) != 0) {
        throw_errno("cannot be looked at");
    }
    if (found.st_uid != ::geteuid() || (found.st_mode & 022) != 0) {
        throw Failure("others may write into it, or it is somebody else's");
    }
}

void append_line(int fd, std::string_view line) {
    const off_t before = ::lseek(fd, 0, SEEK_END);
    const ssize_t put = before < 0 ? -1 : ::write(fd, line.data(), line.size());
    if (put != static_cast<ssize_t>(line.size()) || ::fsync(fd) != 0) {
        const int number = put < 0 || put == static_cast<ssize_t>(line.size()) ? errno : ENOSPC;
        if (before >= 0) {
            (void)::ftruncate(fd, before);
        }
        errno = number;
        throw_errno("the quarantine cannot be written");
    }
}

} // namespace

void take_status(int directory, const std::string &name, Quarantined &item) {
    const Descriptor entry(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (entry.get() < 0 || ::fstat(entry.get(), &item.status) != 0) {
        throw_errno("cannot be looked at");
    }
    if (!S_ISREG(item.status.st_mode) && !S_ISDIR(item.status.st_mode)) {
        return; // what else such an entry has in attributes is nobody's
    }
    const std::string itself = fmt::format("/proc/self/fd/{}", entry.get());
    std::string names(size_t{1} << 16, '\0'), value(size_t{1} << 16, '\0'); // as long as Linux lets them be
    const ssize_t size = ::listxattr(itself.c_str(), names.data(), names.size());
    if (size < 0 && errno != EOPNOTSUPP) {
        throw_errno("its attributes cannot be listed");
    }
    for (std::string_view rest(names.data(), size < 0 ? 0 : static_cast<size_t>(size)); !rest.empty();) {
        const std::string one(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        const ssize_t length = ::getxattr(itself.c_str(), one.c_str(), value.data(), value.size());
        if (length < 0) {
            throw_errno(fmt::format("its attribute {} cannot be read", displayed(one)));
        }
        item.attributes.emplace_back(one, value.substr(0, static_cast<size_t>(length)));
    }
}

bool Quarantine::is(const struct stat &directory) const {
    struct stat own {};
    return (m_directory.get() >= 0 ? ::fstat(m_directory.get(), &own) : ::lstat(m_path.c_str(), &own)) == 0 &&
           own.st_dev == directory.st_dev && own.st_ino == directory.st_ino;
}

void Quarantine::open() {
    if (m_manifest.get() >= 0) {
        return;
    }
    const std::string shown = displayed(m_path);
    if (::mkdir(m_path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw_errno(fmt::format("the quarantine {} cannot be made", shown));
    }
    Descriptor directory(::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory.get() < 0) {
        throw_errno(fmt::format("the quarantine {} cannot be opened", shown));
    }
    try {
        check_private(directory.get());
        if (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
            throw_errno("another run works with it");
        }
        constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        Descriptor manifest(::openat(directory.get(), kManifest, flags, 0600));
        if (manifest.get() < 0) {
            throw_errno_in(directory.get(), "its manifest cannot be made");
        }
        std::string text = whole_text(manifest.get());
        if (kManifestTitle.starts_with(text)) { // a new one, or one that was stopped at its beginning
            if (::ftruncate(manifest.get(), 0) != 0) {
                throw_errno("its manifest cannot be written");
            }
            append_line(manifest.get(), kManifestTitle);
            text = kManifestTitle;
        }
        const Manifest known = parse_manifest(text);
        if (known.whole < text.size() && ::ftruncate(manifest.get(), static_cast<off_t>(known.whole)) != 0) {
            throw_errno("its manifest cannot be written");
        }
        for (const Quarantined &item : known.items) {
            m_last = std::max(m_last, item.number);
        }
        const Descriptor parent(::open(parent_of(m_path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (::fsync(directory.get()) != 0 || (parent.get() >= 0 && ::fsync(parent.get()) != 0)) {
            throw_errno("it cannot be written");
        }
        m_directory = std::move(directory);
        m_manifest = std::move(manifest);
    } catch (const Failure &failure) {
        throw Failure(fmt::format("the quarantine {}: {}", shown, failure.what()));
    }
}

Descriptor Quarantine::make(int number, const char *suffix) const {
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return Descriptor(::openat(m_directory.get(), fmt::format("{}{}", number, suffix).c_str(), flags, 0600));
}

Descriptor Quarantine::filled(const Quarantined &item, Descriptor file, const Fill &fill) {
    if (file.get() < 0) {
        throw_errno_in(m_directory.get(), "nothing can be made in the quarantine");
    }
    try {
        fill(file.get());
        if (::fsync(file.get()) != 0) {
            throw_errno("the quarantine cannot be written");
        }
    } catch (const Failure &) {
        forget(item);
        throw;
    }
    return file;
}

Descriptor Quarantine::keep_old(Quarantined &item, const Fill &fill) {
    open();
    Descriptor file(-1);
    do { // one that a stopped run has made and not noted stays
        item.number = ++m_last;
        file = make(item.number, ".old");
    } while (file.get() < 0 && errno == EEXIST);
    return filled(item, std::move(file), fill);
}

Descriptor Quarantine::keep_new(const Quarantined &item, const Fill &fill) {
    (void)::unlinkat(m_directory.get(), fmt::format("{}.new", item.number).c_str(), 0);
    return filled(item, make(item.number, ".new"), fill);
}

void Quarantine::note(Quarantined &item) {
    open();
    item.number = item.number > 0 ? item.number : ++m_last;
    if (::fsync(m_directory.get()) != 0) {
        throw_errno("the quarantine cannot be written");
    }
    append_line(m_manifest.get(), manifest_line(item));
    ++m_used;
}

void Quarantine::forget(const Quarantined &item) {
    for (const char *suffix : {".old", ".new"}) {
        if (item.number > 0) {
            (void)::unlinkat(m_directory.get(), fmt::format("{}{}", item.number, suffix).c_str(), 0);
        }
    }
}

KeptQuarantine::KeptQuarantine(const std::string &path)
    : m_directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (m_directory.get() < 0) {
        throw_errno("it cannot be opened");
    }
    check_private(m_directory.get());
    if (::flock(m_directory.get(), LOCK_EX | LOCK_NB) != 0) {
        throw_errno("another run works with it");
    }
    const Descriptor manifest(::openat(m_directory.get(), kManifest, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (manifest.get() < 0) {
        throw_errno("it has no manifest");
    }
    m_items = parse_manifest(whole_text(manifest.get())).items;
}

Descriptor KeptQuarantine::open(const Quarantined &item, const char *suffix) const {
    Descriptor file(::openat(m_directory.get(), fmt::format("{}{}", item.number, suffix).c_str(),
                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) {
        throw_errno("its original cannot be opened");
    }
    return file;
}

} // namespace engine
