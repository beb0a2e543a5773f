#include "tests/model/file_model.h"

#include "ea/ea.h"
#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tests/model/harness.h"
#include "tests/model/loop_model.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <unistd.h>

namespace model {
namespace {

using Codes = std::map<int, uint32_t>;

// One copy under way. The steps have the order in which they are called in perform().
class Copy {
  public:
    Copy(const std::string &src, std::string dst, FileCall &call) : m_src(src), m_dst(std::move(dst)), m_call(call) {}

    int run();

  private:
    enum class Next { goOn, success, failure };

    Next perform();
    Next lookUp(const std::string &path, int32_t &type);
    Next moveByRename();
    Next moved();
    Next fixName();
    Next openSource();
    Next recogniseSameFile();
    Next tooLarge();
    Next openDestination();
    Next refuseDestination(bool wasOpened, int flags);
    Next fill();
    Next clone();
    Next freeSpace();
    Next data();
    void owner();
    void dosAttributes();
    void times();
    void acl();
    void store();

    Next fail(uint32_t code) {
        setError(code, m_call.source());
        return Next::failure;
    }
    // The code that `codes` has for errno; an errno without one: the line (which is made by then) and 0x8000.
    static bool has(const Codes &codes, int number) { return codes.count(number) != 0; }
    bool isRoot() const { return ::geteuid() == 0; }
    uid_t uid() const { return m_call.uid == 0 ? 1024 : m_call.uid; }
    gid_t gid() const { return m_call.gid == 0 ? 100 : m_call.gid; }

