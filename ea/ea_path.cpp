// The one entry to the paths of companions, by the kind of store.
#include "ea/ea.h"

#include "support/report.h"

using namespace vexo;

int VEXOEAPath(int nameMode, const char *path, const char *stream, char *out, int outLen, int kind) {
    constexpr int kEaDirectory = 0;
    constexpr int kAppleDouble = 1;
    if (path == nullptr || stream == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    switch (kind) {
    case kEaDirectory:
        return VEXOEAPathNoADFS(nameMode, path, stream, out, outLen);
    case kAppleDouble:
        return VEXOEAADPath(path, out, outLen);
    default:
        return fail(Error::invalid_argument, VEXO_HERE);
    }
}
