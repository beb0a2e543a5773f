#include "tools/engine/shards/shard_lists.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr size_t kWaiting = 16384; // bytes of each list
constexpr char kShard[] = "shard-", kDirectories[] = "directories";

bool older(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

} // namespace

ShardLists::ShardLists(const std::string &directory, int shards) : m_path(absolute_path(directory)) {
    m_made = ::mkdir(m_path.c_str(), 0777) == 0;
    if (!m_made && errno != EEXIST) {
        throw_errno(fmt::format("cannot make {}", displayed(m_path)));
    }
    m_directory = Descriptor(::open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (m_directory.get() < 0) {
        throw_errno(displayed(m_path));
    }
    clear_stopped();
    const auto names = names_in(m_directory.get());
    if (!names) {
        throw_errno(displayed(m_path));
    }
    if (!names->empty()) {
        throw Failure(fmt::format("{}: is not empty; lists go into a directory of their own", displayed(m_path)));
    }
    try {
        raise_descriptor_limit();
        for (int number = 1; number <= shards; ++number) {
            make(fmt::format("{}{}", kShard, number));
        }
        make(kDirectories);
    } catch (const Failure &) {
        discard();
        throw;
    }
}

ShardLists::~ShardLists() {
    discard();
}

// Of a run that was killed. Some lists may have their names by then, that of the directories has not; and whatever has
// been written since is not one of them.
void ShardLists::clear_stopped() const {
    const int directory = m_directory.get();
    const std::vector<std::string> gone = left_overs_in(directory).gone;
    timespec written{};
    for (const std::string &name : gone) {
        struct stat found {};
        if (::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && older(written, found.st_ctim)) {
            written = found.st_ctim;
        }
    }
    const auto names = gone.empty() ? std::nullopt : names_in(directory);
    const bool whole = !names || std::ranges::find(*names, kDirectories) != names->end();
    for (const std::string &name : whole ? std::vector<std::string>() : *names) {
        struct stat found {};
        const std::string number = name.starts_with(kShard) ? name.substr(std::string_view(kShard).size()) : "";
        const bool list = !number.empty() && number.find_first_not_of("0123456789") == std::string::npos;
        if (list && ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(found.st_mode) &&
            found.st_uid == ::geteuid() && !older(written, found.st_mtim)) {
            (void)::unlinkat(directory, name.c_str(), 0);
        }
    }
    for (const std::string &name : gone) {
        (void)remove_left_over(directory, name);
    }
}

void ShardLists::make(std::string name) {
    List list;
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    do {
        list.made = next_private_name();
        list.file = Descriptor(::openat(m_directory.get(), list.made.c_str(), flags, 0666));
    } while (list.file.get() < 0 && errno == EEXIST);
    if (list.file.get() < 0) {
        throw_errno_in(m_directory.get(), fmt::format("cannot make {}", displayed(joined(m_path, name))));
    }
    list.name = std::move(name);
    m_lists.push_back(std::move(list));
}

void ShardLists::append(List &list, std::string_view name) const {
    list.waiting.append(name).push_back('\0');
    if (list.waiting.size() >= kWaiting) {
        write_out(list);
    }
}

void ShardLists::write_out(List &list) const {
    size_t done = 0;
    while (done < list.waiting.size()) {
        const ssize_t got = ::write(list.file.get(), list.waiting.data() + done, list.waiting.size() - done);
        if (got < 0 && errno != EINTR) {
            throw_errno(fmt::format("cannot write {}", displayed(joined(m_path, list.name))));
        }
        done += got < 0 ? 0 : static_cast<size_t>(got);
    }
    list.waiting.clear();
}

// Who finds the list of directories finds all the others.
void ShardLists::complete() {
    for (List &list : m_lists) {
        write_out(list);
        if (::fsync(list.file.get()) != 0) {
            throw_errno(fmt::format("cannot write {}", displayed(joined(m_path, list.name))));
        }
    }
    for (List &list : m_lists) {
        // What somebody else has made there meanwhile stays, where the volume can tell.
        const int directory = m_directory.get();
        if (::renameat2(directory, list.made.c_str(), directory, list.name.c_str(), RENAME_NOREPLACE) != 0 &&
            (errno != EINVAL || ::renameat(directory, list.made.c_str(), directory, list.name.c_str()) != 0)) {
            throw_errno(fmt::format("cannot make {}", displayed(joined(m_path, list.name))));
        }
        list.made = list.name;
    }
    if (::fsync(m_directory.get()) != 0 && errno != EINVAL) {
        throw_errno(fmt::format("cannot write {}", displayed(m_path)));
    }
    m_lists.clear();
    m_made = false;
}

void ShardLists::discard() {
    for (const List &list : m_lists) {
        (void)::unlinkat(m_directory.get(), list.made.c_str(), 0);
    }
    m_lists.clear();
    if (m_made) {
        (void)::rmdir(m_path.c_str());
    }
    m_made = false;
}

} // namespace engine
