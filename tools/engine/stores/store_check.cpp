#include "tools/engine/stores/store_check.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/store/old_attributes.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/stores/orphan_search.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <string_view>
#include <strings.h>
#include <sys/xattr.h>

namespace engine {
namespace {

constexpr std::string_view kStreamEnd = "@VexoEAStream", kResourceEnd = "@VexoResource";
using Mend = Subject::Mend;
using NameTypes = std::map<std::string, unsigned char>;

// Anybody's hand can take these away; a device or a directory may be meant.
bool is_planted(mode_t mode) {
    return S_ISLNK(mode) || S_ISFIFO(mode) || S_ISSOCK(mode);
}
const char *kind_of_entry(mode_t mode) {
    return S_ISLNK(mode)    ? "a symbolic link"
           : S_ISDIR(mode)  ? "a directory"
           : S_ISFIFO(mode) ? "a pipe"
           : S_ISSOCK(mode) ? "a socket"
           : S_ISREG(mode)  ? "a file"
                            : "a device";
}

// What the bits of a mode give the user and the group of `to` and everybody else of an entry of `of`.
mode_t owner_rights(const struct stat &of, const struct stat &to) {
    const mode_t bits = of.st_uid == to.st_uid   ? of.st_mode >> 6
                        : of.st_gid == to.st_gid ? of.st_mode >> 3
                                                 : of.st_mode;
    return to.st_uid == 0 ? 7 : bits & 7;
}
mode_t group_rights_of(const struct stat &of, const struct stat &to) {
    return (of.st_gid == to.st_gid ? of.st_mode >> 3 : of.st_mode) & 7;
}

// Who is kept out of a store file by its mode, who may use the file; empty: nobody.
std::string kept_out(const struct stat &file, const struct stat &store) {
    const mode_t needed = file.st_mode >> 6 & 6;
    if ((needed & ~owner_rights(store, file)) != 0) {
        return fmt::format("the owner {} of the file has the rights {:03o} on it, which belongs to {}", file.st_uid,
                           store.st_mode & 0777, store.st_uid);
    }
    if ((file.st_mode >> 3 & 4 & ~group_rights_of(store, file)) != 0) {
        return fmt::format("the group {} of the file may not read it: its mode is {:03o}", file.st_gid,
                           store.st_mode & 0777);
    }
    if ((file.st_mode & 4 & ~store.st_mode) != 0) {
        return fmt::format("others may read the file and not this: its mode is {:03o}", store.st_mode & 0777);
    }
    return {};
}

std::string time_text(const timespec &time) {
    std::tm parts{};
    char text[32] = "";
    ::gmtime_r(&time.tv_sec, &parts);
    std::strftime(text, sizeof text, "%FT%TZ", &parts);
    return text;
}

FindingKind malformed_kind(StoreFile file) {
    return file == StoreFile::stream     ? FindingKind::malformed_stream
           : file == StoreFile::resource ? FindingKind::malformed_resource
                                         : FindingKind::malformed_double;
}

// A store file that was looked into.
struct Audited {
    bool there = false;
    bool read = false;
    StoreBytes bytes = {};
    struct stat status = {};
};

class DirectoryCheck {
  public:
    DirectoryCheck(const StorePlace &place, const std::string &only, const CheckHooks &hooks)
        : m_place(place), m_only(only), m_hooks(hooks), m_store(-1) {}

    DirectoryFindings run() {
        m_names = names_with_types(m_place.directory);
        open_store();
        for (const auto &[name, type] : m_names) {
            if (m_hooks.stopped()) {
                return std::move(m_result); // before what seems to be nobody's
            }
            if (name == kStoreName) {
                continue;
            }
            if (is_own_name(name)) {
                look_at_stray(name, type);
            } else {
                look_at_item(name, type);
            }
        }
        look_at_rest();
        return std::move(m_result);
    }

