// The library as a program that benchmarks run: one call on two paths, with everything kept that belongs to a file.
//
//     tree_driver copy|clone|move|data SOURCE DESTINATION
//
// `data` leaves the ACLs alone, for the count of system calls of a copy without metadata. A source that is a directory
// goes through the tree engine, any other through the single-file engine.
#include "copy/copy.h"

#include <cstdio>
#include <string_view>
#include <sys/stat.h>

namespace {

using Call = int (*)(const char *src, const char *dst, VEXOCopyOpt *options);

int clone_one_file(const char *src, const char *dst, VEXOCopyOpt *options) {
    return VEXOFileReflinkCopy(src, dst, options, nullptr);
}

Call call_for(bool tree, bool clone) {
    if (clone) {
        return tree ? VEXOFileReflinkCopyDirectory : clone_one_file;
    }
    return tree ? VEXOFileCopyDirectory : VEXOFileCopy;
}

int fail(const char *text) {
    std::fprintf(stderr, "tree_driver: %s\n", text);
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        return fail("usage: tree_driver copy|clone|move|data SOURCE DESTINATION");
    }
    const std::string_view mode = argv[1];
    if (mode != "copy" && mode != "clone" && mode != "move" && mode != "data") {
        return fail("unknown mode");
    }
    struct stat status;
    if (::lstat(argv[2], &status) != 0) {
        return fail("no such source");
    }
    VEXOCopyOpt options = {};
    options.overwrite = 1;
    options.ownerMode = 1;
    options.stopOnError = 1;
    options.copyAcl = mode != "data";
    options.move = mode == "move";
    if (call_for(S_ISDIR(status.st_mode), mode == "clone")(argv[2], argv[3], &options) != 0) {
        std::fprintf(stderr, "tree_driver: failed with 0x%04X (%s:%u)\n", VLIBCErrGet(), VLIBCErrorGetFile(),
                     static_cast<unsigned>(VLIBCErrorGetLine()));
        return 1;
    }
    return 0;
}
