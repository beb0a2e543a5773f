// The operations on the extended-attribute store: copy between every two kinds of volume, rename, removal, upgrade, the
// stream file, attributes, Finder Info and the archive bit.
#include "backup/backup.h"
#include "ea/ea.h"
#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/faults/scene.h"
#include "tests/kit/fork_double.h"
#include "tests/kit/native_double.h"
#include "tests/kit/platform_double.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace faults {
namespace {

constexpr char kStream[] = "VexoEAStream";
constexpr char kResource[] = "VexoResource";
constexpr char kThumbnail[] = "thumbnail";
using Kind = std::pair<const char *, int>;
constexpr int kFileEa = 2, kEaDirectory = 1, kFat = 0, kNative = 7;

// A resource file or "._" file: Finder Info, and behind it the fork.
std::string withFork(const std::string &fork) {
    return adouble_bytes::header({{9, 50, 32}, {2, 82, static_cast<uint32_t>(fork.size())}}, 82) + fork;
}

// What belongs to from()/f on a volume of that kind.
void putStore(Scene &scene, int kind) {
    kit::writeFile(scene.from("f"), "data");
    kit::PlatformDouble::setType(scene.from(), kind);
    kit::PlatformDouble::setType(scene.to(), kind);
    const std::string fork = scene.piece("resource fork", 500);
    const std::string value = scene.piece("stream attribute", 300);
    if (kind == kFat) {
        kit::writeFile(scene.from("._f"), stream::bytes({{"user.first", value}, {"user.second", "two"}}, 500) + fork);
        return;
    }
    if (kind == kNative) {
        kit::NativeDouble::setVolume(scene.from());
        kit::setAttribute(scene.from("f"), "user.fork", fork);
        kit::setAttribute(scene.from("f"), "user.first", value);
        return;
    }
    ::mkdir(scene.from("@eaDir").c_str(), 0777);
    kit::writeFile(scene.from("@eaDir/f@VexoEAStream"), stream::bytes({{"user.first", value}, {"user.second", "two"}}));
    kit::writeFile(scene.from("@eaDir/f@VexoResource"), withFork(fork));
    if (kind == kFileEa) {
        kit::setAttribute(scene.from("f"), "user.netatalk.Metadata", adouble_bytes::metadata());
    }
}

// Its own, those of the transfer, of the streams and of the attributes; where only errno tells why, none.
const std::set<uint32_t> kCopyCodes = {0,      0x0100, 0x0200, 0x0300, 0x0400, 0x0600, 0x0700, 0x0900,
                                       0x0A00, 0x0B00, 0x2000, 0x2400, 0x2600, 0x2700, 0x2900, 0x2A00,
                                       0x3900, 0x3B00, 0x3C00, 0x6C00, 0x8000, 0xAA00, 0xC300};

// A change rewrites the stream file in place; one that fails is undone, one that is killed is not.
std::string keptOfChange(const Finding &finding, const Report &) {
    if (isCall(finding.fault, {"kill"}) && (finding.check == "metadata lost" || finding.check == "again succeeds")) {
        return "stream-change-is-not-atomic";
    }
    return {};
}

// The way to what lies in the own directory of f or g, which is gone from "@eaDir" on by names alone.
bool isOnTheWay(const Fault &fault, const std::string &side, const std::string &name) {
    return isCall(fault, {"openat"}) && (isAt(fault, side + "/@eaDir") || fault.path == name);
}

// One of these files, by its name or open.
bool isOfThumbnail(const Fault &fault) {
    return (isCall(fault, {"openat", "newfstatat", "renameat"}) && isAt(fault, kThumbnail)) ||
           (isCall(fault, {"newfstatat"}) && fault.path.empty());
}

// What cannot be asked for is taken to be none; what lies in the file's own directory is no reason to fail.
std::string keptOfCopy(const Finding &finding, const Report &report) {
    const Fault &fault = finding.fault;
    if (finding.check != "success carries metadata" || report.finished == 0 || report.result != 0) {
        return {};
    }
    if (finding.detail == kThumbnail) {
        const bool isItsDirectory = isCall(fault, {"newfstatat"}) && fault.path == "f";
        const bool isItsWay = isOnTheWay(fault, "/from", "f") || isOnTheWay(fault, "/to", "g");
        const bool isItsCopy = isCall(fault, {"getdents", "read", "write", "allocation"});
        return isItsDirectory || isItsWay || isOfThumbnail(fault) || isItsCopy ? "store-copy-passes-over-attributes"
                                                                               : "";
    }
    const bool isStore = isAt(fault, "/f@VexoResource") || isAt(fault, "/f@VexoEAStream") || isAt(fault, "/._f");
    const bool isAsked = isCall(fault, {"access"}) || (isCall(fault, {"newfstatat"}) && fault.error == EACCES);
    return isStore && isAsked ? "store-copy-passes-over-attributes" : "";
}

Operation copy(const std::string &name, int srcKind, int dstKind, bool move) {
    Operation made;
    made.name = name;
    made.prepare = [=](Scene &scene) {
        putStore(scene, srcKind);
        kit::PlatformDouble::setType(scene.to(), dstKind);
        if (dstKind == kNative) {
            kit::NativeDouble::setVolume(scene.to());
            kit::ForkDouble::make(scene.to("g"), "");
        } else {
            kit::writeFile(scene.to("g"), "data");
        }
    };
    made.run = [=](Scene &scene) {
        return VEXOEACopy(scene.from("f").c_str(), scene.to("g").c_str(), move ? 1 : 0, 0, srcKind, dstKind, 0, 0);
    };
    made.keeps = move ? Keeps::either : Keeps::source;
    made.carriesMetadata = true;
    made.codes = kCopyCodes;
    made.kept = keptOfCopy;
    return made;
}

// A move gives up what it cannot carry of the file's own directory, but nothing for want of descriptors or memory on
// the way there.
std::string keptOfDirectoryMove(const Finding &finding, const Report &report) {
    const Fault &fault = finding.fault;
    const bool isWant = fault.error == EMFILE || fault.error == ENOMEM;
    const bool isDestination = isCall(fault, {"fchmod"}) ||
                               (isCall(fault, {"mkdirat"}) && (fault.path == "g" || isAt(fault, "/to/@eaDir"))) ||
                               isOnTheWay(fault, "/to", "g");
    const bool isItself = isOfThumbnail(fault) || isOnTheWay(fault, "/from", "f");
    const bool isItsCopy = isCall(fault, {"read", "write", "allocation"});
    if (finding.check == "metadata lost" && finding.detail == kThumbnail && !isWant &&
        (isDestination || isItself || isItsCopy)) {
        return "move-gives-up-the-own-directory";
    }
    return keptOfCopy(finding, report);
}

// Copies through the other doors, of a store with a file of another service in the file's own directory.
Operation withDirectory(const std::string &name, bool move, std::function<int(Scene &)> run) {
    Operation made = copy(name, kFileEa, kFileEa, move);
    made.prepare = [plain = made.prepare](Scene &scene) {
        plain(scene);
        ::mkdir(scene.from("@eaDir/f").c_str(), 0777);
        kit::writeFile(scene.from("@eaDir/f/thumbnail"), scene.piece(kThumbnail, 300));
    };
    made.run = std::move(run);
    if (move) {
        made.kept = keptOfDirectoryMove;
    }
    return made;
}

// A caller's own copy of one file of the store.
int copyEa(const char *from, const char *to) {
    const int src = ::open(from, O_RDONLY | O_CLOEXEC);
    const int dst = src < 0 ? -1 : ::open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    std::array<char, 4096> bytes{};
    const ssize_t got = dst < 0 ? -1 : ::read(src, bytes.data(), bytes.size());
    const bool copied = got >= 0 && ::write(dst, bytes.data(), static_cast<size_t>(got)) == got;
    for (const int fd : {src, dst}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return copied ? 0 : -1;
}
int copyEaWithData(void *, const char *from, const char *to) {
    return copyEa(from, to);
}

void addCopiesWithDirectory(std::vector<Operation> &all) {
    all.push_back(withDirectory("StoreCopyWithDirectory", false, [](Scene &scene) {
        return VEXOEACopy(scene.from("f").c_str(), scene.to("g").c_str(), 0, 0, kFileEa, kFileEa, 0, 0);
    }));
    all.push_back(withDirectory("StoreMoveWithDirectory", true, [](Scene &scene) {
        return VEXOEACopy(scene.from("f").c_str(), scene.to("g").c_str(), 1, 0, kFileEa, kFileEa, 0, 0);
    }));
    all.push_back(withDirectory("StoreCopyEx", false, [](Scene &scene) {
        return VEXOEACopyEx(scene.from("f").c_str(), scene.to("g").c_str(), 0, 1, kFileEa, kFileEa, 0, 0, copyEa);
    }));
    all.push_back(withDirectory("StoreCopyInternal", false, [](Scene &scene) {
        VEXOCopyTHRArgs thr{};
        thr.copyEA = copyEaWithData;
        return VEXOEACopyInternal(scene.from("f").c_str(), scene.to("g").c_str(), 0, 1, kFileEa, kFileEa, nullptr, &thr,
                                  nullptr);
    }));
    all.push_back(withDirectory("StoreMoveInternal", true, [](Scene &scene) {
        VEXOCopyArgs args{};
        args.copyEA = copyEaWithData;
        return VEXOEACopyInternal(scene.from("f").c_str(), scene.to("g").c_str(), 1, 1, kFileEa, kFileEa, nullptr,
                                  nullptr, &args);
    }));
}

Operation onStore(const std::string &name, int kind, Keeps keeps, std::set<uint32_t> codes,
                  std::function<int(Scene &)> run) {
    Operation made;
    made.name = name;
    made.prepare = [=](Scene &scene) { putStore(scene, kind); };
    made.run = std::move(run);
    made.keeps = keeps;
    made.codes = std::move(codes);
    return made;
}

// ---- Rename, removal, upgrade ----

void addRenames(std::vector<Operation> &all) {
    const std::set<uint32_t> codes = {0x0100, 0x0200, 0x2800, 0x2A00, 0x3C00, 0xC300};
    for (const Kind &each : {Kind{"FileEa", kFileEa}, Kind{"EaDirectory", kEaDirectory}, Kind{"Fat", kFat}}) {
        const auto &[name, code] = each;
        const int kind = code;
        Operation made = onStore(std::string("Rename") + name, kind, Keeps::either, codes, [kind](Scene &scene) {
            return VEXOEARename(scene.from("f").c_str(), scene.to("g").c_str(), kind, 0);
        });
        made.carriesMetadata = kind != kFat;
        all.push_back(made);
    }
    all.push_back(onStore("RenameStream", kFileEa, Keeps::either, codes, [](Scene &scene) {
        return VEXOEARenameByStream(scene.from("f").c_str(), scene.to("g").c_str(), kFileEa, kStream);
    }));
}

void addRemovals(std::vector<Operation> &all) {
    const std::set<uint32_t> codes = {0x0200, 0x2A00, 0x3900, 0xC300};
    for (const Kind &each : {Kind{"FileEa", kFileEa}, Kind{"Fat", kFat}}) {
        const auto &[name, code] = each;
        const int kind = code;
        all.push_back(onStore(std::string("Remove") + name, kind, Keeps::nothing, codes,
                              [kind](Scene &scene) { return VEXOEARemove(scene.from("f").c_str(), kind); }));
    }
    all.push_back(onStore("RemoveKeepingStream", kFileEa, Keeps::nothing, codes,
                          [](Scene &scene) { return VEXOEARemoveWithoutEAStream(scene.from("f").c_str(), kFileEa); }));
    all.push_back(onStore("RemoveStreams", kFileEa, Keeps::nothing, codes,
                          [](Scene &scene) { return EARemove(1, scene.from("f").c_str()); }));
}

void addDirectoryRemovals(std::vector<Operation> &all) {
    const std::set<uint32_t> none = {0};
    Operation directory = onStore("RemoveDirectory", kFileEa, Keeps::source, {0x3900},
                                  [](Scene &scene) { return EARemove(0, scene.from("f").c_str()); });
    directory.prepare = [](Scene &scene) {
        putStore(scene, kFileEa);
        ::mkdir(scene.from("@eaDir/f").c_str(), 0777);
        kit::writeFile(scene.from("@eaDir/f/thumbnail"), "thumbnail");
    };
    all.push_back(directory);
    Operation empty = onStore("RemoveEaDirectory", kFileEa, Keeps::nothing, none,
                              [](Scene &scene) { return EARemoveEADir(scene.from("@eaDir/f@VexoEAStream").c_str()); });
    empty.prepare = [](Scene &scene) {
        ::mkdir(scene.from("@eaDir").c_str(), 0777);
        kit::writeFile(scene.from("@eaDir/.cover"), "cover");
    };
    all.push_back(empty);
    all.push_back(onStore("RemoveEaDirectoryInUse", kFileEa, Keeps::source, none,
                          [](Scene &scene) { return EARemoveEADir(scene.from("@eaDir").c_str()) == -1 ? 0 : -1; }));
    const auto dangling = [](Scene &scene) {
        VEXOEARemoveDanglingEADir(scene.from().c_str());
        return 0;
    };
    Operation lonely = onStore("RemoveDangling", kFileEa, Keeps::nothing, none, dangling);
    lonely.prepare = [](Scene &scene) {
        putStore(scene, kFileEa);
        ::unlink(scene.from("f").c_str());
    };
    all.push_back(lonely);
    all.push_back(onStore("RemoveDanglingInUse", kFileEa, Keeps::source, none, dangling));
}

void addUpgrades(std::vector<Operation> &all) {
    const std::set<uint32_t> codes = {0x0100, 0x0200, 0x0900, 0x0A00, 0x0B00, 0x2700, 0x2800,
                                      0x2A00, 0x3900, 0x3C00, 0x4000, 0xC300, 0x0400, 0x2600};
    Operation attributes = onStore("UpgradeAttributes", kEaDirectory, Keeps::either, codes,
                                   [](Scene &scene) { return VEXOEAUpgrade(scene.from("f").c_str(), kStream); });
    attributes.prepare = [](Scene &scene) {
        kit::writeFile(scene.from("f"), "data");
        ::mkdir(scene.from("@eaDir").c_str(), 0777);
        ::mkdir(scene.from("@eaDir/f").c_str(), 0777);
        kit::writeFile(scene.from("@eaDir/f/first"), scene.piece("first", 300));
        kit::writeFile(scene.from("@eaDir/f/second"), scene.piece("second", 200));
        kit::PlatformDouble::setType(scene.from(), kEaDirectory);
    };
    all.push_back(attributes);
    Operation resource = attributes;
    resource.changesModes = true;
    resource.name = "UpgradeResource";
    resource.run = [](Scene &scene) { return VEXOEAUpgrade(scene.from("f").c_str(), kResource); };
    resource.prepare = [](Scene &scene) {
        kit::writeFile(scene.from("f"), "data");
        ::mkdir(scene.from("@eaDir").c_str(), 0777);
        ::mkdir(scene.from("@eaDir/f").c_str(), 0777);
        kit::writeFile(scene.from("@eaDir/f/VEXO:Resource"), withFork(scene.piece("fork", 400)));
        kit::PlatformDouble::setType(scene.from(), kEaDirectory);
    };
    all.push_back(resource);
    Operation other = attributes;
    other.name = "UpgradeOther";
    other.run = [](Scene &scene) { return VEXOEAUpgrade(scene.from("f").c_str(), "VEXO:Preview"); };
    other.prepare = [](Scene &scene) {
        kit::writeFile(scene.from("f"), "data");
        ::mkdir(scene.from("@eaDir").c_str(), 0777);
        ::mkdir(scene.from("@eaDir/f").c_str(), 0777);
        kit::writeFile(scene.from("@eaDir/f/VEXO:Preview"), scene.piece("preview", 400));
        kit::PlatformDouble::setType(scene.from(), kEaDirectory);
    };
    all.push_back(other);
    Operation fix = attributes;
    fix.changesModes = true;
    fix.name = "FixResource";
    fix.run = [](Scene &scene) { return VEXOEAFixErrorAD(scene.from("f").c_str()); };
    fix.codes.insert({0x0300, 0x0400, 0x2000, 0x2600, 0});
    fix.prepare = [](Scene &scene) {
        kit::writeFile(scene.from("f"), "data");
        ::mkdir(scene.from("@eaDir").c_str(), 0777);
        const std::string fork = scene.piece("fork", 400);
        kit::writeFile(scene.from("@eaDir/f@VexoResource"),
                       stream::bytes({{"first", scene.piece("attribute", 300)}}, 400) + fork);
        kit::PlatformDouble::setType(scene.from(), kEaDirectory);
    };
    all.push_back(fix);
}

// ---- The stream file ----

Operation onStream(const std::string &name, int lock, std::function<int(VEXOEAS *)> use) {
    const std::set<uint32_t> codes = {0x0100, 0x0200, 0x0400, 0x0A00, 0x0B00, 0x2600, 0x2A00, 0};
    Operation made = onStore(name, kFileEa, Keeps::source, codes, [lock, use = std::move(use)](Scene &scene) {
        const int fd = VEXOEAOpen(1, scene.from("f").c_str(), kStream, O_RDWR, 0);
        if (fd < 0) {
            return -1;
        }
        VEXOEAS *eas = VEXOEASOpen(fd, lock);
        int result = eas == nullptr ? -1 : use(eas);
        const uint32_t code = VLIBCErrGet();
        if (eas != nullptr && VEXOEASClose(eas) < 0 && result >= 0) {
            result = -1;
        } else {
            VLIBCErrSetEx(code, "tests", 0);
        }
        ::close(fd);
        return result;
    });
    made.kept = keptOfChange;
    made.prepare = [](Scene &scene) {
        putStore(scene, kFileEa);
        const std::string fork = scene.piece("fork in the stream", 400);
        kit::writeFile(
            scene.from("@eaDir/f@VexoEAStream"),
            stream::bytes({{"short", "two"}, {"first", scene.piece("another", 300)}, {"long", scene.pieces()[1].bytes}},
                          400) +
                fork);
    };
    return made;
}

void addStreams(std::vector<Operation> &all) {
    static const std::string value(600, 'v');
    all.push_back(onStream("StreamWriteNew", F_WRLCK,
                           [](VEXOEAS *eas) { return VEXOEASWrite(eas, "new", value.data(), 600, 0, 1); }));
    all.push_back(onStream("StreamGrow", F_WRLCK,
                           [](VEXOEAS *eas) { return VEXOEASWrite(eas, "short", value.data(), 600, 0, 1); }));
    all.push_back(
        onStream("StreamOverwrite", F_WRLCK, [](VEXOEAS *eas) { return VEXOEASWrite(eas, "short", "one", 3, 0, 1); }));
    all.push_back(onStream("StreamRemove", F_WRLCK, [](VEXOEAS *eas) { return VEXOEASRemove(eas, "short"); }));
    all.push_back(onStream("StreamFlush", F_WRLCK, [](VEXOEAS *eas) { return VEXOEASFlush(eas); }));
    all.push_back(onStream("StreamRead", F_RDLCK, [](VEXOEAS *eas) {
        std::array<char, 400> buffer{};
        return VEXOEASRead(eas, "first", buffer.data(), buffer.size(), 0);
    }));
    all.push_back(onStream("StreamEnum", F_RDLCK, [](VEXOEAS *eas) {
        VLIBCSzList *list = VLIBCSzListAlloc(1024);
        const int count = list == nullptr ? -1 : VEXOEASEnum(eas, &list);
        VLIBCSzListFree(list);
        return count;
    }));
    Operation truncate =
        onStream("StreamTruncate", F_WRLCK, [](VEXOEAS *eas) { return VEXOEASTruncate(eas, "short", 1); });
    all.push_back(truncate);
    Operation merge = onStream("StreamToFd", F_RDLCK, nullptr);
    merge.run = [](Scene &scene) {
        const int src = VEXOEAOpen(1, scene.from("f").c_str(), kStream, O_RDWR, 0);
        const int dst = src < 0 ? -1 : VEXOEAOpen(1, scene.to("g").c_str(), kStream, O_RDWR | O_CREAT, 0);
        const int result = dst < 0 ? -1 : EASWriteToFd(src, dst);
        const uint32_t code = VLIBCErrGet();
        for (const int fd : {src, dst}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
        VLIBCErrSetEx(code, "tests", 0);
        return result;
    };
    merge.codes.insert({0x3C00});
    all.push_back(merge);
}

// What the changes are made of, where callers can reach it.
void addStreamParts(std::vector<Operation> &all) {
    all.push_back(onStream("StreamHeader", F_WRLCK, [](VEXOEAS *eas) { return VEXOEASWriteHeader(eas); }));
    Operation info = onStream("StreamFinderInfo", F_WRLCK, [](VEXOEAS *eas) { return EASWriteFinderInfo(eas); });
    info.codes.insert(0x0D00); // that is what a failing seek has here
    all.push_back(info);
    all.push_back(onStream("StreamSlots", F_WRLCK, [](VEXOEAS *eas) { return VEXOEASAllocEntry(eas, 100); }));
    all.push_back(onStream("StreamMoveFork", F_WRLCK, [](VEXOEAS *eas) {
        uint32_t offset = 0;
        uint32_t length = 0;
        const int found = EASGetRForkLocation(eas, &offset, &length);
        return found < 0 ? -1 : EASMoveRFork(eas, offset + 2 * length, offset, length);
    }));
    all.push_back(onStream("StreamLockGet", F_RDLCK, [](VEXOEAS *eas) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        return VEXOEASLockGet(eas, &lock);
    }));
    all.push_back(onStream("StreamCount", F_RDLCK, [](VEXOEAS *eas) { return EASGetAttrCount(eas->fd); }));
    Operation check = onStore("CheckDouble", kFat, Keeps::source, {0, 0x0200, 0x2700},
                              [](Scene &scene) { return VEXOEACheckADFile(scene.from("._f").c_str()); });
    all.push_back(check);
    Operation archive = onStore("SetArchiveBit", kFileEa, Keeps::source, {0},
                                [](Scene &scene) { return EASetSmbArchive(scene.from("f").c_str()); });
    all.push_back(archive);
}

// ---- Attributes, companions, Finder Info ----

void addAttributes(std::vector<Operation> &all) {
    const std::set<uint32_t> codes = {0, 0x0100, 0x2A00};
    all.push_back(onStore("XattrSet", kFileEa, Keeps::source, codes, [](Scene &scene) {
        return VEXOEAXattrSet(scene.from("f").c_str(), "user.note", "value", 5, 0);
    }));
    all.push_back(onStore("XattrGet", kFileEa, Keeps::source, codes, [](Scene &scene) {
        std::array<char, 500> value{};
        return VEXOEAXattrGet(scene.from("f").c_str(), "user.netatalk.Metadata", value.data(), value.size());
    }));
    all.push_back(onStore("XattrRemove", kFileEa, Keeps::source, codes, [](Scene &scene) {
        return VEXOEAXattrRemove(scene.from("f").c_str(), "user.netatalk.Metadata");
    }));
    all.push_back(onStore("XattrEnum", kFileEa, Keeps::source, codes, [](Scene &scene) {
        VLIBCSzList *list = VLIBCSzListAlloc(1024);
        const int result = list == nullptr ? -1 : VEXOEAXattrEnum(scene.from("f").c_str(), &list);
        VLIBCSzListFree(list);
        return result;
    }));
    const std::set<uint32_t> forkCodes = {0, 0x0700, 0x2700, 0xBF00};
    const auto onFork = [&](const std::string &name, std::function<int(const char *)> use) {
        Operation made = onStore(name, kFileEa, Keeps::nothing, forkCodes,
                                 [use = std::move(use)](Scene &scene) { return use(scene.from("forked").c_str()); });
        made.prepare = [](Scene &scene) { kit::ForkDouble::make(scene.from("forked"), "0123456789"); };
        all.push_back(made);
    };
    onFork("ForkGet", [](const char *path) {
        std::array<char, 64> value{};
        return VEXOEAXattrGet(path, "com.apple.ResourceFork", value.data(), value.size());
    });
    onFork("ForkSet", [](const char *path) { return VEXOEAXattrSet(path, "com.apple.ResourceFork", "anew", 4, 0); });
    onFork("ForkRemove", [](const char *path) { return VEXOEAXattrRemove(path, "com.apple.ResourceFork"); });
}

void addArchiveBits(std::vector<Operation> &all) {
    all.push_back(onStore("CleanFileArchiveBit", kFileEa, Keeps::source, {0x0900},
                          [](Scene &scene) { return VEXOBackupCleanFileArchiveBit(scene.from("f").c_str()); }));
    all.push_back(onStore("CleanDirectoryArchiveBit", kFileEa, Keeps::source, {0x0900},
                          [](Scene &scene) { return VEXOBackupCleanDirArchiveBit(scene.from().c_str()); }));
}

void addFinderInfo(std::vector<Operation> &all) {
    static const std::array<char, 32> info{'T', 'E', 'X', 'T'};
    const std::set<uint32_t> codes = {0,      0x0100, 0x0200, 0x0400, 0x0900, 0x0A00,
                                      0x0B00, 0x2600, 0x2A00, 0x3C00, 0x0D00, 0x0300};
    const auto add = [&](const std::string &name, int kind, std::function<int(Scene &)> run) {
        all.push_back(onStore(name, kind, Keeps::source, codes, std::move(run)));
    };
    add("FinderInfoWrite", kEaDirectory,
        [](Scene &scene) { return VEXOEAEADirFSFInfoWrite(scene.from("f").c_str(), info.data()); });
    add("FinderInfoSync", kFileEa, [](Scene &scene) { return VEXOEAFileEAFSFinfoEASync(scene.from("f").c_str(), 0); });
    add("MetadataRead", kFileEa, [](Scene &scene) {
        VEXOEAAdouble record;
        return VEXOEAFileEAAdoubleRead(scene.from("f").c_str(), &record);
    });
    add("MetadataFlush", kFileEa, [](Scene &scene) {
        const std::string bytes = adouble_bytes::metadata();
        return VEXOEAFileEAAdoubleFlush(bytes.data(), 402, scene.from("f").c_str());
    });
    add("ResourceRead", kEaDirectory, [](Scene &scene) {
        VEXOEAAdouble record;
        return VEXOEAEADirAdoubleRead(scene.from("f").c_str(), &record);
    });
    add("ResourceFlush", kEaDirectory,
        [](Scene &scene) { return VEXOEAEADirAdoubleFlush(withFork("").data(), 82, scene.from("f").c_str()); });
    add("FlushTime", kFileEa, [](Scene &scene) { return VEXOEAFileEAWriteFlushTime(scene.from("f").c_str(), 0); });
    add("CheckNeedSync", kFileEa, [](Scene &scene) { return EACheckNeedSync(scene.from("f").c_str()); });
    const auto opened = [](int fd) {
        if (fd >= 0) {
            ::close(fd);
        }
        return fd < 0 ? -1 : 0;
    };
    add("OpenNew", kFileEa,
        [opened](Scene &scene) { return opened(VEXOEAOpen(1, scene.to("g").c_str(), kStream, O_RDWR | O_CREAT, 0)); });
    add("OpenDouble", kFat,
        [opened](Scene &scene) { return opened(VEXOEAOpen(1, scene.to("g").c_str(), kStream, O_RDWR | O_CREAT, 1)); });
    add("MakeDirectory", kFileEa, [](Scene &scene) { return VEXOEAMKDir(1, scene.to("d/@eaDir").c_str()); });
}

} // namespace

std::vector<Operation> storeOperations() {
    std::vector<Operation> all;
    const std::vector<std::pair<std::string, int>> kinds = {
        {"FileEa", kFileEa}, {"EaDirectory", kEaDirectory}, {"Fat", kFat}, {"Native", kNative}};
    for (const auto &[srcName, srcKind] : kinds) {
        for (const auto &[dstName, dstKind] : kinds) {
            all.push_back(copy("StoreCopy" + srcName + "To" + dstName, srcKind, dstKind, false));
            all.push_back(copy("StoreMove" + srcName + "To" + dstName, srcKind, dstKind, true));
        }
    }
    addCopiesWithDirectory(all);
    addRenames(all);
    addRemovals(all);
    addDirectoryRemovals(all);
    addUpgrades(all);
    addStreams(all);
    addStreamParts(all);
    addAttributes(all);
    addFinderInfo(all);
    addArchiveBits(all);
    return all;
}

} // namespace faults
