// Stores that are damaged by hand, and what a check or a repair says of them.
#pragma once

#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/scratch.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/stores/store_survey.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace store_scene {

class Told : public engine::SurveyWatcher {
  public:
    bool stopped() const override { return false; }
    void found(const engine::Finding &finding) override { findings.push_back(finding); }
    void trouble(const std::string &path, const std::string &reason) override {
        troubles.push_back(path + ": " + reason);
    }
    // Sorted, one for each finding: "store-orphan @eaDir/x@VexoResource".
    std::vector<std::string> names(const std::string &below) const {
        std::vector<std::string> all;
        for (const engine::Finding &one : findings) {
            const std::string place = one.place.starts_with(below) ? one.place.substr(below.size() + 1) : one.place;
            all.push_back(std::string(engine::finding_row(one.kind).name) + " " + place);
        }
        std::sort(all.begin(), all.end());
        return all;
    }
    std::vector<engine::Finding> findings;
    std::vector<std::string> troubles;
    engine::SurveyTotals totals;
};

using Names = std::vector<std::string>;

// A directory `path()/d` on a volume of a kind of store, with a quarantine beside it.
class StoreScene {
  public:
    explicit StoreScene(int type) : m_root(scratch / "d") {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=" + std::to_string(type)).c_str(), 1);
        ::mkdir(m_root.c_str(), 0755);
    }
    ~StoreScene() { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    StoreScene(const StoreScene &) = delete;
    StoreScene &operator=(const StoreScene &) = delete;

    const std::string &root() const { return m_root; }
    std::string quarantine() const { return scratch / "q"; }
    std::string operator/(const std::string &name) const { return m_root + "/" + name; }
    void file(const std::string &name) const { kit::writeFile(*this / name, "data"); }
    void make_stores() const {
        ::mkdir((*this / "@eaDir").c_str(), 0777);
        ::chmod((*this / "@eaDir").c_str(), 0777);
    }
    std::string stream(const std::string &name) const { return *this / ("@eaDir/" + name + "@VexoEAStream"); }
    std::string resource(const std::string &name) const { return *this / ("@eaDir/" + name + "@VexoResource"); }
    // A file with that in the place of its stream, or of its resource file.
    void with_stream(const std::string &name, const std::string &bytes) const {
        file(name);
        make_stores();
        kit::writeFile(stream(name), bytes);
    }
    void with_resource(const std::string &name, const std::string &bytes) const {
        file(name);
        make_stores();
        kit::writeFile(resource(name), bytes);
    }

    Told check(const std::string &name = {}, bool recursive = false) const { return survey(name, recursive, nullptr); }
    Told repair(const std::string &name = {}, bool recursive = false) const {
        engine::Quarantine kept(quarantine());
        return survey(name, recursive, &kept);
    }
    Names names() const { return check().names(m_root); }

    kit::ScratchDirectory scratch;

  private:
    Told survey(const std::string &name, bool recursive, engine::Quarantine *kept) const {
        Told told;
        std::optional<engine::StoreMender> mender;
        if (kept != nullptr) {
            mender.emplace(*kept);
        }
        engine::survey_stores(engine::HeldEntry(name.empty() ? m_root : *this / name), {.recursive = recursive},
                              mender ? &*mender : nullptr, kept, told, told.totals);
        return told;
    }
    std::string m_root;
};

// A resource file: Finder Info and a fork.
inline std::string resource_bytes(const std::string &fork, const std::string &finderInfo = "TEXTttxt") {
    std::string bytes = adouble_bytes::header({{9, 50, 32}, {2, 82, static_cast<uint32_t>(fork.size())}}, 82);
    return bytes.replace(50, finderInfo.size(), finderInfo) + fork;
}

inline const stream::Attributes kThree = {{"first", "11111"}, {"second", "2222"}, {"third", "333"}};

// With one number of it changed.
inline std::string with_number(std::string bytes, size_t at, uint64_t value, int width = 4) {
    return bytes.replace(at, static_cast<size_t>(width), stream::number(value, width));
}

} // namespace store_scene
