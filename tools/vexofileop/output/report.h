// What a run did, written down for later: as one page that opens without a network, or as JSON.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/stores/conversion.h"
#include "tools/engine/stores/finding.h"
#include "tools/vexofileop/output/receipt.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// What became of an entry, for the picture.
enum class Fate { copied, moved, cloned, same, skipped, different, failed, removed };

class Report {
  public:
    // `command`: "copy", for the heading.
    explicit Report(std::string command, engine::LossSet accepted = {})
        : m_command(std::move(command)), m_receipt(accepted), m_accepted(accepted) {}

    // What is told next is about the way from the one to the other.
    void begin(const std::string &source, const std::string &destination);
    void count(Fate fate, int64_t entries, int64_t bytes);
    // An entry that failed, with its reason.
    void problem(const std::string &source, const std::string &destination, const std::string &reason);
    void loss(const std::string &source, const std::string &destination, const engine::Loss &loss);
    // Of an entry that is done, and took the place of another one: what became of that, where anything is left of it.
    void replaced(const std::string &source, const engine::Outcome &outcome);
    // An entry that was removed, and is kept.
    void kept(const std::string &path, const std::string &backup);

    // What a check of stores has found.
    void finding(const engine::Finding &finding) { m_findings.push_back(finding); }

    // What became of a store, and what that has cost.
    void conversion(const engine::Conversion &conversion);

    // By the suffix of the name, at once: what stands there is the old one or the new one. Throws engine::Failure.
    void write(const std::string &path, int exitStatus) const;

    std::string html(int exitStatus) const;
    std::string json(int exitStatus) const;

  private:
    struct Count {
        int64_t entries = 0, bytes = 0;
    };
    using Counts = std::array<Count, 8>;
    struct Way {
        std::string source, destination;
        Counts counts = {};
    };
    struct Told {
        std::string source, destination, reason;
    };
    struct Replaced {
        std::string source, destination, backup; // without a source it was removed
        bool inPlace = false;
        int64_t oldNames = 0;
        std::vector<std::string> oldNamesKnown = {};
    };
    struct Lost {
        std::string source, destination;
        engine::Loss loss;
    };
    Counts totals() const;
    std::string picture() const;
    std::string totals_table() const;
    std::string losses_lists() const;
    std::string problems_list() const;
    std::string replaced_list() const;
    std::string findings_lists() const;
    std::string conversions_list() const;

    std::string m_command;
    Receipt m_receipt;
    engine::LossSet m_accepted;
    std::vector<Way> m_ways;
    std::vector<Told> m_problems;
    std::vector<Replaced> m_replaced;
    std::vector<Lost> m_losses;
    std::vector<engine::Finding> m_findings;
    std::vector<engine::Conversion> m_conversions;
};

} // namespace tool
