// The conversion of an AppleDouble file, whatever it holds: a copy leaves the source as it was, a conversion that
// succeeds makes a file of the two-entry form that is as long as it says, and a repair that fails changes nothing.
#include "ea/ea.h"
#include "fuzz/input.h"
#include "fuzz/quiet_log.h"
#include "fuzz/store_directory.h"

#include <string>

namespace {

uint32_t number(const std::string &bytes, size_t at, size_t width) {
    uint32_t value = 0;
    for (size_t end = at + width; at < end; ++at) {
        value = value << 8 | static_cast<uint8_t>(bytes[at]);
    }
    return value;
}

// Finder Info at 50, and at 82 a fork that ends where the file does.
void checkTwoEntries(const std::string &bytes) {
    FUZZ_CHECK(bytes.size() >= 82);
    FUZZ_CHECK(number(bytes, 4, 4) == 0x00020000 && number(bytes, 24, 2) == 2);
    FUZZ_CHECK(number(bytes, 26, 4) == 9 && number(bytes, 30, 4) == 50 && number(bytes, 34, 4) == 32);
    FUZZ_CHECK(number(bytes, 38, 4) == 2 && number(bytes, 42, 4) == 82);
    FUZZ_CHECK(bytes.size() == 82 + size_t{number(bytes, 46, 4)});
}

void checkCopy(const fuzz::StoreDirectory &store, const std::string &source, int srcKind, int dstKind,
               const std::string &bytes) {
    store.empty();
    store.makeDirectory("from/@eaDir");
    store.makeDirectory("to");
    store.write("from/f", "data");
    store.write("to/g", "data");
    store.write(source, bytes);
    const int result = VEXOEACopy((store / "from/f").c_str(), (store / "to/g").c_str(), 0, 0, srcKind, dstKind, 0, 0);
    FUZZ_CHECK(store.read(source) == bytes);
    const std::string converted = "to/@eaDir/g@VexoResource";
    if (result == 0 && store.has(converted) && !store.read(converted).empty()) {
        checkTwoEntries(store.read(converted));
    }
}

void checkRepair(const fuzz::StoreDirectory &store, const std::string &bytes) {
    const std::string resource = "from/@eaDir/f@VexoResource";
    store.empty();
    store.makeDirectory("from/@eaDir");
    store.write("from/f", "data");
    store.write(resource, bytes);
    if (VEXOEAFixErrorAD((store / "from/f").c_str()) != 0) {
        FUZZ_CHECK(store.read(resource) == bytes);
    }
    FUZZ_CHECK(!store.has(resource + "Tmp"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const fuzz::StoreDirectory store;
    fuzz::Input input(data, size);
    const uint8_t what = input.byte();
    const std::string bytes = input.rest();
    switch (what % 4) {
    case 0:
        checkCopy(store, "from/._f", 0, 1, bytes);
        break;
    case 1:
        checkCopy(store, "from/._f", 0, 2, bytes);
        break;
    case 2:
        checkCopy(store, "from/@eaDir/f@VexoResource", 1, 0, bytes);
        break;
    default:
        checkRepair(store, bytes);
        break;
    }
    return 0;
}
