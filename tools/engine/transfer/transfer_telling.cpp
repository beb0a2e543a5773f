#include "tools/engine/transfer/transfer_telling.h"

#include "tools/engine/workers/tellings.h"

#include <unistd.h>
#include <utility>

namespace engine {

// What is told of one entry goes as one record, with what was noted before it.
void TransferTelling::flush() {
    if (m_done > 0 || m_filesBegun > 0) {
        m_pending.number(TransferEvent::progress).number(std::exchange(m_done, 0));
        m_pending.number(std::exchange(m_filesBegun, 0));
    }
    if (!m_pending.bytes().empty()) {
        m_crew.tell(m_pending.bytes());
        m_pending = RecordWriter();
    }
}

void TransferTelling::begins(const std::string &source) {
    m_crew.begin(source);
    m_pending.number(TransferEvent::begins).text(source);
}

// What is no success may be what everybody is to stop for.
void TransferTelling::entry(EntryKind kind, const std::string &source, const Outcome &outcome) {
    write(m_pending.number(TransferEvent::entry).number(kind).text(source), outcome);
    flush();
    if (outcome.status == Status::failed || outcome.warning || !outcome.losses.empty()) {
        m_crew.tell_now({});
    }
}

void TransferTelling::arrived(const std::string &directory, int files, int64_t bytes) {
    m_pending.number(TransferEvent::arrived).text(directory).number(files).number(bytes);
    flush();
}

void TransferTelling::stays(const std::string &directory, const std::vector<std::string> &names) {
    m_pending.number(TransferEvent::stays).text(directory).number(static_cast<uint32_t>(names.size()));
    for (const std::string &name : names) {
        m_pending.text(name);
    }
    flush();
}

void TransferTelling::progress(int64_t bytes, bool newFile) {
    constexpr int64_t enough = 4 << 20;
    m_done += bytes;
    m_filesBegun += newFile ? 1 : 0;
    if (m_done >= enough) {
        flush();
    }
}

void TransferTelling::retry(const Retry &retry) {
    m_pending.number(TransferEvent::retry).text(retry.source).text(retry.destination);
    write(m_pending, std::optional(retry.problem));
    m_pending.number(retry.number).number(retry.of).number(retry.pause);
    flush();
}

void TransferTelling::made(Kind kind, const struct stat &entry, size_t mark) {
    m_pending.number(TransferEvent::made).number(kind).number(entry.st_dev).number(entry.st_ino).number(mark);
}

// Nobody else goes to the same names of this tree. What has no other name was made by nobody else, then, unless that
// was before this tree.
std::optional<size_t> TransferTelling::mark_of(Kind kind, const struct stat &there, uint32_t place) {
    const bool directory = S_ISDIR(there.st_mode);
    if (!(kind == Kind::directory ? m_directoriesBefore : m_filesBefore) && (directory || there.st_nlink < 2)) {
        return std::nullopt;
    }
    flush();
    const std::string answer = m_crew.ask(RecordWriter()
                                              .number(TransferQuestion::mark_of)
                                              .number(kind)
                                              .number(there.st_dev)
                                              .number(there.st_ino)
                                              .number(place)
                                              .bytes());
    RecordReader reader(answer);
    return reader.number<bool>() ? std::optional(reader.number<size_t>()) : std::nullopt;
}

std::string TransferTelling::take(const FileNumber &file) {
    flush();
    return m_crew.ask(RecordWriter().number(TransferQuestion::take).number(file.first).number(file.second).bytes());
}

// At once: somebody may be waiting for it.
void TransferTelling::give_back(const FileNumber &file, const std::string &known) {
    m_pending.number(TransferEvent::given_back).number(file.first).number(file.second).text(known);
    flush();
    m_crew.tell_now({});
}

void TransferTelling::note(const std::string &record) {
    flush();
    (void)m_crew.ask(RecordWriter().number(TransferQuestion::note).text(record).bytes());
}

void TransferTelling::named(const LinkedName &name) {
    m_pending.number(TransferEvent::named).number(name.first.first).number(name.first.second).number(name.names);
    m_pending.number(name.second.first).number(name.second.second).number(name.arrived);
    m_pending.text(name.path).text(name.otherPath).number(name.bytes);
}

void TransferTelling::begins(const TreePart &part) {
    m_filesBefore = part.request.filesBefore;
    m_directoriesBefore = part.request.directoriesBefore;
    m_pending.number(TransferEvent::part_begins).number(part.number);
    flush();
}

void TransferTelling::reaches(size_t begun) {
    m_pending.number(TransferEvent::part_reaches).number(static_cast<uint32_t>(begun));
    flush();
}

void TransferTelling::ends() {
    m_pending.number(TransferEvent::part_ends);
    flush();
}

// The number is one that no other process gives.
bool TransferTelling::give(Crew::Group &group, TreePart part, int from, int to) {
    constexpr int processBits = 32;
    part.number = (static_cast<uint64_t>(::getpid()) << processBits) + ++m_given;
    return m_crew.give(group, part.text(), {from, to});
}

// Told once the others have been given away: what two tell of is better than what nobody does.
void TransferTelling::keeps(size_t names) {
    m_pending.number(TransferEvent::part_keeps).number(static_cast<uint32_t>(names));
    flush();
}

Yield TransferTelling::collect(Crew::Group group, bool others) {
    flush();
    const bool filesBefore = m_filesBefore, directoriesBefore = m_directoriesBefore;
    const Yield yield = m_crew.collect(group, others);
    m_filesBefore = filesBefore;
    m_directoriesBefore = directoriesBefore;
    return yield;
}

} // namespace engine
