#include "tests/tools/engine/relocation_scene.h"

#include "tests/ea/stream_bytes.h"
#include "tools/engine/report/invalid_request.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace relocation {
namespace {

namespace fs = std::filesystem;

const std::string &content(const std::string &name) {
    static std::map<std::string, std::string> contents;
    std::string &text = contents[name];
    if (text.empty()) {
        text = kit::pattern(name == "big" ? 300'000 : 700, static_cast<uint32_t>(std::hash<std::string>()(name)));
    }
    return text;
}

const std::vector<std::string> &pieces() {
    static const std::vector<std::string> names = {"one", "big", "two", "deep"};
    return names;
}

void empty(const std::string &directory) {
    for (const fs::directory_entry &entry : fs::directory_iterator(directory)) {
        if (entry.path().filename() != "lost+found") {
            fs::remove_all(entry.path());
        }
    }
}

void giveStore(const std::string &path, const std::string &value) {
    const size_t slash = path.rfind('/');
    const std::string directory = path.substr(0, slash) + "/@eaDir";
    ::mkdir(directory.c_str(), 0777);
    kit::writeFile(directory + path.substr(slash) + "@VexoEAStream", stream::bytes({{"comment", value}}));
}

bool hasStore(const std::string &path, const std::string &value) {
    const size_t slash = path.rfind('/');
    const std::string file = path.substr(0, slash) + "/@eaDir" + path.substr(slash) + "@VexoEAStream";
    return kit::exists(file) && kit::readFile(file).find(value) != std::string::npos;
}

std::set<std::string> contentsBelow(const std::vector<std::string> &directories) {
    std::set<std::string> found;
    for (const std::string &directory : directories) {
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory)) {
            if (fs::is_regular_file(entry.symlink_status())) {
                found.insert(kit::readFile(entry.path()));
            }
        }
    }
    return found;
}

} // namespace

std::string text(const Record &record) {
    std::string all;
    for (const std::string &line : record.said) {
        all += line + "\n";
    }
    return all;
}

engine::RelocationResult run(const std::string &from, const std::string &to, Record &record, bool keep) {
    try {
        return engine::relocate(engine::plan_relocation({.source = from, .destination = to, .keepSource = keep}),
                                record);
    } catch (const engine::InvalidRequest &refused) {
        engine::RelocationResult result;
        result.end = engine::RelocationEnd::unfinished;
        result.problem.reason = refused.what();
        return result;
    }
}

Scene::Scene(std::string sourceVolume, std::string destinationVolume)
    : m_sourceVolume(std::move(sourceVolume)), m_destinationVolume(std::move(destinationVolume)),
      m_from(m_sourceVolume + "/from"), m_to(m_destinationVolume + "/to") {
    empty(m_sourceVolume);
    empty(m_destinationVolume);
    for (const std::string &directory : {m_from, m_from + "/sub", m_from + "/sub/deep", m_to, m_to + "/in"}) {
        ::mkdir(directory.c_str(), 0755);
    }
    kit::writeFile(m_from + "/one", content("one"));
    kit::writeFile(m_from + "/big", content("big"), 0600);
    kit::writeFile(m_from + "/sub/two", content("two"));
    kit::writeFile(m_from + "/sub/deep/last", content("deep"), 0444);
    (void)!::symlink("sub/two", (m_from + "/link").c_str());
    (void)!::link((m_from + "/one").c_str(), (m_from + "/sub/again").c_str());
    kit::setAttribute(m_from + "/big", "user.note", "kept");
    ::chmod((m_from + "/sub").c_str(), 02750);
    giveStore(m_from + "/one", "store-of-one");
    giveStore(m_from + "/sub/deep", "store-of-deep");
    giveStore(m_from, "store-of-top");
    kit::writeFile(m_to + "/in/old", content("old"));
    giveStore(m_to, "store-of-old");
    m_before = kit::Fingerprint::of(m_from, {"@eaDir"});
}

std::string Scene::privatePlace() const {
    for (const std::string &name : kit::namesIn(m_destinationVolume)) {
        if (name.starts_with(".vexofileop-")) {
            return m_destinationVolume + "/" + name;
        }
    }
    return {};
}

std::string Scene::lost() const {
    const std::set<std::string> there = contentsBelow({m_sourceVolume, m_destinationVolume});
    std::string missing;
    for (const std::string &name : pieces()) {
        missing += there.contains(content(name)) ? "" : name + " is nowhere; ";
    }
    const std::set<std::string> placed = kit::exists(m_to) ? contentsBelow({m_to}) : std::set<std::string>();
    const bool whole =
        std::ranges::all_of(pieces(), [&](const std::string &name) { return placed.contains(content(name)); });
    return missing + (whole || there.contains(content("old")) ? "" : "the old one is gone before the new one stands; ");
}

std::string Scene::leftBehind() const {
    std::string found;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(m_destinationVolume)) {
        found += entry.path().filename().string().starts_with(".vexofileop-") ? entry.path().string() + "; " : "";
    }
    return found;
}

std::string Scene::unfinished() const {
    std::string wrong = kit::Fingerprint::of(m_to, {"@eaDir"})
                            .differenceTo(m_before, {"accessed", "attributes", "holes", "created", "xattrs"});
    for (const auto &[path, value] :
         {std::pair(m_to + "/one", "store-of-one"), {m_to + "/sub/deep", "store-of-deep"}, {m_to, "store-of-top"}}) {
        wrong += hasStore(path, value) ? "" : path + " lacks its store; ";
    }
    wrong += kit::attribute(m_to + "/big", "user.note") == "kept" ? "" : "an attribute is lost; ";
    wrong += privatePlace().empty() ? "" : "something is left beside it; ";
    for (const std::string &name : kit::namesIn(m_sourceVolume)) {
        if (name == "@eaDir" && kit::namesIn(m_sourceVolume + "/@eaDir").empty()) {
            continue; // it is its neighbours' too
        }
        wrong += m_sourceVolume + "/" + name + " is left; ";
    }
    return wrong;
}

} // namespace relocation
