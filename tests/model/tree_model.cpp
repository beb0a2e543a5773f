#include "tests/model/tree_model.h"

#include "backup/backup.h"
#include "ea/ea.h"
#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tests/model/harness.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

namespace model {
namespace {

class Tree {
  public:
    explicit Tree(const TreeCall &call) : m_call(call) {}
    int level(const std::string &src, std::string dst, bool top);

  private:
    enum class After { next, leave };

    int renamed(const std::string &src, const std::string &dst);
    int renameFailed(const std::string &src, const std::string &dst, int number);
    int make(const std::string &src, const std::string &dst, const struct stat &source, bool &made, bool &keep);
    bool walk(DIR *directory, const std::string &src, const std::string &dst, int &last, bool &cancelled);
    After entry(const dirent &found, const std::string &src, const std::string &dst, int &last);
    int link(const std::string &src, const std::string &dst);
    int finish(DIR *directory, const std::string &src, const std::string &dst, const VLIBCStat &before, bool made,
               int &last);
    void metadata(int fd, const std::string &src, const std::string &dst, const VLIBCStat &before, const VLIBCStat &now,
                  bool made);
    void cleanUp(DIR *directory, const std::string &src, bool cancelled);

    int fail(uint32_t code) const {
        setError(code, m_call.source());
        return -1;
    }
    int failed(uint32_t code, const std::string &reported) const {
        const int number = errno;
        setError(code, m_call.source());
        if (m_call.fileOperation && m_call.args->errReport != nullptr) {
            m_call.args->errReport(m_call.args->errReportArg, reported.c_str(), code);
        } else if (!m_call.fileOperation && m_call.opt != nullptr && m_call.opt->errReport != nullptr) {
            m_call.opt->errReport(reported.c_str(), code);
        }
        errno = number;
        return -1;
    }
    bool cancelled() const {
        if (m_call.fileOperation) {
            return m_call.args->isCancel != nullptr && m_call.args->isCancel(m_call.args->isCancelArg) != 0;
        }
        return m_call.opt != nullptr && m_call.opt->isCancel != nullptr && m_call.opt->isCancel() != 0;
    }
    std::string nameAtDestination(const std::string &name) const {
        std::array<char, 4096> text{};
        int result = -1;
        if (m_call.fileOperation && m_call.args->getDstFileName != nullptr) {
            result = m_call.args->getDstFileName(m_call.args->getDstFileNameArg, name.c_str(), text.data(), 4096);
        } else if (!m_call.fileOperation && m_call.ex != nullptr && m_call.ex->getDstFileName != nullptr) {
            result = m_call.ex->getDstFileName(name.c_str(), m_call.ex->srcCodePage, m_call.ex->destCodePage,
                                               text.data(), 4096);
        }
        return result >= 0 ? text.data() : name;
    }
    int file(const std::string &src, const std::string &dst) const {
        const char *const one = src.c_str();
        const char *const other = dst.c_str();
        if (m_call.fileOperation) {
            return m_call.args->copyFile != nullptr
                       ? m_call.args->copyFile(m_call.args->copyFileArg, one, other, m_call.flags, m_call.args)
                       : VEXOFileOpCopyFile(one, other, m_call.flags, m_call.args);
        }
        if (m_call.ex != nullptr && m_call.ex->copyFile != nullptr) {
            return m_call.ex->copyFile(one, other, m_call.opt, -1, m_call.dstKind, 0, m_call.ex);
        }
        return m_call.clone ? VEXOFileReflinkCopy(one, other, m_call.opt, m_call.ex)
                            : VEXOCopyFileExI(one, other, m_call.opt, -1, m_call.dstKind, 0, m_call.ex);
    }
    void log(int priority, const std::string &text) const { logLine(priority, m_call.source(), "%s", text.c_str()); }

