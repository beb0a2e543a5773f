#include "tools/engine/transfer/linked_files.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/units.h"
#include "tools/engine/workers/record.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace engine {
namespace {

std::pair<dev_t, ino_t> inode_of(const struct stat &file) {
    return {file.st_dev, file.st_ino};
}

// A link changes the change time of what has been made, and nothing else.
bool is_still(const struct stat &made, const struct stat &now) {
    return S_ISREG(now.st_mode) && same(made, now) && made.st_size == now.st_size && made.st_uid == now.st_uid &&
           made.st_gid == now.st_gid && made.st_mode == now.st_mode && made.st_mtim.tv_sec == now.st_mtim.tv_sec &&
           made.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
}

// Of the directory of a file's first name, which may be finished: on HFS+ the second name moves the file to a place of
// its own and makes the first anew, as the directory's times tell.
class KeptTimes {
  public:
    KeptTimes(const std::string &directory, const HeldDirectory &to) {
        constexpr long plain = 0x482b, withCase = 0x4858;
        struct statfs volume {};
        struct stat linked {};
        if (::fstatfs(to.fd(), &volume) != 0 || (volume.f_type != plain && volume.f_type != withCase)) {
            return;
        }
        Descriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (opened.get() >= 0 && ::fstat(opened.get(), &m_before) == 0 && ::fstat(to.fd(), &linked) == 0 &&
            !same(m_before, linked)) {
            m_directory.swap(opened);
        }
    }
    KeptTimes(const KeptTimes &) = delete;
    KeptTimes &operator=(const KeptTimes &) = delete;
    ~KeptTimes() {
        if (m_directory.get() >= 0) {
            const int number = errno;
            const timespec times[] = {m_before.st_atim, m_before.st_mtim};
            (void)::futimens(m_directory.get(), times);
            errno = number;
        }
    }

  private:
    Descriptor m_directory{-1};
    struct stat m_before {};
};

} // namespace

bool LinkedFiles::contains(const struct stat &file) const {
    return S_ISREG(file.st_mode) && m_files.contains(inode_of(file));
}

void LinkedFiles::add(const struct stat &file) {
    if (S_ISREG(file.st_mode) && file.st_nlink > 1) {
        m_files.try_emplace(inode_of(file));
    }
}

const LinkedFiles::Made *LinkedFiles::find(const struct stat &file) const {
    const auto found = m_files.find(inode_of(file));
    const bool known = found != m_files.end() && S_ISREG(file.st_mode) && !found->second.path.empty() &&
                       !found->second.claimed && Witness(found->second.source).is(file);
    return known ? &found->second : nullptr;
}

void LinkedFiles::placed(const struct stat &file, const HeldDirectory &to, const std::string &name, bool alone) {
    add(file);
    const auto found = m_files.find(inode_of(file));
    const auto made = found == m_files.end() ? std::nullopt : to.look(name);
    if (!made || !S_ISREG(made->st_mode)) {
        return;
    }
    Made &known = found->second;
    if (known.path.empty() || known.file.st_dev == made->st_dev || !Witness(known.source).is(file)) {
        known = {file, *made, joined(to.path(), name), alone};
    }
}

void LinkedFiles::claim(const FileNumber &file, Made made) {
    made.noted = made.claimed = true;
    m_files.try_emplace(file, std::move(made));
}

const LinkedFiles::Made *LinkedFiles::claimed(const struct stat &file) {
    const auto found = m_files.find(inode_of(file));
    if (found == m_files.end() || !S_ISREG(file.st_mode)) {
        return nullptr;
    }
    Made &made = found->second;
    const bool doubted = !made.claimed && !made.path.empty() && !made.alone && !Witness(made.source).is(file);
    if (!made.claimed && !doubted) {
        return nullptr;
    }
    struct stat now {};
    if (file.st_size != made.source.st_size || !same_time(file.st_mtim, made.source.st_mtim) ||
        ::lstat(made.path.c_str(), &now) != 0 || !is_still(made.file, now)) {
        if (!doubted) {
            m_files.erase(found);
        }
        return nullptr;
    }
    return &made;
}

