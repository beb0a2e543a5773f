// What was not carried, counted by class: the same words from every command that forecasts, tells or compares it.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/vexofileop/output/json.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// "SOURCE -> DESTINATION: DETAIL (CLASS)", names as people can read them.
std::string loss_text(const std::string &source, const std::string &destination, const engine::Loss &loss);

class Receipt {
  public:
    explicit Receipt(engine::LossSet accepted = {}) : m_accepted(accepted) {}

    // Whether the run has failed by it: it was not accepted, and does not cost room alone. `told`: of the entry
    // something is said already, so that no line repeats it.
    bool add(const std::string &source, const std::string &destination, const engine::Loss &loss, bool told = false);

    bool empty() const;
    bool failed() const { return m_failed; }
    int64_t count(engine::LossClass cls) const { return m_counts[static_cast<size_t>(cls)].number; }

    // A line a class, in the order of the table: "3 access ACLs not kept, for example A -> B: DETAIL (acl-access)". Of
    // one that was accepted, or that takes more room and no more, the line says so. None for a class of which all are
    // told.
    std::vector<std::string> lines() const;
    // The classes of the set for which the run has failed and need not, as --accept takes them: "owner,mode". What lies
    // where it was for nobody, and content that is not there, keep a source whoever accepts what.
    std::string failing(engine::LossSet among) const;
    // Appends {"class":…,"severity":…,"count":…,"accepted":…} for each class to the list `name` of a summary, which is
    // left out where nothing was lost.
    void add_to(Json &summary, const char *name = "losses") const;

  private:
    struct Count {
        int64_t number = 0, told = 0;
        std::string source, destination, detail; // of the first
    };
    engine::LossSet m_accepted;
    std::array<Count, engine::kLossTable.size()> m_counts = {};
    bool m_failed = false;
};

} // namespace tool
