#include "tools/engine/compare/entry_comparison.h"

#include "tools/engine/compare/findings.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace engine {
namespace {

LossClass class_of_type(mode_t type) {
    return S_ISLNK(type)                    ? LossClass::symbolic_link
           : S_ISREG(type) || S_ISDIR(type) ? LossClass::data
                                            : LossClass::special_file;
}

const char *type_text(mode_t type) {
    return S_ISLNK(type)    ? "a symbolic link"
           : S_ISREG(type)  ? "a regular file"
           : S_ISDIR(type)  ? "a directory"
           : S_ISFIFO(type) ? "a pipe"
           : S_ISSOCK(type) ? "a socket"
                            : "a device";
}

std::string target_of(const EntryView &entry) {
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(entry.side().directory, entry.side().name.c_str(), target, sizeof target);
    if (length < 0) {
        throw_errno("cannot be read");
    }
    return {target, static_cast<size_t>(length)};
}

bool is_read_since(const timespec &read, const timespec &changed) {
    return read.tv_sec != changed.tv_sec ? read.tv_sec > changed.tv_sec : read.tv_nsec > changed.tv_nsec;
}

// Whether reading a link would change its access time, by the rules of its mount.
bool would_leave_trace(const EntryView &link) {
    struct statvfs volume {};
    if (::fstatvfs(link.side().directory, &volume) != 0) {
        return true;
    }
    if ((volume.f_flag & (ST_NOATIME | ST_RDONLY)) != 0) {
        return false;
    }
    // The kernel touches one that was not read since it was changed, and any once a day.
    constexpr time_t most = 23 * time_t{3600};
    const struct stat &found = link.status().st;
    return (volume.f_flag & ST_RELATIME) == 0 || !is_read_since(found.st_atim, found.st_mtim) ||
           !is_read_since(found.st_atim, found.st_ctim) || ::time(nullptr) - found.st_atim.tv_sec > most;
}

// By a mount of its directory that nobody else sees, and that keeps no access times. Nothing: this user may not make
// one, or the kernel cannot.
std::optional<std::string> target_without_trace(const EntryView &entry) {
    if (!would_leave_trace(entry)) {
        return target_of(entry);
    }
    constexpr unsigned flags = OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH;
    const Descriptor mount(::open_tree(entry.side().directory, "", flags));
    mount_attr quiet{};
    quiet.attr_set = MOUNT_ATTR_NOATIME;
    quiet.attr_clr = MOUNT_ATTR__ATIME;
    if (mount.get() < 0 || ::mount_setattr(mount.get(), "", AT_EMPTY_PATH, &quiet, sizeof quiet) != 0) {
        return std::nullopt;
    }
    char target[PATH_MAX];
    const ssize_t length = ::readlinkat(mount.get(), entry.side().name.c_str(), target, sizeof target);
    return length < 0 ? std::nullopt : std::optional(std::string(target, static_cast<size_t>(length)));
}

// Also of a name that the volume does not take.
bool cannot_be_there(int number) {
    return number == ENOENT || number == EINVAL || number == EILSEQ || number == EOVERFLOW;
}

class EntryComparison {
  public:
    EntryComparison(EntryView &one, EntryView &other, Findings &findings)
        : m_one(one), m_other(other), m_findings(findings) {}

    void run() {
        const mode_t type = m_one.type();
        if (type != m_other.type()) {
            m_findings.add(class_of_type(type),
                           fmt::format("type differs: {} and {}", type_text(type), type_text(m_other.type())));
            return;
        }
        compare_own();
        // Whoever reads it all opens it first, and asks by descriptor from then on.
        const bool read = S_ISREG(type) && m_sameSize && m_findings.options.data;
        if (read || more()) {
            m_one.pin(read);
            m_other.pin(read);
            if (m_one.may_hold_more() || m_other.may_hold_more()) {
                compare_attributes(m_one, m_other, m_findings);
            }
            if (read) {
                compare_content(m_one, m_other, m_findings);
            }
            if (S_ISREG(type) && m_findings.options.costs) {
                compare_holes(m_one, m_other, m_findings);
            }
        }
        if (S_ISDIR(type)) {
            compare_empty_stores(m_one, m_other, m_findings);
        }
        compare_permissions(m_one, m_other, m_findings);
        compare_locks(m_one, m_other, m_findings);
    }

