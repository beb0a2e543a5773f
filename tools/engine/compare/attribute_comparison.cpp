// Extended attributes and what stores hold. Either can be where the other volume keeps the other, so that a name is
// looked for in both.
#include "tools/engine/compare/findings.h"

#include "tools/engine/compare/bytes.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store.h"

#include <algorithm>
#include <compare>
#include <fmt/format.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr uint64_t kShortValue = uint64_t{64} << 10;

// An attribute of the file itself, or one of its store.
struct Item {
    std::string name;
    const StoreContents::Attribute *stored; // null: of the file itself

    bool operator==(const Item &other) const { return name == other.name && !stored == !other.stored; }
    bool operator<(const Item &other) const {
        return name != other.name ? name < other.name : (stored != nullptr) < (other.stored != nullptr);
    }
};

struct Items {
    EntryView &entry;
    std::vector<Item> all = {};

    explicit Items(EntryView &of, bool withStore) : entry(of) {
        for (const std::string &name : entry.names()) {
            if (!name.starts_with("system.posix_acl_")) {
                all.push_back({name, nullptr});
            }
        }
        // Where they are the same there is nothing beside the file's own.
        if (withStore && entry.volume().store != StoreKind::native) {
            for (const StoreContents::Attribute &attribute : entry.contents().attributes()) {
                all.push_back({attribute.name, &attribute});
            }
        }
        std::ranges::sort(all, std::less());
    }
    const Item *find(const std::string &name, bool stored) const {
        const StoreContents::Attribute any{};
        const Item wanted{name, stored ? &any : nullptr};
        const auto found = std::ranges::lower_bound(all, wanted, std::less());
        return found != all.end() && *found == wanted ? &*found : nullptr;
    }
};

LossClass class_of(const Item &item) {
    return class_of_attribute(item.name, item.stored == nullptr);
}

class AttributeComparison {
  public:
    AttributeComparison(EntryView &one, EntryView &other, bool withStores, Findings &findings)
        : m_first(one, withStores), m_second(other, withStores), m_findings(findings) {}

    void run() {
        auto first = m_first.all.cbegin();
        auto second = m_second.all.cbegin();
        while (first != m_first.all.cend() || second != m_second.all.cend()) {
            if (second == m_second.all.cend() || (first != m_first.all.cend() && *first < *second)) {
                only_first(*first++);
            } else if (first == m_first.all.cend() || *second < *first) {
                only_second(*second++);
            } else {
                compare(*first++, *second++);
            }
        }
    }

