#include "tools/engine/transfer/link_notes.h"

#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr std::string_view kLinks = ".links";
constexpr int kMostOnesNotes = 1000; // names that somebody else was quicker to take

// "<number> <number> … <path>" and a null byte, which no path has. Half of one that was being written has none.
constexpr char kEndOfRecord = '\0';

class NumbersOfNote {
  public:
    explicit NumbersOfNote(std::string_view text) : m_rest(text) {}
    template <typename... Numbers>
    void take(Numbers &...values) {
        (take_one(values), ...);
    }
    std::string_view rest() const { return m_good ? m_rest : std::string_view(); }

  private:
    template <typename Number>
    void take_one(Number &value) {
        int64_t number = 0;
        const auto [end, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), number);
        const auto used = static_cast<size_t>(end - m_rest.data());
        m_good = m_good && error == std::errc() && used < m_rest.size() && m_rest[used] == ' ';
        m_rest.remove_prefix(m_good ? used + 1 : m_rest.size());
        value = static_cast<Number>(number);
    }

    std::string_view m_rest;
    bool m_good = true;
};

bool is_inside(std::string_view path) {
    for (size_t at = 0; at <= path.size();) {
        const size_t end = std::min(path.find('/', at), path.size());
        const std::string_view part = path.substr(at, end - at);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        at = end + 1;
    }
    return true;
}

// The whole of a file that only this user can have written; empty: it is none.
std::string own_text_of(const HeldDirectory &directory, const std::string &name) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const Descriptor file(::openat(directory.fd(), name.c_str(), flags));
    struct stat found {};
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink != 1 ||
        found.st_uid != ::geteuid() || (found.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return {};
    }
    std::string text;
    std::array<char, size_t{64} << 10> part{};
    for (ssize_t got = 0; (got = ::read(file.get(), part.data(), part.size())) > 0;) {
        text.append(part.data(), static_cast<size_t>(got));
    }
    return text;
}

} // namespace

std::string LinkNotes::Record::text() const {
    return fmt::format("{} {} {} {} {} {} {} {} {} {} {} {} {} {}", static_cast<int64_t>(volume),
                       static_cast<int64_t>(source.st_dev), static_cast<int64_t>(source.st_ino), source.st_size,
                       source.st_mtim.tv_sec, source.st_mtim.tv_nsec, source.st_nlink,
                       static_cast<int64_t>(made.st_ino), made.st_uid, made.st_gid, made.st_mode, made.st_mtim.tv_sec,
                       made.st_mtim.tv_nsec, path);
}

LinkNotes::Record LinkNotes::Record::from(std::string_view text) {
    Record record;
    struct stat &source = record.source, &made = record.made;
    NumbersOfNote numbers(text);
    numbers.take(record.volume, source.st_dev, source.st_ino, source.st_size, source.st_mtim.tv_sec,
                 source.st_mtim.tv_nsec, source.st_nlink, made.st_ino, made.st_uid, made.st_gid, made.st_mode,
                 made.st_mtim.tv_sec, made.st_mtim.tv_nsec);
    source.st_mode = S_IFREG;
    made.st_size = source.st_size;
    record.path = numbers.rest();
    return record;
}

uint64_t LinkNotes::number_of_volume(int fd) {
    struct statfs volume {};
    uint64_t number = 0;
    static_assert(sizeof volume.f_fsid == sizeof number);
    if (fd >= 0 && ::fstatfs(fd, &volume) == 0) {
        std::memcpy(&number, &volume.f_fsid, sizeof number);
    }
    return number;
}

void LinkNotes::begin(const std::string &top, const std::string &source, LinkedFiles &files) {
    if (m_places.empty() || m_places.back().top != top) {
        Place &place = m_places.emplace_back(Place{top});
        place.directory = HeldDirectory(top);
        LeftOvers found = place.directory.is_open() ? left_overs_in(place.directory.fd()) : LeftOvers();
        const auto is_other = [](const std::string &name) { return !name.ends_with(kLinks); };
        std::erase_if(found.gone, is_other);
        std::erase_if(found.unknown, is_other);
        for (const std::vector<std::string> *names : {&found.gone, &found.unknown}) {
            for (const std::string &name : *names) {
                read(place, name, files);
            }
        }
        place.earlier = std::move(found.gone);
    }
    if (m_elsewhere.empty()) {
        return;
    }
    struct stat now {};
    const Descriptor file(::open(source.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const uint64_t volume = number_of_volume(file.get());
    if (volume != 0 && ::fstat(file.get(), &now) == 0) {
        for (const Elsewhere &one : m_elsewhere) {
            if (one.volume == volume) {
                files.claim({now.st_dev, one.file.second}, one.made);
            }
        }
    }
}

void LinkNotes::read(Place &place, const std::string &name, LinkedFiles &files) {
    const auto maker = maker_of(name);
    const bool sameBoot = maker && maker->boot != 0 && maker->boot == own_maker().boot;
    const std::string text = own_text_of(place.directory, name);
    for (size_t at = 0, end = 0; (end = text.find(kEndOfRecord, at)) != std::string::npos; at = end + 1) {
        const Record record = Record::from(std::string_view(text).substr(at, end - at));
        if (!is_inside(record.path)) {
            continue;
        }
        LinkedFiles::Made made{record.source, record.made, joined(place.top, record.path)};
        made.file.st_dev = place.directory.device();
        const FileNumber file(record.source.st_dev, record.source.st_ino);
        if (sameBoot) {
            files.claim(file, made);
        } else if (record.volume != 0) {
            m_elsewhere.push_back({record.volume, file, std::move(made)});
        }
    }
}

void LinkNotes::add(const Record &record, bool durable) {
    if (m_places.empty() || !record.path.starts_with(m_places.back().top)) {
        return;
    }
    Place &place = m_places.back();
    Record below = record;
    below.path.erase(0, std::min(place.top.size() + (place.top.ends_with('/') ? 0 : 1), below.path.size()));
    if (!place.directory.is_open()) {
        place.directory = HeldDirectory(place.top);
    }
    for (int i = 0; i < kMostOnesNotes && place.file.get() < 0; ++i) {
        constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC;
        place.name = next_private_name() + std::string(kLinks);
        place.file = Descriptor(::openat(place.directory.fd(), place.name.c_str(), flags, 0600));
        if (place.file.get() < 0 && errno != EEXIST) {
            return;
        }
    }
    struct stat before {};
    const std::string text = below.text() + kEndOfRecord;
    if (place.file.get() < 0 || ::fstat(place.file.get(), &before) != 0) {
        return;
    }
    if (::write(place.file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        (void)::ftruncate(place.file.get(), before.st_size);
        return;
    }
    if (durable) {
        (void)(::fsync(place.file.get()) == 0 && ::fsync(open_directory(place.directory.fd(), ".").get()) == 0);
    }
}

void LinkNotes::end(bool needed) {
    for (Place &place : m_places) {
        if (needed || !place.directory.is_open()) {
            continue;
        }
        if (place.file.get() >= 0) {
            ::unlinkat(place.directory.fd(), place.name.c_str(), 0);
        }
        for (const std::string &name : place.earlier) {
            ::unlinkat(place.directory.fd(), name.c_str(), 0);
        }
    }
    m_places.clear();
    m_elsewhere.clear();
}

} // namespace engine
