// The processes that share a request: that everything is told once however they end, and that none of them stays.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/seeds.h"
#include "tools/engine/workers/channel.h"
#include "tools/engine/workers/pool.h"
#include "tools/engine/workers/record.h"
#include "tools/engine/workers/shared.h"
#include "tools/engine/workers/tellings.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace worker_pool_tests {
namespace {

using engine::Crew;
using engine::Job;
using engine::RecordReader;
using engine::RecordWriter;
using engine::Yield;

// ---- What lies below ----

TEST(WorkerRecords, HoldsWhatWasWrittenAndEndsWithNothing) {
    const std::string bytes = RecordWriter().number<int64_t>(-7).text("a\nb").text("").number(true).bytes();
    RecordReader reader(bytes);
    EXPECT_EQ(-7, reader.number<int64_t>());
    EXPECT_EQ("a\nb", reader.text());
    EXPECT_EQ("", reader.text());
    EXPECT_TRUE(reader.number<bool>());
    EXPECT_TRUE(reader.is_at_end());
    EXPECT_EQ(0u, reader.number<uint32_t>());
    EXPECT_EQ("", reader.text());
}

TEST(WorkerRing, KeepsTheOrderOfMoreThanItHolds) {
    const auto ring = engine::make_shared_memory<engine::Ring>();
    const std::string all = kit::pattern(3 * engine::Ring::kBytes + 17);
    std::string got;
    std::string_view rest = all;
    while (!rest.empty()) {
        const size_t before = rest.size();
        ring->put(rest);
        EXPECT_GE(engine::Ring::kBytes, before - rest.size());
        ring->take(got);
    }
    EXPECT_EQ(all, got);
}

TEST(WorkerSlate, KeepsTheLastOfWhatWasWritten) {
    const auto slate = engine::make_shared_memory<engine::Slate>();
    EXPECT_EQ("", slate->read());
    slate->write("one");
    slate->write("another");
    EXPECT_EQ("another", slate->read());
    slate->write(std::string(engine::Slate::kBytes + 5, 'x'));
    EXPECT_EQ(std::string(engine::Slate::kBytes, 'x'), slate->read());
}

class WorkerChannel : public kit::Behaviour {};

TEST_F(WorkerChannel, CarriesWholeMessagesWithFiles) {
    auto ends = engine::Channel::pair();
    ASSERT_TRUE(ends);
    kit::writeFile(scratch / "file", "content");
    const engine::Descriptor file(::open((scratch / "file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(ends->first.send("one"));
    EXPECT_TRUE(ends->first.send("two", {file.get(), file.get()}));
    EXPECT_EQ("one", ends->second.receive()->bytes);
    const auto two = ends->second.receive();
    EXPECT_EQ("two", two->bytes);
    ASSERT_EQ(2u, two->files.size());
    char byte = 0;
    EXPECT_EQ(1, ::read(two->files[1].get(), &byte, 1));
    EXPECT_EQ('c', byte);
    EXPECT_NE(0, ::fcntl(two->files[0].get(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(WorkerChannel, TellsThatTheOtherIsGoneAfterWhatItSaid) {
    auto ends = engine::Channel::pair();
    EXPECT_TRUE(ends->second.send("never read"));
    {
        const engine::Channel gone(std::move(ends->first));
        EXPECT_TRUE(gone.send("last words"));
    }
    EXPECT_EQ("last words", ends->second.receive()->bytes);
    EXPECT_FALSE(ends->second.receive());
    EXPECT_FALSE(ends->second.send("anybody?"));
    EXPECT_FALSE(ends->second.send(std::string(engine::Channel::kMostBytes + 1, 'x')));
}

TEST(WorkerTellings, OutcomeArrivesWhole) {
    engine::Outcome outcome;
    outcome.status = engine::Status::skipped;
    outcome.destination = "to\na file";
    outcome.bytes = int64_t{1} << 40;
    outcome.cloned = outcome.synced = outcome.same = outcome.linked = outcome.inPlace = outcome.sourceStays = true;
    outcome.old = {7, 8};
    outcome.oldNames = 3;
    outcome.oldNamesKnown = {"one", "two"};
    outcome.backup = "kept";
    outcome.losses = {{engine::LossClass::owner, "detail"}, {engine::LossClass::hole, ""}};
    outcome.warning = engine::Problem{"reason", 0xA300, true, true, true, true, EIO};
    RecordWriter writer;
    write(writer, outcome);
    write(writer, engine::Outcome{});
    RecordReader reader(writer.bytes());
    const engine::Outcome read = read_outcome(reader);
    EXPECT_EQ(engine::Status::skipped, read.status);
    EXPECT_EQ(outcome.destination, read.destination);
    EXPECT_EQ(outcome.bytes, read.bytes);
    EXPECT_TRUE(read.cloned && read.synced && read.same && read.linked && read.inPlace && read.sourceStays);
    EXPECT_EQ(outcome.old, read.old);
    EXPECT_EQ(3, read.oldNames);
    EXPECT_EQ(outcome.oldNamesKnown, read.oldNamesKnown);
    EXPECT_EQ("kept", read.backup);
    EXPECT_EQ(outcome.losses, read.losses);
    ASSERT_TRUE(read.warning);
    EXPECT_EQ("reason", read.warning->reason);
    EXPECT_EQ(0xA300u, read.warning->code);
    EXPECT_TRUE(read.warning->withSource && read.warning->needsRecursion && read.warning->sameFile &&
                read.warning->replaced);
    EXPECT_EQ(EIO, read.warning->number);
    EXPECT_FALSE(read.problem);
    const engine::Outcome plain = read_outcome(reader);
    EXPECT_FALSE(plain.cloned || plain.synced || plain.same || plain.linked || plain.inPlace || plain.sourceStays);
    EXPECT_TRUE(reader.is_at_end());
}

// ---- The pool ----

// Numbers from `first` to before `last`, each told once. Whoever may splits them.
Job range(int first, int last) {
    return {RecordWriter().number(first).number(last).bytes(), {}};
}

using Step = std::function<void(Crew &, int)>;

class Counter : public engine::Worker {
  public:
    explicit Counter(Step step) : m_step(std::move(step)) {}
    Yield work(Crew &crew, Job job) override {
        RecordReader reader(job.text);
        int next = reader.number<int>(), last = reader.number<int>();
        Crew::Group group = 0;
        Yield yield;
        for (; next < last && !crew.stopped(); ++next) {
            if (crew.is_work_wanted() && last - next > 1) {
                const int half = next + (last - next + 1) / 2;
                last = crew.give(group, range(half, last).text, {}) ? half : last;
            }
            crew.begin(std::to_string(next));
            m_step(crew, next);
            crew.tell(RecordWriter().number(next).bytes());
            ++yield.count;
        }
        yield.whole = next == last;
        yield += crew.collect(group);
        return yield;
    }

  private:
    Step m_step;
};

struct Told : engine::Overseer {
    std::map<int, int> numbers;
    std::vector<std::pair<int, int>> unfinished; // what was begun, and the job's end
    std::vector<std::string> reasons;
    std::set<uint64_t> dead;
    std::function<bool()> stop = [] { return false; };
    std::function<void(int)> on_number = [](int) {};
    std::function<std::optional<std::string>(uint64_t, std::string_view)> answer = [](uint64_t, std::string_view) {
        return std::optional<std::string>("yes");
    };

    bool stopped() const override { return stop(); }
    void told(uint64_t, std::string_view record) override {
        const int number = RecordReader(record).number<int>();
        ++numbers[number];
        on_number(number);
    }
    std::optional<std::string> asked(uint64_t worker, std::string_view record) override {
        return answer(worker, record);
    }
    bool lost(uint64_t, std::string_view job, const std::string &path, const std::string &reason) override {
        RecordReader reader(job);
        const int first = reader.number<int>();
        unfinished.emplace_back(path.empty() ? first : std::stoi(path), reader.number<int>());
        reasons.push_back(reason);
        return false;
    }
    void gone(uint64_t worker) override { dead.insert(worker); }
    bool each_once(int upTo) const {
        return numbers.size() == static_cast<size_t>(upTo) &&
               std::ranges::all_of(numbers, [](const auto &one) { return one.second == 1; });
    }
};

bool has_children() {
    return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

class Pool : public kit::Behaviour {
  protected:
    void TearDown() override {
        EXPECT_FALSE(has_children());
        kit::Behaviour::TearDown();
    }
    Yield count(
        int workers, int numbers, Step step = [](Crew &, int) {}) {
        engine::WorkerPool pool(
            {.number = workers}, [&] { return std::make_unique<Counter>(step); }, told);
        processes = [&pool] { return pool.processes(); };
        const Yield yield = pool.run(range(0, numbers));
        processes = nullptr;
        return yield;
    }
    Told told;
    std::function<std::vector<pid_t>()> processes;
};

TEST_F(Pool, DoesEverythingOnceWithAnyNumberOfWorkers) {
    for (const int workers : {1, 2, 3, 8}) {
        told.numbers.clear();
        const Yield yield = count(workers, 20'000);
        EXPECT_TRUE(yield.whole);
        EXPECT_EQ(20'000u, yield.count);
        EXPECT_TRUE(told.each_once(20'000)) << workers << " workers, " << told.numbers.size() << " numbers";
    }
}

// Jobs are asked for one by one, when somebody has time for one, and not all of them at once.
TEST_F(Pool, AsksForMoreJobsAsTheyAreDone) {
    for (const int workers : {1, 3}) {
        told.numbers.clear();
        int given = 0, ahead = 0;
        engine::WorkerPool pool(
            {.number = workers}, [&] { return std::make_unique<Counter>([](Crew &, int) {}); }, told);
        const auto next_of = [](int &number) {
            const int first = 10 * number++;
            return range(first, first + 10);
        };
        const Yield yield = pool.run([&]() -> std::optional<Job> {
            ahead = std::max(ahead, given - static_cast<int>(told.numbers.size()) / 10);
            return given == 500 ? std::nullopt : std::optional(next_of(given));
        });
        EXPECT_TRUE(yield.whole);
        EXPECT_EQ(5'000u, yield.count);
        EXPECT_TRUE(told.each_once(5'000)) << workers << " workers";
        EXPECT_GE(4 * workers + 4, ahead);
        EXPECT_TRUE(pool.run([]() { return std::optional<Job>(); }).whole);
    }
}

// Of those that are not asked for any more nothing is known, and nothing is said.
TEST_F(Pool, AsksForNoJobOnceItIsStopped) {
    told.stop = [&] { return told.numbers.size() >= 30; };
    int given = 0;
    engine::WorkerPool pool(
        {.number = 2}, [&] { return std::make_unique<Counter>([](Crew &, int) {}); }, told);
    (void)pool.run([&]() -> std::optional<Job> {
        const int first = 10 * given++;
        return range(first, first + 10);
    });
    EXPECT_GT(1'000, given);
    EXPECT_TRUE(told.unfinished.empty());
}

// Nobody goes on before all of them are here, but to give something away to who has nothing.
TEST_F(Pool, SharesTheWork) {
    std::set<uint64_t> seen;
    told.answer = [&](uint64_t worker, std::string_view) {
        seen.insert(worker);
        return std::optional<std::string>(seen.size() == 4 ? "go" : "wait");
    };
    count(4, 10'000, [](Crew &crew, int) {
        static bool go = false;
        while (!go && !crew.is_work_wanted()) {
            go = crew.ask("may I?") == "go";
        }
    });
    EXPECT_EQ(4u, seen.size());
    EXPECT_TRUE(told.each_once(10'000));
}

// An answer that is not there yet comes when it is.
TEST_F(Pool, QuestionWaitsForItsAnswer) {
    int asked = 0;
    told.answer = [&](uint64_t, std::string_view question) {
        return ++asked < 3 ? std::nullopt : std::optional<std::string>(question);
    };
    count(1, 1, [](Crew &crew, int) { EXPECT_EQ("which?", crew.ask("which?")); });
    EXPECT_EQ(3, asked);
}

TEST_F(Pool, WorksForOneRequestAfterTheOther) {
    engine::WorkerPool pool(
        {.number = 2}, [] { return std::make_unique<Counter>([](Crew &, int) {}); }, told);
    EXPECT_TRUE(pool.run(range(0, 10)).whole);
    const auto before = pool.processes();
    EXPECT_TRUE(pool.run(range(10, 30)).whole);
    EXPECT_EQ(before, pool.processes());
    EXPECT_TRUE(told.each_once(30));
}

TEST_F(Pool, ToldInFullIsMoreThanAnyBuffer) {
    const std::string large(3 * engine::Ring::kBytes, 'x');
    size_t got = 0;
    struct Large : engine::Worker {
        explicit Large(const std::string &given) : text(given) {}
        Yield work(Crew &crew, Job) override {
            crew.tell(text);
            crew.tell("");
            return {.whole = true, .count = 5};
        }
        const std::string &text;
    };
    struct Listener : Told {
        explicit Listener(size_t &size) : bytes(size) {}
        void told(uint64_t, std::string_view record) override { bytes += record.size(); }
        size_t &bytes;
    } listener(got);
    engine::WorkerPool pool(
        {.number = 2}, [&] { return std::make_unique<Large>(large); }, listener);
    EXPECT_EQ(5u, pool.run({"go", {}}).count);
    EXPECT_EQ(large.size(), got);
}

TEST_F(Pool, StopEndsAllOfThem) {
    told.stop = [this] { return told.numbers.contains(3); };
    const Yield yield = count(3, 1'000'000, [](Crew &crew, int number) {
        if (number == 3) {
            crew.tell_now(RecordWriter().number(-1).bytes());
        }
        // Without a stop this would never end.
        while (number > 10 && !crew.stopped()) {
            ::usleep(1'000);
        }
    });
    EXPECT_FALSE(yield.whole);
    EXPECT_GT(1'000u, told.numbers.size());
}

// With one worker the event is known before the next one is begun.
TEST_F(Pool, WhatIsToldAtOnceStopsAtOnce) {
    told.stop = [this] { return told.numbers.contains(-1); };
    EXPECT_FALSE(count(1, 1'000, [](Crew &crew, int number) {
                     if (number == 5) {
                         crew.tell_now(RecordWriter().number(-1).bytes());
                     }
                 }).whole);
    EXPECT_EQ(7u, told.numbers.size()); // 0 to 5, and the event
}

TEST_F(Pool, DeathCostsWhatWasBegunAndNothingElse) {
    const Yield yield = count(2, 1'000, [](Crew &, int number) {
        if (number == 400) {
            ::raise(SIGKILL);
        }
    });
    EXPECT_FALSE(yield.whole);
    EXPECT_EQ(1u, told.dead.size());
    ASSERT_FALSE(told.unfinished.empty());
    EXPECT_EQ(400, told.unfinished.front().first);
    EXPECT_NE(std::string::npos, told.reasons.front().find("signal 9")) << told.reasons.front();
    for (const auto &[first, last] : told.unfinished) {
        for (int number = first; number < last; ++number) {
            ++told.numbers[number];
        }
    }
    for (int number = 0; number < 1'000; ++number) {
        EXPECT_LE(1, told.numbers[number]) << number << " is neither done nor known to be lost";
    }
}

// Its own part is lost; the part that it has given away is not, however long that takes.
TEST_F(Pool, WhatADeadOneHasGivenAwayIsDone) {
    struct Giver : engine::Worker {
        Yield work(Crew &crew, Job job) override {
            RecordReader reader(job.text);
            const int first = reader.number<int>(), last = reader.number<int>();
            if (first == 0) {
                Crew::Group group = 0;
                EXPECT_TRUE(crew.give(group, range(50, 100).text, {}));
                ::raise(SIGKILL);
            }
            for (int number = first; number < last; ++number) {
                ::usleep(2'000);
                crew.tell(RecordWriter().number(number).bytes());
            }
            return {};
        }
    };
    {
        engine::WorkerPool pool(
            {.number = 2}, [] { return std::make_unique<Giver>(); }, told);
        EXPECT_FALSE(pool.run(range(0, 100)).whole);
    }
    EXPECT_TRUE(told.each_once(50));
    EXPECT_EQ(1u, told.unfinished.size());
}

TEST_F(Pool, ExceptionFailsTheJobAlone) {
    const Yield yield = count(1, 10, [](Crew &, int number) {
        if (number == 4) {
            throw std::runtime_error("four is too much");
        }
    });
    EXPECT_FALSE(yield.whole);
    ASSERT_EQ(1u, told.reasons.size());
    EXPECT_EQ("four is too much", told.reasons.front());
    EXPECT_EQ(4, told.unfinished.front().first);
    EXPECT_TRUE(told.dead.empty());
}

TEST_F(Pool, WhenEachWorkerDiesTheRequestEndsAllTheSame) {
    const Yield yield = count(3, 50, [](Crew &, int) { ::raise(SIGKILL); });
    EXPECT_FALSE(yield.whole);
    EXPECT_TRUE(told.numbers.empty());
    EXPECT_FALSE(told.unfinished.empty());
}

// 200 of them with VEXO_FULL: workers are killed at any moment, by somebody else.
TEST_F(Pool, KilledAtRandomTheyLoseNothingWithoutAWord) {
    for (const uint32_t seed : kit::seeds(10, 200)) {
        SCOPED_TRACE(kit::repeat(seed));
        std::mt19937 random(seed);
        told.numbers.clear();
        told.unfinished.clear();
        told.dead.clear();
        constexpr int all = 3'000;
        const auto mostKills = 1 + random() % 5;
        unsigned kills = 0;
        told.on_number = [&](int) {
            if (kills < mostKills && random() % 300 == 0) {
                const auto alive = processes();
                ::kill(alive[random() % alive.size()], SIGKILL);
                ++kills;
            }
        };
        const Yield yield = count(1 + static_cast<int>(seed % 4), all, [](Crew &crew, int number) {
            if (number % 16 == 0) {
                crew.tell_now(RecordWriter().number(-1).bytes());
            }
        });
        told.numbers.erase(-1);
        EXPECT_EQ(yield.whole, told.unfinished.empty());
        for (const auto &[number, times] : told.numbers) {
            EXPECT_EQ(1, times) << number;
        }
        for (const auto &[first, last] : told.unfinished) {
            for (int number = first; number < last; ++number) {
                ++told.numbers[number];
            }
        }
        EXPECT_EQ(static_cast<size_t>(all), told.numbers.size()) << "some are neither done nor known to be lost";
        EXPECT_FALSE(has_children());
    }
}

// The one above is killed: nobody outlives it, whatever it is doing.
TEST_F(Pool, NobodyIsLeftBehindByTheOneAbove) {
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    const pid_t above = ::fork();
    if (above == 0) {
        ::close(ends[0]);
        Told nobody;
        engine::WorkerPool pool(
            {.number = 3}, [] { return std::make_unique<Counter>([](Crew &, int) { ::pause(); }); }, nobody);
        pool.start();
        (void)!::write(ends[1], "x", 1);
        pool.run(range(0, 100));
        ::_exit(0);
    }
    ::close(ends[1]);
    char byte = 0;
    ASSERT_EQ(1, ::read(ends[0], &byte, 1));
    ::kill(above, SIGKILL);
    ::waitpid(above, nullptr, 0);
    // Each of them holds the pipe open: it is at its end when the last one is gone.
    EXPECT_EQ(0, ::read(ends[0], &byte, 1));
    ::close(ends[0]);
}

TEST_F(Pool, WithoutAnyProcessTheRequestFailsByName) {
    EXPECT_TRUE(kit::holdsInChild([] {
        const rlimit none{0, 0};
        Told nobody;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NPROC, &none));
        if (::geteuid() == 0) {
            ASSERT_EQ(0, ::setgid(65534));
            ASSERT_EQ(0, ::setuid(65534));
        }
        engine::WorkerPool pool(
            {.number = 2}, [] { return std::make_unique<Counter>([](Crew &, int) {}); }, nobody);
        EXPECT_FALSE(pool.start());
        EXPECT_FALSE(pool.run(range(0, 5)).whole);
        ASSERT_EQ(1u, nobody.reasons.size());
        EXPECT_NE(std::string::npos, nobody.reasons.front().find("could be started"));
    }));
}

} // namespace
} // namespace worker_pool_tests
