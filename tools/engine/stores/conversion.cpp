#include "tools/engine/stores/conversion.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/conversion_note.h"
#include "tools/engine/stores/entry_conversion.h"
#include "tools/engine/stores/entry_writing.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <set>
#include <unistd.h>

namespace engine {
namespace {

struct FormRow {
    StoreKind kind;
    const char *name;
};
constexpr std::array<FormRow, 4> kForms = {{{StoreKind::native, "native"},
                                            {StoreKind::ea_directory, "eadir"},
                                            {StoreKind::apple_double, "double"},
                                            {StoreKind::file_ea, "fileea"}}};
constexpr std::string_view kStreamSuffix = "@VexoEAStream", kResourceSuffix = "@VexoResource";
constexpr size_t kMayBeShortened = 100; // bytes of a name; a volume with shorter ones has no room for companions

class DirectoryConversion {
  public:
    DirectoryConversion(const StorePlace &place, const std::string &only, const ConversionOptions &options,
                        ConversionWatcher &watcher, ConversionTotals &totals)
        : m_place(place), m_only(only), m_options(options), m_watcher(watcher), m_totals(totals) {}

    void run() {
        const auto entries = entries_in(m_place.directory);
        if (!entries) {
            throw_errno("cannot be read");
        }
        for (const Entry &entry : *entries) {
            m_names.insert(entry.name);
            m_noted |= entry.name.starts_with(".vexofileop-ea-");
        }
        list_stores();
        for (const Entry &entry : *entries) {
            if (may_have_store(entry)) {
                m_items.push_back(entry.name);
                claim(entry.name);
            }
        }
        std::ranges::sort(m_items);
        for (const std::string &name : m_items) {
            if (m_watcher.stopped()) {
                return;
            }
            if (m_only.empty() || name == m_only) {
                convert(name);
            }
        }
        if (m_only.empty()) {
            tell_orphans();
        }
        remove_empty_stores();
    }

  private:
    static bool may_have_store(const Entry &entry) {
        return (entry.type == DT_REG || entry.type == DT_DIR) && VEXOEAIsHiddenDir(entry.name.c_str()) != 1 &&
               !entry.name.starts_with("._") && !is_private_name(entry.name);
    }

    void list_stores() {
        const Descriptor stores = open_stores(m_place.directory);
        if (stores.get() < 0) {
            if (errno != ENOENT) { // it is not followed, and what is kept in it is not known
                m_watcher.trouble(joined(m_place.path, "@eaDir"), std::strerror(errno));
            }
            return;
        }
        const auto names = names_in(stores.get());
        if (!names) {
            throw_errno("\"@eaDir\" cannot be read");
        }
        m_stored.insert(names->begin(), names->end());
    }

    // Whose a companion is. Of a long name that may be shortened it may be that of several.
    void claim(const std::string &name) {
        if (!m_stored.empty() || name.size() >= kMayBeShortened) {
            for (const char *const stream : {"VexoEAStream", "VexoResource"}) {
                ++m_claims[companion_name(m_place.directory, name, stream)];
            }
        }
    }
    bool is_shared(const std::string &name) const {
        const auto claims = name.size() < kMayBeShortened
                                ? m_claims.end()
                                : m_claims.find(companion_name(m_place.directory, name, "VexoEAStream"));
        return claims != m_claims.end() && claims->second > 1;
    }

    void convert(const std::string &name) {
        try {
            const bool nativeVolume = m_place.kind == StoreKind::native && m_options.to != StoreKind::native;
            EntryForms forms(m_place, name, m_names, m_stored, nativeVolume);
            if (m_noted && !m_options.dryRun) { // one of a store that there is nothing more to do for would stay
                ConversionNote note(m_place.directory, name, forms.status().st_ino, m_options.to);
                if (!EntryConversion::has_old(forms, m_options.to)) {
                    note.look_for_it();
                    (void)note.remove();
                }
            }
            if (!forms.seen_beside() && !forms.seen_in_directory() && !forms.seen_native()) {
                return;
            }
            ++m_totals.entries;
            if (const auto done = EntryConversion(m_place, m_options, forms, is_shared(name)).run()) {
                m_watcher.store(*done);
            }
        } catch (const Failure &failure) {
            m_watcher.trouble(joined(m_place.path, name), failure.what());
        }
    }

