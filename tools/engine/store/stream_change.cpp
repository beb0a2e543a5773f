#include "tools/engine/store/stream_change.h"

#include "platform/core.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/paths.h"

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

namespace engine {
namespace {

constexpr char kEaStream[] = "VexoEAStream";
constexpr int kCurrentLayout = 1;
constexpr int kOverwrite = 1;
constexpr uint16_t kOwnEntries = 2; // Finder Info and resource fork

// A directory to work in, and to make durable where it may be read.
void open_held(int parent, const std::string &name, int flags, Descriptor &held) {
    Descriptor opened(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
    if (opened.get() < 0 && errno == EACCES) {
        Descriptor unread(::openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | flags));
        opened.swap(unread);
    }
    held.swap(opened);
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

// Removing and writing move a resource fork as it has to be; giving a value another length in its place would not.
void apply(VEXOEAS *stream, const std::vector<StreamEdit> &edits) {
    forget_last_error();
    for (const StreamEdit &edit : edits) {
        remove_attribute(stream, edit.name);
        if (edit.value) {
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

struct Fork {
    uint32_t offset = 0, length = 0;
};
Fork fork_of(const VEXOEAS *stream) {
    Fork fork;
    check(EASGetRForkLocation(stream, &fork.offset, &fork.length), "its store cannot be read");
    return fork;
}

[[noreturn]] void throw_not_the_same(const char *what) {
    throw Failure(std::string(what) + " would not come through a change of its store: nothing was changed");
}

// That the copy has all of the file but for what was to change.
void check_kept(VEXOEAS *before, VEXOEAS *after, const std::vector<StreamEdit> &edits) {
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
    if (std::memcmp(before->header.finderInfo, after->header.finderInfo, sizeof before->header.finderInfo) != 0) {
        throw_not_the_same("the Finder Info");
    }
    const Fork fork = fork_of(before);
    const Fork kept = fork_of(after);
    if (fork.length != kept.length || !same_bytes(before->fd, fork.offset, after->fd, kept.offset, fork.length)) {
        throw_not_the_same("the resource fork");
    }
}

void check_edited(VEXOEAS *after, const std::vector<StreamEdit> &edits) {
    for (const StreamEdit &edit : edits) {
        if (value_in(after, edit.name) != edit.value) {
            throw Failure("it does not read as it was written: nothing was changed");
        }
    }
}

bool is_same_entry(int directory, const std::string &name, int fd) {
    struct stat there {};
    struct stat own {};
    return ::fstatat(directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 && ::fstat(fd, &own) == 0 &&
           there.st_dev == own.st_dev && there.st_ino == own.st_ino;
}

StreamHandle opened(int fd, int lock) {
    StreamHandle stream(VEXOEASOpen(fd, lock));
    if (!stream) {
        throw_last_error("cannot read the attributes");
    }
    return stream;
}

} // namespace

bool holds_attributes_only(const VEXOEAS *stream) {
    constexpr std::array<uint8_t, sizeof stream->header.finderInfo> none{};
    uint32_t offset = 0;
    uint32_t length = 0;
    const bool hasFork = EASGetRForkLocation(stream, &offset, &length) == 0 && length > 0;
    return stream->header.entryCount == kOwnEntries && !hasFork &&
           std::equal(none.begin(), none.end(), stream->header.finderInfo);
}

StreamChange::StreamChange(std::string path, StoreKind kind, bool make)
    : m_path(std::move(path)), m_kind(kind), m_place(stream_path(m_path, kind, kEaStream)), m_directory(-1),
      m_file(-1) {
    forget_last_error();
    open_directory_of_stream(make);
    if (m_directory.get() >= 0) {
        lock();
    }
}

void StreamChange::open_directory_of_stream(bool make) {
    const std::string holder = parent_of(m_place);
    if (m_kind == StoreKind::apple_double) {
        open_held(AT_FDCWD, holder, 0, m_directory);
    } else {
        const Descriptor parent(::open(parent_of(holder).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const std::string name = base_name(holder);
        if (parent.get() >= 0) {
            open_held(parent.get(), name, O_NOFOLLOW, m_directory);
        }
        if (parent.get() >= 0 && m_directory.get() < 0 && errno == ENOENT) {
            if (!make) {
                return;
            }
            check(VEXOEAMKDir(0, holder.c_str()), "the directory of its store cannot be made");
            open_held(parent.get(), name, O_NOFOLLOW, m_directory);
        }
    }
    if (m_directory.get() < 0) {
        throw_errno("the directory of its store cannot be opened");
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
        m_stream = opened(m_file.get(), F_WRLCK);
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
        if (edit.value) {
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
    (void)EASetSmbArchive(m_path.c_str()); // not every platform has such a flag
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
    if (m_stream && ::fstat(m_file.get(), &before) == 0 && !copy.take_properties(m_file.get())) {
        change_in_place(edits);
        return;
    }
    replace(edits, copy);
}

void StreamChange::replace(const std::vector<StreamEdit> &edits, PrivateFile &copy) const {
    if (m_stream) {
        copy.fill_from(m_file.get());
    }
    apply(opened(copy.fd(), F_WRLCK).get(), edits);
    {
        const StreamHandle after = opened(copy.fd(), F_RDLCK);
        if (m_stream) {
            check_kept(m_stream.get(), after.get(), edits);
        }
        check_edited(after.get(), edits);
    }
    // Writing takes some attributes away, those of the file's capabilities among them.
    if (m_stream && !copy.take_properties(m_file.get())) {
        throw Failure("its store cannot be given its owner and rights: nothing was changed");
    }
    copy.put_in_place(m_stream != nullptr);
    if (m_kind == StoreKind::apple_double) {
        // Hidden where the volume can hide it, which is the library's to know.
        const Descriptor hidden(VEXOEAOpen(kCurrentLayout, m_path.c_str(), kEaStream, O_RDONLY, 1));
    }
}

// For who may write the file but not give a copy to its owner, or put none beside it. What cannot be written leaves the
// value that was there; only a kill in the middle can do harm.
void StreamChange::change_in_place(const std::vector<StreamEdit> &edits) const {
    for (const StreamEdit &edit : edits) {
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
