// The files of a store: copying one, which ones there are, the directories they lie in, and the routines between
// volumes that keep them in "@eaDir".
#include "ea/carry/job.h"

#include "ea/carry/known.h"
#include "ea/files/remove_tree.h"
#include "ea/ea.h"
#include "ea/names/stream_path.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"
#include "transfer/transfer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace vexo {
namespace {

constexpr mode_t kStoreMode = 0777;

// A path of at most so many bytes has room behind it for whatever a companion's path adds.
constexpr size_t kSafeLength = PathBuffer::kUsable - 64;

bool exists(const char *path) {
    return ::access(path, F_OK) == 0;
}

// The path of a stream of a file, and then of the other one: they differ in the last word alone, so that the volume is
// asked for its longest name once.
class StreamPath {
  public:
    explicit StreamPath(const FileRef &file) : m_file(file) {}

    // 0, or -1 reported.
    int select(const char *stream) {
        if (m_selected != nullptr && m_text.view().ends_with(m_selected)) {
            m_text.cut(m_text.length() - std::strlen(m_selected));
            m_text.append(stream);
        } else if (!make_stream_path(m_file, stream, m_text)) {
            return -1;
        }
        m_selected = stream;
        return 0;
    }
    const char *c_str() const { return m_text.c_str(); }

  private:
    FileRef m_file;
    const char *m_selected = nullptr;
    PathBuffer m_text;
};
static_assert(std::string_view(kResourceStream).size() == std::string_view(kEaStream).size());

// Where the stream files of one copy lie. The "@eaDir" of the destination is made when the first one comes.
struct StreamFiles {
    explicit StreamFiles(const EaCopyJob &job) : from(job.source()), to(job.destination()) {}

    StreamPath from, to;
    bool prepared = false;
};

int select_resource(StreamPath &stream, const char *path) {
    const int result = stream.select(kResourceStream);
    if (result < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path of %s.", path);
    }
    return result;
}

int prepare_shared_directory(const char *path) {
    PathBuffer directory;
    return prepare_ea_directory(kSharedDirectory, path, directory);
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

// One stream file of the source to its place at the destination. A stream that is not there is no failure.
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

// Best effort: what the volume refuses stays behind with a line in the log.
void copy_user_attributes(const EaCopyJob &job) {
    const KeepErrors keep;
    if (copy_attributes(job.source(), job.destination(), "user.") < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to copy user extended attributes [%s]->[%s]. %m", job.src,
                            job.dst);
    }
}

int copy_both_stream_files(const EaCopyJob &job) {
    if (job.nothingStored) {
        return 0;
    }
    StreamFiles files(job);
    const int resource = copy_stream_file(job, files, kResourceStream);
    return resource != 0 ? resource : copy_stream_file(job, files, kEaStream);
}

// The resource stream of an EA-directory source, in the form the metadata attribute of the destination is made from.
int convert_resource_for_file_ea(const EaCopyJob &job) {
    StreamPath from(job.source());
    StreamPath to(job.destination());
    if (select_resource(from, job.src) < 0 || prepare_shared_directory(job.dst) < 0 ||
        select_resource(to, job.dst) < 0) {
        return -1;
    }
    const int converted = convert_apple_double(from.c_str(), to.c_str(), ConvertMode::checked);
    if (converted < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.\n", from.c_str(), to.c_str(),
                       converted);
        return converted;
    }
    if (job.move && ::unlink(from.c_str()) != 0 && errno != ENOENT) {
        set_error(Error::file_operation, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]. %m", from.c_str());
        return -1;
    }
    if (VEXOEAFileEAFSFinfoEASync(job.dst, 0) < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed file sync [%s]->[%s]. %m", job.src, job.dst);
        return -1;
    }
    return 0;
}

// The Finder Info in a metadata header, which has an entry for it; null when that leaves no room for it.
const uint8_t *finder_info_in(const VEXOEAAdouble &metadata) {
    const uint64_t offset = metadata.entries[kFinderInfoEntry].offset;
    return offset > sizeof metadata.raw - kFinderInfoSize ? nullptr : metadata.raw + offset;
}

bool all_zero(const uint8_t *bytes, size_t size) {
    for (size_t at = 0; at < size; ++at) {
        if (bytes[at] != 0) {
            return false;
        }
    }
    return true;
}

// Whether the attribute's Finder Info goes into the resource file: when that is out of step, and when there is none yet
// and the Finder Info would be lost with the attribute.
int needs_write_back(const char *path, const uint8_t *finderInfo) {
    const int need = EACheckNeedSync(path);
    if (need != 0) {
        return need;
    }
    const int presence = stream_presence(path);
    if (presence < 0) {
        return -1;
    }
    return (presence & kHasResource) == 0 && !all_zero(finderInfo, kFinderInfoSize) ? 1 : 0;
}

int write_back_finder_info(const char *path) {
    VEXOEAAdouble metadata;
    const int read = VEXOEAFileEAAdoubleRead(path, &metadata);
    if (read != 0) {
        return read < 0 ? -1 : 0;
    }
    const uint8_t *finderInfo = finder_info_in(metadata);
    if (finderInfo == nullptr) {
        return 0;
    }
    const int need = needs_write_back(path, finderInfo);
    if (need <= 0) {
        return need;
    }
    return VEXOEAEADirFSFInfoWrite(path, finderInfo) < 0 ? -1 : VEXOEAFileEAWriteFlushTime(path, 0);
}

