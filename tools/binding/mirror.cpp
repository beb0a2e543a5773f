#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/binding/options.h"
#include "tools/binding/run_observer.h"
#include "tools/engine/mirror/mirror_pair.h"
#include "tools/engine/mirror/surplus.h"
#include "tools/engine/mirror/two_passes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/transfer/transfer.h"
#include "tools/engine/transfer/write_out.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

namespace binding {
namespace {

// Removes, or in a rehearsal counts, what the first has not.
class MirrorSurplus : public engine::SurplusObserver {
  public:
    MirrorSurplus(const VexoCallbacks &callbacks, const engine::Observer &run, bool silent, int64_t most)
        : m_callbacks(callbacks), m_run(run), m_silent(silent), m_most(most) {}

    const VexoMirrored &came() const { return m_came; }
    bool was_limited() const { return m_limited; }

  private:
    bool stopped() const override { return m_run.stopped(); }
    void entry(const std::string &path, mode_t, engine::Status status, const engine::Problem *problem) override {
        m_came.removed += status == engine::Status::done ? 1 : 0;
        m_came.backups += std::exchange(m_keptNext, false) && status == engine::Status::done ? 1 : 0;
        m_came.failed += status == engine::Status::failed ? 1 : 0;
        m_came.stayed += status == engine::Status::skipped && problem != nullptr ? 1 : 0;
        if (!m_silent && m_callbacks.removed != nullptr) {
            const VexoProblem told = problem != nullptr ? problem_of(*problem) : VexoProblem{};
            m_callbacks.removed(m_callbacks.data, path.c_str(), status_of(status),
                                problem != nullptr ? &told : nullptr);
        }
    }
    void kept(const std::string &) override { m_keptNext = true; }
    bool may_remove(const std::string &, engine::RemovalQuestion question, std::optional<int64_t> ahead) override {
        const bool asks = question != engine::RemovalQuestion::into_directory;
        const bool limited = asks && m_most >= 0 && m_came.removed + ahead.value_or(0) >= m_most;
        m_limited = m_limited || limited;
        return !limited;
    }
    void unreadable(const std::string &path, const engine::Problem &problem) override {
        entry(path, S_IFDIR, engine::Status::failed, &problem);
    }

    const VexoCallbacks &m_callbacks;
    const engine::Observer &m_run;
    bool m_silent;
    int64_t m_most;
    VexoMirrored m_came{};
    bool m_keptNext = false, m_limited = false;
};

// A copy that updates; what is in the way is cleared, and then what the source has not goes.
class Mirrored : public RunObserver {
  public:
    Mirrored(const engine::MirrorPair &pair, const engine::TransferOptions &transfer, const VexoCallbacks &callbacks)
        : RunObserver(callbacks, transfer.accepted), m_pair(pair), m_transfer(transfer), m_callbacks(callbacks) {}

    VexoMirrored run(const engine::SurplusOptions &surplus, bool allowEmpty, int64_t most, const engine::Hands &hands) {
        const int64_t before = counted(surplus, allowEmpty, most);
        copy(hands);
        VexoMirrored came{};
        if (stopped() || m_passes.incomplete()) {
            came.nothing_removed = before != 0 ? 1 : 0;
            return came;
        }
        engine::VolumesToWriteOut volumes;
        if (m_transfer.sync != engine::Sync::none) {
            volumes.begin(engine::HeldDirectory(m_pair.destination));
        }
        MirrorSurplus removal(m_callbacks, *this, false, most);
        const bool clear = !m_passes.has_late() || clear_the_way(surplus, removal);
        if (clear && !stopped()) {
            remove_surplus(m_pair.source, m_pair.destination, engine::Surplus::extra, surplus, removal);
        }
        came = removal.came();
        came.nothing_removed = clear || before == 0 ? 0 : 1;
        came.left = removal.was_limited() ? std::max<int64_t>(before - came.removed, 1) : 0;
        if (came.removed > 0) {
            volumes.write_out(*this);
        }
        return came;
    }

