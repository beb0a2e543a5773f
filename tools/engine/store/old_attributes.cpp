#include "tools/engine/store/old_attributes.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/stream_change.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr size_t kLongestName = 254; // in a stream

bool is_of_others(std::string_view name) {
    const bool picture = name.ends_with(".jpg") || name.ends_with(".png");
    return name == "offset" || name == "ART_MXAUDIO.jpg" || (picture && name.find("APIC") != std::string_view::npos) ||
           name.starts_with("VEXO") || name.find(':') != std::string_view::npos;
}

// One that is not there, or is a link, which is not entered. Throws Failure for one that is there and cannot be opened.
Descriptor open_if_there(int parent, const std::string &name) {
    Descriptor directory = open_directory(parent, name);
    const bool none = parent < 0 || errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG;
    if (directory.get() < 0 && !none) {
        throw_errno("the directory of its old store cannot be opened");
    }
    return directory;
}

bool is_unchanged(const struct stat &before, const struct stat &now) {
    return before.st_dev == now.st_dev && before.st_ino == now.st_ino && before.st_size == now.st_size &&
           before.st_mtim.tv_sec == now.st_mtim.tv_sec && before.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
}

} // namespace

struct OldAttributes::Found {
    std::string name;
    struct stat status = {};
};

OldAttributes::OldAttributes(const std::string &path)
    : m_path(path), m_name(base_name(path)), m_stores(-1), m_directory(-1) {
    const Descriptor parent(::open(parent_of(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() < 0) {
        throw_errno("its directory cannot be opened");
    }
    m_stores = open_if_there(parent.get(), "@eaDir");
    m_directory = open_if_there(m_stores.get(), m_name);
    if (m_directory.get() >= 0) {
        auto names = names_in(m_directory.get());
        if (!names) {
            throw_errno("the directory of its old store cannot be read");
        }
        m_names = std::move(*names);
    }
}

bool OldAttributes::is_attribute(const std::string &name) const {
    struct stat found {};
    if (is_of_others(name)) {
        return false;
    }
    if (::fstatat(m_directory.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 && errno != ENOENT) {
        throw_errno(fmt::format("{} of its old store cannot be looked at", displayed(name)));
    }
    return S_ISREG(found.st_mode);
}

bool OldAttributes::any() const {
    return std::ranges::any_of(m_names, [this](const std::string &name) { return is_attribute(name); });
}

OldAttributes::Moved OldAttributes::move_to_stream() const {
    Moved moved;
    std::vector<Found> found;
    std::vector<StreamEdit> edits;
    uint64_t total = 0;
    const StreamChange change(m_path, StoreKind::ea_directory, true);
    for (const std::string &name : m_names) {
        if (!is_attribute(name)) {
            continue;
        }
        const Descriptor file(
            ::openat(m_directory.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        Found one{name};
        if (file.get() < 0 || ::fstat(file.get(), &one.status) != 0 || !S_ISREG(one.status.st_mode) ||
            name.size() > kLongestName || static_cast<uint64_t>(one.status.st_size) > kLargestValue - total) {
            moved.all = false;
            continue;
        }
        uint64_t size = 0;
        std::string value;
        try {
            value = read_regular_file(fmt::format("/proc/self/fd/{}", file.get()), kLargestValue, &size);
        } catch (const Failure &) {
            moved.all = false;
            continue;
        }
        const std::optional<std::string> there = change.value(name);
        if (there && *there != value) {
            moved = {false, name};
            continue;
        }
        found.push_back(one);
        if (!there) {
            total += value.size();
            edits.push_back({name, std::move(value)});
        }
    }
    if (!edits.empty()) {
        change.commit(edits);
    }
    remove(found);
    return moved;
}

void OldAttributes::remove(const std::vector<Found> &found) const {
    for (const Found &one : found) {
        struct stat now {};
        if (::fstatat(m_directory.get(), one.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
            is_unchanged(one.status, now) && ::unlinkat(m_directory.get(), one.name.c_str(), 0) != 0) {
            throw_errno("converted, but what it was made from cannot be removed");
        }
    }
    remove_if_empty();
}

void OldAttributes::remove_if_empty() const {
    constexpr int holdsSomething[] = {ENOTEMPTY, EEXIST, ENOENT};
    if (m_directory.get() >= 0 && ::unlinkat(m_stores.get(), m_name.c_str(), AT_REMOVEDIR) != 0 &&
        std::ranges::find(holdsSomething, errno) == std::end(holdsSomething)) {
        throw_errno("the directory of its old store cannot be removed");
    }
}

} // namespace engine
