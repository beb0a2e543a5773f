#include "tools/engine/stores/store_repair.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/private_name.h"

#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

// Values and fork up to 4 GiB each, and some more: what is larger only fills the quarantine.
constexpr uint64_t kLargestStore = (uint64_t{2} << 32) + (uint64_t{1} << 30);

Quarantined item_for(const StorePlace &place, const Subject &subject, Quarantined::What what) {
    struct stat around {};
    if (::fstat(place.directory, &around) != 0) {
        throw_errno("its directory cannot be looked at");
    }
    return {.what = what,
            .top = place.top,
            .below = place.below,
            .inode = around.st_ino,
            .inStore = subject.inStore,
            .name = subject.name};
}

bool is_unchanged_since(const struct stat &before, int fd) {
    struct stat now {};
    return ::fstat(fd, &now) == 0 && now.st_size == before.st_size && now.st_nlink == before.st_nlink &&
           now.st_mtim.tv_sec == before.st_mtim.tv_sec && now.st_mtim.tv_nsec == before.st_mtim.tv_nsec &&
           now.st_ctim.tv_sec == before.st_ctim.tv_sec && now.st_ctim.tv_nsec == before.st_ctim.tv_nsec;
}

[[noreturn]] void throw_exchanged() {
    throw Failure("somebody has changed it meanwhile");
}

// All of a file, as it was proven to have arrived.
Quarantine::Fill whole_of(int source) {
    return [source](int to) {
        copy_bytes(source, 0, to, 0, UINT64_MAX);
        if (!same_bytes(source, 0, to, 0, UINT64_MAX)) {
            throw Failure("it does not read twice as the same");
        }
    };
}

Quarantine::Fill text_of_quarantine(const std::string &text) {
    return [&text](int to) {
        if (::pwrite(to, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
            throw_errno("the quarantine cannot be written");
        }
    };
}

// A store file that nobody else has: opened, locked, of one name, on the volume of its directory.
StoreFileHeld held_alone(int directory, const std::string &name, int flags) {
    StoreFileHeld held = open_store_file(directory, name, flags);
    struct stat around {};
    if (held.file.get() < 0 || ::fstat(directory, &around) != 0) {
        throw_errno("cannot be opened");
    }
    if (around.st_dev != held.status.st_dev) {
        throw Failure("it is of another volume than its directory");
    }
    if (!lock_store_file(held.file.get(), flags == O_RDWR ? F_WRLCK : F_RDLCK)) {
        throw Failure("another process has it locked");
    }
    if (::fstat(held.file.get(), &held.status) != 0 || !is_still(directory, name, held.status)) {
        throw_exchanged();
    }
    if (static_cast<uint64_t>(held.status.st_size) > kLargestStore) {
        throw Failure("it is larger than any store can be");
    }
    if (held.status.st_nlink != 1) {
        throw Failure("it has other names, which it would no longer share its content with");
    }
    return held;
}

} // namespace

void StoreMender::mend(const StorePlace &place, std::vector<FoundInStore> &found,
                       const std::function<bool()> &stopped) {
    const auto is_open = [](const FoundInStore &one) {
        return one.subject.mend != Subject::Mend::none && one.finding.state == Finding::State::found;
    };
    for (FoundInStore &first : found) {
        if (!is_open(first)) {
            first.finding.state =
                first.finding.state == Finding::State::found ? Finding::State::left : first.finding.state;
            continue;
        }
        const Subject subject = first.subject;
        Finding::State state = Finding::State::mended;
        std::string reason;
        try {
            if (stopped()) {
                throw Failure("stopped");
            }
            mend_one(place, subject);
        } catch (const Failure &failure) {
            state = Finding::State::left;
            reason = failure.what();
        }
        for (FoundInStore &one : found) { // one change mends all that is wrong with a file
            if (is_open(one) && one.subject.inStore == subject.inStore && one.subject.name == subject.name &&
                one.subject.mend == subject.mend) {
                one.finding.state = state;
                one.finding.reason = reason;
            }
        }
    }
}

void StoreMender::mend_one(const StorePlace &place, const Subject &subject) {
    const Descriptor stores = subject.inStore ? open_stores(place.directory) : Descriptor(-1);
    if (subject.inStore && stores.get() < 0) {
        throw_errno("\"@eaDir\" cannot be opened");
    }
    const int directory = subject.inStore ? stores.get() : place.directory;
    switch (subject.mend) {
    case Subject::Mend::rewrite:
        return rewrite(place, directory, subject);
    case Subject::Mend::attribute:
        return give_attribute(place, subject);
    case Subject::Mend::remove:
        return remove(place, directory, subject);
    case Subject::Mend::remove_directory:
        return remove_directory(place, directory, subject);
    case Subject::Mend::none:
        break;
    }
}