  private:
    static NameTypes names_with_types(int directory) {
        const auto entries = entries_in(directory);
        if (!entries) {
            throw_errno("cannot be read");
        }
        NameTypes names;
        for (const Entry &entry : *entries) {
            names[entry.name] = entry.type;
        }
        return names;
    }
    // As the volume takes names: some do not tell cases apart.
    bool is_there(const std::string &name) const {
        return ::faccessat(m_place.directory, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    }
    // No entry of a user's.
    static bool is_own_name(const std::string &name) {
        return VEXOEAIsHiddenDir(name.c_str()) == 1 || name.starts_with("._") || is_private_name(name);
    }
    bool uses_store() const { return m_place.kind == StoreKind::ea_directory || m_place.kind == StoreKind::file_ea; }
    std::string shown(bool inStore, const std::string &name) const {
        return joined(inStore ? joined(m_place.path, kStoreName) : m_place.path, name);
    }
    int at(bool inStore) const { return inStore ? m_store.get() : m_place.directory; }

    Finding *add(FindingKind kind, const Subject &subject, const std::string &owner, std::string detail,
                 const char *remedy = "") {
        if (!m_only.empty() && owner != m_only) {
            return nullptr;
        }
        Finding finding{.kind = kind, .place = shown(subject.inStore, subject.name), .detail = std::move(detail)};
        finding.file = owner.empty() ? "" : joined(m_place.path, owner);
        finding.remedy = remedy;
        m_result.found.push_back({std::move(finding), subject});
        return &m_result.found.back().finding;
    }
    void trouble(const std::string &path) const { m_hooks.trouble(path, std::strerror(errno)); }

    void open_store() {
        const auto found = m_names.find(kStoreName);
        if (found == m_names.end()) {
            return;
        }
        struct stat status {};
        if (::fstatat(m_place.directory, kStoreName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return trouble(shown(false, kStoreName));
        }
        if (!S_ISDIR(status.st_mode)) {
            add_wrong_kind({Mend::none, false, kStoreName}, "", status.st_mode, "\"@eaDir\"");
            return;
        }
        m_store = open_stores(m_place.directory);
        if (m_store.get() < 0) {
            return trouble(shown(false, kStoreName));
        }
        m_stored = names_with_types(m_store.get());
        if (m_stored.empty()) {
            add(FindingKind::empty, {Mend::remove_directory, false, kStoreName}, "", "it holds nothing", "removed");
        }
        look_at_rights(status);
    }

    // Everybody who may use the directory has to be able to use what is kept for its files.
    void look_at_rights(const struct stat &store) {
        struct stat around {};
        if (::fstat(m_place.directory, &around) != 0 || has_acl(m_store.get()) || has_acl(m_place.directory)) {
            return;
        }
        const mode_t users = (around.st_mode >> 6 & 5 & ~owner_rights(store, around)) |
                             (around.st_mode >> 3 & 5 & ~group_rights_of(store, around)) |
                             (around.st_mode & 5 & ~store.st_mode);
        if (users != 0) {
            add(FindingKind::closed, {Mend::none, false, kStoreName}, "",
                fmt::format("its mode is {:03o}, that of the directory that it is for {:03o}", store.st_mode & 0777,
                            around.st_mode & 0777));
        }
    }
    static bool has_acl(int fd) {
        return ::fgetxattr(fd, "system.posix_acl_access", nullptr, 0) > 0 ||
               ::fgetxattr(fd, "security.NTACL", nullptr, 0) > 0;
    }

    void add_wrong_kind(Subject subject, const std::string &owner, mode_t mode, const char *wanted) {
        const bool planted = is_planted(mode);
        subject.mend = planted ? Mend::remove : Mend::none;
        add(FindingKind::wrong_kind, subject, owner,
            fmt::format("{} stands where {} should be", kind_of_entry(mode), wanted), planted ? "taken away" : "");
    }

    // "@tmp", what was under way, and "._" files, of which those of an entry are looked at with that.
    void look_at_stray(const std::string &name, unsigned char type) {
        if (::strcasecmp(name.c_str(), "@tmp") == 0 && type == DT_DIR) {
            const Descriptor temporary = open_directory(m_place.directory, name);
            const auto inside = temporary.get() < 0 ? std::nullopt : names_in(temporary.get());
            if (inside && !inside->empty()) {
                add(FindingKind::left_over, {Mend::none, false, name}, "",
                    fmt::format("it holds {} entries", inside->size()));
            }
        } else if (is_private_name(name)) {
            look_at_private(false, name, type);
        } else if (name.starts_with("._") && m_place.kind == StoreKind::apple_double && type == DT_REG &&
                   !is_there(name.substr(2))) {
            look_at_lonely_double(name);
        }
    }

    void look_at_private(bool inStore, const std::string &name, unsigned char type) {
        constexpr std::string_view kChange = ".vexofileop-ea-", kRelocation = ".vexofileop-relocation-";
        const bool change = name.starts_with(kChange) && name.size() == kChange.size() + 16;
        const bool made = !without_suffix(name).empty(), gone = is_left_over(name);
        if (made && !gone) {
            const LeftOvers all = left_overs_in(at(inStore));
            if (std::ranges::find(all.unknown, name) == all.unknown.end()) {
                return; // its process is at work
            }
        } else if (!made && ((!change && !name.starts_with(kRelocation)) || may_be_under_way(at(inStore), name))) {
            return; // a user's own, or somebody is at work on it
        }
        const bool removable = ((change || gone) && type == DT_REG) || (gone && is_trial_left_over(at(inStore), name));
        add(FindingKind::left_over, {removable ? Mend::remove : Mend::none, inStore, name}, "",
            gone     ? "the process that has made it is gone"
            : change ? "a change of a store was stopped"
            : made   ? "it may be under way on another machine, or in another container"
                     : "a relocation was stopped, and finishes when it is run again",
            removable ? "taken away" : "");
    }

    // One that says of itself what it is: a user's own file may be called so as well.
    void look_at_lonely_double(const std::string &name) {
        if (begins_as_double(name)) {
            const Audited audited = audit(false, name, "", StoreFile::apple_double);
            add_orphan({Mend::none, false, name}, name.substr(2), audited.bytes);
        }
    }

    bool begins_as_double(const std::string &name) const {
        const StoreFileHeld held = open_store_file(m_place.directory, name, O_RDONLY);
        char start[4] = "";
        return held.file.get() >= 0 && ::pread(held.file.get(), start, sizeof start, 0) == sizeof start &&
               std::string_view(start, sizeof start) == std::string_view("\0\5\26\7", 4);
    }

    void look_at_item(const std::string &name, unsigned char type) {
        if ((type != DT_REG && type != DT_DIR) || m_place.kind == StoreKind::none) {
            return;
        }
        if (!m_only.empty() && name != m_only && name.size() < 100) {
            return; // only what may be shortened can share a store
        }
        const std::string besideName = "._" + name;
        const Audited stream = companion(name, "VexoEAStream", StoreFile::stream);
        const Audited resource = companion(name, "VexoResource", StoreFile::resource);
        Audited beside;
        if (m_place.kind == StoreKind::apple_double && is_there(besideName)) {
            beside = audit(false, besideName, name, StoreFile::apple_double);
        }
        look_at_other_forms(name, stream.there || resource.there || beside.there);
        look_at_own_directory(name, stream, resource);
        look_at_metadata(name, resource);
        if (!stream.there && !resource.there && !beside.there) {
            m_bare.push_back(name);
        }
    }

    Audited companion(const std::string &name, const char *stream, StoreFile file) {
        if (m_store.get() < 0 || !uses_store()) {
            return {};
        }
        const std::string stored = companion_name(m_place.directory, name, stream);
        const auto claimed = m_claimed.find(stored);
        if (claimed != m_claimed.end()) {
            const std::string detail =
                fmt::format("it is that of {} and of {}", displayed(claimed->second), displayed(name));
            add(FindingKind::shared, {Mend::none, true, stored}, name == m_only ? name : claimed->second, detail);
            return {.there = true};
        }
        if (m_stored.erase(stored) == 0) {
            return {};
        }
        m_claimed[stored] = name;
        return audit(true, stored, name, file);
    }

    Audited audit(bool inStore, const std::string &name, const std::string &owner, StoreFile file) {
        Audited audited{.there = true};
        if (!m_only.empty() && owner != m_only) {
            return audited;
        }
        const StoreFileHeld held = open_store_file(at(inStore), name, O_RDONLY);
        audited.status = held.status;
        if (held.file.get() < 0) {
            if (errno == EINVAL && held.status.st_nlink > 0 && !S_ISREG(held.status.st_mode)) {
                add_wrong_kind({Mend::none, inStore, name}, owner, held.status.st_mode, "a store file");
            } else if (errno != ENOENT) {
                trouble(shown(inStore, name));
            }
            return audited;
        }
        ++m_result.stores;
        if (!lock_store_file(held.file.get(), F_RDLCK)) {
            add(FindingKind::in_use, {Mend::none, inStore, name}, owner, "another process has it locked");
            return audited;
        }
        try {
            audited.bytes = read_store_bytes(held.file.get(), file);
            audited.read = true;
            tell_bytes(audited.bytes, {Mend::rewrite, inStore, name, file}, owner, has_extra_blocks(held.file.get()));
        } catch (const Failure &failure) {
            m_hooks.trouble(shown(inStore, name), failure.what());
        }
        tell_status({Mend::none, inStore, name, file}, owner, held);
        return audited;
    }

    void tell_bytes(const StoreBytes &bytes, Subject subject, const std::string &owner, bool extraBlocks) {
        const bool can = bytes.hopeless.empty();
        subject.mend = can ? Mend::rewrite : Mend::none;
        if (!bytes.bad.empty()) {
            const auto whole = std::ranges::count_if(bytes.values, [](const auto &value) { return value.whole; });
            const std::string detail =
                can ? fmt::format("{}; {} attributes, {} bytes of resource fork{} can be read", bytes.bad, whole,
                                  bytes.fork_there(), bytes.finderInfo.empty() ? "" : " and the Finder Info")
                    : fmt::format("{}; {}", bytes.bad, bytes.hopeless);
            add(malformed_kind(subject.file), subject, owner, detail, can ? "written anew of what can be read" : "");
        }
        if (!can) {
            return; // where what begins and ends is not known
        }
        for (const StoreBytes::Value &value : bytes.values) {
            if (value.length > 0 && value.offset + value.length > bytes.size) {
                add(FindingKind::value_cut, subject, owner,
                    fmt::format("attribute {} has {} bytes, of which {} are there", displayed(value.name), value.length,
                                value.offset < bytes.size ? bytes.size - value.offset : 0),
                    "written anew without it");
            }
        }
        if (bytes.fork_cut()) {
            add(FindingKind::fork_cut, subject, owner,
                fmt::format("the resource fork has {} bytes, of which {} are there", bytes.forkLength,
                            bytes.fork_there()),
                "kept as far as it is there");
        }
        if (bytes.extra_bytes() > 0) {
            add(FindingKind::extra_bytes, subject, owner,
                fmt::format("{} bytes follow its end at {}", bytes.extra_bytes(), bytes.end), "cut off");
        }
        if (extraBlocks) {
            add(FindingKind::extra_blocks, subject, owner, "room is reserved behind its end", "given back");
        }
    }

    void tell_status(const Subject &subject, const std::string &owner, const StoreFileHeld &held) {
        if (held.status.st_nlink > 1) {
            add(FindingKind::shared, subject, owner, fmt::format("it has {} names", held.status.st_nlink));
        }
        struct stat file {};
        if (owner.empty() || has_acl(held.file.get()) ||
            ::fstatat(m_place.directory, owner.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(file.st_mode)) {
            return;
        }
        const std::string who = kept_out(file, held.status);
        if (!who.empty()) {
            add(FindingKind::closed, subject, owner, who);
        }
    }

    // Forms that this volume has no use for, where their kind of volume would have them.
    void look_at_other_forms(const std::string &name, bool own) {
        const auto tell = [&](bool inStore, const std::string &stored) {
            add(own ? FindingKind::half_converted : FindingKind::other_form, {Mend::none, inStore, stored}, name,
                fmt::format("this volume keeps it in {}", kind_text(m_place.kind)));
        };
        if (m_place.kind != StoreKind::apple_double && m_names.contains("._" + name) && begins_as_double("._" + name)) {
            tell(false, "._" + name);
        }
        for (const char *stream : {"VexoEAStream", "VexoResource"}) {
            const std::string stored =
                uses_store() || m_store.get() < 0 ? "" : companion_name(m_place.directory, name, stream);
            if (!stored.empty() && m_stored.erase(stored) > 0) {
                tell(true, stored);
            }
        }
    }

    void look_at_own_directory(const std::string &name, const Audited &stream, const Audited &resource) {
        const auto found = m_stored.find(name);
        if (found == m_stored.end()) {
            return;
        }
        const unsigned char type = found->second;
        m_stored.erase(found);
        if (!m_only.empty() && name != m_only) {
            return;
        }
        if (type != DT_DIR) {
            add_wrong_kind({Mend::none, true, name}, name, static_cast<mode_t>(DTTOIF(type)),
                           "the file's own directory");
            return;
        }
        const OldAttributes old(fmt::format("/proc/self/fd/{}/{}", m_place.directory, name));
        const bool oldResource = std::ranges::find(old.names(), "VEXO:Resource") != old.names().end();
        if (old.names().empty()) {
            add(FindingKind::empty, {Mend::remove_directory, true, name}, name, "it holds nothing", "removed");
            return;
        }
        std::string twice = oldResource && resource.there ? "the resource" : "";
        for (const std::string &one : old.names()) {
            const bool attribute = old.is_attribute(one);
            const bool there = std::ranges::any_of(stream.bytes.values, [&](const auto &v) { return v.name == one; });
            if (attribute && there && twice.empty()) {
                twice = fmt::format("the attribute {}", displayed(one));
            }
        }
        if (!twice.empty()) {
            add(FindingKind::half_upgraded, {Mend::none, true, name}, name,
                fmt::format("{} is in both layouts", twice));
        } else if (uses_store() && (old.any() || oldResource)) {
            add(FindingKind::old_layout, {Mend::none, true, name}, name,
                old.any() ? "attributes lie in small files" : "the resource lies in a file of its own");
        }
    }

    void look_at_metadata(const std::string &name, const Audited &resource) {
        if ((!m_only.empty() && name != m_only) || !uses_store()) {
            return;
        }
        try {
            const auto value = metadata_of(m_place.directory, name);
            if (!value) {
                return;
            }
            if (m_place.kind != StoreKind::file_ea) {
                add(resource.there ? FindingKind::half_converted : FindingKind::other_form, {Mend::none, false, name},
                    name,
                    fmt::format("it has the attribute {}; this volume keeps it in {}", kMetadataName,
                                kind_text(m_place.kind)));
                return;
            }
            ++m_result.stores;
            const std::string fault = metadata_fault(*value);
            if (!fault.empty()) {
                const bool can = !sound_metadata(*value).empty();
                add(FindingKind::malformed_metadata, {can ? Mend::attribute : Mend::none, false, name}, name, fault,
                    can ? "written anew of what can be read" : "");
            } else {
                compare_finder_info(name, metadata_finder_info(*value), resource);
            }
        } catch (const Failure &failure) {
            if (errno != ENOENT) {
                m_hooks.trouble(shown(false, name), failure.what());
            }
        }
    }

    void compare_finder_info(const std::string &name, const std::string &inAttribute, const Audited &resource) {
        const std::string &inFile = resource.bytes.finderInfo;
        const bool none = std::ranges::all_of(inFile, [](char byte) { return byte == '\0'; });
        struct stat file {};
        if (!resource.read || none || inAttribute.empty() || inFile == inAttribute ||
            ::fstatat(m_place.directory, name.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0) {
            return;
        }
        const timespec &attributeTime = file.st_ctim, &fileTime = resource.status.st_mtim;
        const bool fileIsNewer = fileTime.tv_sec > attributeTime.tv_sec ||
                                 (fileTime.tv_sec == attributeTime.tv_sec && fileTime.tv_nsec > attributeTime.tv_nsec);
        add(FindingKind::finder_info_differs, {Mend::none, false, name}, name,
            fmt::format("the resource file was changed at {}, the file's attributes at {} or before: {} is newer",
                        time_text(fileTime), time_text(attributeTime),
                        fileIsNewer ? "the resource file" : "the attribute, if nothing else was changed then,"));
    }

    void add_orphan(const Subject &subject, const std::string &base, const StoreBytes &bytes) {
        const OrphanGuess guess = m_orphans.search(m_place.directory, m_bare, base, bytes);
        std::string detail = fmt::format("no file or directory is called {}", displayed(base));
        if (!guess.name.empty()) {
            detail += fmt::format("; it may belong to {}, {}", displayed(guess.name),
                                  guess.byInode ? "which has the inode number that is noted in it"
                                                : "which has no store and is called nearly so");
        }
        if (Finding *const finding = add(FindingKind::orphan, subject, "", detail); finding != nullptr) {
            finding->belongs = guess.name.empty() ? "" : joined(m_place.path, guess.name);
        }
    }

    // What is in "@eaDir" and of no entry.
    void look_at_rest() {
        if (!m_only.empty() || m_place.kind == StoreKind::none) {
            return;
        }
        for (const auto &[name, type] : m_stored) {
            if (m_hooks.stopped()) {
                return;
            }
            const bool stream = name.ends_with(kStreamEnd), resource = name.ends_with(kResourceEnd);
            if (is_private_name(name)) {
                look_at_private(true, name, type);
            } else if (stream || resource) {
                const Audited audited = audit(true, name, "", stream ? StoreFile::stream : StoreFile::resource);
                if (S_ISREG(audited.status.st_mode)) {
                    add_orphan({Mend::none, true, name},
                               name.substr(0, name.size() - (stream ? kStreamEnd : kResourceEnd).size()),
                               audited.bytes);
                }
            } else if (type == DT_DIR && VEXOEAIsHiddenDir(name.c_str()) != 1) {
                look_at_lonely_directory(name);
            }
        }
    }
    void look_at_lonely_directory(const std::string &name) {
        const Descriptor directory = open_directory(m_store.get(), name);
        const auto inside = directory.get() < 0 ? std::nullopt : names_in(directory.get());
        if (inside && inside->empty()) {
            add(FindingKind::empty, {Mend::remove_directory, true, name}, "", "it holds nothing", "removed");
        } else if (inside) {
            add_orphan({Mend::none, true, name}, name, {});
        } else if (errno != ENOENT) {
            trouble(shown(true, name));
        }
    }

    const StorePlace &m_place;
    const std::string &m_only;
    const CheckHooks &m_hooks;
    Descriptor m_store; // "@eaDir"
    NameTypes m_names, m_stored;
    std::map<std::string, std::string> m_claimed; // names in "@eaDir" by whose they are
    std::vector<std::string> m_bare;              // entries without a store
    OrphanSearch m_orphans;
    DirectoryFindings m_result;
};

} // namespace

DirectoryFindings check_directory(const StorePlace &place, const std::string &only, const CheckHooks &hooks) {
    return DirectoryCheck(place, only, hooks).run();
}

} // namespace engine
