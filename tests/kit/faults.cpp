#include "tests/kit/faults.h"

#include "platform/core.h"
#include "tests/kit/fat_double.h"
#include "tests/kit/fork_double.h"
#include "tests/kit/native_double.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KIT_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KIT_SANITIZED 1
#endif

namespace kit {
namespace {

struct ActiveRule {
    FaultRule rule;
    int seen = 0;
};

struct State {
    std::vector<ActiveRule> rules;
    std::map<std::string, int> counts;
    std::vector<std::string> calls;
    bool recording = false;
    bool active = false; // anything asked for at all: otherwise a wrapper costs one test
};

State &state() {
    static auto *instance = new State;
    return *instance;
}

// The wrappers' own work must not be seen by the wrappers.
thread_local bool inside = false;
struct Inside {
    Inside() { inside = true; }
    ~Inside() { inside = false; }
};

std::string pathOf(const char *path, int fd) {
    if (path != nullptr) {
        return path;
    }
    if (fd < 0) {
        return {};
    }
    std::array<char, 64> link{};
    std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", fd);
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(link.data(), target.data(), target.size() - 1);
    return length < 0 ? std::string() : std::string(target.data(), static_cast<size_t>(length));
}

int allocationCountdown = 0;
int allocationFailures = 0;
size_t allocationFloor = 0;
long nameLength = -1; // as volumes have it
bool entryTypesHidden = false;

// What the kit and the test allocate comes through operator new, which the library does not use.
bool isOperatorNew(void *caller) {
    Dl_info where;
    return ::dladdr(caller, &where) != 0 && std::strstr(where.dli_fname, "libstdc++") != nullptr;
}

[[maybe_unused]] bool allocationFails(size_t size, void *caller) {
    if (allocationCountdown == 0 || inside || size < allocationFloor || isOperatorNew(caller)) {
        return false;
    }
    if (allocationCountdown > 1) {
        --allocationCountdown;
        return false;
    }
    if (--allocationFailures == 0) {
        allocationCountdown = 0;
    }
    errno = ENOMEM;
    return true;
}

} // namespace

void Faults::add(FaultRule rule) {
    const Inside guard;
    state().rules.push_back({std::move(rule), 0});
    state().active = true;
}

bool watches(const char *function) {
    const Inside guard;
    for (const ActiveRule &active : state().rules) {
        if (active.rule.function == function) {
            return true;
        }
    }
    return false;
}

bool watchesReadOrWrite() {
    return watches("read") || watches("write");
}

void Faults::fail(const std::string &function, int error, const std::string &path, int skip) {
    add({.function = function, .error = error, .path = path, .skip = skip});
}

void Faults::failAlways(const std::string &function, int error, const std::string &path) {
    add({.function = function, .error = error, .path = path, .times = 0});
}

void Faults::reset() {
    const Inside guard;
    State &now = state();
    now.rules.clear();
    now.counts.clear();
    now.calls.clear();
    now.recording = false;
    now.active = false;
    allocationCountdown = 0;
    allocationFloor = 0;
    nameLength = -1;
    entryTypesHidden = false;
}

void Faults::hideEntryTypes(bool on) {
    entryTypesHidden = on;
}

void Faults::setNameLength(long bytes) {
    nameLength = bytes;
}

int Faults::count(const std::string &function) {
    const auto found = state().counts.find(function);
    return found == state().counts.end() ? 0 : found->second;
}

void Faults::record(bool on) {
    state().recording = on;
    state().active = state().active || on;
}

std::vector<std::string> Faults::recorded() {
    return state().calls;
}

// Whether the allocator here is the one below: a sanitizer or memcheck puts its own in its place.
static bool allocatorIsOurs() {
    static const bool ours = [] {
        allocationFailures = allocationCountdown = 1;
        void *volatile block = std::malloc(allocationFloor + 1);
        allocationCountdown = 0;
        std::free(block);
        return block == nullptr;
    }();
    return ours;
}

bool Faults::failAllocation(int nth, int times) {
    if (!allocatorIsOurs()) {
        return false;
    }
    allocationFailures = times;
    allocationCountdown = nth;
    return true;
}

bool Faults::allocationPending() {
    return allocationCountdown != 0;
}

void Faults::onlyAllocationsFrom(size_t bytes) {
    allocationFloor = bytes;
}

FaultsOff::FaultsOff() : m_before(inside) {
    inside = true;
}

FaultsOff::~FaultsOff() {
    inside = m_before;
}

FaultAnswer askFaults(const char *function, const char *path, int fd) {
    if (inside || !state().active) {
        return {false, 0};
    }
    const int number = errno;
    std::function<void()> before;
    FaultAnswer answer{false, 0};
    int error = 0;
    uint32_t lastError = 0;
    {
        const Inside guard;
        State &now = state();
        ++now.counts[function];
        std::string where;
        bool known = false;
        const auto name = [&]() -> const std::string & {
            if (!known) {
                where = pathOf(path, fd);
                known = true;
            }
            return where;
        };
        if (now.recording) {
            now.calls.push_back(std::string(function) + "(" + name() + ")");
        }
        for (ActiveRule &active : now.rules) {
            const FaultRule &rule = active.rule;
            if (rule.function != function || (!rule.path.empty() && name().find(rule.path) == std::string::npos)) {
                continue;
            }
            const int seen = active.seen++;
            if (seen < rule.skip || (rule.times != 0 && seen >= rule.skip + rule.times)) {
                continue;
            }
            before = rule.before;
            if (rule.error != 0 || rule.answers) {
                answer = {true, rule.result};
                error = rule.error;
                lastError = rule.lastError;
            }
            break;
        }
    }
    if (before) {
        const Inside guard;
        before();
    }
    errno = number;
    if (answer.decided) {
        if (lastError != 0) {
            VLIBCErrSetEx(lastError, "tests/kit", 0);
        }
        if (error != 0) {
            errno = error;
        }
    }
    return answer;
}

FaultAnswer askFaultsOfFile(const char *function, int fd) {
    const FaultAnswer answer = askFaults(function, nullptr, fd);
    return answer.decided ? answer : askFaults(function + 1, nullptr, fd); // without its "f"
}

namespace {
std::string pathOfFile(int fd) {
    const Inside guard;
    return pathOf(nullptr, fd);
}

// The next definition of a symbol behind this program's own.
template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}
} // namespace

} // namespace kit

