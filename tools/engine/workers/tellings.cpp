#include "tools/engine/workers/tellings.h"

namespace engine {

void write(RecordWriter &to, const std::optional<Problem> &problem) {
    to.number(problem.has_value());
    if (problem) {
        to.text(problem->reason).number(problem->code).number(problem->withSource).number(problem->needsRecursion);
        to.number(problem->sameFile).number(problem->replaced).number(problem->number);
    }
}

std::optional<Problem> read_problem(RecordReader &from) {
    if (!from.number<bool>()) {
        return std::nullopt;
    }
    Problem problem;
    problem.reason = from.text();
    problem.code = from.number<uint32_t>();
    problem.withSource = from.number<bool>();
    problem.needsRecursion = from.number<bool>();
    problem.sameFile = from.number<bool>();
    problem.replaced = from.number<bool>();
    problem.number = from.number<int>();
    return problem;
}

void write(RecordWriter &to, const Loss &loss) {
    to.number(loss.cls).text(loss.detail).number(loss.number);
}

Loss read_loss(RecordReader &from) {
    const auto cls = from.number<LossClass>();
    std::string detail = from.text();
    return {cls, std::move(detail), from.number<int>()};
}

void write(RecordWriter &to, const Outcome &outcome) {
    to.number(outcome.status).text(outcome.destination).number(outcome.bytes);
    to.number(outcome.cloned).number(outcome.synced).number(outcome.same).number(outcome.linked);
    to.number(outcome.inPlace).number(outcome.old.first).number(outcome.old.second).number(outcome.oldNames);
    to.number(static_cast<uint32_t>(outcome.oldNamesKnown.size()));
    for (const std::string &name : outcome.oldNamesKnown) {
        to.text(name);
    }
    to.text(outcome.backup).number(outcome.sourceStays);
    to.number(static_cast<uint32_t>(outcome.losses.size()));
    for (const Loss &loss : outcome.losses) {
        write(to, loss);
    }
    to.number(outcome.proven.has_value());
    if (outcome.proven) {
        to.number(*outcome.proven).number(outcome.provenStore);
    }
    write(to, outcome.warning);
    write(to, outcome.problem);
}

Outcome read_outcome(RecordReader &from) {
    Outcome outcome;
    outcome.status = from.number<Status>();
    outcome.destination = from.text();
    outcome.bytes = from.number<int64_t>();
    outcome.cloned = from.number<bool>();
    outcome.synced = from.number<bool>();
    outcome.same = from.number<bool>();
    outcome.linked = from.number<bool>();
    outcome.inPlace = from.number<bool>();
    outcome.old.first = from.number<dev_t>();
    outcome.old.second = from.number<ino_t>();
    outcome.oldNames = from.number<int64_t>();
    for (auto names = from.number<uint32_t>(); names > 0; --names) {
        outcome.oldNamesKnown.push_back(from.text());
    }
    outcome.backup = from.text();
    outcome.sourceStays = from.number<bool>();
    for (auto losses = from.number<uint32_t>(); losses > 0; --losses) {
        outcome.losses.push_back(read_loss(from));
    }
    if (from.number<bool>()) {
        outcome.proven = from.number<struct stat>();
        outcome.provenStore = from.number<uint64_t>();
    }
    outcome.warning = read_problem(from);
    outcome.problem = read_problem(from);
    return outcome;
}

} // namespace engine
