// The commands that are swept by themselves, each with what has to hold at any moment and what after success.
#include "platform/core.h"
#include "tests/ea/stream_bytes.h"
#include "tests/tools/swept_scene.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace swept {
namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;

const std::string kNote = stream::bytes({{"user.note", "of one"}});

void divide(const SweptScene &scene) {
    EXPECT_EQ(0, ::mkdir(scene.copy.c_str(), 0755));
    scene.run({"plan", "--shards", "1", "--out", scene.lists, scene.tree});
}
Arguments shard(const SweptScene &scene) {
    return {"copy",         "-q",
            "-u",           "--relative",
            "--from0",      "--finish-later",
            "--files-from", scene.lists + "/shard-1",
            scene.tree,     scene.copy};
}
bool has_bit(const std::string &path) {
    VLIBCStat status{};
    return VLIBCFileStat(path.c_str(), VLIBC_STAT_ATTRIBUTES, &status) == 0 &&
           (status.attributes & VLIBC_ATTR_ARCHIVE) != 0;
}
std::string source_changed(const SweptScene &scene) {
    return scene.changed();
}

// A move of it, with a second tree that stays.
Arguments moved(const SweptScene &scene, Arguments arguments) {
    scene.keep_reference();
    arguments.insert(arguments.begin(), {"move", "-u"});
    return arguments;
}
Arguments moved_by_list(const SweptScene &scene) {
    EXPECT_EQ(0, ::mkdir(scene.copy.c_str(), 0755));
    std::ofstream list(scene.lists, std::ios::binary);
    for (const char *const name : {"in/two", "one", "link", "in/other"}) {
        list << name << '\0';
    }
    list.close();
    return moved(scene, {"--relative", "--from0", "--files-from", scene.lists, scene.tree, scene.copy});
}
std::string both(const SweptScene &scene) {
    return scene.lost_of_both();
}
std::string moved_whole(const SweptScene &scene) {
    return (kit::exists(scene.tree) ? "the source is still there; " : "") +
           SweptScene::difference(scene.reference, scene.copy);
}
// Directories on the way of a list stay, and so does what is kept for them.
std::string listed_moved(const SweptScene &scene) {
    std::string text;
    for (const char *const name : {"/in/two", "/one", "/link", "/in/other"}) {
        text += kit::exists(scene.tree + name) ? std::string(name) + " is still there; " : "";
    }
    for (const char *const name : {"/@eaDir/one@VexoEAStream", "/in/@eaDir/two@VexoEAStream"}) {
        text += kit::exists(scene.tree + name) ? std::string(name) + " is still there; " : "";
    }
    return text + SweptScene::difference(scene.reference + "/in", scene.copy + "/in") + scene.lost_of_both();
}

// What has a bit, and an older copy of some of it.
Arguments backed_up(const SweptScene &scene, const Arguments &flags) {
    for (const char *const name : {"/one", "/in/two"}) {
        kit::setAttribute(scene.tree + name, "user.DOSATTRIB", "0x20");
    }
    EXPECT_EQ(0, ::mkdir(scene.copy.c_str(), 0755));
    kit::writeFile(scene.copy + "/one", "old");
    Arguments arguments = {"backup", "run"};
    arguments.insert(arguments.end(), flags.begin(), flags.end());
    arguments.insert(arguments.end(), {scene.tree, scene.copy});
    return arguments;
}
// A bit that is gone is of what is in the copy.
std::string bits_lost(const SweptScene &scene) {
    std::string text = scene.lost_of_both();
    for (const auto &[name, content] : {std::pair("/one", "first"), {"/in/two", "second"}, {"/in/other", "first"}}) {
        text += SweptScene::holds(scene.tree + name, content);
        text += has_bit(scene.tree + name) ? std::string() : SweptScene::holds(scene.copy + name, content);
    }
    return text;
}
std::string bits(const SweptScene &scene, bool wanted) {
    std::string text;
    for (const char *const name : {"/one", "/in/two"}) {
        text += has_bit(scene.tree + name) == wanted ? "" : std::string(name) + " has another bit; ";
    }
    return text;
}

