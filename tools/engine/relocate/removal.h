// Removing what a relocation may remove: the source, entry by entry, as far as it still is what was proven to be in the
// copy; and what lies in the private place.
#pragma once

#include "tools/engine/relocate/proof.h"
#include "tools/engine/report/observer.h"
#include "tools/engine/report/problem.h"

#include <functional>
#include <string>

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
    bool empty(int directory, int copy, StoreKind kind, const std::string &path);
    bool empty_store(int directory, const Listing &listing, const std::string &path);
    bool remove_item(int directory, int copy, StoreKind kind, const Listing &listing, const Listing::Item &item,
                     const std::string &path);
    bool remove_directory(int parent, const std::string &name, int copyParent, StoreKind kind, const std::string &path);
    bool remove_plain(int parent, const std::string &name, const std::string &path);
    bool unlink(int parent, const std::string &name, const std::string &path);
    bool finish(int parent, const std::string &name, const std::string &path);
    bool left(const std::string &path, const Problem &problem) {
        m_told(path, problem);
        return false;
    }

    const Observer &m_observer;
    Proof &m_proof;
    const TreeTop &m_copy;
    NotRemoved m_told;
    int m_removed = 0;
};

// What stands under a name in a directory that nobody else can reach, with everything in it. Volumes that are mounted
// in it stay. Whether it is gone.
bool remove_private(int parent, const std::string &name, const std::string &path, const Observer *observer,
                    const NotRemoved &told);

} // namespace engine
