#include "tools/engine/transfer/shared_transfer.h"

#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/workers/record.h"
#include "tools/engine/workers/tellings.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace engine {
namespace {

class TransferWorker : public Worker {
  public:
    TransferWorker(const TransferOptions &options, const std::atomic<bool> &linkedFiles)
        : m_options(options), m_linkedFiles(linkedFiles) {}

    Yield work(Crew &crew, Job job) override {
        if (!m_tools) {
            m_tools = std::make_unique<Tools>(m_options, crew, m_linkedFiles);
        }
        return m_tools->trees.carry(TreePart::from(job.text), std::move(job.files));
    }

  private:
    struct Tools {
        Tools(const TransferOptions &options, Crew &crew, const std::atomic<bool> &linkedFiles)
            : telling(crew, linkedFiles), files(options, telling), trees(options, files, telling) {
            files.share(telling);
            trees.share(telling);
        }
        TransferTelling telling;
        FileTransfer files;
        TreeTransfer trees;
    };
    const TransferOptions &m_options;
    const std::atomic<bool> &m_linkedFiles;
    std::unique_ptr<Tools> m_tools = nullptr;
};

FileNumber read_file_number(RecordReader &reader) {
    const auto device = reader.number<dev_t>();
    return {device, reader.number<ino_t>()};
}

} // namespace

SharedTransfer::SharedTransfer(const TransferOptions &options, Hands hands, FileTransfer &files, TreeTransfer &trees,
                               TransferObserver &observer)
    : m_options(options), m_files(files), m_trees(trees), m_observer(observer),
      m_linkedFiles(make_shared_memory<std::atomic<bool>>()),
      m_pool(
          std::move(hands), [this] { return std::make_unique<TransferWorker>(m_options, *m_linkedFiles); }, *this) {}

bool SharedTransfer::can(const TransferOptions &options) {
    return options.trees && options.conflict != Conflict::ask && options.conflict != Conflict::keep_both &&
           !options.inPlace && !options.backup.wanted && options.bytesPerSecond == 0 && !options.reversibleNames;
}

void SharedTransfer::told(uint64_t worker, std::string_view record) {
    for (RecordReader reader(record); !reader.is_at_end();) {
        hear(worker, reader);
    }
}

void SharedTransfer::hear(uint64_t worker, RecordReader &reader) {
    Member &member = m_members[worker];
    switch (const auto event = reader.number<TransferEvent>()) {
    case TransferEvent::begins:
        m_observer.begins(reader.text());
        break;
    case TransferEvent::entry:
        hear_of_entry(member, reader);
        break;
    case TransferEvent::arrived: {
        const std::string directory = reader.text();
        const auto files = reader.number<int>();
        m_observer.arrived(directory, files, reader.number<int64_t>());
        break;
    }
    case TransferEvent::stays: {
        const std::string directory = reader.text();
        std::vector<std::string> names(reader.number<uint32_t>());
        std::ranges::generate(names, [&] { return reader.text(); });
        if (m_stays.insert(directory).second) { // each worker meets them
            m_observer.stays(directory, names);
        }
        break;
    }
    case TransferEvent::progress: {
        const auto bytes = reader.number<int64_t>();
        for (auto files = reader.number<uint32_t>(); files > 0; --files) {
            m_observer.progress(0, true);
        }
        m_observer.progress(bytes, false);
        break;
    }
    case TransferEvent::retry:
        hear_of_retry(reader);
        break;
    case TransferEvent::made: {
        const auto kind = reader.number<Ledger::Kind>();
        const FileNumber made = read_file_number(reader);
        (kind == Ledger::Kind::directory ? m_trees.made() : m_files.written()).add(made, reader.number<size_t>());
        break;
    }
    case TransferEvent::given_back: {
        const FileNumber file = read_file_number(reader);
        m_files.linked().put_in(file, reader.text());
        m_taken.erase(file);
        break;
    }
    case TransferEvent::named:
        hear_of_name(reader);
        break;
    default:
        hear_of_part(member, event, reader);
    }
}

void SharedTransfer::hear_of_entry(Member &member, RecordReader &reader) {
    const auto kind = reader.number<EntryKind>();
    member.last = reader.text();
    tell(kind, member.last, read_outcome(reader));
}

void SharedTransfer::hear_of_retry(RecordReader &reader) {
    const std::string source = reader.text(), destination = reader.text();
    const Problem problem = read_problem(reader).value_or(Problem{});
    const auto number = reader.number<int>(), of = reader.number<int>();
    m_observer.retry({source, destination, problem, number, of, reader.number<int64_t>()});
}

