#include "tools/engine/compare/linked_names.h"

#include "tools/engine/report/names.h"

#include <algorithm>
#include <fmt/format.h>

namespace engine {

LinkedNames::Arrived LinkedNames::arrived_of(const LinkedName &name) {
    const auto [end, otherEnd] =
        std::mismatch(name.path.rbegin(), name.path.rend(), name.otherPath.rbegin(), name.otherPath.rend());
    const auto common = static_cast<size_t>(end - name.path.rbegin());
    return {name.second, name.arrived < 2, name.path, name.otherPath.substr(0, name.otherPath.size() - common), common};
}

void LinkedNames::tell_apart(const File &file, const Arrived &apart, const Arrived &stands, const Tell &tell) {
    tell(apart.path, apart.otherTop + apart.path.substr(apart.path.size() - apart.common),
         {LossClass::hard_link, fmt::format("is one file with {}, and becomes one of its own: {} bytes",
                                            displayed(stands.path), file.bytes)});
}

void LinkedNames::tell_rest(const File &file, const Tell &tell) {
    const auto stands = std::ranges::min_element(file.arrived, {}, &Arrived::path);
    for (auto apart = file.arrived.begin(); apart != file.arrived.end(); ++apart) {
        if (apart != stands) {
            tell_apart(file, *apart, *stands, tell);
        }
    }
}

// Of files of one name each the first may still stand for all, and the others do not.
void LinkedNames::close_those_alone(File &file, dev_t volume, const Tell &tell) {
    const auto is_closed = [volume](const Arrived &one) { return one.alone && one.file.first == volume; };
    std::vector<Arrived> &arrived = file.arrived;
    for (auto one = std::ranges::find_if(arrived, is_closed); one != arrived.end();) {
        const auto next = std::find_if(one + 1, arrived.end(), is_closed);
        if (next == arrived.end()) {
            return;
        }
        const auto apart = one->path < next->path ? next : one;
        tell_apart(file, *apart, apart == one ? *next : *one, tell);
        arrived.erase(apart);
        one = std::ranges::find_if(arrived, is_closed);
    }
}

bool LinkedNames::meet(const LinkedName &name, const Tell &tell) {
    File &file = m_files[name.first];
    const auto there = std::ranges::find(file.arrived, name.second, &Arrived::file);
    const bool seen = there != file.arrived.end();
    if (seen && there->alone && there->path == name.path) {
        return true; // once more
    }
    file.bytes = name.bytes;
    file.names = std::max(file.names, name.names);
    ++file.met;
    if (seen) {
        if (name.path < there->path) {
            *there = arrived_of(name);
        }
        there->alone = false;
    } else {
        close_those_alone(file, name.second.first, tell);
        file.arrived.push_back(arrived_of(name));
    }
    // Nothing is kept of what is whole: the number may become another file's.
    if (file.met >= file.names) {
        tell_rest(file, tell);
        m_files.erase(name.first);
    }
    return seen;
}

void LinkedNames::finish(const Tell &tell) {
    for (const auto &[inode, file] : m_files) {
        tell_rest(file, tell);
    }
    m_files.clear();
}

} // namespace engine
