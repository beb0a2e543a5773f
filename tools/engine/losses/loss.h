// The vocabulary of what can become of an entry on its way to another volume. Who forecasts, who counts and who
// compares speak of the same classes by the same names.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

enum class LossClass : uint8_t {
    data,
    name_changed,
    name_clash,
    name_too_long,
    file_too_large,
    owner,
    group,
    mode,
    acl_access,
    acl_default,
    acl_windows,
    dos_attributes,
    creation_time,
    modification_time,
    attribute,
    system_attribute,
    stream,
    finder_info,
    resource_fork,
    mac_attributes,
    locked,
    symbolic_link,
    hard_link,
    hole,
    special_file,
    unreadable,
    not_carried,
};

enum class Severity : uint8_t {
    lost,       // it is at the source only
    changed,    // it is there, and not as it was
    costs_more, // it is there as it was, and takes more room
};

struct LossRow {
    LossClass cls;
    const char *name; // never changed once it was released: scripts ask for it
    Severity severity;
    const char *meaning, *help; // a sentence each
    const char *one, *several;  // behind a number: "1 owner not kept", "2 owners not kept"
};

// In the order of the enumeration.
inline constexpr std::array kLossTable = std::to_array<LossRow>({
    {LossClass::data, "data", Severity::lost, "The content is not there, or not the same.",
     "Copy the entry again; with \"compare\" the two can be held against each other.", "entry without its content",
     "entries without their content"},
    {LossClass::name_changed, "name-changed", Severity::changed,
     "The volume does not take the name, and the entry stands under another one.",
     "Keep it with --names=reversible, rename it at the source, or choose a volume that takes every name.",
     "name changed", "names changed"},
    {LossClass::name_clash, "name-clash", Severity::lost,
     "Two names of the source become one at the destination, which does not tell them apart.",
     "Rename one of them at the source.", "name that became one with another", "names that became one with another"},
    {LossClass::name_too_long, "name-too-long", Severity::lost,
     "The name, or that of a companion that its metadata need, is longer than the volume takes.",
     "Shorten the name at the source.", "name too long", "names too long"},
    {LossClass::file_too_large, "file-too-large", Severity::lost, "The volume takes no file of this size.",
     "Choose a volume with larger files (FAT ends at 4 GiB less a byte).", "file too large", "files too large"},
    {LossClass::owner, "owner", Severity::changed, "The copy belongs to another user.",
     "Copy as root, onto a volume that keeps owners.", "owner not kept", "owners not kept"},
    {LossClass::group, "group", Severity::changed, "The copy belongs to another group.",
     "Copy as root or as a member of the group, onto a volume that keeps owners.", "group not kept", "groups not kept"},
    {LossClass::mode, "mode", Severity::changed,
     "The permissions, or the set-user-id, set-group-id or sticky bit, are not those of the source.",
     "Copy as root, onto a volume that keeps permissions.", "mode not kept", "modes not kept"},
    {LossClass::acl_access, "acl-access", Severity::lost, "The access ACL is not that of the source.",
     "Choose a volume that keeps ACLs, mounted with them.", "access ACL not kept", "access ACLs not kept"},
    {LossClass::acl_default, "acl-default", Severity::lost,
     "The ACL that new entries of a directory inherit is not that of the source.",
     "Choose a volume that keeps ACLs, mounted with them.", "default ACL not kept", "default ACLs not kept"},
    {LossClass::acl_windows, "acl-windows", Severity::lost, "The Windows ACL is not that of the source.",
     "Copy as root, onto a volume that keeps \"security.\" attributes.", "Windows ACL not kept",
     "Windows ACLs not kept"},
    {LossClass::dos_attributes, "dos-attributes", Severity::lost,
     "Hidden, system or archive is not what it is at the source.",
     "Choose a volume that keeps DOS attributes or \"user.\" attributes.", "entry without its DOS attributes",
     "entries without their DOS attributes"},
    {LossClass::creation_time, "creation-time", Severity::lost, "The creation time is not that of the source.",
     "Choose a volume that keeps \"user.\" attributes, in which it is kept.", "creation time not kept",
     "creation times not kept"},
    {LossClass::modification_time, "modification-time", Severity::changed,
     "The modification time is not that of the source: lost, or coarser than the coarser of the two volumes keeps it. "
     "One "
     "that is as exact as that volume keeps times is no loss.",
     "Copy as the owner or as root.", "modification time not kept", "modification times not kept"},
    {LossClass::attribute, "attribute", Severity::lost, "A \"user.\" attribute is not that of the source.",
     "Choose a volume that keeps \"user.\" attributes of its size.", "attribute not kept", "attributes not kept"},
    {LossClass::system_attribute, "system-attribute", Severity::lost,
     "A \"security.\", \"trusted.\" or \"system.\" attribute is not that of the source.",
     "Copy as root, onto a volume that keeps such attributes.", "system attribute not kept",
     "system attributes not kept"},
    {LossClass::stream, "stream", Severity::lost, "A named stream of the store is not that of the source.",
     "Free some room, or choose a volume whose stores take streams of its size.", "named stream not kept",
     "named streams not kept"},
    {LossClass::finder_info, "finder-info", Severity::lost, "The Finder Info is not that of the source.",
     "Choose a volume that keeps stores.", "entry without its Finder Info", "entries without their Finder Info"},
    {LossClass::resource_fork, "resource-fork", Severity::lost, "The resource fork is not that of the source.",
     "Choose a volume that keeps stores.", "resource fork not kept", "resource forks not kept"},
    {LossClass::mac_attributes, "mac-attributes", Severity::lost,
     "Attributes that a Mac set on its own volume are not at the destination.",
     "Copy the entry with a Mac, or keep the volume.", "entry without attributes that a Mac has set",
     "entries without attributes that a Mac has set"},
    {LossClass::locked, "locked", Severity::changed, "Clients see the one locked and the other not.",
     "Lock or unlock the copy.", "lock not kept", "locks not kept"},
    {LossClass::symbolic_link, "symbolic-link", Severity::lost, "The link is not there, or leads somewhere else.",
     "Choose a volume that keeps symbolic links.", "symbolic link not kept", "symbolic links not kept"},
    {LossClass::hard_link, "hard-link", Severity::costs_more,
     "Names of one file have become files of their own, which take room each.",
     "Copy all names of the file at once, onto a volume that keeps hard links.", "name that became a file of its own",
     "names that became files of their own"},
    {LossClass::hole, "hole", Severity::costs_more, "Holes of the file were filled, and take room.",
     "Choose a volume that keeps sparse files.", "file with its holes filled", "files with their holes filled"},
    {LossClass::special_file, "special-file", Severity::lost,
     "A device, pipe or socket is not at the destination, or is another one.", "Make it anew at the destination.",
     "device, pipe or socket not kept", "devices, pipes or sockets not kept"},
    {LossClass::unreadable, "unreadable", Severity::lost,
     "Something could not be read, so that nobody can tell whether it arrived.",
     "Read the reason, and repair the store or ask for the rights.", "entry with something that could not be read",
     "entries with something that could not be read"},
    {LossClass::not_carried, "not-carried", Severity::lost,
     "It belongs to the system or to nobody's store, and stays where it is.", "Copy it by hand if it is needed.",
     "thing of nobody left where it was", "things of nobody left where they were"},
});

