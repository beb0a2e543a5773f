#include "tools/engine/workers/pool.h"

#include "tools/engine/workers/message.h"
#include "tools/engine/workers/record.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr int kTick = 50; // milliseconds: how late a stop is seen, and what is told, where nothing else happens

std::string end_of(int status) {
    return WIFSIGNALED(status) ? fmt::format("the process that worked on it was ended by signal {}", WTERMSIG(status))
                               : fmt::format("the process that worked on it ended with status {}", WEXITSTATUS(status));
}

} // namespace

WorkerPool::WorkerPool(Hands hands, MakeWorker make, Overseer &overseer)
    : m_hands(std::move(hands)), m_make(std::move(make)), m_overseer(overseer),
      m_signs(make_shared_memory<SharedSigns>()) {}

WorkerPool::~WorkerPool() {
    std::vector<pid_t> processes;
    for (const Member &member : m_members) {
        processes.push_back(member.process);
        if (!member.jobs.empty()) { // only when run() was left by an exception
            ::kill(member.process, SIGKILL);
        }
    }
    m_members.clear(); // the ends of the channels are what they wait for
    for (const pid_t process : processes) {
        (void)await_end(process);
    }
}

// How it ended. It does nothing any more by now, or is about to.
int WorkerPool::await_end(pid_t process) const {
    int status = 0;
    if (m_hands.ends) {
        m_hands.ends(process);
    }
    while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

bool WorkerPool::start() {
    while (static_cast<int>(m_members.size()) < m_hands.number && add_member()) {
    }
    return !m_members.empty();
}

bool WorkerPool::add_member() {
    auto ends = Channel::pair();
    if (!ends) {
        return false;
    }
    auto desk = make_shared_memory<SharedDesk>();
    const pid_t above = ::getpid();
    std::fflush(nullptr); // what is not written yet is written once
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before);
    const pid_t process = ::fork();
    const int number = errno;
    if (process == 0) {
        m_members.clear();
        { const Channel other(std::move(ends->first)); }
        be_worker(std::move(ends->second), *desk, above, before);
    }
    if (process > 0 && m_hands.started) {
        m_hands.started(process);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (process < 0) {
        errno = number;
        return false;
    }
    m_members.push_back({++m_names, process, std::move(ends->first), std::move(desk)});
    return true;
}

void WorkerPool::be_worker(Channel channel, SharedDesk &desk, pid_t above, const sigset_t &signals) {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != above) {
        ::_exit(0);
    }
    m_tasks.clear();
    if (m_hands.begin) {
        m_hands.begin();
    }
    ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);
    const std::unique_ptr<Worker> worker = m_make();
    Crew(std::move(channel), desk, *m_signs, above).run(*worker);
    ::_exit(0);
}

std::vector<pid_t> WorkerPool::processes() const {
    std::vector<pid_t> processes;
    for (const Member &member : m_members) {
        processes.push_back(member.process);
    }
    return processes;
}

Yield WorkerPool::run(Job job) {
    std::optional<Job> only(std::move(job));
    return run([&only] { return std::exchange(only, std::nullopt); });
}

Yield WorkerPool::run(const Source &next) {
    const GroupName all{0, 0};
    m_groups[all] = {};
    for (bool more = true; more || is_under_way();) {
        look_for_stop();
        more = more && take_from(next);
        if (!start()) {
            drop_tasks(fmt::format("no process to work on it could be started: {}", std::strerror(errno)));
            continue;
        }
        dispatch();
        announce_wanted();
        wait_for_messages();
        answer_questions();
    }
    const Yield yield = m_groups[all].yield;
    m_groups.erase(all);
    m_signs->wanted = 0;
    return yield;
}

// Keeps one ready for whoever has time next. False: there is none any more, or none is wanted.
bool WorkerPool::take_from(const Source &next) {
    const auto waiting = static_cast<size_t>(
        std::ranges::count_if(m_members, [](const Member &member) { return member.state == State::waits; }));
    while (!m_signs->stop && m_tasks.size() <= waiting) {
        auto job = next();
        if (!job) {
            return false;
        }
        ++m_groups[{0, 0}].pending;
        m_tasks.push_back({std::move(*job), {0, 0}});
    }
    return !m_signs->stop;
}

// Also where the one who has split a job off is no more.
bool WorkerPool::is_under_way() const {
    return !m_tasks.empty() ||
           std::ranges::any_of(m_members, [](const Member &member) { return !member.jobs.empty(); });
}

void WorkerPool::look_for_stop() {
    if (!m_signs->stop && m_overseer.stopped()) {
        m_signs->stop = true;
    }
    if (m_signs->stop) {
        drop_tasks("");
    }
}

// Nobody begins them any more. Without a reason there is nothing to say of it.
void WorkerPool::drop_tasks(const std::string &reason) {
    for (const Task &task : std::exchange(m_tasks, {})) {
        const bool whole = !reason.empty() && m_overseer.lost(0, task.job.text, "", reason);
        end_task(task.group, {.whole = whole});
    }
}

void WorkerPool::dispatch() {
    // Each answer may be what another one waits for.
    for (bool again = true; std::exchange(again, false);) {
        for (Member &member : m_members) {
            again = (member.state == State::waits && serve(member)) || again;
        }
    }
}