    const TreeCall &m_call;
    bool m_ended = false; // a link that the destination cannot hold
    std::optional<struct stat> m_top;
};

std::string reason(int number) {
    return "reason=[(" + std::to_string(number) + ")" + std::strerror(number) + "]";
}
bool carried(const char *name) {
    return std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 && VEXOEAIsHiddenDir(name) == 0 &&
           std::strncmp(name, "._", 2) != 0;
}
bool isOneOf(int kind, std::initializer_list<int> kinds) {
    return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}
// What cannot be opened or looked at; 0: another errno.
uint32_t sourceCode(int number) {
    switch (number) {
    case EACCES:
        return 0x0300;
    case ENOENT:
        return 0x0700;
    case EIO:
    case ENXIO:
        return 0x6C00;
    case EHOSTDOWN:
        return 0x1100;
    default:
        return 0;
    }
}

int Tree::renameFailed(const std::string &src, const std::string &dst, int number) {
    const uint32_t code = number == EPERM || number == EROFS ? 0x0300 : sourceCode(number);
    if (code != 0 && code != 0x1100) {
        fail(code);
        log(LOG_ERR, "rename fail from(" + src + ") to(" + dst + ") " + reason(number).replace(6, 1, ""));
        return -1;
    }
    fail(code == 0 ? 0x8000 : code);
    log(LOG_ERR, "rename [" + src + "] to [" + dst + "] fail " + reason(number).replace(6, 1, ""));
    return -1;
}

int Tree::renamed(const std::string &src, const std::string &dst) {
    struct stat status;
    if (::stat(dst.c_str(), &status) != 0) {
        const int number = errno;
        if (number == EIO || number == ENXIO || number == EHOSTDOWN) {
            fail(number == EHOSTDOWN ? 0x1100 : 0x6C00);
        }
        log(LOG_ERR, "failed to get size of [" + dst + "], " + reason(number));
        return -1;
    }
    const bool sizeAsked = m_call.fileOperation ? m_call.args->getDirSize != nullptr
                                                : m_call.ex != nullptr && m_call.ex->getDirSize != nullptr;
    const auto size = [&]() -> int64_t {
        if (!sizeAsked) {
            return VLIBGetFullDirSize(dst.c_str());
        }
        return m_call.fileOperation ? m_call.args->getDirSize(m_call.args->getDirSizeArg, src.c_str(), dst.c_str())
                                    : m_call.ex->getDirSize(src.c_str(), dst.c_str());
    };
    if (m_call.fileOperation && m_call.args->progress != nullptr) {
        m_call.args->progress(m_call.args->progressArg, size(), 0);
    } else if (!m_call.fileOperation && m_call.opt != nullptr && m_call.opt->progress != nullptr) {
        m_call.opt->progress(size(), 0);
    }
    if (!m_call.fileOperation || (m_call.flags & 0x100) == 0) {
        VEXOEARename(src.c_str(), dst.c_str(), m_call.srcKind, 0);
    }
    return 0;
}

int Tree::make(const std::string &src, const std::string &dst, const struct stat &source, bool &made, bool &keep) {
    if (::mkdir(dst.c_str(), source.st_mode & 07777) == 0) {
        made = true;
        return 0;
    }
    const int number = errno;
    if (number == EEXIST) {
        struct stat status;
        const int looked = ::stat(dst.c_str(), &status);
        if (looked == 0 && S_ISDIR(status.st_mode)) {
            std::array<char, 4096> one{};
            std::array<char, 4096> other{};
            const bool itself = m_call.srcKind != 12 ? status.st_dev == source.st_dev && status.st_ino == source.st_ino
                                                     : ::realpath(src.c_str(), one.data()) != nullptr &&
                                                           ::realpath(dst.c_str(), other.data()) != nullptr &&
                                                           std::strcmp(one.data(), other.data()) == 0;
            keep = !m_call.replaces() || itself;
            return 0;
        }
        if (looked != 0 && errno != ENOENT && errno != EACCES) {
            log(LOG_ERR, "failed to stat destination path = " + dst + ", " + reason(errno));
        }
        return failed(0xA000, dst);
    }
    switch (number) {
    case EPERM:
    case EACCES:
        return failed(0x0300, dst);
    case ENOENT:
        return failed(0x0600, dst);
    case EIO:
    case ENXIO:
        return failed(0x6C00, dst);
    case ENAMETOOLONG:
        return failed(0xC300, dst);
    case ENOSPC:
        return failed(0x2900, dst);
    case EROFS:
        return failed(0x8400, dst);
    case EHOSTDOWN:
        return failed(0x1100, dst);
    case EDQUOT:
        return failed(0x2400, dst);
    default:
        log(LOG_ERR, "failed to mkdir path = " + dst + ", reason=[(" + std::to_string(number) + ")/" +
                         std::strerror(number) + "]");
        return failed(0x8000, dst);
    }
}

int Tree::link(const std::string &src, const std::string &dst) {
    if (!isOneOf(m_call.dstKind, {1, 2, 3, 5, 6, 7})) {
        log(LOG_ERR, "File system of Destination not support copy Symbolic link");
        m_ended = true;
        return -1;
    }
    std::array<char, 4096> target{};
    if (::readlink(src.c_str(), target.data(), 4095) < 0) {
        log(LOG_ERR, "readlink " + src + " get error. " + reason(errno));
        return -1;
    }
    if (::symlink(target.data(), dst.c_str()) != 0) {
        log(LOG_ERR, "Failed to create a symbolic link " + dst + " -> " + target.data() + ". " + reason(errno));
        return -1;
    }
    if (m_call.move() && ::unlink(src.c_str()) != 0) {
        log(LOG_ERR, "Failed to remove source link " + src);
    }
    return 0;
}

Tree::After Tree::entry(const dirent &found, const std::string &src, const std::string &dst, int &last) {
    const std::string name = nameAtDestination(found.d_name);
    const std::string from = src + "/" + found.d_name;
    const std::string to = dst + "/" + name;
    mode_t type = static_cast<mode_t>(DTTOIF(found.d_type));
    last = -1;
    if (found.d_type == DT_UNKNOWN) {
        VLIBCStat status;
        if (VLIBCFileLStat(from.c_str(), VLIBC_STAT_BASIC, &status) != 0) {
            if (!m_call.stops()) {
                return After::next;
            }
            const int number = errno;
            if (sourceCode(number) == 0) {
                log(LOG_ERR, "failed to stat source path = " + from + ", " + reason(number));
            }
            fail(sourceCode(number) == 0 ? 0x8000 : sourceCode(number));
            return After::leave;
        }
        type = status.st.st_mode & S_IFMT;
    }
    struct stat status;
    switch (type) {
    case S_IFREG:
        last = file(from, to);
        break;
    case S_IFLNK:
        last = link(from, to);
        if (last < 0) {
            return After::leave;
        }
        break;
    case S_IFDIR:
        if (m_top && ::stat(from.c_str(), &status) == 0 && status.st_dev == m_top->st_dev &&
            status.st_ino == m_top->st_ino) {
            return After::next; // the copy
        }
        last = level(from, to, false);
        break;
    default:
        return After::next;
    }
    if (m_ended) {
        return After::leave;
    }
    if (last >= 0) {
        if (m_call.cleans() && VEXOBackupCleanDirArchiveBit(src.c_str()) != 0) {
            std::array<char, 8> code{};
            std::snprintf(code.data(), code.size(), "%04X", VLIBCErrGet());
            log(LOG_ERR,
                "VEXOBackupCleanDirArchiveBit() failed!! szDir=[" + src + "], vexoerr=[0x" + code.data() + "]");
        }
        return After::next;
    }
    return m_call.stops() && VLIBCErrGet() != 0x0600 ? After::leave : After::next;
}

// false: the level ends here, with the last entry's result.
bool Tree::walk(DIR *directory, const std::string &src, const std::string &dst, int &last, bool &stopped) {
    for (;;) {
        errno = 0;
        const dirent *found = ::readdir(directory);
        if (found == nullptr && errno == 0) {
            return true;
        }
        if (found == nullptr) {
            const int number = errno;
            log(LOG_ERR, "failed to readdir: source dir name = " + src + ", " + reason(number));
            last = failed(sourceCode(number) == 0 ? 0x8000 : sourceCode(number), src);
            return false;
        }
        if (!carried(found->d_name)) {
            continue;
        }
        if (cancelled()) {
            stopped = true;
            return true;
        }
        if (entry(*found, src, dst, last) == After::leave) {
            return false;
        }
    }
}

void Tree::metadata(int fd, const std::string &src, const std::string &dst, const VLIBCStat &before,
                    const VLIBCStat &now, bool made) {
    static const struct {
        uint32_t bit;
        int request;
        const char *name;
    } kBits[] = {{2, 0x202, "F_SETSMB_ARCHIVE"}, {4, 0x203, "F_SETSMB_HIDDEN"}, {8, 0x204, "F_SETSMB_SYSTEM"}};
    for (const auto &one : kBits) {
        if ((now.attributes & one.bit) != 0 && VLIBCKernelAttrFcntl(fd, one.request) < 0) {
            log(LOG_DEBUG, std::string(one.name) + "(" + dst + "): (errno:" + std::to_string(errno) + " " +
                               std::strerror(errno) + ")");
        }
    }
    if (m_call.copiesAcl() &&
        (VEXOACLCopy(src.c_str(), dst.c_str()) < 0 || VEXOACLArchiveCopy(src.c_str(), dst.c_str()) < 0)) {
        log(LOG_ERR, "Failed to copy ACL from [" + src + "] to [" + dst + "]");
    }
    if (m_call.fileOperation) {
        if ((m_call.flags & 0x100) == 0) {
            VEXOEACopyInternal(src.c_str(), dst.c_str(), m_call.move() ? 1 : 0, (m_call.flags & 0x200) != 0 ? 1 : 0,
                               m_call.srcKind, m_call.dstKind, nullptr, nullptr, m_call.args);
        }
    } else {
        const VEXOCopyOpt *opt = m_call.opt;
        VEXOEACopyEx(src.c_str(), dst.c_str(), opt == nullptr ? 0 : static_cast<int>(opt->move),
                     opt == nullptr ? 0 : static_cast<int>(opt->eaFlags), m_call.srcKind, m_call.dstKind, 0,
                     opt == nullptr || opt->eaCopy != 1 ? 1 : 0, m_call.ex == nullptr ? nullptr : m_call.ex->copyEA);
    }
    if (!isOneOf(m_call.dstKind, {0, 12, 18}) && (m_call.keepsOwner() || ::geteuid() == 0)) {
        const uid_t uid = m_call.keepsOwner() ? now.st.st_uid : m_call.uid() == 0 ? 1024 : m_call.uid();
        const gid_t gid = m_call.keepsOwner() ? now.st.st_gid : m_call.gid() == 0 ? 100 : m_call.gid();
        const mode_t bits = before.st.st_mode & 06000;
        struct stat there;
        if (::fchown(fd, uid, gid) != 0) {
            log(LOG_ERR, "failed to fchown destination to uid=" + std::to_string(uid) + ", gid=" + std::to_string(gid) +
                             ", errno=" + std::to_string(errno) + "/" + std::strerror(errno));
        } else if (made && bits != 0 && ::fstat(fd, &there) == 0 && ::fchmod(fd, (there.st_mode & 07777) | bits) != 0) {
            std::array<char, 8> mode{};
            std::snprintf(mode.data(), mode.size(), "%04o", (there.st_mode & 07777) | bits);
            log(LOG_ERR, std::string("failed to fchmod destination to mode=") + mode.data() +
                             ", errno=" + std::to_string(errno) + "/" + std::strerror(errno));
        }
    }
    const timespec times[] = {before.st.st_atim, before.st.st_mtim, before.createTime};
    if (VLIBCFileUTime(dst.c_str(), 3, times) != 0 && errno != EOPNOTSUPP) {
        log(LOG_ERR, "VLIBCFileUTime(" + dst + ") (errno:" + std::to_string(errno) + " " + std::strerror(errno) + ")");
    }
}

int Tree::finish(DIR *directory, const std::string &src, const std::string &dst, const VLIBCStat &before, bool made,
                 int &last) {
    VLIBCStat now;
    if (VLIBCFileFStat(::dirfd(directory), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &now, 0) != 0) {
        const int number = errno;
        log(LOG_ERR, "failed to stat source path = " + dst + ", " + reason(number));
        return fail(number == EACCES ? 0x0300 : number == ENOENT ? 0x0700 : 0x2700);
    }
    DIR *const destination = ::opendir(dst.c_str());
    if (destination == nullptr) {
        const int number = errno;
        const uint32_t code = number == ENOENT ? 0x0600 : sourceCode(number);
        if (code != 0) {
            return fail(code);
        }
        log(LOG_ERR, "failed to open dest path = " + dst + ", " + reason(number));
        fail(0x8000);
        if (number == EMFILE || number == ENFILE) {
            last = failed(0x8000, dst);
        }
        return -1;
    }
    metadata(::dirfd(destination), src, dst, before, now, made);
    ::closedir(destination);
    return 0;
}

void Tree::cleanUp(DIR *directory, const std::string &src, bool stopped) {
    if (m_call.srcKind != 12 && !stopped) {
        bool empty = true;
        ::rewinddir(directory);
        errno = 0;
        while (const dirent *found = ::readdir(directory)) {
            empty = empty && !carried(found->d_name);
            if (!empty) {
                break;
            }
            errno = 0;
        }
        if (empty && errno == 0) { // the store of what stayed behind stays too
            VLIBCExec("/bin/rm", "-rf", (src + "/@eaDir").c_str(), nullptr);
        }
    }
    if (std::remove(src.c_str()) != 0 && errno != ENOENT && errno != EBUSY) {
        log(LOG_ERR, "failed to remove(" + src + "), " + reason(errno));
    }
}

int Tree::level(const std::string &src, std::string dst, bool top) {
    if (m_call.move()) {
        if (::rename(src.c_str(), dst.c_str()) == 0) {
            return renamed(src, dst);
        }
        if (errno != EBUSY && errno != EEXIST && errno != EXDEV && errno != ENOTEMPTY) {
            return renameFailed(src, dst, errno);
        }
    }
    DIR *directory = nullptr;
    if (top) {
        directory = ::opendir(src.c_str());
    } else if (const int fd = ::open(src.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
               fd >= 0) {
        directory = ::fdopendir(fd);
    }
    if (directory == nullptr) {
        const int number = errno;
        if (sourceCode(number) == 0) {
            log(LOG_ERR, "failed to opendir: source dir name = " + src + ", " + reason(number));
        }
        return failed(sourceCode(number) == 0 ? 0x8000 : sourceCode(number), src);
    }
    int result = -1;
    VLIBCStat before;
    std::array<char, 4096> fixed{};
    bool made = false;
    bool keep = false;
    bool stopped = false;
    if (isOneOf(m_call.dstKind, {0, 18})) {
        if (VEXOStrReplaceFATReservedChar(dst.c_str(), fixed.data(), 4096) < 0) {
            ::closedir(directory);
            return fail(0x8000);
        }
        dst = fixed.data();
    }
    if (VLIBCFileStat(src.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &before) != 0) {
        const int number = errno;
        std::array<char, 16> code{};
        std::snprintf(code.data(), code.size(), "%x", VLIBCErrGet());
        log(LOG_ERR, "VLIBCFileStat: (" + src + "), " + std::strerror(number) + ", vexoerr=" + code.data() + ".");
        fail(sourceCode(number) == 0 ? 0x2700 : sourceCode(number));
    } else if (make(src, dst, before.st, made, keep) == 0) {
        struct stat status;
        if (top && ::stat(dst.c_str(), &status) == 0) {
            m_top = status;
        }
        int last = 0;
        if (!walk(directory, src, dst, last, stopped)) {
            result = last;
        } else {
            const bool finished = stopped || finish(directory, src, dst, before, made, last) == 0;
            if (m_call.move() && last == 0 && !keep) {
                cleanUp(directory, src, stopped);
            }
            result = finished ? 0 : last;
        }
    }
    ::closedir(directory);
    return result;
}

void trimSlashes(std::string &path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
}
bool hasName(const std::string &path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return !name.empty() && name != "." && name != "..";
}

} // namespace

int copyTree(std::string src, std::string dst, const TreeCall &call) {
    trimSlashes(src);
    trimSlashes(dst);
    while (!call.move() && src.ends_with("/.")) {
        src.resize(src.size() - 2);
        trimSlashes(src);
    }
    if (!hasName(dst) || (call.move() && !hasName(src))) {
        setError(0x0D00, call.source());
        return -1;
    }
    return Tree(call).level(src, dst, true);
}

} // namespace model
