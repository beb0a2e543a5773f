#include "tools/engine/compare/name_match.h"

#include "tools/engine/volume/fat_name.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/letter_case.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>

namespace engine {

std::string name_on(int type, const std::string &name) {
    return volume_traits(type).fatNames ? base_name(fat_name("/" + name)) : name;
}

NameMatch::NameMatch(int directory, int type, const Listing &there, const Listing &names, Wanted wanted)
    : m_directory(directory), m_type(type), m_wanted(std::move(wanted)) {
    for (const Listing::Item &item : there.items) {
        m_listed.push_back(item.name);
    }
    std::ranges::sort(m_listed);
    for (const auto &[name, other] : m_wanted) {
        if (std::ranges::binary_search(m_listed, other)) {
            m_takenBy.emplace(other, name);
        }
    }
    for (const Listing::Item &item : names.items) {
        if (!m_wanted.contains(item.name) && std::ranges::binary_search(m_listed, item.name)) {
            m_takenBy.emplace(item.name, item.name);
        }
    }
    // A name keeps the letter cases of whoever made it, whichever of two that become one is met first here.
    for (const Listing::Item &item : names.items) {
        const std::string &meant = asked(item.name);
        const std::string made = name_on(type, meant);
        if (made != meant && std::ranges::binary_search(m_listed, made)) {
            m_takenBy.try_emplace(made, item.name);
        }
    }
}

NameMatch::Found NameMatch::find(const std::string &name) {
    const std::string &meant = asked(name);
    const auto itself = m_takenBy.find(meant);
    Found found{itself != m_takenBy.end() && itself->second == name ? meant : name_on(m_type, meant)};
    found.there = std::ranges::binary_search(m_listed, found.name);
    if (!found.there) {
        // The volume may know it by another one: where letter cases, or forms of letters, are one to it.
        struct stat there {};
        found.there = ::fstatat(m_directory, found.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0;
        found.tooLong = !found.there && errno == ENAMETOOLONG;
        if (!found.there) {
            found.clash = found.tooLong ? std::nullopt : unseen_taker(found.name);
            return found;
        }
        found.name = listed_name(found.name);
    }
    const auto [taken, isNew] = m_takenBy.try_emplace(found.name, name);
    if (!isNew && taken->second != name) {
        found.clash = taken->second;
    }
    return found;
}

// Drivers of FAT that know no letter cases make no second entry of one short name all the same.
std::optional<std::string> NameMatch::unseen_taker(const std::string &name) {
    if (!volume_traits(m_type).fatNames) {
        return std::nullopt;
    }
    if (m_takers.empty()) {
        for (const auto &[listed, taker] : m_takenBy) {
            m_takers.emplace(folded(listed), taker);
        }
    }
    const auto taker = m_takers.find(folded(name));
    return taker == m_takers.end() ? std::nullopt : std::optional(taker->second);
}

// The listed name of the entry that the volume finds as `wanted`. Of several names of one file the nearest.
std::string NameMatch::listed_name(const std::string &wanted) const {
    struct stat there {
    }, other{};
    if (::fstatat(m_directory, wanted.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0) {
        return wanted;
    }
    // Not every volume tells a file by its inode.
    const auto alike = std::ranges::find_if(
        m_listed, [&](const std::string &name) { return ::strcasecmp(name.c_str(), wanted.c_str()) == 0; });
    std::string found = alike == m_listed.end() ? wanted : *alike;
    for (const std::string &name : m_listed) {
        if (::fstatat(m_directory, name.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0 && other.st_dev == there.st_dev &&
            other.st_ino == there.st_ino) {
            found = name;
            if (::strcasecmp(name.c_str(), wanted.c_str()) == 0) {
                break;
            }
        }
    }
    return found;
}

} // namespace engine
