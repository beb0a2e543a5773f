// Copies, moves and relocations of a tree.
#include "copy/copy.h"
#include "tests/ea/stream_bytes.h"
#include "tests/faults/scene.h"
#include "tests/kit/platform_double.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace faults {
namespace {

const std::set<uint32_t> kTreeCodes = {0x0200, 0x0300, 0x0600, 0x0700, 0x0800, 0x0900, 0x0A00, 0x1100, 0x2400,
                                       0x2600, 0x2700, 0x2900, 0x2A00, 0x3B00, 0x6C00, 0x8000, 0x8400, 0xA000,
                                       0xA200, 0xA300, 0xA400, 0xA600, 0xAA00, 0xC300, 0xFA00};
const std::set<uint32_t> kRelocationCodes = {0x0200, 0x0D00, 0x3900, 0x3A00, 0x3B00,
                                             0x3C00, 0xA600, 0xC300, 0x0600, 0x2900};

void hearOfTrees(const char *, uint32_t) {
    ++reportsHeard;
}

// "tree" with two files, a directory with one, a link, and an attribute stream.
void prepareTree(Scene &scene, bool across) {
    if (across) {
        scene.destinationOn(*otherVolume());
    }
    ::mkdir(scene.from("tree").c_str(), 0750);
    ::mkdir(scene.from("tree/inner").c_str(), 0750);
    ::mkdir(scene.from("tree/@eaDir").c_str(), 0777);
    scene.file("tree/a", scene.to("tree/a"), 3000);
    scene.file("tree/inner/b", scene.to("tree/inner/b"), 3000);
    if (::symlink("a", scene.from("tree/link").c_str()) != 0) {
        throw kit::Unavailable{"no symbolic links"};
    }
    kit::writeFile(scene.from("tree/@eaDir/a@VexoEAStream"),
                   stream::bytes({{"first", scene.piece("stream attribute", 300)}}));
    kit::PlatformDouble::setType(scene.from(), 2);
    kit::PlatformDouble::setType(scene.to(), 2);
}

// What makes the data of a file fail, or those of its store: small ones are read and written, by descriptors.
bool isOfData(const Fault &fault) {
    return isCall(fault, {"read", "write"});
}

// What makes an entry of a tree fail.
bool isOfAnEntry(const Fault &fault) {
    return isCall(fault, {"allocation", "close", "getdents"}) || isOfData(fault) ||
           (isCall(fault, {"mkdir", "rename", "ioctl"}) && fault.error != EXDEV) ||
           (isCall(fault, {"openat", "newfstatat", "statx"}) && !isBelow(fault, "@eaDir"));
}

// What makes the copy of a file's store fail: the way to its stream, and what is done with the open one.
bool isOfAStore(const Fault &fault) {
    const bool isOpen = isCall(fault, {"newfstatat"}) && fault.path.empty();
    return isCall(fault, {"allocation", "close"}) || (isCall(fault, {"getxattr"}) && isAt(fault, "/tree/a")) ||
           isCall(fault, {"fgetxattr", "fchmod"}) || isOfData(fault) || isOpen ||
           (isCall(fault, {"mkdirat", "openat"}) && isAt(fault, "/tree/@eaDir")) ||
           (isCall(fault, {"openat", "newfstatat", "access"}) && isAt(fault, "a@VexoEAStream"));
}

std::string keptOfTree(const Finding &finding, const Report &report) {
    const Fault &fault = finding.fault;
    const bool succeeded = report.finished != 0 && report.result == 0;
    // A tree goes on past an entry that failed, and its result is a success all the same.
    if (succeeded && finding.check == "success is complete" && isOfAnEntry(fault)) {
        return "tree-passes-over-failed-entries";
    }
    if (succeeded && finding.check == "metadata lost" && isOfAStore(fault)) {
        return "metadata-left-behind";
    }
    // A link that fails ends the tree, and only errno says why: the last error is what it was before.
    if (finding.check == "last error" && isAt(fault, "/tree/link") && isCall(fault, {"readlink", "symlink"})) {
        return "failed-link-has-no-code";
    }
    // Renamed, and then not to be looked at: the tree is at its destination.
    if (finding.check == "last error" && report.lastError == 0 && isCall(fault, {"newfstatat"}) &&
        isAt(fault, "/to/tree") && (fault.error == EACCES || fault.error == ENOENT)) {
        return "moved-but-not-looked-up";
    }
    return {};
}

// One that stops on errors goes on past an entry that had an I/O error, whose code is that of one that vanished.
std::string keptOfStopping(const Finding &finding, const Report &report) {
    const bool ended = finding.check == "success is complete" && isOfData(finding.fault) && finding.fault.error != EIO;
    return ended ? std::string() : keptOfTree(finding, report);
}

std::string keptOfRelocation(const Finding &finding, const Report &report) {
    const Fault &fault = finding.fault;
    const bool succeeded = report.finished != 0 && report.result == 0;
    const bool isEntry = finding.check == "data lost" || finding.check == "success is complete";
    const bool isMetadata = finding.check == "metadata lost";
    if (succeeded && ((isEntry && isOfAnEntry(fault)) || (isMetadata && (isOfAnEntry(fault) || isOfAStore(fault))))) {
        return "relocation-drops-what-staging-skipped";
    }
    return {};
}

Operation operation(const std::string &name, bool move, bool across, std::function<int(Scene &)> run) {
    Operation made;
    made.name = name;
    made.prepare = [across](Scene &scene) { prepareTree(scene, across); };
    made.run = std::move(run);
    made.keeps = move ? Keeps::either : Keeps::source;
    made.codes = kTreeCodes;
    made.mostReports = 4; // one for each entry
    made.kept = keptOfTree;
    if (across) {
        made.volume = otherVolume;
    }
    return made;
}

VEXOCopyOpt optionsOf(bool move) {
    VEXOCopyOpt options{};
    options.move = move ? 1 : 0;
    options.overwrite = -1;
    options.ownerMode = 1;
    options.copyAcl = 1;
    options.errReport = hearOfTrees;
    return options;
}

Operation withOptions(const std::string &name, bool move, bool across, const std::function<void(VEXOCopyOpt &)> &set) {
    return operation(name, move, across, [move, set](Scene &scene) {
        VEXOCopyOpt options = optionsOf(move);
        set(options);
        return VEXOFileCopyDirectory(scene.from("tree").c_str(), scene.to("tree").c_str(), &options);
    });
}

Operation withFlags(const std::string &name, bool across, uint32_t flags, bool move) {
    return operation(name, move, across, [flags](Scene &scene) {
        VEXOCopyArgs args{};
        args.fsTypeSrc = args.fsTypeDst = -1;
        return VEXOFileOpCopyDir(scene.from("tree").c_str(), scene.to("tree").c_str(), flags, &args);
    });
}

Operation cloneOperation() {
    Operation made = operation("TreeClone", false, false, [](Scene &scene) {
        VEXOCopyOpt options = optionsOf(false);
        return VEXOFileReflinkCopyDirectory(scene.from("tree").c_str(), scene.to("tree").c_str(), &options);
    });
    made.volume = cloningVolume;
    made.prepare = [](Scene &scene) {
        scene.onVolume(*cloningVolume());
        prepareTree(scene, false);
        kit::PlatformDouble::setType(scene.from(), 3);
        kit::PlatformDouble::setType(scene.to(), 3);
    };
    return made;
}

Operation relocation(Operation made) {
    made.codes = kRelocationCodes;
    made.kept = keptOfRelocation;
    return made;
}

} // namespace