void SharedTransfer::hear_of_name(RecordReader &reader) {
    LinkedName name;
    name.first = read_file_number(reader);
    name.names = reader.number<uint64_t>();
    name.second = read_file_number(reader);
    name.arrived = reader.number<uint64_t>();
    name.path = reader.text();
    name.otherPath = reader.text();
    name.bytes = reader.number<int64_t>();
    m_files.named(name);
}

void SharedTransfer::hear_of_part(Member &member, TransferEvent event, RecordReader &reader) {
    std::vector<Begun> &parts = member.parts;
    if (event == TransferEvent::part_begins) {
        std::erase_if(parts, [](const Begun &part) { return part.ended; });
        parts.push_back({reader.number<uint64_t>()});
        return;
    }
    const auto last = std::ranges::find_if(parts.rbegin(), parts.rend(), [](const Begun &one) { return !one.ended; });
    Begun nobody{0};
    Begun &part = last == parts.rend() ? nobody : *last;
    if (event == TransferEvent::part_reaches) {
        part.begun = reader.number<uint32_t>();
    } else if (event == TransferEvent::part_keeps) {
        part.own = reader.number<uint32_t>();
    } else {
        part.ended = true;
    }
}

// Nothing: another worker has the file in hand.
std::optional<std::string> SharedTransfer::asked(uint64_t worker, std::string_view record) {
    RecordReader reader(record);
    const auto question = reader.number<TransferQuestion>();
    if (question == TransferQuestion::note) {
        m_files.note_link(reader.text());
        return "";
    }
    if (question == TransferQuestion::mark_of) {
        const bool directory = reader.number<Ledger::Kind>() == Ledger::Kind::directory;
        const FileNumber entry = read_file_number(reader);
        const WrittenEntries &entries = directory ? m_trees.made() : m_files.written();
        const auto mark = entries.mark_of(entry, reader.number<uint32_t>());
        return RecordWriter().number(mark.has_value()).number(mark.value_or(0)).bytes();
    }
    const FileNumber file = read_file_number(reader);
    if (!m_taken.try_emplace(file, worker).second) {
        return std::nullopt;
    }
    *m_linkedFiles = true;
    return m_files.linked().written_down(file);
}

void SharedTransfer::gone(uint64_t worker) {
    m_members.erase(worker);
    std::erase_if(m_taken, [worker](const auto &taken) { return taken.second == worker; });
}

// What it had begun, and what it had not come to. Names that it has given away are another one's.
bool SharedTransfer::lost(uint64_t worker, std::string_view job, const std::string &begun, const std::string &reason) {
    const TreePart part = TreePart::from(job);
    const Member &member = m_members[worker];
    const auto known = std::ranges::find(member.parts, part.number, &Begun::number);
    const Begun known_part = known == member.parts.end() ? Begun{part.number} : *known;
    if (known_part.ended) {
        return false;
    }
    const size_t end = std::min(known_part.own.value_or(part.names.size()), part.names.size());
    const size_t first = std::min(known_part.begun, end);
    const std::string current = first > 0 ? joined(part.source, part.names[first - 1]) : std::string();
    if (!current.empty() && begun != current && begun != member.last && begun.starts_with(current + "/")) {
        not_finished(part, begun, reason);
    }
    if (!current.empty() && current != member.last && m_trees.carries(part, part.names[first - 1])) {
        not_finished(part, current, reason);
    }
    for (size_t at = first; at < end; ++at) {
        if (m_trees.carries(part, part.names[at])) {
            not_finished(part, joined(part.source, part.names[at]), reason);
        }
    }
    return false;
}

// A source that has gone did so after it had arrived.
void SharedTransfer::not_finished(const TreePart &part, const std::string &source, const std::string &reason) {
    const auto found = look(source);
    Outcome outcome;
    outcome.destination = part.destination + source.substr(part.source.size());
    const auto there = look(outcome.destination);
    if (m_options.operation == Operation::move && !found && there) {
        outcome.warning = Problem{"moved, but what was lost of it is not known: " + reason};
        tell(entry_kind(there->st_mode), source, outcome);
        return;
    }
    outcome.status = Status::failed;
    outcome.problem = Problem{"not finished: " + reason};
    tell(found ? entry_kind(found->st_mode) : EntryKind::other, source, outcome);
}

void SharedTransfer::tell(EntryKind kind, const std::string &source, const Outcome &outcome) {
    m_files.came_of(outcome);
    m_observer.entry(kind, source, outcome);
}

} // namespace engine
