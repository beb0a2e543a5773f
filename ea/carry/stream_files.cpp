#include "ea/carry/stream_files.h"

#include "ea/carry/store_directory.h"
#include "ea/ea.h"
#include "ea/files/store_entry.h"
#include "ea/names/stream_path.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/report.h"
#include "transfer/transfer.h"

#include <algorithm>
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

bool exists(const char *path) {
    return ::access(path, F_OK) == 0;
}

// What follows when a stream has arrived.
int drop_moved_stream(const EaCopyJob &job, const char *from) {
    return !job.move || unlink_store_file(from) == 0 || errno == ENOENT
               ? 0
               : fail(Error::file_operation, VEXO_EA_COPY_HERE);
}

// Only the owner of a file may change its mode. One that is somebody else's was open to us as it is.
int open_to_all(int result, const char *to) {
    if (result == 0) {
        return 0;
    }
    if (errno != EPERM) {
        return fail(Error::file_operation, VEXO_EA_COPY_HERE);
    }
    VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to chmod %s. %m", to);
    return 0;
}

Fd open_seen(const char *path, int flags, struct stat &seen) {
    const StorePlace place(path);
    return place ? open_store_file_in(place.directory(), place.name(), flags, seen) : Fd();
}

// An open file of a store, and what was seen of it.
struct SeenFile {
    Fd file;
    struct stat status;
};

// The bytes of a store file in place of those of another, which goes where they do not arrive. 0, kOneFile, or -1 with
// the error.
int copy_bytes(SeenFile &from, SeenFile &onto, const char *to) {
    Fd &source = from.file, &destination = onto.file;
    const struct stat &status = from.status, &there = onto.status;
    if (is_one_file(status, there)) {
        return kOneFile;
    }
    if (there.st_size > 0 && ::ftruncate(destination.get(), 0) != 0) {
        return fail(Error::write, VEXO_EA_COPY_HERE);
    }
    if (transfer(source.get(), destination.get(), status.st_size, {}, kDescriptorCopySource, &status) == 0) {
        return 0;
    }
    const KeepErrors keep;
    source.reset();
    destination.reset();
    (void)unlink_store_file(to);
    return -1;
}

void log_stream_not_copied(const char *stream, const char *from, const char *to) {
    if (stream != kResourceStream || errno != EOPNOTSUPP) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to cp -f %s %s. %m", from, to);
    }
}

// A file that was just made mostly has this mode already.
bool is_open_to_all(const struct stat &status) {
    return (status.st_mode & ALLPERMS) == kStoreMode;
}

// What follows the copy of the bytes of a stream: 0 or -1, reported.
int after_copy(const EaCopyJob &job, int copied, const char *from, const char *to, const Fd &destination) {
    if (copied != 0) { // one file under two names, or none: nothing is written and nothing removed
        return 0;
    }
    if (drop_moved_stream(job, from) < 0) {
        return -1;
    }
    return open_to_all(destination ? ::fchmod(destination.get(), kStoreMode) : set_store_mode(to), to);
}

// Mostly the source's file is there, and the "@eaDir" of the destination since the file before this one: then opening
// both is all that needs to be found out. Nothing: it is not so, and nothing was done.
std::optional<int> copy_between_stores(const EaCopyJob &job, StreamFiles &files, const char *stream) {
    SeenFile source, destination;
    source.file = files.from.open(O_RDONLY, source.status);
    if (!source.file || files.to.select(stream) < 0) {
        return std::nullopt;
    }
    destination.file = files.to.open(O_RDWR | O_CREAT, destination.status);
    if (!destination.file) {
        return std::nullopt;
    }
    const char *const from = files.from.c_str();
    const char *const to = files.to.c_str();
    const int copied = copy_bytes(source, destination, to);
    if (copied < 0) {
        log_stream_not_copied(stream, from, to);
        return -1;
    }
    files.copied = copied == 0 ? source.status.st_size : -1;
    return copied == 0 && is_open_to_all(destination.status) ? drop_moved_stream(job, from)
                                                             : after_copy(job, copied, from, to, destination.file);
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

// A name that has room for the word behind it is nowhere a shortened one.
bool StreamPath::lacks_own_directory() const {
    constexpr size_t mostInName = 128;
    if (!m_place || !*m_place || m_selected == nullptr) {
        return false;
    }
    const std::string_view stream = m_place->name();
    const size_t behind = std::strlen(m_selected);
    PathBuffer name(stream.substr(0, stream.size() - std::min(stream.size(), behind)));
    if (name.view().ends_with('@')) {
        name.cut(name.length() - 1);
    }
    const KeepErrno keep;
    struct stat found;
    return !name.overflowed() && name.length() > 0 && name.length() <= mostInName &&
           name.view().find('/') == std::string_view::npos &&
           ::fstatat(m_place->directory(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

int select_resource(StreamPath &stream, const char *path) {
    const int result = stream.select(kResourceStream);
    if (result < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path of %s.", path);
    }
    return result;
}

int copy_stream_file(const EaCopyJob &job, StreamFiles &files, const char *stream) {
    files.copied = -1;
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
    Fd made;
    const int copied = job.copyFile ? copy_by_caller(job, from, to) : copy_store_file(from, to, &made);
    if (copied < 0) {
        log_stream_not_copied(stream, from, to);
    }
    return copied < 0 || copied == kCannotConvertCode ? copied : after_copy(job, copied, from, to, made);
}

int copy_store_file(const char *from, const char *to, Fd *made) {
    SeenFile source, destination;
    source.file = open_seen(from, O_RDONLY, source.status);
    if (!source.file) {
        const int number = errno;
        struct stat status;
        if (look_in_store(from, status) != 0 && (errno == EPERM || errno == ENOENT || errno == EACCES)) {
            return kNothingToCopy;
        }
        errno = number;
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    destination.file = open_seen(to, O_RDWR | O_CREAT, destination.status);
    if (!destination.file) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    const int copied = copy_bytes(source, destination, to);
    if (copied == 0 && made != nullptr) {
        *made = std::move(destination.file);
    }
    return copied;
}

int copy_by_caller(const EaCopyJob &job, const char *from, const char *to) {
    struct stat status;
    struct stat there;
    if (check_store_file(from, O_RDONLY, status) != 0) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    if (check_store_file(to, O_RDWR, there) == 0) {
        if (is_one_file(status, there)) {
            return kOneFile;
        }
    } else if (errno != ENOENT) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    errno = 0; // what it says afterwards is the function's, and so is the last error
    set_error(Error::none, VEXO_EA_COPY_HERE);
    const int copied = job.copyFile(from, to);
    if (copied < 0 && last_error() == Error::none) {
        set_error(Error::other, VEXO_EA_COPY_HERE);
    }
    return copied < 0 || copied == kCannotConvertCode ? copied : 0;
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
    return unlink_store_file(path.c_str()) == 0 || errno == ENOENT ? 0 : fail(Error::file_operation, VEXO_EA_COPY_HERE);
}

int remove_source_resource(const EaCopyJob &job) {
    if (!job.move || unlink_source_stream(job, kResourceStream, kStreamCompanion) == 0) {
        return 0;
    }
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]->[%s]. %m", job.src, job.dst);
    return -1;
}

} // namespace vexo
