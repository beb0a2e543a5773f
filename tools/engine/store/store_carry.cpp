#include "tools/engine/store/store_carry.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/stream_change.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kEaStream[] = "VexoEAStream";
constexpr char kResource[] = "VexoResource";
constexpr char kFlushTime[] = "user.vexo.filea.flushtime";
constexpr char kDosAttributes[] = "user.DOSATTRIB";
constexpr int kAskForKind = -1;
constexpr uint32_t kFinderInfoId = 9;
constexpr size_t kHeaderBytes = size_t{1} << 16;

// A private, empty file beside the destination that the library carries the store to.
class StandIn {
  public:
    StandIn(const std::string &destination, int type)
        : m_directory(::open(parent_of(destination).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
          m_file(m_directory.get(), base_name(destination), 0600),
          m_path(joined(parent_of(destination), m_file.name())), m_type(type) {
        remove_store(); // of a killed run
    }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;
    ~StandIn() { remove_store(); }
    const std::string &path() const { return m_path; }

  private:
    void remove_store() const { (void)VEXOEARemove(m_path.c_str(), m_type); }
    Descriptor m_directory;
    PrivateFile m_file;
    std::string m_path;
    int m_type;
};

std::string attribute_of(const std::string &path, const char *name) {
    std::string value(size_t{1} << 16, '\0');
    const ssize_t size = ::getxattr(path.c_str(), name, value.data(), value.size());
    value.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return value;
}

void set_attribute(const std::string &path, const char *name, const std::string &value) {
    if (!value.empty() && ::setxattr(path.c_str(), name, value.data(), value.size(), 0) != 0) {
        throw_errno(fmt::format("{} cannot be set", name));
    }
}

// One of the resource files, open.
struct ResourceFile {
    Descriptor file;
    AppleDouble header;

    explicit ResourceFile(int fd) : file(fd) {
        struct stat found {};
        if (fd < 0 || ::fstat(fd, &found) != 0 || !S_ISREG(found.st_mode)) {
            throw_errno("a resource file cannot be opened");
        }
        std::string bytes(kHeaderBytes, '\0');
        const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), 0);
        if (got < 0) {
            throw_errno("a resource file cannot be read");
        }
        header = parse_apple_double(std::string_view(bytes).substr(0, static_cast<size_t>(got)),
                                    static_cast<uint64_t>(found.st_size));
    }
    bool has_finder_info() const {
        return std::ranges::any_of(header.finderInfo, [](char byte) { return byte != '\0'; });
    }
    bool has_fork() const { return header.forkLength > 0; }
};

// Into a file with the header of `layout`.
void write_finder_info(int fd, const AppleDouble &layout, const std::string &finderInfo) {
    const auto entry = std::ranges::find(layout.entries, kFinderInfoId, &AppleDouble::Entry::id);
    if (entry == layout.entries.end()) {
        throw Failure("a resource file has no place for the Finder Info of the other");
    }
    if (::pwrite(fd, finderInfo.data(), finderInfo.size(), static_cast<off_t>(entry->offset)) !=
        static_cast<ssize_t>(finderInfo.size())) {
        throw_errno("a resource file cannot be written");
    }
}

void lock_against_others(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_SETLK, &lock) != 0) {
        throw_errno("the resource file is locked by another process");
    }
}

// Finder Info and fork of the stand-in, each where it has one; those of the destination where it has none.
void carry_resource(const std::string &standIn, const std::string &destination, StoreKind kind) {
    const std::string from = stream_path(standIn, kind, kResource);
    if (!exists(from)) {
        return;
    }
    const std::string name = base_name(stream_path(destination, kind, kResource));
    const Descriptor directory = open_store_directory(from, kind, false);
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const ResourceFile brought(::openat(directory.get(), base_name(from).c_str(), flags));
    const int there = ::openat(directory.get(), name.c_str(), flags);
    if (there < 0 && errno == ENOENT) {
        put_in_place(directory.get(), brought.file.get(), base_name(from), name, false);
        return;
    }
    const ResourceFile present(there);
    lock_against_others(there);
    if (present.has_fork() && !brought.has_fork()) {
        PrivateFile copy(directory.get(), name, 0600);
        take_properties_of_ours(there, copy.fd());
        copy.fill_from(there);
        if (brought.has_finder_info()) {
            write_finder_info(copy.fd(), present.header, brought.header.finderInfo);
        }
        copy.put_in_place(true);
    } else if (brought.has_fork() || brought.has_finder_info()) {
        if (present.has_finder_info() && !brought.has_finder_info()) {
            write_finder_info(brought.file.get(), brought.header, present.header.finderInfo);
        }
        take_properties_of_ours(there, brought.file.get());
        put_in_place(directory.get(), brought.file.get(), base_name(from), name, true);
    }
}

void remove_file(const std::string &place) {
    if (::unlink(place.c_str()) != 0 && errno != ENOENT) {
        throw_errno(fmt::format("{} cannot be removed", displayed(place)));
    }
}

// The metadata attribute, where a volume keeps one. The stand-in loses it, so that the library makes no resource file
// of it once more.
void carry_metadata_attribute(const std::string &standIn, const std::string &destination) {
    for (const char *name : {kMetadataName, kFlushTime}) {
        set_attribute(destination, name, attribute_of(standIn, name));
        (void)::removexattr(standIn.c_str(), name);
    }
}

[[noreturn]] void throw_missing(const std::string &what) {
    throw Failure(fmt::format("{} did not arrive", what));
}

