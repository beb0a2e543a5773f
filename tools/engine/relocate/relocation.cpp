#include "tools/engine/relocate/relocation.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/relocate/exchange.h"
#include "tools/engine/relocate/note.h"
#include "tools/engine/relocate/private_place.h"
#include "tools/engine/relocate/proof.h"
#include "tools/engine/relocate/removal.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/transfer/kept_transfer.h"
#include "tools/engine/transfer/transfer.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/mounts.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

void check_source(const RelocationRequest &request, const PrivatePlace &place) {
    const std::string &source = request.source, &destination = request.destination;
    const auto from = look(source);
    if (!from || !S_ISDIR(from->st_mode)) {
        throw InvalidRequest(fmt::format("{}: {}", displayed(source), from ? "not a directory" : std::strerror(errno)));
    }
    if (const std::string name = base_name(source); name.empty() || name == "." || name == "..") {
        throw InvalidRequest(fmt::format("{}: give the directory by its own name", displayed(source)));
    }
    if (lies_in(destination, source)) {
        throw InvalidRequest(fmt::format("{}: lies in the source", displayed(destination)));
    }
    for (const std::string &replaced : {destination, place.path()}) {
        if (exists(replaced) && lies_in(source, replaced)) {
            throw InvalidRequest(
                fmt::format("{}: lies in {}, which a relocation replaces", displayed(source), displayed(replaced)));
        }
    }
}

// A volume that is mounted somewhere in the two trees would be copied as if it was part of the one, or hidden with the
// other.
void check_mounts(const RelocationRequest &request, bool destinationExists) {
    const auto inSource = mount_in(request.source, !request.keepSource);
    const auto inDestination = destinationExists ? mount_in(request.destination, true) : std::nullopt;
    for (const auto &place : {inSource, inDestination}) {
        if (place) {
            throw InvalidRequest(fmt::format("{}: a volume is mounted there; unmount it first, or relocate what is "
                                             "in it",
                                             displayed(*place)));
        }
    }
}

[[noreturn]] void cannot_know(const PrivatePlace &place, const std::string &what) {
    std::string names;
    for (const std::string &name : names_in(place.path()).value_or(std::vector<std::string>())) {
        names += (names.empty() ? "" : ", ") + displayed(name);
    }
    throw InvalidRequest(
        fmt::format("{}; an earlier relocation was stopped and left {} ({}). Nothing is done: see what "
                    "stands there (\"copy\" is the copy of its source, \"old\" what stood at the "
                    "destination), and take that directory away",
                    what, displayed(place.path()), names.empty() ? "empty" : names));
}

// Whether what the note says still is so, as far as that is needed to go on.
void check_note(const RelocationRequest &request, const PrivatePlace &place, const Note &note) {
    const auto source = look(request.source);
    const std::string from = displayed(note.source), to = displayed(note.destination);
    if (base_name(note.destination) != place.base() ||
        (note.source != request.source && (!source || !note.is(note.sourceIs, *source)))) {
        cannot_know(place, fmt::format("a relocation of {} to {} is not finished", from, to));
    }
    if (note.phase == Note::Phase::staging) {
        if (!source) {
            cannot_know(place, fmt::format("{} is gone", from));
        }
        return; // begun anew
    }
    if (source && !note.is(note.sourceIs, *source)) {
        cannot_know(place, fmt::format("{} is not the directory any more that was copied", from));
    }
    if (note.phase == Note::Phase::staged && !is_placed(place, note) && !can_be_placed(place, note) &&
        (!source || !old_name(place, note).empty())) {
        cannot_know(place, fmt::format("{} is not what it was", to));
    }
    if (note.phase > Note::Phase::staged && !is_placed(place, note)) {
        cannot_know(place, fmt::format("the copy of {} does not stand at {} any more", from, to));
    }
    if (note.phase == Note::Phase::removing && request.keepSource && source) {
        cannot_know(place, fmt::format("{} is being removed, and some of it is gone; go on without keeping it", from));
    }
}

