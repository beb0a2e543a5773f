#include "tools/engine/store/listing.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <climits>
#include <dirent.h>
#include <fmt/format.h>
#include <map>

namespace engine {
namespace {

using TypesOfNames = std::map<std::string, unsigned char>;

TypesOfNames names_of(int directory) {
    const auto entries = entries_in(directory);
    if (!entries) {
        throw_errno("cannot be read");
    }
    TypesOfNames names;
    for (const Entry &entry : *entries) {
        names[entry.name] = entry.type;
    }
    return names;
}

class Lister {
  public:
    Lister(int directory, StoreKind kind, std::string *unread)
        : m_directory(directory), m_kind(kind), m_names(names_of(directory)), m_unread(unread) {}

    Listing run() {
        try {
            open_store();
        } catch (const Failure &failure) {
            if (m_unread == nullptr) {
                throw;
            }
            *m_unread = failure.what();
        }
        for (const auto &[name, type] : m_names) {
            if (name == kStoreName && m_listing.store != nullptr) {
                continue;
            }
            if (VEXOEAIsHiddenDir(name.c_str()) == 1 || is_companion_of_none(name)) {
                m_listing.strangers.push_back({false, name});
            } else if (!name.starts_with("._")) {
                m_listing.items.push_back({name, type, parts_of(name, type)});
            }
        }
        for (const auto &[name, type] : m_stored) {
            m_listing.strangers.push_back({true, name});
        }
        return std::move(m_listing);
    }

  private:
    void open_store() {
        const auto found = m_names.find(kStoreName);
        if (found == m_names.end() || found->second != DT_DIR) {
            return;
        }
        m_listing.store = std::make_unique<Descriptor>(-1);
        Descriptor opened = open_directory(m_directory, kStoreName);
        m_listing.store->swap(opened);
        if (m_listing.store->get() < 0) {
            throw_errno("\"@eaDir\" cannot be opened");
        }
        m_stored = names_of(m_listing.store->get());
        m_listing.cover = m_stored.erase(".cover") > 0;
    }
    bool is_companion_of_none(const std::string &name) const {
        if (!name.starts_with("._")) {
            return false;
        }
        const auto owner = m_names.find(name.substr(2));
        return m_kind != StoreKind::apple_double || name.size() == 2 || owner == m_names.end() ||
               (owner->second != DT_REG && owner->second != DT_DIR) || VEXOEAIsHiddenDir(owner->first.c_str()) == 1;
    }
    std::vector<Listing::Part> parts_of(const std::string &name, unsigned char type) {
        std::vector<Listing::Part> parts;
        if (type != DT_REG && type != DT_DIR) {
            return parts; // nothing is kept for it
        }
        if (m_kind == StoreKind::apple_double && m_names.contains("._" + name)) {
            parts.push_back({false, "._" + name});
        }
        if (m_kind == StoreKind::ea_directory || m_kind == StoreKind::file_ea) {
            for (const char *stream : {"VexoEAStream", "VexoResource"}) {
                // A name that is there as it is has not been shortened: the volume need not be asked for its limit.
                const std::string whole = name + "@" + stream;
                claim(m_stored.empty() || m_stored.contains(whole) ? whole : companion_name(m_directory, name, stream),
                      DT_REG, parts);
            }
        }
        if (m_kind != StoreKind::none) {
            claim(name, DT_DIR, parts);
        }
        return parts;
    }
    void claim(const std::string &name, unsigned char type, std::vector<Listing::Part> &parts) {
        const auto found = m_stored.find(name);
        if (found != m_stored.end() && found->second == type) {
            parts.push_back({true, name});
            m_stored.erase(found);
        }
    }

    int m_directory;
    StoreKind m_kind;
    TypesOfNames m_names, m_stored;
    std::string *m_unread;
    Listing m_listing;
};

} // namespace

std::string companion_name(int directory, const std::string &name, const char *stream) {
    char place[PATH_MAX] = "";
    const std::string path = fmt::format("/proc/self/fd/{}/{}", directory, name);
    return VEXOEAPathNoADFS(1, path.c_str(), stream, place, sizeof place) == 0 ? base_name(place) : std::string();
}

std::string part_text(const Listing::Part &part) {
    return part.inStore ? std::string(kStoreName) + "/" + part.name : part.name;
}

Listing list_directory(int directory, StoreKind kind, std::string *unread) {
    return Lister(directory, kind, unread).run();
}

} // namespace engine
