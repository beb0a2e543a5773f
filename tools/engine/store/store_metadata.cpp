// Everything that a file's store holds, whatever it is kept in.
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_contents.h"
#include "tools/engine/walk/paths.h"

#include <sys/xattr.h>

namespace engine {

std::string metadata_attribute(const std::string &path) {
    std::string value(1024, '\0');
    const ssize_t size = ::getxattr(path.c_str(), kMetadataName, value.data(), value.size());
    value.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return value;
}

Store::Metadata Store::metadata() const {
    const Descriptor directory(::open(parent_of(m_path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0) {
        throw_errno("cannot open its directory");
    }
    const StoreContents contents({directory.get(), base_name(m_path), m_file, m_kind});
    if (!contents.problems().empty()) {
        throw Failure(contents.problems().front());
    }
    Metadata all{contents.finder_info(), contents.fork(), {}, false};
    for (const StoreContents::Attribute &attribute : contents.attributes()) {
        all.attributes.emplace_hint(all.attributes.end(), attribute.name, contents.value(attribute));
    }
    VLIBCStat status{};
    all.locked = VLIBCFileStat(m_file.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) == 0 &&
                 is_locked(status, m_kind, contents.afp_locked());
    return all;
}

} // namespace engine
