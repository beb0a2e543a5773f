// The stream file: any bytes are opened, and a few operations run on them. Input: number of operations (1 byte), 4
// bytes an operation (what, name, size, offset), then the file.
//
// What must hold of every file: an operation that fails leaves it byte for byte as it was; one that succeeds has done
// what was asked, other attributes keep their values, and the file opens again.
#include "ea/ea.h"
#include "ea/stream/handle.h"
#include "fuzz/input.h"
#include "support/fd.h"

#include <algorithm>
#include <map>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Values = std::map<std::string, std::string>;

std::string bytesOf(int fd) {
    struct stat status {};
    FUZZ_CHECK(::fstat(fd, &status) == 0);
    FUZZ_CHECK(status.st_size < 64 << 20); // nothing here asks for that much
    std::string bytes(static_cast<size_t>(status.st_size), '\0');
    FUZZ_CHECK(::pread(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
    return bytes;
}

std::vector<std::string> namesOf(VEXOEAS *eas) {
    VLIBCSzList *list = VLIBCSzListAlloc(4);
    FUZZ_CHECK(VEXOEASEnum(eas, &list) == eas->header.attrCount);
    std::vector<std::string> names;
    for (int at = 0; at < list->count; ++at) {
        names.emplace_back(VLIBCSzListGet(list, at));
    }
    VLIBCSzListFree(list);
    return names;
}

bool readValue(VEXOEAS *eas, const std::string &name, std::string &value) {
    constexpr int kLargest = 1 << 20;
    char none = 0;
    const int length = VEXOEASRead(eas, name.c_str(), &none, 0, 0);
    if (length < 0 || length > kLargest) {
        return false;
    }
    value.assign(static_cast<size_t>(length) + 1, '?'); // a buffer more than large enough
    const int got = VEXOEASRead(eas, name.c_str(), value.data(), static_cast<uint32_t>(value.size()), 0);
    FUZZ_CHECK(got < 0 || got == length);
    value.resize(static_cast<size_t>(length));
    return got >= 0;
}

// Of the attributes that can be read, without the one that an operation is about.
Values valuesWithout(VEXOEAS *eas, const std::string &without) {
    Values values;
    for (const std::string &name : namesOf(eas)) {
        std::string value;
        if (name != without && values.size() < 100 && readValue(eas, name, value)) {
            values.emplace(name, value);
        }
    }
    return values;
}

struct Operation {
    uint8_t what, name, size, offset;

    // 255 stands for sizes that cannot be.
    uint32_t length() const { return size == 255 ? UINT32_MAX - 7 : size * 37u; }
    uint32_t place() const { return offset == 255 ? UINT32_MAX - 7 : offset * 29u; }
};

// One of the file's own names, or another.
std::string nameFor(VEXOEAS *eas, uint8_t choice) {
    const std::vector<std::string> names = namesOf(eas);
    if (choice % 2 == 0 && !names.empty()) {
        return names[choice / 2 % names.size()];
    }
    return std::string(choice, static_cast<char>('a' + choice % 26));
}

bool change(VEXOEAS *eas, const Operation &operation, const std::string &name) {
    switch (operation.what % 4) {
    case 0: {
        const std::string data(operation.size * 37u, static_cast<char>(operation.size));
        const int result = VEXOEASWrite(eas, name.c_str(), data.data(), static_cast<uint32_t>(data.size()),
                                        operation.place(), operation.what / 4 % 4);
        std::string value;
        const bool wrote = result >= 0 && (operation.what / 4 & 1) != 0;
        if (wrote && readValue(eas, name, value)) {
            FUZZ_CHECK(value.size() >= operation.place() + data.size());
            FUZZ_CHECK(value.compare(operation.place(), data.size(), data) == 0);
        }
        return result >= 0;
    }
    case 1: {
        if (VEXOEASTruncate(eas, name.c_str(), operation.length()) != 0) {
            return false;
        }
        char none = 0;
        FUZZ_CHECK(VEXOEASRead(eas, name.c_str(), &none, 0, 0) == static_cast<int>(operation.length()));
        return true;
    }
    case 2:
        return VEXOEASRemove(eas, name.c_str()) == 0;
    default: {
        std::string value(operation.size, '?');
        (void)VEXOEASRead(eas, name.c_str(), value.data(), operation.size, operation.place());
        return true;
    }
    }
}

// Header entries beyond the two that a handle keeps are not written back, so that such a file may read otherwise.
bool isPlain(VEXOEAS *eas) {
    return eas->header.entryCount <= 2;
}

bool run(int fd, const Operation &operation) {
    const std::string before = bytesOf(fd);
    vexo::StreamHandle handle(fd, F_WRLCK);
    if (!handle) {
        FUZZ_CHECK(VLIBCErrGet() == 0x0A00 || VLIBCErrGet() == 0x0D00);
        FUZZ_CHECK(bytesOf(fd) == before);
        return false;
    }
    const std::string name = nameFor(handle.get(), operation.name);
    const Values others = valuesWithout(handle.get(), name);
    const bool done = change(handle.get(), operation, name);
    FUZZ_CHECK(done || bytesOf(fd) == before);
    const bool plain = isPlain(handle.get());
    handle.reset();
    if (plain) {
        const vexo::StreamHandle again(fd, F_RDLCK);
        FUZZ_CHECK(again || before.empty());
        FUZZ_CHECK(!again || valuesWithout(again.get(), name) == others);
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    std::vector<Operation> operations(input.byte() % 8);
    for (Operation &operation : operations) {
        operation = {input.byte(), input.byte(), input.byte(), input.byte()};
    }
    const std::string file = input.rest();
    const vexo::Fd memory(::memfd_create("stream", MFD_CLOEXEC));
    const vexo::Fd copy(::memfd_create("copy", MFD_CLOEXEC));
    FUZZ_CHECK(memory && copy);
    FUZZ_CHECK(::write(memory.get(), file.data(), file.size()) == static_cast<ssize_t>(file.size()));
    for (const Operation &operation : operations) {
        if (!run(memory.get(), operation)) {
            break;
        }
    }
    const int count = EASGetAttrCount(memory.get());
    const int copied = EASWriteToFd(memory.get(), copy.get());
    FUZZ_CHECK(copied <= 0 && (copied != 0 || EASGetAttrCount(copy.get()) <= count));
    return 0;
}
