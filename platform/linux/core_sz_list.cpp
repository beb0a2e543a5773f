// Lists of strings.
#include "platform/core.h"

#include "support/heap.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace vexo {
namespace {

constexpr int kSmallestCapacity = 8;

// The items move, the list does not. false: out of memory, and the list is as it was.
bool grow(VLIBCSzList &list) {
    if (list.count < list.capacity) {
        return true;
    }
    if (list.capacity > INT_MAX / 2) {
        return false;
    }
    const int capacity = list.capacity < kSmallestCapacity ? kSmallestCapacity : list.capacity * 2;
    void *items = ::reallocarray(list.items, static_cast<size_t>(capacity), sizeof(char *));
    if (items == nullptr) {
        return false;
    }
    list.items = static_cast<char **>(items);
    list.capacity = capacity;
    return true;
}

} // namespace
} // namespace vexo

using namespace vexo;

VLIBCSzList *VLIBCSzListAlloc(int capacity) {
    auto *list = static_cast<VLIBCSzList *>(std::calloc(1, sizeof(VLIBCSzList)));
    if (list == nullptr || capacity <= 0) {
        return list;
    }
    list->items = static_cast<char **>(std::calloc(static_cast<size_t>(capacity), sizeof(char *)));
    if (list->items == nullptr) {
        std::free(list);
        return nullptr;
    }
    list->capacity = capacity;
    return list;
}

int VLIBCSzListPush(VLIBCSzList **list, const char *text) {
    if (list == nullptr || *list == nullptr || text == nullptr) {
        errno = EINVAL;
        return -1;
    }
    HeapString copy(text);
    if (!copy || !grow(**list)) {
        errno = ENOMEM;
        return -1;
    }
    (*list)->items[(*list)->count] = copy.release();
    return (*list)->count++;
}

const char *VLIBCSzListGet(const VLIBCSzList *list, int index) {
    return list != nullptr && index >= 0 && index < list->count ? list->items[index] : nullptr;
}

void VLIBCSzListRemoveAll(VLIBCSzList *list) {
    if (list == nullptr) {
        return;
    }
    for (int at = 0; at < list->count; ++at) {
        std::free(list->items[at]);
    }
    list->count = 0;
}

void VLIBCSzListFree(VLIBCSzList *list) {
    if (list == nullptr) {
        return;
    }
    VLIBCSzListRemoveAll(list);
    std::free(list->items);
    std::free(list);
}
