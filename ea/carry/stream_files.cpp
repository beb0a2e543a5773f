#include "ea/carry/stream_files.h"

#include "ea/carry/store_directory.h"
#include "ea/ea.h"
#include "ea/names/stream_path.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/report.h"
#include "transfer/transfer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vexo {
namespace {

constexpr mode_t kStoreMode = 0777;

bool exists(const char *path) {
    return ::access(path, F_OK) == 0;
}

// What follows when a stream has arrived.
int drop_moved_stream(const EaCopyJob &job, const char *from) {
    return !job.move || ::unlink(from) == 0 || errno == ENOENT ? 0 : fail(Error::file_operation, VEXO_EA_COPY_HERE);
}

// The bytes of a stream file, which goes again where they do not arrive. 0 or -1 with the error.
int move_stream_bytes(Fd &source, Fd &destination, int64_t size, const char *to) {
    if (transfer(source.get(), destination.get(), size, {}, kDescriptorCopySource) == 0) {
        return 0;
    }
    const KeepErrors keep;
    source.reset();
    destination.reset();
    ::unlink(to);
    return -1;
}

void log_stream_not_copied(const char *stream, const char *from, const char *to) {
    if (stream != kResourceStream || errno != EOPNOTSUPP) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to cp -f %s %s. %m", from, to);
    }
}

// Mostly the source's file is there, and the "@eaDir" of the destination since the file before this one: then opening
// both is all that needs to be found out. Nothing: it is not so, and nothing was done.
std::optional<int> copy_between_stores(const EaCopyJob &job, StreamFiles &files, const char *stream) {
    const char *const from = files.from.c_str();
    struct stat status;
    Fd source(::open(from, O_RDONLY | O_NONBLOCK | O_CLOEXEC)); // a FIFO has no place here, and is not waited for
    if (!source || ::fstat(source.get(), &status) != 0 || !S_ISREG(status.st_mode) || files.to.select(stream) < 0) {
        return std::nullopt;
    }
    const char *const to = files.to.c_str();
    Fd destination(::open(to, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kStoreMode));
    if (!destination) {
        return std::nullopt;
    }
    if (move_stream_bytes(source, destination, status.st_size, to) < 0) {
        log_stream_not_copied(stream, from, to);
        return -1;
    }
    if (drop_moved_stream(job, from) < 0) {
        return -1;
    }
    return ::fchmod(destination.get(), kStoreMode) == 0 ? 0 : fail(Error::file_operation, VEXO_EA_COPY_HERE);
}

} // namespace

static_assert(std::string_view(kResourceStream).size() == std::string_view(kEaStream).size());

int StreamPath::select(const char *stream) {
    if (m_selected != nullptr && m_text.view().ends_with(m_selected)) {
        m_text.cut(m_text.length() - std::strlen(m_selected));
        m_text.append(stream);
    } else if (!make_stream_path(m_file, stream, m_text)) {
        return -1;
    }
    m_selected = stream;
    return 0;
}

int select_resource(StreamPath &stream, const char *path) {
    const int result = stream.select(kResourceStream);
    if (result < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path of %s.", path);
    }
    return result;
}

int copy_stream_file(const EaCopyJob &job, StreamFiles &files, const char *stream) {
    if (files.from.select(stream) < 0) {
        return -1;
    }
    if (!job.copyFile) {
        if (const std::optional<int> copied = copy_between_stores(job, files, stream)) {
            return *copied;
        }
    }
    if (!exists(files.from.c_str())) {
        return 0;
    }
    if (!files.prepared && prepare_shared_directory(job.dst) < 0) {
        return -1;
    }
    files.prepared = true;
    if (files.to.select(stream) < 0) {
        return -1;
    }
    const char *const from = files.from.c_str();
    const char *const to = files.to.c_str();
    const int copied = job.copyFile ? job.copyFile(from, to) : copy_store_file(from, to);
    if (copied < 0) {
        log_stream_not_copied(stream, from, to);
    }
    if (copied < 0 || copied == kCannotConvertCode) {
        return copied;
    }
    if (!job.copyFile && copied == kNothingToCopy) {
        return 0;
    }
    if (drop_moved_stream(job, from) < 0) {
        return -1;
    }
    return ::chmod(to, kStoreMode) == 0 ? 0 : fail(Error::file_operation, VEXO_EA_COPY_HERE);
}

int copy_store_file(const char *from, const char *to) {
    struct stat status;
    if (::stat(from, &status) != 0) {
        const bool nothing = errno == EPERM || errno == ENOENT || errno == EACCES;
        return nothing ? kNothingToCopy : fail(Error::open, VEXO_EA_COPY_HERE);
    }
    if (!S_ISREG(status.st_mode)) { // opening a FIFO would wait for its writer
        errno = EINVAL;
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    Fd source(::open(from, O_RDONLY | O_CLOEXEC));
    if (!source) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    Fd destination(::open(to, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, kStoreMode));
    if (!destination) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    return move_stream_bytes(source, destination, status.st_size, to);
}

int stream_presence(const FileRef &file, StoreSeen seen) {
    if (has_no_ea_directory(file.path(), seen)) {
        return 0;
    }
    StreamPath stream(file);
    int presence = 0;
    for (const auto &[name, bit] : {std::pair(kResourceStream, kHasResource), std::pair(kEaStream, kHasEaStream)}) {
        if (stream.select(name) < 0) {
            return -1;
        }
        presence |= exists(stream.c_str()) ? bit : 0;
    }
    return presence;
}

int unlink_source_stream(const EaCopyJob &job, const char *stream, int companion) {
    PathBuffer path;
    if (VEXOEAPath(kCurrentLayout, job.src, stream, path.fill(), PathBuffer::kUsable, companion) < 0) {
        return -1;
    }
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : fail(Error::file_operation, VEXO_EA_COPY_HERE);
}

int remove_source_resource(const EaCopyJob &job) {
    if (!job.move || unlink_source_stream(job, kResourceStream, kStreamCompanion) == 0) {
        return 0;
    }
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]->[%s]. %m", job.src, job.dst);
    return -1;
}

} // namespace vexo
