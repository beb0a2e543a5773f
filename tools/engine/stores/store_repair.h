// Mending what a check has found, where that takes no guess: the original first goes into a quarantine, then the change
// is made under a private name and put in place at once. Whatever fails, or is killed on the way, what stands there is
// the old or the new, and the quarantine has the old.
#pragma once

#include "tools/engine/stores/quarantine.h"
#include "tools/engine/stores/store_check.h"

#include <functional>
#include <vector>

namespace engine {

class StoreMender {
  public:
    explicit StoreMender(Quarantine &quarantine) : m_quarantine(quarantine) {}

    // Mends what can be, until `stopped` says so, and says of each finding what became of it.
    void mend(const StorePlace &place, std::vector<FoundInStore> &found, const std::function<bool()> &stopped);

  private:
    void mend_one(const StorePlace &place, const Subject &subject);
    void rewrite(const StorePlace &place, int directory, const Subject &subject);
    void give_attribute(const StorePlace &place, const Subject &subject);
    void remove(const StorePlace &place, int directory, const Subject &subject);
    void remove_directory(const StorePlace &place, int directory, const Subject &subject);

    Quarantine &m_quarantine;
};

} // namespace engine
