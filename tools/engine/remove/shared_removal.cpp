#include "tools/engine/remove/shared_removal.h"

#include "tools/engine/walk/look.h"
#include "tools/engine/workers/record.h"
#include "tools/engine/workers/tellings.h"

#include <algorithm>
#include <cerrno>
#include <memory>

namespace engine {
namespace {

class Telling : public RemovalObserver {
  public:
    explicit Telling(Crew &crew) : m_crew(crew) {}
    bool stopped() const override { return m_crew.stopped(); }
    bool may_remove(const std::string &, RemovalQuestion) override { return true; }
    // What is no success may be what everybody is to stop for.
    void entry(const std::string &path, mode_t mode, Status status, const Problem *problem) override {
        RecordWriter record;
        record.text(path).number(mode).number(status);
        write(record, problem == nullptr ? std::nullopt : std::optional(*problem));
        if (status == Status::done) {
            m_crew.tell(record.bytes());
        } else {
            m_crew.tell_now(record.bytes());
        }
    }

  private:
    Crew &m_crew;
};

class RemovalWorker : public Worker {
  public:
    explicit RemovalWorker(const RemovalOptions &options) : m_options(options) {}

    Yield work(Crew &crew, Job job) override {
        Telling telling(crew);
        TreeRemoval removal(m_options, telling, &crew);
        return {.whole = removal.run(std::move(job))};
    }

  private:
    RemovalOptions m_options;
};

bool is_there(const std::string &path) {
    return exists(path) || errno != ENOENT;
}

} // namespace

SharedRemoval::SharedRemoval(const RemovalOptions &options, const Hands &hands, RemovalObserver &observer)
    : m_options(options), m_observer(observer),
      m_pool(
          hands, [options] { return std::make_unique<RemovalWorker>(options); }, *this) {}

// What is no directory is gone before a worker has heard of it.
void SharedRemoval::run(const std::string &path) {
    const auto found = look(path);
    if (!found || !S_ISDIR(found->st_mode) || !m_pool.start()) {
        TreeRemoval(m_options, m_observer).run(path);
        return;
    }
    (void)m_pool.run(TreeRemoval::job_of(path));
}

void SharedRemoval::told(uint64_t worker, std::string_view record) {
    RecordReader reader(record);
    std::string path = reader.text();
    const auto mode = reader.number<mode_t>();
    const auto status = reader.number<Status>();
    const auto problem = read_problem(reader);
    m_observer.entry(path, mode, status, problem ? &*problem : nullptr);
    m_last[worker] = std::move(path);
}

// What was begun is gone or has failed, and each directory of the job that still is there has failed with what is left
// in it.
bool SharedRemoval::lost(uint64_t worker, std::string_view job, const std::string &begun, const std::string &reason) {
    const Problem problem{"not removed: " + reason};
    bool whole = true;
    const auto failed = [&](const std::string &one) {
        whole = false;
        const auto found = look(one);
        m_observer.entry(one, found ? found->st_mode & S_IFMT : S_IFDIR, Status::failed, &problem);
    };
    const bool directory = begun.ends_with('/');
    const std::string path = begun.substr(0, begun.size() - (directory ? 1 : 0));
    const std::vector<std::string> paths = TreeRemoval::paths_of(job);
    const auto told = m_last.find(worker);
    if (!path.empty() && (told == m_last.end() || told->second != path)) {
        if (!is_there(path)) {
            m_observer.entry(path, directory ? S_IFDIR : S_IFREG, Status::done, nullptr);
        } else if (std::ranges::find(paths, path) == paths.end()) {
            failed(path);
        }
    }
    for (const std::string &one : paths) {
        if (is_there(one)) {
            failed(one);
        }
    }
    return whole;
}

} // namespace engine
