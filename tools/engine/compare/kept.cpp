#include "tools/engine/compare/kept.h"

#include "tools/engine/compare/findings.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace engine {
namespace {

std::optional<struct stat> look_at(int directory, const std::string &name) {
    struct stat found {};
    return ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ? std::optional(found) : std::nullopt;
}

std::vector<std::string> sorted_names(int directory) {
    auto names = directory < 0 ? std::nullopt : names_in(directory);
    if (!names) {
        throw_errno("cannot be read");
    }
    std::ranges::sort(*names);
    return *names;
}

// One tree of plain entries held against another.
class KeptComparison {
  public:
    KeptComparison(const VolumeFacts &one, const VolumeFacts &other, Findings &findings)
        : m_one(plain_facts(one)), m_other(plain_facts(other)), m_findings(findings) {}

    // With everything in it. The second may be missing: a directory below 0.
    void tree(int one, const std::string &name, int other, const std::string &otherName, const std::string &path,
              int depth = 0) {
        const auto first = look_at(one, name);
        if (!first || m_findings.stopped()) {
            return; // gone again
        }
        if (depth > kDeepestKept) {
            throw Failure("too deep");
        }
        const auto second = other < 0 ? std::nullopt : look_at(other, otherName);
        if (!S_ISDIR(first->st_mode)) {
            entry(*first, {one, name, m_one}, second, {other, otherName, m_other}, path);
            return;
        }
        if (second && second->st_dev == first->st_dev && second->st_ino == first->st_ino) {
            return; // one directory under two names
        }
        const Descriptor inner = open_directory(one, name);
        const std::vector<std::string> names = sorted_names(inner.get());
        // Of the first one only what is in it is told, if it is not there.
        if (second || depth > 0 || names.empty()) {
            entry(*first, {one, name, m_one}, second, {other, otherName, m_other}, path);
        }
        const bool both = second && S_ISDIR(second->st_mode);
        const Descriptor there = both ? open_directory(other, otherName) : Descriptor(-1);
        for (const std::string &inside : names) {
            if (!is_left_over(inside)) { // of a command that was stopped
                tree(inner.get(), inside, there.get(), inside, path.empty() ? inside : joined(path, inside), depth + 1);
            }
        }
    }

    void entry(const struct stat &first, const Side &one, const std::optional<struct stat> &second, const Side &other,
               const std::string &path) {
        if (!second) {
            m_findings.losses.push_back(kept_loss(first, path));
            return;
        }
        const CompareOptions &given = m_findings.options;
        const CompareOptions options{.data = given.data,
                                     .times = given.times && !(S_ISDIR(first.st_mode) && given.begun),
                                     .stopped = given.stopped};
        for (const Loss &loss : compare_entries(one, other, options)) {
            m_findings.losses.push_back(kept_loss(loss, path));
        }
    }
    Side first(int directory, const std::string &name) const { return {directory, name, m_one}; }
    Side second(int directory, const std::string &name) const { return {directory, name, m_other}; }

  private:
    VolumeFacts m_one, m_other;
    Findings &m_findings;
};

} // namespace

KeptPlace kept_place(const Side &entry, Kept what) {
    const bool own = what == Kept::own;
    constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    KeptPlace place{.parent = Descriptor(::openat(entry.directory, own ? kStoreName : entry.name.c_str(), flags)),
                    .name = own ? entry.name : kStoreName};
    if (place.parent.get() < 0) {
        if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
            throw_errno("cannot be read");
        }
        return place;
    }
    const auto found = look_at(place.parent.get(), place.name);
    place.there = found && S_ISDIR(found->st_mode);
    if (place.there && !own) {
        const Descriptor store = open_directory(place.parent.get(), kStoreName);
        place.there =
            std::ranges::all_of(sorted_names(store.get()), [](const std::string &name) { return name == ".cover"; });
    }
    return place;
}

VolumeFacts plain_facts(const VolumeFacts &facts) {
    VolumeFacts plain = facts;
    plain.store = StoreKind::none;
    plain.noDirectory = true;
    return plain;
}

Loss kept_loss(const Loss &loss, const std::string &path) {
    const bool content =
        loss.cls == LossClass::data || loss.cls == LossClass::symbolic_link || loss.cls == LossClass::special_file;
    return {content ? LossClass::not_carried : loss.cls,
            fmt::format("kept in \"@eaDir\"{}{}: {}", path.empty() ? "" : ", ", displayed(path), loss.detail),
            loss.number};
}

Loss kept_loss(const struct stat &found, const std::string &path) {
    return {LossClass::not_carried, fmt::format("kept in \"@eaDir\", only at the first: {} ({})",
                                                path.empty() ? "its directory" : displayed(path),
                                                S_ISREG(found.st_mode)   ? fmt::format("{} bytes", found.st_size)
                                                : S_ISDIR(found.st_mode) ? "a directory"
                                                                         : "no regular file")};
}

void compare_own_directories(const EntryView &one, const EntryView &other, Findings &findings) {
    findings.attempt("what is kept in \"@eaDir\"", [&] {
        if (one.volume().noDirectory || !findings.options.kept) {
            return;
        }
        const KeptPlace mine = kept_place(one.side(), Kept::own);
        if (mine.there) {
            const KeptPlace theirs = kept_place(other.side(), Kept::own);
            KeptComparison(one.volume(), other.volume(), findings)
                .tree(mine.parent.get(), mine.name, theirs.parent.get(), theirs.name, "");
        }
    });
}

// One that holds something is the store of what lies beside it, and has what it is made with.
void compare_empty_stores(const EntryView &one, const EntryView &other, Findings &findings) {
    if (!findings.options.kept) {
        return;
    }
    findings.attempt("\"@eaDir\"", [&] {
        const KeptPlace mine = kept_place(one.side(), Kept::empty_store);
        if (!mine.there || findings.options.begun) {
            return;
        }
        const KeptPlace theirs = kept_place(other.side(), Kept::empty_store);
        const auto first = look_at(mine.parent.get(), mine.name);
        const auto second = theirs.parent.get() < 0 ? std::nullopt : look_at(theirs.parent.get(), theirs.name);
        if (first && (theirs.there || !second || !S_ISDIR(second->st_mode))) {
            KeptComparison comparison(one.volume(), other.volume(), findings);
            comparison.entry(*first, comparison.first(mine.parent.get(), mine.name), second,
                             comparison.second(theirs.parent.get(), theirs.name), kStoreName);
        }
    });
}

} // namespace engine
