// The copies and moves of a tree, through both families' front doors, beside their model.
#include "copy/copy.h"

#include "tests/model/harness.h"
#include "tests/model/policy.h"
#include "tests/model/tree_model.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace model::trees {
namespace {

enum class Door { exI, ex, plain, reflink, fileOperation };

struct Node {
    std::string path; // below the tree
    char kind;        // 'd'irectory, 'f'ile, 'l'ink, 'p'ipe, 's'tore of the entry that the path names
    mode_t mode;
    uid_t owner;
    int dosAttributes;
};

// One scene: all that is drawn, before anything is built.
struct Scene {
    Door door;
    std::vector<Node> nodes, there; // of the source, and of a destination that is there
    char destination;               // '-' nothing, 'd'irectory, 'f'ile, 'l'ink to a directory, 'n' dangling link
    std::string srcName, dstName;
    mode_t topMode, umask;
    int srcKind, dstKind;
    bool hidesTypes, hasOptions, hasRecord;
    int overwrite;
    uint32_t move, stop, ownerMode, copyAcl, cleanArchive, uid, gid, eaFlags, eaCopy, flags;
    bool progress, errReport, cancel, dirSize, names, copyFile;
    int cancelAt, nameAnswer, copyAnswer;
    std::vector<kit::FaultRule> rules;
};

std::vector<Node> drawNodes(Random &random, bool links) {
    std::vector<Node> nodes;
    std::vector<std::string> directories = {""};
    const int count = random.below(random.of({1, 8, 20}));
    for (int n = 0; n < count; ++n) {
        const std::string parent = directories[static_cast<size_t>(random.below(static_cast<int>(directories.size())))];
        const std::string name = random.of<const char *>(
            {"a", "b", "c", "d", "e", "f", "g", "h?x", "._h", "@tmp", "@eaDir", "line\nfeed", "._"});
        const std::string path = parent + "/" + name;
        if (std::any_of(nodes.begin(), nodes.end(), [&](const Node &node) { return node.path == path; })) {
            continue;
        }
        const char kind = random.of({'d', 'd', 'f', 'f', 'f', 's', links ? 'l' : 'f', 'p'});
        nodes.push_back({path, name == "@eaDir" ? 'd' : kind,
                         random.of<mode_t>({0755, 0700, 0777, 02755, 04755, 01777, 06711, 0555}),
                         random.of<uid_t>({0, 0, 12345}), random.oneIn(4) ? random.below(8) : 0});
        if (nodes.back().kind == 'd') {
            directories.push_back(path);
        }
    }
    if (random.oneIn(12)) { // deeper than a walk keeps open
        std::string path = directories.back();
        for (int level = 0; level < 20; ++level) {
            path += "/d" + std::to_string(level);
            nodes.push_back({path, 'd', 0755, 0, 0});
            nodes.push_back({path + "/f1", 'f', 0644, 0, 0});
            nodes.push_back({path + "/f2", 'f', 0644, 0, 0});
        }
    }
    return nodes;
}

kit::FaultRule drawFault(Random &random, const Scene &scene) {
    const std::string node =
        scene.nodes.empty() || random.oneIn(3)
            ? ""
            : scene.nodes[static_cast<size_t>(random.below(static_cast<int>(scene.nodes.size())))].path;
    const std::string from = "/from/tree" + node;
    const std::string to = "/to/" + scene.dstName + node;
    const std::pair<const char *, std::string> places[] = {{"rename", from},
                                                           {"opendir", from},
                                                           {"opendir", to},
                                                           {"VLIBCFileStat", from},
                                                           {"mkdir", to},
                                                           {"VLIBCFileFStat", from},
                                                           {"readdir", from},
                                                           {"readlink", from},
                                                           {"symlink", from},
                                                           {"unlink", from},
                                                           {"fchown", to},
                                                           {"fchmod", to},
                                                           {"VLIBCFileUTime", to},
                                                           {"VEXOACLCopy", from},
                                                           {"VEXOACLArchiveCopy", from},
                                                           {"VLIBCExec", "/bin/rm"},
                                                           {"remove", from},
                                                           {"VLIBCFileLStat", from},
                                                           {"VLIBCKernelAttrFcntl", ""}};
    const auto &[function, path] = places[static_cast<size_t>(random.below(static_cast<int>(std::size(places))))];
    return {.function = function,
            .error = random.of({EIO, ENXIO, EACCES, EPERM, ENOSPC, EDQUOT, EHOSTDOWN, EROFS, ENOENT, ENAMETOOLONG,
                                EINVAL, ENOTDIR, EOPNOTSUPP, EXDEV, ELOOP, EMFILE, EBUSY, EEXIST, ENOTEMPTY}),
            .path = path,
            .times = 0};
}

Scene draw(uint32_t seed) {
    Random random(seed);
    Scene scene = {};
    scene.door = random.of({Door::exI, Door::ex, Door::plain, Door::reflink, Door::fileOperation, Door::fileOperation,
                            Door::fileOperation});
    scene.srcKind = random.of({1, 1, 1, 2, 3, 6, 10, 12});
    scene.dstKind = random.of({1, 1, 1, 2, 3, 0, 10, 12, 18});
    const bool links = random.oneIn(3);
    scene.nodes = drawNodes(random, links);
    scene.destination = random.of({'-', '-', '-', 'd', 'd', 'd', 'f', 'l', 'n'});
    if (scene.destination == 'd') {
        scene.there = drawNodes(random, links);
    }
    scene.srcName = random.of<const char *>({"tree", "tree", "tree", "tree", "tree/", "tree/.", "missing", "link"});
    scene.dstName = random.of<const char *>({"copy", "copy", "copy", "copy", "co?y", "no/copy"});
    scene.topMode = random.of<mode_t>({0755, 0755, 02755, 06755, 0700});
    scene.umask = random.of<mode_t>({022, 0, 077});
    scene.hidesTypes = random.oneIn(8);
    scene.hasOptions = !random.oneIn(6);
    scene.hasRecord = !random.oneIn(4);
    scene.overwrite = random.of({0, 1, 1, -1, 2});
    scene.move = random.oneIn(3) ? 1 : 0;
    scene.stop = random.oneIn(3) ? 1 : 0;
    scene.ownerMode = static_cast<uint32_t>(random.below(3));
    scene.copyAcl = random.oneIn(3) ? 1 : 0;
    scene.cleanArchive = random.oneIn(3) ? 1 : 0;
    scene.uid = random.of<uint32_t>({0, 0, 500});
    scene.gid = random.of<uint32_t>({0, 0, 501});
    scene.eaFlags = random.oneIn(5) ? 1 : 0;
    scene.eaCopy = static_cast<uint32_t>(random.below(3));
    scene.flags = static_cast<uint32_t>((random.oneIn(4) ? 0x100 : 0) | (random.oneIn(4) ? 0x200 : 0));
    scene.progress = !random.oneIn(4);
    scene.errReport = !random.oneIn(4);
    scene.cancel = random.oneIn(3);
    scene.cancelAt = random.below(20);
    scene.dirSize = random.oneIn(2);
    scene.names = random.oneIn(5);
    scene.nameAnswer = random.of({0, 3, -1});
    scene.copyFile = random.oneIn(4);
    scene.copyAnswer = random.of({0, 1, -1, -2});
    if (scene.move != 0 && random.oneIn(2)) {
        scene.rules.push_back({.function = "rename", .error = EXDEV, .path = "/from/", .times = 0});
    }
    if (random.oneIn(2)) {
        scene.rules.push_back(drawFault(random, scene));
    }
    return scene;
}

struct Paths {
    std::string root, src, dst;
};

// The callbacks, made anew for each side, with the same answers.
struct Answers {
    const Scene &scene;
    int polls = 0;

