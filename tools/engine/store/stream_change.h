// A change of the file that keeps a file's attributes ("VexoEAStream" in "@eaDir", or the "._" file). It is made on a
// copy, which is read back and then takes the file's place: whatever fails or is killed on the way, the attributes that
// were not meant, the Finder Info and the resource fork are as they were.
#pragma once

#include "ea/ea.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace engine {

// A value of any length, which is never in memory as a whole: so many bytes of an open regular file.
struct ValueInFile {
    int fd;
    uint64_t size;
};

struct StreamEdit {
    std::string name;
    std::optional<std::string> value;         // nothing: it is removed, or
    std::optional<ValueInFile> fromFile = {}; // this is its value
    bool has_value() const { return value || fromFile; }
};

// The directory of a store file, opened without following a link to "@eaDir"; -1 where there is no "@eaDir". `make`: it
// is made then. Throws Failure.
Descriptor open_store_directory(const std::string &place, StoreKind kind, bool make);

struct CloseStream {
    void operator()(VEXOEAS *stream) const { VEXOEASClose(stream); }
};
using StreamHandle = std::unique_ptr<VEXOEAS, CloseStream>;

// Whether it holds nothing beside attributes: in a "._" file neither Finder Info nor a fork nor what other programs
// keep there.
bool holds_attributes_only(const VEXOEAS *stream);

// Opens a stream file with a lock (F_RDLCK, F_WRLCK), for which it waits a while. Throws Failure.
StreamHandle open_stream(int fd, int lock);

class StreamChange {
  public:
    // Takes the lock of the file that is to be changed, and holds it. `make`: the directory of a file that is to be is
    // made. On a volume of native attributes there is none. Throws Failure, also where somebody else keeps the lock and
    // where a link or anything else is in its place. `file`: the file itself by another path, for its archive flag.
    StreamChange(std::string path, StoreKind kind, bool make, std::string file = {});

    bool exists() const { return m_stream != nullptr; }
    bool has(const std::string &name) const;
    // The value that is there; nothing: no such attribute. Throws Failure.
    std::optional<std::string> value(const std::string &name) const;
    // Puts the changed file in place, or removes one that would hold nothing. Throws Failure, and then nothing changed.
    void commit(const std::vector<StreamEdit> &edits) const;
    // Puts a copy of the open stream file `brought` in place: with what only the present one has added to it,
    // attributes by their names, Finder Info and fork. `mode` is for one that was not there. Throws Failure, and then
    // nothing changed.
    void take_over(int brought, mode_t mode) const;

  private:
    void complete(int fd) const;
    void lock();
    bool would_be_empty(const std::vector<StreamEdit> &edits) const;
    void remove_file() const;
    void hide() const;
    void replace(const std::vector<StreamEdit> &edits, PrivateFile &copy) const;
    void change_in_place(const std::vector<StreamEdit> &edits) const;

    std::string m_path, m_itself;
    StoreKind m_kind;
    std::string m_place;    // of the stream file
    Descriptor m_directory; // that it lies in
    Descriptor m_file;      // outlives the handle, which does not own it
    StreamHandle m_stream;
};

} // namespace engine
