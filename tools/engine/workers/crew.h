// What a worker has of the others: it tells, asks, and gives away what it need not do itself.
#pragma once

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/workers/channel.h"
#include "tools/engine/workers/shared.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace engine {

// What came of a job, and of several together.
struct Yield {
    bool whole = true; // nothing of it stayed undone
    uint64_t count = 0;

    Yield &operator+=(const Yield &other) {
        whole = whole && other.whole;
        count += other.count;
        return *this;
    }
};

// A job, as it goes from one process to another.
struct Job {
    std::string text = {};
    std::vector<Descriptor> files = {};
};

class Crew;

// Does the jobs, in a process of its own. What it keeps from one job to the next is that process' alone.
class Worker {
  public:
    Worker() = default;
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;
    virtual ~Worker() = default;

    // One job. It is called again before it has returned, from Crew::collect(). What it throws fails the job.
    virtual Yield work(Crew &crew, Job job) = 0;
};

class Crew {
  public:
    // Jobs that are given away, and collected, together. 0: none have been.
    using Group = uint64_t;

    Crew(Channel channel, SharedDesk &desk, SharedSigns &signs, pid_t above)
        : m_channel(std::move(channel)), m_desk(desk), m_signs(signs), m_above(above) {}

    // Whether all work is to end as soon as nothing is half done. It is also where the one above is gone.
    bool stopped() const;

    // What is begun now, for people: of a worker that is killed this is what failed.
    void begin(std::string_view path) { m_desk.slate.write(path); }
    // Events, in the order in which they are told. They count from here on, whatever becomes of this process.
    void tell(std::string_view record);
    // The same, and waits until it has been heard: stopped() knows then what follows from it.
    void tell_now(std::string_view record);
    std::string ask(std::string_view record);

    // Whether a worker has nothing to do.
    bool is_work_wanted() const { return m_signs.wanted.load(std::memory_order_relaxed) > 0; }
    // False: it is still the caller's, since it is too long or no file can be sent. A group of 0 begins a new one.
    bool give(Group &group, std::string_view text, std::initializer_list<int> files);
    // Waits until everything in the group is done, and does other jobs meanwhile; with `others` false such alone as it
    // has put into the group itself, where much is on the stack already. What was lost was not whole.
    Yield collect(Group group, bool others = true);

    // The whole life of a worker.
    void run(Worker &worker);

  private:
    Channel::Message request(std::string_view bytes);
    bool next_job(Group group, bool others, Yield &collected);

    Channel m_channel;
    SharedDesk &m_desk;
    SharedSigns &m_signs;
    pid_t m_above;
    mutable unsigned m_asked = 0; // how often, whether it is to stop
    mutable bool m_alone = false; // the one above was gone when it was looked for
    Worker *m_worker = nullptr;
    Group m_groups = 0;
    int m_depth = 0; // jobs that are begun
};

} // namespace engine
