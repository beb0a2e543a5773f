// The files of a store in "@eaDir": which ones there are, copying one, removing one.
#pragma once

#include "ea/carry/job.h"
#include "ea/files/store_file.h"
#include "ea/files/store_place.h"
#include "ea/names/store.h"
#include "support/fd.h"
#include "support/file_ref.h"
#include "support/path_buffer.h"

#include <cstdint>
#include <optional>
#include <sys/stat.h>

namespace vexo {

// Copying one file of a store. 0: copied; kNothingToCopy: the source may not be looked at or is not there; kOneFile:
// both are one file, under two names, and nothing was done; -1: failed, reported, and the destination is gone. `made`
// gets what was copied into.
inline constexpr int kNothingToCopy = 1;
inline constexpr int kOneFile = 2;
int copy_store_file(const char *from, const char *to, Fd *made = nullptr);

// Lets a caller's function copy one file of a store, where both ends may be opened by whoever opens them by their
// paths: as copy_store_file(), or what the function answered below 0, with its errno.
int copy_by_caller(const EaCopyJob &job, const char *from, const char *to);

// Whether two files that were looked at are one.
inline bool is_one_file(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Which streams a path has: 1 the resource stream, 2 the attribute stream; -1 when a path cannot be built.
inline constexpr int kHasResource = 1;
inline constexpr int kHasEaStream = 2;
int stream_presence(const FileRef &file, StoreSeen seen = StoreSeen::unknown);

// The path of a stream of a file, and then of the other one: they differ in the last word alone, so that the volume is
// asked for its longest name once.
class StreamPath {
  public:
    explicit StreamPath(const FileRef &file) : m_file(file) {}

    // 0, or -1 reported.
    int select(const char *stream);
    const char *c_str() const { return m_text.c_str(); }
    // Opens the selected file, as open_store_file_in() does. The way to both of them is gone once.
    Fd open(int flags, struct stat &seen) {
        if (!m_place || !*m_place) {
            m_place.emplace(m_text.c_str());
        }
        return *m_place ? open_store_file_in(m_place->directory(), m_place->name(), flags, seen) : Fd();
    }

    // After open(): whether the file has certainly no directory of its own beside its streams. Leaves errno alone.
    bool lacks_own_directory() const;

  private:
    FileRef m_file;
    const char *m_selected = nullptr;
    PathBuffer m_text;
    std::optional<StorePlace> m_place; // the name it tells is that in m_text
};

// Where the stream files of one copy lie. The "@eaDir" of the destination is made when the first one comes.
struct StreamFiles {
    explicit StreamFiles(const EaCopyJob &job) : from(job.source()), to(job.destination()) {}

    StreamPath from, to;
    bool prepared = false;
    int64_t copied = -1; // bytes of the last stream that was copied from store to store
};

// Selects the path of the resource stream of `path`. 0, or -1 with a line in the log.
int select_resource(StreamPath &stream, const char *path);

// One stream file of the source to its place at the destination, and off the source where it is moved. A stream that is
// not there is no failure. 0, or as the routines, reported.
int copy_stream_file(const EaCopyJob &job, StreamFiles &files, const char *stream);

// Unlinks a stream of the source that has been carried. One that is not there is no failure. 0 or -1 with the error.
int unlink_source_stream(const EaCopyJob &job, const char *stream, int companion);
// The same for the resource stream of a source that keeps it beside attributes of its own, where it is moved.
int remove_source_resource(const EaCopyJob &job);

} // namespace vexo
