#include "tools/engine/workers/hands.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/workers/disks.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr int kMost = 8;
constexpr size_t kFewEntries = 200;   // which are done before others have come to help
constexpr off_t kSizeOfMany = 20'000; // of a directory: not to be listed only to be counted

int processors() {
    constexpr size_t mostProcessors = 8192;
    std::vector<unsigned char> set(CPU_ALLOC_SIZE(mostProcessors));
    auto *const mask = reinterpret_cast<cpu_set_t *>(set.data());
    return ::sched_getaffinity(0, set.size(), mask) == 0 ? CPU_COUNT_S(set.size(), mask) : 1;
}

// Entries, until there are more than a few.
size_t count_entries(const Descriptor &directory, size_t counted) {
    struct stat found {};
    if (::fstat(directory.get(), &found) == 0 && found.st_size > kSizeOfMany) {
        return kFewEntries + 1;
    }
    for (const Entry &entry : entries_in(directory.get()).value_or(std::vector<Entry>())) {
        if (++counted > kFewEntries) {
            break;
        }
        if (entry.type == DT_DIR) {
            counted = count_entries(open_directory(directory.get(), entry.name), counted);
        }
    }
    return counted;
}

bool has_many_entries(const std::vector<std::string> &trees) {
    size_t counted = 0;
    return std::ranges::any_of(trees, [&](const std::string &tree) {
        counted = count_entries(Descriptor(::open(tree.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), counted);
        return counted > kFewEntries;
    });
}

} // namespace

int usual_hands(const std::vector<std::string> &sources, const std::string &destination, const std::string &sysfs) {
    const int number = std::min(processors(), kMost);
    if (number < 2 || !has_many_entries(sources)) {
        return 1;
    }
    const Disks to = destination.empty() ? Disks() : disks_below(destination, sysfs);
    const bool slow = std::ranges::any_of(sources, [&](const std::string &source) {
        const Disks from = disks_below(source, sysfs);
        const bool array = from.names.size() > 1 && (destination.empty() || from == to);
        return (from.turning || to.turning) && !array;
    });
    return slow ? 1 : number;
}

} // namespace engine
