// What the tests of the single-file copies share. Three front doors run the same steps: a copy is asked for once, as a
// Request with Callbacks, and goes through whichever door a test names.
#pragma once

#include "copy/copy.h"
#include "tests/kit/behaviour.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace file_copy {

enum class Door {
    ex,        // VEXOFileCopyEx: bare callbacks
    reentrant, // VEXOFileCopy_r: callbacks with user data, owner and times as caller
    fileOp,    // VEXOFileOpCopyFile: a flag word and one record
};

inline void PrintTo(Door door, std::ostream *out) {
    *out << (door == Door::ex ? "ex" : door == Door::reentrant ? "reentrant" : "fileOp");
}
inline std::string nameOf(Door door) {
    return door == Door::ex ? "Ex" : door == Door::reentrant ? "Reentrant" : "FileOp";
}
// The name in log lines and last errors.
inline std::string sourceOf(Door door) {
    return door == Door::fileOp ? "copy/fileop_copy_file.c" : "copy/copy_file_copy.c";
}

enum FileOpFlag : uint32_t {
    kFailIfExists = 1,
    kReplace = 2,
    kMove = 4,
    kKeepOwner = 8,
    kAsCaller = 16,
    kCopyAcl = 32,
    kEnforceInherit = 64,
    kNoEa = 256,
    kEaFlag = 512,
    kClone = 1024,
};

struct Request {
    std::string src, dst;
    int overwrite = 0;
    bool move = false, keepOwner = false, copyAcl = false, enforceInherit = false, cleanArchive = false;
    uint32_t uid = 0, gid = 0;
    bool clone = false;    // not through Door::reentrant, which has no such switch
    bool asCaller = false; // Door::reentrant always is, Door::ex never
};

struct Report {
    std::string path;
    uint32_t code;
    bool operator==(const Report &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Report &report) {
    return out << report.path << " 0x" << std::hex << report.code << std::dec;
}

using Progress = std::pair<int64_t, int64_t>;

// Empty functions are null slots. Reports and progress are kept in any case.
struct Callbacks {
    std::function<void(int64_t, int64_t)> onProgress;
    std::function<void()> onReport;
    std::function<int()> isCancel;
    std::function<int(const char *, char *, int)> rename;
    std::function<int64_t(int64_t, int64_t)> getReadSize;
    std::function<int(const char *, const char *, int *, int *, int64_t)> readWriteData;

    std::vector<Report> reports;
    std::vector<Progress> progress;

    static Callbacks *&current() {
        static Callbacks *instance = nullptr;
        return instance;
    }
    static Callbacks &of(void *data) { return *static_cast<Callbacks *>(data); }

