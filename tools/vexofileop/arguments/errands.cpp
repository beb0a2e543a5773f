#include "tools/vexofileop/arguments/errands.h"

#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <fmt/format.h>
#include <sys/stat.h>

namespace tool {
namespace {

bool is_directory(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

} // namespace

bool names_contents(std::string_view given) {
    return given == "." || given.ends_with("/.");
}

std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination) {
    const std::string target = engine::absolute_path(destination);
    const bool into = is_directory(target);
    if (!into && sources.size() > 1) {
        throw UsageError(
            fmt::format("{}: several files need a directory as their destination", engine::displayed(target)));
    }
    if (!into && (destination.ends_with('/') || destination.ends_with("/."))) {
        throw UsageError(fmt::format("{}: no such directory", engine::displayed(target)));
    }
    std::vector<Errand> errands;
    for (const std::string &given : sources) {
        const std::string source = engine::absolute_path(given);
        // "file/" asks for a directory, which the kernel can tell from "file/." only when the slash is still there.
        const bool slash = given.ends_with('/') && source != "/";
        if (engine::base_name(source) == "..") {
            throw UsageError(fmt::format("{}: give the directory by its name", engine::displayed(source)));
        }
        // "photos/." is what photos holds, without a directory of that name.
        const bool contents = into && names_contents(given) && is_directory(source);
        std::string place = contents ? target
                            : into   ? (target == "/" ? "" : target) + "/" + engine::base_name(source)
                                     : target;
        errands.push_back({slash ? source + "/" : source, std::move(place), names_contents(given)});
    }
    return errands;
}

} // namespace tool
