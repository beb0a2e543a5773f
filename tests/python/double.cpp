// The kit's double of the platform for a process that is none of ours: loaded before everything else, it stands between
// the library and the platform's, and does what a test in Python says.
#include "tests/kit/faults.h"
#include "tests/kit/platform_double.h"

#include <cstdint>
#include <dlfcn.h>

extern "C" __attribute__((visibility("default"))) void vexo_double_reset() {
    kit::Faults::reset();
    kit::Faults::record(true); // which counts
    kit::PlatformDouble::reset();
}

// Calls of the function fail with the errno, `times` of them (0: all), and set the last error.
extern "C" __attribute__((visibility("default"))) void
vexo_double_fail(const char *function, int number, const char *path, int times, uint32_t lastError) {
    kit::Faults::add({.function = function, .error = number, .path = path, .times = times, .lastError = lastError});
}

extern "C" __attribute__((visibility("default"))) void vexo_double_type(const char *path, int code, int number) {
    kit::PlatformDouble::setType(path, code, number);
}

extern "C" __attribute__((visibility("default"))) int vexo_double_count(const char *function) {
    return kit::Faults::count(function);
}

extern "C" __attribute__((visibility("default"))) void vexo_double_share(const char *path, const char *name,
                                                                         uint32_t status) {
    kit::PlatformDouble::setShare(path, name, status, false);
}

// Beside what the kit has: how a volume is written out as a whole.
extern "C" __attribute__((visibility("default"))) int syncfs(int fd) noexcept {
    if (const kit::FaultAnswer answer = kit::askFaults("syncfs", nullptr, fd); answer.decided) {
        return static_cast<int>(answer.result);
    }
    static auto *const next = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "syncfs"));
    return next(fd);
}
