// The lists that a tree is divided into: files of names that each end with NUL, in a directory of their own, where they
// stand under private names until all of them are whole.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

class ShardLists {
  public:
    // Makes the directory, or takes one that is empty but for what a stopped run has left there. Throws Failure.
    ShardLists(const std::string &directory, int shards);
    ShardLists(const ShardLists &) = delete;
    ShardLists &operator=(const ShardLists &) = delete;
    // Without complete() nothing of this stays.
    ~ShardLists();

    // Appends a name to the list of a shard, from 0 on, or to that of the directories. Throws Failure.
    void add(size_t shard, std::string_view name) { append(m_lists[shard], name); }
    void add_directory(std::string_view name) { append(m_lists.back(), name); }
    // They are on the disk, and get their names: "shard-1" and so on, and last "directories". Throws Failure.
    void complete();

  private:
    struct List {
        Descriptor file = Descriptor(-1);
        std::string name = {}, made = {}; // its own, and the one that it has now
        std::string waiting = {};         // to be written
    };
    void clear_stopped() const;
    void make(std::string name);
    void append(List &list, std::string_view name) const;
    void write_out(List &list) const;
    void discard();

    std::string m_path;
    bool m_made = false; // the directory was not there before
    Descriptor m_directory = Descriptor(-1);
    std::vector<List> m_lists; // the last one is that of the directories
};

} // namespace engine
