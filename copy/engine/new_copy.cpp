#include "copy/engine/new_copy.h"

#include "support/file_calls.h"
#include "support/guards.h"

#include <string_view>
#include <unistd.h>

namespace vexo {

bool set_record_at_once(const NewCopy &copy, const VLIBCStat &source, bool withMetadata) {
    if (VLIBCFileFComplete == nullptr || !copy.names.known() || ::geteuid() != 0 ||
        !is_plain_file(copy.src.path(), copy.dst.path(), copy.srcType, copy.dstType, copy.seen, copy.names)) {
        return false;
    }
    uint32_t attributes = source.attributes & (VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM);
    bool record = false;
    if (withMetadata) { // whoever carries a file's metadata carries the lock, and marks it for the next backup
        attributes |= VLIBC_ATTR_ARCHIVE | (source.attributes & VLIBC_ATTR_LOCKED);
        record = copy.names.any([](std::string_view name) { return is_record(name.data()); });
    }
    const KeepErrors keep;
    const timespec times[] = {source.st.st_atim, source.st.st_mtim, source.createTime};
    return VLIBCFileFComplete(record ? copy.src.fd() : -1, copy.dst.fd(), source.st.st_mode, times, attributes) == 0;
}

int copy_acls_to_new(const NewCopy &copy, mode_t modeOfSource) {
    if (copy.names.known() && VEXOACLFCopyToNew != nullptr) {
        const std::string_view names = copy.names.text();
        return VEXOACLFCopyToNew(copy.src.fd(), copy.dst.fd(), modeOfSource, names.data(), names.size());
    }
    const int copied = copy_acl(copy.src, copy.dst);
    return copied != 0 ? copied : copy_archive_acl(copy.src, copy.dst);
}

} // namespace vexo
