// Three views of one truth: what a plan forecasts, what the run's receipt tells and what a comparison finds afterwards
// are the same, class by class and path by path, between any two volumes. A program that shares no code with any of
// them looks whether something else differs.
#include "tests/agreement/random_tree.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/seeds.h"
#include "tests/kit/volumes.h"
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/plan/plan.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/transfer.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <grp.h>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

using engine::Conflict;
using engine::Loss;
using engine::LossClass;
using engine::Operation;

// By path below the top and class.
using Losses = std::multiset<std::pair<std::string, std::string>>;

class View {
  public:
    explicit View(std::string top) : m_top(std::move(top)) {}
    void add(const std::string &source, const std::string &destination, const Loss &loss) {
        const std::string path = source.substr(m_top.size());
        if (loss.cls == LossClass::name_changed) {
            changed[path] = destination;
        }
        details += engine::displayed(path) + ": " + loss.detail + "\n";
        if (has_common_words(loss)) {
            words.emplace(path, loss.detail);
        }
        told.emplace(path, engine::loss_row(loss.cls).name);
    }
    // What a plan and a comparison find out otherwise than by trying, and tell in the same words.
    static bool has_common_words(const Loss &loss) {
        const bool alike = loss.cls == LossClass::attribute || loss.cls == LossClass::file_too_large ||
                           loss.cls == LossClass::name_too_long || loss.cls == LossClass::symbolic_link;
        // A comparison knows that it is not there, and not why.
        return alike && !loss.detail.starts_with("the volume refuses the name") &&
               !loss.detail.starts_with("is a symbolic link, which cannot be made") &&
               loss.detail.find("become the same") == std::string::npos && loss.detail != "is not at the second";
    }
    // What a command makes its exit status of.
    void count(engine::EntryKind kind, bool done, bool fails, const std::vector<Loss> &losses) {
        const bool directory = kind == engine::EntryKind::directory;
        m_directories += directory && done ? 1 : 0;
        m_succeeded += !directory && !fails ? 1 : 0;
        m_noFile = m_noFile && (directory || !fails);
        m_failed = m_failed || fails;
        for (const Loss &loss : losses) {
            m_failed = m_failed || engine::fails(loss, {});
        }
    }
    void count(int files) { m_succeeded += files; }
    int status() const {
        const int succeeded = m_succeeded == 0 && m_noFile ? m_directories : m_succeeded;
        return !m_failed ? 0 : succeeded > 0 ? 1 : 2;
    }

    // An entry that did not get there, with everything in it, for no loss of a class.
    void fail(const std::string &source) { failed.insert(source.substr(m_top.size())); }
    // An entry that did not get there, with all that is in it.
    void close(const std::string &source) { closed.insert(source.substr(m_top.size())); }
    // `shut`: those that go with what is in them.
    void without(const std::set<std::string> &paths, const std::set<std::string> &shut) {
        std::erase_if(told, [&](const auto &one) {
            return std::ranges::any_of(paths, [&](const std::string &path) {
                return one.first == path || (shut.contains(path) && one.first.starts_with(path + "/"));
            });
        });
    }
    std::string details = {};
    std::string text() const {
        std::string all;
        for (const auto &[path, cls] : told) {
            all += engine::displayed(path) + ": " + cls + "\n";
        }
        return all;
    }
    const std::string &top() const { return m_top; }

    Losses told = {};
    Losses words = {}; // by path
    std::set<std::string> failed = {};
    std::set<std::string> closed = {};
    std::map<std::string, std::string> changed = {}; // where an entry stands whose name could not stay
    std::map<std::string, std::string> kept = {};    // or could not, and comes back

  private:
    std::string m_top;
    int m_directories = 0, m_succeeded = 0;
    bool m_noFile = true, m_failed = false; // m_noFile: no file has failed
};

class Forecast : public engine::PlanObserver {
  public:
    explicit Forecast(View &view) : m_view(view) {}
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(const engine::PlannedEntry &planned) override {
        for (const Loss &loss : planned.losses) {
            m_view.add(planned.source, planned.destination, loss);
        }
        const bool gone = planned.deed == engine::Deed::fail || planned.deed == engine::Deed::skip;
        m_view.count(planned.kind, !gone, planned.deed == engine::Deed::fail, planned.losses);
        if (gone && planned.losses.empty()) {
            m_view.fail(planned.source);
        }
    }
    void loss(const std::string &source, const std::string &destination, const Loss &loss) override {
        m_view.add(source, destination, loss);
        m_view.count(engine::EntryKind::directory, false, false, {loss});
    }

  private:
    View &m_view;
};

