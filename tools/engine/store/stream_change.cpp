#include "tools/engine/store/stream_change.h"

#include "platform/core.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/patience.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr int kOverwrite = 1;
constexpr uint32_t kResourceForkId = 2;
constexpr uint16_t kOwnEntries = 2; // Finder Info and resource fork

// A directory to work in, and to make durable where it may be read.
int open_held(int parent, const std::string &name, int flags) {
    const int opened = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    return opened < 0 && errno == EACCES ? ::openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | flags)
                                         : opened;
}

// "@eaDir"; -1 with errno.
int open_or_make(const std::string &holder, bool make) {
    const Descriptor parent(::open(parent_of(holder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string name = base_name(holder);
    const int opened = parent.get() < 0 ? -1 : open_held(parent.get(), name, O_NOFOLLOW);
    if (opened >= 0 || parent.get() < 0 || errno != ENOENT || !make) {
        return opened;
    }
    check(make_store_directory(holder), "the directory of its store cannot be made");
    return open_held(parent.get(), name, O_NOFOLLOW);
}

// Duplicates too: of a name that is there twice the last one counts, and the one before must not come to light.
void remove_attribute(VEXOEAS *stream, const std::string &name) {
    while (VEXOEASSearch(stream, name.c_str()) >= 0) {
        check(VEXOEASRemove(stream, name.c_str()), "cannot remove it");
    }
    forget_last_error();
}

void write_attribute(VEXOEAS *stream, const std::string &name, const std::string &value) {
    check(VEXOEASWrite(stream, name.c_str(), value.data(), static_cast<uint32_t>(value.size()), 0, kOverwrite),
          "cannot write it");
}

struct Fork {
    uint32_t offset = 0, length = 0;
};
Fork fork_of(const VEXOEAS *stream) {
    Fork fork;
    check(EASGetRForkLocation(stream, &fork.offset, &fork.length), "its store cannot be read");
    return fork;
}

// What other programs keep behind the values of a "._" file moves with nothing but the library's own writing.
bool may_grow(const VEXOEAS *stream) {
    return stream->header.entryCount == kOwnEntries;
}

// An empty value is the last one, and the fork lies behind it: both grow where they are.
void write_attribute(VEXOEAS *stream, const std::string &name, const ValueInFile &value) {
    write_attribute(stream, name, std::string());
    const Fork fork = fork_of(stream);
    const int at = VEXOEASSearch(stream, name.c_str());
    if (at < 0 || at + 1 != stream->header.attrCount || !may_grow(stream)) {
        throw Failure("its store has no place for a value of that length");
    }
    VEXOEASRecord &record = stream->records[at];
    const uint64_t end = record.offset + value.size;
    if (value.size > INT32_MAX || end + fork.length > UINT32_MAX) {
        throw Failure("the value is too large for what is in its store already");
    }
    check(EASMoveRFork(stream, static_cast<uint32_t>(end), fork.offset, fork.length), "cannot write it");
    copy_bytes(value.fd, 0, stream->fd, record.offset, value.size);
    record.length = static_cast<uint32_t>(value.size);
    stream->header.dataLength += record.length;
    check(VEXOEASWriteHeader(stream), "cannot write it");
}

// Removing and writing move a resource fork as it has to be; giving a value another length in its place would not.
void apply(VEXOEAS *stream, const std::vector<StreamEdit> &edits) {
    forget_last_error();
    for (const StreamEdit &edit : edits) {
        remove_attribute(stream, edit.name);
        if (edit.fromFile) {
            write_attribute(stream, edit.name, *edit.fromFile);
        } else if (edit.value) {
            write_attribute(stream, edit.name, *edit.value);
        }
    }
}

std::optional<std::string> value_in(VEXOEAS *stream, const std::string &name) {
    const int at = VEXOEASSearch(stream, name.c_str());
    if (at < 0) {
        forget_last_error();
        return std::nullopt;
    }
    std::string value(stream->records[at].length, '\0');
    if (!value.empty()) {
        const int got = VEXOEASRead(stream, name.c_str(), value.data(), static_cast<uint32_t>(value.size()), 0);
        check(got, "cannot read it");
        value.resize(static_cast<size_t>(got));
    }
    return value;
}

[[noreturn]] void throw_not_the_same(const char *what) {
    throw Failure(std::string(what) + " would not come through a change of its store: nothing was changed");
}

void check_attributes_kept(VEXOEAS *before, VEXOEAS *after, const std::vector<StreamEdit> &edits) {
    std::set<std::string_view> edited;
    for (const StreamEdit &edit : edits) {
        edited.insert(edit.name);
    }
    std::set<std::string_view> checked;
    for (int at = before->header.attrCount - 1; at >= 0; --at) { // of two of one name the last
        const VEXOEASRecord &record = before->records[at];
        if (edited.contains(record.name) || !checked.insert(record.name).second) {
            continue;
        }
        const int found = VEXOEASSearch(after, record.name);
        if (found < 0 || after->records[found].length != record.length ||
            !same_bytes(before->fd, record.offset, after->fd, after->records[found].offset, record.length)) {
            throw_not_the_same("an attribute");
        }
    }
}

void check_finder_info_kept(const VEXOEAS *before, const VEXOEAS *after) {
    if (std::memcmp(before->header.finderInfo, after->header.finderInfo, sizeof before->header.finderInfo) != 0) {
        throw_not_the_same("the Finder Info");
    }
}

void check_fork_kept(const VEXOEAS *before, const VEXOEAS *after) {
    const Fork fork = fork_of(before);
    const Fork kept = fork_of(after);
    if (fork.length != kept.length || !same_bytes(before->fd, fork.offset, after->fd, kept.offset, fork.length)) {
        throw_not_the_same("the resource fork");
    }
}

// That the copy has all of the file but for what was to change.
void check_kept(VEXOEAS *before, VEXOEAS *after, const std::vector<StreamEdit> &edits) {
    check_attributes_kept(before, after, edits);
    check_finder_info_kept(before, after);
    check_fork_kept(before, after);
}

bool has_finder_info(const VEXOEAS *stream) {
    return std::any_of(std::begin(stream->header.finderInfo), std::end(stream->header.finderInfo),
                       [](uint8_t byte) { return byte != 0; });
}

// Behind the values of a stream that has no fork, the one of another.
void append_fork(VEXOEAS *stream, const VEXOEAS *other) {
    if (stream->header.entryCount != kOwnEntries) {
        throw Failure("the resource fork of the destination has no place in what the source has");
    }
    const Fork fork = fork_of(other);
    check(VEXOEASWriteHeader(stream), "cannot write it");
    copy_bytes(other->fd, fork.offset, stream->fd, stream->header.totalSize, fork.length);
    stream->header.entries[1].id = kResourceForkId;
    stream->header.entries[1].length = fork.length;
    check(VEXOEASWriteHeader(stream), "cannot write it");
}

void check_edited(VEXOEAS *after, const std::vector<StreamEdit> &edits) {
    for (const StreamEdit &edit : edits) {
        const int at = edit.fromFile ? VEXOEASSearch(after, edit.name.c_str()) : -1;
        const bool same = edit.fromFile ? at >= 0 && after->records[at].length == edit.fromFile->size &&
                                              same_bytes(edit.fromFile->fd, 0, after->fd, after->records[at].offset,
                                                         edit.fromFile->size)
                                        : value_in(after, edit.name) == edit.value;
        if (!same) {
            throw Failure("it does not read as it was written: nothing was changed");
        }
    }
}

// Where no copy can be made an old value is put back when the new one cannot be written, which takes both.
std::string bytes_of(const ValueInFile &file) {
    std::string bytes(file.size, '\0');
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t got = ::pread(file.fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (got < 0) {
            throw_errno("the value cannot be read");
        }
        if (got == 0) {
            throw Failure("the value has become shorter meanwhile: nothing was changed");
        }
        done += static_cast<size_t>(got);
    }
    return bytes;
}

bool is_same_entry(int directory, const std::string &name, int fd) {
    struct stat there {};
    struct stat own {};
    return ::fstatat(directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 && ::fstat(fd, &own) == 0 &&
           there.st_dev == own.st_dev && there.st_ino == own.st_ino;
}

} // namespace

StreamHandle open_stream(int fd, int lock) {
    constexpr uint32_t locked = 0x0400; // by somebody else
    Patience patience;
    for (;;) {
        forget_last_error();
        StreamHandle stream(VEXOEASOpen(fd, lock));
        if (stream) {
            return stream;
        }
        if (VLIBCErrGet() != locked) {
            throw_last_error("cannot read the attributes");
        }
        if (!patience.wait()) {
            throw_last_error("another process is using it, and did not end in time");
        }
    }
}

Descriptor open_store_directory(const std::string &place, StoreKind kind, bool make) {
    const std::string holder = parent_of(place);
    const int opened = kind == StoreKind::apple_double ? open_held(AT_FDCWD, holder, 0) : open_or_make(holder, make);
    if (opened < 0 && (make || errno != ENOENT)) {
        throw_errno("the directory of its store cannot be opened");
    }
    return Descriptor(opened);
}

bool holds_attributes_only(const VEXOEAS *stream) {
    constexpr std::array<uint8_t, sizeof stream->header.finderInfo> none{};
    uint32_t offset = 0;
    uint32_t length = 0;
    const bool hasFork = EASGetRForkLocation(stream, &offset, &length) == 0 && length > 0;
    return stream->header.entryCount == kOwnEntries && !hasFork &&
           std::equal(none.begin(), none.end(), stream->header.finderInfo);
}

StreamChange::StreamChange(std::string path, StoreKind kind, bool make, std::string file)
    : m_path(std::move(path)), m_itself(file.empty() ? m_path : std::move(file)), m_kind(kind),
      m_place(stream_path(m_path, kind, kEaStream)), m_directory(-1), m_file(-1) {
    forget_last_error();
    Descriptor directory = open_store_directory(m_place, kind, make);
    m_directory.swap(directory);
    if (m_directory.get() >= 0) {
        lock();
    }
}

void StreamChange::lock() {
    const std::string name = base_name(m_place);
    do {
        m_stream.reset();
        Descriptor file(::openat(m_directory.get(), name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (file.get() < 0 && errno == ENOENT) {
            return;
        }
        struct stat found {};
        if (file.get() < 0 || ::fstat(file.get(), &found) != 0) {
            throw_errno("cannot open the attributes");
        }
        if (!S_ISREG(found.st_mode)) {
            throw Failure("what is in the place of its store is no regular file");
        }
        m_file.swap(file);
        m_stream = open_stream(m_file.get(), F_WRLCK);
        // One that was replaced or removed before the lock was there is not what anybody will read.
    } while (!is_same_entry(m_directory.get(), name, m_file.get()));
}

bool StreamChange::has(const std::string &name) const {
    const bool found = m_stream && VEXOEASSearch(m_stream.get(), name.c_str()) >= 0;
    forget_last_error();
    return found;
}

std::optional<std::string> StreamChange::value(const std::string &name) const {
    return m_stream ? value_in(m_stream.get(), name) : std::nullopt;
}

bool StreamChange::would_be_empty(const std::vector<StreamEdit> &edits) const {
    if (!m_stream || !holds_attributes_only(m_stream.get())) {
        return false;
    }
    std::set<std::string_view> removed;
    for (const StreamEdit &edit : edits) {
        if (edit.has_value()) {
            return false;
        }
        removed.insert(edit.name);
    }
    return std::all_of(m_stream->records, m_stream->records + m_stream->header.attrCount,
                       [&](const VEXOEASRecord &record) { return removed.contains(record.name); });
}

void StreamChange::remove_file() const {
    const std::string name = base_name(m_place);
    (void)::unlinkat(m_directory.get(), private_name_for(name).c_str(), 0); // of a killed run: it would stay for good
    if (::unlinkat(m_directory.get(), name.c_str(), 0) != 0) {
        throw_errno("its store cannot be removed");
    }
    (void)EARemoveEADir(m_place.c_str()); // Where other files have their stores in it, it stays.
}

void StreamChange::commit(const std::vector<StreamEdit> &edits) const {
    (void)EASetSmbArchive(m_itself.c_str()); // not every platform has such a flag
    if (would_be_empty(edits)) {
        remove_file();
        return;
    }
    if (!m_stream && m_directory.get() < 0) {
        throw Failure("it has no store");
    }
    struct stat before {};
    if (m_stream && ::faccessat(m_directory.get(), ".", W_OK, AT_EACCESS) != 0) {
        change_in_place(edits); // its directory takes no copy
        return;
    }
    PrivateFile copy(m_directory.get(), base_name(m_place), m_stream ? 0600 : 0777);
    if (m_stream && ::fstat(m_file.get(), &before) == 0 && !take_properties(m_file.get(), copy.fd())) {
        change_in_place(edits);
        return;
    }
    replace(edits, copy);
}

void StreamChange::replace(const std::vector<StreamEdit> &edits, PrivateFile &copy) const {
    if (m_stream) {
        copy.fill_from(m_file.get());
    }
    apply(open_stream(copy.fd(), F_WRLCK).get(), edits);
    {
        const StreamHandle after = open_stream(copy.fd(), F_RDLCK);
        if (m_stream) {
            check_kept(m_stream.get(), after.get(), edits);
        }
        check_edited(after.get(), edits);
    }
    // Writing takes some attributes away, those of the file's capabilities among them.
    if (m_stream && !take_properties(m_file.get(), copy.fd())) {
        throw Failure("its store cannot be given its owner and rights: nothing was changed");
    }
    copy.put_in_place(m_stream != nullptr);
    hide();
}

// Where the volume can hide a "._" file, which is the library's to know.
void StreamChange::hide() const {
    if (m_kind == StoreKind::apple_double) {
        const Descriptor hidden(VEXOEAOpen(kCurrentLayout, m_path.c_str(), kEaStream, O_RDONLY, 1));
    }
}

void StreamChange::complete(int fd) const {
    forget_last_error();
    std::vector<StreamEdit> brought;
    bool takesFinderInfo = false;
    bool takesFork = false;
    {
        const StreamHandle stream = open_stream(fd, F_WRLCK);
        for (int at = 0; at < stream->header.attrCount; ++at) {
            brought.push_back({stream->records[at].name, std::nullopt});
        }
        for (int at = 0; at < m_stream->header.attrCount; ++at) {
            const std::string name = m_stream->records[at].name;
            if (VEXOEASSearch(stream.get(), name.c_str()) < 0) {
                write_attribute(stream.get(), name, value_in(m_stream.get(), name).value_or(""));
            }
        }
        takesFinderInfo = !has_finder_info(stream.get()) && has_finder_info(m_stream.get());
        if (takesFinderInfo) {
            std::memcpy(stream->header.finderInfo, m_stream->header.finderInfo, sizeof stream->header.finderInfo);
            check(EASWriteFinderInfo(stream.get()), "cannot write it");
        }
        takesFork = fork_of(stream.get()).length == 0 && fork_of(m_stream.get()).length > 0;
        if (takesFork) {
            append_fork(stream.get(), m_stream.get());
        }
    }
    const StreamHandle after = open_stream(fd, F_RDLCK);
    check_attributes_kept(m_stream.get(), after.get(), brought);
    if (takesFinderInfo) {
        check_finder_info_kept(m_stream.get(), after.get());
    }
    if (takesFork) {
        check_fork_kept(m_stream.get(), after.get());
    }
}

void StreamChange::take_over(int brought, mode_t mode) const {
    PrivateFile copy(m_directory.get(), base_name(m_place), 0600);
    copy.fill_from(brought);
    if (m_stream) {
        // Before what is the present one's is in it, and again, since writing takes some attributes away.
        take_properties_of_ours(m_file.get(), copy.fd());
        complete(copy.fd());
        take_properties_of_ours(m_file.get(), copy.fd());
    } else {
        give_mode(copy.fd(), mode);
    }
    copy.put_in_place(m_stream != nullptr);
    hide();
}

// For who may write the file but not give a copy to its owner, or put none beside it. What cannot be written leaves the
// value that was there; only a kill in the middle can do harm.
void StreamChange::change_in_place(const std::vector<StreamEdit> &edits) const {
    for (StreamEdit edit : edits) {
        if (const auto file = std::exchange(edit.fromFile, {})) {
            edit.value = bytes_of(*file);
        }
        const std::optional<std::string> old = value_in(m_stream.get(), edit.name);
        try {
            apply(m_stream.get(), {edit});
        } catch (const Failure &) {
            if (old && VEXOEASSearch(m_stream.get(), edit.name.c_str()) < 0) {
                const uint32_t code = VLIBCErrGet();
                (void)VEXOEASWrite(m_stream.get(), edit.name.c_str(), old->data(), static_cast<uint32_t>(old->size()),
                                   0, kOverwrite);
                VLIBCErrSetEx(code, "", 0);
            }
            throw;
        }
    }
    check(VEXOEASFlush(m_stream.get()), "its store cannot be made durable");
    if (m_stream->header.attrCount == 0 && holds_attributes_only(m_stream.get())) {
        (void)::unlinkat(m_directory.get(), base_name(m_place).c_str(), 0);
    }
}

} // namespace engine
