// A tree that is relocated from one volume to another, over one that stood there, and what must be true of the two at
// every moment.
#pragma once

#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"
#include "tools/engine/relocate/relocation.h"

#include <string>
#include <vector>

namespace relocation {

class Record : public engine::RelocationObserver {
  public:
    bool stopped() const override { return stop; }
    void progress(int64_t bytes) override { done += bytes; }
    void copied() override { copyEnded = true; }
    void failed(const std::string &path, const engine::Problem &problem) override {
        said.push_back(path + ": " + problem.reason);
    }

    void lost(const std::string &source, const std::string &, const engine::Loss &loss) override {
        said.push_back(source + ": " + loss.detail + " (" + engine::loss_row(loss.cls).name + ")");
    }

    std::vector<std::string> said;
    int64_t done = 0;
    bool copyEnded = false, stop = false;
};

// All that was said, a line each.
std::string text(const Record &record);

// Planned and done; what a plan refuses is the end "unfinished", with the reason.
engine::RelocationResult run(const std::string &from, const std::string &to, Record &record, bool keep = false);

// A source with files, links, a directory with its own group, attributes and stores; and an old destination.
class Scene {
  public:
    // Makes both anew, in two directories that hold nothing else.
    Scene(std::string sourceVolume, std::string destinationVolume);
    const std::string &from() const { return m_from; }
    const std::string &to() const { return m_to; }
    std::string privatePlace() const; // the one beside the destination; empty: there is none

    // Everything of the source is somewhere, whole, and the old destination unless the whole source has its place.
    // Empty, or what is missing.
    std::string lost() const;
    // The destination is what the source was, and nothing is beside it. Empty, or what is not so.
    std::string unfinished() const;
    // Entries below the destination that stand under private names.
    std::string leftBehind() const;

  private:
    std::string m_sourceVolume, m_destinationVolume, m_from, m_to;
    kit::Fingerprint m_before;
};

} // namespace relocation
