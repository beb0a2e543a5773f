// The attributes of a file: listing, reading, setting and copying them.
#pragma once

#include "ea/carry/job.h"
#include "platform/core.h"
#include "support/file_ref.h"
#include "support/heap.h"

namespace vexo {

inline constexpr char kFinderInfoName[] = "com.apple.FinderInfo";
inline constexpr char kResourceForkName[] = "com.apple.ResourceFork";

// The largest value that an attribute of a file can have.
inline constexpr uint32_t kLargestAttribute = 65536;

// Owner of a list of names.
class NameList {
  public:
    NameList() : m_list(VLIBCSzListAlloc(16)) {}
    NameList(const NameList &) = delete;
    NameList &operator=(const NameList &) = delete;
    ~NameList() {
        if (m_list != nullptr) {
            VLIBCSzListFree(m_list);
        }
    }
    explicit operator bool() const { return m_list != nullptr; }
    VLIBCSzList **slot() { return &m_list; }
    int count() const { return m_list->count; }
    const char *at(int index) const { return VLIBCSzListGet(m_list, index); }

  private:
    VLIBCSzList *m_list;
};

// The names of a file's attributes, the fork's not among them. 0 or -1.
int list_attributes(const FileRef &file, NameList &names);

// The value of an attribute, read whole. `value` grows as needed and is used again. The size, or -1 with errno.
int read_attribute(const FileRef &file, const char *name, HeapBuffer &value);
// The same of the source, reported.
int get_attribute_or_log(const EaCopyJob &job, const char *name, HeapBuffer &value);
// The same of the source's fork: 0 also when there is none.
int get_fork(const EaCopyJob &job, HeapBuffer &fork);

// 0, or -1 with the error and errno.
int set_attribute(const FileRef &file, const char *name, const void *value, int size);

// Copies the attributes whose names begin with `prefix` (empty: all). What fails is passed over; -1 at the end then. Of
// the platform's record the destination gets what has not been set for it yet; `recordSet`: nothing.
int copy_attributes(const FileRef &src, const FileRef &dst, const char *prefix, bool recordSet = false);
// The attributes of the users. Best effort: what the volume refuses stays behind with a line in the log.
void copy_user_attributes(const EaCopyJob &job);

} // namespace vexo