class Receipt : public engine::TransferObserver {
  public:
    explicit Receipt(View &view) : m_view(view) {}
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override {
        const bool fails = outcome.status == engine::Status::failed || outcome.warning;
        m_view.count(kind, outcome.status == engine::Status::done, fails, outcome.losses);
        for (const Loss &loss : outcome.losses) {
            m_view.add(source, outcome.destination, loss);
        }
        const auto name_of = [](const std::string &path) { return path.substr(path.rfind('/') + 1); };
        const bool there = outcome.status == engine::Status::done || outcome.same;
        if (there && name_of(source) != name_of(outcome.destination)) {
            m_view.kept[source.substr(m_view.top().size())] = outcome.destination;
        }
        if (outcome.status == engine::Status::failed) {
            m_view.close(source);
        }
        if (outcome.status != engine::Status::done && outcome.losses.empty()) {
            m_view.fail(source);
            m_view.details +=
                engine::displayed(source) + ": " + (outcome.problem ? outcome.problem->reason : "") + "\n";
        }
    }
    void loss(const std::string &source, const std::string &destination, const Loss &loss) override {
        m_view.add(source, destination, loss);
        m_view.count(engine::EntryKind::directory, false, false, {loss});
    }
    void arrived(const std::string &, int files, int64_t) override { m_view.count(files); }
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }

  private:
    View &m_view;
};

class Differences : public engine::ComparisonObserver {
  public:
    explicit Differences(View &view) : m_view(view) {}
    bool stopped() const override { return false; }
    void loss(const std::string &first, const std::string &second, const Loss &loss) override {
        m_view.add(first, second, loss);
    }
    void extra(const std::string &, engine::EntryKind) override {}
    void same(const std::string &, const std::string &) override {}
    void compared(const std::string &, engine::EntryKind, int64_t) override {}
    void progress(int64_t) override {}

  private:
    View &m_view;
};

struct Kind {
    const char *name;
    const char *driver;   // what makes it, as kit::Volume knows it
    bool partial = false; // refuses some of what a tree has
    int type = -1;        // the platform is told that it is one of this type
    off_t tooLarge = 0;   // the size of a file that it refuses
    const char *mountOptions = "";
    bool dates = false; // gives creation times of its own, which nobody can set

    friend void PrintTo(const Kind &kind, std::ostream *stream) { *stream << kind.name; }
};
constexpr off_t kTooLargeForExt4 = off_t{20} << 40, kTooLargeForFat = (off_t{4} << 30) + 5;
// Those that every kernel of a build machine has; those of FUSE; those of another kernel.
constexpr Kind kOwn[] = {{"tmpfs", "tmpfs"}, {"ramfs", "ramfs"}, {"ext4", "ext4", false, -1, kTooLargeForExt4},
                         {"xfs", "xfs"},     {"btrfs", "btrfs"}, {"overlay", "overlay"}};
constexpr Kind kFuse[] = {{"bindfs", "bindfs"},
                          {"ntfs3g", "ntfs-3g", true},
                          {"ntfs3gAsNtfs", "ntfs-3g", true, 5},
                          {"exfatFuse", "exfat-fuse", true},
                          {"exfatFuseAsExfat", "exfat-fuse", true, 18}};
constexpr Kind kForeign[] = {{"vfat", "vfat", true, -1, kTooLargeForFat, "iocharset=utf8", true},
                             {"exfat", "exfat", true, -1, 0, "iocharset=utf8", true},
                             {"hfsplus", "hfsplus", true, -1, 0, "", true},
                             {"ntfs3", "ntfs3", true, -1, 0, "", true}};

constexpr unsigned kCoarsestTime = 2; // seconds, in which some keep creation times

// Room for all trees, of which none is taken until it is used.
kit::Volume made(const Kind &kind, const std::string &scratch) {
    constexpr uint64_t mebibyte = 1 << 20;
    const std::string driver = kind.driver;
    if (driver == "tmpfs") {
        return kit::Volume::tmpfs(2048 * mebibyte);
    }
    if (driver == "ramfs") {
        return kit::Volume::plain();
    }
    if (driver == "overlay" || driver == "bindfs") {
        (void)::mkdir(scratch.c_str(), 0755);
        return driver == "overlay" ? kit::Volume::overlay(scratch) : kit::Volume::mirror(scratch);
    }
    if (driver == "ntfs-3g" || driver == "exfat-fuse") {
        return kit::Volume::fuse(driver, 512 * mebibyte);
    }
    return kit::Volume::loop(driver, (kind.partial ? 256 : 1024) * mebibyte, driver == "ntfs3" ? "-F -Q" : "",
                             kind.mountOptions);
}

