// Copies, moves and relocations of a tree.
#include "copy/copy.h"
#include "tests/ea/stream_bytes.h"
#include "tests/faults/scene.h"
#include "tests/kit/platform_double.h"

#include <sys/stat.h>
#include <unistd.h>

namespace faults {
namespace {

const std::set<uint32_t> kTreeCodes = {0x0200, 0x0300, 0x0600, 0x0700, 0x0800, 0x0900, 0x0A00, 0x1100, 0x2400,
                                       0x2600, 0x2700, 0x2900, 0x2A00, 0x3B00, 0x6C00, 0x8000, 0x8400, 0xA000,
                                       0xA200, 0xA300, 0xA400, 0xA600, 0xAA00, 0xC300, 0xFA00};
const std::set<uint32_t> kRelocationCodes = {0x0200, 0x3900, 0x3A00, 0x3B00, 0x3C00, 0xA600, 0xC300, 0x0600, 0x2900};

void hear(const char *, uint32_t) {
    ++reportsHeard;
}

const kit::Volume *otherVolume() {
    static auto *volume = new kit::Volume(kit::Volume::tmpfs(16 << 20));
    return volume;
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

// A tree goes on past an entry that failed, and its result is a success all the same.
std::string keptOf(const Finding &finding, const Report &report) {
    if (finding.check == "success is complete" && report.finished != 0 && report.result == 0) {
        return "tree-passes-over-failed-entries";
    }
    if (finding.check == "metadata lost" && report.finished != 0 && report.result == 0) {
        return "metadata-left-behind";
    }
    // A link that fails ends the tree, and only errno says why.
    if (finding.check == "last error" && finding.detail == "0x0000" &&
        finding.point.find("link(") != std::string::npos) {
        return "failed-link-has-no-code";
    }
    // Renamed, and then not to be looked at: the file is at its destination.
    if (finding.check == "last error" && finding.detail == "0x0000" &&
        finding.point.find("stat") != std::string::npos) {
        return "moved-but-not-looked-up";
    }
    return {};
}

std::string keptOfRelocation(const Finding &finding, const Report &report) {
    if ((finding.check == "data lost" || finding.check == "metadata lost") && report.finished != 0 &&
        report.result == 0) {
        return "relocation-drops-what-staging-skipped";
    }
    if (finding.check == "success is complete" && report.finished != 0 && report.result == 0) {
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
    made.kept = keptOf;
    if (across) {
        made.volume = otherVolume;
    }
    return made;
}

Operation withOptions(const std::string &name, bool move, bool across, bool stopOnError) {
    return operation(name, move, across, [move, stopOnError](Scene &scene) {
        VEXOCopyOpt options{};
        options.move = move ? 1 : 0;
        options.overwrite = -1;
        options.ownerMode = 1;
        options.copyAcl = 1;
        options.stopOnError = stopOnError ? 1 : 0;
        options.errReport = hear;
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

Operation relocation(Operation made) {
    made.codes = kRelocationCodes;
    made.kept = keptOfRelocation;
    return made;
}

} // namespace

std::vector<Operation> treeOperations() {
    std::vector<Operation> all;
    all.push_back(withOptions("TreeCopy", false, false, false));
    all.push_back(withOptions("TreeCopyStopsOnError", false, false, true));
    all.push_back(withOptions("TreeMove", true, false, false));
    all.push_back(withOptions("TreeMoveAcross", true, true, false));
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