// What a conversion has made of it, brought back, is what it was.
template <size_t N>
std::string converted(const SweptScene &scene, const char *const (&old)[N]) {
    std::string text;
    for (const char *const name : old) {
        text += kit::exists(scene.tree + name) ? std::string(name) + " is still there; " : "";
    }
    return text;
}
Arguments convert_to(const SweptScene &scene, const char *form) {
    return {"store", "convert", "-q", "-r", "--to", form, scene.tree};
}
const char *const kStores[] = {"/@eaDir/one@VexoEAStream", "/@eaDir/in@VexoEAStream", "/in/@eaDir/two@VexoEAStream"};
const char *const kDoubles[] = {"/._one", "/._in", "/in/._two"};
const char *const kValues[] = {"of one", "of in", "of two"};
// Each value is in the file of the one form or in that of the other.
std::string values_lost(const SweptScene &scene) {
    std::string text =
        SweptScene::holds(scene.tree + "/one", "first") + SweptScene::holds(scene.tree + "/in/two", "second");
    for (size_t at = 0; at < std::size(kValues); ++at) {
        bool found = false;
        for (const char *const place : {kStores[at], kDoubles[at]}) {
            const std::string path = scene.tree + place;
            found |= kit::exists(path) && kit::readFile(path).find(kValues[at]) != std::string::npos;
        }
        text += found ? "" : std::string(kStores[at]) + " is whole in no form; ";
    }
    return text;
}

