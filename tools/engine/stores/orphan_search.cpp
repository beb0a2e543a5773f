#include "tools/engine/stores/orphan_search.h"

#include <algorithm>
#include <fcntl.h>
#include <numeric>
#include <sys/stat.h>

namespace engine {

size_t name_distance(const std::string &one, const std::string &other, size_t most) {
    const size_t lengths = one.size() > other.size() ? one.size() - other.size() : other.size() - one.size();
    if (lengths > most) {
        return most + 1;
    }
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t at = 1; at <= one.size(); ++at) {
        size_t diagonal = row[0];
        row[0] = at;
        for (size_t to = 1; to <= other.size(); ++to) {
            const size_t replaced = diagonal + (one[at - 1] == other[to - 1] ? 0 : 1);
            diagonal = row[to];
            row[to] = std::min({replaced, row[to] + 1, row[to - 1] + 1});
        }
    }
    return std::min(row.back(), most + 1);
}

OrphanGuess OrphanSearch::search(int directory, const std::vector<std::string> &bare, const std::string &base,
                                 const StoreBytes &bytes) {
    constexpr size_t kMostCompared = 200'000; // names, in one directory
    if (m_compared + bare.size() > kMostCompared) {
        return {};
    }
    m_compared += bare.size();
    OrphanGuess guess;
    size_t nearest = std::max<size_t>(2, base.size() / 3);
    for (const std::string &name : bare) {
        struct stat found {};
        const bool stamped = bytes.inode != 0 || bytes.inodeSwapped != 0;
        if (stamped && ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
            (found.st_ino == bytes.inode || found.st_ino == bytes.inodeSwapped)) {
            return {name, true};
        }
        const size_t distance = name_distance(base, name, nearest);
        if (distance <= nearest && (guess.name.empty() || distance < nearest)) {
            nearest = distance;
            guess.name = name;
        }
    }
    return guess;
}

} // namespace engine