  private:
    // What a store holds would be in force as an attribute of a file.
    LossClass class_in(const Item &item) const { return class_of_attribute(item.name, !item.stored || is_native()); }
    const char *word(const Item &item) const { return class_in(item) == LossClass::stream ? "stream" : "attribute"; }
    bool is_native() const {
        return m_first.entry.volume().store == StoreKind::native || m_second.entry.volume().store == StoreKind::native;
    }
    void unreadable(const Item &item, const Failure &failure) {
        m_findings.add(LossClass::unreadable,
                       fmt::format("{} {}: {}", word(item), displayed(item.name), failure.what()));
    }
    // A system attribute in a store is not in force, and is none of a file's.
    bool may_be_elsewhere(const Item &item) const {
        return class_of(item) == LossClass::attribute || class_of(item) == LossClass::stream ||
               (is_native() && item.stored != nullptr);
    }
    void only_first(const Item &item) {
        if (m_findings.options.rest && item.name == kMetadataName) {
            return; // of one entry that is read as two kinds
        }
        if (may_be_elsewhere(item)) {
            if (const Item *elsewhere = m_second.find(item.name, item.stored == nullptr)) {
                return compare(item, *elsewhere);
            }
        }
        try {
            if (const auto size = size_of(m_first.entry, item); size && !is_unlisted(m_second.entry, item)) {
                m_findings.add(class_in(item), only_first_text(word(item), displayed(item.name), *size));
            }
        } catch (const Failure &failure) {
            unreadable(item, failure);
        }
    }
    void only_second(const Item &item) {
        if (m_findings.options.rest || m_first.find(item.name, item.stored == nullptr) != nullptr ||
            item.name == kMetadataName || item.name == "user.DOSATTRIB") {
            return; // compared with that; or how another volume kept what was compared
        }
        try {
            if (size_of(m_second.entry, item) && !is_unlisted(m_first.entry, item)) {
                m_findings.add(class_in(item), only_second_text(word(item), displayed(item.name)));
            }
        } catch (const Failure &failure) {
            unreadable(item, failure);
        }
    }
    // Some volumes keep system attributes that their lists do not have. What differs in one is told here.
    bool is_unlisted(const EntryView &entry, const Item &item) {
        const auto asked = [&](const EntryView &of) {
            try {
                return of.attribute(item.name);
            } catch (const Failure &) {
                return std::optional<std::string>(); // the volume has no such attributes
            }
        };
        if (item.stored != nullptr || class_of(item) == LossClass::attribute || !asked(entry)) {
            return false;
        }
        if (const auto first = asked(m_first.entry), second = asked(m_second.entry);
            first && second && first != second) {
            m_findings.add(class_in(item), fmt::format("{} {} differs: {} and {} bytes", word(item),
                                                       displayed(item.name), first->size(), second->size()));
        }
        return true;
    }
    // Nothing: it is gone again, or says nothing.
    static std::optional<uint64_t> size_of(const EntryView &entry, const Item &item) {
        if (item.stored != nullptr) {
            return item.stored->size;
        }
        return length_of(entry.attribute(item.name));
    }
    static std::optional<uint64_t> length_of(const std::optional<std::string> &value) {
        return value ? std::optional<uint64_t>(value->size()) : std::nullopt;
    }
    // Of two of which at least one is in a store.
    bool same_value(const Item &first, const Item &second, uint64_t size) {
        if (size > kShortValue && !m_findings.options.data) {
            return true;
        }
        return same_parts(size, [&](uint64_t offset, uint64_t length) {
            return part(m_first.entry, first, offset, length) == part(m_second.entry, second, offset, length);
        });
    }
    static std::string part(EntryView &entry, const Item &item, uint64_t offset, uint64_t length) {
        return item.stored != nullptr ? entry.contents().value(*item.stored, offset, length)
                                      : entry.attribute(item.name).value_or("").substr(offset, length);
    }
    void compare(const Item &first, const Item &second) {
        try {
            if (first.stored == nullptr && second.stored == nullptr) {
                const auto one = m_first.entry.attribute(first.name), other = m_second.entry.attribute(second.name);
                tell(first, length_of(one), length_of(other), one == other);
                return;
            }
            const auto one = size_of(m_first.entry, first), other = size_of(m_second.entry, second);
            tell(first, one, other, one == other && (!one || same_value(first, second, *one)));
        } catch (const Failure &failure) {
            unreadable(first, failure);
        }
    }
    // Nothing: it is gone again.
    void tell(const Item &item, std::optional<uint64_t> one, std::optional<uint64_t> other, bool same) {
        if (one.has_value() != other.has_value()) {
            m_findings.add(class_in(item), one ? only_first_text(word(item), displayed(item.name), *one)
                                               : only_second_text(word(item), displayed(item.name)));
        } else if (!same) {
            m_findings.add(class_in(item), fmt::format("{} {} differs: {} and {} bytes", word(item),
                                                       displayed(item.name), *one, *other));
        }
    }

    Items m_first, m_second;
    Findings &m_findings;
};

bool report_problems(EntryView &entry, const char *which, Findings &findings) {
    for (const std::string &problem : entry.contents().problems()) {
        findings.add(LossClass::unreadable, fmt::format("the store of the {}: {}", which, problem));
    }
    return !entry.contents().problems().empty();
}

void compare_afp(const StoreContents &one, const StoreContents &other, Findings &findings) {
    const int first = one.afp_attributes() & ~StoreContents::kAfpLockedBits;
    const int second = other.afp_attributes() & ~StoreContents::kAfpLockedBits;
    if (first != 0 && first != second) {
        findings.add(LossClass::mac_attributes,
                     fmt::format("AFP attributes differ: 0x{:04x} and 0x{:04x}", first, second));
    }
    if (!one.comment().empty() && one.comment() != other.comment()) {
        findings.add(LossClass::mac_attributes,
                     fmt::format("comment differs: {} and {} bytes", one.comment().size(), other.comment().size()));
    }
}

