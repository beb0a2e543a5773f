#include "tools/engine/archive/bit_clearing.h"

#include "tools/engine/archive/archive_bit.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/witness.h"
#include "tools/engine/transfer/store_witness.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/units.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <utility>

namespace engine {
namespace {

constexpr char kChanged[] = "was changed since it was copied";
constexpr char kExchanged[] = "was removed or exchanged since it was copied";

// But for the change time, which the clearing of the bit changes itself.
bool is_same_content(const struct stat &before, const struct stat &now) {
    return before.st_dev == now.st_dev && before.st_ino == now.st_ino && before.st_size == now.st_size &&
           same_time(before.st_mtim, now.st_mtim);
}

std::string itself(const Descriptor &pinned) {
    return fmt::format("/proc/self/fd/{}", pinned.get());
}

} // namespace

BitClearing::Way::Way(const std::string &top) : m_above(parent_of(top)), m_top(top), m_topName(base_name(top)) {}

const HeldDirectory *BitClearing::Way::to(const std::string &below, std::string &name) {
    if (below.empty()) {
        name = m_topName;
        return m_above.is_open() && !name.empty() ? &m_above : nullptr;
    }
    const size_t end = below.rfind('/');
    name = below.substr(end == std::string::npos ? 0 : end + 1);
    if (end == std::string::npos) {
        return m_top.is_open() ? &m_top : nullptr;
    }
    const std::string wanted = below.substr(0, end);
    if (!m_current.is_open() || m_below != wanted) {
        HeldDirectory found;
        for (const std::string &part : names_in_path(wanted)) {
            found = HeldDirectory(found.is_open() ? found : m_top, part);
            if (!found.is_open()) {
                return nullptr;
            }
        }
        m_current = std::move(found);
        m_below = wanted;
    }
    return &m_current;
}

BitClearing::BitClearing(const std::string &source, const std::string &destination, LossSet accepted,
                         BitObserver &observer)
    : m_source(source), m_from(source), m_to(destination), m_accepted(accepted), m_observer(observer) {}

void BitClearing::run(const Arrivals &arrivals) {
    arrivals.each([&](const Arrival &arrival) {
        if (arrival.directory || arrival.status.st_nlink < 2) {
            settle({arrival});
            return;
        }
        const FileNumber file(arrival.status.st_dev, arrival.status.st_ino);
        Group &group = m_groups[file];
        group.push_back(arrival);
        if (static_cast<int64_t>(group.size()) == arrivals.names_of(file)) {
            const Group whole = std::move(group);
            m_groups.erase(file);
            settle(whole);
        }
    });
}

// Only of a file or a directory, which others may have exchanged for a pipe or a device.
Descriptor BitClearing::opened(const Arrival &arrival, int flags) {
    std::string name;
    const HeldDirectory *const from = m_from.to(arrival.source, name);
    const Descriptor pinned(from == nullptr ? -1 : ::openat(from->fd(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (pinned.get() < 0 || ::fstat(pinned.get(), &found) != 0 ||
        (arrival.directory ? !S_ISDIR(found.st_mode) : !S_ISREG(found.st_mode))) {
        errno = ENOENT;
        return Descriptor(-1);
    }
    return Descriptor(::open(itself(pinned).c_str(), flags | O_NONBLOCK | O_CLOEXEC));
}

void BitClearing::settle(const Group &group) {
    const Arrival &last = group.back();
    const std::string path = last.source.empty() ? m_source : joined(m_source, last.source);
    const Descriptor file = opened(last, O_RDONLY);
    if (file.get() < 0) {
        if (errno != ENOENT) { // what is there no more has no bit
            m_observer.bit(path, BitFate::failed, fmt::format("cannot be opened: {}", std::strerror(errno)));
        }
        return;
    }
    const auto set = has_archive_bit(file.get());
    if (set && !*set) {
        return;
    }
    bool failed = false;
    const std::string why = clear(group, file.get(), failed);
    m_observer.bit(path, failed ? BitFate::failed : why.empty() ? BitFate::cleared : BitFate::stays, why);
}

std::string BitClearing::clear(const Group &group, int fd, bool &failed) {
    struct stat found {};
    if (::fstat(fd, &found) != 0) {
        return std::strerror(errno);
    }
    if (!group.back().directory && found.st_nlink > group.size()) {
        return "has other names, which are no part of this backup";
    }
    const WriteBarrier barrier(S_ISREG(found.st_mode) ? fd : -1);
    if (barrier.has_writer()) {
        return "is open for writing";
    }
    std::string why = change_of(group, found, false);
    if (!why.empty()) {
        return why;
    }
    if (!clear_archive_bit(fd)) {
        failed = true;
        return fmt::format("the archive bit cannot be cleared: {}", std::strerror(errno));
    }
    why = change_of(group, found, true);
    if (!why.empty() && !set_archive_bit(fd)) {
        failed = true;
        why += fmt::format(", and the archive bit cannot be set again: {}", std::strerror(errno));
    }
    return why;
}

std::string BitClearing::change_of(const Group &group, const struct stat &held, bool cleared) {
    std::string why;
    for (auto each = group.begin(); each != group.end() && why.empty(); ++each) {
        why = change_of(*each, held, cleared);
    }
    return why;
}

// Empty: what stands under the name is what is held, and what has arrived, and that is there.
std::string BitClearing::change_of(const Arrival &arrival, const struct stat &held, bool cleared) {
    std::string name, copy;
    const HeldDirectory *const from = m_from.to(arrival.source, name), *const to = m_to.to(arrival.destination, copy);
    const auto now = from == nullptr ? std::nullopt : from->look(name);
    if (!now || !same(held, now)) {
        return kExchanged;
    }
    if (to == nullptr) {
        return "its copy is there no more";
    }
    const bool fresh = arrival.directory ? S_ISDIR(now->st_mode)
                       : cleared         ? is_same_content(arrival.status, *now)
                                         : Witness(arrival.status).is(*now);
    if (!fresh || (!arrival.directory && StoreWitness(*from, name).mark() != arrival.store)) {
        return kChanged;
    }
    // The content of a file has been compared; what belongs to a directory has no such witness, and is read.
    const CompareOptions options{.data = arrival.directory};
    for (const Loss &loss : compare_entries(from->side_now(name), to->side_now(copy), options)) {
        if (fails(loss, m_accepted)) {
            return fmt::format("is not what its copy is: {}", loss.detail);
        }
    }
    return {};
}

} // namespace engine