    void addProgress(int64_t bytes, int64_t offset) {
        progress.emplace_back(bytes, offset);
        if (onProgress) {
            onProgress(bytes, offset);
        }
    }
    void addReport(const char *path, uint32_t code) {
        reports.push_back({path, code});
        if (onReport) {
            onReport();
        }
    }
};

// The callbacks as the records hold them.
struct Bare {
    static void progress(int64_t bytes, int64_t offset) { Callbacks::current()->addProgress(bytes, offset); }
    static void errReport(const char *path, uint32_t code) { Callbacks::current()->addReport(path, code); }
    static int isCancel() { return Callbacks::current()->isCancel(); }
    static int rename(const char *dst, char *out, int size) { return Callbacks::current()->rename(dst, out, size); }
    static int64_t getReadSize(int64_t last, int64_t offset) { return Callbacks::current()->getReadSize(last, offset); }
    static int readWriteData(const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                             VEXOCopyBareProgressFn, VEXOCopyBareIsCancelFn, VEXOCopyArgsEx *) {
        return Callbacks::current()->readWriteData(src, dst, srcFd, dstFd, size);
    }
};
struct WithData {
    static void progress(void *data, int64_t bytes, int64_t offset) { Callbacks::of(data).addProgress(bytes, offset); }
    static void errReport(void *data, const char *path, uint32_t code) { Callbacks::of(data).addReport(path, code); }
    static int isCancel(void *data) { return Callbacks::of(data).isCancel(); }
    static int rename(void *data, const char *dst, char *out, int size) {
        return Callbacks::of(data).rename(dst, out, size);
    }
    static int64_t getReadSize(void *data, int64_t last, int64_t offset) {
        return Callbacks::of(data).getReadSize(last, offset);
    }
    static int readWriteData(void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                             VEXOCopyArgs *) {
        return Callbacks::of(data).readWriteData(src, dst, srcFd, dstFd, size);
    }
    static int readWriteDataTHR(void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                                VEXOCopyProgressFn, VEXOCopyIsCancelFn, VEXOCopyTHRArgs *) {
        return Callbacks::of(data).readWriteData(src, dst, srcFd, dstFd, size);
    }
};

inline VEXOCopyOpt optionsOf(const Request &request, const Callbacks &callbacks) {
    VEXOCopyOpt opt{};
    opt.overwrite = request.overwrite;
    opt.move = request.move ? 1 : 0;
    opt.ownerMode = request.keepOwner ? 1 : 0;
    opt.copyAcl = request.copyAcl ? 1 : 0;
    opt.enforceInherit = request.enforceInherit ? 1 : 0;
    opt.cleanArchive = request.cleanArchive ? 1 : 0;
    opt.uid = request.uid;
    opt.gid = request.gid;
    opt.progress = Bare::progress;
    opt.errReport = Bare::errReport;
    opt.isCancel = callbacks.isCancel ? Bare::isCancel : nullptr;
    opt.rename = callbacks.rename ? Bare::rename : nullptr;
    return opt;
}
inline VEXOCopyArgsEx exOf(const Callbacks &callbacks) {
    VEXOCopyArgsEx ex{};
    ex.getReadSize = callbacks.getReadSize ? Bare::getReadSize : nullptr;
    ex.readWriteData = callbacks.readWriteData ? Bare::readWriteData : nullptr;
    return ex;
}
inline VEXOCopyOptR optionsROf(const Request &request) {
    VEXOCopyOptR opt{};
    opt.overwrite = request.overwrite;
    opt.move = request.move ? 1 : 0;
    opt.ownerMode = request.keepOwner ? 1 : 0;
    opt.copyAcl = request.copyAcl ? 1 : 0;
    opt.enforceInherit = request.enforceInherit ? 1 : 0;
    opt.cleanArchive = request.cleanArchive ? 1 : 0;
    opt.uid = request.uid;
    opt.gid = request.gid;
    return opt;
}
inline VEXOCopyTHRArgs thrOf(Callbacks &callbacks) {
    VEXOCopyTHRArgs thr{};
    thr.progress = WithData::progress;
    thr.progressArg = &callbacks;
    thr.errReport = WithData::errReport;
    thr.errReportArg = &callbacks;
    thr.isCancel = callbacks.isCancel ? WithData::isCancel : nullptr;
    thr.isCancelArg = &callbacks;
    thr.rename = callbacks.rename ? WithData::rename : nullptr;
    thr.renameArg = &callbacks;
    thr.getReadSize = callbacks.getReadSize ? WithData::getReadSize : nullptr;
    thr.getReadSizeArg = &callbacks;
    thr.readWriteData = callbacks.readWriteData ? WithData::readWriteDataTHR : nullptr;
    thr.readWriteDataArg = &callbacks;
    return thr;
}
inline uint32_t flagsOf(const Request &request) {
    const uint32_t conflict = request.overwrite == -1 ? kFailIfExists : request.overwrite == 1 ? kReplace : 0U;
    return conflict | (request.move ? kMove : 0U) | (request.keepOwner ? kKeepOwner : 0U) |
           (request.asCaller ? kAsCaller : 0U) | (request.copyAcl ? kCopyAcl : 0U) |
           (request.enforceInherit ? kEnforceInherit : 0U) | (request.clone ? kClone : 0U);
}
inline VEXOCopyArgs argsOf(const Request &request, Callbacks &callbacks) {
    VEXOCopyArgs args{};
    args.fsTypeSrc = -1;
    args.fsTypeDst = -1;
    args.uid = request.uid;
    args.gid = request.gid;
    args.cleanArchive = request.cleanArchive ? 1 : 0;
    args.progress = WithData::progress;
    args.progressArg = &callbacks;
    args.errReport = WithData::errReport;
    args.errReportArg = &callbacks;
    args.isCancel = callbacks.isCancel ? WithData::isCancel : nullptr;
    args.isCancelArg = &callbacks;
    args.rename = callbacks.rename ? WithData::rename : nullptr;
    args.renameArg = &callbacks;
    args.getReadSize = callbacks.getReadSize ? WithData::getReadSize : nullptr;
    args.getReadSizeArg = &callbacks;
    args.readWriteData = callbacks.readWriteData ? WithData::readWriteData : nullptr;
    args.readWriteDataArg = &callbacks;
    return args;
}

inline int run(Door door, const Request &request, Callbacks &callbacks) {
    Callbacks::current() = &callbacks;
    const char *src = request.src.c_str();
    const char *dst = request.dst.c_str();
    switch (door) {
    case Door::ex: {
        VEXOCopyOpt opt = optionsOf(request, callbacks);
        VEXOCopyArgsEx ex = exOf(callbacks);
        return request.clone ? VEXOFileReflinkCopy(src, dst, &opt, &ex) : VEXOFileCopyEx(src, dst, &opt, &ex);
    }
    case Door::reentrant: {
        VEXOCopyOptR opt = optionsROf(request);
        VEXOCopyTHRArgs thr = thrOf(callbacks);
        return VEXOFileCopy_r(src, dst, &opt, &thr);
    }
    case Door::fileOp: {
        VEXOCopyArgs args = argsOf(request, callbacks);
        return VEXOFileOpCopyFile(src, dst, flagsOf(request), &args);
    }
    }
    return -2;
}

// "(5)Input/output error", as log lines have it.
inline std::string reason(int number) {
    return "(" + std::to_string(number) + ")" + std::strerror(number);
}

// Log lines of one source.
inline int linesOf(const std::string &source, int priority) {
    int found = 0;
    for (const kit::LogLine &line : kit::Log::lines()) {
        found += line.source == source && line.priority == priority ? 1 : 0;
    }
    return found;
}
inline void expectLogged(const std::string &source, int priority, const std::string &body, int times = 1) {
    int found = 0;
    for (const kit::LogLine &line : kit::Log::lines()) {
        found += line.source == source && line.priority == priority && line.body == body ? 1 : 0;
    }
    EXPECT_EQ(times, found) << "wanted: " << priority << " " << source << ":… " << body << "\n" << kit::Log::all();
}
// How often a recorded call was made with exactly this path (or command line).
inline long callsOf(const std::string &function, const std::string &path) {
    const std::vector<std::string> calls = kit::Faults::recorded();
    return std::count(calls.begin(), calls.end(), function + "(" + path + ")");
}

// Another effective user for a scope; the process stays able to become root again.
class AsUser {
  public:
    explicit AsUser(uid_t user) {
        if (::seteuid(user) != 0) {
            ADD_FAILURE() << "seteuid: " << std::strerror(errno);
        }
    }
    AsUser(const AsUser &) = delete;
    AsUser &operator=(const AsUser &) = delete;
    ~AsUser() {
        if (::seteuid(0) != 0) {
            ADD_FAILURE() << "seteuid: " << std::strerror(errno);
        }
    }
};
constexpr uid_t kNobody = 65534;

// A source with content and a place for its copy, in directories of their own, on a volume without peculiarities.
class Scene : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        from = scratch / "from";
        to = scratch / "to";
        ::chmod(scratch.path().c_str(), 0755);
        for (const std::string &directory : {from, to}) {
            ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
            ASSERT_EQ(0, ::chmod(directory.c_str(), 0777));
        }
        request.src = from + "/source.bin";
        request.dst = to + "/target.bin";
        content = kit::pattern(20000);
        kit::writeFile(request.src, content);
        kit::PlatformDouble::setType(scratch.path(), 1);
        // Only root can give files away, and one door fails where that is asked for.
        if (::geteuid() != 0) {
            request.uid = ::geteuid();
            request.gid = ::getegid();
        }
    }

    int copyThrough(Door door) { return run(door, request, callbacks); }

    void expectSourceIntact() const {
        ASSERT_TRUE(kit::exists(request.src));
        EXPECT_TRUE(kit::readFile(request.src) == content) << "the source's content changed";
    }
    void expectCopied(const std::string &path) const {
        ASSERT_TRUE(kit::exists(path)) << path;
        EXPECT_TRUE(kit::readFile(path) == content) << path << " is no copy of the source";
    }
    void expectCopied() const { expectCopied(request.dst); }
    void expectNoDestination() const { EXPECT_FALSE(kit::exists(request.dst)); }
    // The call failed with `code`, said so once, and left that code to be read.
    void expectFailed(int result, uint32_t code) const {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(code, VLIBCErrGet());
        EXPECT_EQ((std::vector<Report>{{request.src, code}}), callbacks.reports);
    }
    void expectNotReported() const { EXPECT_EQ(std::vector<Report>(), callbacks.reports); }

    static void expectNoErrorLogged(const std::string &source) {
        EXPECT_EQ(0, linesOf(source, LOG_ERR)) << kit::Log::all();
    }
    // The first of the recorded calls with that name and path; -1 when there is none.
    static long placeOf(const std::string &function, const std::string &path) {
        const std::vector<std::string> calls = kit::Faults::recorded();
        const auto found = std::find(calls.begin(), calls.end(), function + "(" + path + ")");
        return found == calls.end() ? -1 : found - calls.begin();
    }

    std::string from, to, content;
    Request request;
    Callbacks callbacks;
};

