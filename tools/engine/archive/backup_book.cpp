#include "tools/engine/archive/backup_book.h"

#include "tools/engine/archive/archive_bit.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/mounts.h"

#include <ctime>
#include <fmt/format.h>
#include <vector>

namespace engine {
namespace {

// A path of the tree at `top`, from there on; "photos/." is the top itself.
std::string path_below(const std::string &path, const std::string &top) {
    const size_t start = top.size() + (top.ends_with('/') ? 0 : 1);
    const std::string rest = path.size() > start ? path.substr(start) : "";
    return rest == "." ? "" : rest;
}

// Those that the backup goes into.
std::vector<std::string> volumes_of(const BackupTerms &terms) {
    std::vector<std::string> volumes{terms.source};
    if (!terms.oneFileSystem) {
        for (const std::string &mount : mounts_below(terms.source)) {
            volumes.push_back((terms.source == "/" ? "" : terms.source) + mount);
        }
    }
    return volumes;
}

} // namespace

BackupGround ground_of_backup(const BackupTerms &terms) {
    BackupGround ground;
    using Refusal = BackupGround::Refusal;
    for (const std::string &volume : volumes_of(terms)) {
        ground.volume = volume;
        BitKeeping keeping = BitKeeping::none;
        try {
            keeping = keeping_of_bits(volume);
        } catch (const Failure &failure) {
            if (volume == terms.source) {
                ground.refusal = Refusal::unknown;
                ground.reason = failure.what();
                return ground;
            }
            continue; // the copy says so
        }
        if (keeping == BitKeeping::none && !terms.full) {
            ground.refusal = Refusal::no_bits;
            return ground;
        }
        if (keeping == BitKeeping::none) {
            ground.without = volume;
        }
        if (keeping == BitKeeping::read_only && !terms.keepBits) {
            ground.refusal = Refusal::read_only;
            return ground;
        }
    }
    return ground;
}

BackupBook::BackupBook(const BackupTerms &terms)
    : m_terms(terms), m_list(terms.source, terms.destination, std::time(nullptr), terms.full ? "full" : "incremental"),
      m_arrivals(m_list.directory()) {}

bool BackupBook::note(EntryKind kind, const std::string &source, const Outcome &outcome) {
    try {
        add(kind, source, outcome);
    } catch (const Failure &failure) {
        m_unlisted = m_unlisted.empty() ? failure.what() : m_unlisted;
    }
    return m_unlisted.empty();
}

// What did not arrive as it is keeps its bit, and is not in the list.
void BackupBook::add(EntryKind kind, const std::string &source, const Outcome &outcome) {
    const bool directory = kind == EntryKind::directory, file = kind == EntryKind::file;
    const bool failed =
        outcome.status == Status::failed || outcome.warning.has_value() || has_failing_loss(outcome, m_terms.accepted);
    m_failures += failed ? 1 : 0;
    // Whether the names in it are on the disk is not known of a directory that was to be written out by itself.
    m_written = m_written && !(directory && outcome.status == Status::failed && m_terms.sync == Sync::file);
    const bool there = outcome.status == Status::done || (outcome.status == Status::skipped && outcome.same);
    if (!there || failed || !m_unlisted.empty() || (file && !outcome.proven)) {
        return;
    }
    const std::string path = path_below(source, m_terms.source);
    if (!directory && (file || !outcome.same)) {
        const int64_t bytes = outcome.proven ? outcome.proven->st_size : outcome.bytes;
        m_list.add(outcome.same ? "same" : outcome.linked ? "linked" : "copied", bytes, path);
    }
    m_files += file ? 1 : 0;
    if ((directory || file) && !m_terms.keepBits) {
        Arrival arrival{.source = path,
                        .destination = path_below(outcome.destination, m_terms.destination),
                        .directory = directory};
        if (file) {
            arrival.status = *outcome.proven;
            arrival.store = outcome.provenStore;
        }
        m_arrivals.add(arrival);
    }
}

void BackupBook::written_out(const std::optional<Problem> &problem) {
    m_written = m_written && !problem;
}

std::string BackupBook::put_in_place() {
    if (!m_written) {
        return "no list is written and no archive bit cleared, for not everything is on the disk";
    }
    try {
        if (m_unlisted.empty()) {
            m_listed = m_list.put_in_place(m_failures);
            return {};
        }
    } catch (const Failure &failure) {
        m_unlisted = failure.what();
    }
    return fmt::format("the list beside {}: {}; no archive bit is cleared", displayed(m_terms.destination), m_unlisted);
}

void BackupBook::clear_bits(BitObserver &observer) const {
    BitClearing(m_terms.source, m_terms.destination, m_terms.accepted, observer).run(m_arrivals);
}

} // namespace engine
