#include "tools/engine/compare/shared_comparison.h"

#include "tools/engine/walk/paths.h"
#include "tools/engine/workers/pool.h"
#include "tools/engine/workers/record.h"
#include "tools/engine/workers/tellings.h"

#include <map>
#include <memory>

namespace engine {
namespace {

enum class Event : uint8_t { loss, extra, left_over, same, compared, progress };

Inode read_inode(RecordReader &reader) {
    const auto device = reader.number<dev_t>();
    return {device, reader.number<ino_t>()};
}

// What is told of one entry goes as one record, so that nothing of another one comes between.
class TellingComparison : public ComparisonObserver {
  public:
    explicit TellingComparison(Crew &crew) : m_crew(crew) {}

    bool stopped() const override { return m_crew.stopped(); }
    void loss(const std::string &first, const std::string &second, const Loss &loss) override {
        write(m_pending.number(Event::loss).text(first).text(second), loss);
    }
    void extra(const std::string &second, EntryKind kind) override {
        m_pending.number(Event::extra).text(second).number(kind);
        flush();
    }
    void left_over(const std::string &path) override {
        m_pending.number(Event::left_over).text(path);
        flush();
    }
    void same(const std::string &first, const std::string &second) override {
        m_pending.number(Event::same).text(first).text(second);
        flush();
    }
    void compared(const std::string &first, EntryKind kind, int64_t bytes) override {
        m_pending.number(Event::compared).text(first).number(kind).number(bytes);
        flush();
    }
    void progress(int64_t bytes) override {
        constexpr int64_t enough = 4 << 20;
        m_read += bytes;
        if (m_read >= enough) {
            m_crew.tell(RecordWriter().number(Event::progress).number(std::exchange(m_read, 0)).bytes());
        }
    }

    void flush() {
        if (m_read > 0) {
            m_pending.number(Event::progress).number(std::exchange(m_read, 0));
        }
        if (!m_pending.bytes().empty()) {
            m_crew.tell(m_pending.bytes());
            m_pending = RecordWriter();
        }
    }

  private:
    Crew &m_crew;
    RecordWriter m_pending = {};
    int64_t m_read = 0;
};

class ComparisonWorker : public Worker {
  public:
    explicit ComparisonWorker(const CompareJob &compare) : m_compare(compare) {}
    Yield work(Crew &crew, Job job) override {
        TellingComparison telling(crew);
        m_compare(std::move(job), telling, crew);
        telling.flush();
        return {};
    }

  private:
    const CompareJob &m_compare;
};

class ComparisonOverseer : public Overseer {
  public:
    ComparisonOverseer(ComparisonObserver &observer, LinkedNames *names) : m_observer(observer), m_names(names) {}

    bool stopped() const override { return m_observer.stopped(); }

    void told(uint64_t worker, std::string_view record) override {
        for (RecordReader reader(record); !reader.is_at_end();) {
            tell_on(worker, reader);
        }
    }

    std::optional<std::string> asked(uint64_t, std::string_view record) override {
        RecordReader reader(record);
        LinkedName name;
        name.first = read_inode(reader);
        name.second = read_inode(reader);
        name.names = reader.number<uint64_t>();
        name.arrived = reader.number<uint64_t>();
        name.path = reader.text();
        name.otherPath = reader.text();
        name.bytes = reader.number<int64_t>();
        const bool compared = (m_names == nullptr ? m_links : *m_names).meet(name, tell_apart());
        return RecordWriter().number(compared).bytes();
    }
    // All names that are at both were met.
    void finish() { m_links.finish(tell_apart()); }