// A wrapper: NAME(parameters) as the C library declares it, with the path and descriptor that its rules see.
#define KIT_WRAP(RESULT, NAME, PARAMETERS, ARGUMENTS, PATH, FD, SPECIFIER)                                             \
    extern "C" RESULT NAME PARAMETERS SPECIFIER {                                                                      \
        if (const kit::FaultAnswer answer = kit::askFaults(#NAME, PATH, FD); answer.decided) {                         \
            return static_cast<RESULT>(answer.result);                                                                 \
        }                                                                                                              \
        static auto *const real = kit::next<RESULT PARAMETERS>(#NAME);                                                 \
        return real ARGUMENTS;                                                                                         \
    }

KIT_WRAP(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), nullptr, fd, )
KIT_WRAP(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size), nullptr, fd, )
KIT_WRAP(ssize_t, pread, (int fd, void *buffer, size_t size, off_t at), (fd, buffer, size, at), nullptr, fd, )
KIT_WRAP(ssize_t, pwrite, (int fd, const void *buffer, size_t size, off_t at), (fd, buffer, size, at), nullptr, fd, )
KIT_WRAP(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), nullptr, fd, noexcept)
KIT_WRAP(int, fallocate, (int fd, int mode, off_t offset, off_t length), (fd, mode, offset, length), nullptr, fd, )
KIT_WRAP(int, ftruncate, (int fd, off_t length), (fd, length), nullptr, fd, noexcept)
KIT_WRAP(int, fsync, (int fd), (fd), nullptr, fd, )
KIT_WRAP(int, fstat, (int fd, struct stat *out), (fd, out), nullptr, fd, noexcept)
KIT_WRAP(int, lstat, (const char *path, struct stat *out), (path, out), path, -1, noexcept)
KIT_WRAP(int, fstatfs, (int fd, struct statfs *out), (fd, out), nullptr, fd, noexcept)
KIT_WRAP(int, access, (const char *path, int mode), (path, mode), path, -1, noexcept)
KIT_WRAP(int, fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid), nullptr, fd, noexcept)
KIT_WRAP(int, chown, (const char *path, uid_t uid, gid_t gid), (path, uid, gid), path, -1, noexcept)
KIT_WRAP(int, chmod, (const char *path, mode_t mode), (path, mode), path, -1, noexcept)
KIT_WRAP(int, fchmod, (int fd, mode_t mode), (fd, mode), nullptr, fd, noexcept)
KIT_WRAP(int, rename, (const char *from, const char *to), (from, to), from, -1, noexcept)
KIT_WRAP(int, unlink, (const char *path), (path), path, -1, noexcept)
KIT_WRAP(int, remove, (const char *path), (path), path, -1, noexcept)
KIT_WRAP(int, rmdir, (const char *path), (path), path, -1, noexcept)
KIT_WRAP(int, mkdir, (const char *path, mode_t mode), (path, mode), path, -1, noexcept)
KIT_WRAP(int, chdir, (const char *path), (path), path, -1, noexcept)
KIT_WRAP(int, symlink, (const char *target, const char *path), (target, path), path, -1, noexcept)
KIT_WRAP(ssize_t, readlink, (const char *path, char *buffer, size_t size), (path, buffer, size), path, -1, noexcept)
KIT_WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol), nullptr, -1, noexcept)
KIT_WRAP(int, connect, (int fd, const struct sockaddr *address, socklen_t size), (fd, address, size), nullptr, fd, )
KIT_WRAP(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size),
         (fd, level, name, value, size), nullptr, fd, noexcept)
