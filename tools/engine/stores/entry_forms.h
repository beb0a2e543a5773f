// The forms in which the store of one entry lies there, whatever kind its volume is said to be of: what each consists
// of, opened without following a link, and locked.
#pragma once

#include "tools/engine/store/store_contents.h"
#include "tools/engine/stores/store_bytes.h"
#include "tools/engine/stores/store_place.h"
#include "tools/engine/walk/descriptor.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace engine {

// A file that holds a store, or part of one.
struct FormFile {
    StoreFile file = StoreFile::stream;
    bool inStore = true;   // in "@eaDir", else beside the entry
    std::string name = {}; // empty: the entry can have none
    bool seen = false;     // something of that name is there
    bool foreign = false;  // and it is no "._" file, but may be a user's own
    StoreFileHeld held = {};
    StoreBytes bytes = {};

    bool is_there() const { return held.file.get() >= 0; }
    bool holds_anything() const { return is_there() && held.status.st_size > 0; }
};

// Whether an attribute of a file is its store's. On a volume that keeps stores so (`everything`) all are but those of
// the system; elsewhere those of a user are the file's own.
bool is_in_native_form(std::string_view name, bool everything);

// A "._" file says of itself what it is: a user's own file may be called so as well. Throws Failure.
bool starts_as_double(int fd);

class EntryForms {
  public:
    // By names alone: `names` are those in the directory, `stored` those in its "@eaDir"; `forks`: whether to look for
    // a resource fork, of which there is no name. Throws Failure.
    EntryForms(const StorePlace &place, std::string name, const std::set<std::string> &names,
               const std::set<std::string> &stored, bool nativeVolume);

    const std::string &name() const { return m_name; }
    bool seen_beside() const { return m_beside.seen; }
    bool seen_in_directory() const { return m_stream.seen || m_resource.seen || m_metadata; }
    bool seen_native() const { return !m_native.empty() || m_fork; }

    // Opens, locks and reads the files. Throws Failure where one cannot be, is no file, is not sound, or is locked.
    void open();
    // Makes sure that nobody else uses a file, or has changed it, and keeps it so. Throws Failure.
    void claim(FormFile &file) const;
    // Of one that was claimed. Throws Failure where it was changed nevertheless, or another has its name.
    void check_claimed(const FormFile &file) const;
    // Removes one that was claimed, and that this process has not open elsewhere, and closes it. Throws Failure.
    void remove(FormFile &file) const;
    // The directory that it lies in; -1: there is no "@eaDir".
    int directory_of(const FormFile &file) const { return file.inStore ? m_stores.get() : m_place.directory; }
    // "@eaDir" is made where there is none. Throws Failure.
    void make_stores();

    FormFile &beside() { return m_beside; }
    FormFile &stream() { return m_stream; }
    FormFile &resource() { return m_resource; }
    const std::optional<std::string> &metadata() const { return m_metadata; }
    // The attributes of the entry itself that are its store's, but for a resource fork.
    const std::vector<std::string> &native_names() const { return m_native; }
    // How volumes of "@eaDir" would take what is there.
    StoreKind directory_kind() const { return m_metadata ? StoreKind::file_ea : StoreKind::ea_directory; }

    // Of the entry itself, which is open (O_PATH).
    const struct stat &status() const { return m_status; }
    std::string itself() const;
    // By its directory, which the library takes for what lies beside it.
    std::string path() const;
    // Throws Failure where something else stands under the name by now.
    void check_still() const;

  private:
    void look_at_attributes(bool nativeVolume);
    void open_file(FormFile &file) const;
    std::string companion_of(const FormFile &file) const;

    const StorePlace &m_place;
    std::string m_name;
    Descriptor m_entry{-1}, m_stores{-1};
    struct stat m_status {};
    FormFile m_beside{.file = StoreFile::apple_double, .inStore = false};
    FormFile m_stream{.file = StoreFile::stream}, m_resource{.file = StoreFile::resource};
    std::optional<std::string> m_metadata;
    std::vector<std::string> m_native;
    bool m_fork = false;
};

} // namespace engine
