// vexofileop index: whether the media services index a path, and by which rule.
#include "index/index.h"
#include "platform/sdk.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <memory>
#include <strings.h>
#include <sys/stat.h>

namespace tool {
namespace {

struct Answer {
    bool indexed = false;
    const char *rule = ""; // for programs
    std::string reason;
};

bool in_share_homes(std::string_view path) {
    if (!path.starts_with("/volume")) {
        return false;
    }
    const size_t name = path.find_first_not_of('/', std::min(path.find('/', 1), path.size()));
    const std::string share(name == std::string_view::npos ? "" : path.substr(name, path.find('/', name) - name));
    return ::strcasecmp(share.c_str(), "homes") == 0;
}

// The library gives the answer; the rules are gone through again only to say which of them it was.
Answer answer_for_home(const std::string &path, bool indexed) {
    char user[256] = "";
    const bool photo = VEXOIndexIsPersonalPackagePath(path.c_str(), "photo", user, sizeof user) == 1;
    const bool music = VEXOIndexIsPersonalPackagePath(path.c_str(), "music", user, sizeof user) == 1;
    if (photo || music) {
        const char *const what = photo ? "photo" : "music";
        return {indexed, photo ? "home_photo" : "home_music",
                fmt::format("in the folder \"{}\" of the home of {}, and the personal {} service is {}", what,
                            engine::displayed(user), what, indexed ? "on" : "off")};
    }
    return {indexed, "homes",
            "in the share \"homes\", of which only the folders photo and music of a home are indexed"};
}

Answer answer_for_share(const std::string &path, bool indexed) {
    char name[492] = "", place[PATH_MAX] = "";
    if (VEXOShareNamePathGet(path.c_str(), name, sizeof name, place, sizeof place) < 0) {
        return {indexed, "no_share", "in no shared folder"};
    }
    return {
        indexed, "share_switch",
        fmt::format("indexing of the share \"{}\" is switched {}", engine::displayed(name), indexed ? "on" : "off")};
}

Answer answer_for(const std::string &path) {
    int recycle = 0;
    const bool indexed = VEXOIndexIsEnabled(path.c_str(), &recycle) == 1;
    if (recycle != 0) {
        return {indexed, "recycle_bin", "in a recycle bin"};
    }
    return in_share_homes(path) ? answer_for_home(path, indexed) : answer_for_share(path, indexed);
}

std::string json_line(const std::string &path, const Answer &answer) {
    Json line;
    line.add_text("event", "index");
    line.add_name("path", path);
    line.add_flag("indexed", answer.indexed);
    line.add_text("rule", answer.rule);
    line.add_text("reason", answer.reason);
    line.add_flag("services_need_index", VEXOIndexIsNeed() == 1);
    return line.line();
}

int answer_all(const std::vector<std::string> &paths, bool json) {
    Console console;
    int yes = 0;
    for (const std::string &given : paths) {
        if (stop_signal() != 0) {
            return exitSignal + stop_signal();
        }
        const std::string absolute = engine::absolute_path(given);
        char buffer[PATH_MAX] = "";
        const char *const resolved = VEXOPathResolve(absolute.c_str(), buffer, sizeof buffer);
        const std::string path = resolved == nullptr ? absolute : resolved;
        const Answer answer = answer_for(path);
        yes += answer.indexed ? 1 : 0;
        struct stat found {};
        if (::lstat(absolute.c_str(), &found) != 0) {
            console.message(fmt::format("{}: does not exist; the answer is for the path", engine::displayed(absolute)));
        }
        console.line(json ? json_line(absolute, answer)
                          : fmt::format("{}: {}: {}", engine::displayed(absolute),
                                        answer.indexed ? "indexed" : "not indexed", answer.reason));
    }
    if (!json && yes > 0 && VEXOIndexIsNeed() != 1) {
        console.message("no media service of this machine needs an index, so nothing reads these answers");
    }
    const bool written = console.check_output();
    return !written ? exitSome : yes == static_cast<int>(paths.size()) ? exitAll : yes > 0 ? exitSome : exitNone;
}

} // namespace

void add_index_command(const Command &program, int &status) {
    const Command command = program.add_command("index", "Tell whether the media services index a path, and why");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "one JSON object per line");
    const PathOperands paths(command, "PATH", "PATH...");
    command.set_footer("\nThe rules: nothing in a recycle bin; in the share \"homes\" only the folders\n"
                       "photo and music of a home, while their services are on; elsewhere what lies in\n"
                       "a share whose indexing is switched on.\n"
                       "Exit status: 0 all are indexed, 1 some, 2 none or wrong usage.\n"
                       "Example:\n"
                       "  vexofileop index /volume1/photo/2024");
    command.set_work([&status, json, paths] { status = answer_all(paths.all(), *json); });
}

} // namespace tool
