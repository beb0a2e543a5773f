// The copies and moves of one file, through every front door, beside their model.
#include "copy/copy.h"

#include "tests/model/file_model.h"
#include "tests/model/harness.h"
#include "tests/model/policy.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace model::files {
namespace {

enum class Door { copyI, exI, copy, ex, reflink, reentrant, fileOperation };
enum class Thing { nothing, file, directory, pipe, socket, linkToFile, linkToNothing, hardLink, linkToSource };

constexpr uid_t kSomebody = 12345;

// One scene: all that is drawn, before anything is built.
struct Scene {
    Door door;
    Thing source, destination;
    std::string dstName;
    int srcType, dstType, typeErrno;
    bool typesGiven;
    int64_t size;
    std::vector<kit::Extent> extents;
    mode_t mode;
    uid_t owner, user;
    int dosAttributes;
    bool hasStore;

    bool hasOptions, hasRecord; // the option structure, and the record of callbacks beside it
    int overwrite;
    uint32_t move, ownerMode, copyAcl, enforceInherit, cleanArchive, uid, gid, eaFlags, flags;
    uint64_t sizeLimit;

    bool progress, errReport, cancel, rename, readSize, readWriteData, copyFile;
    int cancelAt, renameAnswer, dataAnswer, copyFileAnswer;
    int64_t readSizeAnswer;
    std::vector<kit::FaultRule> rules;
    bool sendfileRefused;
};

kit::FaultRule drawFault(Random &random) {
    struct Place {
        const char *function, *path;
        int skips; // how many calls may go through first
    };
    static const std::vector<Place> kPlaces = {{"rename", "/from", 1},
                                               {"access", "/to", 1},
                                               {"stat", "/to", 2},
                                               {"open", "/from/src", 2},
                                               {"open", "/to/", 2},
                                               {"VLIBCFileFStat", "/from", 1},
                                               {"fstat", "/to/", 1},
                                               {"fchown", "/to/", 1},
                                               {"fchmod", "/to/", 1},
                                               {"chown", "/to", 1},
                                               {"VLIBCFileUTime", "/to", 1},
                                               {"VEXOACLCopy", "", 1},
                                               {"VEXOACLArchiveCopy", "", 1},
                                               {"VEXOACLEnforceInherit", "", 1},
                                               {"VLIBCKernelAttrFcntl", "", 4},
                                               {"unlink", "/from/src", 1},
                                               {"remove", "/to", 1},
                                               {"read", "/from/src", 3},
                                               {"write", "/to/", 3},
                                               {"lseek", "/from/src", 4},
                                               {"lseek", "/to/", 2},
                                               {"ftruncate", "/to/", 1},
                                               {"fallocate", "/to/", 2},
                                               {"seteuid", "", 1},
                                               {"fstatfs", "/to/", 1},
                                               {"ioctl", "/to/", 1},
                                               {"VEXOGetFSType", "/from", 1},
                                               {"VEXOGetFSType", "/to", 1}};
    const Place &place = kPlaces[static_cast<size_t>(random.below(static_cast<int>(kPlaces.size())))];
    kit::FaultRule rule = {.function = place.function,
                           .error =
                               random.of({EIO, ENXIO, EACCES, EPERM, ENOSPC, EDQUOT, EHOSTDOWN, EROFS, EISDIR, ENOENT,
                                          ENAMETOOLONG, EINVAL, ENOTDIR, EOPNOTSUPP, EINTR, EXDEV, ELOOP, ETXTBSY}),
                           .path = place.path,
                           .skip = random.below(place.skips)};
    if (rule.function == "ioctl" && random.oneIn(2)) { // a clone that succeeds
        rule.error = 0;
        rule.result = 0;
        rule.answers = true;
    }
    return rule;
}

void drawFile(Random &random, Scene &scene) {
    scene.source = random.oneIn(6) ? random.of({Thing::nothing, Thing::directory, Thing::pipe, Thing::socket,
                                                Thing::linkToFile, Thing::linkToNothing})
                                   : Thing::file;
    scene.destination =
        random.oneIn(2)
            ? Thing::nothing
            : random.of({Thing::file, Thing::file, Thing::file, Thing::directory, Thing::pipe, Thing::socket,
                         Thing::linkToFile, Thing::linkToNothing, Thing::hardLink, Thing::linkToSource});
    scene.dstName = random.of<const char *>({"dst", "dst", "dst", "d:s?t\n*", "missing/dst"});
    if (random.oneIn(40)) {
        scene.dstName = std::string(300, 'n');
    }
    scene.size =
        random.oneIn(15)
            ? random.of<int64_t>({134'217'728, 134'217'729, int64_t{1} << 32, (int64_t{1} << 32) + 1, int64_t{1} << 43})
        : random.oneIn(8) ? 0
                          : random.below(random.of({10, 10'000, 300'000}));
    scene.extents = {{0, std::min<int64_t>(scene.size, 400'000)}};
    if (random.oneIn(3)) {
        const int64_t at = std::min<int64_t>(scene.size, 4096 * random.below(30));
        scene.extents = {{at, std::min<int64_t>(scene.size - at, 4096 * random.below(30))}};
    }
    scene.mode = random.of<mode_t>({0644, 0644, 0600, 0444, 0755, 06755, 02644, 0});
    scene.owner = random.of<uid_t>({0, kSomebody, 1000});
    scene.user = random.oneIn(3) ? kSomebody : 0;
    scene.dosAttributes = random.oneIn(2) ? random.below(8) : 0;
    scene.hasStore = random.oneIn(4);
}

Scene draw(uint32_t seed) {
    Random random(seed);
    Scene scene = {};
    scene.door = random.of({Door::copyI, Door::exI, Door::copy, Door::ex, Door::ex, Door::reflink, Door::reentrant,
                            Door::reentrant, Door::fileOperation, Door::fileOperation, Door::fileOperation});
    drawFile(random, scene);
    const auto type = [&] { return random.of({0, 1, 2, 3, 3, 4, 5, 6, 10, 12, 18, 19, 22}); };
    scene.srcType = type();
    scene.dstType = random.oneIn(3) ? scene.srcType : type();
    if (random.oneIn(20)) {
        (random.oneIn(2) ? scene.srcType : scene.dstType) = -1 - random.below(2);
    }
    // What is about size alone is met only where the kind of volume, or its answer, makes it matter.
    if (scene.size >= int64_t{1} << 32 && random.oneIn(2)) {
        scene.dstType = 0;
    }
    if (scene.size / 2 == 134'217'728 / 2 && random.oneIn(2)) {
        scene.rules.push_back({.function = "fstatfs", .error = EIO, .path = "/to/"});
    }
    scene.typeErrno = random.of({ENOENT, EIO, ENOTDIR, EACCES, ENXIO, ENOMEM});
    scene.typesGiven = random.oneIn(4);
    scene.hasOptions = !random.oneIn(12);
    scene.hasRecord = !random.oneIn(6);
    scene.overwrite = random.of({-1, 0, 0, 1, 1, 1, 2});
    scene.move = random.oneIn(3) ? 1 : 0;
    scene.ownerMode = static_cast<uint32_t>(random.below(3));
    scene.copyAcl = random.oneIn(3) ? 1 : 0;
    scene.enforceInherit = random.oneIn(4) ? 1 : 0;
    scene.cleanArchive = random.oneIn(4) ? 1 : 0;
    scene.uid = random.of<uint32_t>({0, 0, 1000, kSomebody});
    scene.gid = random.of<uint32_t>({0, 0, 1000});
    scene.eaFlags = random.oneIn(4) ? 1 : 0;
    scene.flags = static_cast<uint32_t>(random.below(2048)) & ~128U & (random.oneIn(2) ? ~1U : ~0U);
    scene.sizeLimit = random.oneIn(8) ? 5000 : 0;
    scene.progress = !random.oneIn(4);
    scene.errReport = !random.oneIn(4);
    scene.cancel = random.oneIn(2);
    scene.cancelAt = random.below(5);
    scene.rename = random.oneIn(2);
    scene.renameAnswer = random.below(5);
    scene.readSize = random.oneIn(3);
    scene.readSizeAnswer = random.of<int64_t>({-1, 0, 20'000, 65'537, 9'000'000});
    scene.readWriteData = random.oneIn(8);
    scene.dataAnswer = random.below(3);
    scene.copyFile = random.oneIn(15);
    scene.copyFileAnswer = random.of({0, 0, -1, 7});
    scene.sendfileRefused = random.oneIn(2);
    if (random.oneIn(2)) {
        scene.rules.push_back({.function = "rename", .error = EXDEV, .path = "/from"});
    }
    for (int fault = random.of({0, 0, 1, 1, 2}); fault > 0; --fault) {
        scene.rules.push_back(drawFault(random));
    }
    return scene;
}

bool isFileOperation(const Scene &scene) {
    return scene.door == Door::fileOperation;
}

// ---- The callbacks, made anew for each side, with the same answers

mode_t umaskNow() {
    const mode_t now = ::umask(0);
    ::umask(now);
    return now;
}

struct Answers {
    const Scene &scene;
    std::string root;
    int polls = 0;

    void progress(int64_t bytes, int64_t offset) const {
        note("progress " + std::to_string(bytes) + " " + std::to_string(offset) + " umask " +
             std::to_string(umaskNow()));
    }
    static void errReport(const char *path, uint32_t code) {
        note("report " + std::string(path) + " " + std::to_string(code) + " " + std::to_string(VLIBCErrGet()));
    }
    int cancel() {
        note("cancel?");
        return polls++ >= scene.cancelAt ? -3 : 0;
    }
    int rename(const char *dst, char *out, int size) const {
        note("rename? " + std::string(dst) + " " + std::to_string(size));
        const std::string name = root + "/to/" + (scene.renameAnswer == 0 ? "existing" : "renamed");
        ::snprintf(out, static_cast<size_t>(size), "%s", scene.renameAnswer == 1 ? dst : name.c_str());
        return scene.renameAnswer == 2 ? 1 : 0;
    }
    int64_t readSize(int64_t last, int64_t offset) const {
        note("size? " + std::to_string(last) + " " + std::to_string(offset));
        return scene.readSizeAnswer;
    }
    int readWriteData(const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size) const {
        note("data? " + std::string(src) + " " + dst + " " + std::to_string(size) + " " +
             std::to_string(::lseek(*srcFd, 0, SEEK_CUR)));
        if (scene.dataAnswer == 0) {
            VLIBCErrSetEx(0x1234, "tests/model/callback.c", 1);
            return -5;
        }
        if (scene.dataAnswer == 1) { // others in their place
            ::close(*dstFd);
            *dstFd = ::open(dst, O_WRONLY | O_CLOEXEC);
        }
        return ::write(*dstFd, "written", 7) == 7 ? 1 : 0;
    }
    int copyFile(const char *src, const char *dst) const {
        note("file? " + std::string(src) + " " + dst + " umask " + std::to_string(umaskNow()));
        return scene.copyFileAnswer;
    }
};
Answers *bare = nullptr; // for callbacks without data
Answers &of(void *data) {
    return *static_cast<Answers *>(data);
}

VEXOCopyOpt optionsOf(const Scene &scene) {
    VEXOCopyOpt opt = policyOf(scene);
    opt.enforceInherit = scene.enforceInherit;
    if (scene.progress) {
        opt.progress = [](int64_t bytes, int64_t offset) { bare->progress(bytes, offset); };
    }
    if (scene.errReport) {
        opt.errReport = [](const char *path, uint32_t code) { Answers::errReport(path, code); };
    }
    if (scene.cancel) {
        opt.isCancel = [] { return bare->cancel(); };
    }
    if (scene.rename) {
        opt.rename = [](const char *dst, char *out, int size) { return bare->rename(dst, out, size); };
    }
    return opt;
}

VEXOCopyArgsEx exOf(const Scene &scene) {
    VEXOCopyArgsEx ex = {};
    if (scene.readSize) {
        ex.getReadSize = [](int64_t last, int64_t offset) { return bare->readSize(last, offset); };
    }
    if (scene.readWriteData) {
        ex.readWriteData = [](const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                              VEXOCopyBareProgressFn, VEXOCopyBareIsCancelFn,
                              VEXOCopyArgsEx *) { return bare->readWriteData(src, dst, srcFd, dstFd, size); };
    }
    if (scene.copyFile) {
        ex.copyFile = [](const char *src, const char *dst, VEXOCopyOpt *, int srcType, int dstType, int spare,
                         VEXOCopyArgsEx *) {
            note("types " + std::to_string(srcType) + " " + std::to_string(dstType) + " " + std::to_string(spare));
            return bare->copyFile(src, dst);
        };
    }
    return ex;
}

// The slots that VEXOCopyTHRArgs and VEXOCopyArgs have in common.
template <typename Record>
Record recordOf(const Scene &scene, Answers &given) {
    Record record = {};
    record.progressArg = record.errReportArg = record.isCancelArg = record.renameArg = record.getReadSizeArg =
        record.readWriteDataArg = record.copyFileArg = &given;
    if (scene.progress) {
        record.progress = [](void *data, int64_t bytes, int64_t offset) { of(data).progress(bytes, offset); };
    }
    if (scene.errReport) {
        record.errReport = [](void *, const char *path, uint32_t code) { Answers::errReport(path, code); };
    }
    if (scene.cancel) {
        record.isCancel = [](void *data) { return of(data).cancel(); };
    }
    if (scene.rename) {
        record.rename = [](void *data, const char *dst, char *out, int size) {
            return of(data).rename(dst, out, size);
        };
    }
    if (scene.readSize) {
        record.getReadSize = [](void *data, int64_t last, int64_t offset) { return of(data).readSize(last, offset); };
    }
    return record;
}

VEXOCopyTHRArgs thrOf(const Scene &scene, Answers &given) {
    auto thr = recordOf<VEXOCopyTHRArgs>(scene, given);
    if (scene.readWriteData) {
        thr.readWriteData = [](void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                               VEXOCopyProgressFn, VEXOCopyIsCancelFn,
                               VEXOCopyTHRArgs *) { return of(data).readWriteData(src, dst, srcFd, dstFd, size); };
    }
    if (scene.copyFile) {
        thr.copyFile = [](void *data, const char *src, const char *dst, VEXOCopyOptR *, int srcType, int dstType,
                          int spare, VEXOCopyTHRArgs *) {
            note("types " + std::to_string(srcType) + " " + std::to_string(dstType) + " " + std::to_string(spare));
            return of(data).copyFile(src, dst);
        };
    }
    return thr;
}

VEXOCopyArgs argsOf(const Scene &scene, Answers &given) {
    auto args = recordOf<VEXOCopyArgs>(scene, given);
    args.uid = scene.uid;
    args.gid = scene.gid;
    args.fsTypeSrc = scene.typesGiven ? scene.srcType : -1;
    args.fsTypeDst = scene.typesGiven ? scene.dstType : -1;
    args.dstFsFileSizeLimit = scene.sizeLimit;
    args.cleanArchive = scene.cleanArchive;
    if (scene.readWriteData) {
        args.readWriteData = [](void *data, const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                                VEXOCopyArgs *) { return of(data).readWriteData(src, dst, srcFd, dstFd, size); };
    }
    if (scene.copyFile) {
        args.copyFile = [](void *data, const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *) {
            note("flags " + std::to_string(flags));
            return of(data).copyFile(src, dst);
        };
    }
    return args;
}

VEXOCopyOptR optRof(const Scene &scene) {
    return {.overwrite = scene.overwrite,
            .move = scene.move,
            .stopOnError = 0,
            .ownerMode = scene.ownerMode,
            .copyAcl = scene.copyAcl,
            .enforceInherit = scene.enforceInherit,
            .cleanArchive = scene.cleanArchive,
            .uid = scene.uid,
            .gid = scene.gid};
}

// ---- Both sides

struct Paths {
    std::string src, dst;
};

int64_t callLibrary(const Scene &scene, Answers &given, const Paths &paths) {
    const char *const src = paths.src.c_str();
    const char *const dst = paths.dst.c_str();
    bare = &given;
    VEXOCopyOpt options = optionsOf(scene);
    VEXOCopyOpt *const opt = scene.hasOptions ? &options : nullptr;
    VEXOCopyArgsEx exRecord = exOf(scene);
    VEXOCopyArgsEx *const ex = scene.hasRecord ? &exRecord : nullptr;
    const int srcType = scene.typesGiven ? scene.srcType : -1;
    const int dstType = scene.typesGiven ? scene.dstType : -1;
    switch (scene.door) {
    case Door::copyI:
        return VEXOCopyFileI(src, dst, opt, dstType, 1);
    case Door::exI:
        return VEXOCopyFileExI(src, dst, opt, srcType, dstType, 1, ex);
    case Door::copy:
        return VEXOFileCopy(src, dst, opt);
    case Door::ex:
        return VEXOFileCopyEx(src, dst, opt, ex);
    case Door::reflink:
        return VEXOFileReflinkCopy(src, dst, opt, ex);
    case Door::reentrant: {
        VEXOCopyTHRArgs thr = thrOf(scene, given);
        VEXOCopyOptR optR = optRof(scene);
        return VEXOFileCopy_r(src, dst, scene.hasOptions ? &optR : nullptr, scene.hasRecord ? &thr : nullptr);
    }
    case Door::fileOperation:
        break;
    }
    VEXOCopyArgs args = argsOf(scene, given);
    const int result = VEXOFileOpCopyFile(src, dst, scene.flags, scene.hasRecord ? &args : nullptr);
    note("types " + std::to_string(args.fsTypeSrc) + " " + std::to_string(args.fsTypeDst));
    return result;
}

// The callbacks as the model takes them, where the scene's record of them is given.
void takeCallbacks(FileCall &call, const Scene &scene, Answers &given) {
    if (scene.progress) {
        call.progress = call.loopProgress = [&](int64_t bytes, int64_t offset) { given.progress(bytes, offset); };
    }
    if (scene.errReport) {
        call.errReport = [](const char *path, uint32_t code) { Answers::errReport(path, code); };
    }
    if (scene.cancel) {
        call.isCancel = call.loopIsCancel = call.keepSource = [&] { return given.cancel(); };
    }
    if (scene.rename) {
        call.rename = [&](const char *dst, char *out, int size) { return given.rename(dst, out, size); };
    }
}
void takeDataCallbacks(FileCall &call, const Scene &scene, Answers &given) {
    if (scene.readSize) {
        call.getReadSize = [&](int64_t last, int64_t offset) { return given.readSize(last, offset); };
    }
    if (scene.readWriteData) {
        call.readWriteData = [&](const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size) {
            return given.readWriteData(src, dst, srcFd, dstFd, size);
        };
    }
}

int64_t callModelOfFlags(const Scene &scene, Answers &given, const Paths &paths) {
    VEXOCopyArgs args = argsOf(scene, given);
    int32_t srcType = -1;
    int32_t dstType = -1;
    FileCall call;
    call.fileOperation = true;
    const uint32_t flags = scene.flags;
    call.overwrite = (flags & 1) != 0 ? -1 : (flags & 2) != 0 ? 1 : 0;
    call.move = (flags & 4) != 0;
    call.ownerMode = (flags & 8) != 0 ? 1 : 0;
    call.asCaller = (flags & 16) != 0;
    call.copyAcl = (flags & 32) != 0;
    call.carriesStore = (flags & 256) == 0;
    call.eaMove = call.move ? 1 : 0;
    call.eaFlags = (flags & 512) != 0 ? 1 : 0;
    call.clone = (flags & 1024) != 0;
    call.srcType = scene.hasRecord ? &args.fsTypeSrc : &srcType;
    call.dstType = scene.hasRecord ? &args.fsTypeDst : &dstType;
    if (scene.hasRecord) {
        call.uid = scene.uid;
        call.gid = scene.gid;
        call.sizeLimit = scene.sizeLimit;
        call.args = &args;
        takeCallbacks(call, scene, given);
        takeDataCallbacks(call, scene, given);
    }
    const mode_t before = ::umask(0);
    int result = 0;
    if (scene.hasRecord && scene.copyFile) {
        note("flags " + std::to_string(flags));
        result = given.copyFile(paths.src.c_str(), paths.dst.c_str());
    } else {
        result = copyFile(paths.src, paths.dst, call);
    }
    ::umask(before);
    if (result == 0) {
        afterSteps(paths.src, paths.dst, scene.hasRecord && scene.cleanArchive != 0, (flags & 64) != 0, call.source());
    }
    note("types " + std::to_string(args.fsTypeSrc) + " " + std::to_string(args.fsTypeDst));
    return result;
}

int64_t callModel(const Scene &scene, Answers &given, const Paths &paths) {
    if (isFileOperation(scene)) {
        return callModelOfFlags(scene, given, paths);
    }
    const bool inner = scene.door == Door::copyI || scene.door == Door::exI; // without umask and after-steps
    const bool reentrant = scene.door == Door::reentrant;
    const bool takesEx =
        scene.hasRecord && (scene.door == Door::exI || scene.door == Door::ex || scene.door == Door::reflink);
    bare = &given;
    VEXOCopyArgsEx ex = exOf(scene);
    VEXOCopyTHRArgs thr = thrOf(scene, given);
    int32_t srcType = scene.door == Door::exI && scene.typesGiven ? scene.srcType : -1;
    int32_t dstType = inner && scene.typesGiven ? scene.dstType : -1;
    FileCall call;
    call.srcType = &srcType;
    call.dstType = &dstType;
    call.asCaller = reentrant;
    call.clone = scene.door == Door::reflink;
    if (scene.hasOptions) {
        call.overwrite = scene.overwrite;
        call.move = scene.move != 0;
        call.ownerMode = scene.ownerMode;
        call.copyAcl = scene.copyAcl != 0;
        call.uid = scene.uid;
        call.gid = scene.gid;
        if (!reentrant) {
            call.eaMove = static_cast<int>(scene.move);
            call.eaFlags = static_cast<int>(scene.eaFlags);
        }
    }
    if (reentrant ? scene.hasRecord : scene.hasOptions) {
        takeCallbacks(call, scene, given);
    }
    if (reentrant) {
        call.keepSource = nullptr;
        call.thr = scene.hasRecord ? &thr : nullptr;
    }
    if (takesEx) {
        call.ex = &ex;
    }
    if (takesEx || (reentrant && scene.hasRecord)) {
        takeDataCallbacks(call, scene, given);
    }
    if (inner) {
        return copyFile(paths.src, paths.dst, call);
    }
    const mode_t before = ::umask(0);
    int result = 0;
    if (scene.copyFile && (reentrant ? scene.hasRecord : takesEx)) {
        note("types -1 -1 1");
        result = given.copyFile(paths.src.c_str(), paths.dst.c_str());
    } else {
        result = copyFile(paths.src, paths.dst, call);
    }
    ::umask(before);
    if (result == 0 && scene.hasOptions) {
        afterSteps(paths.src, paths.dst, scene.cleanArchive != 0, scene.enforceInherit != 0, call.source());
    }
    return result;
}

// ---- Building a scene

// Where the path does not let it, nothing is made.
void make(Thing thing, const std::string &path, const std::string &root) {
    switch (thing) {
    case Thing::nothing:
        break;
    case Thing::file:
        if (const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0640); fd >= 0) {
            EXPECT_EQ(5, ::write(fd, "there", 5));
            ::close(fd);
        }
        break;
    case Thing::directory:
        ::mkdir(path.c_str(), 0755);
        break;
    case Thing::pipe:
        ::mkfifo(path.c_str(), 0666);
        break;
    case Thing::socket:
        ::mknod(path.c_str(), S_IFSOCK | 0666, 0);
        break;
    case Thing::linkToFile:
        kit::writeFile(root + "/elsewhere", "elsewhere", 0666);
        static_cast<void>(::symlink((root + "/elsewhere").c_str(), path.c_str()));
        break;
    case Thing::linkToNothing:
        static_cast<void>(::symlink((root + "/to/nowhere").c_str(), path.c_str()));
        break;
    case Thing::hardLink:
        static_cast<void>(::link((root + "/from/src").c_str(), path.c_str()));
        break;
    case Thing::linkToSource:
        static_cast<void>(::symlink((root + "/from/src").c_str(), path.c_str()));
        break;
    }
}

void makeSource(const Scene &scene, const std::string &root) {
    const std::string src = root + "/from/src";
    if (scene.source != Thing::file) {
        make(scene.source, src, root);
        return;
    }
    kit::writeSparse(src, scene.size, scene.extents);
    const int fd = ::open(src.c_str(), O_RDWR | O_CLOEXEC);
    for (int bit = 0; bit < 3; ++bit) {
        if ((scene.dosAttributes >> bit & 1) != 0) {
            EXPECT_EQ(0, VLIBCKernelAttrFcntl(fd, 0x202 + bit));
        }
    }
    ::close(fd);
    const timespec times[] = {{100'000'000, 1}, {200'000'000, 2}, {50'000'000, 3}};
    VLIBCFileUTime(src.c_str(), 3, times);
    EXPECT_EQ(0, ::chown(src.c_str(), scene.owner, scene.owner));
    EXPECT_EQ(0, ::chmod(src.c_str(), scene.mode));
    if (scene.hasStore) {
        ::mkdir((root + "/from/@eaDir").c_str(), 0777);
        kit::writeFile(root + "/from/@eaDir/src@VexoEAStream", "not a stream, but carried all the same");
    }
}

Outcome play(const Scene &scene, const std::string &root, bool library) {
    kit::Faults::reset();
    kit::PlatformDouble::reset();
    for (const std::string &directory : {root, root + "/from", root + "/to"}) {
        ::mkdir(directory.c_str(), 0777);
        ::chmod(directory.c_str(), 0777);
    }
    makeSource(scene, root);
    kit::writeFile(root + "/to/existing", "exists");
    const Paths paths = {root + "/from/src", root + "/to/" + scene.dstName};
    make(scene.destination, paths.dst, root);
    kit::PlatformDouble::setType(root + "/from", scene.srcType, scene.typeErrno);
    kit::PlatformDouble::setType(root + "/to", scene.dstType, scene.typeErrno);
    Observation how = {.root = root, .rules = scene.rules, .readsAndWrites = scene.sendfileRefused, .user = scene.user};
    if (scene.sendfileRefused) {
        how.rules.push_back({.function = "sendfile", .error = EINVAL, .times = 0});
    }
    Answers given = {scene, root};
    return observe(how, [&] { return library ? callLibrary(scene, given, paths) : callModel(scene, given, paths); });
}

TEST(FileModel, AgreesWithTheLibrary) {
    KIT_NEEDS_ROOT("to copy as others");
    forEachSeed(1'000, 20'000, [](uint32_t seed) {
        const kit::ScratchDirectory scratch;
        ::chmod(scratch.path().c_str(), 0755);
        const Scene scene = draw(seed);
        const Outcome expected = play(scene, scratch / "M", false);
        return difference(expected, play(scene, scratch / "L", true));
    });
}

} // namespace
} // namespace model::files
