#include "tools/engine/stores/entry_forms.h"

#include "ea/ea.h"
#include "platform/acl.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr size_t kLongestWithDouble = 253; // with "._" as long as a name can be
constexpr std::string_view kDoubleStart("\0\5\26\7", 4);

bool is_same_moment(const timespec &one, const timespec &other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool is_as_it_was(const struct stat &before, int fd) {
    struct stat now {};
    return ::fstat(fd, &now) == 0 && now.st_dev == before.st_dev && now.st_ino == before.st_ino &&
           now.st_size == before.st_size && is_same_moment(now.st_mtim, before.st_mtim) &&
           is_same_moment(now.st_ctim, before.st_ctim);
}

} // namespace

bool starts_as_double(int fd) {
    std::array<char, 4> start{};
    const ssize_t got = ::pread(fd, start.data(), start.size(), 0);
    if (got < 0) {
        throw_errno("what begins with \"._\" beside it cannot be read");
    }
    return got == static_cast<ssize_t>(start.size()) && std::string_view(start.data(), start.size()) == kDoubleStart;
}

bool is_in_native_form(std::string_view name, bool everything) {
    return name == kFinderInfoName || (may_be_native(name) && (everything || !name.starts_with("user.")));
}

EntryForms::EntryForms(const StorePlace &place, std::string name, const std::set<std::string> &names,
                       const std::set<std::string> &stored, bool nativeVolume)
    : m_place(place), m_name(std::move(name)),
      m_entry(::openat(place.directory, m_name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
    if (m_entry.get() < 0 || ::fstat(m_entry.get(), &m_status) != 0) {
        throw_errno("cannot be looked at");
    }
    if (m_name.size() <= kLongestWithDouble) {
        m_beside.name = "._" + m_name;
        m_beside.seen = names.contains(m_beside.name);
    }
    for (FormFile *const one : {&m_stream, &m_resource}) {
        if (!stored.empty()) { // else it is not asked for of every entry
            one->name = companion_of(*one);
            one->seen = !one->name.empty() && stored.contains(one->name);
        }
    }
    look_at_attributes(nativeVolume);
}

void EntryForms::look_at_attributes(bool nativeVolume) {
    std::string names(size_t{1} << 16, '\0'); // as long as Linux lets them be
    const ssize_t size = ::listxattr(itself().c_str(), names.data(), names.size());
    if (size < 0 && errno != EOPNOTSUPP) {
        throw_errno("its attributes cannot be listed");
    }
    for (std::string_view rest(names.data(), size < 0 ? 0 : static_cast<size_t>(size)); !rest.empty();) {
        const std::string_view one = rest.substr(0, rest.find('\0'));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        if (one == kMetadataName) {
            m_metadata = metadata_of(m_place.directory, m_name);
            if (!m_metadata) {
                throw Failure("somebody has changed its attributes meanwhile");
            }
        } else if (one == kResourceForkName) {
            m_fork = true;
        } else if (is_in_native_form(one, nativeVolume)) {
            m_native.emplace_back(one);
        }
    }
    // No list has a fork.
    m_fork = m_fork ||
             (nativeVolume && S_ISREG(m_status.st_mode) && native_size(itself(), kResourceForkName).value_or(0) > 0);
}

std::string EntryForms::companion_of(const FormFile &file) const {
    return companion_name(m_place.directory, m_name, file.file == StoreFile::stream ? "VexoEAStream" : "VexoResource");
}

std::string EntryForms::itself() const {
    return fmt::format("/proc/self/fd/{}", m_entry.get());
}

std::string EntryForms::path() const {
    return fmt::format("/proc/self/fd/{}/{}", m_place.directory, m_name);
}

void EntryForms::check_still() const {
    if (!is_still(m_place.directory, m_name, m_status)) {
        throw Failure("somebody has put something else in its place meanwhile");
    }
}

void EntryForms::open() {
    m_stores = open_stores(m_place.directory);
    if (m_stores.get() < 0 && errno != ENOENT) {
        throw_errno("\"@eaDir\" cannot be opened");
    }
    for (FormFile *const one : {&m_beside, &m_stream, &m_resource}) {
        if (one->inStore && one->name.empty()) {
            one->name = companion_of(*one);
        }
        if (!one->name.empty() && directory_of(*one) >= 0) {
            open_file(*one);
        }
    }
    const std::string fault = m_metadata ? metadata_fault(*m_metadata) : std::string();
    if (!fault.empty()) {
        throw Failure(fmt::format("its metadata attribute is malformed: {} (\"store repair\" mends that)", fault));
    }
}

void EntryForms::open_file(FormFile &file) const {
    const std::string shown = displayed(file.inStore ? "@eaDir/" + file.name : file.name);
    file.held = open_store_file(directory_of(file), file.name, O_RDONLY);
    if (file.held.file.get() < 0) {
        if (errno == ENOENT && !file.seen) {
            return;
        }
        if (errno == EINVAL) {
            throw Failure(fmt::format("what stands at {} is no file", shown));
        }
        throw_errno(fmt::format("{} cannot be opened", shown));
    }
    if (!lock_store_file(file.held.file.get(), F_RDLCK)) {
        throw Failure(fmt::format("another process has {} locked", shown));
    }
    if (file.file == StoreFile::apple_double && !starts_as_double(file.held.file.get())) {
        file.held = {};
        file.seen = false;
        file.foreign = true;
        return;
    }
    file.bytes = read_store_bytes(file.held.file.get(), file.file);
    if (file.holds_anything() && !file.bytes.is_sound()) {
        throw Failure(fmt::format("{} is not sound{}{} (\"store check\" tells, \"store repair\" mends)", shown,
                                  file.bytes.bad.empty() ? "" : ": ", file.bytes.bad));
    }
}

// Who only reads keeps others from writing; who is to remove it has to be alone for a moment, and then reads on.
void EntryForms::claim(FormFile &file) const {
    const std::string shown = displayed(file.inStore ? "@eaDir/" + file.name : file.name);
    const std::string opened = fmt::format("/proc/self/fd/{}", file.held.file.get());
    Descriptor writable(::open(opened.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOATIME));
    if (writable.get() < 0 && errno == EPERM) {
        writable = Descriptor(::open(opened.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    if (writable.get() < 0) {
        throw_errno(fmt::format("{} cannot be changed", shown));
    }
    file.held.file = std::move(writable); // with the old one its lock goes
    writable = Descriptor(-1);
    if (!lock_store_file(file.held.file.get(), F_WRLCK) || !lock_store_file(file.held.file.get(), F_RDLCK)) {
        throw Failure(fmt::format("another process has {} locked", shown));
    }
    check_claimed(file);
}

void EntryForms::check_claimed(const FormFile &file) const {
    if (!is_as_it_was(file.held.status, file.held.file.get()) ||
        !is_still(directory_of(file), file.name, file.held.status)) {
        throw Failure("somebody has changed it meanwhile");
    }
}

void EntryForms::remove(FormFile &file) const {
    const std::string shown = displayed(file.inStore ? "@eaDir/" + file.name : file.name);
    if (!lock_store_file(file.held.file.get(), F_WRLCK)) {
        throw Failure(fmt::format("another process has {} locked", shown));
    }
    check_claimed(file);
    if (::unlinkat(directory_of(file), file.name.c_str(), 0) != 0) {
        throw_errno(fmt::format("{} cannot be removed", shown));
    }
    file.held.file = Descriptor(-1); // some volumes keep another name for it until then
}

void EntryForms::make_stores() {
    if (m_stores.get() >= 0) {
        return;
    }
    forget_last_error();
    const std::string made = fmt::format("/proc/self/fd/{}/@eaDir", m_place.directory);
    const int result = make_store_directory(made);
    m_stores = open_stores(m_place.directory);
    if (m_stores.get() < 0) {
        check(result, "\"@eaDir\" cannot be made");
        throw_errno("\"@eaDir\" cannot be opened");
    }
    // On a volume that keeps stores in attributes the library marks it for Mac clients, which a stock kernel may
    // refuse; the volume that the stores are converted for is of another kind.
    if (result != 0) {
        (void)VEXOACLSetEADirACL(fmt::format("/proc/self/fd/{}", m_stores.get()).c_str());
    }
}

} // namespace engine
