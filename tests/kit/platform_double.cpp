#include "tests/kit/platform_double.h"

#include "platform/acl.h"
#include "tests/kit/faults.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

namespace kit {
namespace {

struct ShareRow {
    std::string name;
    uint32_t status;
    bool encrypted;
};

struct HomeRow {
    std::string user;
    std::string home;
};

struct Tables {
    std::map<std::string, std::pair<int, int>> types;
    std::map<std::string, ShareRow> shares;
    std::map<std::string, HomeRow> homes;
    std::map<std::string, std::string> mounts;
    std::map<std::string, int> compression;
    std::map<std::string, int> nodatacow;
};

Tables &tables() {
    static auto *instance = new Tables;
    return *instance;
}

// The row whose path is `path` or the longest directory above it.
template <typename Row>
const std::pair<const std::string, Row> *longestPrefix(const std::map<std::string, Row> &rows, const char *text) {
    const FaultsOff quiet;
    const std::pair<const std::string, Row> *best = nullptr;
    if (text == nullptr) {
        return nullptr;
    }
    const std::string path = text;
    for (const auto &row : rows) {
        const bool under =
            path.compare(0, row.first.size(), row.first) == 0 &&
            (path.size() == row.first.size() || path[row.first.size()] == '/' || row.first.back() == '/');
        if (under && (best == nullptr || row.first.size() > best->first.size())) {
            best = &row;
        }
    }
    return best;
}

template <typename Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

void put(char *out, int size, const std::string &text) {
    std::snprintf(out, static_cast<size_t>(size), "%s", text.c_str());
}

} // namespace

void PlatformDouble::setType(const std::string &path, int code, int error) {
    tables().types[path] = {code, error};
}
void PlatformDouble::setShare(const std::string &path, const std::string &name, uint32_t status, bool encrypted) {
    tables().shares[path] = {name, status, encrypted};
}
void PlatformDouble::setHome(const std::string &path, const std::string &user, const std::string &home) {
    tables().homes[path] = {user, home};
}
void PlatformDouble::setMountPath(const std::string &path, const std::string &mountPath) {
    tables().mounts[path] = mountPath;
}
void PlatformDouble::setCompression(const std::string &path, int setting) {
    tables().compression[path] = setting;
}
void PlatformDouble::setNodatacow(const std::string &path, int setting) {
    tables().nodatacow[path] = setting;
}
void PlatformDouble::reset() {
    tables() = Tables();
}

} // namespace kit

using kit::askFaults;
using kit::FaultAnswer;
using kit::longestPrefix;
using kit::tables;