    int cancel() {
        note("cancel?");
        return polls++ == scene.cancelAt ? 1 : 0;
    }
    int name(const char *name, char *out, int size) const {
        note(std::string("name? ") + name);
        std::snprintf(out, static_cast<size_t>(size), "%s_", name);
        return scene.nameAnswer;
    }
    int copyFile(const char *src, const char *dst) const {
        note(std::string("copy ") + src + " " + dst);
        if (scene.copyAnswer < 0) {
            VLIBCErrSetEx(scene.copyAnswer == -1 ? 0x0600 : 0x1234, "callback", 1);
        }
        return scene.copyAnswer;
    }
    int64_t dirSize(const char *src, const char *dst) const {
        note(std::string("size? ") + src + " " + dst);
        return 4711;
    }
};
Answers *bare = nullptr;

VEXOCopyOpt optOf(const Scene &scene) {
    VEXOCopyOpt opt = policyOf(scene);
    opt.stopOnError = scene.stop;
    opt.eaCopy = scene.eaCopy;
    if (scene.progress) {
        opt.progress = [](int64_t bytes, int64_t offset) {
            note("progress " + std::to_string(bytes) + " " + std::to_string(offset));
        };
    }
    if (scene.errReport) {
        opt.errReport = [](const char *path, uint32_t code) {
            note(std::string("error ") + path + " " + std::to_string(code));
        };
    }
    if (scene.cancel) {
        opt.isCancel = [] { return bare->cancel(); };
    }
    return opt;
}

VEXOCopyArgsEx exOf(const Scene &scene) {
    VEXOCopyArgsEx ex = {};
    VEXOCopyArgsExSetSrcCodePage(&ex, "one");
    if (scene.dirSize) {
        ex.getDirSize = [](const char *src, const char *dst) { return bare->dirSize(src, dst); };
    }
    if (scene.names) {
        ex.getDstFileName = [](const char *name, const char *src, const char *dst, char *out, int size) {
            note(std::string("pages ") + src + " " + dst);
            return bare->name(name, out, size);
        };
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

VEXOCopyArgs argsOf(const Scene &scene, Answers &given) {
    VEXOCopyArgs args = {};
    args.uid = scene.uid;
    args.gid = scene.gid;
    args.fsTypeSrc = scene.srcKind;
    args.fsTypeDst = scene.dstKind;
    args.dstFsFileSizeLimit = uint64_t{1} << 40;
    args.cleanArchive = scene.cleanArchive;
    args.progressArg = args.errReportArg = args.isCancelArg = args.copyFileArg = args.getDirSizeArg =
        args.getDstFileNameArg = &given;
    if (scene.progress) {
        args.progress = [](void *, int64_t bytes, int64_t offset) {
            note("progress " + std::to_string(bytes) + " " + std::to_string(offset));
        };
    }
    if (scene.errReport) {
        args.errReport = [](void *, const char *path, uint32_t code) {
            note(std::string("error ") + path + " " + std::to_string(code));
        };
    }
    if (scene.cancel) {
        args.isCancel = [](void *data) { return static_cast<Answers *>(data)->cancel(); };
    }
    if (scene.dirSize) {
        args.getDirSize = [](void *data, const char *src, const char *dst) {
            return static_cast<Answers *>(data)->dirSize(src, dst);
        };
    }
    if (scene.names) {
        args.getDstFileName = [](void *data, const char *name, char *out, int size) {
            return static_cast<Answers *>(data)->name(name, out, size);
        };
    }
    if (scene.copyFile) {
        args.copyFile = [](void *data, const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *) {
            note("flags " + std::to_string(flags));
            return static_cast<Answers *>(data)->copyFile(src, dst);
        };
    }
    return args;
}

uint32_t flagsOf(const Scene &scene) {
    return scene.flags |
           (scene.overwrite == -1  ? 1U
            : scene.overwrite == 1 ? 2U
                                   : 0U) |
           (scene.move != 0 ? 4U : 0U) | (scene.ownerMode == 1 ? 8U : 0U) | (scene.copyAcl != 0 ? 0x20U : 0U) |
           (scene.stop != 0 ? 0x80U : 0U);
}

int64_t run(const Scene &scene, Answers &given, const Paths &paths, bool library) {
    bare = &given;
    const char *const src = paths.src.c_str();
    const char *const dst = paths.dst.c_str();
    VEXOCopyOpt opt = optOf(scene);
    VEXOCopyArgsEx ex = exOf(scene);
    VEXOCopyArgs args = argsOf(scene, given);
    TreeCall call;
    call.srcKind = scene.srcKind;
    call.dstKind = scene.dstKind;
    call.fileOperation = scene.door == Door::fileOperation;
    call.clone = scene.door == Door::reflink;
    call.flags = flagsOf(scene);
    call.args = &args;
    call.opt = scene.hasOptions ? &opt : nullptr;
    call.ex = scene.hasRecord && (scene.door == Door::ex || scene.door == Door::exI) ? &ex : nullptr;
    if (!library) {
        const mode_t before = ::umask(0);
        if (scene.door == Door::exI) {
            ::umask(before);
        }
        const int result = copyTree(src, dst, call);
        ::umask(before);
        return result;
    }
    switch (scene.door) {
    case Door::exI:
        return VEXOCopyDirectoryExI(src, dst, call.opt, scene.srcKind, scene.dstKind, 7, call.ex);
    case Door::ex:
        return VEXOFileCopyDirectoryEx(src, dst, call.opt, call.ex);
    case Door::plain:
        return VEXOFileCopyDirectory(src, dst, call.opt);
    case Door::reflink:
        return VEXOFileReflinkCopyDirectory(src, dst, call.opt);
    case Door::fileOperation:
        return VEXOFileOpCopyDir(src, dst, call.flags, &args);
    }
    return -2;
}

void setOld(const std::string &path) {
    const timespec times[] = {{100'000'000, 1}, {200'000'000, 2}, {50'000'000, 3}};
    VLIBCFileUTime(path.c_str(), 3, times);
}

void build(const std::string &top, const std::vector<Node> &nodes) {
    for (const Node &node : nodes) {
        const std::string path = top + node.path;
        const std::string parent = path.substr(0, path.rfind('/'));
        switch (node.kind) {
        case 'd':
            ::mkdir(path.c_str(), 0777);
            break;
        case 'f':
            kit::writeFile(path, "of " + node.path);
            setOld(path);
            break;
        case 'l':
            static_cast<void>(::symlink("anywhere", path.c_str()));
            continue;
        case 'p':
            ::mkfifo(path.c_str(), 0666);
            continue;
        default:
            kit::writeFile(path, "has a store");
            setOld(path);
            ::mkdir((parent + "/@eaDir").c_str(), 0777);
            kit::writeFile(parent + "/@eaDir" + path.substr(parent.size()) + "@VexoEAStream", "no stream, but carried");
        }
        if (node.dosAttributes != 0) {
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            for (int bit = 0; bit < 3; ++bit) {
                if ((node.dosAttributes >> bit & 1) != 0) {
                    VLIBCKernelAttrFcntl(fd, 0x202 + bit);
                }
            }
            ::close(fd);
        }
    }
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
        if (node->kind == 'd') {
            const std::string path = top + node->path;
            static_cast<void>(::chown(path.c_str(), node->owner, node->owner));
            ::chmod(path.c_str(), node->mode);
            setOld(path);
        }
    }
}

Outcome play(const Scene &scene, const std::string &root, bool library) {
    kit::Faults::reset();
    kit::PlatformDouble::reset();
    for (const char *directory : {"", "/from", "/to", "/from/tree", "/elsewhere"}) {
        ::mkdir((root + directory).c_str(), 0777);
    }
    static_cast<void>(::symlink("tree", (root + "/from/link").c_str()));
    build(root + "/from/tree", scene.nodes);
    ::chmod((root + "/from/tree").c_str(), scene.topMode);
    setOld(root + "/from/tree");
    const std::string dst = root + "/to/" + scene.dstName;
    switch (scene.destination) {
    case 'd':
        ::mkdir(dst.c_str(), 0750);
        if (kit::exists(dst)) {
            build(dst, scene.there);
        }
        break;
    case 'f':
        if (scene.dstName.find('/') == std::string::npos) {
            kit::writeFile(dst, "a file");
        }
        break;
    case 'l':
        static_cast<void>(::symlink("../elsewhere", dst.c_str()));
        break;
    case 'n':
        static_cast<void>(::symlink("../nowhere", dst.c_str()));
        break;
    default:
        break;
    }
    kit::PlatformDouble::setType(root + "/from", scene.srcKind);
    kit::PlatformDouble::setType(root + "/to", scene.dstKind);
    const Paths paths = {root, root + "/from/" + scene.srcName, dst};
    Answers given = {scene};
    Outcome seen = observe({.root = root, .rules = scene.rules}, [&] {
        kit::Faults::hideEntryTypes(scene.hidesTypes);
        const mode_t before = ::umask(scene.umask);
        const int64_t result = run(scene, given, paths, library);
        ::umask(before);
        kit::Faults::hideEntryTypes(false);
        return result;
    });
    // A walk knows more of its files than the single-file copy that the model calls, and asks less.
    std::erase_if(seen.calls, [](const std::string &call) {
        const std::string name = call.substr(0, call.find('('));
        return name != "rename" && name != "remove" && name != "VLIBCExec" && name != "VLIBGetFullDirSize";
    });
    return seen;
}

TEST(TreeModel, AgreesWithTheLibrary) {
    KIT_NEEDS_ROOT("to give directories away");
    forEachSeed(250, 20'000, [](uint32_t seed) {
        const kit::ScratchDirectory scratch;
        ::chmod(scratch.path().c_str(), 0755);
        const Scene scene = draw(seed);
        const Outcome expected = play(scene, scratch / "M", false);
        return difference(expected, play(scene, scratch / "L", true));
    });
}

} // namespace
} // namespace model::trees