    // The names of a job are gone through in their order.
    bool lost(uint64_t worker, std::string_view text, const std::string &begun, const std::string &reason) override {
        const ComparisonJob job = ComparisonJob::from(text);
        const std::string path = begun.substr(0, begun.find('\0'));
        const auto told = m_last.find(worker);
        bool reached = path.empty(), named = false;
        const auto unread = [&](const std::string &one, const std::string &other) {
            m_observer.loss(one, other, {LossClass::unreadable, "was not compared, or not all of it: " + reason});
        };
        for (const auto &[name, other] : job.names) {
            const std::string one = joined(job.path, name);
            reached = reached || path == one || path.starts_with(one + "/");
            named = named || path == one;
            if (reached) {
                unread(one, joined(job.otherPath, other));
            }
        }
        if (!path.empty() && !named && (told == m_last.end() || told->second != path)) {
            unread(path, path.size() < begun.size() ? begun.substr(path.size() + 1) : "");
        }
        return false;
    }

    void gone(uint64_t worker) override { m_last.erase(worker); }

  private:
    LinkedNames::Tell tell_apart() {
        return [this](const std::string &first, const std::string &second, const Loss &loss) {
            m_observer.loss(first, second, loss);
        };
    }
    void tell_on(uint64_t worker, RecordReader &reader) {
        switch (reader.number<Event>()) {
        case Event::loss: {
            const std::string first = reader.text(), second = reader.text();
            m_observer.loss(first, second, read_loss(reader));
            break;
        }
        case Event::extra: {
            const std::string second = reader.text();
            m_observer.extra(second, reader.number<EntryKind>());
            break;
        }
        case Event::left_over:
            m_observer.left_over(reader.text());
            break;
        case Event::same: {
            const std::string first = reader.text();
            m_observer.same(first, reader.text());
            break;
        }
        case Event::compared: {
            std::string first = reader.text();
            const auto kind = reader.number<EntryKind>();
            m_observer.compared(first, kind, reader.number<int64_t>());
            m_last[worker] = std::move(first);
            break;
        }
        case Event::progress:
            m_observer.progress(reader.number<int64_t>());
            break;
        }
    }

    ComparisonObserver &m_observer;
    LinkedNames *m_names;
    LinkedNames m_links = {};
    std::map<uint64_t, std::string> m_last = {}; // what each worker has compared
};

} // namespace

std::string ComparisonJob::text() const {
    RecordWriter writer;
    writer.number(kind).text(path).text(otherPath).text(top).number(device);
    for (const auto &[one, other] : names) {
        writer.text(one).text(other);
    }
    return writer.bytes();
}

ComparisonJob ComparisonJob::from(std::string_view text) {
    RecordReader reader(text);
    ComparisonJob job;
    job.kind = reader.number<Kind>();
    job.path = reader.text();
    job.otherPath = reader.text();
    job.top = reader.text();
    job.device = reader.number<dev_t>();
    while (!reader.is_at_end()) {
        std::string one = reader.text();
        job.names.emplace_back(std::move(one), reader.text());
    }
    return job;
}

size_t ComparisonJob::size_of(const std::pair<std::string, std::string> &names) {
    return names.first.size() + names.second.size() + 2 * sizeof(uint32_t);
}

bool share_comparison(Job job, const Hands &hands, ComparisonObserver &observer, LinkedNames *names,
                      const CompareJob &compare) {
    ComparisonOverseer overseer(observer, names);
    WorkerPool pool(
        hands, [&compare] { return std::make_unique<ComparisonWorker>(compare); }, overseer);
    if (!pool.start()) {
        return false;
    }
    (void)pool.run(std::move(job));
    overseer.finish();
    return true;
}

bool ask_for_links(Crew &crew, const LinkedName &name) {
    const std::string answer = crew.ask(RecordWriter()
                                            .number(name.first.first)
                                            .number(name.first.second)
                                            .number(name.second.first)
                                            .number(name.second.second)
                                            .number(name.names)
                                            .number(name.arrived)
                                            .text(name.path)
                                            .text(name.otherPath)
                                            .number(name.bytes)
                                            .bytes());
    return RecordReader(answer).number<bool>();
}

void begin_pair(Crew &crew, const std::string &path, const std::string &otherPath) {
    crew.begin(path + '\0' + otherPath);
}

} // namespace engine
