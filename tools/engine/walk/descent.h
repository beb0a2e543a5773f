// Where a walk through a tree is, without a call within a call for each level: the directories on the way with what is
// still to be entered below each.
#pragma once

#include <string>
#include <vector>

namespace engine {

template <typename Below>
class Descent {
  public:
    explicit Descent(std::string top) : path(std::move(top)) {}

    std::string path; // of the directory that the walk is in, for people
    bool empty() const { return m_levels.empty(); }
    bool is_at_top() const { return m_levels.size() == 1; }
    // The directory of `path`, with what is below it.
    void enter(std::vector<Below> below) { m_levels.push_back({std::move(below), path.size()}); }
    // The next of those below, until enter() or leave(); null: there is none any more.
    const Below *next() {
        Level &level = m_levels.back();
        path.resize(level.pathLength);
        return level.next == level.below.size() ? nullptr : &level.below[level.next++];
    }
    void leave() { m_levels.pop_back(); }

  private:
    struct Level {
        std::vector<Below> below;
        size_t pathLength;
        size_t next = 0;
    };
    std::vector<Level> m_levels;
};

} // namespace engine
