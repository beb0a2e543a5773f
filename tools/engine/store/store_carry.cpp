#include "tools/engine/store/store_carry.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/stand_in.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/store/stream_change.h"
#include "tools/engine/walk/directory.h"
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

constexpr char kResource[] = "VexoResource";
constexpr char kFlushTime[] = "user.vexo.filea.flushtime";
constexpr char kDosAttributes[] = "user.DOSATTRIB";
constexpr uint32_t kFinderInfoId = 9;
constexpr size_t kHeaderBytes = size_t{1} << 16;
constexpr int kReadStore = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// What there is to carry, and where to.
struct Carrying {
    const HeldEntry &source;
    int sourceType;
    const HeldEntry &destination;
    int type;
    bool fullDirectory;

    StoreKind kind() const { return store_kind(type); }
    StoreKind source_kind() const { return store_kind(sourceType); }
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

// What a store file may be opened for by others where there is none yet: all that the library gives, and no more than
// the source's has.
mode_t mode_of_new(const Carrying &carrying) {
    const StoreKind kind = carrying.source_kind();
    mode_t mode = 0777;
    if (carrying.kind() == StoreKind::apple_double) {
        const mode_t mask = ::umask(0);
        (void)::umask(mask);
        mode &= ~mask;
    }
    if (kind == StoreKind::native || kind == StoreKind::none) {
        return mode;
    }
    for (const char *stream : {kEaStream, kResource}) {
        const std::string place = stream_path(carrying.source.path(), kind, stream);
        const Descriptor directory = open_store_directory(place, kind, false);
        struct stat found {};
        if (directory.get() >= 0 &&
            ::fstatat(directory.get(), base_name(place).c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
            mode &= found.st_mode;
        }
    }
    return mode;
}

// Finder Info and fork of the stand-in, each where it has one; those of the destination where it has none.
void carry_resource(const Carrying &carrying, const StandIn &standIn) {
    const StoreKind kind = carrying.kind();
    const std::string from = stream_path(standIn.path(), kind, kResource);
    const Descriptor fromDirectory = open_store_directory(from, kind, false);
    const int opened = ::openat(fromDirectory.get(), base_name(from).c_str(), kReadStore);
    if (opened < 0 && errno == ENOENT) {
        return;
    }
    const ResourceFile brought(opened);
    const std::string to = stream_path(carrying.destination.path(), kind, kResource);
    const std::string name = base_name(to);
    const Descriptor directory = open_store_directory(to, kind, true);
    PrivateFile copy(directory.get(), name, 0600);
    const int there = ::openat(directory.get(), name.c_str(), (kReadStore & ~O_ACCMODE) | O_RDWR);
    if (there < 0 && errno == ENOENT) {
        copy.fill_from(brought.file.get());
        give_mode(copy.fd(), mode_of_new(carrying));
        copy.put_in_place(false);
        return;
    }
    const ResourceFile present(there);
    lock_against_others(there);
    if (!brought.has_fork() && !brought.has_finder_info()) {
        return;
    }
    take_properties_of_ours(there, copy.fd());
    const bool keepsFork = present.has_fork() && !brought.has_fork();
    copy.fill_from(keepsFork ? there : brought.file.get());
    if (keepsFork && brought.has_finder_info()) {
        write_finder_info(copy.fd(), present.header, brought.header.finderInfo);
    } else if (!keepsFork && present.has_finder_info() && !brought.has_finder_info()) {
        write_finder_info(copy.fd(), brought.header, present.header.finderInfo);
    }
    take_properties_of_ours(there, copy.fd()); // writing takes some attributes away
    copy.put_in_place(true);
}

void remove_file(const HeldEntry &entry, StoreKind kind, const std::string &place) {
    const Descriptor directory = open_store_directory(place, kind, false);
    if (directory.get() >= 0 && ::unlinkat(directory.get(), base_name(place).c_str(), 0) != 0 && errno != ENOENT) {
        throw_errno(fmt::format("{} cannot be removed", displayed(entry.shown(place))));
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

// All that the stand-in has got, where they are the file's own. What a store file names like the system's attributes is
// what anybody may have written there; as an attribute it would be in force.
void carry_native(const Carrying &carrying, const StandIn &standIn, const HeldEntry &destination) {
    const std::string from = standIn.entry().itself();
    for (const std::string &name : native_names(from)) {
        if (carrying.source_kind() != StoreKind::native && is_of_the_system(name)) {
            continue;
        }
        const auto value = native_value(from, name);
        if (value) {
            set_native_value(destination.itself(), name, *value, 0);
        }
    }
}

// The file's own directory in "@eaDir"; -1 where there is none.
Descriptor open_own_directory(const HeldEntry &entry, bool make) {
    char place[PATH_MAX] = "";
    if (VEXOEADirPath(0, entry.path().c_str(), place, sizeof place - 1) != 0) {
        return Descriptor(-1);
    }
    const std::string name = base_name(place);
    const Descriptor stores = open_store_directory(place, StoreKind::ea_directory, make);
    Descriptor own = open_directory(stores.get(), name);
    if (own.get() < 0 && errno == ENOENT && make) {
        check(make_store_directory(place), "the file's directory in \"@eaDir\" cannot be made");
        own = open_directory(stores.get(), name);
    }
    return own;
}

// What other services keep there, each file under its name.
void carry_own_directory(const Carrying &carrying, const StandIn &standIn) {
    const Descriptor from = open_own_directory(standIn.entry(), false);
    const auto entries = from.get() < 0 ? std::nullopt : entries_in(from.get());
    if (!entries || entries->empty()) {
        return;
    }
    const Descriptor before = open_own_directory(carrying.source, false);
    const Descriptor to = open_own_directory(carrying.destination, true);
    if (to.get() < 0) {
        throw_errno("the file's directory in \"@eaDir\" cannot be opened");
    }
    for (const Entry &entry : *entries) {
        const Descriptor brought(::openat(from.get(), entry.name.c_str(), kReadStore));
        const Descriptor there(::openat(to.get(), entry.name.c_str(), kReadStore));
        struct stat found {};
        if (brought.get() < 0 || (there.get() < 0 && errno != ENOENT) ||
            (there.get() >= 0 && (::fstat(there.get(), &found) != 0 || !S_ISREG(found.st_mode)))) {
            throw Failure(fmt::format("{} in the file's directory cannot be replaced", displayed(entry.name)));
        }
        PrivateFile copy(to.get(), entry.name, 0600);
        if (there.get() >= 0) {
            take_properties_of_ours(there.get(), copy.fd());
        }
        copy.fill_from(brought.get());
        if (there.get() < 0) {
            const bool known = ::fstatat(before.get(), entry.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0;
            give_mode(copy.fd(), known ? found.st_mode & 0777 : 0600);
        }
        copy.put_in_place(there.get() >= 0);
    }
}

// Where that is how a volume keeps it. Only the owner of a file may, as with every change of its mode; one that is not
// locked at the source opens nothing at the destination.
void carry_lock_by_mode(const StandIn &standIn, const HeldEntry &destination) {
    struct stat found {};
    const std::string path = destination.itself();
    const uid_t user = ::geteuid();
    if (!standIn.is_locked_by_mode() || ::stat(path.c_str(), &found) != 0 || (user != 0 && user != found.st_uid)) {
        return;
    }
    if (::chmod(path.c_str(), found.st_mode & 07777 & ~mode_t{0222}) != 0) {
        throw_errno("the destination cannot be locked");
    }
}

[[noreturn]] void throw_missing(const std::string &what) {
    throw Failure(fmt::format("{} did not arrive", what));
}

// What other services keep in the file's own directory in "@eaDir".
void check_directory_arrived(const Carrying &carrying) {
    const Descriptor ours = open_own_directory(carrying.source, false);
    if (ours.get() < 0 && (errno == ENOENT || errno == ENOTDIR || errno == EBADF)) {
        return;
    }
    const Descriptor theirs = open_own_directory(carrying.destination, false);
    const auto entries = ours.get() < 0 ? std::nullopt : entries_in(ours.get());
    if (!entries) {
        throw_missing("what is in the file's directory");
    }
    for (const Entry &entry : *entries) {
        if (entry.type != DT_REG) {
            throw_missing(displayed(entry.name) + " in the file's directory");
        }
        const Descriptor one(::openat(ours.get(), entry.name.c_str(), kReadStore));
        const Descriptor other(::openat(theirs.get(), entry.name.c_str(), kReadStore));
        if (one.get() < 0 || other.get() < 0 || !same_bytes(one.get(), 0, other.get(), 0, UINT64_MAX)) {
            throw_missing(displayed(entry.name) + " in the file's directory");
        }
    }
}

// A source of native attributes has some that other volumes keep in other ways; what the library could not carry of
// those it leaves at the source.
void check_arrived(const Carrying &carrying) {
    if (carrying.source_kind() == StoreKind::native) {
        return;
    }
    const Store::Metadata wanted = Store(carrying.source).metadata();
    const Store::Metadata found = Store(carrying.destination).metadata();
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
void check_readable(const HeldEntry &destination) {
    try {
        (void)Store(destination).metadata();
    } catch (const Failure &failure) {
        throw Failure(
            fmt::format("nothing was done; the destination {}: {}", displayed(destination.given()), failure.what()));
    }
}

void carry(const Carrying &carrying, const StandIn &standIn, bool move) {
    forget_last_error();
    check(VEXOEACopy(carrying.source.path().c_str(), standIn.path().c_str(), move ? 1 : 0,
                     carrying.fullDirectory ? 1 : 0, carrying.sourceType, carrying.type, 0, 0),
          "cannot be carried");
}

// From a stand-in that has nothing else any more: whether the file is locked, and the user's own attributes.
void carry_flags(const Carrying &carrying, const StandIn &standIn) {
    forget_last_error();
    carrying.destination.check_still();
    check(VEXOEACopy(standIn.path().c_str(), carrying.destination.path().c_str(), 0, 0, carrying.type, carrying.type, 0,
                     0),
          "cannot be carried");
}

// After everything was found to have arrived.
void remove_carried(const Carrying &carrying) {
    const StoreKind kind = carrying.source_kind();
    const std::string path = carrying.source.path();
    if (kind == StoreKind::native) {
        // The library removes what it carries. It carries that once more, to where it is not needed.
        const StandIn standIn(carrying.destination, carrying.kind());
        carry(carrying, standIn, true);
        return;
    }
    const bool betweenDirectories = kind != StoreKind::apple_double && carrying.kind() != StoreKind::apple_double;
    if (betweenDirectories || carrying.fullDirectory) {
        check_directory_arrived(carrying);
        check(EARemove(0, path.c_str()), "the file's directory cannot be removed at the source");
    }
    if (kind == StoreKind::file_ea) {
        for (const char *name : {kMetadataName, kFlushTime}) {
            if (::removexattr(carrying.source.itself().c_str(), name) != 0 && errno != ENODATA && errno != EOPNOTSUPP) {
                throw_errno(fmt::format("{} cannot be removed at the source", name));
            }
        }
    }
    for (const char *stream : {kEaStream, kResource}) {
        const std::string place = stream_path(path, kind, stream);
        remove_file(carrying.source, kind, place);
        (void)EARemoveEADir(place.c_str());
    }
}

// The stream, which a "._" file is as well.
void carry_stream(const Carrying &carrying, const StandIn &standIn) {
    const StoreKind kind = carrying.kind();
    const std::string place = stream_path(standIn.path(), kind, kEaStream);
    const Descriptor directory = open_store_directory(place, kind, false);
    const Descriptor brought(::openat(directory.get(), base_name(place).c_str(), kReadStore));
    if (brought.get() >= 0) {
        StreamChange(carrying.destination.path(), kind, true, carrying.destination.itself())
            .take_over(brought.get(), mode_of_new(carrying));
    } else if (errno != ENOENT) {
        throw_errno("a copy of its store cannot be read");
    }
}

void carry_all(const Carrying &carrying) {
    const HeldEntry &destination = carrying.destination;
    const StoreKind kind = carrying.kind();
    const StandIn standIn(destination, kind);
    // What the library sets there is set on top of what the destination has.
    set_attribute(standIn.path(), kDosAttributes, attribute_of(destination.itself(), kDosAttributes));
    carry(carrying, standIn, false);
    if (kind == StoreKind::native) {
        carry_native(carrying, standIn, destination);
    } else {
        if (kind != StoreKind::apple_double) {
            carry_resource(carrying, standIn);
        }
        carry_stream(carrying, standIn);
    }
    if (kind == StoreKind::file_ea) {
        carry_metadata_attribute(standIn.path(), destination.itself());
    }
    carry_own_directory(carrying, standIn);
    if (kind == StoreKind::native || kind == StoreKind::apple_double) {
        carry_lock_by_mode(standIn, destination);
        (void)EASetSmbArchive(destination.itself().c_str()); // not every platform has such a flag
    } else {
        for (const char *stream : {kEaStream, kResource}) { // or it would be carried over what is in place now
            remove_file(standIn.entry(), kind, stream_path(standIn.path(), kind, stream));
        }
        (void)EARemove(0, standIn.path().c_str());
        carry_flags(carrying, standIn);
    }
    check_arrived(carrying);
}

} // namespace

void carry_store_apart(const HeldEntry &source, const HeldEntry &destination, bool move, bool fullDirectory) {
    const Carrying carrying{source, volume_type(source), destination, volume_type(destination), fullDirectory};
    (void)Store(source); // of a volume that keeps nothing, there is nothing to carry
    check_readable(destination);
    carry_all(carrying);
    if (move) {
        remove_carried(carrying);
    }
}

} // namespace engine
