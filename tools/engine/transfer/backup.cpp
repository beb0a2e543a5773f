#include "tools/engine/transfer/backup.h"

#include "tools/engine/report/names.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/rename.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
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
        held = nearest(other);
        if (!held.is_open()) {
            return not_kept(std::strerror(errno));
        }
        if (held.device() != directory.device() || held.type() != directory.type()) {
            return not_kept(fmt::format("{} is on another volume", displayed(other)));
        }
        errno = ENOENT;
        there = held.path() == other ? held.look(base_name(place)) : std::nullopt;
        number = errno;
        if (held.path() == other && m_options.suffix.empty() && one_directory(held, directory)) {
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
    if (!make_with_parents(m_directory)) {
        return std::nullopt;
    }
    place.other = HeldDirectory(m_directory);
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
