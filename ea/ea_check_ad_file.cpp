// Whether a "._" file is what it looks like: an AppleDouble file with the file it belongs to beside it.
#include "ea/ea.h"

#include "support/big_endian.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cstdint>
#include <cstdio>
#include <libgen.h>
#include <string_view>
#include <sys/stat.h>

using namespace vexo;

namespace {

constexpr std::string_view kPrefix = "._";
constexpr uint32_t kAppleDoubleMagic = 0x00051607;

enum Answer : int { genuine = 0, no_path = -1, other_name = -2, other_content = -3, no_companion = -4 };

bool begins_with_magic(const char *path) {
    std::FILE *file = std::fopen(path, "r");
    if (file == nullptr) {
        return false;
    }
    uint8_t word[sizeof(uint32_t)];
    const size_t got = std::fread(word, 1, sizeof word, file);
    std::fclose(file);
    return got == sizeof word && big_endian::load(word, sizeof word) == kAppleDoubleMagic;
}

// A dangling link counts: it is an entry that the AppleDouble file belongs to.
bool has_companion(const char *directory, std::string_view base) {
    PathBuffer companion;
    companion.join(directory, base);
    struct stat status {};
    return !base.empty() && !companion.overflowed() && ::lstat(companion.c_str(), &status) == 0;
}

} // namespace

int VEXOEACheckADFile(const char *path) {
    if (path == nullptr || *path == '\0') {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    HeapString forDirectory(path);
    HeapString forBase(path);
    if (!forDirectory || !forBase) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    const char *directory = ::dirname(forDirectory.get());
    const char *name = ::basename(forBase.get());
    if (directory == nullptr || name == nullptr) {
        return no_path;
    }
    const std::string_view base = name;
    if (!base.starts_with(kPrefix)) {
        return other_name;
    }
    if (!begins_with_magic(path)) {
        return other_content;
    }
    return has_companion(directory, base.substr(kPrefix.size())) ? genuine : no_companion;
}