std::optional<Note> note_in(const PrivatePlace &place) {
    if (!place.exists()) {
        return std::nullopt;
    }
    try {
        auto note = read_note(place.directory());
        if (!note && (place.look_inside(kCopyName) || place.look_inside(kOldName))) {
            throw Failure("the note is missing");
        }
        return note;
    } catch (const Failure &failure) {
        cannot_know(place, failure.what());
    }
}

// The copying alone. Its first failure ends it; what cannot be copied at all is left for the comparison to tell.
class Staging : public TransferObserver {
  public:
    explicit Staging(RelocationObserver &observer) : m_observer(observer) {}

    bool stopped() const override { return failed || m_observer.stopped(); }
    void tree(const std::string &) override {}
    void arrived(const std::string &, int files, int64_t) override { m_observer.arrived(files); }
    void progress(int64_t bytes, bool) override { m_observer.progress(bytes); }
    bool may_replace(const std::string &) override { return false; }
    void entry(EntryKind kind, const std::string &source, const Outcome &outcome) override {
        m_observer.arrived(kind != EntryKind::directory && outcome.status == Status::done ? 1 : 0);
        if (outcome.status != Status::failed || kind == EntryKind::other || stopped()) {
            return;
        }
        failed = true;
        problem = outcome.problem.value_or(Problem{"was not copied"});
        name_what_is_full(problem, outcome.destination);
        m_observer.failed(source, problem);
    }

    bool failed = false;
    Problem problem = {};

  private:
    RelocationObserver &m_observer;
};

// Content that is not in the copy, or that nobody can tell of: what stands at the destination is not given up for that.
bool is_grave(LossClass cls) {
    constexpr LossClass grave[] = {LossClass::data, LossClass::unreadable, LossClass::name_clash,
                                   LossClass::file_too_large, LossClass::symbolic_link};
    return std::ranges::find(grave, cls) != std::end(grave);
}

