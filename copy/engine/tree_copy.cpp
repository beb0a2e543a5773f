// The walk of one tree: the levels, their entries, and how one goes on after the other.
#include "copy/engine/tree_copy_steps.h"

#include "backup/backup.h"
#include "support/fs_type.h"
#include "support/text.h"

#include <cerrno>
#include <optional>
#include <string_view>

namespace vexo {
namespace {

constexpr size_t kOpenLevels = 16;

// A "." behind a directory's path. It names the same directory, but no entry of it that a store could belong to.
bool trim_dot(PathBuffer &path) {
    const bool ends = path.view().ends_with("/.") && path.length() > 2;
    if (ends) {
        path.shorten(path.length() - 2);
    }
    return ends;
}

// What is made, removed and given a store needs a name of its own in its directory. An empty path fails where it is
// used.
bool names_an_entry(std::string_view path) {
    const std::string_view name = behind(path, path.rfind('/') + 1);
    return path.empty() || (!name.empty() && name != "." && name != "..");
}

} // namespace

TreeWalk::Step TreeWalk::after_entry(Level &level, int result) {
    level.lastResult = result;
    if (result >= 0) {
        if (m_request.cleanArchive && VEXOBackupCleanDirArchiveBit(src()) != 0) {
            VEXO_LOG_ERROR(here(__LINE__), "VEXOBackupCleanDirArchiveBit() failed!! szDir=[%s], vexoerr=[0x%04X]",
                           src(), VLIBCErrGet());
        }
        return Step::next;
    }
    // An entry that vanished meanwhile is not worth the whole tree.
    return !m_request.stopOnError || last_error() == Error::io ? Step::next : Step::leave;
}

// One entry: both paths name it while it is copied, and the directory again afterwards.
TreeWalk::Step TreeWalk::copy_entry(Level &level, const Listing::Entry &entry) {
    const size_t srcLength = m_src.length();
    const size_t dstLength = m_dst.length();
    int result = -1;
    bool endsLevel = false;
    bool passedOver = false;
    if (!enter(entry)) {
        result = entry_too_long(srcLength, dstLength);
    } else {
        switch (type_of(entry)) {
        case EntryType::regular:
            result = m_request.copyFile(src(), dst(), level.known ? &*level.known : nullptr);
            break;
        case EntryType::link:
            result = copy_link();
            endsLevel = result < 0;
            break;
        case EntryType::directory:
            // The copy itself, which would be copied into itself without end, is passed over as special files are.
            passedOver = is_destination_root();
            result = passedOver ? -1 : copy_level(&level);
            break;
        case EntryType::unreadable:
            if (m_request.stopOnError) {
                result = entry_unreadable();
                endsLevel = true;
            }
            break;
        case EntryType::other: // devices, FIFOs, sockets: passed over, even where an error stops
            passedOver = true;
            break;
        }
    }
    m_src.shorten(srcLength);
    m_dst.shorten(dstLength);
    if (endsLevel || m_aborted || passedOver) {
        level.lastResult = result;
        return passedOver ? Step::next : Step::leave;
    }
    const Step next = after_entry(level, result);
    if (next == Step::next && !level.entries.is_open() && !take_up(level)) {
        level.lastResult = -1;
        return Step::leave;
    }
    return next;
}

// A directory that cannot be read to its end has failed: nobody knows what else it holds.
TreeWalk::Step TreeWalk::walk_unreadable(Level &level) {
    const int number = errno;
    VEXO_LOG_ERROR(here(__LINE__), "failed to readdir: source dir name = %s, reason=[(%d)%m]", src(), number);
    const Error error = number == ENOMEM ? Error::out_of_memory : Error::other;
    level.lastResult = fail(find_error(kSourceErrors, number).value_or(error), here(__LINE__));
    report(src());
    return Step::leave;
}

TreeWalk::Step TreeWalk::walk(Level &level) {
    for (;;) {
        const std::optional<Listing::Entry> entry = level.entries.next();
        if (!entry) {
            return errno == 0 ? Step::next : walk_unreadable(level);
        }
        if (m_request.isCancel && m_request.isCancel() != 0) {
            level.cancelled = true;
            *m_cancelled = true;
            return Step::stop_walk;
        }
        if (entry->type == DT_REG) {
            look_up_directory(level);
        }
        if (copy_entry(level, *entry) == Step::leave) {
            return Step::leave;
        }
    }
}

// Before a level is opened: the open ones are the deepest, and the highest of them makes way.
void TreeWalk::make_room(Level *above) {
    if (m_openLevels < kOpenLevels) {
        return;
    }
    Level *highest = above;
    for (size_t level = 1; level < m_openLevels; ++level) {
        highest = highest->above;
    }
    highest->entries.set_aside();
    if (highest->known) {
        highest->known->from = highest->known->to = -1;
        highest->copies.reset();
    }
    --m_openLevels;
}

// Back at a level that was set aside: its path must lead to the same directory still.
bool TreeWalk::take_up(Level &level) {
    const bool remote = is_type(m_request.srcKind, FsType::remote);
    Dir directory = open_directory(level);
    bool same = directory && level.entries.take_up(static_cast<Dir &&>(directory), !remote);
    if (same && remote && !is_where_it_was()) {
        errno = ESTALE;
        same = false;
    }
    if (!same) {
        (void)source_not_opened();
        return false;
    }
    ++m_openLevels;
    return true;
}

// One level: the directory that the two paths name.
int TreeWalk::copy_level(Level *above) {
    if (m_request.move) {
        const Rename renamed = move_by_rename();
        if (renamed != Rename::copy_instead) {
            return renamed == Rename::done ? finish_rename() : -1;
        }
    }
    make_room(above);
    Level level{.above = above};
    if (open_source(level) < 0) {
        return -1;
    }
    const int result = copy_opened(level);
    if (level.entries.is_open()) {
        --m_openLevels;
    }
    return result;
}

int TreeWalk::copy_opened(Level &level) {
    if (fix_destination_name() < 0 || stat_source(level) < 0 || make_destination(level) < 0) {
        return -1;
    }
    if (level.above == nullptr) {
        note_destination_root();
    }
    const Step walked = walk(level);
    if (walked == Step::leave) {
        return level.lastResult;
    }
    if (walked == Step::next && finish_directory(level) < 0) {
        clean_up_moved(level);
        return level.lastResult;
    }
    clean_up_moved(level);
    return 0;
}

int TreeWalk::run(const char *src, const char *dst) {
    return take_paths(src, dst) < 0 ? -1 : copy_level(nullptr);
}

int TreeWalk::take_paths(const char *src, const char *dst) {
    m_src.append(src);
    m_dst.append(dst);
    if (m_src.overflowed() || m_dst.overflowed()) {
        return fail(Error::name_too_long, here(__LINE__));
    }
    m_dst.trim_slashes();
    struct stat link;
    if (m_request.move) {
        // With a slash behind it a link's name is that of its directory, which no rename moves.
        const size_t length = m_src.length();
        m_src.trim_slashes();
        if (m_src.length() < length && ::lstat(m_src.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
            m_src.append("/");
        }
    } else {
        do {
            m_src.trim_slashes();
        } while (trim_dot(m_src));
    }
    if (!names_an_entry(m_dst.view()) || (m_request.move && !names_an_entry(m_src.view()))) {
        return fail(Error::invalid_argument, here(__LINE__));
    }
    m_topLength = m_src.length();
    return 0;
}

int copy_tree(const char *src, const char *dst, const TreeRequest &request, bool *cancelled) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_AT(request.source));
    }
    return TreeWalk(request, cancelled).run(src, dst);
}

} // namespace vexo
