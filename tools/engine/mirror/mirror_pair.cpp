#include "tools/engine/mirror/mirror_pair.h"

#include "tools/engine/mirror/kept_surplus.h"
#include "tools/engine/mirror/overlap.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>

namespace engine {
namespace {

// Where a link leads to; a path that leads to nothing as it is.
std::string real_path_of(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? path : real.get();
}

} // namespace

bool lies_below(const std::string &path, const std::string &top) {
    return path == top || path.starts_with(top + "/");
}

MirrorPair::MirrorPair(const std::string &first, const std::string &second, bool oneFileSystem, const char *harm)
    : source(absolute_path(first)), destination(absolute_path(second)) {
    const auto from = look_through(source), to = look_through(destination);
    if (!from) {
        throw InvalidRequest(fmt::format("{}: {}", displayed(source), std::strerror(errno)));
    }
    exists = engine::exists(destination);
    const bool isDirectory = S_ISDIR(from->st_mode);
    if (!isDirectory || (exists && (!to || !S_ISDIR(to->st_mode)))) {
        throw InvalidRequest(fmt::format("{}: is not a directory", displayed(isDirectory ? destination : source)));
    }
    const auto itself = look(source), other = look(destination);
    source = itself && S_ISLNK(itself->st_mode) ? real_path_of(source) : source;
    destination = other && S_ISLNK(other->st_mode) ? real_path_of(destination) : destination;
    if (overlap(source, destination)) {
        throw InvalidRequest(fmt::format("{} and {} are one directory, or one lies in the other", displayed(source),
                                         displayed(destination)));
    }
    const auto shared = overlap_by_mount(source, destination, oneFileSystem);
    if (shared) {
        const bool inSource = lies_below(*shared, source);
        throw InvalidRequest(fmt::format("{}: is mounted there, and shares directories with {}: {}; unmount it first",
                                         displayed(*shared), displayed(inSource ? destination : source), harm));
    }
}

std::string MirrorPair::refusal_of_backups(const BackupOptions &backup) const {
    const std::string directory = directory_of_backups(backup, destination);
    if (directory.empty()) {
        return {};
    }
    // What is kept there goes by its path below the destination, and would take the place of what has it already.
    if (overlap(source, directory)) {
        return fmt::format("{} and the source are one directory, or one lies in the other", displayed(directory));
    }
    if (lies_in(destination, directory)) {
        return fmt::format("the destination is {}, or lies in it", displayed(directory));
    }
    return {};
}

bool is_in_the_way(EntryKind kind, const std::string &destination) {
    const auto there = look(destination);
    if (!there) {
        return false;
    }
    const EntryKind found = entry_kind(there->st_mode);
    return (kind == EntryKind::directory) != (found == EntryKind::directory) ||
           (found == EntryKind::other && kind != EntryKind::other);
}

bool is_kept_back(const Outcome &outcome) {
    return outcome.status == Status::failed || outcome.status == Status::cancelled || outcome.warning ||
           std::ranges::any_of(outcome.losses, [](const Loss &loss) {
               return loss.cls == LossClass::unreadable || loss.cls == LossClass::data;
           });
}

} // namespace engine
