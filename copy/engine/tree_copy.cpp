// The walk of one tree: the levels, their entries, and how one goes on after the other.
#include "copy/engine/tree_copy_steps.h"

#include "backup/backup.h"
#include "ea/ea.h"

#include <cerrno>
#include <string_view>

namespace vexo {

bool is_never_carried(const char *entry) {
    const std::string_view name = entry;
    return name == "." || name == ".." || VEXOEAIsHiddenDir(entry) != 0 || name.starts_with("._");
}

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
TreeWalk::Step TreeWalk::copy_entry(Level &level, const dirent &entry) {
    const size_t srcLength = m_src.length();
    const size_t dstLength = m_dst.length();
    int result = -1;
    bool endsLevel = false;
    bool passedOver = false;
    if (!enter(entry)) {
        set_error(Error::name_too_long, here(__LINE__));
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
            result = passedOver ? -1 : copy_level();
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
    return after_entry(level, result);
}

// A directory that cannot be read to its end has failed: nobody knows what else it holds.
TreeWalk::Step TreeWalk::walk_unreadable(Level &level) {
    const int number = errno;
    VEXO_LOG_ERROR(here(__LINE__), "failed to readdir: source dir name = %s, reason=[(%d)%m]", src(), number);
    level.lastResult = fail(find_error(kSourceErrors, number).value_or(Error::other), here(__LINE__));
    report(src());
    return Step::leave;
}

TreeWalk::Step TreeWalk::walk(Level &level) {
    for (;;) {
        errno = 0;
        const dirent *entry = level.directory.read();
        if (entry == nullptr) {
            return errno == 0 ? Step::next : walk_unreadable(level);
        }
        if (is_never_carried(entry->d_name)) {
            continue;
        }
        if (m_request.isCancel && m_request.isCancel() != 0) {
            level.cancelled = true;
            *m_cancelled = true;
            return Step::stop_walk;
        }
        if (entry->d_type == DT_REG) {
            look_up_directory(level);
        }
        if (copy_entry(level, *entry) == Step::leave) {
            return Step::leave;
        }
    }
}

// One level: the directory that the two paths name.
int TreeWalk::copy_level(bool isTop) {
    if (m_request.move) {
        const Rename renamed = move_by_rename();
        if (renamed != Rename::copy_instead) {
            return renamed == Rename::done ? finish_rename() : -1;
        }
    }
    Level level;
    if (open_source(level, isTop) < 0 || fix_destination_name() < 0 || stat_source(level) < 0 ||
        make_destination(level) < 0) {
        return -1;
    }
    if (isTop) {
        note_destination_root();
    }
    const Step walked = walk(level);
    if (walked == Step::leave) {
        return level.lastResult;
    }
    if (walked == Step::stop_walk) {
        clean_up_moved(level);
        return 0;
    }
    if (finish_directory(level) < 0) {
        clean_up_moved(level);
        return level.lastResult;
    }
    clean_up_moved(level);
    return 0;
}

int TreeWalk::run(const char *src, const char *dst) {
    m_src.append(src);
    m_dst.append(dst);
    if (m_src.overflowed() || m_dst.overflowed()) {
        return fail(Error::name_too_long, here(__LINE__));
    }
    return copy_level(true);
}

int copy_tree(const char *src, const char *dst, const TreeRequest &request, bool *cancelled) {
    if (src == nullptr || dst == nullptr) {
        return fail(Error::invalid_argument, VEXO_AT(request.source));
    }
    return TreeWalk(request, cancelled).run(src, dst);
}

} // namespace vexo
