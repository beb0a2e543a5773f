// The entries of a directory, by one process or by several. See tree_transfer.h.
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/mounts.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace engine {
namespace {

// From here on a worker that waits takes nothing but what it has given away, since much is on its stack already.
constexpr int kMostDepth = 8;

bool has_mounts_below(const std::string &directory) {
    try {
        return !mounts_below(directory).empty();
    } catch (const Failure &) {
        return true; // who knows
    }
}

} // namespace

// Of two trees apart, on volumes of this machine that take every name and keep what belongs to a file in one way: then
// what becomes of an entry does not depend on what becomes of another one, but for the names of one file.
bool TreeTransfer::may_share(const Level &level) const {
    const HeldDirectory &from = level.from, &to = level.to;
    const auto ordinary = [](const HeldDirectory &one, const VolumeTraits &traits) {
        return traits.wholeTrees && takes_every_name(one.facts().magic);
    };
    return from.type() == m_sourceType && to.type() == m_destinationType && ordinary(from, m_sourceTraits) &&
           ordinary(to, m_destinationTraits) &&
           (m_sourceTraits.store == m_destinationTraits.store || m_destinationTraits.store == StoreKind::file_ea) &&
           !has_mounts_below(from.itself()) && !has_mounts_below(to.itself()) && !lies_in(to.itself(), from.itself()) &&
           !lies_in(from.itself(), to.itself());
}

// Not where there is an "@eaDir", which goes when it is empty, and is made for whoever needs it.
bool TreeTransfer::may_split(const Level &level) {
    return !level.hasStore && (level.made || (!level.to.look("@eaDir") && errno == ENOENT)) &&
           keeps_names_apart(level.to.itself().c_str());
}

TreePart TreeTransfer::part_of(const Level &level) const {
    TreePart part;
    part.request = m_request;
    part.source = level.source;
    part.destination = level.destination;
    part.made = level.made;
    part.hasStore = level.hasStore;
    part.oneByOne = m_checking;
    return part;
}

bool TreeTransfer::entries(const Level &level, const NameBlock &names) {
    if (m_sharer != nullptr && m_depth == 1 && std::exchange(m_shares, false) && may_share(level)) {
        return share_entries(level, names);
    }
    Walk walk{level, names, names.size()};
    m_walks.push_back(&walk);
    bool complete = true;
    while (walk.next < walk.end) {
        if (m_observer.stopped()) {
            complete = false;
            break;
        }
        if (m_telling != nullptr && m_telling->is_work_wanted()) {
            give_away();
        }
        const std::string name = names[walk.next++];
        if (m_telling != nullptr && m_walks.size() == 1) {
            m_telling->reaches(walk.next);
        }
        complete = is_selected(level, name) && entry(level, name) && complete;
    }
    m_walks.pop_back();
    if (walk.given != 0) {
        const Yield yield = m_telling->collect(walk.given, m_depth < kMostDepth);
        m_selection.leave_out(yield.count);
        complete = complete && yield.whole;
    }
    return complete;
}

// Of a part of this process: half of what is left of the highest directory that has something left, where most may be
// below it. The last ones, since they are the next to last to be carried.
void TreeTransfer::give_away() {
    for (Walk *walk : m_walks) {
        const size_t left = walk->end - walk->next;
        const size_t most = walk == m_walks.back() ? left / 2 : (left + 1) / 2;
        if (most == 0 || !walk->level.from.is_open() || !walk->level.to.is_open()) {
            continue;
        }
        walk->mayGive = walk->mayGive.value_or(may_split(walk->level));
        if (!*walk->mayGive) {
            continue;
        }
        TreePart part = part_of(walk->level);
        size_t bytes = 0, first = walk->end;
        while (walk->end - first < most && bytes < kMostOfPart) {
            part.names.emplace_back(walk->names[--first]);
            bytes += part.names.back().size() + sizeof(uint32_t);
        }
        std::ranges::reverse(part.names);
        if (!m_telling->give(walk->given, std::move(part), walk->level.from.fd(), walk->level.to.fd())) {
            walk->mayGive = false;
            continue;
        }
        walk->end = first;
        if (walk == m_walks.front()) {
            m_telling->keeps(first);
        }
        return;
    }
}

// What cannot be split goes to one worker after the other.
bool TreeTransfer::share_entries(const Level &level, const NameBlock &names) {
    constexpr size_t mostNames = 512;
    const bool split = may_split(level);
    bool given = false;
    size_t next = 0;
    const auto give = [&]() -> std::optional<Job> {
        if (next == names.size() || (given && !split)) {
            return std::nullopt;
        }
        given = true;
        TreePart part = part_of(level);
        part.number = ++m_parts;
        for (size_t bytes = 0; next < names.size() && part.names.size() < mostNames && bytes < kMostOfPart; ++next) {
            part.names.emplace_back(names[next]);
            bytes += part.names.back().size() + sizeof(uint32_t);
        }
        Job job{part.text()};
        for (const int fd : {level.from.fd(), level.to.fd()}) {
            job.files.emplace_back(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
        }
        return job;
    };
    Yield all;
    do {
        given = false;
        all += m_sharer->run(give);
    } while (next < names.size() && !m_observer.stopped());
    m_selection.leave_out(all.count);
    return all.whole && next == names.size() && !m_observer.stopped();
}

// A tree that another process has begun, or another part of one. What was made of an earlier one the ledger knows.
void TreeTransfer::begin(const TreeRequest &request) {
    if (std::exchange(m_request, request).number == request.number) {
        return;
    }
    m_made.clear();
    m_selection.begin(request.top, !request.contents);
    m_sourceDevice = request.device;
    m_sourceType = request.sourceType;
    m_destinationType = request.destinationType;
    m_sourceTraits = volume_traits(m_sourceType);
    m_destinationTraits = volume_traits(m_destinationType);
    m_sourceKeepsMac = request.keepsMac;
}

// Where this process was when it was given a part, for as long as that takes.
class TreeTransfer::Aside {
  public:
    explicit Aside(TreeTransfer &of)
        : m_of(of), m_walks(std::exchange(of.m_walks, {})), m_depth(std::exchange(of.m_depth, 1)),
          m_checking(of.m_checking), m_leftOut(of.m_selection.left_out()) {}
    Aside(const Aside &) = delete;
    Aside &operator=(const Aside &) = delete;
    ~Aside() {
        m_of.m_walks = std::move(m_walks);
        m_of.m_depth = m_depth;
        m_of.m_checking = m_checking;
        m_of.m_selection.leave_out(m_leftOut - m_of.m_selection.left_out()); // those are of the one that gave it away
    }
    size_t left_out() const { return m_of.m_selection.left_out() - m_leftOut; }

  private:
    TreeTransfer &m_of;
    std::vector<Walk *> m_walks;
    int m_depth;
    bool m_checking;
    size_t m_leftOut;
};

Yield TreeTransfer::carry(const TreePart &part, std::vector<Descriptor> files) {
    constexpr size_t directories = 2;
    Level level{part.source, part.destination};
    if (files.size() == directories) {
        level.from = HeldDirectory(part.source, std::move(files[0]));
        level.to = HeldDirectory(part.destination, std::move(files[1]));
    }
    if (!level.from.is_open() || !level.to.is_open() || ::fstat(level.from.fd(), &level.status.st) != 0 ||
        ::fstat(level.to.fd(), &level.there) != 0) {
        throw Failure("its directory could not be handed over");
    }
    level.made = part.made;
    level.hasStore = part.hasStore;
    begin(part.request);
    m_made.add({level.there.st_dev, level.there.st_ino}, 0);
    m_files.was_tidied(level.there);
    m_files.begins_in(level.to);
    // It may come while another one waits for what it has given away.
    const Aside aside(*this);
    m_checking = part.oneByOne;
    m_telling->begins(part);
    const bool whole = entries(level, NameBlock(part.names));
    m_telling->ends();
    return {whole, aside.left_out()};
}

bool TreeTransfer::carries(const TreePart &part, const std::string &name) {
    const Level level{.source = part.source, .destination = part.destination, .from = HeldDirectory(part.source)};
    const NameKind kind = name_kind(level.from.itself(), name, m_sourceType);
    return kind != NameKind::store && kind != NameKind::companion && is_selected(level, name);
}

} // namespace engine
