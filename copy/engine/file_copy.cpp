// The single-file engine: the order of its steps, the transfer of the data, and how every call ends.
#include "copy/engine/file_copy.h"

#include "backup/backup.h"
#include "copy/engine/clone.h"
#include "copy/engine/constraints.h"
#include "copy/engine/file_copy_steps.h"
#include "platform/acl.h"
#include "support/fs_type.h"
#include "support/guards.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace vexo {
namespace {

// What a volume that writes late says only when a file is closed.
constexpr ErrnoRow kCloseErrors[] = {
    {EIO, Error::io},
    {ENOSPC, Error::no_space},
    {EDQUOT, Error::quota},
    {EHOSTDOWN, Error::host_down},
};

} // namespace

int FileCopy::run() {
    const Next end = perform();
    if (end == Next::failure) {
        report_failure();
    }
    m_srcFd.reset();
    m_dstFd.reset();
    if (m_removeSource) {
        remove_source();
    }
    if (end == Next::failure) {
        return -1;
    }
    return m_ownerPending ? fail(Error::owner_not_set, VEXO_AT(m_request.source)) : 0;
}

FileCopy::Next FileCopy::perform() {
    using Step = Next (FileCopy::*)();
    static constexpr Step kSteps[] = {
        &FileCopy::find_source_type,     &FileCopy::move_by_rename,   &FileCopy::find_destination_type,
        &FileCopy::fix_destination_name, &FileCopy::open_source,      &FileCopy::create_destination,
        &FileCopy::recognise_same_file,  &FileCopy::check_size_limit, &FileCopy::open_destination,
        &FileCopy::fill_destination,
    };
    for (const Step step : kSteps) {
        if (const Next next = (this->*step)(); next != Next::step) {
            return next;
        }
    }
    // Nothing of what follows fails the copy: the data have arrived.
    list_source_attributes();
    m_recordSet = set_record_now();
    if (!m_recordSet) {
        if (m_dstFd) {
            set_dos_attributes();
        }
        set_times(); // after the data and the owner, which would change them
    }
    if (m_request.copyAcl) {
        copy_acl();
    }
    copy_metadata();
    if (close_destination() == Next::failure) { // of a file that stayed open
        return abandon_destination();
    }
    m_removeSource = m_request.move;
    return Next::success;
}

// The data, and what is set through the open descriptor. Whatever goes wrong here leaves no destination behind.
FileCopy::Next FileCopy::fill_destination() {
    Next next = share_extents();
    if (next == Next::step) {
        next = transfer_data();
    }
    if (next == Next::failure) {
        return abandon_destination();
    }
    give_owner();
    if (stays_open()) {
        return Next::step;
    }
    set_dos_attributes();
    return close_destination() == Next::failure ? abandon_destination() : Next::step;
}

// Success: the destination is a clone, and no data need to move.
FileCopy::Next FileCopy::share_extents() {
    const bool wanted = m_request.clone || m_request.move;
    if (!wanted || !is_type(source_type(), FsType::btrfs) || !is_type(destination_type(), FsType::btrfs)) {
        return Next::step;
    }
    switch (clone_file(m_dstFd.get(), m_srcFd.get(), m_request.source)) {
    case CloneResult::done:
        return Next::success;
    case CloneResult::failed:
        return Next::failure;
    case CloneResult::fallback:
        break;
    }
    return Next::step;
}

FileCopy::Next FileCopy::transfer_data() {
    const int64_t size = m_srcStat.st.st_size;
    if (check_free_space(m_dstFd.get(), destination_type(), static_cast<uint64_t>(size), m_request.source) != 0) {
        return Next::failure;
    }
    const int moved = m_request.moveData(m_request.src, m_dst, m_srcFd.slot(), m_dstFd.slot(), size);
    return moved < 0 ? Next::failure : Next::success;
}

// A destination that this copy has made in a tree is nobody else's: the steps after the data may work on the open file.
// Only on the kernel's own volumes, which neither set times when a file is closed nor have anything left to say then.
bool FileCopy::stays_open() const {
    return m_madeInTree && m_request.moveDataIsOurs && m_request.directory->timesStay;
}