const std::vector<SweptCommand> kSwept = {
    {"shard",
     [](const SweptScene &scene) {
         divide(scene);
         return shard(scene);
     },
     source_changed,
     [](const SweptScene &scene) {
         scene.run({"copy", "-q", "--finish", scene.lists + "/directories", scene.tree, scene.copy});
         return scene.different();
     }},
    {"finish",
     [](const SweptScene &scene) {
         divide(scene);
         scene.run(shard(scene));
         return Arguments{"copy", "-q", "--finish", scene.lists + "/directories", scene.tree, scene.copy};
     },
     source_changed, [](const SweptScene &scene) { return scene.different(); }},
    {"copy",
     [](const SweptScene &scene) {
         return Arguments{"copy", "-ru", scene.tree + "/.", scene.copy};
     },
     source_changed, [](const SweptScene &scene) { return scene.different(); }},
    {"rename",
     [](const SweptScene &scene) {
         EXPECT_EQ(0, ::rename((scene.tree + "/one").c_str(), (scene.tree + "/new").c_str()));
         return Arguments{"ea", "rename", scene.tree + "/one", scene.tree + "/new"};
     },
     [](const SweptScene &scene) {
         const std::string old = scene.tree + "/@eaDir/one@VexoEAStream", now = scene.tree + "/@eaDir/new@VexoEAStream";
         return kit::exists(old) ? scene.holds(old, kNote) : scene.holds(now, kNote);
     },
     [](const SweptScene &scene) { return scene.holds(scene.tree + "/@eaDir/new@VexoEAStream", kNote); }},
    {"remove",
     [](const SweptScene &scene) {
         return Arguments{"ea", "remove", scene.tree + "/in/two"};
     },
     [](const SweptScene &scene) {
         return scene.holds(scene.tree + "/@eaDir/one@VexoEAStream", kNote) +
                scene.holds(scene.tree + "/in/two", "second");
     },
     [](const SweptScene &scene) {
         return kit::exists(scene.tree + "/in/@eaDir/two@VexoEAStream") ? std::string("it is there") : std::string();
     }},
    {"check",
     [](const SweptScene &scene) {
         kit::writeFile(scene.tree + "/in/@eaDir/other@VexoEAStream", "damaged");
         return Arguments{"store", "check", "-r", scene.tree};
     },
     [](const SweptScene &scene) { return scene.holds(scene.tree + "/in/@eaDir/other@VexoEAStream", "damaged"); },
     [](const SweptScene &) { return std::string(); }, 4},
    {"undo",
     [](const SweptScene &scene) {
         const std::string whole = stream::bytes({{"user.note", "of one"}});
         kit::writeFile(scene.tree + "/@eaDir/one@VexoEAStream", whole + "behind its end");
         scene.run({"store", "repair", "-q", "-r", "--quarantine", scene.scratch / "kept", scene.tree}, 1);
         return Arguments{"store", "repair", "-q", "--undo", scene.scratch / "kept"};
     },
     [](const SweptScene &scene) {
         const std::string store = scene.tree + "/@eaDir/one@VexoEAStream";
         const std::string now = kit::exists(store) ? kit::readFile(store) : "";
         return now.starts_with(kNote) ? std::string() : store + " is neither";
     },
     [](const SweptScene &scene) {
         return scene.holds(scene.tree + "/@eaDir/one@VexoEAStream", kNote + "behind its end");
     }},
    {"compare",
     [](const SweptScene &scene) {
         scene.run({"copy", "-r", scene.tree, scene.copy});
         kit::writeFile(scene.copy + "/in/two", "sEcond");
         return Arguments{"compare", scene.tree, scene.copy};
     },
     source_changed, [](const SweptScene &) { return std::string(); }, 1},
    {"archive",
     [](const SweptScene &scene) {
         kit::setAttribute(scene.tree + "/in/two", "user.DOSATTRIB", "0x20");
         EXPECT_TRUE(has_bit(scene.tree + "/in/two"));
         return Arguments{"archive", "clear", scene.tree + "/in/two"};
     },
     [](const SweptScene &scene) { return scene.holds(scene.tree + "/in/two", "second"); },
     [](const SweptScene &scene) {
         return has_bit(scene.tree + "/in/two") ? std::string("it is set") : std::string();
     }},
    {"divide",
     [](const SweptScene &scene) { return Arguments{"plan", "--shards", "2", "--out", scene.lists, scene.tree}; },
     source_changed,
     [](const SweptScene &scene) {
         std::string all;
         for (const std::string &name : kit::namesIn(scene.lists)) {
             all += kit::readFile(scene.lists + "/" + name) + std::string(1, '\0');
         }
         std::string text;
         for (const std::string name : {"one", "in/two", "in/other", "link", "in"}) {
             const bool there =
                 all.find(std::string(1, '\0') + name + '\0') != std::string::npos || all.starts_with(name + '\0');
             text += there ? "" : name + " is in no list; ";
         }
         return text;
     }},
    {"plan_copy",
     [](const SweptScene &scene) {
         EXPECT_EQ(0, ::mkdir(scene.copy.c_str(), 0755));
         return Arguments{"plan", "copy", "-r", scene.tree, scene.copy};
     },
     source_changed,
     [](const SweptScene &scene) {
         return (kit::namesIn(scene.copy).empty() ? std::string() : std::string("something was made; "));
     }},
    {"move",
     [](const SweptScene &scene) {
         return moved(scene, {"-T", scene.tree, scene.copy});
     },
     both, moved_whole, 0, true, true},
    {"move_within",
     [](const SweptScene &scene) {
         return moved(scene, {"-T", scene.tree, scene.copy});
     },
     both, moved_whole, 0, false, true},
    {"move_into",
     [](const SweptScene &scene) {
         std::filesystem::create_directories(scene.copy + "/tree/in");
         kit::writeFile(scene.copy + "/tree/one", "old");
         return moved(scene, {scene.tree + "/one", scene.tree + "/in", scene.copy + "/tree"});
     },
     [](const SweptScene &scene) {
         std::string text;
         for (const auto &[name, content] :
              {std::pair("/one", "first"), {"/in/two", "second"}, {"/in/other", "first"}}) {
             const bool there = SweptScene::holds(scene.tree + name, content).empty() ||
                                SweptScene::holds(scene.copy + "/tree" + name, content).empty();
             text += there ? "" : std::string(name) + " is whole nowhere; ";
         }
         return text;
     },
     [](const SweptScene &scene) {
         return SweptScene::difference(scene.reference + "/in", scene.copy + "/tree/in") +
                SweptScene::holds(scene.copy + "/tree/@eaDir/one@VexoEAStream", kNote) +
                (kit::exists(scene.tree + "/one") || kit::exists(scene.tree + "/in") ? "it is still there; " : "");
     },
     0, true, true},
    {"move_list", moved_by_list, both, listed_moved, 0, true, true},
    {"move_list_within", moved_by_list, both, listed_moved, 0, false, true},
    {"backup_full", [](const SweptScene &scene) { return backed_up(scene, {"--full"}); }, bits_lost,
     [](const SweptScene &scene) { return scene.different(); }, 0, true, false,
     [](const SweptScene &scene) { return bits(scene, false); }},
    {"backup_keeps",
     [](const SweptScene &scene) {
         return backed_up(scene, {"--full", "--keep-bits"});
     },
     bits_lost, [](const SweptScene &scene) { return bits(scene, true) + scene.different(); }},
    {"backup_report",
     [](const SweptScene &scene) {
         return backed_up(scene, {"--accept", "fat", "--report", scene.scratch / "report.json"});
     },
     bits_lost,
     [](const SweptScene &scene) {
         return SweptScene::holds(scene.copy + "/one", "first") + SweptScene::holds(scene.copy + "/in/two", "second") +
                (kit::exists(scene.scratch / "report.json") ? "" : "there is no report; ");
     },
     0, false, false, [](const SweptScene &scene) { return bits(scene, false); }},
    {"mirror_keeps",
     [](const SweptScene &scene) {
         std::filesystem::create_directories(scene.copy + "/gone");
         kit::writeFile(scene.copy + "/one", "old");
         kit::writeFile(scene.copy + "/gone/two", "old, too");
         return Arguments{"mirror", "-f", "--backup-dir", scene.scratch / "kept", scene.tree, scene.copy};
     },
     [](const SweptScene &scene) {
         const auto anywhere = [&](const char *name, const char *content) {
             return SweptScene::holds(scene.copy + name, content).empty()
                        ? std::string()
                        : SweptScene::holds(scene.scratch / "kept" + name, content);
         };
         return scene.changed() + anywhere("/one", "old") + anywhere("/gone/two", "old, too");
     },
     [](const SweptScene &scene) { return scene.different() + SweptScene::holds(scene.scratch / "kept/one", "old"); }},
    {"relocate",
     [](const SweptScene &scene) {
         scene.keep_reference();
         return Arguments{"relocate", "-y", scene.tree, scene.copy};
     },
     both, moved_whole, 0, true, true},
    {"remove_tree",
     [](const SweptScene &scene) {
         scene.keep_reference();
         return Arguments{"remove", "-rf", scene.tree};
     },
     [](const SweptScene &scene) { return SweptScene::holds(scene.reference + "/in/two", "second"); },
     [](const SweptScene &scene) { return std::string(kit::exists(scene.tree) ? "it is still there; " : ""); }, 0,
     false, true},
    {"ea_repair",
     [](const SweptScene &scene) {
         EXPECT_EQ(0, ::rename((scene.tree + "/@eaDir/one@VexoEAStream").c_str(),
                               (scene.tree + "/@eaDir/one@VexoResource").c_str()));
         return Arguments{"ea", "repair", scene.tree + "/one"};
     },
     [](const SweptScene &scene) {
         std::string all;
         for (const char *const name : {"/@eaDir/one@VexoEAStream", "/@eaDir/one@VexoResource"}) {
             all += kit::exists(scene.tree + name) ? kit::readFile(scene.tree + name) : "";
         }
         return all.find("of one") == std::string::npos ? "the value is nowhere; " : std::string();
     },
     [](const SweptScene &scene) {
         const ToolResult got = runTool({"ea", "get", scene.tree + "/one", "user.note"});
         return (got.out == "of one" ? std::string() : "it reads " + got.out + got.err);
     }},
    {"ea_upgrade_tree",
     [](const SweptScene &scene) {
         EXPECT_EQ(0, ::unlink((scene.tree + "/in/@eaDir/two@VexoEAStream").c_str()));
         EXPECT_EQ(0, ::mkdir((scene.tree + "/in/@eaDir/two").c_str(), 0777));
         kit::writeFile(scene.tree + "/in/@eaDir/two/user.note", "of two");
         return Arguments{"ea", "upgrade", "-r", scene.tree};
     },
     [](const SweptScene &scene) {
         std::string all = scene.holds(scene.tree + "/@eaDir/one@VexoEAStream", kNote);
         for (const char *const name : {"/in/@eaDir/two@VexoEAStream", "/in/@eaDir/two/user.note"}) {
             all += kit::exists(scene.tree + name) ? kit::readFile(scene.tree + name) : "";
         }
         return all.find("of two") == std::string::npos ? "the value is nowhere; " : std::string();
     },
     [](const SweptScene &scene) {
         return scene.holds(scene.tree + "/in/@eaDir/two@VexoEAStream", stream::bytes({{"user.note", "of two"}})) +
                (kit::exists(scene.tree + "/in/@eaDir/two") ? "the old one is still there; " : "");
     }},
    {"ea_diff",
     [](const SweptScene &scene) {
         return Arguments{"ea", "diff", scene.tree + "/one", scene.tree + "/in/two"};
     },
     source_changed, [](const SweptScene &) { return std::string(); }, 1},
    {"repair",
     [](const SweptScene &scene) {
         kit::writeFile(scene.tree + "/@eaDir/one@VexoEAStream", kNote + "behind its end");
         return Arguments{"store", "repair", "-q", "-r", "--quarantine", scene.scratch / "kept", scene.tree};
     },
     [](const SweptScene &scene) {
         const std::string store = scene.tree + "/@eaDir/one@VexoEAStream";
         const std::string now = kit::exists(store) ? kit::readFile(store) : "";
         return now.starts_with(kNote) ? std::string() : store + " is neither";
     },
     [](const SweptScene &scene) {
         return scene.holds(scene.tree + "/@eaDir/one@VexoEAStream", kNote) +
                (runTool({"store", "check", "-q", "-r", scene.tree}).status == 0 ? "" : "it is not clean; ");
     },
     1},
    {"convert", [](const SweptScene &scene) { return convert_to(scene, "double"); }, values_lost,
     [](const SweptScene &scene) { return values_lost(scene) + converted(scene, kStores); }},
    {"convert_back",
     [](const SweptScene &scene) {
         scene.run(convert_to(scene, "double"));
         return convert_to(scene, "eadir");
     },
     values_lost, [](const SweptScene &scene) { return values_lost(scene) + converted(scene, kDoubles); }},
};

} // namespace

const std::vector<SweptCommand> &swept_commands() {
    return kSwept;
}

} // namespace swept
