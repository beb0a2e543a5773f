#include "tools/binding/options.h"

#include "tools/binding/guard.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"

#include <csignal>
#include <cstdint>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <string_view>

namespace binding {
namespace {

constexpr int64_t kNanoseconds = 1'000'000'000;

std::optional<int64_t> size_of(int64_t given) {
    return given < 0 ? std::nullopt : std::optional(given);
}

std::optional<timespec> moment_of(int64_t given) {
    if (given == INT64_MIN) {
        return std::nullopt;
    }
    const int64_t rest = (given % kNanoseconds + kNanoseconds) % kNanoseconds;
    return timespec{.tv_sec = (given - rest) / kNanoseconds, .tv_nsec = rest};
}

engine::BackupOptions backup_of(const VexoTransferOptions &given) {
    engine::BackupOptions backup;
    backup.wanted = given.backup_suffix != nullptr || given.backup_directory != nullptr;
    backup.suffix = given.backup_suffix != nullptr ? given.backup_suffix : "";
    if (backup.suffix.find('/') != std::string::npos) {
        throw engine::InvalidRequest("the suffix of a backup's name has no slash");
    }
    if (given.backup_directory != nullptr) {
        const std::string_view directory = given.backup_directory;
        backup.directory = directory.starts_with('/') ? path_of(given.backup_directory) : std::string(directory);
    }
    if (backup.wanted && backup.suffix.empty() && backup.directory.empty()) {
        throw engine::InvalidRequest("a backup has a suffix of its own, or a directory");
    }
    return backup;
}

// A stop is for the process that asked for the work; the whole group of processes hears of Ctrl-C.
void leave_stops_to_the_caller() {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        (void)std::signal(number, SIG_IGN);
    }
}

} // namespace

engine::Selection selection_of(const VexoSelection *given, const VexoCallbacks &callbacks) {
    engine::Selection selection;
    if (callbacks.meant != nullptr) {
        selection.asked = [&callbacks](std::string_view path, bool directory) {
            return callbacks.meant(callbacks.data, std::string(path).c_str(), directory ? 1 : 0) != 0;
        };
    }
    if (given == nullptr) {
        return selection;
    }
    for (int32_t at = 0; at < given->rule_count; ++at) {
        if (const auto wrong = selection.add_rule(given->rules[at])) {
            throw engine::InvalidRequest(fmt::format("a filter: {}", engine::displayed(*wrong)));
        }
    }
    selection.archivedAlone = given->archived_alone != 0;
    selection.oneFileSystem = given->one_file_system != 0;
    selection.leastSize = size_of(given->least_size);
    selection.mostSize = size_of(given->most_size);
    selection.notBefore = moment_of(given->not_before);
    selection.before = moment_of(given->before);
    return selection;
}

engine::Hands hands_of(int32_t jobs, const VexoCallbacks &callbacks) {
    if (jobs > 1 && callbacks.meant != nullptr) {
        throw engine::InvalidRequest("other processes cannot ask the caller which names are meant");
    }
    return {.number = jobs > 1 ? jobs : 1, .begin = leave_stops_to_the_caller};
}

engine::TransferOptions options_of(const VexoTransferOptions &given, const VexoCallbacks &callbacks) {
    using namespace engine;
    constexpr std::array operations{Operation::copy, Operation::move};
    constexpr std::array conflicts{Conflict::fail, Conflict::replace, Conflict::skip, Conflict::keep_both,
                                   Conflict::update};
    constexpr std::array clones{Clone::never, Clone::automatic, Clone::always};
    constexpr std::array syncs{Sync::none, Sync::file, Sync::volume};
    if (given.retries < 0 || given.bytes_per_second < 0) {
        throw InvalidRequest("a number below 0 was given");
    }
    TransferOptions options;
    options.operation = row_of(operations, given.operation);
    options.conflict = row_of(conflicts, given.existing);
    options.clone = row_of(clones, given.clone);
    options.sync = row_of(syncs, given.sync);
    options.trees = given.trees != 0;
    options.links = given.links != 0 || options.trees;
    options.specials = given.specials != 0;
    options.hardLinks = given.hard_links != 0;
    options.checksum = given.checksum != 0;
    options.verify = given.verify != 0;
    options.inPlace = given.in_place != 0;
    options.reversibleNames = given.reversible_names != 0;
    if (options.reversibleNames && options.conflict == Conflict::keep_both) {
        throw InvalidRequest("whoever keeps both gives names of his own, which reversible names could not bring back");
    }
    options.retries = given.retries;
    options.countsAlone = given.every_entry == 0;
    options.bytesPerSecond = given.bytes_per_second;
    options.accepted = losses_of(given.accepted);
    options.backup = backup_of(given);
    options.selection = selection_of(given.selection, callbacks);
    return options;
}

} // namespace binding
