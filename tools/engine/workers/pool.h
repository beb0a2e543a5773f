// Processes that share the work of one request, and the one that speaks for them all.
//
// They are processes, since umask and effective user, which the library changes, belong to one. A worker does a job by
// itself for as long as the others have something to do; when one of them has not, it gives away a part of what is
// before it, with the directories held open, so that nobody goes by a path that somebody else may have changed. What it
// has given away it collects before it finishes what that belongs to, and does other jobs while it waits. No two can
// wait for each other: a job begins after the one that has given it away, and a worker that waits begins later ones
// alone.
//
// Whatever is told arrives here, in this process, and is told on by it; decisions are made here. Of a worker that dies
// everything that it has told is known, and so is what it had begun.
#pragma once

#include "tools/engine/workers/crew.h"
#include "tools/engine/workers/hands.h"

#include <csignal>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace engine {

// What the workers tell and ask, on the side of the one who started them.
class Overseer {
  public:
    Overseer() = default;
    Overseer(const Overseer &) = delete;
    Overseer &operator=(const Overseer &) = delete;
    virtual ~Overseer() = default;

    virtual bool stopped() const = 0;
    virtual void told(uint64_t worker, std::string_view record) = 0;
    // Nothing: not yet. It is asked again after everything else that was told.
    virtual std::optional<std::string> asked(uint64_t worker, std::string_view record) = 0;
    // A job that has not come to its end; `path`: what was being done, empty where nothing is known of it. Everything
    // that was told of it has been heard. The worker is 0 where none had begun it. Whether it was whole all the same.
    virtual bool lost(uint64_t worker, std::string_view job, const std::string &path, const std::string &reason) = 0;
    // The worker is no more.
    virtual void gone(uint64_t) {}
};

class WorkerPool {
  public:
    using MakeWorker = std::function<std::unique_ptr<Worker>()>;

    // Each worker has what `make` gives, which is called in it. The overseer outlives this. None is started yet.
    WorkerPool(Hands hands, MakeWorker make, Overseer &overseer);
    // Ends them: by itself each, where it has nothing to do.
    ~WorkerPool();
    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    // Starts those that are not there yet. False, with errno: there is not one.
    bool start();
    // A job with everything that is split off from it. One after the other.
    Yield run(Job job);
    // As many jobs as `next` gives, each asked for when somebody has time for it, until it gives none.
    using Source = std::function<std::optional<Job>()>;
    Yield run(const Source &next);
    // Those that are alive, for who wants to know.
    std::vector<pid_t> processes() const;

  private:
    using GroupName = std::pair<uint64_t, Crew::Group>; // worker and number; that of the caller is {0, 0}
    struct Group {
        size_t pending = 0;
        Yield yield = {};
    };
    struct Task {
        Job job;
        GroupName group;
    };
    struct Running {
        std::string text;
        GroupName group;
        std::string path = {}; // what was begun last before another job was
    };
    enum class State { works, waits, asks };
    struct Member {
        uint64_t name;
        pid_t process;
        Channel channel;
        Shared<SharedDesk> desk;
        std::string told = {};          // the beginning of a record
        std::vector<Running> jobs = {}; // the last one is being done
        State state = State::works;     // the greeting of a new one is a wait
        Crew::Group waitsFor = 0;
        bool takesOthers = true;
        std::string question = {};
    };
    using Members = std::list<Member>;

    bool add_member();
    [[noreturn]] void be_worker(Channel channel, SharedDesk &desk, pid_t above, const sigset_t &signals);
    int await_end(pid_t process) const;
    bool is_under_way() const;
    void look_for_stop();
    bool take_from(const Source &next);
    void dispatch();
    bool serve(Member &member);
    std::deque<Task>::iterator task_for(const Member &member);
    void announce_wanted();
    void wait_for_messages();
    bool take_message(Member &member);
    void answer_questions();
    void hear(Member &member);
    void end_job(Member &member, const Yield &yield);
    void end_task(const GroupName &name, const Yield &yield);
    void bury(Members::iterator member);
    void drop_tasks(const std::string &reason);

    Hands m_hands;
    MakeWorker m_make;
    Overseer &m_overseer;
    Shared<SharedSigns> m_signs;
    Members m_members = {};
    std::deque<Task> m_tasks = {};
    std::map<GroupName, Group> m_groups = {};
    uint64_t m_names = 0;
};

} // namespace engine
