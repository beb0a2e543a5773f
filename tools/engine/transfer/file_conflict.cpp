#include "tools/engine/transfer/file_conflict.h"

#include "copy/copy.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/special_file.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/letter_case.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <functional>
#include <initializer_list>
#include <utility>

namespace engine {
namespace {

// Whether the existing destination may be replaced at all. A link is replaced as one, wherever it leads.
std::optional<Problem> check_destination(const FileAttempt &attempt, const TransferOptions &options,
                                         const WrittenEntries &written) {
    const auto there = attempt.to.look(attempt.name);
    if (there && S_ISDIR(there->st_mode)) {
        return problem_of(kIsDirectory);
    }
    if (options.conflict == Conflict::fail) {
        return problem_of(kExists);
    }
    const bool special = options.specials && is_special(attempt.entry->st_mode);
    if (there && !S_ISREG(there->st_mode) && !S_ISLNK(there->st_mode) && !(special && is_special(there->st_mode))) {
        return Problem{fmt::format("the destination is {}; not replaced", kind_of(there->st_mode)), kExists};
    }
    if (there && written.contains(*there, attempt.to, attempt.name)) {
        return Problem{"the destination was just written by this command; not replaced", kExists};
    }
    return std::nullopt;
}

// What the user wants with a destination that exists. Nothing: go on, with attempt.replace as it is now.
std::optional<Outcome> skip_or_replace(FileAttempt &attempt, const TransferOptions &options,
                                       TransferObserver &observer) {
    switch (options.conflict) {
    case Conflict::replace:
    case Conflict::update:
        attempt.replace = true;
        return std::nullopt;
    case Conflict::ask:
        attempt.replace = observer.may_replace(attempt.destination);
        if (attempt.replace) {
            return std::nullopt;
        }
        [[fallthrough]];
    case Conflict::skip: {
        Outcome outcome;
        outcome.status = observer.stopped() ? Status::cancelled : Status::skipped;
        outcome.destination = attempt.destination;
        return outcome;
    }
    default:
        return failure(attempt.destination, problem_of(kExists));
    }
}

constexpr int kHalf = 32; // of a mark, in bits
static_assert(sizeof(size_t) == 2 * sizeof(uint32_t));

uint32_t hash_of_source(const std::string &name) {
    return static_cast<uint32_t>(std::hash<std::string>()(name));
}

// What stands for all entries of a directory: its number, on a volume that there is none of.
struct stat all_in(const HeldDirectory &to) {
    struct stat all {};
    all.st_dev = ~to.device();
    all.st_ino = to.inode();
    all.st_mode = S_IFREG;
    all.st_nlink = 1;
    return all;
}

// Never that of no place.
uint32_t hash_of_place(const HeldDirectory &to, const std::string &name) {
    const auto hash = static_cast<uint32_t>(
        std::hash<std::string>()(fmt::format("{}/{}/{}", uint64_t{to.device()}, uint64_t{to.inode()}, name)));
    return hash == 0 ? 1 : hash;
}

// All of them, exactly so.
bool lists(const HeldDirectory &directory, std::initializer_list<std::string> wanted) {
    const Descriptor opened = open_directory(directory.fd(), ".");
    const auto names = opened.get() < 0 ? std::nullopt : names_in(opened.get());
    return names && std::ranges::all_of(wanted, [&](const std::string &name) {
               return std::ranges::find(*names, name) != names->end();
           });
}

} // namespace

Problem same_file() {
    return {.reason = "source and destination are the same file", .sameFile = true};
}

bool is_one_entry(const FileAttempt &attempt, const struct stat &there, const TransferOptions &options) {
    const auto through = attempt.asItIs ? there : attempt.to.look_through(attempt.name);
    if (!same(attempt.entry, there)) {
        return same(attempt.content, through);
    }
    struct stat one {
    }, other{};
    const bool oneDirectory =
        ::fstat(attempt.from.fd(), &one) == 0 && ::fstat(attempt.to.fd(), &other) == 0 && same(one, other);
    return options.operation == Operation::move || options.conflict != Conflict::update || !S_ISREG(there.st_mode) ||
           (oneDirectory && attempt.sourceName == attempt.name);
}

std::optional<Problem> refusal_of_forced(const TransferOptions &options) {
    const char *const apart = options.verify                   ? "a copy would stand until it is verified"
                              : options.clone == Clone::always ? "a clone would stand until it is one"
                              : options.backup.wanted          ? "its backup would stand"
                                                               : nullptr;
    return apart == nullptr ? std::nullopt
                            : std::optional(Problem{
                                  fmt::format("nothing can be made in its directory, where {}; not replaced", apart)});
}

bool is_to_update(const Loss &difference, LossSet accepted) {
    switch (difference.cls) {
    case LossClass::data:
    case LossClass::modification_time:
    case LossClass::symbolic_link:
    case LossClass::special_file:
    case LossClass::unreadable:
        return true;
    default:
        return fails(difference, accepted);
    }
}

// By which an entry is known where names of two letter cases, or of two forms of a letter, may be one.
static std::string folded_in(const HeldDirectory &to, const std::string &name) {
    return joined(to.path(), folded(name_kept(to.fd(), name).value_or(name)));
}

void WrittenEntries::add(const struct stat &made, const std::string &sourceName, const HeldDirectory &to,
                         const std::string &name) {
    const size_t mark = size_t{hash_of_place(to, name)} << kHalf | hash_of_source(sourceName);
    if (m_ledger != nullptr) {
        m_ledger->made(m_kind, made, mark);
    }
    // A directory is known here, too, so that nobody goes into what he has made.
    if (m_ledger == nullptr || m_kind == Ledger::Kind::directory) {
        add({made.st_dev, made.st_ino}, mark);
    }
    if (!takes_every_name(to.facts().magic)) {
        m_folded.try_emplace(folded_in(to, name), Made{hash_of_source(sourceName), name});
    }
}

void WrittenEntries::add(const FileNumber &made, size_t mark) {
    const auto [known, isNew] = m_names.emplace(made, mark);
    if (isNew || known->second == mark) {
        return;
    }
    if (known->second != kSeveral) {
        m_marks.emplace(made, std::exchange(known->second, kSeveral));
    }
    m_marks.emplace(made, mark);
}

void WrittenEntries::add_all_in(const HeldDirectory &to) {
    const struct stat all = all_in(to);
    constexpr size_t any = 1;
    if (m_ledger != nullptr) {
        m_ledger->made(m_kind, all, any);
    } else {
        add({all.st_dev, all.st_ino}, any);
    }
}

// The one with this place, if it has one.
std::optional<size_t> WrittenEntries::mark_of(const FileNumber &entry, uint32_t place) const {
    const auto found = m_names.find(entry);
    if (found == m_names.end() || found->second != kSeveral) {
        return found == m_names.end() ? std::nullopt : std::optional(found->second);
    }
    const auto mark = m_marks.lower_bound({entry, size_t{place} << kHalf});
    return mark != m_marks.end() && mark->first == entry && mark->second >> kHalf == place ? mark->second : kSeveral;
}

std::optional<size_t> WrittenEntries::mark_of(const struct stat &there, uint32_t place) const {
    const auto known = mark_of(FileNumber(there.st_dev, there.st_ino), place);
    return known || m_ledger == nullptr ? known : m_ledger->mark_of(m_kind, there, place);
}

// Nothing, too, for another name of what was made: where names of two letter cases are one, it is listed as it was
// made.
std::optional<size_t> WrittenEntries::mark_here(const struct stat &there, const HeldDirectory &to,
                                                const std::string &name) const {
    const uint32_t place = hash_of_place(to, name);
    const auto mark = mark_of(there, place);
    const bool other = mark && !S_ISDIR(there.st_mode) && there.st_nlink > 1 && *mark >> kHalf != place &&
                       takes_every_name(to.facts().magic) && lists(to, {name});
    return other ? std::nullopt : mark;
}

// Whether what stands there under the name was made under it, or under one of another letter case that is the same
// entry: it is not where both are listed.
bool WrittenEntries::is_folded(const HeldDirectory &to, const std::string &name) const {
    const auto found = m_folded.find(folded_in(to, name));
    return found != m_folded.end() && (found->second.name == name || !lists(to, {name, found->second.name}));
}

bool WrittenEntries::contains(const struct stat &there, const HeldDirectory &to, const std::string &name) const {
    return mark_here(there, to, name) || mark_of(all_in(to), 0) ||
           (!takes_every_name(to.facts().magic) && is_folded(to, name));
}

bool WrittenEntries::is_clash(const struct stat &there, const std::string &sourceName, const HeldDirectory &to,
                              const std::string &name) const {
    const uint32_t source = hash_of_source(sourceName);
    if (takes_every_name(to.facts().magic)) {
        const auto mark = mark_here(there, to, name);
        return mark && *mark != kSeveral && static_cast<uint32_t>(*mark) != source;
    }
    const auto found = m_folded.find(folded_in(to, name));
    return found != m_folded.end() && found->second.source != source &&
           (is_folded(to, name) || m_names.contains({there.st_dev, there.st_ino}));
}

std::optional<struct stat> WrittenEntries::unseen_taker(const std::string &sourceName, const HeldDirectory &to,
                                                        const std::string &name) const {
    if (takes_every_name(to.facts().magic) || to.look(name)) {
        return std::nullopt;
    }
    const auto found = m_folded.find(folded_in(to, name));
    return found == m_folded.end() || found->second.source == hash_of_source(sourceName) ? std::nullopt
                                                                                         : to.look(found->second.name);
}

Outcome failure(const std::string &destination, Problem problem) {
    Outcome outcome;
    outcome.status = Status::failed;
    outcome.destination = destination;
    outcome.problem = std::move(problem);
    return outcome;
}

Outcome clash(const std::string &destination, mode_t entry, mode_t there) {
    const std::string reason = "another name of the source has become the same one";
    Outcome outcome = failure(destination, {reason + "; not replaced", kExists});
    outcome.losses.push_back({class_of_clash(entry, there), reason});
    return outcome;
}

std::optional<Problem> choose_free_name(FileAttempt &attempt) {
    char path[PATH_MAX] = "";
    // The generator follows links: a name that is a link to nothing is not free either.
    if (Default_GenerateNewName(attempt.to.below(attempt.name).c_str(), path, sizeof path) != 0 ||
        attempt.to.look(base_name(path))) {
        return problem_of(kNoFreeName);
    }
    attempt.name = base_name(path);
    attempt.destination = joined(parent_of(attempt.destination), attempt.name);
    return std::nullopt;
}

std::optional<Outcome> resolve_conflict(FileAttempt &attempt, const TransferOptions &options,
                                        TransferObserver &observer, const WrittenEntries &written) {
    // Two links that lead to one file are two all the same; a link and that file are not to replace one another.
    const auto there = attempt.to.look(attempt.name);
    const bool itself = there && is_one_entry(attempt, *there, options);
    const bool move = options.operation == Operation::move;
    if (options.conflict == Conflict::keep_both) {
        if (itself && move) {
            return failure(attempt.destination, same_file());
        }
        const auto problem = choose_free_name(attempt);
        return problem ? std::optional(failure(attempt.destination, *problem)) : std::nullopt;
    }
    if (itself) {
        return failure(attempt.destination, same_file());
    }
    if (there && written.is_clash(*there, attempt.sourceName, attempt.to, attempt.name)) {
        return clash(attempt.destination, (attempt.asItIs ? attempt.entry : attempt.content)->st_mode, there->st_mode);
    }
    if (options.conflict != Conflict::skip) {
        if (auto problem = check_destination(attempt, options, written)) {
            return failure(attempt.destination, *problem);
        }
    }
    return skip_or_replace(attempt, options, observer);
}

} // namespace engine