// What the platform is told of a volume, for as long as this lives.
class ToldTypes {
  public:
    void add(const std::string &path, int type) {
        if (type >= 0) {
            m_text += (m_text.empty() ? "" : ":") + path + "=" + std::to_string(type);
            ::setenv("VEXOFILEOP_FSTYPES", m_text.c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
        }
    }
    ToldTypes() = default;
    ToldTypes(const ToldTypes &) = delete;
    ToldTypes &operator=(const ToldTypes &) = delete;
    ~ToldTypes() { ::unsetenv("VEXOFILEOP_FSTYPES"); } // NOLINT(concurrency-mt-unsafe)

  private:
    std::string m_text;
};

using Pair = std::pair<Kind, Kind>;

class Agreement : public kit::Behaviour, public ::testing::WithParamInterface<Pair> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("to mount volumes");
    }

    // One tree on its way, and what stands where it goes.
    struct Scene {
        uint32_t seed;
        std::string source, kept, copy;
        bool move = seed % 2 == 1, existing = seed / 2 % 2 == 1;

        Scene(uint32_t number, const std::string &from, const std::string &to)
            : seed(number), source(from + "/tree" + std::to_string(seed)), kept(from + "/kept" + std::to_string(seed)),
              copy(to + "/tree" + std::to_string(seed)) {}
        // A moved tree is gone afterwards: the same once more stands for it.
        const std::string &reference() const { return move ? kept : source; }
        void grow(const agreement::TreeOptions &options) const {
            agreement::make_tree(source, seed, options);
            if (move) {
                agreement::make_tree(kept, seed, options);
            }
        }
        // Not every driver makes the same tree twice.
        void copies_where_trees_differ() {
            if (move) {
                View view(source);
                Differences observer(view);
                engine::compare_trees(source, kept, {}, observer);
                move = view.told.empty();
            }
        }
        void grow_destination(bool partial) const {
            agreement::make_tree(copy, seed, {.older = true, .partial = partial});
        }
    };

    void check(const std::string &from, const std::string &to, uint32_t seed) {
        Scene scene(seed, from, to);
        const auto &[fromKind, toKind] = GetParam();
        const bool large = toKind.tooLarge > 0 && !fromKind.partial && seed % large_ones == 0;
        // Others cannot hold it, or do not tell where it has holes.
        const std::string driver = fromKind.driver;
        const bool holds = driver == "tmpfs" || driver == "xfs" || driver == "btrfs";
        scene.grow({.partial = fromKind.partial,
                    .large = large && (holds || toKind.tooLarge == kTooLargeForFat) ? toKind.tooLarge : 0});
        scene.copies_where_trees_differ();
        // Nothing at the destination has the same creation time by chance.
        const auto pass = [dates = fromKind.dates || toKind.dates] { ::sleep(dates ? kCoarsestTime + 1 : 0); };
        if (scene.existing) {
            pass();
            scene.grow_destination(toKind.partial);
        }
        pass();
        if (!HasFatalFailure()) {
            view(scene);
        }
    }

    // The same of names that may become one.
    void check_names(const std::string &from, const std::string &to) {
        const Scene scene(0, from, to);
        agreement::make_twins(scene.source);
        ::sleep(GetParam().second.dates ? kCoarsestTime + 1 : 0);
        view(scene);
    }

    // What becomes of what stands there, where something does.
    struct Way {
        Conflict conflict;
        bool inPlace = false, backup = false;
    };
    static Way way_of(uint32_t seed) {
        constexpr uint32_t ways = 16;
        switch (seed % ways) {
        case 2:
            return {Conflict::skip};
        case 3:
        case 14:
            return {Conflict::replace, false, true};
        case 6:
        case 15:
            return {Conflict::update};
        case 7:
            return {Conflict::replace, true};
        default:
            return {Conflict::replace};
        }
    }

    // What differs between the views is the failure.
    void view(const Scene &scene) {
        const auto &[seed, source, kept, copy, move, existing] = scene;
        const std::string &reference = scene.reference();
        View forecast(source), receipt(source), comparison(reference);
        const Way way = way_of(seed);
        const engine::TransferOptions transfer{.operation = move ? Operation::move : Operation::copy,
                                               .conflict = way.conflict,
                                               .clone = seed % 4 == 0 ? engine::Clone::automatic : engine::Clone::never,
                                               .inPlace = way.inPlace,
                                               .links = true,
                                               .specials = seed / 4 % 2 == 1,
                                               .hardLinks = seed / 2 % 3 != 0,
                                               .trees = true,
                                               .countsAlone = seed % 3 == 0,
                                               .reversibleNames = seed / 3 % 2 == 1,
                                               .backup = {.wanted = way.backup, .suffix = "~"}};
        {
            Forecast observer(forecast);
            const engine::PlanOptions plan{.transfer = transfer};
            engine::Planner planner(plan, observer);
            planner.run(source, copy);
            planner.finish();
        }
        {
            Receipt observer(receipt);
            engine::Transfer run(transfer, observer);
            run.run(source, copy);
            run.leave();
        }
        // A top that cannot be read gets nowhere.
        const bool nowhere = !kit::exists(copy) && !receipt.told.empty() && receipt.told.begin()->first.empty();
        if (!nowhere) {
            Differences observer(comparison);
            engine::compare_trees(reference, copy, {.reversibleNames = transfer.reversibleNames}, observer);
        } else {
            comparison.told = receipt.told;
        }
        comparison.without(receipt.failed, receipt.failed);
        unreadable_ones(receipt, forecast, comparison);
        EXPECT_EQ(receipt.status(), forecast.status()) << where(seed) << "\n" << receipt.details;
        EXPECT_EQ(receipt.failed, forecast.failed) << where(seed) << "\n" << receipt.details;
        EXPECT_EQ(receipt.text(), forecast.text()) << "receipt and forecast, " << where(seed) << "\n"
                                                   << receipt.details << "\nforecast:\n"
                                                   << forecast.details;
        EXPECT_EQ(receipt.words, forecast.words) << where(seed);
        EXPECT_TRUE(std::ranges::all_of(
            comparison.words,
            [&](const auto &one) {
                const auto same_entry = [&](const auto &other) { return other.first == one.first; };
                return receipt.words.contains(one) || std::ranges::none_of(receipt.words, same_entry);
            }))
            << where(seed) << "\n"
            << receipt.details << "\ncomparison:\n"
            << comparison.details;
        // Where the destination cannot be entered the run knows of what lies at the source, and the comparison does
        // not.
        View compared = receipt;
        compared.without(receipt.failed, receipt.failed);
        EXPECT_EQ(compared.text(), comparison.text()) << "receipt and comparison, " << where(seed) << "\n"
                                                      << receipt.details << "\ncomparison:\n"
                                                      << comparison.details;
        if (!nowhere) {
            note(reference, copy, receipt, existing);
        }
    }
    // What cannot be read cannot be compared: that something is told there is all. Nobody knows what is in there,
    // unless it was only what is kept for it that could not be read.
    static void unreadable_ones(View &receipt, View &forecast, View &comparison) {
        std::set<std::string> paths;
        for (const auto &[path, cls] : receipt.told) {
            if (cls == engine::loss_row(LossClass::unreadable).name) {
                paths.insert(path);
                EXPECT_TRUE(std::ranges::any_of(comparison.told, [&, wanted = path](const auto &one) {
                    return one.first == wanted;
                })) << engine::displayed(path);
                EXPECT_TRUE(forecast.told.contains({path, cls})) << engine::displayed(path);
            }
        }
        comparison.without(paths, receipt.closed);
        for (const std::string &path : paths) {
            const auto here = [&, wanted = path](const auto &one) { return one.first == wanted; };
            std::ranges::copy_if(receipt.told, std::inserter(comparison.told, comparison.told.end()), here);
        }
    }
    static std::string where(uint32_t seed) {
        return kit::repeat(seed) + (seed % 2 == 1 ? ", moved" : ", copied") +
               (seed / 2 % 2 == 1 ? " onto another" : "");
    }

    // For the program that looks at the trees without any of this.
    void note(const std::string &reference, const std::string &copy, const View &receipt, bool merged) {
        m_notes << reference << '\0' << copy << '\0';
        for (const auto &[path, cls] : receipt.told) {
            const auto place = receipt.changed.find(path);
            m_notes << path << '\0' << cls << '\0' << (place == receipt.changed.end() ? "" : place->second) << '\0';
        }
        for (const auto &[path, place] : receipt.kept) {
            m_notes << path << '\0' << "name-kept" << '\0' << place << '\0';
        }
        for (const std::string &path : receipt.failed) {
            m_notes << path << '\0' << "*" << '\0' << '\0';
        }
        if (merged) {
            m_notes << '\0' << "merged" << '\0' << '\0';
        }
        m_notes << '\0' << '\0' << '\0';
    }
    void looks_like_that(const std::string &user = {}) {
        m_notes.close();
        const std::string program = std::string(AGREEMENT_DIFFERENCES) + " " + m_noted + " " + user;
        EXPECT_EQ(0, std::system(program.c_str())); // NOLINT(concurrency-mt-unsafe,cert-env33-c)
    }

    static constexpr uint32_t large_ones = 3;
    const std::string m_noted = scratch / "notes";
    std::ofstream m_notes{m_noted, std::ios::binary};
};

