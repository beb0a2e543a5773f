#include "tools/engine/transfer/backup.h"

#include "tools/engine/report/names.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/rename.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <unistd.h>

namespace engine {
namespace {

Problem not_kept(const std::string &why) {
    return {"what stands there cannot be kept as a backup: " + why};
}

// By whatever paths.
bool one_directory(const HeldDirectory &left, const HeldDirectory &right) {
    struct stat one {
    }, other{};
    return ::fstat(left.fd(), &one) == 0 && ::fstat(right.fd(), &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

// The nearest directory on the way to a path that is there.
HeldDirectory nearest(std::string path) {
    HeldDirectory found(path);
    while (!found.is_open() && (errno == ENOENT || errno == ENOTDIR) && path != "/") {
        path = parent_of(path);
        found = HeldDirectory(path);
    }
    return found;
}

// The part of a path behind the directory `top`, by whatever name the path leads into that.
std::optional<std::vector<std::string>> part_in(const std::string &top, const std::string &path) {
    const auto found = look_through(top);
    std::string at = "/";
    std::vector<std::string> rest = names_in_path(path);
    while (found && !same(found, look_through(at))) {
        if (rest.empty()) {
            return std::nullopt;
        }
        at = joined(at, rest.front());
        rest.erase(rest.begin());
    }
    const bool leadsOut = std::ranges::find(rest, "..") != rest.end();
    return found && !leadsOut ? std::optional(std::move(rest)) : std::nullopt;
}

// Why a name cannot be entered.
std::string why_not(const HeldDirectory &parent, const std::string &name, int number) {
    const auto there = parent.look(name);
    const std::string path = displayed(joined(parent.path(), name));
    return there && S_ISLNK(there->st_mode) ? fmt::format("{} is a symbolic link, which is not followed", path)
                                            : fmt::format("{}: {}", path, std::strerror(number));
}

// The directory `name`, made with what the one that it stands for has where it is not there. A link is none.
HeldDirectory made_like(const HeldDirectory &parent, const std::string &name, const std::string &model) {
    constexpr mode_t bits = 07777;
    struct stat found {};
    if (::mkdirat(parent.fd(), name.c_str(), 0700) == 0) {
        const Descriptor made = open_directory(parent.fd(), name);
        if (made.get() >= 0 && ::lstat(model.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) {
            (void)!::fchown(made.get(), found.st_uid, found.st_gid);
            (void)::fchmod(made.get(), found.st_mode & bits);
        }
    } else if (errno != EEXIST) {
        return {};
    }
    return {parent, name};
}

// As far as they are not there. False, with errno: it is not.
bool make_with_parents(const std::string &path) {
    if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) {
        return true;
    }
    const std::string above = parent_of(path);
    return errno == ENOENT && above != path && make_with_parents(above) &&
           (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST);
}

} // namespace

void Backups::begin(const std::string &top) {
    m_top = top;
    m_directory = m_options.directory.empty() || m_options.directory.starts_with('/')
                      ? m_options.directory
                      : joined(top, m_options.directory);
    m_inside = m_directory.empty() ? std::nullopt : part_in(top, m_directory);
}

std::string Backups::below_top(const std::string &path) const {
    const size_t skipped = m_top == "/" ? 1 : m_top.size() + 1;
    return path.size() > skipped && path.starts_with(m_top) ? path.substr(skipped) : "";
}

std::string Backups::directory_for(const std::string &directory) const {
    if (!m_options.wanted || m_directory.empty()) {
        return "";
    }
    const std::string below = below_top(directory);
    return below.empty() ? m_directory : joined(m_directory, below);
}

std::string Backups::place_of(const std::string &destination) const {
    const std::string other = directory_for(parent_of(destination));
    return joined(other.empty() ? parent_of(destination) : other, base_name(destination) + m_options.suffix);
}

Backups::Way Backups::way_to(const std::string &directory) const {
    Way way{m_inside ? HeldDirectory(m_top) : nearest(m_directory)};
    if (!way.at.is_open()) {
        way.why = std::strerror(errno);
        return way;
    }
    std::vector<std::string> names = m_inside.value_or(std::vector<std::string>());
    if (!m_inside && way.at.path() != m_directory) {
        return way;
    }
    std::ranges::copy(names_in_path(below_top(directory)), std::back_inserter(names));
    for (const std::string &name : names) {
        HeldDirectory next(way.at, name);
        if (!next.is_open()) {
            const int number = errno;
            way.why = number == ENOENT ? "" : why_not(way.at, name, number);
            way.at = number == ENOENT ? std::move(way.at) : HeldDirectory();
            return way;
        }
        way.at = std::move(next);
    }
    way.whole = true;
    return way;
}

// Closed, with errno: it cannot be made.
HeldDirectory Backups::made() const {
    if (!m_inside) {
        return make_with_parents(m_directory) ? HeldDirectory(m_directory) : HeldDirectory();
    }
    HeldDirectory at(m_top);
    for (const std::string &name : *m_inside) {
        if (!at.is_open() || (::mkdirat(at.fd(), name.c_str(), 0777) != 0 && errno != EEXIST)) {
            return {};
        }
        at = HeldDirectory(at, name);
    }
    return at;
}

std::optional<Problem> Backups::refusal(const HeldDirectory &directory, const std::string &destination,
                                        const std::optional<struct stat> &source, const WrittenEntries *written) const {
    const std::string place = place_of(destination), other = directory_for(parent_of(destination));
    std::optional<struct stat> there;
    int number = 0;
    HeldDirectory held;
    if (other.empty()) {
        there = directory.look(base_name(place));
        number = errno;
    } else {
        Way way = way_to(parent_of(destination));
        if (!way.at.is_open()) {
            return not_kept(way.why);
        }
        held = std::move(way.at);
        if (held.device() != directory.device() || held.type() != directory.type()) {
            return not_kept(fmt::format("{} is on another volume", displayed(other)));
        }
        errno = ENOENT;
        there = way.whole ? held.look(base_name(place)) : std::nullopt;
        number = errno;
        if (way.whole && m_options.suffix.empty() && one_directory(held, directory)) {
            return not_kept("the directory of backups is its own");
        }
    }
    if (!there) {
        return number == ENOENT ? std::nullopt : std::optional(not_kept(std::strerror(number)));
    }
    if (S_ISDIR(there->st_mode)) {
        return not_kept(fmt::format("{} is a directory", displayed(place)));
    }
    if (same(source, there)) {
        return not_kept(fmt::format("{} is the source", displayed(place)));
    }
    if (written != nullptr && written->contains(*there, held.is_open() ? held : directory, base_name(place))) {
        return not_kept(fmt::format("{} was just written by this command", displayed(place)));
    }
    return std::nullopt;
}

std::optional<Backups::Place> Backups::open(const std::string &destination, const std::string &name) const {
    Place place{{}, name + m_options.suffix};
    const std::string other = directory_for(parent_of(destination));
    if (other.empty()) {
        return place;
    }
    place.other = made();
    std::string model = m_top;
    for (const std::string &part : names_in_path(below_top(parent_of(destination)))) {
        model = joined(model, part);
        place.other = place.other.is_open() ? made_like(place.other, part, model) : HeldDirectory();
    }
    return place.other.is_open() ? std::optional(std::move(place)) : std::nullopt;
}

std::optional<Problem> Backups::keep(const HeldDirectory &directory, const std::string &destination,
                                     const std::string &name) const {
    const auto place = open(destination, name);
    if (!place) {
        return not_kept(std::strerror(errno));
    }
    const HeldDirectory &to = place->other.is_open() ? place->other : directory;
    // The renaming of a link with its store would mark the file that it leads to as changed.
    const auto there = directory.look(name);
    const bool stores = (there && S_ISREG(there->st_mode)) || has_store(directory, name);
    const auto left = rename_with_store({directory, name, to, place->name, true, stores, true});
    if (!left) {
        return not_kept(std::strerror(errno));
    }
    if (left->reason.empty()) {
        return std::nullopt;
    }
    // Its store lies where it was, or some of it: only a renaming of the file alone leaves that as it is.
    if (!has_store(to, place->name) && rename_without_replacing(to.fd(), place->name, directory.fd(), name)) {
        return not_kept(left->reason);
    }
    return Problem{fmt::format("not replaced; what stood there is {} now: {}; the same command again finishes that",
                               displayed(place_of(destination)), left->reason)};
}

bool Backups::put_back(const HeldDirectory &directory, const std::string &destination, const std::string &name) const {
    const auto place = open(destination, name);
    const HeldDirectory &from = place && place->other.is_open() ? place->other : directory;
    const auto there = place ? from.look(place->name) : std::nullopt;
    return there && rename_with_store({from, place->name, directory, name, false,
                                       S_ISREG(there->st_mode) || has_store(from, place->name)});
}

} // namespace engine
