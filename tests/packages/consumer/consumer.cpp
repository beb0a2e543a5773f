// Copies a file through the installed library, from C++, counting the bytes.
#include <cstdint>
#include <cstdio>
#include <vexofileop/copy.h>
#include <vexofileop/ea.h>

int main(int argc, char **argv) {
    if (argc != 3) {
        return 2;
    }
    std::int64_t total = 0;
    VEXOCopyArgs *const args = VEXOCopyArgsAlloc();
    VEXOCopyArgsSetFnSetProgress(
        args, [](void *data, std::int64_t bytes, std::int64_t) { *static_cast<std::int64_t *>(data) += bytes; },
        &total);
    const int result = VEXOFileOpCopyFile(argv[1], argv[2], 2, args);
    VEXOCopyArgsFree(args);
    std::printf("%d 0x%04X %lld\n", result, static_cast<unsigned>(result == 0 ? 0 : VLIBCErrGet()),
                static_cast<long long>(total));
    return result == 0 && total > 0 ? 0 : 1;
}