// What other services keep in the file's own directory in "@eaDir".
void check_directory_arrived(const std::string &source, const std::string &destination) {
    char from[PATH_MAX] = "";
    char to[PATH_MAX] = "";
    if (VEXOEADirPath(0, source.c_str(), from, sizeof from - 1) != 0 ||
        VEXOEADirPath(0, destination.c_str(), to, sizeof to - 1) != 0) {
        return;
    }
    constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor ours(::open(from, directoryFlags));
    if (ours.get() < 0 && (errno == ENOENT || errno == ENOTDIR)) {
        return;
    }
    const Descriptor theirs(::open(to, directoryFlags));
    const auto entries = ours.get() < 0 ? std::nullopt : entries_in(ours.get());
    if (!entries) {
        throw_missing("what is in the file's directory");
    }
    for (const Entry &entry : *entries) {
        if (entry.type != DT_REG) {
            throw_missing(displayed(entry.name) + " in the file's directory");
        }
        constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const Descriptor one(::openat(ours.get(), entry.name.c_str(), flags));
        const Descriptor other(::openat(theirs.get(), entry.name.c_str(), flags));
        if (one.get() < 0 || other.get() < 0 || !same_bytes(one.get(), 0, other.get(), 0, UINT64_MAX)) {
            throw_missing(displayed(entry.name) + " in the file's directory");
        }
    }
}

// A source of native attributes has some that other volumes keep in other ways; what the library could not carry of
// those it leaves at the source.
void check_arrived(const Store &source, const std::string &destination) {
    if (source.kind() == StoreKind::native) {
        return;
    }
    const Store::Metadata wanted = source.metadata();
    const Store::Metadata found = Store(destination).metadata();
    for (const auto &[name, value] : wanted.attributes) {
        const auto there = found.attributes.find(name);
        if (there == found.attributes.end() || there->second != value) {
            throw_missing("attribute " + displayed(name));
        }
    }
    if (!wanted.finderInfo.empty() && wanted.finderInfo != found.finderInfo) {
        throw_missing("the Finder Info");
    }
    if (!wanted.fork.empty() && wanted.fork != found.fork) {
        throw_missing("the resource fork");
    }
}

// What cannot be read there might be replaced, although somebody could still repair it.
void check_readable(const std::string &destination) {
    try {
        (void)Store(destination).metadata();
    } catch (const Failure &failure) {
        throw Failure(fmt::format("nothing was done; the destination {}: {}", displayed(destination), failure.what()));
    }
}

void carry(const std::string &from, const std::string &to, bool move, bool fullDirectory) {
    check(VEXOEACopy(from.c_str(), to.c_str(), move ? 1 : 0, fullDirectory ? 1 : 0, kAskForKind, kAskForKind, 0, 0),
          "cannot be carried");
}

// After everything was found to have arrived.
void remove_carried(const Store &source, const std::string &destination, int type, bool fullDirectory) {
    if (source.kind() == StoreKind::native) {
        // The library removes what it carries. It carries that once more, to where it is not needed.
        const StandIn standIn(destination, type);
        forget_last_error();
        carry(source.path(), standIn.path(), true, fullDirectory);
        return;
    }
    const bool betweenDirectories =
        source.kind() != StoreKind::apple_double && store_kind(type) != StoreKind::apple_double;
    if (betweenDirectories || fullDirectory) {
        check_directory_arrived(source.path(), destination);
        check(EARemove(0, source.path().c_str()), "the file's directory cannot be removed at the source");
    }
    if (source.kind() == StoreKind::file_ea) {
        for (const char *name : {kMetadataName, kFlushTime}) {
            if (::removexattr(source.path().c_str(), name) != 0 && errno != ENODATA && errno != EOPNOTSUPP) {
                throw_errno(fmt::format("{} cannot be removed at the source", name));
            }
        }
    }
    for (const char *stream : {kEaStream, kResource}) {
        const std::string place = source.stream_path(stream);
        remove_file(place);
        (void)EARemoveEADir(place.c_str());
    }
}

} // namespace

void carry_to_files(const std::string &source, const std::string &destination, int type, bool move,
                    bool fullDirectory) {
    const Store from(source);
    const StoreKind kind = store_kind(type);
    check_readable(destination);
    {
        const StandIn standIn(destination, type);
        // What the library sets there is set on top of what the destination has.
        set_attribute(standIn.path(), kDosAttributes, attribute_of(destination, kDosAttributes));
        forget_last_error();
        carry(source, standIn.path(), false, fullDirectory);
        if (kind != StoreKind::apple_double) {
            carry_resource(standIn.path(), destination, kind);
        }
        if (const std::string stream = stream_path(standIn.path(), kind, kEaStream); exists(stream)) {
            StreamChange(destination, kind, true).take_over(base_name(stream));
        }
        if (kind == StoreKind::file_ea) {
            carry_metadata_attribute(standIn.path(), destination);
        }
        for (const char *stream : {kEaStream, kResource}) {
            remove_file(stream_path(standIn.path(), kind, stream)); // or it would be carried over what is in place now
        }
        // What is left: the locked state, the user's own attributes, the file's directory in "@eaDir".
        forget_last_error();
        carry(standIn.path(), destination, false, fullDirectory);
        check_arrived(from, destination);
    }
    if (move) {
        remove_carried(from, destination, type, fullDirectory);
    }
}

} // namespace engine
