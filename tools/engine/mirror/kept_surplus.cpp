#include "tools/engine/mirror/kept_surplus.h"

#include "tools/engine/walk/paths.h"

#include <cstdlib>
#include <memory>

namespace engine {
namespace {

// With links seen through as far as the path is there.
std::string seen_through(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real != nullptr ? real.get() : path == "/" ? path : joined(seen_through(parent_of(path)), base_name(path));
}

std::optional<struct stat> directory_at(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) ? std::optional(found) : std::nullopt;
}

} // namespace

std::string directory_of_backups(const BackupOptions &options, const std::string &second) {
    const std::string &given = options.directory;
    return given.empty() || !options.wanted ? "" : absolute_path(given.starts_with('/') ? given : second + "/" + given);
}

KeptSurplus::KeptSurplus(const BackupOptions &options, const std::string &second, bool rehearsal)
    : m_options(options), m_backups(options), m_rehearsal(rehearsal) {
    m_backups.begin(second);
    const std::string directory = directory_of_backups(options, second);
    if (directory.empty()) {
        return;
    }
    m_there = directory_at(directory);
    const std::string top = seen_through(second), real = seen_through(directory);
    if (real.starts_with(top == "/" ? top : top + "/")) {
        m_directory = joined(second, real.substr(top == "/" ? 1 : top.size() + 1));
    }
}

bool KeptSurplus::is_backup(const std::string &name) const {
    return beside() && name.size() > m_options.suffix.size() && name.ends_with(m_options.suffix);
}

bool KeptSurplus::is_directory(const std::string &path, const struct stat &found) const {
    return (!m_directory.empty() && path == m_directory) ||
           (m_there && m_there->st_dev == found.st_dev && m_there->st_ino == found.st_ino);
}

bool KeptSurplus::is_directory(const std::string &path) const {
    struct stat found {};
    return wanted() && ::lstat(path.c_str(), &found) == 0 && is_directory(path, found);
}

bool KeptSurplus::leads_to_directory(const std::string &path) const {
    return m_directory.starts_with(path + "/") || is_directory(path);
}

std::optional<Problem> KeptSurplus::keep(const HeldDirectory &directory, const std::string &path) const {
    auto problem = m_backups.refusal(directory, path, std::nullopt, nullptr);
    return problem || m_rehearsal ? problem : m_backups.keep(directory, path, base_name(path));
}

} // namespace engine
