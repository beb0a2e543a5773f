// Copies, moves, overwrites and clones of one file, through every function that makes them.
#include "copy/copy.h"
#include "tests/ea/stream_bytes.h"
#include "tests/faults/scene.h"
#include "tests/kit/platform_double.h"

#include <cerrno>
#include <sys/stat.h>

namespace faults {
namespace {

const std::set<uint32_t> kFileCodes = {0x0200, 0x0300, 0x0600, 0x0700, 0x0800, 0x0900, 0x0A00, 0x1100,
                                       0x2400, 0x2600, 0x2900, 0x2A00, 0x3B00, 0x6C00, 0x8000, 0x8400,
                                       0xA200, 0xA300, 0xA400, 0xA600, 0xAA00, 0xC300, 0xFA00};

constexpr char kUserAttribute[] = "attribute";

void hear(const char *, uint32_t) {
    ++reportsHeard;
}
void hearWithData(void *, const char *, uint32_t) {
    ++reportsHeard;
}

struct Case {
    bool move = false, overwrite = false, across = false;
    int srcType = 2, dstType = 2;
    bool clone = false;
};

// A file with a hole, attributes of its own, an attribute stream and a thumbnail that another service keeps for it.
void prepareFile(Scene &scene, const Case &c) {
    if (c.across) {
        scene.destinationOn(*otherVolume());
    }
    const std::string dst = scene.to("g");
    // Small ones are read and written, large ones moved by the kernel.
    scene.file("f", dst, c.overwrite ? 300'000 : 20'000);
    ::mkdir(scene.from("@eaDir").c_str(), 0777);
    kit::writeFile(scene.from("@eaDir/f@VexoEAStream"),
                   stream::bytes({{"first", scene.piece("stream attribute", 300)}, {"second", "two"}}));
    if (c.srcType != 0) { // FAT has none
        kit::setAttribute(scene.from("f"), "user.note", scene.piece(kUserAttribute, 200));
    }
    if (c.overwrite) {
        scene.old(dst, "what was there before");
    }
    kit::PlatformDouble::setType(scene.from(), c.srcType);
    kit::PlatformDouble::setType(scene.to(), c.dstType);
}

VEXOCopyOpt optionsOf(const Case &c) {
    VEXOCopyOpt options{};
    options.overwrite = c.overwrite ? 1 : -1;
    options.move = c.move ? 1 : 0;
    options.ownerMode = 1;
    options.copyAcl = 1;
    options.cleanArchive = 1;
    options.errReport = hear;
    return options;
}

std::string keptOf(const Case &c, const Finding &finding, const Report &report) {
    const Fault &fault = finding.fault;
    const bool succeeded = report.finished != 0 && report.result == 0;
    // User attributes that cannot be read or set are logged and do not fail the copy, and a move goes on to remove the
    // source with what it kept.
    if (c.move && c.across && succeeded && finding.check == "metadata lost" && finding.detail == kUserAttribute &&
        ((isCall(fault, {"listxattr", "getxattr"}) && isAt(fault, "/f")) ||
         (isCall(fault, {"setxattr"}) && isAt(fault, "/g")) || isCall(fault, {"allocation"}))) {
        return "metadata-left-behind";
    }
    // Renamed, and then not to be looked at: the file is at its destination.
    if (c.move && !c.across && finding.check == "last error" && report.lastError == 0 &&
        isCall(fault, {"newfstatat"}) && isAt(fault, "/g") && (fault.error == EACCES || fault.error == ENOENT)) {
        return "moved-but-not-looked-up";
    }
    return {};
}

Operation operation(const std::string &name, const Case &c, std::function<int(Scene &, const Case &)> run) {
    Operation made;
    made.name = name;
    made.prepare = [c](Scene &scene) { prepareFile(scene, c); };
    made.run = [c, run = std::move(run)](Scene &scene) { return run(scene, c); };
    made.keeps = c.move ? Keeps::either : Keeps::source;
    made.codes = kFileCodes;
    made.kept = [c](const Finding &finding, const Report &report) { return keptOf(c, finding, report); };
    if (c.across) {
        made.volume = otherVolume;
    }
    return made;
}

int runEx(Scene &scene, const Case &c) {
    VEXOCopyOpt options = optionsOf(c);
    VEXOCopyArgsEx ex{};
    return VEXOFileCopyEx(scene.from("f").c_str(), scene.to("g").c_str(), &options, &ex);
}
int runReentrant(Scene &scene, const Case &c) {
    VEXOCopyOptR options{};
    options.overwrite = c.overwrite ? 1 : -1;
    options.move = c.move ? 1 : 0;
    options.ownerMode = 1;
    options.copyAcl = 1;
    VEXOCopyTHRArgs thr{};
    thr.errReport = hearWithData;
    return VEXOFileCopy_r(scene.from("f").c_str(), scene.to("g").c_str(), &options, &thr);
}
int runFileOp(Scene &scene, const Case &c) {
    VEXOCopyArgs args{};
    args.fsTypeSrc = args.fsTypeDst = -1;
    args.errReport = hearWithData;
    args.cleanArchive = 1;
    const uint32_t flags = (c.overwrite ? 2U : 1U) | (c.move ? 4U : 0U) | 8U | 32U | 64U;
    return VEXOFileOpCopyFile(scene.from("f").c_str(), scene.to("g").c_str(), flags, &args);
}

void addDoors(std::vector<Operation> &all, const std::string &what, const Case &c) {
    all.push_back(operation(what + "Ex", c, runEx));
    all.push_back(operation(what + "Reentrant", c, runReentrant));
    all.push_back(operation(what + "FileOp", c, runFileOp));
}

Operation cloneOperation(bool overwrite) {
    const Case c{.overwrite = overwrite, .srcType = 3, .dstType = 3, .clone = true};
    Operation made = operation(overwrite ? "CloneOverwrite" : "Clone", c, [](Scene &scene, const Case &self) {
        VEXOCopyOpt options = optionsOf(self);
        return VEXOFileReflinkCopy(scene.from("f").c_str(), scene.to("g").c_str(), &options, nullptr);
    });
    made.volume = cloningVolume;
    made.prepare = [c](Scene &scene) {
        scene.onVolume(*cloningVolume());
        prepareFile(scene, c);
    };
    return made;
}

} // namespace

std::vector<Operation> fileOperations() {
    std::vector<Operation> all;
    addDoors(all, "Copy", {});
    addDoors(all, "CopyAcross", {.across = true});
    addDoors(all, "Overwrite", {.overwrite = true});
    addDoors(all, "Move", {.move = true});
    addDoors(all, "MoveAcross", {.move = true, .across = true});
    addDoors(all, "MoveOverwriteAcross", {.move = true, .overwrite = true, .across = true});
    all.push_back(operation("CopyToFat", {.across = true, .dstType = 0}, runEx));
    all.push_back(operation("MoveFromFat", {.move = true, .across = true, .srcType = 0}, runEx));
    all.push_back(operation("CopyToEaDirectory", {.across = true, .dstType = 1}, runEx));
    all.push_back(operation("CopyPlain", {}, [](Scene &scene, const Case &c) {
        VEXOCopyOpt options = optionsOf(c);
        return VEXOFileCopy(scene.from("f").c_str(), scene.to("g").c_str(), &options);
    }));
    all.push_back(operation("CopyInternalEx", {}, [](Scene &scene, const Case &c) {
        VEXOCopyOpt options = optionsOf(c);
        return VEXOCopyFileExI(scene.from("f").c_str(), scene.to("g").c_str(), &options, 2, 2, 0, nullptr);
    }));
    all.push_back(operation("CopyInternal", {}, [](Scene &scene, const Case &c) {
        VEXOCopyOpt options = optionsOf(c);
        return VEXOCopyFileI(scene.from("f").c_str(), scene.to("g").c_str(), &options, 2, 0);
    }));
    all.push_back(cloneOperation(false));
    all.push_back(cloneOperation(true));
    return all;
}

} // namespace faults