std::vector<Operation> treeOperations() {
    std::vector<Operation> all;
    const auto nothingElse = [](VEXOCopyOpt &) {};
    all.push_back(withOptions("TreeCopy", false, false, nothingElse));
    all.push_back(
        withOptions("TreeCopyStopsOnError", false, false, [](VEXOCopyOpt &options) { options.stopOnError = 1; }));
    all.back().kept = keptOfStopping;
    all.push_back(withOptions("TreeMove", true, false, nothingElse));
    all.push_back(withOptions("TreeMoveAcross", true, true, nothingElse));
    all.push_back(
        withOptions("TreeMoveOverwriteAcross", true, true, [](VEXOCopyOpt &options) { options.overwrite = 1; }));
    all.push_back(operation("TreeCopyEx", false, false, [](Scene &scene) {
        VEXOCopyOpt options = optionsOf(false);
        VEXOCopyArgsEx ex{};
        return VEXOFileCopyDirectoryEx(scene.from("tree").c_str(), scene.to("tree").c_str(), &options, &ex);
    }));
    all.push_back(operation("TreeCopyInternal", false, false, [](Scene &scene) {
        VEXOCopyOpt options = optionsOf(false);
        return VEXOCopyDirectoryI(scene.from("tree").c_str(), scene.to("tree").c_str(), &options, 2, 2);
    }));
    all.push_back(operation("TreeMoveAcrossInternalEx", true, true, [](Scene &scene) {
        VEXOCopyOpt options = optionsOf(true);
        VEXOCopyArgsEx ex{};
        return VEXOCopyDirectoryExI(scene.from("tree").c_str(), scene.to("tree").c_str(), &options, 2, 2, 0, &ex);
    }));
    all.push_back(cloneOperation());
    all.push_back(withFlags("TreeCopyFileOp", false, 1 | 8 | 32, false));
    all.push_back(withFlags("TreeMoveAcrossFileOp", true, 1 | 4 | 8 | 32, true));
    all.push_back(relocation(withFlags("RelocationFileOp", true, 8 | 32 | 0x800, true)));
    all.push_back(relocation(operation("Relocation", true, true, [](Scene &scene) {
        VEXOCopyOpt options{};
        options.ownerMode = 1;
        return VEXOCopyDirToExternal(scene.from("tree").c_str(), scene.to("tree").c_str(), 0, &options);
    })));
    return all;
}

} // namespace faults
