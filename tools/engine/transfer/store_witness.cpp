#include "tools/engine/transfer/store_witness.h"

#include "ea/ea.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/text_hash.h"
#include "tools/engine/workers/record.h"

#include <climits>

namespace engine {

StoreWitness::StoreWitness(const HeldDirectory &directory, const std::string &name) {
    const std::string path = directory.below(name);
    char place[PATH_MAX] = "";
    if (store_kind(directory.type()) == StoreKind::apple_double &&
        VEXOEAADPath(path.c_str(), place, sizeof place) == 0) {
        m_parts[0] = Witness::of(directory.fd(), base_name(place));
    }
    const Descriptor stores = open_directory(directory.fd(), "@eaDir");
    if (stores.get() < 0) {
        return;
    }
    constexpr const char *streams[] = {"VexoEAStream", "VexoResource"};
    for (size_t at = 0; at < std::size(streams); ++at) {
        if (VEXOEAPathNoADFS(1, path.c_str(), streams[at], place, sizeof place) == 0) {
            m_parts[1 + at] = Witness::of(stores.get(), base_name(place));
        }
    }
    m_parts[3] = Witness::of(stores.get(), name);
}

bool StoreWitness::unchanged(const HeldDirectory &directory, const std::string &name) const {
    const StoreWitness now(directory, name);
    for (size_t at = 0; at < m_parts.size(); ++at) {
        const auto &before = m_parts[at], &there = now.m_parts[at];
        if (before.has_value() != there.has_value() || (before && !before->is(there->seen()))) {
            return false;
        }
    }
    return true;
}

uint64_t StoreWitness::mark() const {
    RecordWriter all;
    for (const auto &part : m_parts) {
        all.number(part.has_value());
        if (part) {
            const struct stat &seen = part->seen();
            all.number(seen.st_dev).number(seen.st_ino).number(seen.st_mode).number(seen.st_size);
            all.number(seen.st_mtim).number(seen.st_ctim);
        }
    }
    return text_hash(all.bytes());
}

} // namespace engine
