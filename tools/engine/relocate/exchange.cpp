#include "tools/engine/relocate/exchange.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

bool is_copy(const Note &note, const std::optional<struct stat> &found) {
    return found && note.copyIs && note.is(*note.copyIs, *found);
}

bool is_old(const Note &note, const std::optional<struct stat> &found) {
    return found && note.oldIs && note.is(*note.oldIs, *found);
}

bool is_unknown_to_the_volume(int number) {
    return number == EINVAL || number == ENOSYS || number == EOPNOTSUPP;
}

// To another parent only a directory that is written to can be renamed, unless by root. What stands aside may keep it.
class WritableWhile {
  public:
    WritableWhile(int parent, const std::string &name) : m_directory(open_directory(parent, name)) {
        struct stat found {};
        if (::geteuid() != 0 && ::fstat(m_directory.get(), &found) == 0 && (found.st_mode & S_IWUSR) == 0 &&
            ::fchmod(m_directory.get(), (found.st_mode & kModeBits) | S_IWUSR) == 0) {
            m_mode = found.st_mode & kModeBits;
        }
    }
    WritableWhile(const WritableWhile &) = delete;
    WritableWhile &operator=(const WritableWhile &) = delete;
    ~WritableWhile() {
        if (m_mode) {
            (void)::fchmod(m_directory.get(), *m_mode);
        }
    }

  private:
    static constexpr mode_t kModeBits = 07777;
    Descriptor m_directory;
    std::optional<mode_t> m_mode = {};
};

class Exchange {
  public:
    Exchange(const PrivatePlace &place, const Note &note)
        : m_place(place), m_note(note), m_base(place.base().c_str()) {}

    void run() {
        if (!m_place.look_at_destination()) {
            place_copy(); // nothing stood there, or it is aside already
            return;
        }
        if (::renameat2(m_place.directory(), kCopyName, m_place.parent(), m_base, RENAME_EXCHANGE) == 0) {
            name_the_old();
        } else if (is_unknown_to_the_volume(errno)) {
            move_aside();
            place_copy();
        } else {
            refused();
        }
    }

  private:
    [[noreturn]] void refused() const {
        throw_errno(fmt::format("cannot rename to {}", displayed(m_note.destination)));
    }
    [[noreturn]] void changed() const {
        throw Failure(fmt::format("{} was changed meanwhile", displayed(m_note.destination)));
    }
    // Under its own name, where that works; else it is found under the copy's.
    void name_the_old() const {
        if (!is_old(m_note, m_place.look_inside(kCopyName))) {
            (void)::renameat2(m_place.directory(), kCopyName, m_place.parent(), m_base, RENAME_EXCHANGE);
            changed();
        }
        (void)::renameat(m_place.directory(), kCopyName, m_place.directory(), kOldName);
    }
    void move_aside() const {
        if (::renameat(m_place.parent(), m_base, m_place.directory(), kOldName) != 0) {
            refused();
        }
        if (!is_old(m_note, m_place.look_inside(kOldName))) {
            put_back();
            changed();
        }
    }
    void put_back() const {
        if (::renameat2(m_place.directory(), kOldName, m_place.parent(), m_base, RENAME_NOREPLACE) != 0 &&
            is_unknown_to_the_volume(errno) && !m_place.look_at_destination()) {
            (void)::renameat(m_place.directory(), kOldName, m_place.parent(), m_base);
        }
    }
    void place_copy() const {
        int result = ::renameat2(m_place.directory(), kCopyName, m_place.parent(), m_base, RENAME_NOREPLACE);
        if (result != 0 && is_unknown_to_the_volume(errno)) {
            result = m_place.look_at_destination()
                         ? -1
                         : ::renameat(m_place.directory(), kCopyName, m_place.parent(), m_base);
        }
        if (result != 0) {
            const int number = errno;
            put_back();
            errno = number;
            refused();
        }
    }

    const PrivatePlace &m_place;
    const Note &m_note;
    const char *m_base;
};

} // namespace

bool is_placed(const PrivatePlace &place, const Note &note) {
    return is_copy(note, place.look_at_destination());
}

bool can_be_placed(const PrivatePlace &place, const Note &note) {
    const auto there = place.look_at_destination();
    const bool asItWas =
        note.oldIs ? is_old(note, there) || (!there && is_old(note, place.look_inside(kOldName))) : !there;
    return asItWas && is_copy(note, place.look_inside(kCopyName));
}

std::string old_name(const PrivatePlace &place, const Note &note) {
    for (const char *name : {kOldName, kCopyName}) {
        if (is_old(note, place.look_inside(name))) {
            return name;
        }
    }
    return {};
}

void put_in_place(const PrivatePlace &place, const Note &note) {
    {
        const WritableWhile copy(place.directory(), kCopyName), old(place.parent(), place.base());
        Exchange(place, note).run();
    }
    if (!is_placed(place, note)) {
        throw Failure(fmt::format("{} was changed meanwhile", displayed(note.destination)));
    }
}

} // namespace engine