  private:
    // How much is to go; below 0: nobody had to know.
    int64_t counted(const engine::SurplusOptions &surplus, bool allowEmpty, int64_t most) {
        const auto holds = engine::holds_anything(m_pair.source, m_transfer.selection);
        if (!holds) {
            engine::throw_errno();
        }
        if (!m_pair.exists || ((*holds || allowEmpty) && most < 0)) {
            return m_pair.exists ? -1 : 0;
        }
        engine::SurplusOptions rehearsal = surplus;
        rehearsal.rehearsal = true;
        MirrorSurplus count(m_callbacks, *this, true, -1);
        remove_surplus(m_pair.source, m_pair.destination, engine::Surplus::obstacle, rehearsal, count);
        remove_surplus(m_pair.source, m_pair.destination, engine::Surplus::extra, rehearsal, count);
        if (count.came().removed > 0 && !*holds && !allowEmpty) {
            throw engine::InvalidRequest("the source is empty, and everything would be removed that it has not");
        }
        return count.came().removed;
    }

    void copy(const engine::Hands &hands) {
        engine::Transfer run(m_transfer, *this);
        run.share(hands);
        run.run(m_pair.source + "/.", m_pair.destination);
        run.leave();
    }

    // What was cleared is filled in any case.
    bool clear_the_way(const engine::SurplusOptions &surplus, MirrorSurplus &removal) {
        remove_surplus(m_pair.source, m_pair.destination, engine::Surplus::obstacle, surplus, removal);
        if (stopped()) {
            return false;
        }
        m_passes.copy_late(m_pair, m_transfer, *this);
        return !m_passes.incomplete() && removal.came().failed == 0;
    }

    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override {
        if (m_passes.tells(kind, source, outcome)) {
            RunObserver::entry(kind, source, outcome);
        }
    }
    void arrived(const std::string &directory, int files, int64_t bytes) override {
        if (m_passes.tells_arrivals()) {
            RunObserver::arrived(directory, files, bytes);
        }
    }

    const engine::MirrorPair &m_pair;
    engine::TransferOptions m_transfer;
    const VexoCallbacks &m_callbacks;
    engine::TwoPasses m_passes;
};

} // namespace

engine::TransferOptions pair_options(const VexoTransferOptions &options, const VexoCallbacks &callbacks) {
    engine::TransferOptions transfer = options_of(options, callbacks);
    transfer.operation = engine::Operation::copy;
    transfer.conflict = engine::Conflict::update;
    transfer.links = transfer.trees = transfer.exact = true;
    transfer.inPlace = false;
    return transfer;
}

engine::MirrorPair pair_of(const char *source, const char *destination, const engine::TransferOptions &transfer) {
    engine::MirrorPair pair(path_of(source), path_of(destination), transfer.selection.oneFileSystem);
    const std::string refusal = pair.refusal_of_backups(transfer.backup);
    if (!refusal.empty()) {
        throw engine::InvalidRequest("the directory of backups: " + refusal);
    }
    return pair;
}

} // namespace binding

extern "C" {

int vexo_mirror(const char *source, const char *destination, const VexoTransferOptions *options, uint32_t flags,
                int64_t most, const VexoCallbacks *callbacks, VexoMirrored *result, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const engine::TransferOptions transfer = binding::pair_options(*options, *callbacks);
        const engine::MirrorPair pair = binding::pair_of(source, destination, transfer);
        const engine::SurplusOptions surplus{.selection = transfer.selection,
                                             .leftOutToo = (flags & VEXO_MIRROR_LEFT_OUT_TOO) != 0,
                                             .specials = transfer.specials,
                                             .reversibleNames = transfer.reversibleNames,
                                             .backup = transfer.backup};
        *result = binding::Mirrored(pair, transfer, *callbacks)
                      .run(surplus, (flags & VEXO_MIRROR_ALLOW_EMPTY) != 0, most,
                           binding::hands_of(options->jobs, *callbacks));
    });
}

} // extern "C"
