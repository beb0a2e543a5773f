// What an operation is swept on: a small tree made anew for every run, with the pieces in it that must not get lost,
// and where each may be found afterwards.
#pragma once

#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace faults {

// Bytes that are found nowhere else. A file is whole or not there; metadata may be carried in any form.
struct Piece {
    std::string name, bytes;
    bool isFile = false;
    std::string source = {}, destination = {}; // of a file: where it is and where it is to be
};

class Scene {
  public:
    Scene();
    const std::string &from() const { return m_from; }
    const std::string &to() const { return m_to; }
    std::string from(const std::string &name) const { return m_from + "/" + name; }
    std::string to(const std::string &name) const { return m_to + "/" + name; }
    // The destination lies on that volume (emptied first) instead of beside the source.
    void destinationOn(const kit::Volume &volume);
    // Source and destination both lie on that volume.
    void onVolume(const kit::Volume &volume);
    // The bytes of a new piece, which the caller puts where it belongs.
    const std::string &piece(const std::string &name, size_t size);
    // A file with such bytes, which the operation brings to `destination`.
    void file(const std::string &name, const std::string &destination, size_t size = 20'000);
    const std::vector<Piece> &pieces() const { return m_pieces; }
    // What stood at the destination before: as good as nothing there.
    void old(const std::string &path, const std::string &bytes);
    const std::string *oldAt(const std::string &path) const;
    // Everything becomes that user's, as if the user had made it.
    void giveTo(uid_t user) const;

  private:
    kit::ScratchDirectory m_scratch;
    std::string m_from, m_to;
    std::vector<Piece> m_pieces;
    std::map<std::string, std::string> m_old;
};

// All that lies below a path, put behind each other: contents, attributes, targets of links.
std::string everythingBelow(const std::string &path);

enum class Keeps {
    source, // the source stays as it is
    either, // each piece is at the source or at the destination
    nothing // the operation removes things
};

// What an operation did in its child.
struct Report {
    int finished, result, stateKept, leaked, allocationReached, closeReached, reports;
    uint32_t lastError;
    char state[1024];
};

// What was done to a run.
struct Fault {
    std::string call;      // its name; or "allocation", "close", "kill", "none"
    std::string path = {}; // that the call names
    int error = 0;         // that it failed with
    std::string text = {}; // all of it, for people
};
bool isCall(const Fault &fault, const std::set<std::string> &calls);
bool isAt(const Fault &fault, const std::string &endOfPath);
bool isBelow(const Fault &fault, const std::string &partOfPath);

struct Finding {
    std::string check, detail;
    Fault fault = {"none"};
};

struct Operation {
    std::string name;
    std::function<void(Scene &)> prepare;
    std::function<int(Scene &)> run; // negative is a failure
    Keeps keeps = Keeps::source;
    // Where a success is to have brought the pieces: their destinations (files), or below to() (metadata).
    bool carriesFiles = true;
    bool changesModes = false;    // of the source: that is what it is for
    bool carriesMetadata = false; // a success has every piece at the destination
    std::set<uint32_t> codes = {};
    int mostReports = 1;
    // The name of the documented behaviour that a finding shows ("" for none).
    std::function<std::string(const Finding &, const Report &)> kept = {};
    std::function<const kit::Volume *()> volume = {}; // made once, before the first scene
    uid_t user = 0;                                   // who runs it, and whose the scene is
};

// For gtest.
inline void PrintTo(const Operation &operation, std::ostream *out) {
    *out << operation.name;
}

// Another volume than the one scenes lie on, and one that clones; each made at its first use.
const kit::Volume *otherVolume();
const kit::Volume *cloningVolume();

// Counted by the operations' error callbacks in the child.
extern int reportsHeard;

std::vector<Operation> fileOperations();
std::vector<Operation> treeOperations();
std::vector<Operation> storeOperations();
// All of these, and those of them with the names given.
std::vector<Operation> allOperations();
std::vector<Operation> operationsNamed(const std::set<std::string> &names);

} // namespace faults
