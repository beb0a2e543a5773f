// Whole operations on a store that holds anything: random bytes as stream files, resources, "._" files, attributes and
// files of the old layout, and then copies, moves, upgrades, renames and removals. A file's data is never lost.
#include "copy/copy.h"
#include "ea/ea.h"
#include "fuzz/input.h"
#include "fuzz/quiet_log.h"
#include "fuzz/store_directory.h"

#include <algorithm>
#include <array>
#include <string>
#include <sys/xattr.h>

namespace {

constexpr std::array kKinds = {0, 1, 2, 7, 12};
const std::string kData = "the data of the file";

constexpr std::array kPlaces = {
    "from/@eaDir/f@VexoEAStream", "from/@eaDir/f@VexoResource", "from/@eaDir/f/VEXO:Resource",
    "from/@eaDir/f/note",         "from/@eaDir/f/thumb.jpg",    "from/._f",
    "to/@eaDir/g@VexoEAStream",   "to/@eaDir/g@VexoResource",   "to/._g"};
constexpr std::array kNames = {"user.netatalk.Metadata", "user.note", "user.vexo.filea.flushtime",
                               "user.com.apple.FinderInfo"};

// A piece of the input as long as a word before it says.
std::string chunk(fuzz::Input &input) {
    std::string bytes(input.word() % 4096, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(input.byte());
    }
    return bytes;
}

void makeStore(const fuzz::StoreDirectory &store, fuzz::Input &input) {
    for (const char *directory : {"from/@eaDir/f", "to/@eaDir"}) {
        store.makeDirectory(directory);
    }
    store.write("from/f", kData);
    for (int pieces = input.byte() % 6; pieces > 0; --pieces) {
        const size_t place = input.byte() % (kPlaces.size() + kNames.size());
        const std::string bytes = chunk(input);
        if (place < kPlaces.size()) {
            store.write(kPlaces[place], bytes);
        } else {
            (void)::setxattr((store / "from/f").c_str(), kNames[place - kPlaces.size()], bytes.data(), bytes.size(), 0);
        }
    }
}

void checkData(const fuzz::StoreDirectory &store) {
    FUZZ_CHECK((store.has("from/f") && store.read("from/f") == kData) ||
               (store.has("to/g") && store.read("to/g") == kData));
}

void operate(const fuzz::StoreDirectory &store, fuzz::Input &input) {
    const std::string src = store / "from/f";
    const std::string dst = store / "to/g";
    const uint8_t what = input.byte();
    const int srcKind = kKinds[input.byte() % kKinds.size()];
    const int dstKind = kKinds[input.byte() % kKinds.size()];
    VEXOCopyOpt options{};
    options.overwrite = 1;
    switch (what % 9) {
    case 0:
    case 1:
        options.move = what % 9;
        (void)VEXOCopyFileExI(src.c_str(), dst.c_str(), &options, srcKind, dstKind, 0, nullptr);
        break;
    case 2:
    case 3:
        (void)VEXOEACopy(src.c_str(), dst.c_str(), what % 2, what / 16 % 2, srcKind, dstKind, 0, 0);
        break;
    case 4:
        (void)VEXOEAUpgrade(src.c_str(), "VexoEAStream");
        break;
    case 5:
        (void)VEXOEAUpgrade(src.c_str(), "VexoResource");
        break;
    case 6:
        (void)VEXOEAFixErrorAD(src.c_str());
        break;
    case 7:
        (void)VEXOEARename(src.c_str(), dst.c_str(), srcKind, 0);
        break;
    default:
        (void)VEXOEARemove(src.c_str(), srcKind);
        break;
    }
    checkData(store);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const fuzz::StoreDirectory store;
    store.empty();
    fuzz::Input input(data, size);
    makeStore(store, input);
    for (int operations = input.byte() % 4; operations >= 0; --operations) {
        operate(store, input);
    }
    return 0;
}
