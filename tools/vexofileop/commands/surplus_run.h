// What a mirror removes: asked about, counted, limited and told.
#pragma once

#include "tools/engine/mirror/surplus.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace tool {

class SurplusRun : private engine::SurplusObserver {
  public:
    struct Options {
        engine::SurplusOptions surplus = {};
        bool ask = false;     // before each
        int64_t most = -1;    // that are removed; below 0: any number
        int64_t agreed = -1;  // that somebody has said yes to, once for all; below 0: any number
        bool silent = false;  // they are only counted
        bool gathers = false; // what would go is remembered
        bool verbose = false, json = false;
        bool report = false;
        std::function<bool()> stopped = {};
    };
    // All of them outlive this.
    SurplusRun(const Options &options, Console &console, Report &report)
        : m_options(options), m_console(console), m_report(report) {}

    void run(const std::string &first, const std::string &second, engine::Surplus kind) {
        engine::remove_surplus(first, second, kind, m_options.surplus, *this);
    }

    int64_t removed() const { return m_removed; }
    int64_t failed() const { return m_failed; }
    int64_t backups() const { return m_backups; }
    int64_t mounts() const { return m_mounts; } // that stay, and what others have under way
    bool was_limited() const { return m_limited; }
    // Whether a rehearsal has told of this entry that it would go.
    bool would_remove(const struct stat &found) const { return m_going.contains({found.st_dev, found.st_ino}); }
    // Somebody said no to what is more than was agreed to.
    bool was_refused() const { return m_refused; }

  private:
    bool stopped() const override { return m_options.stopped() || m_refused; }
    void entry(const std::string &path, mode_t mode, engine::Status status, const engine::Problem *problem) override;
    void kept(const std::string &backup) override { m_backup = backup; }
    bool may_remove(const std::string &path, engine::RemovalQuestion question, std::optional<int64_t> ahead) override;
    void unreadable(const std::string &path, const engine::Problem &problem) override;
    bool is_agreed(int64_t before);
    std::string line(const std::string &path, mode_t mode, engine::Status status, const engine::Problem *problem,
                     const std::string &backup) const;

    const Options &m_options;
    Console &m_console;
    Report &m_report;
    int64_t m_removed = 0, m_failed = 0, m_mounts = 0, m_backups = 0;
    std::string m_backup = {}; // of what is told next
    bool m_limited = false, m_refused = false;
    bool m_agreedToMore = false;
    std::set<std::string> m_yes = {}; // answers that were asked for ahead
    std::set<std::pair<dev_t, ino_t>> m_going = {};
};

} // namespace tool