  private:
    // Whether there is more to compare than the status of both.
    bool more() {
        m_one.list();
        m_other.list();
        const bool holdsMore = m_one.may_hold_more() || m_other.may_hold_more();
        return holdsMore || (S_ISREG(m_one.type()) && m_findings.options.costs && m_one.may_have_holes());
    }
    void compare_own() {
        const struct stat &first = m_one.status().st, &second = m_other.status().st;
        if (S_ISREG(first.st_mode) && first.st_size != second.st_size) {
            m_sameSize = false;
            m_findings.add(LossClass::data,
                           fmt::format("size differs: {} and {} bytes", first.st_size, second.st_size));
        } else if (S_ISLNK(first.st_mode)) {
            compare_targets();
        } else if ((S_ISCHR(first.st_mode) || S_ISBLK(first.st_mode)) && first.st_rdev != second.st_rdev) {
            m_findings.add(LossClass::special_file,
                           fmt::format("device differs: {}:{} and {}:{}", major(first.st_rdev), minor(first.st_rdev),
                                       major(second.st_rdev), minor(second.st_rdev)));
        }
        compare_owners(m_one, m_other, m_findings);
        if (m_findings.options.times) {
            compare_times(m_one, m_other, m_findings);
        }
        compare_dos_attributes(m_one, m_other, m_findings);
        if (m_findings.options.costs && S_ISREG(first.st_mode) && first.st_nlink > second.st_nlink) {
            m_findings.add(LossClass::hard_link, fmt::format("{} names at the first, {} at the second: {} bytes",
                                                             first.st_nlink, second.st_nlink, first.st_size));
        }
    }
    void compare_targets() {
        const off_t length = m_one.status().st.st_size, other = m_other.status().st.st_size;
        const bool told = length > 0 && other > 0; // not every volume tells it
        const bool trace =
            m_findings.options.traceless && told && (would_leave_trace(m_one) || would_leave_trace(m_other));
        m_findings.attempt("symbolic link", [&] {
            const auto first = trace ? target_without_trace(m_one) : target_of(m_one);
            const auto second = trace ? target_without_trace(m_other) : target_of(m_other);
            if (first && second) {
                compare_targets(*first, *second);
            } else if (length != other) {
                m_findings.add(LossClass::symbolic_link,
                               fmt::format("leads to {} and to {} bytes of a path", length, other));
            }
        });
    }
    void compare_targets(const std::string &first, const std::string &second) {
        if (first != second) {
            m_findings.add(LossClass::symbolic_link,
                           fmt::format("leads to {} and to {}", displayed(first), displayed(second)));
        }
    }

    EntryView &m_one, &m_other;
    Findings &m_findings;
    bool m_sameSize = true;
};

} // namespace

LossClass class_of_clash(mode_t entry, mode_t there) {
    const bool plain = S_ISREG(entry) || S_ISDIR(entry) || ((entry ^ there) & S_IFMT) == 0;
    return plain ? LossClass::name_clash : class_of_type(entry);
}

std::vector<Loss> compare_entries(const Side &a, const Side &b, const CompareOptions &options, const FirstLook &look) {
    Findings findings{options};
    const char *which = "the first";
    std::unique_ptr<EntryView> one, other;
    try {
        one = std::make_unique<EntryView>(a);
        which = "the second";
        other = std::make_unique<EntryView>(b);
        if (options.before != nullptr) {
            one->take_times(*options.before);
        }
    } catch (const Failure &failure) {
        if (one != nullptr && cannot_be_there(errno)) {
            const bool held = !S_ISLNK(one->type()) || volume_traits(b.volume.type).links;
            findings.add(class_of_type(one->type()), held ? "is not at the second" : kLinkNotHeld);
        } else {
            findings.add(LossClass::unreadable, fmt::format("{} {}", which, failure.what()));
        }
        return findings.losses;
    }
    if (!look || look(one->status().st, other->status().st)) {
        findings.attempt("the entry", [&] { EntryComparison(*one, *other, findings).run(); });
    }
    add_companion_too_long(b, b.name, findings.losses);
    return findings.losses;
}

void add_companion_too_long(const Side &copy, const std::string &name, std::vector<Loss> &losses) {
    const auto is_kept_there = [](const Loss &loss) {
        return loss.cls == LossClass::stream || loss.cls == LossClass::finder_info ||
               loss.cls == LossClass::resource_fork;
    };
    if (copy.volume.store == StoreKind::apple_double && std::ranges::any_of(losses, is_kept_there) &&
        !takes_companion(copy.directory, name)) {
        losses.push_back(
            {LossClass::name_too_long,
             fmt::format("{} bytes are too many for the name of what is kept beside it", name.size() + 2)});
    }
}

std::vector<Loss> compare_entries(const Side &a, const Side &b, const CompareOptions &options) {
    return compare_entries(a, b, options, {});
}

} // namespace engine
