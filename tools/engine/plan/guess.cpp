#include "tools/engine/plan/guess.h"

#include "tools/engine/compare/entry_view.h"
#include "tools/engine/compare/findings.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_contents.h"
#include "tools/engine/walk/units.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

class Guess {
  public:
    Guess(const Side &source, int to, const VolumeFacts &volume, bool stores)
        : m_source(source), m_to(to), m_volume(volume), m_stores(stores) {}

    std::vector<Loss> run() {
        try {
            EntryView entry(m_source);
            entry.pin();
            guess_owner(entry.status().st);
            guess_attributes(entry);
            guess_status(entry);
            if (!m_stores) {
                guess_store(entry.contents());
            } else if (m_volume.store == StoreKind::native && m_source.volume.store != StoreKind::native) {
                guess_left_behind(entry.contents());
            }
        } catch (const Failure &failure) {
            lose(LossClass::unreadable, failure.what());
        }
        return std::move(m_losses);
    }

  private:
    void lose(LossClass cls, std::string detail) { m_losses.push_back({cls, std::move(detail)}); }
    void lose_stored(const StoreContents::Attribute &one, LossClass cls) {
        lose(cls, only_first_text(cls == LossClass::stream ? "stream" : "attribute", displayed(one.name), one.size));
    }
    // What the kernel says to a question for an attribute that nobody has.
    bool keeps(const char *name) const {
        const std::string path = fmt::format("/proc/self/fd/{}/.", m_to);
        return ::getxattr(path.c_str(), name, nullptr, 0) >= 0 || errno == ENODATA;
    }

    void guess_owner(const struct stat &found) {
        struct stat there {};
        const bool same = !m_volume.owners && ::fstat(m_to, &there) == 0;
        const bool root = ::geteuid() == 0;
        const uid_t user = same ? there.st_uid : root ? found.st_uid : ::geteuid();
        const gid_t group = same ? there.st_gid : root || user == found.st_uid ? found.st_gid : ::getegid();
        if (!m_source.volume.owners) {
            return;
        }
        if (user != found.st_uid) {
            lose(LossClass::owner, fmt::format("owner differs: {} and {}", found.st_uid, user));
        }
        if (group != found.st_gid) {
            lose(LossClass::group, fmt::format("group differs: {} and {}", found.st_gid, group));
        }
        if (same && ((found.st_mode ^ there.st_mode) & kModeBits) != 0) {
            lose(LossClass::mode,
                 fmt::format("permissions differ: {:04o} and those of the mount", found.st_mode & kModeBits));
        }
    }
    void guess_attributes(const EntryView &entry) {
        const bool user = keeps("user.vexofileop.none"), root = ::geteuid() == 0;
        for (const std::string &name : entry.names()) {
            const std::optional<std::string> value = entry.attribute(name);
            const std::string detail = only_first_text("attribute", displayed(name), value ? value->size() : 0);
            if (name == "system.posix_acl_access" || name == "system.posix_acl_default") {
                if (!keeps(name.c_str())) {
                    lose(name.ends_with("access") ? LossClass::acl_access : LossClass::acl_default,
                         "the volume keeps no ACLs");
                }
            } else if (name.starts_with("user.")) {
                if (!user) {
                    lose(LossClass::attribute, detail);
                }
            } else if (name.starts_with("osx.")) {
                lose(LossClass::mac_attributes, detail);
            } else if (!root || name.starts_with("system.") || !keeps(name.c_str())) {
                lose(name.starts_with("security.NTACL") ? LossClass::acl_windows : LossClass::system_attribute, detail);
            }
        }
    }
    void guess_status(const EntryView &entry) {
        if (!keeps_time(m_volume, entry.status().st.st_mtim)) {
            lose(LossClass::modification_time,
                 "modification time: the volume keeps none before 1980 and none after 2107");
        }
        constexpr uint32_t kept = VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM;
        if (keeps("user.vexofileop.none")) {
            return;
        }
        if ((entry.status().attributes & kept) != 0 && !volume_traits(m_volume.type).fatNames) {
            lose(LossClass::dos_attributes, "the volume keeps no DOS attributes");
        }
        lose(LossClass::creation_time, "the volume keeps no creation time that can be set");
    }
    void guess_store(const StoreContents &contents) {
        if (const int attributes = contents.afp_attributes() & ~StoreContents::kAfpLockedBits; attributes != 0) {
            lose(LossClass::mac_attributes, fmt::format("AFP attributes differ: 0x{:04x} and 0x0000", attributes));
        }
        if (!contents.comment().empty()) {
            lose(LossClass::mac_attributes, fmt::format("comment differs: {} and 0 bytes", contents.comment().size()));
        }
        for (const StoreContents::Attribute &attribute : contents.attributes()) {
            lose_stored(attribute, attribute.name.starts_with("user.") ? LossClass::attribute : LossClass::stream);
        }
        if (!contents.finder_info().empty()) {
            lose(LossClass::finder_info, "Finder Info differs");
        }
        if (contents.fork_size() > 0) {
            lose(LossClass::resource_fork, fmt::format("resource fork differs: {} and 0 bytes", contents.fork_size()));
        }
    }
    void guess_left_behind(const StoreContents &contents) {
        for (const StoreContents::Attribute &attribute : contents.attributes()) {
            if (attribute.size > kLargestNative || !may_be_native(attribute.name)) {
                lose_stored(attribute, class_of_attribute(attribute.name, true));
            }
        }
    }

    const Side &m_source;
    int m_to;
    const VolumeFacts &m_volume;
    bool m_stores;
    std::vector<Loss> m_losses;
};

} // namespace

std::vector<Loss> guess_losses(const Side &source, int to, const VolumeFacts &volume, bool stores) {
    return Guess(source, to, volume, stores).run();
}

} // namespace engine
