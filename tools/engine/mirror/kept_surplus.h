// What a mirror does not remove, for it is a backup, and what becomes one instead of being removed.
#pragma once

#include "tools/engine/transfer/backup.h"

#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

class KeptSurplus {
  public:
    // `second`: the directory that becomes equal to another; absolute. Nothing is renamed in a rehearsal.
    KeptSurplus(const BackupOptions &options, const std::string &second, bool rehearsal);

    bool wanted() const { return m_options.wanted; }
    // Backups stand beside what has come in their place.
    bool beside() const { return wanted() && m_options.directory.empty(); }
    std::string name_beside(const std::string &name) const { return name + m_options.suffix; }
    std::string place_of(const std::string &path) const { return m_backups.place_of(path); }

    // An older backup, by its name.
    bool is_backup(const std::string &name) const;
    // The directory of backups, below `second`, by the path or by what it is.
    bool is_directory(const std::string &path, const struct stat &found) const;
    bool is_directory(const std::string &path) const;
    // It lies there, or will.
    bool leads_to_directory(const std::string &path) const;

    // The entry gets its other name, with what is kept for it. Nothing: it has it, or in a rehearsal it could.
    std::optional<Problem> keep(const HeldDirectory &directory, const std::string &path) const;

  private:
    BackupOptions m_options;
    Backups m_backups;
    bool m_rehearsal;
    std::string m_directory = {};            // as a path below the second; empty: it lies elsewhere
    std::optional<struct stat> m_there = {}; // the directory of backups, where it was there before
};

// The directory of backups as an absolute path; empty: there is none. `second`: where a relative one lies.
std::string directory_of_backups(const BackupOptions &options, const std::string &second);

} // namespace engine