    bool to_directory() const { return m_options.to == StoreKind::ea_directory || m_options.to == StoreKind::file_ea; }

    // The "@eaDir" of an old form, which this run has emptied, or one that was stopped at its very end. One that holds
    // anything stays.
    void remove_empty_stores() const {
        if (!to_directory() && !m_options.dryRun && m_names.contains("@eaDir")) {
            const KeepTimes keep(m_place.directory);
            if (::unlinkat(m_place.directory, "@eaDir", AT_REMOVEDIR) != 0) {
                const int number = errno;
                const Descriptor stores = open_stores(m_place.directory);
                const auto names = stores.get() < 0 ? std::nullopt : names_in(stores.get());
                if (names && names->empty()) {
                    m_watcher.trouble(joined(m_place.path, "@eaDir"), std::strerror(number));
                }
            }
        }
    }

    // What lies there in an old form and is kept for nothing that is there.
    void tell_orphans() {
        if (!to_directory()) {
            for (const std::string &name : m_stored) {
                const bool store = name.ends_with(kStreamSuffix) || name.ends_with(kResourceSuffix);
                if (store && !m_claims.contains(name)) {
                    tell_orphan(joined(joined(m_place.path, "@eaDir"), name), StoreKind::ea_directory);
                }
            }
        }
        for (const std::string &name : m_names) {
            if (m_options.to != StoreKind::apple_double && name.size() > 2 && name.starts_with("._") &&
                !m_names.contains(name.substr(2)) && is_double(name)) {
                tell_orphan(joined(m_place.path, name), StoreKind::apple_double);
            }
        }
    }
    bool is_double(const std::string &name) const {
        const StoreFileHeld held = open_store_file(m_place.directory, name, O_RDONLY);
        return held.file.get() >= 0 && starts_as_double(held.file.get());
    }
    void tell_orphan(const std::string &path, StoreKind from) {
        Conversion orphan;
        orphan.file = path;
        orphan.from = from;
        orphan.to = m_options.to;
        orphan.reason = "nothing that it is kept for is there (store-orphan)";
        m_watcher.store(orphan);
    }

    const StorePlace &m_place;
    const std::string &m_only;
    const ConversionOptions &m_options;
    ConversionWatcher &m_watcher;
    ConversionTotals &m_totals;
    std::set<std::string> m_names, m_stored; // in the directory; in its "@eaDir"
    bool m_noted = false;                    // a killed run may have left a note
    std::vector<std::string> m_items;
    std::map<std::string, int> m_claims; // companions by name
};

} // namespace

const char *state_name(Conversion::State state) {
    switch (state) {
    case Conversion::State::converted:
        return "converted";
    case Conversion::State::convertible:
        return "convertible";
    case Conversion::State::left:
        break;
    }
    return "left";
}

const char *form_name(StoreKind kind) {
    const auto *const row = std::ranges::find(kForms, kind, &FormRow::kind);
    return row == kForms.end() ? "none" : row->name;
}

StoreKind form_of(std::string_view name) {
    const auto *const row =
        std::ranges::find(kForms, name, [](const FormRow &one) { return std::string_view(one.name); });
    return row == kForms.end() ? StoreKind::none : row->kind;
}

void convert_stores(const HeldEntry &entry, const ConversionOptions &options, ConversionWatcher &watcher,
                    ConversionTotals &totals) {
    const StoreWalk walk{
        .visit =
            [&](StorePlace place, const std::string &only) {
                totals.directories += only.empty() ? 1 : 0;
                try {
                    // Whether it shows resource forks, which no other kind does; nothing else of it matters.
                    place.kind = store_kind(volume_type(place.path, fmt::format("/proc/self/fd/{}", place.directory)));
                    DirectoryConversion(place, only, options, watcher, totals).run();
                } catch (const Failure &failure) {
                    watcher.trouble(place.path, failure.what());
                }
            },
        .unreadable = [&](const std::string &path, const std::string &reason) { watcher.trouble(path, reason); },
        .stopped = [&] { return watcher.stopped(); }};
    walk_stores(entry, options.survey, walk);
}

} // namespace engine
