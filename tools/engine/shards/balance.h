// Which shard gets the next entry, so that all get as much, by bytes and by entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace engine {

class Balance {
  public:
    explicit Balance(int shards);

    // The shard of an entry of so many bytes. What follows one another in a tree goes to one shard as long as that is
    // not much before the others: a directory costs each shard that has something in it.
    size_t next(int64_t bytes);
    // The same of an entry that has several names, all of which go to one shard. A record is kept until the last of
    // them has come. Nothing of it is counted twice: `first` says whether the bytes are this name's.
    size_t next_of(const struct stat &file, int64_t bytes, bool &first);

  private:
    struct Names {
        size_t shard;
        nlink_t left;
    };
    void weigh(size_t shard, uint64_t weight);

    std::vector<uint64_t> m_weights;
    std::set<std::pair<uint64_t, size_t>> m_order; // the lightest first
    size_t m_current = 0;
    uint64_t m_all = 0;
    std::map<std::pair<dev_t, ino_t>, Names> m_names;
};

} // namespace engine
