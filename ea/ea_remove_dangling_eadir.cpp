// A directory that holds nothing but its "@eaDir" is empty to everybody who looks at it, yet cannot be removed: the
// "@eaDir" goes.
#include "ea/ea.h"

#include "ea/names/store.h"
#include "support/dir.h"
#include "support/heap.h"
#include "support/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

using namespace vexo;

void VEXOEARemoveDanglingEADir(const char *dirPath) {
    if (dirPath == nullptr) {
        return;
    }
    Dir directory(dirPath);
    if (!directory) {
        VEXO_LOG_ERROR(VEXO_HERE, "failed to opendir [%s], errno=%m", dirPath);
        return;
    }
    int entries = 0;
    errno = 0;
    while (const dirent *entry = directory.read()) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && name != kEaDirectoryName) {
            return;
        }
        ++entries;
        errno = 0;
    }
    constexpr int kDotsAndEaDirectory = 3;
    if (entries != kDotsAndEaDirectory || errno != 0) { // what could not be read may be anything
        return;
    }
    const size_t size = std::strlen(dirPath) + sizeof "/@eaDir";
    HeapBuffer path = HeapBuffer::uninitialised(size);
    if (!path) {
        return;
    }
    char *text = reinterpret_cast<char *>(path.data());
    std::snprintf(text, size, "%s/%s", dirPath, kEaDirectoryName);
    (void)VLIBCExec("/bin/rm", "-rf", text, nullptr);
}