KIT_WRAP(int, seteuid, (uid_t uid), (uid), nullptr, -1, noexcept)

#undef KIT_WRAP

// Moves bytes as a read and a write would, but out of their sight: a test that watches those gets them.
extern "C" ssize_t sendfile(int to, int from, off_t *at, size_t size) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("sendfile", nullptr, to); answer.decided) {
        return answer.result;
    }
    if (kit::watchesReadOrWrite()) {
        errno = EINVAL;
        return -1;
    }
    static auto *const real = kit::next<ssize_t(int, int, off_t *, size_t)>("sendfile");
    return real(to, from, at, size);
}

extern "C" int statfs(const char *path, struct statfs *out) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("statfs", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(const char *, struct statfs *)>("statfs");
    const int result = real(path, out);
    if (result == 0 && kit::nameLength >= 0) {
        out->f_namelen = kit::nameLength;
    }
    return result;
}

extern "C" int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (const kit::FaultAnswer answer = kit::askFaults("open", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if ((flags & O_DIRECTORY) != 0 && kit::askFaults("opendir", path, -1).decided) {
        return -1;
    }
    static auto *const real = kit::next<int(const char *, int, ...)>("open");
    return real(path, flags, mode);
}

// The calls that take a directory and a name: rules for the call on a path see them, with the whole path.
namespace kit {
namespace {
FaultAnswer askFaultsIn(const char *function, int directory, const char *name) {
    if (directory == AT_FDCWD || *name == '/') {
        return askFaults(function, name, -1);
    }
    std::string path;
    {
        const Inside guard;
        path = pathOf(nullptr, directory) + "/" + name;
    }
    return askFaults(function, path.c_str(), -1);
}
} // namespace
} // namespace kit

extern "C" int openat(int directory, const char *name, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (const kit::FaultAnswer answer = kit::askFaultsIn("open", directory, name); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if ((flags & O_DIRECTORY) != 0 && (flags & O_PATH) == 0 && kit::askFaultsIn("opendir", directory, name).decided) {
        return -1;
    }
    static auto *const real = kit::next<int(int, const char *, int, ...)>("openat");
    return real(directory, name, flags, mode);
}

extern "C" int fstatat(int directory, const char *name, struct stat *out, int flags) noexcept {
    const char *const function = (flags & AT_SYMLINK_NOFOLLOW) != 0 ? "lstat" : "stat";
    if (const kit::FaultAnswer answer = kit::askFaultsIn(function, directory, name); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(int, const char *, struct stat *, int)>("fstatat");
    return real(directory, name, out, flags);
}

extern "C" int unlinkat(int directory, const char *name, int flags) noexcept {
    // "remove" is either of the two.
    for (const char *function : {(flags & AT_REMOVEDIR) != 0 ? "rmdir" : "unlink", "remove"}) {
        if (const kit::FaultAnswer answer = kit::askFaultsIn(function, directory, name); answer.decided) {
            return static_cast<int>(answer.result);
        }
    }
    static auto *const real = kit::next<int(int, const char *, int)>("unlinkat");
    return real(directory, name, flags);
}

extern "C" int renameat(int fromDirectory, const char *from, int toDirectory, const char *to) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaultsIn("rename", fromDirectory, from); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(int, const char *, int, const char *)>("renameat");
    return real(fromDirectory, from, toDirectory, to);
}

extern "C" int mkdirat(int directory, const char *name, mode_t mode) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaultsIn("mkdir", directory, name); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(int, const char *, mode_t)>("mkdirat");
    return real(directory, name, mode);
}

extern "C" int stat(const char *path, struct stat *out) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("stat", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(const char *, struct stat *)>("stat");
    const int result = real(path, out);
    if (result == 0) {
        kit::shapeAsFile(path, out);
    }
    return result;
}

// The attribute calls on a path, whose names a volume of the double keeps under others.
extern "C" ssize_t getxattr(const char *path, const char *name, void *value, size_t size) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("getxattr", path, -1); answer.decided) {
        return answer.result;
    }
    static auto *const real = kit::next<ssize_t(const char *, const char *, void *, size_t)>("getxattr");
    return kit::hasNativeNames(path) ? real(path, kit::keptName(path, name).c_str(), value, size)
                                     : real(path, name, value, size);
}

