// Who asks the engine for work hears of it here. Each kind of work has an observer of its own, with what there is to
// tell and to decide; what they have in common is this.
#pragma once

namespace engine {

// Called on the thread that runs the work, between two steps of it. Nothing here may throw.
class Observer {
  public:
    Observer() = default;
    Observer(const Observer &) = delete;
    Observer &operator=(const Observer &) = delete;
    virtual ~Observer() = default;

    // Whether the work is to end as soon as nothing is half done: asked before each entry and each block. Once true it
    // stays true.
    virtual bool stopped() const = 0;
};

} // namespace engine
