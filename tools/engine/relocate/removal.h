// Removing what a relocation may remove: the source, entry by entry, as far as it still is what was proven to be in the
// copy; and what lies in the private place.
#pragma once

#include "tools/engine/relocate/proof.h"
#include "tools/engine/report/observer.h"
#include "tools/engine/report/problem.h"
#include "tools/engine/walk/directory_chain.h"

#include <functional>
#include <string>
#include <vector>

namespace engine {

using NotRemoved = std::function<void(const std::string &path, const Problem &problem)>;

class SourceRemoval {
  public:
    // All of these outlive this.
    SourceRemoval(const Observer &observer, Proof &proof, const TreeTop &copy, NotRemoved told)
        : m_observer(observer), m_proof(proof), m_copy(copy), m_told(std::move(told)) {}

    // Whether nothing of it is left.
    bool run(const TreeTop &tree);
    int removed() const { return m_removed; }

  private:
    enum class Entered { yes, gone, stays };
    // A directory on the way.
    struct Level {
        std::string name;
        Listing listing;
        bool hasStore; // which is let go for what is below
        bool changed;  // and so stays itself
        size_t pathLength;
        size_t next = 0;
        bool complete = true;
    };

    Entered enter(int parent, const std::string &name, int copyParent, const std::string &there);
    void remove_next();
    bool leave();
    void leave_copy();
    int copy() const { return m_copyLost || m_to.size() != m_from.size() ? -1 : m_to.lowest(); }
    void hold_store(Level &level) const;
    bool remove_parts(Level &level, const Listing::Item &item);
    bool empty_store(int directory, const Listing &listing);
    bool remove_plain(int parent, const std::string &name, const std::string &path);
    bool unlink(int parent, const std::string &name, const std::string &path);
    bool finish(int parent, const std::string &name, const std::string &path);
    bool left(const std::string &path, const Problem &problem) {
        m_told(path, problem);
        return false;
    }
    Entered stay(const Problem &problem) {
        m_told(m_path, problem);
        return Entered::stays;
    }

    const Observer &m_observer;
    Proof &m_proof;
    const TreeTop &m_copy;
    NotRemoved m_told;
    int m_removed = 0;

    TreeTop m_tree = {};
    StoreKind m_kind = StoreKind::none;
    std::string m_path; // of the directory that is being emptied, and of the entry in it
    DirectoryChain m_from, m_to;
    bool m_copyLost = false; // somebody has moved one of its directories
    std::vector<Level> m_levels;
    bool m_gone = false;
};

// What stands under a name in a directory that nobody else can reach, with everything in it. Volumes that are mounted
// in it stay. Whether it is gone.
bool remove_private(int parent, const std::string &name, const std::string &path, const Observer *observer,
                    const NotRemoved &told);

} // namespace engine
