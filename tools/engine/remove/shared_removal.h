// Removal by several processes: directories are shared among them, each one after what is in it. What is told and
// counted comes from here, as of one.
#pragma once

#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/workers/hands.h"
#include "tools/engine/workers/pool.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace engine {

// As TreeRemoval, with RemovalObserver::may_remove() asked of nobody: whoever asks a person does with one process.
class SharedRemoval : private Overseer {
  public:
    // The observer outlives this.
    SharedRemoval(const RemovalOptions &options, const Hands &hands, RemovalObserver &observer);

    void run(const std::string &path);
    // For who wants to know: those that are there now.
    std::vector<pid_t> processes() const { return m_pool.processes(); }

  private:
    bool stopped() const override { return m_observer.stopped(); }
    void told(uint64_t worker, std::string_view record) override;
    std::optional<std::string> asked(uint64_t, std::string_view) override { return std::string(); }
    bool lost(uint64_t worker, std::string_view job, const std::string &path, const std::string &reason) override;
    void gone(uint64_t worker) override { m_last.erase(worker); }

    RemovalOptions m_options;
    RemovalObserver &m_observer;
    WorkerPool m_pool;
    std::map<uint64_t, std::string> m_last = {}; // what each worker has told of
};

} // namespace engine
