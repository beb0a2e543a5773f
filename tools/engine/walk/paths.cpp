#include "tools/engine/walk/paths.h"

#include "tools/engine/report/names.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

std::string working_directory() {
    const std::unique_ptr<char, decltype(&std::free)> directory(::getcwd(nullptr, 0), &std::free);
    if (directory == nullptr) {
        throw UsageError(fmt::format("the working directory cannot be told: {}", std::strerror(errno)));
    }
    return directory.get();
}

bool is_directory(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

} // namespace

std::string absolute_path(std::string_view path) {
    if (path.empty()) {
        throw UsageError("an empty path was given");
    }
    const std::string whole = path.front() == '/' ? std::string(path) : working_directory() + "/" + std::string(path);
    std::string out;
    for (std::string_view rest = whole; !rest.empty();) {
        const size_t slash = rest.find('/');
        const std::string_view component = rest.substr(0, slash);
        if (!component.empty() && component != ".") {
            out += '/';
            out += component;
        }
        rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash + 1);
    }
    return out.empty() ? "/" : out;
}

std::string base_name(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

std::string parent_of(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

bool names_contents(std::string_view given) {
    return given == "." || given.ends_with("/.");
}

std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination) {
    const std::string target = absolute_path(destination);
    const bool into = is_directory(target);
    if (!into && sources.size() > 1) {
        throw UsageError(fmt::format("{}: several files need a directory as their destination", displayed(target)));
    }
    if (!into && (destination.ends_with('/') || destination.ends_with("/."))) {
        throw UsageError(fmt::format("{}: no such directory", displayed(target)));
    }
    std::vector<Errand> errands;
    for (const std::string &given : sources) {
        const std::string source = absolute_path(given);
        // "file/" asks for a directory, which the kernel can tell from "file/." only when the slash is still there.
        const bool slash = given.ends_with('/') && source != "/";
        if (base_name(source) == "..") {
            throw UsageError(fmt::format("{}: give the directory by its name", displayed(source)));
        }
        // "photos/." is what photos holds, without a directory of that name.
        const bool contents = into && names_contents(given) && is_directory(source);
        std::string place = contents ? target : into ? (target == "/" ? "" : target) + "/" + base_name(source) : target;
        errands.push_back({slash ? source + "/" : source, std::move(place)});
    }
    return errands;
}

} // namespace tool
