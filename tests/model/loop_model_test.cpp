// The descriptor copies beside their model.
#include "copy/copy.h"

#include "tests/model/harness.h"
#include "tests/model/loop_model.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace model::loops {
namespace {

enum class Door { plain, ex, fileOperation };

// One scene: all that is drawn, before anything is built.
struct Scene {
    Door door;
    int64_t fileSize, size, destinationAt;
    std::vector<kit::Extent> extents;
    std::string destination; // what it holds before
    bool progress, cancel, readSize;
    int cancelAt, cancelAnswer;
    std::vector<int64_t> readSizes;
    int srcFlags, dstFlags;
    bool sameFile, badDescriptor;
    std::vector<kit::FaultRule> rules;
    bool sendfileRefused;
};

Scene draw(uint32_t seed) {
    Random random(seed);
    Scene scene = {};
    scene.door = random.of({Door::plain, Door::ex, Door::fileOperation});
    const int64_t largest = random.of<int64_t>({10, 5000, 300'000, 1'000'000});
    scene.fileSize = random.oneIn(15) ? 9'000'000 : random.below(static_cast<int>(largest));
    int64_t at = random.oneIn(2) ? 0 : 4096 * random.below(20);
    while (random.oneIn(2) ? false : at < scene.fileSize) {
        const int64_t length = std::min<int64_t>(scene.fileSize - at, 4096 * (1 + random.below(30)));
        scene.extents.push_back({at, length});
        at += length + 4096 * random.below(40);
    }
    if (random.oneIn(2) || (scene.extents.empty() && !random.oneIn(4))) {
        scene.extents = {{0, scene.fileSize}};
    }
    scene.size = random.of<int64_t>({scene.fileSize, scene.fileSize, scene.fileSize, scene.fileSize / 2,
                                     scene.fileSize + 1, scene.fileSize + 5000, 0, -1});
    scene.destination = kit::pattern(static_cast<size_t>(random.of({0, 0, 10, 200'000})), seed);
    scene.destinationAt = random.of({0, 0, 0, 7, 5000});
    scene.progress = !random.oneIn(4);
    scene.cancel = random.oneIn(2);
    scene.cancelAt = random.below(8);
    scene.cancelAnswer = random.of({5, -1});
    scene.readSize = random.oneIn(2);
    for (int n = 0; n < 6; ++n) {
        const int64_t small = scene.fileSize < 3000 ? 1 : 4096;
        scene.readSizes.push_back(scene.fileSize > 8388608
                                      ? random.of<int64_t>({8388609, 8388608, 0, 1'000'000})
                                      : random.of<int64_t>({0, -1, small, 4096, 100'000, 65'536, 65'537, 8388609}));
    }
    scene.srcFlags = random.oneIn(40) ? O_WRONLY : O_RDONLY;
    scene.dstFlags = random.oneIn(40) ? O_RDONLY : random.oneIn(10) ? O_WRONLY | O_APPEND : O_WRONLY;
    scene.sameFile = random.oneIn(15);
    scene.badDescriptor = random.oneIn(60);
    scene.sendfileRefused = random.oneIn(2);
    const bool hasHoles = scene.extents.size() != 1 || scene.extents[0].length != scene.fileSize;
    if (random.oneIn(3)) {
        const std::string function =
            hasHoles ? random.of<const char *>({"read", "write", "lseek", "fallocate", "fallocate", "ftruncate"})
                     : random.of<const char *>({"read", "write"});
        const std::string path = function == "read"    ? "/from"
                                 : function == "lseek" ? random.of({"/from", "/to"})
                                                       : "/to";
        const bool punches = function == "fallocate";
        scene.rules.push_back(
            {.function = function,
             .error = punches ? random.of({EIO, EOPNOTSUPP, ENOSYS})
                              : random.of({EIO, EBADF, ENXIO, EFAULT, EFBIG, ENOSPC, EHOSTDOWN, EDQUOT, EINTR, ENOMEM}),
             .path = path,
             .skip = random.below(4)});
    }
    return scene;
}

// The callbacks, made anew for each side, with the same answers.
struct Answers {
    const Scene &scene;
    int polls = 0;
    size_t asked = 0;

    void progress(int64_t bytes, int64_t offset) const {
        note("progress " + std::to_string(bytes) + " " + std::to_string(offset));
    }
    int cancel() {
        note("cancel?");
        return polls++ == scene.cancelAt ? scene.cancelAnswer : 0;
    }
    int64_t readSize(int64_t last, int64_t offset) {
        note("size? " + std::to_string(last) + " " + std::to_string(offset));
        return scene.readSizes[asked++ % scene.readSizes.size()];
    }
};
Answers *answers = nullptr; // for the bare callbacks

int64_t callLibrary(const Scene &scene, Answers &given, int from, int to) {
    if (scene.door == Door::fileOperation) {
        VEXOCopyArgs args = {};
        args.progressArg = args.isCancelArg = args.getReadSizeArg = &given;
        if (scene.progress) {
            args.progress = [](void *data, int64_t bytes, int64_t offset) {
                static_cast<Answers *>(data)->progress(bytes, offset);
            };
        }
        if (scene.cancel) {
            args.isCancel = [](void *data) { return static_cast<Answers *>(data)->cancel(); };
        }
        if (scene.readSize) {
            args.getReadSize = [](void *data, int64_t last, int64_t offset) {
                return static_cast<Answers *>(data)->readSize(last, offset);
            };
        }
        return VEXOFileOpCopyFileFd(from, to, scene.size, &args);
    }
    answers = &given;
    VEXOCopyBareProgressFn progress = nullptr;
    VEXOCopyBareIsCancelFn cancel = nullptr;
    if (scene.progress) {
        progress = [](int64_t bytes, int64_t offset) { answers->progress(bytes, offset); };
    }
    if (scene.cancel) {
        cancel = [] { return answers->cancel(); };
    }
    if (scene.door == Door::plain) {
        return VEXOCopyFileFd(from, to, scene.size, progress, cancel);
    }
    VEXOCopyArgsEx ex = {};
    if (scene.readSize) {
        ex.getReadSize = [](int64_t last, int64_t offset) { return answers->readSize(last, offset); };
    }
    return VEXOCopyFileFdEx(from, to, scene.size, progress, cancel, &ex);
}

int64_t callModel(const Scene &scene, Answers &given, int from, int to) {
    LoopCallbacks callbacks;
    if (scene.progress) {
        callbacks.progress = [&](int64_t bytes, int64_t offset) { given.progress(bytes, offset); };
    }
    if (scene.cancel) {
        callbacks.isCancel = [&] { return given.cancel(); };
    }
    if (scene.readSize && scene.door != Door::plain) {
        callbacks.getReadSize = [&](int64_t last, int64_t offset) { return given.readSize(last, offset); };
    }
    return copyDescriptor(from, to, scene.size, callbacks,
                          scene.door == Door::fileOperation ? "copy/fileop_copy_file_fd.c"
                                                            : "copy/copy_file_copy_fd.c");
}

Outcome play(const Scene &scene, const std::string &root, bool library) {
    kit::Faults::reset();
    ::mkdir(root.c_str(), 0755);
    kit::writeSparse(root + "/from", scene.fileSize, scene.extents);
    kit::writeFile(root + "/to", scene.destination);
    const int from = ::open((root + "/from").c_str(), scene.srcFlags | O_CLOEXEC);
    const int to = ::open((root + (scene.sameFile ? "/from" : "/to")).c_str(), scene.dstFlags | O_CLOEXEC);
    ::lseek(to, scene.destinationAt, SEEK_SET);
    Observation how = {.root = root, .rules = scene.rules, .readsAndWrites = scene.sendfileRefused};
    if (scene.sendfileRefused) {
        how.rules.push_back({.function = "sendfile", .error = EINVAL, .times = 0});
    }
    Answers given = {scene};
    const int asked = scene.badDescriptor ? -1 : from;
    Outcome seen = observe(
        how, [&] { return library ? callLibrary(scene, given, asked, to) : callModel(scene, given, asked, to); });
    seen.files.push_back("source at " + std::to_string(::lseek(from, 0, SEEK_CUR)));
    seen.files.push_back("destination at " + std::to_string(::lseek(to, 0, SEEK_CUR)));
    ::close(from);
    ::close(to);
    return seen;
}

TEST(LoopModel, AgreesWithTheLibrary) {
    forEachSeed(500, 20'000, [](uint32_t seed) {
        const kit::ScratchDirectory scratch;
        const Scene scene = draw(seed);
        const Outcome expected = play(scene, scratch / "M", false);
        return difference(expected, play(scene, scratch / "L", true));
    });
}

} // namespace
} // namespace model::loops
