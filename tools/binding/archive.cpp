#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/binding/options.h"
#include "tools/binding/run_observer.h"
#include "tools/engine/archive/backup_book.h"
#include "tools/engine/mirror/mirror_pair.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/transfer.h"

#include <cstdio>
#include <fmt/format.h>
#include <string>

namespace binding {
namespace {

template <size_t N>
void put(char (&room)[N], const std::string &text) {
    (void)std::snprintf(room, N, "%s", text.c_str());
}

void refuse_without_ground(const engine::BackupTerms &terms) {
    const engine::BackupGround ground = engine::ground_of_backup(terms);
    using Refusal = engine::BackupGround::Refusal;
    const std::string volume = engine::displayed(ground.volume);
    switch (ground.refusal) {
    case Refusal::none:
        return;
    case Refusal::unknown:
        throw engine::InvalidRequest(fmt::format("{}: {}", volume, ground.reason));
    case Refusal::no_bits:
        throw engine::InvalidRequest(
            fmt::format("{}: its volume keeps no archive bits, so that nothing tells what was changed there", volume));
    case Refusal::read_only:
        throw engine::InvalidRequest(
            fmt::format("{}: is mounted read-only, so that no archive bit can be cleared", volume));
    }
}

class BackedUp : public RunObserver, private engine::BitObserver {
  public:
    BackedUp(const engine::BackupTerms &terms, const VexoCallbacks &callbacks, VexoBackedUp &came)
        : RunObserver(callbacks, terms.accepted), m_callbacks(callbacks), m_book(terms), m_came(came) {}

    void run(const engine::TransferOptions &transfer, const engine::BackupTerms &terms, const engine::Hands &hands) {
        engine::Transfer copy(transfer, *this);
        copy.share(hands);
        copy.run(terms.source + "/.", terms.destination);
        copy.leave();
        const std::string refusal = m_book.put_in_place();
        put(m_came.refusal, refusal);
        put(m_came.list, m_book.listed());
        if (refusal.empty()) {
            m_book.clear_bits(*this);
        }
    }

  private:
    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override {
        RunObserver::entry(kind, source, outcome);
        (void)m_book.note(kind, source, outcome); // what it says of the list is told with that
    }
    void written_out(const std::string &directory, const std::optional<engine::Problem> &problem) override {
        RunObserver::written_out(directory, problem);
        m_book.written_out(problem);
    }
    void bit(const std::string &source, engine::BitFate fate, const std::string &why) override {
        const bool failed = fate == engine::BitFate::failed;
        (fate == engine::BitFate::cleared ? m_came.cleared : failed ? m_came.failed : m_came.kept) += 1;
        if (failed && m_callbacks.failed != nullptr) {
            const engine::Problem problem{.reason = why};
            const VexoProblem told = problem_of(problem);
            m_callbacks.failed(m_callbacks.data, source.c_str(), &told);
        }
    }

    const VexoCallbacks &m_callbacks;
    engine::BackupBook m_book;
    VexoBackedUp &m_came;
};

} // namespace
} // namespace binding

extern "C" {

int vexo_backup(const char *source, const char *destination, const VexoTransferOptions *options, uint32_t flags,
                const VexoCallbacks *callbacks, VexoBackedUp *result, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        *result = {};
        engine::TransferOptions transfer = binding::pair_options(*options, *callbacks);
        const bool full = (flags & VEXO_BACKUP_FULL) != 0;
        if (full && transfer.selection.archivedAlone) {
            throw engine::InvalidRequest("a full backup takes what has no archive bit, too, and the filters do not");
        }
        transfer.selection.archivedAlone = !full;
        transfer.checksum = transfer.verify = transfer.proofs = true;
        transfer.countsAlone = false;
        // A bit that is cleared stays cleared after a power failure: what it stands for has to be there, too.
        transfer.sync = transfer.sync == engine::Sync::none ? engine::Sync::volume : transfer.sync;
        const engine::MirrorPair pair = binding::pair_of(source, destination, transfer);
        const engine::BackupTerms terms{.source = pair.source,
                                        .destination = pair.destination,
                                        .oneFileSystem = transfer.selection.oneFileSystem,
                                        .full = full,
                                        .keepBits = (flags & VEXO_BACKUP_KEEP_BITS) != 0,
                                        .accepted = transfer.accepted,
                                        .sync = transfer.sync};
        binding::refuse_without_ground(terms);
        binding::BackedUp(terms, *callbacks, *result)
            .run(transfer, terms, binding::hands_of(options->jobs, *callbacks));
    });
}

} // extern "C"
