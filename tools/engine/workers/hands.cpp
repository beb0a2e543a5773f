#include "tools/engine/workers/hands.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/workers/disks.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <set>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr int kMostHands = 8;
constexpr size_t kFewEntries = 200;   // which are done before others have come to help
constexpr off_t kFewBytes = 64 << 20; // and so are these
constexpr off_t kSizeOfMany = 20'000; // of a directory: not to be listed only to be counted

int processors() {
    constexpr size_t mostProcessors = 8192;
    std::vector<unsigned char> set(CPU_ALLOC_SIZE(mostProcessors));
    auto *const mask = reinterpret_cast<cpu_set_t *>(set.data());
    return ::sched_getaffinity(0, set.size(), mask) == 0 ? CPU_COUNT_S(set.size(), mask) : 1;
}

// What there is to do, counted until it is much: of many small files nobody wants to know more.
struct Work {
    size_t entries = 0;
    off_t bytes = 0, largest = 0; // one file is for one process

    bool is_much() const { return entries > kFewEntries || bytes - largest > kFewBytes; }
    void count(const Descriptor &directory);
};

void Work::count(const Descriptor &directory) {
    struct stat found {};
    if (::fstat(directory.get(), &found) == 0 && found.st_size > kSizeOfMany) {
        entries = kFewEntries + 1;
    }
    for (const Entry &entry : entries_in(directory.get()).value_or(std::vector<Entry>())) {
        if (is_much()) {
            return;
        }
        ++entries;
        if (entry.type == DT_DIR) {
            count(open_directory(directory.get(), entry.name));
        } else if (entry.type == DT_REG &&
                   ::fstatat(directory.get(), entry.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
            bytes += found.st_size;
            largest = std::max(largest, found.st_size);
        }
    }
}

bool is_much(const std::vector<std::string> &trees) {
    Work work;
    return std::ranges::any_of(trees, [&work](const std::string &tree) {
        work.count(Descriptor(::open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
        return work.is_much();
    });
}

} // namespace

int usual_hands(const std::vector<std::string> &sources, const std::string &destination, const std::string &sysfs) {
    const int number = std::min(processors(), kMostHands);
    if (number < 2 || !is_much(sources)) {
        return 1;
    }
    const Disks to = destination.empty() ? Disks() : disks_below(destination, sysfs);
    std::set<dev_t> seen; // the disks of a volume are those of all that is on it
    const bool slow = std::ranges::any_of(sources, [&](const std::string &source) {
        struct stat found {};
        if (::stat(source.c_str(), &found) != 0 || !seen.insert(found.st_dev).second) {
            return false;
        }
        const Disks from = disks_below(source, sysfs);
        const bool array = from.names.size() > 1 && (destination.empty() || from == to);
        return (from.turning || to.turning) && !array;
    });
    return slow ? 1 : number;
}

} // namespace engine