TEST_P(Agreement, ForecastReceiptAndComparisonTellTheSame) {
    const auto &[fromKind, toKind] = GetParam();
    KIT_REQUIRE(from, made(fromKind, scratch / "one"));
    KIT_REQUIRE(to, made(toKind, scratch / "other"));
    ToldTypes types;
    types.add(from.path(), fromKind.type);
    types.add(to.path(), toKind.type);
    for (const uint32_t seed : kit::seeds(11, 200)) {
        check(from.path(), to.path(), seed);
        if (HasFailure()) {
            break;
        }
    }
    if (!fromKind.partial && !HasFailure()) {
        check_names(from.path(), to.path());
    }
    looks_like_that();
    processAsNow();
}

// The same of a user without rights: of trees of root's, with what the user may not read, and of the user's own.
class AgreementOfAUser : public Agreement {};

TEST_P(AgreementOfAUser, ForecastReceiptAndComparisonTellTheSame) {
    constexpr uid_t nobody = 65534;
    const auto &[fromKind, toKind] = GetParam();
    KIT_REQUIRE(from, made(fromKind, scratch / "one"));
    KIT_REQUIRE(to, made(toKind, scratch / "other"));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    for (const kit::Volume *const volume : {&from, &to}) {
        ASSERT_EQ(0, ::mkdir((*volume / "home").c_str(), 0755));
        ASSERT_EQ(0, ::chown((*volume / "home").c_str(), nobody, nobody));
    }
    for (const uint32_t seed : kit::seeds(11, 200)) {
        EXPECT_TRUE(kit::holdsInChild([&] {
            const Scene scene(seed, from / "home", to / "home");
            if (!scene.move) {
                scene.grow({});
            }
            ASSERT_EQ(0, ::setgroups(0, nullptr));
            ASSERT_EQ(0, ::setresgid(nobody, nobody, nobody));
            ASSERT_EQ(0, ::setresuid(nobody, nobody, nobody));
            if (scene.move) {
                scene.grow({.partial = true});
            }
            if (scene.existing) {
                scene.grow_destination(true);
            }
            view(scene);
            m_notes.flush();
        })) << where(seed);
        if (HasFailure()) {
            break;
        }
    }
    looks_like_that("user");
    processAsNow();
}

