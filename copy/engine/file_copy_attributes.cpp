// What a file has beside its data: owner, DOS attributes, times and ACL. A volume or user that cannot hold one of them
// does not fail the copy; each failure has its log line.
#include "copy/engine/file_copy_steps.h"

#include "support/dos_attributes.h"
#include "support/file_calls.h"
#include "support/fs_type.h"
#include "support/guards.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {

bool FileCopy::may_choose_owner() const {
    return m_request.asCaller || ::geteuid() == 0;
}

void FileCopy::give_owner() {
    if (is_type(destination_type(), FsType::fat) || is_type(destination_type(), FsType::remote)) {
        return;
    }
    if (m_request.owner.mode == OwnerPolicy::kKeep) {
        give_owner_of_source();
    } else if (may_choose_owner()) {
        give_chosen_owner();
    }
}

void FileCopy::give_owner_of_source() {
    const uid_t user = m_srcStat.st.st_uid;
    const gid_t group = m_srcStat.st.st_gid;
    if (::fchown(m_dstFd.get(), user, group) == 0) {
        restore_set_id_bits();
        return;
    }
    m_ownerPending = m_request.asCaller;
    if (errno != EPERM) { // what every user but root must expect
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to fchown destination to uid=%u, gid=%u, errno=%d/%m", user,
                       group, errno);
    }
}

void FileCopy::give_chosen_owner() {
    const uid_t user = m_request.owner.user();
    const gid_t group = m_request.owner.group();
    if (::fchown(m_dstFd.get(), user, group) != 0) {
        m_ownerPending = m_request.asCaller;
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to fchown destination to uid=%u, gid=%u, errno=%d/%m", user,
                       group, errno);
    }
}

// The kernel takes the set-user-id and set-group-id bits from a file that changes hands. A new file that got its
// source's owner gets them back; with any other owner they would grant what the source never did.
void FileCopy::restore_set_id_bits() {
    const mode_t mode = m_srcStat.st.st_mode & ALLPERMS;
    if (m_dstExisted || (mode & (S_ISUID | S_ISGID)) == 0) {
        return;
    }
    if (::fchmod(m_dstFd.get(), mode) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "failed to fchmod destination to mode=%04o, errno=%d/%m", mode,
                       errno);
    }
}

void FileCopy::set_dos_attributes() {
    const uint32_t attributes = m_srcStat.attributes;
    if ((attributes & VLIBC_ATTR_ARCHIVE) != 0 &&
        request_attribute(m_dstFd.get(), AttributeRequest::set_archive) != 0) {
        VEXO_LOG_DEBUG(VEXO_AT(m_request.source), "F_SETSMB_ARCHIVE(%s): (errno:%d %m)", m_dst, errno);
    }
    if ((attributes & VLIBC_ATTR_HIDDEN) != 0 && request_attribute(m_dstFd.get(), AttributeRequest::set_hidden) != 0) {
        VEXO_LOG_DEBUG(VEXO_AT(m_request.source), "F_SETSMB_HIDDEN(%s): (errno:%d %m)", m_dst, errno);
    }
    if ((attributes & VLIBC_ATTR_SYSTEM) != 0 && request_attribute(m_dstFd.get(), AttributeRequest::set_system) != 0) {
        VEXO_LOG_DEBUG(VEXO_AT(m_request.source), "F_SETSMB_SYSTEM(%s): (errno:%d %m)", m_dst, errno);
    }
}

// One list answers for ACLs, metadata and record of an ordinary file, each of which would be a call otherwise. An
// attribute that somebody gives the source afterwards has come after the copy looked at it, as it may in any case; a
// move, after which there would be no source to look at again, asks one by one.
void FileCopy::list_source_attributes() {
    if (m_dstFd && m_request.directory->listsAll && m_srcStat.st.st_dev == m_request.directory->device) {
        m_names.list(source());
    }
}

// As the caller, whose rights may not do, it goes step by step. So does what a store may belong to.
bool FileCopy::set_record_now() {
    return m_names.known() && !m_request.asCaller && store_seen() == StoreSeen::neither &&
           set_record_at_once(new_copy(), m_srcStat, static_cast<bool>(m_request.copyMetadata));
}

// As root unless the caller's own rights are asked for: the copy may belong to another user by now.
void FileCopy::set_times() {
    if (m_request.asCaller || ::geteuid() == 0) {
        set_times_as_current_user();
        return;
    }
    RootPeriod period;
    if (!period.become_root()) {
        VEXO_LOG_DEBUG(VEXO_AT(m_request.source), "Failed to seteuid to %d(errno:%d %m)", 0, errno);
    }
    set_times_as_current_user();
    if (!period.restore()) {
        VEXO_LOG_DEBUG(VEXO_AT(m_request.source), "Failed to seteuid %d(errno:%d %m)",
                       static_cast<int>(period.before()), errno);
    }
}

void FileCopy::set_times_as_current_user() {
    const timespec times[] = {m_srcStat.st.st_atim, m_srcStat.st.st_mtim, m_srcStat.createTime};
    // A volume without creation times says EOPNOTSUPP, with the two others set.
    if (vexo::set_times(destination(), times) != 0 && errno != EOPNOTSUPP) {
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "VLIBCFileUTime(%s) (errno:%d %m)", m_dst, errno);
    }
}

void FileCopy::copy_acl() {
    const int result = copy_acls_to_new(new_copy(), m_srcStat.st.st_mode);
    if (result != 0) {
        VEXO_LOG_ERROR(VEXO_AT(m_request.source), "Failed to copy ACL from [%s] to [%s]", m_request.src, m_dst);
    }
}

} // namespace vexo
