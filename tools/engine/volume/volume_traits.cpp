#include "tools/engine/volume/volume_traits.h"

namespace tool {

StoreKind store_kind(int typeCode) {
    switch (typeCode) {
    case 0:
    case 5:
    case 18:
        return StoreKind::apple_double;
    case 7:
        return StoreKind::native;
    case 1:
    case 6:
    case 10:
    case 19:
    case 22:
        return StoreKind::ea_directory;
    case 2:
    case 3:
        return StoreKind::file_ea;
    default:
        return StoreKind::none;
    }
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

} // namespace tool