class Relocating {
  public:
    Relocating(const RelocationPlan &plan, RelocationObserver &observer)
        : m_request(plan.request), m_observer(observer), m_place(plan.request.destination),
          m_sourceParent(::open(parent_of(plan.request.source).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
          m_tree{m_sourceParent.get(), base_name(plan.request.source),
                 VEXOGetFSType(parent_of(plan.request.source).c_str(), 0), plan.request.source},
          m_proof(observer, [this](const std::string &path, const Loss &loss) { return tell(path, loss); }) {}

    RelocationResult run() {
        try {
            if (!m_place.enter()) {
                m_result.end = RelocationEnd::not_copied;
                m_result.problem = {"another relocation to it is under way"};
                return m_result;
            }
            m_entered = true;
            begin();
        } catch (const Failure &failure) {
            fail({failure.what()});
        }
        return m_result;
    }

  private:
    void begin() {
        auto note = note_in(m_place);
        if (note) {
            check_note(m_request, m_place, *note);
            m_note = *note;
            m_noted = true;
        }
        const bool whole =
            note && note->phase != Note::Phase::staging &&
            (note->phase != Note::Phase::staged || is_placed(m_place, m_note) || can_be_placed(m_place, m_note));
        m_result.resumed = whole;
        if (!whole && !stage()) {
            return;
        }
        if (m_note.phase == Note::Phase::staged) {
            if (!is_placed(m_place, m_note)) {
                put_in_place(m_place, m_note);
            }
            m_result.inPlace = true;
            m_place.sync();
            enter_phase(Note::Phase::placed);
        }
        m_result.inPlace = true;
        finish();
    }

    TreeTop copy_at_destination() const {
        return {m_place.parent(), m_place.base(), destination_type(), m_request.destination};
    }
    int destination_type() const { return VEXOGetFSType(parent_of(m_place.path()).c_str(), 0); }
    std::optional<struct stat> source() const {
        struct stat found {};
        const bool there = m_sourceParent.get() >= 0 &&
                           ::fstatat(m_sourceParent.get(), m_tree.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0;
        return there && m_note.is(m_note.sourceIs, found) ? std::optional(found) : std::nullopt;
    }
    void enter_phase(Note::Phase phase) {
        m_note.phase = phase;
        write_note(m_place.directory(), m_note);
        m_noted = true;
    }

    // The copy, whole and compared, in the private place. False: as it was, and told.
    bool stage();
    bool copy_tree();
    // Everything in the place but its lock. False: something would not go, and the note stays with it.
    bool clear(bool withNote);
    void discard(RelocationEnd end, const Problem &problem = {});
    void finish();
    void carry_top_store(const struct stat &found);
    void compare_top();
    bool remove_old();
    bool remove_source();
    bool remove_top_store();
    void conclude(bool oldGone, bool sourceRemains);
    void fail(const Problem &problem);
    // Whether the source has to stay for it.
    bool tell(const std::string &path, const Loss &loss) {
        if (path == m_tree.path) { // which is compared again in its place
            if (std::ranges::find(m_lostOfTop, loss) != m_lostOfTop.end()) {
                return keeps_source(loss, m_request.accepted);
            }
            m_lostOfTop.push_back(loss);
        }
        const bool stays = keeps_source(loss, m_request.accepted);
        m_result.missing += stays ? 1 : 0;
        m_grave += stays && is_grave(loss.cls) ? 1 : 0;
        m_observer.lost(path, m_request.destination + path.substr(m_request.source.size()), loss);
        return stays;
    }

    const RelocationRequest &m_request;
    RelocationObserver &m_observer;
    PrivatePlace m_place;
    Descriptor m_sourceParent;
    TreeTop m_tree;
    Proof m_proof;
    Note m_note = {};
    std::vector<Loss> m_lostOfTop = {};
    int m_grave = 0;        // losses with which no copy takes anybody's place
    bool m_entered = false; // the lock is held
    bool m_noted = false;   // a note is there
    RelocationResult m_result = {};
};

bool Relocating::clear(bool withNote) {
    bool gone = true;
    // Looked at twice: nobody comes for what stays without a note, and a look that finds nothing may be wrong.
    for (int tries = 0; gone && tries < 2; ++tries) {
        const auto names = names_in(fmt::format("/proc/self/fd/{}/.", m_place.directory()));
        gone = names.has_value();
        for (const std::string &name : names.value_or(std::vector<std::string>())) {
            if (name != "lock" && !is_note_name(name)) {
                gone = remove_private(m_place.directory(), name, joined(m_place.path(), name), nullptr,
                                      [this](const std::string &path, const Problem &problem) {
                                          m_observer.failed(path, problem);
                                      }) &&
                       gone;
            }
        }
    }
    if (gone && withNote) {
        remove_note(m_place.directory());
        m_noted = false;
    }
    return gone;
}

void Relocating::discard(RelocationEnd end, const Problem &problem) {
    m_result.end = end;
    m_result.problem = problem;
    if (m_entered && clear(true) && !m_place.leave()) {
        m_observer.failed(m_place.path(), problem_of_errno(errno));
    }
    m_result.noteStays = m_noted;
}

bool Relocating::copy_tree() {
    Staging staging(m_observer);
    Transfer({.links = true, .specials = m_request.specials, .trees = true, .countsAlone = true, .compared = false},
             staging)
        .run(m_request.source, m_place.inside(kCopyName));
    m_observer.copied();
    if (staging.failed || m_observer.stopped()) {
        discard(staging.failed ? RelocationEnd::not_copied : RelocationEnd::cancelled, staging.problem);
        return false;
    }
    // Whatever a write could not tell, and from here on a reboot loses nothing of it.
    if (::syncfs(m_place.directory()) != 0) {
        throw_errno("the copy cannot be made durable");
    }
    return true;
}

bool Relocating::stage() {
    const auto from = look(m_request.source);
    if (!from || !S_ISDIR(from->st_mode)) {
        throw Failure("the source was changed meanwhile");
    }
    m_note = Note{.source = m_request.source, .destination = m_request.destination, .sourceIs = Identity::of(*from)};
    enter_phase(Note::Phase::staging);
    if (!clear(false)) {
        throw Failure(fmt::format("{} cannot be emptied", displayed(m_place.path())));
    }
    const auto there = m_place.look_at_destination();
    if (there && !S_ISDIR(there->st_mode)) {
        throw Failure("the destination is no directory any more");
    }
    m_note.oldIs = there ? std::optional(Identity::of(*there)) : std::nullopt;
    m_proof.remember(m_tree);
    if (m_observer.stopped()) {
        discard(RelocationEnd::cancelled);
        return false;
    }
    if (!copy_tree()) {
        return false;
    }
    const auto staged = m_place.look_inside(kCopyName);
    if (!staged || !S_ISDIR(staged->st_mode)) {
        throw Failure("the copy is not where it was made");
    }
    (void)m_proof.compare_staged(m_tree,
                                 {m_place.directory(), kCopyName, destination_type(), m_place.inside(kCopyName)});
    if (m_observer.stopped()) {
        discard(RelocationEnd::cancelled);
        return false;
    }
    if (m_grave > 0) {
        discard(RelocationEnd::not_copied, {"not all content is in the copy, so that it was not put in place"});
        return false;
    }
    m_note.copyIs = Identity::of(*staged);
    enter_phase(Note::Phase::staged);
    return true;
}

// What is kept for the directory itself lies beside it, and does not follow a rename.
void Relocating::carry_top_store(const struct stat &found) {
    const std::string from = fmt::format("/proc/self/fd/{}/{}", m_sourceParent.get(), m_tree.name);
    const std::string to = m_place.destination();
    const int type = destination_type();
    if (store_kind(type) == StoreKind::none || !m_note.is(m_note.sourceIs, found)) {
        return;
    }
    const Descriptor top = open_directory(m_place.parent(), m_place.base());
    struct stat before {
    }, now{};
    const bool known = ::fstat(top.get(), &before) == 0;
    if (store_kind(type) != StoreKind::native) {
        (void)remove_beside(to, type);
        (void)carry_beside({m_tree.parent, m_tree.name, volume_facts(m_tree.parent, m_tree.type)},
                           {m_place.parent(), m_place.base(), volume_facts(m_place.parent(), type)}, true);
    }
    // Where stores are "._" files the library lets everybody write to what it carries one for.
    if (known && ::fstat(top.get(), &now) == 0 && (now.st_mode & ~before.st_mode) != 0) {
        (void)::fchmod(top.get(), now.st_mode & before.st_mode & 07777);
    }
    // A stop while it was renamed may have left a read-only one writable.
    const mode_t wanted = mode_for_copy(from, found.st_mode & 07777, fmt::format("/proc/self/fd/{}", top.get()));
    if (::geteuid() != 0 && ::fstat(top.get(), &now) == 0 && (now.st_mode & 07777) == (wanted | S_IWUSR)) {
        (void)::fchmod(top.get(), wanted);
    }
    const VolumeFacts there = volume_facts(m_place.parent(), type);
    give_times({m_tree.parent, m_tree.name, volume_facts(m_tree.parent, m_tree.type)},
               {m_place.parent(), m_place.base(), there});
}

// The rest was compared before it was put in place.
void Relocating::compare_top() {
    const VolumeFacts there = volume_facts(m_place.parent(), destination_type());
    for (const Loss &loss : compare_entries({m_tree.parent, m_tree.name, volume_facts(m_tree.parent, m_tree.type)},
                                            {m_place.parent(), m_place.base(), there}, {.data = true})) {
        tell(m_tree.path, loss);
    }
}

bool Relocating::remove_old() {
    const std::string name = old_name(m_place, m_note);
    if (name.empty()) {
        return true;
    }
    const bool gone =
        remove_private(m_place.directory(), name, joined(m_place.path(), name), &m_observer,
                       [this](const std::string &path, const Problem &problem) { m_observer.failed(path, problem); });
    m_result.aside = gone ? "" : joined(m_place.path(), name);
    return gone;
}

bool Relocating::remove_source() {
    const TreeTop copy = copy_at_destination();
    SourceRemoval removal(m_observer, m_proof, copy, [this](const std::string &path, const Problem &problem) {
        m_observer.failed(path, problem);
    });
    const bool gone = removal.run(m_tree);
    m_result.removed = removal.removed();
    return gone;
}

// Also after a run that was stopped between the directory and what was kept for it. False: told.
bool Relocating::remove_top_store() {
    const std::string path = fmt::format("/proc/self/fd/{}/{}", m_sourceParent.get(), m_tree.name);
    if (m_sourceParent.get() < 0 || exists(path)) {
        return true; // somebody else's by now
    }
    (void)remove_beside(path, m_tree.type);
    if (!store_parts(path, m_tree.type).any()) {
        return true;
    }
    m_observer.failed(m_tree.path, {"removed, but not all of its extended metadata"});
    return false;
}

void Relocating::finish() {
    const auto from = source();
    const bool begun = m_note.phase == Note::Phase::removing;
    if (from && !begun) {
        carry_top_store(*from);
    }
    if (from && m_result.resumed) {
        const int64_t since = m_note.since;
        (void)(begun ? m_proof.compare_rest(m_tree, copy_at_destination(), since)
                     : m_proof.compare(m_tree, copy_at_destination()));
    } else if (from && m_result.missing == 0) {
        compare_top();
    }
    m_observer.removing();
    const bool oldGone = !m_observer.stopped() && remove_old();
    bool sourceRemains = begun && from;
    if (m_result.missing == 0 && !m_request.keepSource && !m_observer.stopped()) {
        if (from && !begun) {
            enter_phase(Note::Phase::removing);
        }
        sourceRemains = from && !remove_source();
        sourceRemains = sourceRemains || (m_note.phase == Note::Phase::removing && !remove_top_store());
    }
    conclude(oldGone, sourceRemains);
}

void Relocating::conclude(bool oldGone, bool sourceRemains) {
    const bool stopped = m_observer.stopped() && (!oldGone || sourceRemains || (source() && !m_request.keepSource));
    m_result.end = sourceRemains || stopped ? RelocationEnd::source_remains
                   : m_result.missing > 0   ? RelocationEnd::incomplete
                   : !oldGone               ? RelocationEnd::old_remains
                                            : RelocationEnd::done;
    if (oldGone && !sourceRemains && !stopped && (!clear(true) || !m_place.leave())) {
        m_result.end = RelocationEnd::unfinished;
        m_result.problem = {fmt::format("in place; {} could not be removed", displayed(m_place.path()))};
    }
    m_result.noteStays = m_noted;
}

// Before the copy is in place everything is as it was, and the copy goes; after that a further run goes on.
void Relocating::fail(const Problem &problem) {
    if (!m_entered) {
        m_result.end = RelocationEnd::not_copied;
        m_result.problem = problem;
        return;
    }
    if (!m_result.inPlace && !m_result.resumed && m_note.phase != Note::Phase::placed) {
        try {
            if (is_placed(m_place, m_note) || !old_name(m_place, m_note).empty()) {
                throw Failure("half of it was done");
            }
            discard(RelocationEnd::not_copied, problem);
            return;
        } catch (const Failure &failure) {
            m_observer.failed(m_place.path(), {failure.what()});
        }
    }
    m_result.end = RelocationEnd::unfinished;
    m_result.problem = problem;
    m_result.noteStays = true;
}

RelocationPlan planned(const RelocationRequest &request) {
    PrivatePlace place(request.destination);
    RelocationPlan plan{.request = request, .staging = place.path()};
    const auto note = note_in(place);
    if (note) {
        check_note(request, place, *note);
        plan.stoppedAt = note->phase == Note::Phase::staging ? "" : phase_text(note->phase);
    }
    if (!plan.stoppedAt.empty()) {
        return plan;
    }
    const auto there = place.look_at_destination();
    if (!note && place.exists() && !exists(request.source) && place.enter()) {
        (void)place.leave(); // a relocation that was done but for this
    }
    check_source(request, place);
    if (there && !S_ISDIR(there->st_mode)) {
        throw InvalidRequest(fmt::format("{}: exists and is not a directory", displayed(request.destination)));
    }
    plan.destinationExists = there.has_value();
    check_mounts(request, plan.destinationExists);
    return plan;
}

} // namespace

RelocationPlan plan_relocation(const RelocationRequest &request) {
    try {
        return planned(request);
    } catch (const Failure &failure) {
        throw InvalidRequest(failure.what());
    }
}

RelocationResult relocate(const RelocationPlan &plan, RelocationObserver &observer) {
    return Relocating(plan, observer).run();
}

} // namespace engine
