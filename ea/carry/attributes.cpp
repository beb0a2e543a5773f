#include "ea/carry/attributes.h"

#include "ea/double/resource_fork.h"
#include "ea/ea.h"
#include "ea/files/xattr_list.h"
#include "support/file_calls.h"
#include "support/guards.h"
#include "support/report.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>

namespace vexo {
namespace {

// A fork is a file of its own on some volumes, and always goes by path.
int get_attribute(const FileRef &file, const char *name, void *value, size_t size) {
    return file.is_open() && !is_resource_fork(name) ? static_cast<int>(file.get_attribute(name, value, size))
                                                     : VEXOEAXattrGet(file.path(), name, value, static_cast<int>(size));
}

// Absent forks look different on each kind of file.
bool says_no_fork(int number) {
    return number == ENODATA || number == ENOENT || number == ENOTDIR || number == EOPNOTSUPP;
}

} // namespace

int list_attributes(const FileRef &file, NameList &names) {
    return names ? list_attributes(file, names.slot()) : fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
}

// Most values are short and arrive with the first call; a longer one, and a fork, whose size is that of a file, are
// asked for their size first.
int read_attribute(const FileRef &file, const char *name, HeapBuffer &value) {
    constexpr size_t kShortValue = 1024;
    if (std::string_view(name) != kResourceForkName) {
        if (!value) {
            value = HeapBuffer::uninitialised(kShortValue);
        }
        const int got = value && value.size() > 0 ? get_attribute(file, name, value.data(), value.size()) : -1;
        if (got >= 0) {
            return got;
        }
        if (value && errno != ERANGE) {
            return fail(Error::read, VEXO_EA_COPY_HERE);
        }
    }
    const int size = get_attribute(file, name, nullptr, 0);
    if (size < 0) {
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    if ((!value || value.size() < static_cast<size_t>(size)) && !value.resize(static_cast<size_t>(size))) {
        return fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
    }
    // A buffer of size 0 would ask for the size once more.
    const int got = size == 0 ? 0 : get_attribute(file, name, value.data(), static_cast<size_t>(size));
    return got < 0 ? fail(Error::read, VEXO_EA_COPY_HERE) : got;
}

int set_attribute(const FileRef &file, const char *name, const void *value, int size) {
    const int result = file.is_open() && !is_resource_fork(name)
                           ? file.set_attribute(name, value, static_cast<size_t>(size), 0)
                           : VEXOEAXattrSet(file.path(), name, value, size, 0);
    return result < 0 ? fail(Error::write, VEXO_EA_COPY_HERE) : 0;
}

int get_attribute_or_log(const EaCopyJob &job, const char *name, HeapBuffer &value) {
    const int size = read_attribute(job.src, name, value);
    if (size < 0) {
        const KeepErrno keep;
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to get EA(%s, %s). %m", job.src, name);
    }
    return size;
}

int get_fork(const EaCopyJob &job, HeapBuffer &fork) {
    struct stat status;
    if (::stat(job.src, &status) == 0 && S_ISDIR(status.st_mode)) {
        return 0;
    }
    const int size = VEXOEAXattrGet(job.src, kResourceForkName, nullptr, 0);
    if (size < 0 && says_no_fork(errno)) {
        return 0;
    }
    return get_attribute_or_log(job, kResourceForkName, fork);
}

namespace {

int copy_attribute(const FileRef &src, const FileRef &dst, const char *name, HeapBuffer &value) {
    const int size = read_attribute(src, name, value);
    return size < 0 ? -1 : set_attribute(dst, name, value.data(), size);
}

// What the steps before have set in the record of the destination is not taken back.
int copy_record(const FileRef &src, const FileRef &dst) {
    return carry_record(src, dst) < 0 ? fail(Error::write, VEXO_EA_COPY_HERE) : 0;
}

// Copies one attribute after the other, and tells of the first that failed.
class AttributeCopies {
  public:
    AttributeCopies(const FileRef &src, const FileRef &dst, bool recordSet)
        : m_src(src), m_dst(dst), m_recordSet(recordSet) {}

    void add(const char *name) {
        const bool record = is_record(name);
        if (record && m_recordSet) {
            return;
        }
        if ((record ? copy_record(m_src, m_dst) : copy_attribute(m_src, m_dst, name, m_value)) < 0) {
            m_number = m_result == 0 ? errno : m_number;
            m_result = -1;
        }
    }
    int result() const {
        if (m_result < 0) {
            errno = m_number;
        }
        return m_result;
    }

  private:
    FileRef m_src, m_dst;
    bool m_recordSet;
    HeapBuffer m_value;
    int m_result = 0, m_number = 0;
};

} // namespace

int copy_attributes(const FileRef &src, const FileRef &dst, const char *prefix, bool recordSet) {
    NameList names;
    if (list_attributes(src, names) < 0) {
        return -1;
    }
    AttributeCopies copies(src, dst, recordSet);
    for (int at = 0; at < names.count(); ++at) {
        if (std::string_view(names.at(at)).starts_with(prefix)) {
            copies.add(names.at(at));
        }
    }
    return copies.result();
}

void copy_user_attributes(const EaCopyJob &job) {
    constexpr std::string_view kPrefix = "user.";
    const KeepErrors keep;
    int result = 0;
    if (job.names != nullptr) { // listed a moment ago
        AttributeCopies copies(job.source(), job.destination(), job.recordSet);
        (void)job.names->any([&](std::string_view name) {
            if (name.starts_with(kPrefix)) {
                copies.add(name.data());
            }
            return false;
        });
        result = copies.result();
    } else {
        result = copy_attributes(job.source(), job.destination(), kPrefix.data(), job.recordSet);
    }
    if (result < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to copy user extended attributes [%s]->[%s]. %m", job.src,
                            job.dst);
    }
}

} // namespace vexo