void LinkedFiles::prove(const struct stat &file) {
    const auto found = m_files.find(inode_of(file));
    if (found != m_files.end()) {
        found->second.source = file;
        found->second.claimed = false;
    }
}

const LinkedFiles::Made *LinkedFiles::take_note(const struct stat &file) {
    const Made *const made = find(file);
    if (made == nullptr || made->noted || made->alone || file.st_nlink < 2) {
        return nullptr;
    }
    m_files[inode_of(file)].noted = true;
    return made;
}

bool LinkedFiles::has_noted() const {
    return std::ranges::any_of(m_files, [](const auto &known) {
        const Made &made = known.second;
        struct stat there {};
        return made.noted && (!made.claimed || (::lstat(made.path.c_str(), &there) == 0 && is_still(made.file, there) &&
                                                there.st_nlink < made.source.st_nlink));
    });
}

bool LinkedFiles::is_there(const struct stat &file, const std::optional<struct stat> &there) const {
    const Made *const made = find(file);
    return made != nullptr && there && is_still(made->file, *there);
}

bool LinkedFiles::can_link(const struct stat &file, const HeldDirectory &to) const {
    const Made *const made = find(file);
    return made != nullptr && !made->alone && made->file.st_dev == to.device();
}

bool LinkedFiles::link(const struct stat &file, const HeldDirectory &to, const std::string &made) const {
    const Made *const known = find(file);
    struct stat now {};
    errno = ENOENT;
    if (known == nullptr || known->alone) {
        return false;
    }
    // By descriptor: whatever the path leads to by now, only that very file gets another name.
    const Descriptor held(::open(known->path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (held.get() < 0 || ::fstat(held.get(), &now) != 0) {
        return false;
    }
    if (!is_still(known->file, now)) {
        errno = ESTALE;
        return false;
    }
    const std::string path = fmt::format("/proc/self/fd/{}", held.get());
    const KeptTimes times(parent_of(known->path), to);
    return ::linkat(AT_FDCWD, path.c_str(), to.fd(), made.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

void LinkedFiles::touched(const struct stat &now) {
    const auto found = m_files.find(inode_of(now));
    if (found == m_files.end()) {
        return;
    }
    struct stat &known = found->second.source;
    if (now.st_nlink == 0 && known.st_nlink > 1) { // as FUSE counts where it has an inode for each name
        --known.st_nlink;
        known.st_ctim = {};
    } else if (now.st_nlink == 0) {
        m_files.erase(found); // its number is free for another file
    } else if (found->second.source.st_size == now.st_size &&
               found->second.source.st_mtim.tv_sec == now.st_mtim.tv_sec &&
               found->second.source.st_mtim.tv_nsec == now.st_mtim.tv_nsec) {
        found->second.source = now;
    }
}

std::string LinkedFiles::written_down(const FileNumber &file) const {
    const auto found = m_files.find(file);
    if (found == m_files.end()) {
        return {};
    }
    const Made &made = found->second;
    return RecordWriter()
        .number(made.source)
        .number(made.file)
        .text(made.path)
        .number(made.alone)
        .number(made.noted)
        .number(made.claimed)
        .bytes();
}

std::string LinkedFiles::take_out(const FileNumber &file) {
    std::string known = written_down(file);
    m_files.erase(file);
    return known;
}

void LinkedFiles::put_in(const FileNumber &file, const std::string &known) {
    m_files.erase(file);
    if (known.empty()) {
        return;
    }
    RecordReader reader(known);
    Made &made = m_files[file];
    made.source = reader.number<struct stat>();
    made.file = reader.number<struct stat>();
    made.path = reader.text();
    made.alone = reader.number<bool>();
    made.noted = reader.number<bool>();
    made.claimed = reader.number<bool>();
}

} // namespace engine
