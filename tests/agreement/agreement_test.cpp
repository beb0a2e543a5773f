// Three views of one truth: what a plan forecasts, what the run's receipt tells and what a comparison finds afterwards
// are the same, class by class and path by path, between any two volumes. A program that shares no code with any of
// them looks whether something else differs.
#include "tests/agreement/random_tree.h"
#include "tests/kit/behaviour.h"
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
#include <map>
#include <memory>
#include <optional>
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

// By path below the top and class. Names of one file are all told under the same path: which of them comes first is
// for each walk to say.
using Told = std::multiset<std::pair<std::string, std::string>>;

class View {
  public:
    explicit View(std::string top) : m_top(std::move(top)) {
        std::map<ino_t, std::string> first;
        std::vector<std::string> open{""};
        while (!open.empty()) {
            const std::string at = open.back();
            open.pop_back();
            for (const std::string &name : kit::namesIn(m_top + at)) {
                const std::string path = at + "/" + name;
                const struct stat found = kit::statOf(m_top + path);
                if (S_ISDIR(found.st_mode)) {
                    open.push_back(path);
                } else if (found.st_nlink > 1) {
                    m_first[path] = first.try_emplace(found.st_ino, path).first->second;
                }
            }
        }
    }
    void add(const std::string &source, const Loss &loss) {
        std::string path = source.substr(m_top.size());
        if (loss.cls == LossClass::hard_link) {
            const auto found = m_first.find(path);
            EXPECT_NE(m_first.end(), found) << engine::displayed(path) << ": " << loss.detail;
            path = found == m_first.end() ? path : found->second;
        }
        // Of what is nobody's in "@eaDir" the directory is told by some.
        if (const size_t store = path.find("/@eaDir/");
            loss.cls == LossClass::not_carried && store != std::string::npos) {
            path.resize(store);
        }
        details += engine::displayed(path) + ": " + loss.detail + "\n";
        told.emplace(path, engine::loss_row(loss.cls).name);
    }
    // An entry that did not get there, with everything in it, for no loss of a class.
    void fail(const std::string &source) { failed.insert(source.substr(m_top.size())); }
    void without(const std::set<std::string> &paths) {
        std::erase_if(told, [&](const auto &one) {
            return std::ranges::any_of(
                paths, [&](const std::string &path) { return one.first == path || one.first.starts_with(path + "/"); });
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

    Told told = {};
    std::set<std::string> failed = {};

  private:
    std::string m_top;
    std::map<std::string, std::string> m_first;
};

class Forecast : public engine::PlanObserver {
  public:
    explicit Forecast(View &view) : m_view(view) {}
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(const engine::PlannedEntry &planned) override {
        for (const Loss &loss : planned.losses) {
            m_view.add(planned.source, loss);
        }
        const bool gone = planned.deed == engine::Deed::fail || planned.deed == engine::Deed::skip;
        if (gone && planned.losses.empty()) {
            m_view.fail(planned.source);
        }
    }

  private:
    View &m_view;
};

class Receipt : public engine::TransferObserver {
  public:
    explicit Receipt(View &view) : m_view(view) {}
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(engine::EntryKind, const std::string &source, const engine::Outcome &outcome) override {
        for (const Loss &loss : outcome.losses) {
            m_view.add(source, loss);
        }
        const bool stays = outcome.problem && outcome.problem->reason.starts_with("the source directory stays");
        if (outcome.status != engine::Status::done && outcome.losses.empty() && !stays) {
            m_view.fail(source);
            m_view.details +=
                engine::displayed(source) + ": " + (outcome.problem ? outcome.problem->reason : "") + "\n";
        }
    }
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }

  private:
    View &m_view;
};

class Differences : public engine::ComparisonObserver {
  public:
    explicit Differences(View &view) : m_view(view) {}
    bool stopped() const override { return false; }
    void loss(const std::string &first, const std::string &, const Loss &loss) override { m_view.add(first, loss); }
    void extra(const std::string &, engine::EntryKind) override {}
    void same(const std::string &, const std::string &) override {}
    void compared(const std::string &, engine::EntryKind, int64_t) override {}
    void progress(int64_t) override {}

  private:
    View &m_view;
};

// Room for all trees, of which none is taken until it is used.
kit::Volume made(const std::string &kind, const std::string &scratch) {
    constexpr uint64_t mebibyte = 1 << 20;
    if (kind == "tmpfs") {
        return kit::Volume::tmpfs(2048 * mebibyte);
    }
    if (kind == "ramfs") {
        return kit::Volume::plain();
    }
    if (kind == "overlay") {
        (void)::mkdir(scratch.c_str(), 0755);
        return kit::Volume::overlay(scratch);
    }
    return kit::Volume::loop(kind, 1024 * mebibyte);
}

class Agreement : public kit::Behaviour, public ::testing::WithParamInterface<std::tuple<std::string, std::string>> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("to mount volumes");
    }