constexpr const LossRow &loss_row(LossClass cls) {
    return kLossTable[static_cast<size_t>(cls)];
}
// Nothing: there is no class of that name.
std::optional<LossClass> loss_class(std::string_view name);
// "lost", "changed", "costs-more".
const char *severity_name(Severity severity);

// Classes of losses, as somebody names them.
class LossSet {
  public:
    constexpr bool contains(LossClass cls) const { return (m_bits >> static_cast<unsigned>(cls) & 1U) != 0; }
    constexpr LossSet &add(LossClass cls) {
        m_bits |= uint32_t{1} << static_cast<unsigned>(cls);
        return *this;
    }
    constexpr LossSet &add(LossSet other) {
        m_bits |= other.m_bits;
        return *this;
    }
    bool operator==(const LossSet &) const = default;

  private:
    uint32_t m_bits = 0;
};

// A class by its name, or a group: "all", but for content that is not there ("data"); "acl", the three kinds; "fat",
// what any FAT volume costs, since it keeps neither owners nor permissions, and a creation time that nobody can set.
// Nothing: there is none of that name.
std::optional<LossSet> loss_set(std::string_view name);
// The groups, for messages: "all, acl, fat".
std::string loss_group_names();
// What a group is, as a part of a sentence: "what any FAT volume costs"; null: there is no such group.
struct LossGroup {
    const char *name, *text;
};
const LossGroup *loss_group(std::string_view name);
std::vector<const LossGroup *> loss_groups();

struct Loss {
    LossClass cls;
    std::string detail; // for people: what exactly, "attribute user.note: only at the first"
    int number = 0;     // errno, where whoever lost it was told why; the same loss without it

    bool operator==(const Loss &other) const { return cls == other.cls && detail == other.detail; }
    // With the reason.
    std::string text() const;
};

// Whether a run in which this is lost has failed: not when it was accepted, and not for room alone.
constexpr bool fails(const Loss &loss, LossSet accepted) {
    return !accepted.contains(loss.cls) && loss_row(loss.cls).severity != Severity::costs_more;
}

// Whether a source has to stay for it: also where it was accepted that content is not there.
constexpr bool keeps_source(const Loss &loss, LossSet accepted) {
    return fails(loss, accepted) || loss.cls == LossClass::data;
}

} // namespace engine
