// --relative: which part of a path is made anew below the destination.
#include "tools/engine/report/names.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unordered_set>

namespace tool {
namespace {

// A path of names alone, without the slashes at its ends. ".." takes the name before it away where it may.
std::string plain_name(std::string_view given, std::string_view path, bool mayGoUp) {
    std::string out;
    for (const std::string &part : engine::names_in_path(path)) {
        if (part == ".") {
            continue;
        }
        if (part != "..") {
            out += out.empty() ? "" : "/";
            out += part;
        } else if (mayGoUp && !out.empty()) {
            out.erase(out.find('/') == std::string::npos ? 0 : out.rfind('/'));
        } else {
            throw UsageError(fmt::format("{}: \"..\" {}", engine::displayed(std::string(given)),
                                         mayGoUp ? "leads out of the directory that the names are below"
                                                 : "in a path that is made anew; give it without"));
        }
    }
    return out;
}

std::string existing_directory(const std::string &path) {
    std::string target = engine::absolute_path(path);
    const auto found = engine::look_through(target);
    if (!found || !S_ISDIR(found->st_mode)) {
        throw UsageError(engine::displayed(target) + (found ? ": is not a directory" : ": no such directory"));
    }
    return target;
}

// A slash at the end asks for a directory, which is given by its own name here.
void check_slash(const std::string &given) {
    const auto found = given.ends_with('/') ? engine::look(engine::absolute_path(given)) : std::nullopt;
    if (found && !S_ISDIR(found->st_mode)) {
        throw UsageError(fmt::format("{}: {}", engine::displayed(given),
                                     S_ISLNK(found->st_mode) ? "is a symbolic link; give the directory by its name"
                                                             : std::strerror(ENOTDIR)));
    }
}

std::vector<std::string> each_once(std::vector<std::string> names, bool trees) {
    std::unordered_set<std::string_view> listed(names.begin(), names.end());
    std::vector<bool> goes(names.size());
    for (size_t at = 0; at < names.size(); ++at) {
        const std::string_view name = names[at];
        bool within = trees && !name.empty() && listed.contains("");
        for (size_t slash = name.find('/'); trees && !within && slash != std::string_view::npos;
             slash = name.find('/', slash + 1)) {
            within = listed.contains(name.substr(0, slash));
        }
        goes[at] = !within;
    }
    std::vector<std::string> once;
    std::unordered_set<std::string_view> seen;
    for (size_t at = 0; at < names.size(); ++at) {
        if (goes[at] && seen.insert(names[at]).second) {
            once.push_back(names[at]);
        }
    }
    return once;
}

} // namespace

std::vector<Errand> plan_relative_errands(const std::vector<std::string> &sources, const std::string &destination) {
    const std::string target = existing_directory(destination);
    std::vector<Errand> errands;
    for (const std::string &given : sources) {
        const size_t mark = given.find("/./");
        const std::string base = mark == 0                   ? "/"
                                 : mark != std::string::npos ? given.substr(0, mark)
                                 : given.starts_with('/')    ? "/"
                                                             : ".";
        const std::string_view rest = std::string_view(given).substr(mark == std::string::npos ? 0 : mark + 3);
        std::string name = plain_name(given, rest, false);
        check_slash(given);
        const std::string from = engine::absolute_path(base);
        if (errands.empty() || errands.back().source != from) {
            errands.push_back({from, target, RelativeNames{.names = {}, .followed = true}});
        }
        errands.back().below->names.push_back(std::move(name));
    }
    return errands;
}

Errand plan_listed_errand(const std::vector<std::string> &names, const std::string &base,
                          const std::string &destination, bool trees) {
    Errand errand{existing_directory(base), existing_directory(destination),
                  RelativeNames{.names = {}, .alone = !trees}};
    std::vector<std::string> plain;
    plain.reserve(names.size());
    for (const std::string &name : names) {
        plain.push_back(plain_name(name, name, true));
    }
    errand.below->names = each_once(std::move(plain), trees);
    return errand;
}

size_t number_of(const std::vector<Errand> &errands) {
    size_t number = 0;
    for (const Errand &errand : errands) {
        number += errand.below ? errand.below->names.size() : 1;
    }
    return number;
}

} // namespace tool
