// Lists the attributes that the file system itself keeps for a file.
#include "ea/ea.h"

#include "ea/files/xattr_list.h"
#include "ea/names/argument.h"
#include "support/heap.h"

#include <cerrno>
#include <cstring>
#include <string_view>

using namespace vexo;

namespace {

// Pushes each of the NUL-terminated names; the first that is refused ends it.
int push_names(std::string_view names, VLIBCSzList **list) {
    while (!names.empty()) {
        if (VLIBCSzListPush(list, names.data()) < 0) {
            return -1;
        }
        const size_t taken = std::strlen(names.data()) + 1;
        names.remove_prefix(taken < names.size() ? taken : names.size());
    }
    return 0;
}

// A list that has to be asked for its size first.
int push_long_list(const FileRef &file, VLIBCSzList **list) {
    const ssize_t size = file.list_attributes(nullptr, 0);
    if (size == 0) { // gone meanwhile
        VLIBCSzListRemoveAll(*list);
        return 0;
    }
    if (size < 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    HeapBuffer names = HeapBuffer::zeroed(static_cast<size_t>(size) + 1);
    if (!names) {
        return fail(Error::out_of_memory_ea, VEXO_HERE);
    }
    // Attributes that came between the two calls make this one fail: half a list is no answer.
    char *const text = reinterpret_cast<char *>(names.data());
    const ssize_t filled = file.list_attributes(text, static_cast<size_t>(size));
    if (filled < 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    return push_names({text, static_cast<size_t>(filled)}, list);
}

} // namespace

int vexo::list_attributes(const FileRef &file, VLIBCSzList **list) {
    constexpr size_t kShortList = 1024;
    char names[kShortList + 1]; // the zero byte behind the names ends the last one, whatever the file system wrote
    const ssize_t size = file.list_attributes(names, kShortList);
    if (size > 0) {
        names[size] = '\0';
        return push_names({names, static_cast<size_t>(size)}, list);
    }
    if (size == 0 || errno == ENOENT || errno == ENODATA) {
        VLIBCSzListRemoveAll(*list);
        return 0;
    }
    return errno == ERANGE ? push_long_list(file, list) : fail(Error::file_operation, VEXO_HERE);
}

int VEXOEAXattrEnum(const char *path, VLIBCSzList **list) {
    if (path == nullptr) {
        return refuse_argument("((void *)0) != szPath", VEXO_HERE);
    }
    if (list == nullptr) {
        return refuse_argument("((void *)0) != ppList", VEXO_HERE);
    }
    if (*list == nullptr) {
        return refuse_argument("NULL != *ppList", VEXO_HERE);
    }
    return list_attributes(path, list);
}