    // One tree on its way. What differs between the views is the failure.
    void check(const std::string &from, const std::string &to, uint32_t seed) {
        const bool move = seed % 2 == 1, existing = seed / 2 % 2 == 1;
        const std::string name = "tree" + std::to_string(seed);
        const std::string source = from + "/" + name, kept = from + "/kept" + name, copy = to + "/" + name;
        agreement::make_tree(source, seed);
        // A moved tree is gone afterwards: the same once more stands for it.
        const std::string &reference = move ? kept : source;
        if (move) {
            agreement::make_tree(kept, seed);
        }
        if (existing) {
            agreement::make_tree(copy, seed, true);
        }
        if (HasFatalFailure()) {
            return;
        }
        View forecast(source), receipt(source), comparison(reference);
        const engine::TransferOptions options{.operation = move ? Operation::move : Operation::copy,
                                              .conflict = seed % 8 == 6 ? Conflict::update : Conflict::replace,
                                              .links = true,
                                              .specials = seed / 4 % 2 == 1,
                                              .hardLinks = seed / 2 % 3 != 0,
                                              .trees = true,
                                              .countsAlone = seed % 3 == 0};
        {
            Forecast observer(forecast);
            const engine::PlanOptions plan{.transfer = options};
            engine::Planner(plan, observer).run(source, copy);
        }
        {
            Receipt observer(receipt);
            engine::Transfer(options, observer).run(source, copy);
        }
        {
            Differences observer(comparison);
            engine::compare_trees(reference, copy, {}, observer);
        }
        comparison.without(receipt.failed);
        EXPECT_EQ(receipt.failed, forecast.failed) << where(seed) << "\n" << receipt.details;
        EXPECT_EQ(receipt.text(), forecast.text()) << "receipt and forecast, " << where(seed) << "\n"
                                                   << receipt.details;
        EXPECT_EQ(receipt.text(), comparison.text()) << "receipt and comparison, " << where(seed) << "\n"
                                                     << receipt.details;
        note(reference, copy, receipt);
    }
    static std::string where(uint32_t seed) {
        return kit::repeat(seed) + (seed % 2 == 1 ? ", moved" : ", copied") +
               (seed / 2 % 2 == 1 ? " onto another" : "");
    }

    // For the program that looks at the trees without any of this.
    void note(const std::string &reference, const std::string &copy, const View &receipt) {
        m_notes << reference << '\0' << copy << '\0';
        for (const auto &[path, cls] : receipt.told) {
            m_notes << path << '\0' << cls << '\0';
        }
        for (const std::string &path : receipt.failed) {
            m_notes << path << '\0' << "*" << '\0';
        }
        m_notes << '\0' << '\0';
    }
    void looks_like_that() {
        m_notes.close();
        const std::string program = std::string(AGREEMENT_DIFFERENCES) + " " + m_noted;
        EXPECT_EQ(0, std::system(program.c_str())); // NOLINT(concurrency-mt-unsafe,cert-env33-c)
    }

    const std::string m_noted = scratch / "notes";
    std::ofstream m_notes{m_noted, std::ios::binary};
};

TEST_P(Agreement, ForecastReceiptAndComparisonTellTheSame) {
    const auto &[fromKind, toKind] = GetParam();
    KIT_REQUIRE(from, made(fromKind, scratch / "one"));
    KIT_REQUIRE(to, made(toKind, scratch / "other"));
    for (const uint32_t seed : kit::seeds(9, 200)) {
        check(from.path(), to.path(), seed);
        if (HasFailure()) {
            break;
        }
    }
    looks_like_that();
    processAsNow();
}

const std::string kKinds[] = {"tmpfs", "ramfs", "ext4", "xfs", "btrfs", "overlay"};
INSTANTIATE_TEST_SUITE_P(Pairs, Agreement, ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::ValuesIn(kKinds)),
                         [](const auto &pair) { return std::get<0>(pair.param) + "To" + std::get<1>(pair.param); });

} // namespace
