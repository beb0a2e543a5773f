// Putting back what a repair has changed, out of its quarantine: content, owner, mode, times and attributes. What was
// changed since stays as it is now.
#pragma once

#include <string>

namespace engine {

class UndoWatcher {
  public:
    virtual ~UndoWatcher() = default;
    virtual bool stopped() const = 0;
    enum class State { restored, was_so, left };
    // `reason`: of one that was left.
    virtual void undone(const std::string &place, State state, const std::string &reason) = 0;
};

// The last change first. The quarantine stays. Throws Failure for a quarantine that is none.
void undo_repairs(const std::string &quarantine, UndoWatcher &watcher);

} // namespace engine
