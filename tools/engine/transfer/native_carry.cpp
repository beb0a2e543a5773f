#include "tools/engine/transfer/native_carry.h"

#include "platform/core.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/native_attributes.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/walk/descriptor.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

// Each by itself: what the volume refuses of one keeps none of the others back.
template <typename Read>
void set_or_leave(const std::string &entry, const std::string &name, const Read &read) {
    try {
        set_native_value(entry, name, read(), 0);
    } catch (const Failure &) {
        errno = 0; // as a comparison tells
    }
}

void carry_contents(const StoreContents &contents, const std::string &entry) {
    for (const StoreContents::Attribute &one : contents.attributes()) {
        if (one.size <= kLargestNative && may_be_native(one.name)) {
            set_or_leave(entry, one.name, [&] { return contents.value(one); });
        }
    }
    if (contents.fork_size() > 0 && contents.fork_size() <= INT_MAX) {
        set_or_leave(entry, kResourceForkName, [&] { return contents.fork(); });
    }
    if (!contents.finder_info().empty()) {
        set_or_leave(entry, kFinderInfoName, [&] { return contents.finder_info(); });
    }
}

// On such a volume it is the permissions that say so.
void carry_lock(EntryView &from, const std::string &entry) {
    constexpr mode_t write = S_IWUSR | S_IWGRP | S_IWOTH;
    struct stat found {};
    if (is_locked(from.status(), from.volume().store, from.contents().afp_locked()) &&
        ::stat(entry.c_str(), &found) == 0 && (found.st_mode & write) != 0) {
        (void)::chmod(entry.c_str(), found.st_mode & 07777 & ~write);
    }
}

} // namespace

bool goes_to_attributes(const Side &source, const Side &copy) {
    return copy.volume.store == StoreKind::native && source.volume.store != StoreKind::native &&
           source.volume.store != StoreKind::none;
}

void carry_to_attributes(const Side &source, const Side &copy, bool *locked) {
    // One that can be read is one whose bits can be set, too.
    constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    Descriptor held(::openat(copy.directory, copy.name.c_str(), O_RDONLY | flags));
    if (held.get() < 0 && errno == EACCES) {
        held = Descriptor(::openat(copy.directory, copy.name.c_str(), O_PATH | flags));
    }
    struct stat found {};
    if (held.get() < 0 || ::fstat(held.get(), &found) != 0 || (!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode))) {
        return;
    }
    const std::string entry = fmt::format("/proc/self/fd/{}", held.get());
    try {
        EntryView from(source);
        from.pin();
        forget_last_error();
        const StoreContents &contents = from.contents();
        if (locked != nullptr) {
            *locked = !contents.problems().empty() && VLIBCErrGet() == kLocked;
        }
        carry_contents(contents, entry);
        carry_lock(from, entry);
    } catch (const Failure &) {
        errno = 0; // as a comparison tells
    }
    give_dos_attributes(held.get(), VLIBC_ATTR_ARCHIVE);
}

} // namespace engine