// With volumes that are not the kernel's own a tree goes to and from two that are, and from one to another of its kind;
// in all directions where there is time for that.
std::vector<Pair> pairs(const std::vector<Kind> &kinds) {
    const bool full = std::getenv("VEXO_FULL") != nullptr; // NOLINT(concurrency-mt-unsafe): one thread
    std::vector<Kind> own = {kOwn[0], kOwn[2]};
    if (full) {
        own.assign(std::begin(kOwn), std::end(kOwn));
    }
    std::vector<Pair> all;
    for (const Kind &kind : kinds) {
        for (const Kind &other : own) {
            all.emplace_back(kind, other);
            all.emplace_back(other, kind);
        }
        for (const Kind &other : kinds) {
            if (full || std::string(kind.name) == other.name) {
                all.emplace_back(kind, other);
            }
        }
    }
    return all;
}
std::vector<Pair> own_pairs() {
    std::vector<Pair> all;
    for (const Kind &from : kOwn) {
        for (const Kind &to : kOwn) {
            all.emplace_back(from, to);
        }
    }
    return all;
}
std::string name_of(const ::testing::TestParamInfo<Pair> &pair) {
    return std::string(pair.param.first.name) + "To" + pair.param.second.name;
}

INSTANTIATE_TEST_SUITE_P(Pairs, Agreement, ::testing::ValuesIn(own_pairs()), name_of);
INSTANTIATE_TEST_SUITE_P(Pairs, AgreementOfAUser,
                         ::testing::Values(Pair(kOwn[0], kOwn[2]), Pair(kOwn[2], kOwn[3]), Pair(kOwn[3], kOwn[4]),
                                           Pair(kOwn[4], kOwn[0]), Pair(kOwn[2], kOwn[5]), Pair(kOwn[2], kOwn[1])),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Fuse, Agreement, ::testing::ValuesIn(pairs({std::begin(kFuse), std::end(kFuse)})), name_of);
INSTANTIATE_TEST_SUITE_P(Foreign, Agreement, ::testing::ValuesIn(pairs({std::begin(kForeign), std::end(kForeign)})),
                         name_of);

} // namespace