class EveryDoor : public Scene, public ::testing::WithParamInterface<Door> {
  protected:
    int copy() { return copyThrough(GetParam()); }
    static std::string source() { return sourceOf(GetParam()); }
};

// errno and the code that it turns into.
struct Row {
    int number;
    uint32_t code;
};
inline void PrintTo(const Row &row, std::ostream *out) {
    *out << std::strerror(row.number);
}

class EveryDoorAndRow : public Scene, public ::testing::WithParamInterface<std::tuple<Door, Row>> {
  protected:
    static Door door() { return std::get<0>(GetParam()); }
    static Row row() { return std::get<1>(GetParam()); }
    int copy() { return copyThrough(door()); }
    static std::string source() { return sourceOf(door()); }
};

inline std::string doorName(const ::testing::TestParamInfo<Door> &info) {
    return nameOf(info.param);
}
inline std::string rowName(const ::testing::TestParamInfo<std::tuple<Door, Row>> &info) {
    return nameOf(std::get<0>(info.param)) + ::strerrorname_np(std::get<1>(info.param).number);
}

inline const auto kDoors = ::testing::Values(Door::ex, Door::reentrant, Door::fileOp);

#define FILE_COPY_NEEDS_ROOT()                                                                                         \
    do {                                                                                                               \
        if (::geteuid() != 0) {                                                                                        \
            GTEST_SKIP() << "needs root";                                                                              \
        }                                                                                                              \
    } while (false)

} // namespace file_copy
