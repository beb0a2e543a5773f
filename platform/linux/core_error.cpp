// The last error, one per thread.
#include "platform/core.h"

namespace {

struct LastError {
    uint32_t code;
    const char *file;
    uint32_t line;
};

// The initial-exec model keeps the dynamic loader out of the libraries' dependencies.
[[gnu::tls_model("initial-exec")]] constinit thread_local LastError lastError = {0, "", 0};

} // namespace

void VLIBCErrSetEx(uint32_t code, const char *file, uint32_t line) {
    lastError = {code, file == nullptr ? "" : file, line};
}

uint32_t VLIBCErrGet(void) {
    return lastError.code;
}

const char *VLIBCErrorGetFile(void) {
    return lastError.file;
}

uint32_t VLIBCErrorGetLine(void) {
    return lastError.line;
}
