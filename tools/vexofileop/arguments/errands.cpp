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

// Throws UsageError where the destination cannot be what it has to be.
void check_destination(const std::string &target, bool slash, size_t sources, Target kind) {
    const bool there = is_directory(target);
    if (kind == Target::new_name && sources > 1) {
        throw UsageError("with -T there is one file and its new name");
    }
    if (there || (kind != Target::directory && sources == 1 && !slash)) {
        return;
    }
    struct stat found {};
    const bool other = ::stat(target.c_str(), &found) == 0;
    throw UsageError(engine::displayed(target) + (kind != Target::directory && sources > 1
                                                      ? ": several files need a directory as their destination"
                                                  : other ? ": is not a directory"
                                                          : ": no such directory"));
}

} // namespace

bool names_contents(std::string_view given) {
    return given == "." || given.ends_with("/.");
}

std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination, Target kind) {
    const std::string target = engine::absolute_path(destination);
    const bool asDirectory = destination.ends_with('/') || destination.ends_with("/.");
    check_destination(target, asDirectory, sources.size(), kind);
    const bool into = kind != Target::new_name && is_directory(target);
    std::vector<Errand> errands;
    for (const std::string &given : sources) {
        const std::string source = engine::absolute_path(given);
        // "file/" asks for a directory, which the kernel can tell from "file/." only when the slash is still there.
        const bool slash = given.ends_with('/') && source != "/";
        if (engine::base_name(source) == "..") {
            throw UsageError(fmt::format("{}: give the directory by its name", engine::displayed(source)));
        }
        // "photos/." is what photos holds, without a directory of that name, also for the patterns: whether the
        // destination is there yet, as it is when a run is done again, makes no difference.
        const bool contents = names_contents(given) && is_directory(source);
        std::string place =
            into && !contents ? (target == "/" ? "" : target) + "/" + engine::base_name(source) : target;
        errands.push_back({contents ? engine::joined(source, ".") : slash ? source + "/" : source, std::move(place)});
    }
    return errands;
}

} // namespace tool