// A platform function that only fails on request.
#define KIT_PLATFORM(RESULT, NAME, PARAMETERS, ARGUMENTS, PATH, FD)                                                    \
    extern "C" RESULT NAME PARAMETERS {                                                                                \
        if (const FaultAnswer answer = askFaults(#NAME, PATH, FD); answer.decided) {                                   \
            return static_cast<RESULT>(answer.result);                                                                 \
        }                                                                                                              \
        static auto *const actual = kit::real<RESULT PARAMETERS>(#NAME);                                               \
        return actual ARGUMENTS;                                                                                       \
    }

KIT_PLATFORM(int, VLIBCFileGetKeyValue, (const char *file, const char *key, char *value, int size, int flags),
             (file, key, value, size, flags), file, -1)
KIT_PLATFORM(int, VLIBCFileSetKeyValue, (const char *file, const char *key, const char *value, const char *format),
             (file, key, value, format), file, -1)
KIT_PLATFORM(int, VLIBCFileStat, (const char *path, uint32_t fields, VLIBCStat *out), (path, fields, out), path, -1)
KIT_PLATFORM(int, VLIBCFileLStat, (const char *path, uint32_t fields, VLIBCStat *out), (path, fields, out), path, -1)
KIT_PLATFORM(int, VLIBCFileFStat, (int fd, uint32_t fields, VLIBCStat *out, int reserved), (fd, fields, out, reserved),
             nullptr, fd)
KIT_PLATFORM(int, VLIBCFileUTime, (const char *path, int count, const struct timespec *times), (path, count, times),
             path, -1)
KIT_PLATFORM(int, VLIBCFileCheckDir, (const char *path), (path), path, -1)
KIT_PLATFORM(int64_t, VLIBGetFullDirSize, (const char *path), (path), path, -1)
KIT_PLATFORM(int, VLIBCSzListPush, (VLIBCSzList * *list, const char *text), (list, text), text, -1)
KIT_PLATFORM(int, VLIBCKernelAttrFcntl, (int fd, int command), (fd, command), nullptr, fd)
KIT_PLATFORM(int, VLIBCKernelAttrCall, (const char *path, int command), (path, command), path, -1)
KIT_PLATFORM(int, VolumePathParseEx, (const char *path, char *volume, int volumeSize, char *rest, int restSize),
             (path, volume, volumeSize, rest, restSize), path, -1)
KIT_PLATFORM(int, VEXOShareIsShareRecycle, (const char *path), (path), path, -1)
KIT_PLATFORM(int, VEXOACLArchiveCopy, (const char *src, const char *dst), (src, dst), src, -1)
KIT_PLATFORM(int, VEXOACLCopy, (const char *src, const char *dst), (src, dst), src, -1)
KIT_PLATFORM(int, VEXOACLEnforceInherit, (const char *path), (path), path, -1)
KIT_PLATFORM(int, VEXOACLSetEADirACL, (const char *path), (path), path, -1)

#undef KIT_PLATFORM

// The functions of open files count as those of their paths.
#define KIT_PLATFORM_OF_FILE(NAME, COUNTED, PARAMETERS, ARGUMENTS, FD)                                                 \
    extern "C" int NAME PARAMETERS {                                                                                   \
        if (const FaultAnswer answer = askFaults(#COUNTED, nullptr, FD); answer.decided) {                             \
            return static_cast<int>(answer.result);                                                                    \
        }                                                                                                              \
        static auto *const actual = kit::real<int PARAMETERS>(#NAME);                                                  \
        return actual ARGUMENTS;                                                                                       \
    }

KIT_PLATFORM_OF_FILE(VLIBCFileFUTime, VLIBCFileUTime, (int fd, int count, const struct timespec *times),
                     (fd, count, times), fd)
KIT_PLATFORM_OF_FILE(VLIBCKernelAttrFCall, VLIBCKernelAttrCall, (int fd, int command), (fd, command), fd)
KIT_PLATFORM_OF_FILE(VEXOACLFCopy, VEXOACLCopy, (int srcFd, int dstFd), (srcFd, dstFd), srcFd)
KIT_PLATFORM_OF_FILE(VEXOACLArchiveFCopy, VEXOACLArchiveCopy, (int srcFd, int dstFd), (srcFd, dstFd), srcFd)

#undef KIT_PLATFORM_OF_FILE

// What says several things at once does not, where a test has one of them fail or change something.
extern "C" int VLIBCFileFComplete(int srcFd, int dstFd, mode_t mode, const struct timespec *times,
                                  uint32_t attributes) {
    for (const char *said : {"VLIBCFileUTime", "VLIBCKernelAttrFcntl", "VLIBCKernelAttrCall", "VLIBCFileFStat"}) {
        if (kit::watches(said)) {
            errno = ENOSYS;
            return -1;
        }
    }
    static auto *const actual =
        kit::real<int(int, int, mode_t, const struct timespec *, uint32_t)>("VLIBCFileFComplete");
    return actual(srcFd, dstFd, mode, times, attributes);
}

// Counts as the two that it stands for, those of directories as well, which have functions of paths alone.
extern "C" int VEXOACLFCopyToNew(int srcFd, int dstFd, mode_t srcMode, const char *names, size_t size) {
    if (kit::watches("VEXOACLCopy") || kit::watches("VEXOACLArchiveCopy")) {
        if (S_ISDIR(srcMode)) {
            errno = ENOSYS;
            return -1;
        }
        return VEXOACLFCopy(srcFd, dstFd) == 0 && VEXOACLArchiveFCopy(srcFd, dstFd) == 0 ? 0 : -1;
    }
    static auto *const actual = kit::real<int(int, int, mode_t, const char *, size_t)>("VEXOACLFCopyToNew");
    const int result = actual(srcFd, dstFd, srcMode, names, size);
    if (result == 0) {
        (void)askFaults("VEXOACLCopy", nullptr, srcFd);
        (void)askFaults("VEXOACLArchiveCopy", nullptr, srcFd);
    }
    return result;
}

// Rules and records see the whole command line: "/bin/rm -rf /path". Callers may end it by a plain 0, of which only the
// lower half is sure.
extern "C" int VLIBCExec(const char *program, ...) {
    std::array<const char *, 16> words{};
    std::string line = program == nullptr ? "" : program;
    va_list arguments;
    va_start(arguments, program);
    for (size_t at = 0; at + 1 < words.size(); ++at) {
        const char *word = va_arg(arguments, const char *);
        if (static_cast<uint32_t>(reinterpret_cast<uintptr_t>(word)) == 0) {
            break;
        }
        words[at] = word;
        line.append(" ").append(word);
    }
    va_end(arguments);
    if (const FaultAnswer answer = askFaults("VLIBCExec", line.c_str(), -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const actual = kit::real<int(const char *, ...)>("VLIBCExec");
    return std::apply([&](auto... word) { return actual(program, word...); }, words);
}

extern "C" int VEXOGetFSType(const char *path, int flag) {
    if (const FaultAnswer answer = askFaults("VEXOGetFSType", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (const auto *row = longestPrefix(tables().types, path)) {
        if (row->second.first < 0) {
            errno = row->second.second;
        }
        return row->second.first;
    }
    static auto *const actual = kit::real<int(const char *, int)>("VEXOGetFSType");
    return actual(path, flag);
}

extern "C" int VEXOFSMntPathGet(const char *path, char *mountPath, int size) {
    if (const FaultAnswer answer = askFaults("VEXOFSMntPathGet", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (const auto *row = longestPrefix(tables().mounts, path)) {
        kit::put(mountPath, size, row->second);
        return 0;
    }
    static auto *const actual = kit::real<int(const char *, char *, int)>("VEXOFSMntPathGet");
    return actual(path, mountPath, size);
}

extern "C" int VEXOServiceHomePathCheck(const char *path, int one, int two, VEXOHomeCheckResult **result) {
    if (const FaultAnswer answer = askFaults("VEXOServiceHomePathCheck", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (const auto *row = longestPrefix(tables().homes, path)) {
        auto *record = static_cast<VEXOHomeCheckResult *>(std::calloc(1, sizeof(VEXOHomeCheckResult)));
        record->kind = 1;
        record->user = ::strdup(row->second.user.c_str());
        record->home = ::strdup(row->second.home.c_str());
        *result = record;
        return 1;
    }
    static auto *const actual =
        kit::real<int(const char *, int, int, VEXOHomeCheckResult **)>("VEXOServiceHomePathCheck");
    return actual(path, one, two, result);
}

extern "C" void VEXOHomeCheckResultFree(VEXOHomeCheckResult *result) {
    (void)askFaults("VEXOHomeCheckResultFree", nullptr, -1);
    if (result != nullptr) {
        std::free(result->user);
        std::free(result->home);
        std::free(result);
    }
}

extern "C" int VEXOShareNamePathGet(const char *path, char *name, int nameSize, char *sharePath, int sharePathSize) {
    if (const FaultAnswer answer = askFaults("VEXOShareNamePathGet", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (const auto *row = longestPrefix(tables().shares, path)) {
        kit::put(name, nameSize, row->second.name);
        kit::put(sharePath, sharePathSize, row->first);
        return 0;
    }
    static auto *const actual = kit::real<int(const char *, char *, int, char *, int)>("VEXOShareNamePathGet");
    return actual(path, name, nameSize, sharePath, sharePathSize);
}

extern "C" int VEXOShareGet(const char *name, VEXOShare **share) {
    if (const FaultAnswer answer = askFaults("VEXOShareGet", name, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    for (const auto &row : tables().shares) {
        if (row.second.name == name) {
            auto *record = static_cast<VEXOShare *>(std::calloc(1, sizeof(VEXOShare)));
            record->name = ::strdup(name);
            record->path = ::strdup(row.first.c_str());
            record->status = row.second.status;
            *share = record;
            return 0;
        }
    }
    static auto *const actual = kit::real<int(const char *, VEXOShare **)>("VEXOShareGet");
    return actual(name, share);
}

extern "C" void VEXOShareFree(VEXOShare *share) {
    (void)askFaults("VEXOShareFree", nullptr, -1);
    if (share != nullptr) {
        std::free(share->name);
        std::free(share->path);
        std::free(share);
    }
}

extern "C" int VLIBShareIsEncryptionGet(const VEXOShare *share, int *encrypted) {
    if (const FaultAnswer answer = askFaults("VLIBShareIsEncryptionGet", share->path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    for (const auto &row : tables().shares) {
        if (row.second.name == share->name) {
            *encrypted = row.second.encrypted ? 1 : 0;
            return 0;
        }
    }
    static auto *const actual = kit::real<int(const VEXOShare *, int *)>("VLIBShareIsEncryptionGet");
    return actual(share, encrypted);
}

extern "C" int VLIBFSGetBTRFSCompression(const char *path) {
    if (const FaultAnswer answer = askFaults("VLIBFSGetBTRFSCompression", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (const auto *row = longestPrefix(tables().compression, path)) {
        return row->second;
    }
    static auto *const actual = kit::real<int(const char *)>("VLIBFSGetBTRFSCompression");
    return actual(path);
}

extern "C" int VLIBFSGetBTRFSNodatacow(const char *path) {
    if (const FaultAnswer answer = askFaults("VLIBFSGetBTRFSNodatacow", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (const auto *row = longestPrefix(tables().nodatacow, path)) {
        return row->second;
    }
    static auto *const actual = kit::real<int(const char *)>("VLIBFSGetBTRFSNodatacow");
    return actual(path);
}
