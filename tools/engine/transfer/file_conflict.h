// A file whose destination exists: what becomes of the two.
#pragma once

#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/ledger.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/transfer_options.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace engine {

// One file on its way.
struct FileAttempt {
    std::string source, destination;         // as people know them
    const HeldDirectory &from, &to;          // where they lie
    std::string sourceName, name;            // in there
    std::optional<struct stat> entry = {};   // the source's own entry: a symbolic link is a link
    std::optional<struct stat> content = {}; // what it leads to
    bool asItIs = false;                     // the entry itself is moved or made anew; no file is opened
    bool replace = false;                    // what stands at the destination goes
};

// What a run has made, each with the name that it has at the source.
class WrittenEntries {
  public:
    // Other processes make entries too: theirs are known to the ledger, which hears of each. It outlives this, and
    // every directory takes every name.
    void share(Ledger &ledger, Ledger::Kind kind) {
        m_ledger = &ledger;
        m_kind = kind;
    }
    // What another process has made, and what that is to know.
    void add(const FileNumber &made, size_t mark);
    std::optional<size_t> mark_of(const FileNumber &entry, uint32_t place) const;
    bool empty() const { return m_names.empty(); }
    void clear() {
        m_names.clear();
        m_marks.clear();
        m_folded.clear();
    }

    // Under this name in the directory.
    void add(const struct stat &made, const std::string &sourceName, const HeldDirectory &to, const std::string &name);
    // Everything in a directory that was made for this run, and got no entry of it before: one note for all of them.
    // Only where it takes every name, and another one is another entry.
    void add_all_in(const HeldDirectory &to);
    // What stands there under the name. Of a file with other names one of those may be what was made: this one is not,
    // and replacing it takes nothing from that.
    bool contains(const struct stat &there, const HeldDirectory &to, const std::string &name) const;
    // Whatever its name: the entry of this volume and inode.
    bool contains(const struct stat &entry) const { return m_names.contains({entry.st_dev, entry.st_ino}); }
    // The same, by whichever process: what is written into it changes what was made.
    bool holds(const struct stat &there) const { return mark_of(there, 0).has_value(); }
    // Under another name than this: two of the source that become one here.
    bool is_clash(const struct stat &there, const std::string &sourceName, const HeldDirectory &to,
                  const std::string &name) const;

    // What keeps an entry of another name of the source from being made under this one, where the volume does not find
    // it by that.
    std::optional<struct stat> unseen_taker(const std::string &sourceName, const HeldDirectory &to,
                                            const std::string &name) const;
    void merge(WrittenEntries &other) {
        m_names.merge(other.m_names);
        m_marks.merge(other.m_marks);
        m_folded.merge(other.m_folded);
    }

  private:
    std::optional<size_t> mark_of(const struct stat &there, uint32_t place) const;
    std::optional<size_t> mark_here(const struct stat &there, const HeldDirectory &to, const std::string &name) const;
    bool is_folded(const HeldDirectory &to, const std::string &name) const;

    // A mark: the hash of the place above that of the name at the source.
    static constexpr size_t kSeveral = 0; // hard links, each by its mark
    Ledger *m_ledger = nullptr;
    Ledger::Kind m_kind = Ledger::Kind::entry;
    std::map<FileNumber, size_t> m_names;
    std::set<std::pair<FileNumber, size_t>> m_marks; // of those that have several
    // Where an inode may have another number the next time, and names of several letter cases may be one: by path, in
    // one case.
    struct Made {
        size_t source;
        std::string name;
    };
    std::map<std::string, Made> m_folded;
};

// For a destination that exists: an outcome where that is the end of it. Nothing: go on, with the destination and
// `replace` as they are now. What `written` has is never replaced.
std::optional<Outcome> resolve_conflict(FileAttempt &attempt, const TransferOptions &options,
                                        TransferObserver &observer, const WrittenEntries &written);

// Of those that the destination's name can be made into. Somebody may take it before it is used.
std::optional<Problem> choose_free_name(FileAttempt &attempt);

// Whether the source is what stands there: under one name, or as a link and the file that it leads to. Two names of one
// file are two entries to an update, which has nothing to do where what is kept for each is the same, too; a move has a
// name to take away.
bool is_one_entry(const FileAttempt &attempt, const struct stat &there, const TransferOptions &options);

// Whether this difference is one for which Conflict::update replaces what stands there. What may be lost is none,
// unless it tells of other content.
bool is_to_update(const Loss &difference, LossSet accepted);

// Where nothing can be made beside what stands there: why it cannot be written into either; nothing: it can.
std::optional<Problem> refusal_of_forced(const TransferOptions &options);

Outcome failure(const std::string &destination, Problem problem);
// Two names that have become one. The types of the entry and of what stands there decide how that is called.
Outcome clash(const std::string &destination, mode_t entry, mode_t there);
Problem same_file();

} // namespace engine