// What every routine from a file-EA source begins with. 1: there are streams to carry; 0: none; negative: failed.
int begin_file_ea(const EaCopyJob &job, bool userAttributes) {
    if (!job.nothingStored && sync_source(job) < 0) {
        return -1;
    }
    if (userAttributes) {
        copy_user_attributes(job);
    }
    if (job.nothingStored) {
        return 0;
    }
    // That an "@eaDir" was not there is no longer certain.
    const StoreSeen seen = job.seen == StoreSeen::neither ? StoreSeen::unknown : job.seen;
    const int presence = stream_presence(job.source(), seen);
    return presence > 0 ? 1 : presence;
}

} // namespace

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

bool lacks_ea_directory(std::string_view directory) {
    const KeepErrno keep;
    PathBuffer store;
    store.join(directory, "@eaDir");
    return !store.overflowed() && ::access(store.c_str(), F_OK) != 0 && errno == ENOENT;
}

bool has_no_ea_directory(const char *path, StoreSeen seen) {
    const std::string_view name = path;
    const size_t slash = name.rfind('/');
    // Paths that a companion's path may be refused for take the long way, and so does what is no plain name.
    if (slash == std::string_view::npos || slash + 1 == name.size() || name.size() > kSafeLength) {
        return false;
    }
    return seen == StoreSeen::neither || (seen == StoreSeen::unknown && lacks_ea_directory(name.substr(0, slash)));
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

int prepare_ea_directory(int which, const char *path, PathBuffer &directory) {
    if (VEXOEADirPath(which, path, directory.fill(), PathBuffer::kUsable) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to get EA path of %s.\n", path);
        return -1;
    }
    if (which == kPerFileDirectory && exists(directory.c_str()) && remove_source_tree(directory.c_str()) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to rm -rf %s.\n", directory.c_str());
        return -1;
    }
    return VEXOEAMKDir(which == kPerFileDirectory ? 1 : 0, directory.c_str());
}

int remove_source_tree(const char *path) {
    struct stat status;
    if (::lstat(path, &status) != 0 && errno == ENOENT) {
        return 0;
    }
    if (remove_tree<kEaCopySource>(path) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to rm -rf %s. %m", path);
        return -1;
    }
    return 0;
}

int sync_source(const EaCopyJob &job) {
    errno = 0;
    if (write_back_finder_info(job.src) == 0 || errno == EACCES || errno == EPERM) {
        return 0;
    }
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed file sync [%s]->[%s]. %m", job.src, job.dst);
    return -1;
}

int sync_destination(const EaCopyJob &job) {
    const int presence = stream_presence(job.dst);
    if (presence < 0) {
        return -1;
    }
    if ((presence & kHasResource) != 0 && VEXOEAFileEAFSFinfoEASync(job.dst, 0) < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed ea sync [%s]->[%s]. %m", job.src, job.dst);
        return -1;
    }
    return 0;
}

int drop_metadata_attribute(const EaCopyJob &job) {
    if (!job.move || ::removexattr(job.src, "user.netatalk.Metadata") == 0 || errno == ENODATA || errno == ENOENT) {
        return 0;
    }
    set_error(Error::file_operation, VEXO_EA_COPY_HERE);
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "remove xattr from [%s] %m", job.src);
    return -1;
}

int copy_ea_directory_to_ea_directory(const EaCopyJob &job) {
    const int streams = copy_both_stream_files(job);
    if (streams != 0) {
        return streams;
    }
    copy_user_attributes(job);
    return 0;
}

int copy_ea_directory_to_file_ea(const EaCopyJob &job) {
    copy_user_attributes(job);
    const int presence = stream_presence(job.src);
    if (presence <= 0) {
        return presence;
    }
    if ((presence & kHasResource) != 0) {
        const int resource = convert_resource_for_file_ea(job);
        if (resource < 0) {
            return resource;
        }
    }
    StreamFiles files(job);
    return (presence & kHasEaStream) != 0 ? copy_stream_file(job, files, kEaStream) : 0;
}

int copy_file_ea_to_adfs(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, false);
    if (streams <= 0) {
        return streams;
    }
    const int result = copy_ea_directory_to_adfs(job);
    return result != 0 ? result : drop_metadata_attribute(job);
}

int copy_file_ea_to_xattrs(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, false);
    if (streams <= 0) {
        return streams;
    }
    const int result = copy_ea_directory_to_xattrs(job);
    return result != 0 ? result : drop_metadata_attribute(job);
}

int copy_file_ea_to_ea_directory(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, true);
    if (streams <= 0) {
        return streams;
    }
    const int result = copy_ea_directory_to_ea_directory(job);
    return result != 0 ? result : drop_metadata_attribute(job);
}

int copy_file_ea_to_file_ea(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, true);
    return streams <= 0 ? streams : copy_both_stream_files(job);
}

} // namespace vexo