extern "C" int setxattr(const char *path, const char *name, const void *value, size_t size, int flags) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("setxattr", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(const char *, const char *, const void *, size_t, int)>("setxattr");
    return kit::hasNativeNames(path) ? real(path, kit::keptName(path, name).c_str(), value, size, flags)
                                     : real(path, name, value, size, flags);
}

extern "C" int removexattr(const char *path, const char *name) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("removexattr", path, -1); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(const char *, const char *)>("removexattr");
    return kit::hasNativeNames(path) ? real(path, kit::keptName(path, name).c_str()) : real(path, name);
}

extern "C" ssize_t listxattr(const char *path, char *list, size_t size) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("listxattr", path, -1); answer.decided) {
        return answer.result;
    }
    static auto *const real = kit::next<ssize_t(const char *, char *, size_t)>("listxattr");
    const ssize_t got = real(path, list, size);
    return got > 0 && size > 0 ? static_cast<ssize_t>(kit::shownNames(path, list, static_cast<size_t>(got))) : got;
}

// The same on open files: rules for the call on a path see them too.
extern "C" ssize_t fgetxattr(int fd, const char *name, void *value, size_t size) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaultsOfFile("fgetxattr", fd); answer.decided) {
        return answer.result;
    }
    static auto *const real = kit::next<ssize_t(int, const char *, void *, size_t)>("fgetxattr");
    return kit::hasNativeVolumes() ? real(fd, kit::keptName(kit::pathOfFile(fd).c_str(), name).c_str(), value, size)
                                   : real(fd, name, value, size);
}

extern "C" int fsetxattr(int fd, const char *name, const void *value, size_t size, int flags) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaultsOfFile("fsetxattr", fd); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(int, const char *, const void *, size_t, int)>("fsetxattr");
    return kit::hasNativeVolumes()
               ? real(fd, kit::keptName(kit::pathOfFile(fd).c_str(), name).c_str(), value, size, flags)
               : real(fd, name, value, size, flags);
}

extern "C" int fremovexattr(int fd, const char *name) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaultsOfFile("fremovexattr", fd); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(int, const char *)>("fremovexattr");
    return kit::hasNativeVolumes() ? real(fd, kit::keptName(kit::pathOfFile(fd).c_str(), name).c_str())
                                   : real(fd, name);
}