// Closed before the times are set and before a moved source goes: network and cloud volumes write late, and this is
// where they say that they could not. What stays open is asked all the same, at its end.
FileCopy::Next FileCopy::close_destination() {
    if (!m_dstFd || ::close(m_dstFd.release()) == 0) {
        return Next::step;
    }
    const std::optional<Error> error = find_error(kCloseErrors, errno);
    if (!error) {
        return Next::step;
    }
    VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to close destination [%s], errno=%d/%m", m_dst, errno);
    return refuse(*error, VEXO_AT(m_request.source));
}

// A cancelled copy is a success that left nothing behind.
FileCopy::Next FileCopy::abandon_destination() {
    const KeepErrors keep;
    const bool cancelled = m_request.isCancel && m_request.isCancel() != 0;
    remove_destination();
    m_ownerPending = false; // there is no copy left to own
    return cancelled ? Next::success : Next::failure;
}

// Attributes are set by those who may write the file, which the owner of a read-only one may not: for this scope it
// may. Says nothing, and leaves the mode to whoever changes it meanwhile.
class FileCopy::WritableByOwner {
  public:
    WritableByOwner(const FileRef &file, mode_t modeOfSource) : m_file(file) {
        const KeepErrno keep;
        struct stat status;
        if ((modeOfSource & S_IWUSR) == 0 && ::geteuid() != 0 && file.status(status) == 0 && S_ISREG(status.st_mode) &&
            (status.st_mode & S_IWUSR) == 0) {
            m_before = status.st_mode & ALLPERMS;
            m_changed = file.change_mode(m_before | S_IWUSR) == 0;
        }
    }
    WritableByOwner(const WritableByOwner &) = delete;
    WritableByOwner &operator=(const WritableByOwner &) = delete;
    ~WritableByOwner() {
        const KeepErrno keep;
        struct stat status;
        if (m_changed && m_file.status(status) == 0 && (status.st_mode & ALLPERMS) == (m_before | S_IWUSR)) {
            (void)m_file.change_mode(m_before);
        }
    }

  private:
    FileRef m_file;
    mode_t m_before = 0;
    bool m_changed = false;
};

void FileCopy::copy_metadata() {
    if (m_request.copyMetadata) {
        const WritableByOwner writable(destination(), m_srcStat.st.st_mode);
        // The same file ends the copy before anything is opened, but for remote volumes, where only paths tell.
        const KnownOfFile known = {store_seen(), m_names.known() ? &m_names : nullptr, true, m_recordSet};
        (void)m_request.copyMetadata(source(), destination(), source_type(), destination_type(), known);
    }
}

void FileCopy::remove_destination() {
    const int result = m_madeByName ? ::unlinkat(m_request.directory->to, name_in(m_dst), 0) : ::remove(m_dst);
    if (result != 0) {
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "remove dst: [%s] error(%d)%m", m_dst, errno);
    }
}

// A source that cannot be removed leaves two whole files, which is no failure of the copy.
void FileCopy::remove_source() {
    if (m_request.keepSource && m_request.keepSource() != 0) {
        return;
    }
    if (::unlink(m_request.src) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to remove source [%s], reason=[(%d)%m]", m_request.src,
                       errno);
    }
}

void FileCopy::report_failure() {
    if (m_request.errReport) {
        const KeepErrors keep;
        m_request.errReport(m_request.src, code_of(last_error()));
    }
}

int copy_file(const FileCopyRequest &request) {
    return FileCopy(request).run();
}

void do_after_steps(AfterSteps steps, const char *src, const char *dst, const char *source) {
    if (steps.cleanArchive) {
        (void)VEXOBackupCleanFileArchiveBit(src); // has said so itself where it could not
    }
    if (steps.enforceInherit && VEXOACLEnforceInherit(dst) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(source), "Failed to enforce ACL inheritance into [%s]", dst);
    }
}

} // namespace vexo
