// The fixture of tests of the copy of what belongs to a file: two volumes of the kinds asked for, the source with its
// items, and what the copy logged.
#pragma once

#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <vector>

namespace store_copy {

using namespace item_store;

class StoreCopy : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
    void prepare(int fromKind, int toKind, const Items &items, const std::string &root, const std::string &base = "f") {
        from = {root + "/from", base};
        to = {root + "/to", base};
        makeVolume(from.directory, fromKind);
        makeVolume(to.directory, toKind);
        makeFile(from, fromKind);
        makeFile(to, toKind);
        build(from, fromKind, items);
    }
    void prepare(int fromKind, int toKind, const Items &items = some()) {
        prepare(fromKind, toKind, items, scratch.path());
    }
    std::string newRoot() {
        const std::string root = scratch / std::to_string(++roots);
        ::mkdir(root.c_str(), 0755);
        kit::Log::reset();
        return root;
    }
    static Items some() {
        return {kit::pattern(32, 7), kit::pattern(300, 3), {{"user.a", "one"}}, {{"thumb.jpg", "picture"}}, false};
    }
    int copy(bool move = false, int fromKind = -1, int toKind = -1, bool full = false) const {
        return VEXOEACopy(from.path().c_str(), to.path().c_str(), move, full, fromKind, toKind, 0, 0);
    }
    static bool logged(const std::string &body, int priority = LOG_ERR) {
        for (const kit::LogLine &line : kit::Log::lines()) {
            if (line.priority == priority && line.text.starts_with("ea/ea_copy.c:") &&
                line.text.find(body) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    // The error lines of the copy itself, in order, without the places they name: "(name) text", "[0x0900]text",
    // "text".
    static std::vector<std::string> reports() {
        std::vector<std::string> all;
        for (const kit::LogLine &line : kit::Log::lines()) {
            if (line.priority != LOG_ERR || line.source != "ea/ea_copy.c") {
                continue;
            }
            std::string text = line.text.substr(line.text.find_first_not_of("0123456789", line.source.size() + 1));
            text.erase(0, text.front() == ' ' ? 1 : 0);
            if (const size_t code = text.find("[0x"); code != std::string::npos) {
                constexpr size_t kLength = sizeof "[0x0900" - 1;
                text.erase(code + kLength, text.find(']', code) - code - kLength);
            }
            all.push_back(text);
        }
        return all;
    }

    Place from, to;
    int roots = 0;
};

} // namespace store_copy
