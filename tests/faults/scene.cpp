#include "tests/faults/scene.h"

#include <array>
#include <climits>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace faults {

int reportsHeard = 0;

Scene::Scene() : m_from(m_scratch / "from"), m_to(m_scratch / "to") {
    ::mkdir(m_from.c_str(), 0755);
    ::mkdir(m_to.c_str(), 0755);
}

void Scene::destinationOn(const kit::Volume &volume) {
    m_to = volume / "to";
    std::filesystem::remove_all(m_to);
    ::mkdir(m_to.c_str(), 0755);
}

void Scene::onVolume(const kit::Volume &volume) {
    destinationOn(volume);
    m_from = volume / "from";
    std::filesystem::remove_all(m_from);
    ::mkdir(m_from.c_str(), 0755);
}

const std::string &Scene::piece(const std::string &name, size_t size) {
    m_pieces.push_back({name, kit::pattern(size, static_cast<uint32_t>(m_pieces.size() + 1))});
    return m_pieces.back().bytes;
}

void Scene::file(const std::string &name, const std::string &destination, size_t size) {
    kit::writeFile(from(name), piece(name, size), 0640);
    m_pieces.back().isFile = true;
    m_pieces.back().source = from(name);
    m_pieces.back().destination = destination;
}

void Scene::old(const std::string &path, const std::string &bytes) {
    kit::writeFile(path, bytes);
    m_old[path] = bytes;
}

const std::string *Scene::oldAt(const std::string &path) const {
    const auto found = m_old.find(path);
    return found == m_old.end() ? nullptr : &found->second;
}

void Scene::giveTo(uid_t user) const {
    for (const std::string &top : {m_scratch.path(), m_from, m_to}) {
        std::filesystem::recursive_directory_iterator below(top);
        bool done = ::lchown(top.c_str(), user, user) == 0;
        for (const auto &entry : below) {
            done = done && ::lchown(entry.path().c_str(), user, user) == 0;
        }
        if (!done) {
            throw std::runtime_error("chown below " + top);
        }
    }
}

bool isCall(const Fault &fault, const std::set<std::string> &calls) {
    return calls.contains(fault.call);
}

bool isAt(const Fault &fault, const std::string &endOfPath) {
    return fault.path.ends_with(endOfPath);
}

bool isBelow(const Fault &fault, const std::string &partOfPath) {
    return fault.path.find(partOfPath) != std::string::npos;
}

const kit::Volume *otherVolume() {
    static auto *volume = new kit::Volume(kit::Volume::tmpfs(16 << 20));
    return volume;
}

const kit::Volume *cloningVolume() {
    static auto *volume = new kit::Volume(kit::Volume::loop("btrfs", 128 << 20));
    return volume;
}

std::vector<Operation> allOperations() {
    std::vector<Operation> all = fileOperations();
    for (const auto &more : {treeOperations(), storeOperations()}) {
        all.insert(all.end(), more.begin(), more.end());
    }
    return all;
}

std::vector<Operation> operationsNamed(const std::set<std::string> &names) {
    std::vector<Operation> all = allOperations();
    std::erase_if(all, [&](const Operation &operation) { return !names.contains(operation.name); });
    if (all.size() != names.size()) {
        throw std::logic_error("an operation is missing");
    }
    return all;
}

namespace {

void addAttributes(const std::string &path, std::string &all) {
    std::array<char, 65536> names{};
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    for (ssize_t at = 0; at < size;
         at += static_cast<ssize_t>(std::string(&names[static_cast<size_t>(at)]).size()) + 1) {
        std::array<char, 65536> value{};
        const ssize_t length = ::lgetxattr(path.c_str(), &names[static_cast<size_t>(at)], value.data(), value.size());
        all.append("|").append(value.data(), length < 0 ? 0 : static_cast<size_t>(length));
    }
}

void add(const std::string &path, std::string &all) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return;
    }
    addAttributes(path, all);
    if (S_ISREG(status.st_mode)) {
        all += "|" + kit::readFile(path);
    } else if (S_ISLNK(status.st_mode)) {
        all += "|" + std::filesystem::read_symlink(path).string();
    } else if (S_ISDIR(status.st_mode)) {
        for (const std::string &name : kit::namesIn(path)) {
            add(path + "/" + name, all);
        }
    }
}

} // namespace

std::string everythingBelow(const std::string &path) {
    std::string all;
    add(path, all);
    return all;
}

} // namespace faults