void compare_forks(const EntryView &first, const StoreContents &one, const EntryView &second,
                   const StoreContents &other, Findings &findings) {
    const uint64_t size = one.fork_size();
    if (findings.options.rest && size == 0) {
        return;
    }
    const bool native = first.volume().store == StoreKind::native || second.volume().store == StoreKind::native;
    findings.attempt("resource fork", [&] {
        const bool read = size == other.fork_size() && (findings.options.data || size <= kShortValue);
        const auto same = [&](uint64_t offset, uint64_t length) {
            return one.fork(offset, length) == other.fork(offset, length);
        };
        if (size != other.fork_size() || (read && !(native ? same(0, size) : same_parts(size, same)))) {
            findings.add(LossClass::resource_fork,
                         fmt::format("resource fork differs: {} and {} bytes", size, other.fork_size()));
        }
    });
}

void compare_lock(EntryView &one, EntryView &other, Findings &findings) {
    constexpr mode_t write = S_IWUSR | S_IWGRP | S_IWOTH;
    const auto locked = [](EntryView &entry) {
        return is_locked(entry.status(), entry.volume().store,
                         !entry.file().empty() && entry.may_hold_more() && entry.contents().afp_locked());
    };
    const bool first = locked(one), second = locked(other);
    // Where it is the permissions that lock the second, and the first has the same, nothing changed.
    const bool byMode = second && (one.status().st.st_mode & write) == 0 && (other.status().st.st_mode & write) == 0;
    if (first != second && !byMode && other.volume().store != StoreKind::none) {
        findings.add(LossClass::locked, first ? "only the first is locked" : "only the second is locked");
    } else if (first && !second && (other.status().st.st_mode & write) != 0) {
        findings.add(LossClass::locked, "only the first is locked");
    }
}

} // namespace

LossClass class_of_attribute(std::string_view name, bool inForce) {
    struct Row {
        std::string_view prefix;
        LossClass cls;
    };
    constexpr Row kOwn[] = {
        {"security.NTACL", LossClass::acl_windows},       {"system.cifs_acl", LossClass::acl_windows},
        {"system.cifs_ntsd", LossClass::acl_windows},     {"system.ntfs_acl", LossClass::acl_windows},
        {"system.ntfs_security", LossClass::acl_windows}, {"osx.", LossClass::mac_attributes},
        {"security.", LossClass::system_attribute},       {"trusted.", LossClass::system_attribute},
        {"system.", LossClass::system_attribute},
    };
    constexpr std::string_view kStreamPrefix = "user.DosStream.";
    const auto *const row = std::ranges::find_if(kOwn, [&](const Row &one) { return name.starts_with(one.prefix); });
    if (inForce && row != std::end(kOwn)) {
        return row->cls;
    }
    return name.starts_with("user.") && !name.starts_with(kStreamPrefix) ? LossClass::attribute : LossClass::stream;
}

void compare_locks(EntryView &one, EntryView &other, Findings &findings) {
    if (S_ISREG(one.type()) || S_ISDIR(one.type())) {
        compare_lock(one, other, findings);
    }
}

void compare_attributes(EntryView &one, EntryView &other, Findings &findings) {
    const bool firstBad = report_problems(one, "first", findings),
               secondBad = report_problems(other, "second", findings);
    const bool sound = !firstBad && !secondBad;
    AttributeComparison(one, other, sound, findings).run();
    if (sound) {
        compare_stores(one, other, findings);
    }
}

void compare_stores(EntryView &one, EntryView &other, Findings &findings) {
    const StoreContents &first = one.contents(), &second = other.contents();
    const bool gone = findings.options.rest && first.finder_info().empty();
    if (!gone && first.finder_info() != second.finder_info()) {
        findings.add(LossClass::finder_info, "Finder Info differs");
    }
    compare_forks(one, first, other, second, findings);
    compare_afp(first, second, findings);
    compare_own_directories(one, other, findings);
}

} // namespace engine