    const std::string m_src;
    std::string m_dst;
    FileCall &m_call;
    VLIBCStat m_srcStat = {};
    int m_srcFd = -1, m_dstFd = -1;
    bool m_existed = false, m_wasPipe = false, m_wasSpecial = false;
    bool m_ownerPending = false, m_removeSource = false;
};

std::string parentOf(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

Copy::Next Copy::lookUp(const std::string &path, int32_t &type) {
    const int32_t answer = VEXOGetFSType(path.c_str(), 0);
    if (answer >= 0) {
        type = answer;
        return Next::goOn;
    }
    const int number = errno;
    logLine(LOG_ERR, m_call.source(), "failed to statfs %s, reason=[(%d)%m]", path.c_str(), number);
    if (number == ENOENT || number == EIO || number == ENOTDIR) {
        setError(0x0600, m_call.source());
    } else if (number == EACCES) {
        setError(0x0300, m_call.source());
    }
    type = answer;
    return Next::failure;
}

Copy::Next Copy::moveByRename() {
    if (m_call.overwrite != 1 && ::access(m_dst.c_str(), F_OK) == 0) {
        if (m_call.overwrite == -1) {
            return fail(0xA300);
        }
        if (m_call.overwrite == 0) {
            return Next::success;
        }
    }
    if (::rename(m_src.c_str(), m_dst.c_str()) == 0) {
        return moved();
    }
    const int number = errno;
    if (number == EXDEV) {
        return Next::goOn;
    }
    static const Codes kCodes = {{EISDIR, 0xA200}, {EPERM, 0x0300},        {EACCES, 0x0300}, {EROFS, 0x0300},
                                 {ENOENT, 0x0700}, {ENAMETOOLONG, 0xC300}, {ENOSPC, 0x2900}, {EIO, 0x6C00},
                                 {ENXIO, 0x6C00},  {EHOSTDOWN, 0x1100}};
    if (has(kCodes, number)) {
        return fail(kCodes.at(number));
    }
    logLine(LOG_ERR, m_call.source(), "rename [%s] to [%s] fail (%d)%m", m_src.c_str(), m_dst.c_str(), number);
    return fail(0x8000);
}

Copy::Next Copy::moved() {
    struct stat status = {};
    if (::stat(m_dst.c_str(), &status) != 0) {
        const int number = errno;
        logLine(LOG_ERR, m_call.source(), "failed to get size of [%s], reason=[(%d)%m]", m_dst.c_str(), number);
        if (number == EIO || number == ENXIO) {
            setError(0x6C00, m_call.source());
        } else if (number == EHOSTDOWN) {
            setError(0x1100, m_call.source());
        }
        return Next::failure;
    }
    const int32_t type = *m_call.srcType;
    if (type != 0 && type != 12 && type != 18 && m_call.ownerMode == 0 && (isRoot() || m_call.asCaller) &&
        ::chown(m_dst.c_str(), uid(), gid()) != 0) {
        logLine(LOG_ERR, m_call.source(), "failed to chown destination to uid=%u, gid=%u, errno=%d/%m", uid(), gid(),
                errno);
        m_ownerPending = m_call.asCaller;
    }
    if (m_call.progress) {
        m_call.progress(status.st_size, 0);
    }
    if (m_call.carriesStore) {
        VEXOEARename(m_src.c_str(), m_dst.c_str(), type, 0);
    }
    return Next::success;
}

Copy::Next Copy::fixName() {
    const int32_t type = *m_call.dstType;
    if (type != 0 && type != 18) {
        return Next::goOn;
    }
    const std::string reserved = "\"*/:<>?\\|\n\r";
    for (size_t at = m_dst.rfind('/') + 1; at < m_dst.size(); ++at) {
        if (reserved.find(m_dst[at]) != std::string::npos) {
            m_dst[at] = '-';
        }
    }
    return Next::goOn;
}

Copy::Next Copy::openSource() {
    errno = 0;
    m_srcFd = ::open(m_src.c_str(), O_RDONLY | O_NONBLOCK, 0644);
    if (m_srcFd < 0) {
        setError(0x0900, "copy/copy_open_and_check_is_regular.c");
    } else if (VLIBCFileFStat(m_srcFd, 11, &m_srcStat, 0) != 0) {
        logLine(LOG_ERR, "copy/copy_open_and_check_is_regular.c", "stat src: [%s] [(%d)%m]", m_src.c_str(), errno);
    } else if (S_ISREG(m_srcStat.st.st_mode)) {
        return Next::goOn;
    }
    const int number = errno;
    static const Codes kCodes = {{EIO, 0x6C00}, {ENXIO, 0x6C00}, {EHOSTDOWN, 0x1100}, {EACCES, 0x0300}};
    if (has(kCodes, number)) {
        return fail(kCodes.at(number));
    }
    logLine(LOG_ERR, m_call.source(), "failed to check [%s] [(%d)%m]", m_src.c_str(), number);
    return fail(0x8000);
}

Copy::Next Copy::recogniseSameFile() {
    struct stat status = {};
    if (::stat(m_dst.c_str(), &status) != 0) {
        return Next::goOn;
    }
    m_existed = true;
    m_wasPipe = S_ISFIFO(status.st_mode);
    m_wasSpecial = !S_ISREG(status.st_mode);
    bool same = status.st_dev == m_srcStat.st.st_dev && status.st_ino == m_srcStat.st.st_ino;
    if (*m_call.dstType == 12) {
        std::array<char, PATH_MAX> one{};
        std::array<char, PATH_MAX> other{};
        same = ::realpath(m_src.c_str(), one.data()) != nullptr && ::realpath(m_dst.c_str(), other.data()) != nullptr &&
               std::string(one.data()) == other.data();
    }
    return same ? Next::success : Next::goOn;
}

Copy::Next Copy::tooLarge() {
    const uint64_t fat = uint64_t{1} << 32;
    const bool isFat = *m_call.dstType == 0;
    const uint64_t limit = m_call.sizeLimit != 0 ? m_call.sizeLimit : isFat ? fat : 0;
    if (limit == 0 || static_cast<uint64_t>(m_srcStat.st.st_size) <= limit) {
        return Next::goOn;
    }
    setError(isFat ? 0xA400 : 0xAA00, "copy/copy_is_file_size_too_large.c");
    return Next::failure;
}

Copy::Next Copy::openDestination() {
    const int flags = O_WRONLY | O_CREAT | (m_call.overwrite == 1 ? O_TRUNC : O_EXCL);
    for (bool second = false;; second = true) {
        setError(0, m_call.source());
        errno = 0;
        m_dstFd = ::open(m_dst.c_str(), flags | O_NONBLOCK, m_srcStat.st.st_mode);
        struct stat status = {};
        const bool opened = m_dstFd >= 0;
        if (!opened) {
            setError(0x0900, "copy/copy_open_and_check_is_regular.c");
        } else if (::fstat(m_dstFd, &status) != 0) {
            logLine(LOG_ERR, "copy/copy_open_and_check_is_regular.c", "stat src: [%s] [(%d)%m]", m_dst.c_str(), errno);
        } else if (S_ISREG(status.st_mode)) {
            return Next::goOn;
        }
        if (errno != EEXIST) {
            return refuseDestination(opened, flags);
        }
        if (!m_call.rename) {
            return m_call.overwrite == -1 ? fail(0xA300) : Next::success;
        }
        std::array<char, 4096> name{};
        if (second || m_call.rename(m_dst.c_str(), name.data(), 4096) != 0) {
            return fail(0x0800);
        }
        m_dst = name.data();
        m_existed = m_wasPipe = m_wasSpecial = false;
    }
}

Copy::Next Copy::refuseDestination(bool wasOpened, int flags) {
    const int number = errno;
    // What this call has made is removed on every failure.
    if (wasOpened && ((flags & O_EXCL) != 0 || !m_wasSpecial) && ::remove(m_dst.c_str()) != 0) {
        logLine(LOG_ERR, m_call.source(), "remove dst: [%s] error(%d)%m", m_dst.c_str(), errno);
    }
    errno = number;
    static const Codes kCodes = {{EISDIR, 0xA200}, {EIO, 0x6C00},       {ENXIO, 0x6C00},       {EPERM, 0x0300},
                                 {EACCES, 0x0300}, {EINVAL, 0x0300},    {EROFS, 0x8400},       {ENOSPC, 0x2900},
                                 {EDQUOT, 0x2400}, {EHOSTDOWN, 0x1100}, {ENAMETOOLONG, 0xC300}};
    const bool pipe = number == ENXIO && m_wasPipe;
    if (has(kCodes, number) && !pipe) {
        return fail(kCodes.at(number));
    }
    if (wasOpened || pipe) {
        setError(0x8000, m_call.source());
    }
    logLine(LOG_ERR, m_call.source(), "[0x%04X %s:%d] open dst: [%s] is not a regular file [(%d)%m]", VLIBCErrGet(),
            VLIBCErrorGetFile(), 1, m_dst.c_str(), number);
    return Next::failure;
}

Copy::Next Copy::clone() {
    if (*m_call.srcType != 3 || *m_call.dstType != 3 || (!m_call.clone && !m_call.move)) {
        return Next::goOn;
    }
    if (::ioctl(m_dstFd, 0x40049409, m_srcFd) == 0) {
        return Next::success;
    }
    return errno == ENOSPC ? fail(0x2900) : errno == EDQUOT ? fail(0x2400) : Next::goOn;
}

Copy::Next Copy::freeSpace() {
    const int64_t size = m_srcStat.st.st_size;
    if (*m_call.dstType == 12 || size <= 134'217'728) {
        return Next::goOn;
    }
    struct statfs volume = {};
    if (::fstatfs(m_dstFd, &volume) != 0) {
        logLine(LOG_ERR, m_call.source(), "fstatfs failed. errno=%d/%m", errno);
        return Next::failure;
    }
    const auto free = static_cast<uint64_t>(volume.f_bavail) * static_cast<uint64_t>(volume.f_bsize);
    return free < static_cast<uint64_t>(size) ? fail(0x2900) : Next::goOn;
}

Copy::Next Copy::data() {
    const int64_t size = m_srcStat.st.st_size;
    if (m_call.readWriteData) {
        return m_call.readWriteData(m_src.c_str(), m_dst.c_str(), &m_srcFd, &m_dstFd, size) < 0 ? Next::failure
                                                                                                : Next::goOn;
    }
    const LoopCallbacks callbacks = {m_call.loopProgress, m_call.loopIsCancel, m_call.getReadSize};
    return copyDescriptor(m_srcFd, m_dstFd, size, callbacks, m_call.loopSource()) < 0 ? Next::failure : Next::goOn;
}

void Copy::owner() {
    if (*m_call.dstType == 0 || *m_call.dstType == 12) {
        return;
    }
    const bool keeps = m_call.ownerMode == 1;
    if (!keeps && !isRoot() && !m_call.asCaller) {
        return;
    }
    const uid_t user = keeps ? m_srcStat.st.st_uid : uid();
    const gid_t group = keeps ? m_srcStat.st.st_gid : gid();
    if (::fchown(m_dstFd, user, group) == 0) {
        // A new file has exactly the source's mode; the change of hands takes two of its bits.
        const mode_t mode = m_srcStat.st.st_mode & 07777;
        if (keeps && !m_existed && (mode & 06000) != 0 && ::fchmod(m_dstFd, mode) != 0) {
            logLine(LOG_ERR, m_call.source(), "failed to fchmod destination to mode=%04o, errno=%d/%m", mode, errno);
        }
        return;
    }
    m_ownerPending = m_call.asCaller;
    if (!keeps || errno != EPERM) {
        logLine(LOG_ERR, m_call.source(), "failed to fchown destination to uid=%u, gid=%u, errno=%d/%m", user, group,
                errno);
    }
}

void Copy::dosAttributes() {
    struct Bit {
        uint32_t bit;
        int command;
        const char *name;
    };
    for (const Bit one : {Bit{2, 0x202, "ARCHIVE"}, Bit{4, 0x203, "HIDDEN"}, Bit{8, 0x204, "SYSTEM"}}) {
        if ((m_srcStat.attributes & one.bit) != 0 && VLIBCKernelAttrFcntl(m_dstFd, one.command) != 0) {
            logLine(LOG_DEBUG, m_call.source(), "F_SETSMB_%s(%s): (errno:%d %m)", one.name, m_dst.c_str(), errno);
        }
    }
}

void Copy::times() {
    const uid_t before = ::geteuid();
    const bool switches = !m_call.asCaller && before != 0;
    if (switches && ::seteuid(0) != 0) {
        logLine(LOG_DEBUG, m_call.source(), "Failed to seteuid to %d(errno:%d %m)", 0, errno);
    }
    const timespec times[] = {m_srcStat.st.st_atim, m_srcStat.st.st_mtim, m_srcStat.createTime};
    if (VLIBCFileUTime(m_dst.c_str(), 3, times) != 0 && errno != EOPNOTSUPP) {
        logLine(LOG_ERR, m_call.source(), "VLIBCFileUTime(%s) (errno:%d %m)", m_dst.c_str(), errno);
    }
    if (switches && ::geteuid() != before && ::seteuid(before) != 0) {
        logLine(LOG_DEBUG, m_call.source(), "Failed to seteuid %d(errno:%d %m)", static_cast<int>(before), errno);
    }
}

void Copy::acl() {
    if (m_call.copyAcl &&
        (VEXOACLCopy(m_src.c_str(), m_dst.c_str()) != 0 || VEXOACLArchiveCopy(m_src.c_str(), m_dst.c_str()) != 0)) {
        logLine(LOG_ERR, m_call.source(), "Failed to copy ACL from [%s] to [%s]", m_src.c_str(), m_dst.c_str());
    }
}

// Only who may write a file sets its attributes: the owner of a read-only one may while its store is carried.
void Copy::store() {
    const auto carry = [&] {
        VEXOEACopyInternal(m_src.c_str(), m_dst.c_str(), m_call.eaMove, m_call.eaFlags, *m_call.srcType,
                           *m_call.dstType, m_call.ex, m_call.thr, m_call.args);
    };
    struct stat status = {};
    if (isRoot() || (m_srcStat.st.st_mode & 0200) != 0 || ::stat(m_dst.c_str(), &status) != 0 ||
        !S_ISREG(status.st_mode) || (status.st_mode & 0200) != 0) {
        carry();
        return;
    }
    const mode_t mode = status.st_mode & 07777;
    const bool changed = ::chmod(m_dst.c_str(), mode | 0200) == 0;
    carry();
    if (changed && ::stat(m_dst.c_str(), &status) == 0 && (status.st_mode & 07777) == (mode | 0200)) {
        ::chmod(m_dst.c_str(), mode);
    }
}

// From the open destination to its close. A failure leaves no destination; a cancelled copy is then a success.
Copy::Next Copy::fill() {
    Next next = clone();
    if (next == Next::goOn) {
        next = freeSpace();
        if (next == Next::goOn) {
            next = data();
        }
    }
    if (next != Next::failure) {
        owner();
        dosAttributes();
        return Next::goOn;
    }
    const uint32_t code = VLIBCErrGet();
    const std::string file = VLIBCErrorGetFile();
    const bool cancelled = m_call.isCancel && m_call.isCancel() != 0;
    if (::remove(m_dst.c_str()) != 0) {
        logLine(LOG_ERR, m_call.source(), "remove dst: [%s] error(%d)%m", m_dst.c_str(), errno);
    }
    setError(code, file);
    return cancelled ? Next::success : Next::failure;
}

Copy::Next Copy::perform() {
    if (*m_call.srcType == -1) {
        int32_t type = -1;
        if (lookUp(m_src, type) == Next::failure) {
            return Next::failure; // what was looked up in vain is not kept
        }
        *m_call.srcType = type;
    }
    if (m_call.move) {
        if (const Next next = moveByRename(); next != Next::goOn) {
            return next;
        }
    }
    if (*m_call.dstType == -1 && lookUp(parentOf(m_dst), *m_call.dstType) == Next::failure) {
        return Next::failure;
    }
    for (const auto step : {&Copy::fixName, &Copy::openSource, &Copy::recogniseSameFile, &Copy::tooLarge,
                            &Copy::openDestination, &Copy::fill}) {
        if (const Next next = (this->*step)(); next != Next::goOn) {
            return next;
        }
    }
    if (m_dstFd >= 0) {
        ::close(m_dstFd);
        m_dstFd = -1;
    }
    times();
    acl();
    if (m_call.carriesStore) {
        store();
    }
    m_removeSource = m_call.move;
    return Next::success;
}

int Copy::run() {
    const Next end = perform();
    if (end == Next::failure && m_call.errReport) {
        m_call.errReport(m_src.c_str(), VLIBCErrGet());
    }
    for (const int fd : {m_srcFd, m_dstFd}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    if (m_removeSource && !(m_call.keepSource && m_call.keepSource() != 0) && ::unlink(m_src.c_str()) != 0) {
        logLine(LOG_ERR, m_call.source(), "failed to remove source [%s], reason=[(%d)%m]", m_src.c_str(), errno);
    }
    if (end == Next::failure) {
        return -1;
    }
    if (m_ownerPending) {
        setError(0xFA00, m_call.source());
        return -1;
    }
    return 0;
}

} // namespace

int copyFile(const std::string &src, const std::string &dst, FileCall &call) {
    return Copy(src, dst, call).run();
}

void afterSteps(const std::string &src, const std::string &dst, bool cleanArchive, bool enforceInherit,
                const std::string &source) {
    if (cleanArchive) {
        const std::string door = "backup/backup_clean_file_archive_bit.c";
        const int fd = ::open(src.c_str(), O_RDONLY | O_NONBLOCK);
        if (fd < 0) {
            logLine(LOG_ERR, door, "open() failed!! szFile=[%s], errno=[%d/%m]", src.c_str(), errno);
            setError(0x0900, door);
        } else {
            if (VLIBCKernelAttrFcntl(fd, 0x201) != 0) {
                logLine(LOG_DEBUG, door, "fcntl() failed");
            }
            ::close(fd);
        }
    }
    if (enforceInherit && VEXOACLEnforceInherit(dst.c_str()) != 0) {
        logLine(LOG_ERR, source, "Failed to enforce ACL inheritance into [%s]", dst.c_str());
    }
}

} // namespace model