// Gives a worker that waits what it waits for, or a job. False: there is neither.
bool WorkerPool::serve(Member &member) {
    const GroupName name{member.name, member.waitsFor};
    const auto group = m_groups.find(name);
    if (group != m_groups.end() && group->second.pending == 0) {
        const Yield yield = group->second.yield;
        m_groups.erase(group);
        member.state = State::works;
        (void)member.channel.send(RecordWriter()
                                      .number(Word::collected)
                                      .number(static_cast<uint8_t>(yield.whole ? 1 : 0))
                                      .number(yield.count)
                                      .bytes());
        return true;
    }
    const auto task = task_for(member);
    if (task == m_tasks.end()) {
        return false;
    }
    if (!member.jobs.empty()) {
        member.jobs.back().path = member.desk->slate.read();
    }
    member.desk->slate.write(""); // it waits: nobody else writes there now
    member.state = State::works;
    member.jobs.push_back({task->job.text, task->group});
    (void)member.channel.send(
        {RecordWriter().number(Word::job).text(task->job.text).bytes(), std::move(task->job.files)});
    m_tasks.erase(task);
    return true;
}

// What it has given away itself comes first, since it waits for that; else what has waited longest, which is the most.
std::deque<WorkerPool::Task>::iterator WorkerPool::task_for(const Member &member) {
    const GroupName name{member.name, member.waitsFor};
    const auto own = std::ranges::find_if(m_tasks, [&](const Task &task) { return task.group == name; });
    return own != m_tasks.end() || !member.takesOthers ? own : m_tasks.begin();
}

void WorkerPool::announce_wanted() {
    const auto idle = std::ranges::count_if(
        m_members, [](const Member &member) { return member.state == State::waits && member.takesOthers; });
    // One more than there is need of now, so that nobody waits until the others have come to the end of something long.
    const int reserve = m_members.size() > 1 ? 1 : 0;
    m_signs->wanted = static_cast<int>(idle) + reserve - static_cast<int>(m_tasks.size());
}

void WorkerPool::wait_for_messages() {
    std::vector<pollfd> waited;
    for (const Member &member : m_members) {
        waited.push_back({member.channel.fd(), POLLIN, 0});
    }
    if (::poll(waited.data(), waited.size(), kTick) < 0) {
        return; // a signal: there may be a stop
    }
    size_t at = 0;
    for (auto member = m_members.begin(); member != m_members.end();) {
        const auto one = member++;
        const bool spoke = waited[at++].revents != 0;
        hear(*one);
        if (spoke && !take_message(*one)) {
            bury(one);
        }
    }
}

// False: it is gone.
bool WorkerPool::take_message(Member &member) {
    auto message = member.channel.receive();
    hear(member); // what was told before it
    if (!message) {
        return false;
    }
    RecordReader reader(message->bytes);
    switch (reader.number<Word>()) {
    case Word::give: {
        const GroupName group{member.name, reader.number<Crew::Group>()};
        ++m_groups[group].pending;
        m_tasks.push_back({{reader.text(), std::move(message->files)}, group});
        break;
    }
    case Word::done: {
        const bool whole = reader.number<uint8_t>() != 0;
        end_job(member, {whole, reader.number<uint64_t>()});
        break;
    }
    case Word::lost:
        end_job(member, {.whole = m_overseer.lost(member.name, member.jobs.back().text, member.desk->slate.read(),
                                                  reader.text())});
        break;
    case Word::wait:
        member.state = State::waits;
        member.waitsFor = reader.number<Crew::Group>();
        member.takesOthers = reader.number<uint8_t>() != 0;
        break;
    case Word::hear:
        look_for_stop();
        (void)member.channel.send(RecordWriter().number(Word::heard).bytes());
        break;
    case Word::ask:
        member.state = State::asks;
        member.question = reader.text();
        break;
    default:
        break;
    }
    return true;
}

void WorkerPool::answer_questions() {
    for (Member &member : m_members) {
        if (member.state != State::asks) {
            continue;
        }
        if (const auto answer = m_overseer.asked(member.name, member.question)) {
            member.state = State::works;
            look_for_stop();
            (void)member.channel.send(RecordWriter().number(Word::answer).text(*answer).bytes());
        }
    }
}

// Whole records; what is left is the beginning of one.
void WorkerPool::hear(Member &member) {
    member.desk->ring.take(member.told);
    std::string_view rest = member.told;
    for (;;) {
        RecordReader reader(rest);
        const size_t size = reader.number<uint32_t>();
        if (rest.size() < sizeof(uint32_t) || reader.rest().size() < size) {
            break;
        }
        m_overseer.told(member.name, reader.rest().substr(0, size));
        rest = reader.rest().substr(size);
    }
    member.told.erase(0, member.told.size() - rest.size());
}

void WorkerPool::end_job(Member &member, const Yield &yield) {
    const Running ended = std::move(member.jobs.back());
    member.jobs.pop_back();
    if (!member.jobs.empty()) {
        member.desk->slate.write(member.jobs.back().path);
    }
    end_task(ended.group, yield);
}

void WorkerPool::end_task(const GroupName &name, const Yield &yield) {
    const auto group = m_groups.find(name); // none of one that is gone
    if (group != m_groups.end()) {
        --group->second.pending;
        group->second.yield += yield;
    }
}

void WorkerPool::bury(Members::iterator member) {
    const int status = await_end(member->process);
    hear(*member);
    const std::string reason = end_of(status);
    std::string path = member->desk->slate.read();
    while (!member->jobs.empty()) {
        const Running job = std::move(member->jobs.back());
        member->jobs.pop_back();
        end_task(job.group, {.whole = m_overseer.lost(member->name, job.text, path, reason)});
        path = member->jobs.empty() ? "" : member->jobs.back().path;
    }
    const uint64_t name = member->name;
    std::erase_if(m_groups, [name](const auto &group) { return group.first.first == name; });
    m_members.erase(member);
    m_overseer.gone(name);
}

} // namespace engine
