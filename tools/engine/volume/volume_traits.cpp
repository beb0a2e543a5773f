#include "tools/engine/volume/volume_traits.h"

#include "copy/copy.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace engine {
namespace {

struct Row {
    int typeCode;
    VolumeTraits traits;
};
constexpr Row kRows[] = {
    {0, {.store = StoreKind::apple_double, .owners = false, .fatNames = true}},
    {1, {.store = StoreKind::ea_directory, .links = true, .wholeTrees = true}},
    {2, {.store = StoreKind::file_ea, .links = true, .wholeTrees = true}},
    {3, {.store = StoreKind::file_ea, .links = true, .wholeTrees = true}},
    {5, {.store = StoreKind::apple_double, .links = true}},
    {6, {.store = StoreKind::ea_directory, .links = true, .wholeTrees = true}},
    {7, {.store = StoreKind::native, .links = true}},
    {10, {.store = StoreKind::ea_directory}},
    {12, {.owners = false}},
    {18, {.store = StoreKind::apple_double, .owners = false, .fatNames = true}},
    {19, {.store = StoreKind::ea_directory}},
    {22, {.store = StoreKind::ea_directory}},
};

} // namespace

VolumeTraits volume_traits(int typeCode) {
    const auto *const row = std::ranges::find(kRows, typeCode, &Row::typeCode);
    return row == std::end(kRows) ? VolumeTraits{} : row->traits;
}

uint64_t largest_file(int directory, int typeCode) {
    return _VEXOCopyFsFileSizeLimitGet(("/proc/self/fd/" + std::to_string(directory) + "/.").c_str(), typeCode);
}

bool lists_all_attributes(uint32_t magic) {
    constexpr uint32_t own[] = {0xef53, 0x58465342, 0x9123683e, 0x01021994}; // ext4, XFS, btrfs, tmpfs
    return std::ranges::find(own, magic) != std::end(own);
}

const char *kind_text(StoreKind kind) {
    switch (kind) {
    case StoreKind::apple_double:
        return "a \"._\" file";
    case StoreKind::native:
        return "the file's own attributes";
    case StoreKind::ea_directory:
        return "\"@eaDir\"";
    case StoreKind::file_ea:
        return "\"@eaDir\" and a metadata attribute";
    case StoreKind::none:
        break;
    }
    return "nothing";
}

} // namespace engine
