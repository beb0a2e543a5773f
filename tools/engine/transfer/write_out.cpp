#include "tools/engine/transfer/write_out.h"

#include "ea/ea.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

std::optional<Problem> not_written(int number) {
    Problem problem = problem_of_errno(number);
    problem.reason = fmt::format("could not be written out: {}", std::strerror(number));
    return problem;
}

// What the kernel does with what it has of a file in memory once that is written out.
enum class Then { keep, let_go };

std::optional<Problem> write_out_opened(int fd, bool directory, Then then) {
    if (::fsync(fd) != 0 && !(directory && (errno == EINVAL || errno == EROFS))) {
        return not_written(errno);
    }
    if (then == Then::let_go && !directory) {
        (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    }
    return std::nullopt;
}

// A regular file or a directory; what is not there, or is neither, has nothing to write.
std::optional<Problem> write_out_at(int directory, const std::string &name, Then then) {
    constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    struct stat found {};
    if (::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? std::nullopt : not_written(errno);
    }
    if (!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode)) {
        return std::nullopt;
    }
    Descriptor opened(::openat(directory, name.c_str(), O_RDONLY | flags));
    if (opened.get() < 0 && errno == EACCES) {
        opened = Descriptor(::openat(directory, name.c_str(), O_WRONLY | flags));
    }
    return opened.get() < 0 ? not_written(errno) : write_out_opened(opened.get(), S_ISDIR(found.st_mode), then);
}

// "@eaDir/name", a directory with what is in it.
std::optional<Problem> write_out_own(int stores, const std::string &name, Then then) {
    const Descriptor own = open_directory(stores, name);
    if (own.get() < 0) {
        return std::nullopt;
    }
    for (const Entry &entry : entries_in(own.get()).value_or(std::vector<Entry>())) {
        if (auto problem = write_out_at(own.get(), entry.name, then)) {
            return problem;
        }
    }
    return write_out_opened(own.get(), true, then);
}

// What is kept beside an entry, and where.
std::optional<Problem> write_out_beside(const HeldDirectory &directory, const std::string &name, Then then) {
    const std::string path = directory.below(name);
    char place[PATH_MAX] = "";
    if (store_kind(directory.type()) == StoreKind::apple_double &&
        VEXOEAADPath(path.c_str(), place, sizeof place) == 0) {
        if (auto problem = write_out_at(directory.fd(), base_name(place), then)) {
            return problem;
        }
    }
    const Descriptor stores = open_directory(directory.fd(), "@eaDir");
    if (stores.get() < 0) {
        return std::nullopt;
    }
    bool any = false;
    for (const char *stream : {"VexoEAStream", "VexoResource"}) {
        if (VEXOEAPathNoADFS(1, path.c_str(), stream, place, sizeof place) == 0) {
            const std::string part = base_name(place);
            any = any || ::faccessat(stores.get(), part.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
            if (auto problem = write_out_at(stores.get(), part, then)) {
                return problem;
            }
        }
    }
    if (auto problem = write_out_own(stores.get(), name, then)) {
        return problem;
    }
    return any ? write_out_opened(stores.get(), true, then) : std::nullopt;
}

} // namespace

std::optional<Problem> write_out_store(const HeldDirectory &directory, const std::string &name) {
    return write_out_beside(directory, name, Then::keep);
}

std::optional<Problem> write_out_file(const HeldDirectory &directory, const std::string &name, int opened) {
    auto problem =
        opened >= 0 ? write_out_opened(opened, false, Then::keep) : write_out_at(directory.fd(), name, Then::keep);
    return problem ? problem : write_out_store(directory, name);
}

std::optional<Problem> let_go(const HeldDirectory &directory, const std::string &name) {
    auto problem = write_out_at(directory.fd(), name, Then::let_go);
    return problem ? problem : write_out_beside(directory, name, Then::let_go);
}

std::optional<Problem> write_out_directory(const HeldDirectory &directory) {
    return write_out_at(directory.fd(), ".", Then::keep);
}

void VolumesToWriteOut::begin(const HeldDirectory &directory) {
    if (directory.is_open() && !m_volumes.contains(directory.device())) {
        m_volumes.emplace(directory.device(), Volume{directory.path(), open_directory(directory.fd(), ".")});
    }
}

std::optional<Problem> VolumesToWriteOut::write_out(const Volume &volume) {
    if (volume.opened.get() < 0) {
        return Problem{"could not be written out: its directory cannot be opened for reading"};
    }
    return ::syncfs(volume.opened.get()) == 0 ? std::nullopt : not_written(errno);
}

std::optional<Problem> VolumesToWriteOut::write_out(const HeldDirectory &directory) const {
    const auto found = m_volumes.find(directory.device());
    return found == m_volumes.end() ? std::nullopt : write_out(found->second);
}

void VolumesToWriteOut::write_out(TransferObserver &observer) {
    for (const auto &[device, volume] : m_volumes) {
        observer.writing_out(volume.directory);
        observer.written_out(volume.directory, write_out(volume));
    }
    m_volumes.clear();
}

} // namespace engine