extern "C" ssize_t flistxattr(int fd, char *list, size_t size) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaultsOfFile("flistxattr", fd); answer.decided) {
        return answer.result;
    }
    static auto *const real = kit::next<ssize_t(int, char *, size_t)>("flistxattr");
    const ssize_t got = real(fd, list, size);
    return got > 0 && size > 0 && kit::hasNativeVolumes()
               ? static_cast<ssize_t>(kit::shownNames(kit::pathOfFile(fd).c_str(), list, static_cast<size_t>(got)))
               : got;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (const kit::FaultAnswer answer = kit::askFaults("ioctl", nullptr, fd); answer.decided) {
        return static_cast<int>(answer.result);
    }
    if (kit::answerFatCall(fd, request, argument)) {
        return 0;
    }
    static auto *const real = kit::next<int(int, unsigned long, ...)>("ioctl");
    return real(fd, request, argument);
}

extern "C" int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (const kit::FaultAnswer answer = kit::askFaults("fcntl", nullptr, fd); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const real = kit::next<int(int, int, ...)>("fcntl");
    return real(fd, command, argument);
}

// A close that fails has closed all the same.
extern "C" int close(int fd) {
    const kit::FaultAnswer answer = kit::askFaults("close", nullptr, fd);
    const int number = errno;
    static auto *const real = kit::next<int(int)>("close");
    const int result = real(fd);
    if (answer.decided) {
        errno = number;
        return static_cast<int>(answer.result);
    }
    return result;
}

extern "C" DIR *opendir(const char *path) {
    if (kit::askFaults("opendir", path, -1).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<DIR *(const char *)>("opendir");
    return real(path);
}

extern "C" struct dirent *readdir(DIR *stream) {
    if (kit::askFaults("readdir", nullptr, ::dirfd(stream)).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<dirent *(DIR *)>("readdir");
    dirent *entry = real(stream);
    if (entry != nullptr && kit::entryTypesHidden && !kit::inside) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

extern "C" int dirfd(DIR *stream) noexcept {
    static auto *const real = kit::next<int(DIR *)>("dirfd");
    const int fd = real(stream);
    const kit::FaultAnswer answer = kit::askFaults("dirfd", nullptr, fd);
    return answer.decided ? static_cast<int>(answer.result) : fd;
}

extern "C" char *realpath(const char *path, char *resolved) noexcept {
    if (kit::askFaults("realpath", path, -1).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<char *(const char *, char *)>("realpath");
    return real(path, resolved);
}

extern "C" char *getcwd(char *out, size_t size) noexcept {
    if (kit::askFaults("getcwd", nullptr, -1).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<char *(char *, size_t)>("getcwd");
    return real(out, size);
}

extern "C" char *__xpg_basename(char *path) noexcept { // what <libgen.h> makes of basename()
    if (kit::askFaults("basename", path, -1).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<char *(char *)>("__xpg_basename");
    return real(path);
}

extern "C" char *dirname(char *path) noexcept {
    if (kit::askFaults("dirname", path, -1).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<char *(char *)>("dirname");
    return real(path);
}

extern "C" FILE *fopen(const char *path, const char *mode) {
    if (kit::askFaults("fopen", path, -1).decided) {
        return nullptr;
    }
    static auto *const real = kit::next<FILE *(const char *, const char *)>("fopen");
    return real(path, mode);
}

#ifndef KIT_SANITIZED
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size) noexcept {
    return kit::allocationFails(size, __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) noexcept {
    return kit::allocationFails(count * size, __builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) noexcept {
    return kit::allocationFails(size, __builtin_return_address(0)) ? nullptr : __libc_realloc(block, size);
}
char *strdup(const char *text) noexcept {
    const size_t size = std::strlen(text) + 1;
    auto *copy =
        kit::allocationFails(size, __builtin_return_address(0)) ? nullptr : static_cast<char *>(__libc_malloc(size));
    return copy == nullptr ? nullptr : static_cast<char *>(std::memcpy(copy, text, size));
}
}
#endif