void StoreMender::rewrite(const StorePlace &place, int directory, const Subject &subject) {
    const StoreFileHeld held = held_alone(directory, subject.name, O_RDWR);
    const int file = held.file.get();
    const StoreBytes found = read_store_bytes(file, subject.file);
    if (found.is_sound() && !has_extra_blocks(file)) {
        return; // somebody else has mended it
    }
    Quarantined item = item_for(place, subject, Quarantined::What::rewritten);
    take_status(directory, subject.name, item);
    const Descriptor old = m_quarantine.keep_old(item, whole_of(file));
    const Descriptor fresh = m_quarantine.keep_new(item, [&](int to) {
        write_sound_bytes(file, found, subject.file, to);
        check_sound_bytes(file, found, subject.file, to);
    });
    PrivateFile copy(directory, subject.name, 0600);
    copy.fill_from(fresh.get());
    if (!same_bytes(fresh.get(), 0, copy.fd(), 0, UINT64_MAX) || !take_properties(file, copy.fd())) {
        m_quarantine.forget(item);
        throw Failure("what takes its place cannot be given its content, owner and rights");
    }
    m_quarantine.note(item);
    if (!is_unchanged_since(held.status, file) || !is_still(directory, subject.name, held.status)) {
        throw_exchanged();
    }
    copy.put_in_place(true);
    if (place.kind == StoreKind::apple_double && subject.name.size() > 2) { // hidden, where the volume can
        const std::string owner = fmt::format("/proc/self/fd/{}/{}", place.directory, subject.name.substr(2));
        const Descriptor hidden(VEXOEAOpen(1, owner.c_str(), "VexoEAStream", O_RDONLY, 1));
    }
}

void StoreMender::give_attribute(const StorePlace &place, const Subject &subject) {
    const Descriptor entry(::openat(place.directory, subject.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (entry.get() < 0 || ::fstat(entry.get(), &found) != 0) {
        throw_errno("cannot be looked at");
    }
    if (!S_ISDIR(found.st_mode) && (!S_ISREG(found.st_mode) || found.st_nlink != 1)) {
        throw Failure("it has other names, which may be elsewhere");
    }
    const std::string before = metadata_of(place.directory, subject.name).value_or("");
    const std::string after = sound_metadata(before);
    if (metadata_fault(before).empty() || after.empty()) {
        return; // somebody else has mended it
    }
    Quarantined item = item_for(place, subject, Quarantined::What::attribute);
    take_status(place.directory, subject.name, item);
    (void)m_quarantine.keep_old(item, text_of_quarantine(before));
    (void)m_quarantine.keep_new(item, text_of_quarantine(after));
    m_quarantine.note(item);
    const std::string itself = fmt::format("/proc/self/fd/{}", entry.get());
    if (metadata_of(place.directory, subject.name) != before || !is_still(place.directory, subject.name, found)) {
        throw_exchanged();
    }
    if (::setxattr(itself.c_str(), kMetadataName, after.data(), after.size(), XATTR_REPLACE) != 0) {
        throw_errno("the metadata attribute cannot be set");
    }
}

void StoreMender::remove(const StorePlace &place, int directory, const Subject &subject) {
    if (is_trial_left_over(directory, subject.name)) { // in which nothing is anybody's
        if (!remove_left_over(directory, subject.name)) {
            throw_errno("it cannot be taken away");
        }
        return;
    }
    Quarantined item = item_for(place, subject, Quarantined::What::removed);
    take_status(directory, subject.name, item);
    StoreFileHeld held;
    if (S_ISREG(item.status.st_mode)) {
        held = held_alone(directory, subject.name, O_RDONLY);
        (void)m_quarantine.keep_old(item, whole_of(held.file.get()));
    } else if (S_ISLNK(item.status.st_mode)) {
        std::array<char, PATH_MAX> target{};
        const ssize_t size = ::readlinkat(directory, subject.name.c_str(), target.data(), target.size());
        if (size < 0) {
            throw_errno("where the link leads cannot be read");
        }
        item.target.assign(target.data(), static_cast<size_t>(size));
    } else if (!S_ISFIFO(item.status.st_mode) && !S_ISSOCK(item.status.st_mode)) {
        throw_exchanged();
    }
    m_quarantine.note(item);
    const bool same = is_still(directory, subject.name, item.status) &&
                      (held.file.get() < 0 || is_unchanged_since(item.status, held.file.get()));
    if (!same) {
        throw_exchanged();
    }
    if (::unlinkat(directory, subject.name.c_str(), 0) != 0) {
        throw_errno("it cannot be taken away");
    }
}

void StoreMender::remove_directory(const StorePlace &place, int directory, const Subject &subject) {
    Quarantined item = item_for(place, subject, Quarantined::What::directory);
    take_status(directory, subject.name, item);
    if (!S_ISDIR(item.status.st_mode)) {
        throw_exchanged();
    }
    m_quarantine.note(item);
    if (::unlinkat(directory, subject.name.c_str(), AT_REMOVEDIR) != 0) { // which takes none that holds anything
        throw_errno("it cannot be removed");
    }
}

} // namespace engine
