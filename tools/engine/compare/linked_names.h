// Names of one file at the first of two trees, and the files that they are at the second. Where those are several, all
// but one are told, since they take room. Which one is not, and under which of its names each of the others is told,
// the order of a walk does not decide: a file goes by the first of its names, byte by byte, and the one that has the
// first of all stands for what it was. So a plan, a run and a comparison tell the same of the same names, in whatever
// order they meet them and however many processes share them.
#pragma once

#include "tools/engine/losses/loss.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace engine {

using Inode = std::pair<dev_t, ino_t>;

// A name that is at both.
struct LinkedName {
    Inode first, second;
    uint64_t names = 0;   // of the first, as the kernel counts them
    uint64_t arrived = 0; // the same of the second
    std::string path, otherPath;
    int64_t bytes = 0; // of the file
};

class LinkedNames {
  public:
    using Tell = std::function<void(const std::string &first, const std::string &second, const Loss &loss)>;

    // Takes note of a name, and tells what that shows; whether another name was met that is the same file at both. A
    // second file of one name gets no other ones any more once the next one is met.
    bool meet(const LinkedName &name, const Tell &tell);
    // No more names come.
    void finish(const Tell &tell);

  private:
    // A file at the second, by the first of its names.
    struct Arrived {
        Inode file;
        bool alone; // it has no other name
        std::string path, otherTop;
        size_t common; // how much of the end of the two paths is the same, which is kept once
    };
    struct File {
        std::vector<Arrived> arrived = {};
        uint64_t names = 0, met = 0;
        int64_t bytes = 0;
    };
    static Arrived arrived_of(const LinkedName &name);
    static void tell_apart(const File &file, const Arrived &apart, const Arrived &stands, const Tell &tell);
    static void tell_rest(const File &file, const Tell &tell);
    static void close_those_alone(File &file, dev_t volume, const Tell &tell);

    std::map<Inode, File> m_files; // of which names are still to come
};

} // namespace engine
