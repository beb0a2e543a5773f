#include "tools/engine/workers/crew.h"

#include "tools/engine/workers/message.h"
#include "tools/engine/workers/record.h"

#include <csignal>
#include <exception>
#include <sys/prctl.h>
#include <unistd.h>

namespace engine {
namespace {

// Jobs in one another. From here on a worker takes nothing but what it waits for, so that neither stack nor open files
// grow with the number of jobs.
constexpr int kMostJobsDeep = 8;

} // namespace

// It is asked at each block and each file. The kernel tells of the end of the one above, too.
bool Crew::stopped() const {
    constexpr unsigned looks = 16;
    if (m_asked++ % looks == 0) {
        m_alone = ::getppid() != m_above;
    }
    return m_alone || m_signs.stop.load(std::memory_order_relaxed);
}

void Crew::tell(std::string_view record) {
    const std::string bytes = RecordWriter().text(record).bytes();
    for (std::string_view rest = bytes; m_desk.ring.put(rest), !rest.empty();) {
        (void)request(RecordWriter().number(Word::hear).bytes());
    }
}

void Crew::tell_now(std::string_view record) {
    tell(record);
    (void)request(RecordWriter().number(Word::hear).bytes());
}

std::string Crew::ask(std::string_view record) {
    const Channel::Message answer = request(RecordWriter().number(Word::ask).text(record).bytes());
    RecordReader reader(answer.bytes);
    (void)reader.number<Word>();
    return reader.text();
}

bool Crew::give(Group &group, std::string_view text, std::initializer_list<int> files) {
    const Group given = group == 0 ? m_groups + 1 : group;
    if (!m_channel.send(RecordWriter().number(Word::give).number(given).text(text).bytes(), files)) {
        return false;
    }
    group = given;
    m_groups = std::max(m_groups, given);
    m_signs.wanted.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

Yield Crew::collect(Group group, bool others) {
    Yield yield;
    while (group != 0 && next_job(group, others, yield)) {
    }
    return yield;
}

// There is nobody to work for when the one above is gone, and nothing of an own that would have to be put away.
Channel::Message Crew::request(std::string_view bytes) {
    std::optional<Channel::Message> answer = m_channel.send(bytes) ? m_channel.receive() : std::nullopt;
    if (!answer) {
        ::_exit(0);
    }
    return std::move(*answer);
}

// False: the group is at its end.
bool Crew::next_job(Group group, bool others, Yield &collected) {
    const auto any = static_cast<uint8_t>(others && m_depth < kMostJobsDeep ? 1 : 0);
    Channel::Message message = request(RecordWriter().number(Word::wait).number(group).number(any).bytes());
    RecordReader reader(message.bytes);
    if (reader.number<Word>() == Word::collected) {
        collected.whole = reader.number<uint8_t>() != 0;
        collected.count = reader.number<uint64_t>();
        return false;
    }
    // A change of the effective user, which the library makes, forgets it.
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ++m_depth;
    RecordWriter result;
    try {
        const Yield yield = m_worker->work(*this, {reader.text(), std::move(message.files)});
        result.number(Word::done).number(static_cast<uint8_t>(yield.whole ? 1 : 0)).number(yield.count);
    } catch (const std::exception &exception) {
        result = RecordWriter();
        result.number(Word::lost).text(std::string_view(exception.what()).substr(0, Channel::kMostBytes / 2));
    }
    --m_depth;
    if (!m_channel.send(result.bytes())) {
        ::_exit(0);
    }
    return true;
}

void Crew::run(Worker &worker) {
    m_worker = &worker;
    Yield none;
    while (next_job(0, true, none)) {
    }
}

} // namespace engine
