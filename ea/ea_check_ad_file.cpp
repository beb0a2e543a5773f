// Whether a "._" file is what it looks like: an AppleDouble file with the file it belongs to beside it.
#include "ea/ea.h"

#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/entry.h"
#include "support/big_endian.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <libgen.h>
#include <string_view>
#include <unistd.h>

using namespace vexo;

namespace {

constexpr std::string_view kPrefix = "._";
constexpr uint32_t kAppleDoubleMagic = 0x00051607;

enum AdFileAnswer : int { genuine = 0, no_path = -1, other_name = -2, other_content = -3, no_companion = -4 };

// errno tells one that could not be read (not 0) from one that holds something else.
bool begins_with_magic(const char *path) {
    const Fd file = open_store_file(path, O_RDONLY);
    uint8_t word[sizeof(uint32_t)];
    const ssize_t got = file ? ::read(file.get(), word, sizeof word) : -1;
    errno = got < 0 ? errno : 0;
    return got == ssize_t{sizeof word} && big_endian::load(word, sizeof word) == kAppleDoubleMagic;
}

// A dangling link counts: it is an entry that the AppleDouble file belongs to. Of one that cannot be looked at nobody
// knows, and what is taken for an orphan may be removed.
int answer_of_companion(const char *directory, std::string_view base) {
    PathBuffer companion;
    companion.join(directory, base);
    if (!names_entry(base) || companion.overflowed()) {
        return no_companion;
    }
    struct stat status {};
    if (look_in_store(companion.c_str(), status) == 0) {
        return genuine;
    }
    return says_absent(errno) || errno == ENAMETOOLONG ? no_companion : fail(Error::stat, VEXO_HERE);
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
    return answer_of_companion(directory, base.substr(kPrefix.size()));
}
