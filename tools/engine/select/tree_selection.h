// The entries of a tree that are meant, as somebody goes through it.
#pragma once

#include "tools/engine/select/selection.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>

namespace engine {

class TreeSelection {
  public:
    explicit TreeSelection(const Selection &selection)
        : m_selection(selection), m_everything(m_selection.takes_everything()) {}

    bool takes_everything() const { return m_everything; }

    // A tree begins. `named`: the selection sees the name of `top` at the start of each path, as it does of "photos"
    // and not of "photos/."; whether the tree as a whole is meant is then asked of takes(), too.
    void begin(const std::string &top, bool named);
    // Whether the entry is meant. `path` as the tree's is; `held`: where it is, for the platform's calls; `entry`: what
    // lstat says of it. An archive bit that cannot be told is set.
    bool takes(const std::string &path, const std::string &held, const struct stat &entry);
    // Whether a directory is gone into. `top`: the volume of the tree's.
    bool enters(dev_t volume, dev_t top) const { return !m_selection.oneFileSystem || volume == top; }

    // Which entries of the tree at `top` are counted beforehand: those that are meant, and nothing of other volumes
    // where those are left out. It holds this.
    std::function<bool(const std::string &path, const struct stat &entry)> counted(const std::string &top, bool named);

    // How many entries were not meant so far, and others that were left out with their directory.
    size_t left_out() const { return m_leftOut; }
    void leave_out(size_t entries) { m_leftOut += entries; }

  private:
    bool is_meant(std::string_view path, const std::string &held, const struct stat &entry) const;

    Selection m_selection;
    bool m_everything;
    size_t m_before = 0; // of each path so much is above what the selection sees
    size_t m_leftOut = 0;
};

} // namespace engine
