// vexofileop ea: the extended metadata of files, whatever their volumes keep it in.
#include "ea/ea.h"
#include "platform/core.h"
#include "tools/vexofileop/commands.h"
#include "tools/vexofileop/console.h"
#include "tools/vexofileop/ea_show.h"
#include "tools/vexofileop/ea_store.h"
#include "tools/vexofileop/error_table.h"
#include "tools/vexofileop/json.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

// Counts what became of the files of a command, and says what failed.
class Work {
  public:
    void each(const std::string &given, const std::function<void(const std::string &path)> &task) {
        const std::string path = absolute_path(given);
        try {
            task(path);
            ++m_done;
        } catch (const StoreError &error) {
            m_console.message(fmt::format("{}: {}", displayed(path), error.what()));
            ++m_failed;
        }
    }
    Console &console() { return m_console; }
    int status() {
        const bool arrived = m_console.check_output();
        const int status = exit_status(m_done, m_failed);
        return arrived || status != exitAll ? status : exitSome;
    }

  private:
    Console m_console;
    int m_done = 0, m_failed = 0;
};

// What the library says of a call that failed.
void check(int result, const char *what) {
    if (result >= 0) {
        return;
    }
    const int number = errno;
    const uint32_t code = VLIBCErrGet();
    throw StoreError(code != 0 ? fmt::format("{}: {} ({})", what, reason_of(code), code_text(code))
                               : fmt::format("{}: {}", what, std::strerror(number)));
}

void check_there(const std::string &path) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        throw StoreError(std::strerror(errno));
    }
    VLIBCErrSetEx(0, "", 0);
}

// ---- The attributes ----

struct Common {
    bool json = false;
};

void print_attributes(Work &work, const Common &common, const std::string &path, bool several) {
    const Store store(path);
    Json out;
    if (common.json) {
        out.add_name("path", path);
        out.add_text("kept_in", kind_text(store.kind()));
    } else if (several) {
        work.console().line(displayed(path) + ":");
    }
    for (const Store::Attribute &attribute : store.list()) {
        if (common.json) {
            Json row;
            row.add_name("name", attribute.name);
            row.add_number("size", static_cast<int64_t>(attribute.size));
            out.add_to_list("attributes", std::move(row));
        } else {
            work.console().line(fmt::format("{:>10}  {}", attribute.size, displayed(attribute.name)));
        }
    }
    if (common.json) {
        work.console().line(out.line());
    }
}

std::string hex_dump(const std::string &value) {
    std::string text;
    for (size_t at = 0; at < value.size(); at += 16) {
        std::string bytes;
        std::string letters;
        for (size_t index = at; index < std::min(at + 16, value.size()); ++index) {
            const auto byte = static_cast<uint8_t>(value[index]);
            bytes += fmt::format("{:02x} ", byte);
            letters += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
        }
        text += fmt::format("{:08x}  {:<48} |{}|\n", at, bytes, letters);
    }
    return text;
}

bool is_plain_text(const std::string &value) {
    return is_utf8(value) && std::none_of(value.begin(), value.end(), [](char byte) {
               return (static_cast<uint8_t>(byte) < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7f;
           });
}

// Raw bytes for a program; on a terminal nothing that would write over it.
void write_value(const std::string &value) {
    const bool shown = ::isatty(STDOUT_FILENO) != 0;
    const std::string text = !shown ? value : is_plain_text(value) ? value + "\n" : hex_dump(value);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw StoreError(fmt::format("cannot be written out: {}", std::strerror(errno)));
    }
}

std::string value_of_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::string value{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        throw StoreError(fmt::format("cannot read {}", displayed(path)));
    }
    return value;
}

std::string value_of_hex(const std::string &text) {
    std::string value;
    for (size_t at = 0; at < text.size(); at += 2) {
        const std::string pair = text.substr(at, 2);
        if (pair.size() != 2 || pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            throw UsageError("--hex takes pairs of hexadecimal digits");
        }
        value.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
    }
    return value;
}

void add_list(CLI::App &parent, int &status, const std::shared_ptr<Common> &common) {
    CLI::App &command = *parent.add_subcommand("list", "List attribute names and sizes");
    CLI::Option *const files = add_operands(command, "FILE", "FILE...");
    command.add_flag("--json", common->json, "one JSON object per file");
    command.footer("\nExample:\n  vexofileop ea list photo.jpg");
    command.callback([&status, common, files] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.empty()) {
            throw UsageError("no file given");
        }
        Work work;
        for (const std::string &file : given) {
            work.each(file, [&](const std::string &path) { print_attributes(work, *common, path, given.size() > 1); });
        }
        status = work.status();
    });
}

void add_get(CLI::App &parent, int &status) {
    CLI::App &command = *parent.add_subcommand("get", "Print the value of an attribute");
    CLI::Option *const operands = add_operands(command, "FILE", "FILE NAME");
    command.footer("\nThe bytes as they are; on a terminal a dump of what is no text.\nExample:\n"
                   "  vexofileop ea get photo.jpg com.example.note > note");
    command.callback([&status, operands] {
        const std::vector<std::string> given = operands_of(*operands);
        if (given.size() != 2) {
            throw UsageError("a file and a name are needed");
        }
        Work work;
        work.each(given[0], [&](const std::string &path) { write_value(Store(path).get(given[1])); });
        status = work.status();
    });
}

struct SetOptions {
    std::string from, hex;
    bool create = false, replace = false;
};

void add_set(CLI::App &parent, int &status) {
    const auto options = std::make_shared<SetOptions>();
    CLI::App &command = *parent.add_subcommand("set", "Set an attribute");
    CLI::Option *const operands = add_operands(command, "FILE", "FILE NAME [VALUE]");
    CLI::Option *const from = command.add_option("--from", options->from, "take the value from this file");
    CLI::Option *const hex = command.add_option("--hex", options->hex, "take the value from hexadecimal digits");
    CLI::Option *const create = command.add_flag("--create", options->create, "fail when the attribute exists");
    command.add_flag("--replace", options->replace, "fail when it does not exist")->excludes(create);
    from->excludes(hex);
    command.footer("\nExamples:\n  vexofileop ea set photo.jpg com.example.note \"hello\"\n"
                   "  vexofileop ea set photo.jpg com.example.icon --from icon.png");
    command.callback([&status, operands, options, from, hex] {
        const std::vector<std::string> given = operands_of(*operands);
        const bool elsewhere = from->count() + hex->count() > 0;
        if (given.size() != (elsewhere ? 2U : 3U)) {
            throw UsageError("a file, a name and one value are needed");
        }
        Work work;
        work.each(given[0], [&](const std::string &path) {
            const std::string value = from->count() > 0  ? value_of_file(options->from)
                                      : hex->count() > 0 ? value_of_hex(options->hex)
                                                         : given[2];
            const Store::Existing existing = options->create    ? Store::Existing::must_not
                                             : options->replace ? Store::Existing::must
                                                                : Store::Existing::either;
            Store(path).set(given[1], value, existing);
        });
        status = work.status();
    });
}

void add_rm(CLI::App &parent, int &status) {
    CLI::App &command = *parent.add_subcommand("rm", "Remove attributes");
    CLI::Option *const operands = add_operands(command, "FILE", "FILE NAME...");
    command.footer("\nExample:\n  vexofileop ea rm photo.jpg com.example.note");
    command.callback([&status, operands] {
        const std::vector<std::string> given = operands_of(*operands);
        if (given.size() < 2) {
            throw UsageError("a file and a name are needed");
        }
        Work work;
        for (size_t at = 1; at < given.size(); ++at) {
            work.each(given[0], [&](const std::string &path) { Store(path).remove(given[at]); });
        }
        status = work.status();
    });
}

// ---- The stores ----

void show(Work &work, const std::string &path, bool json) {
    bool sound = true;
    Json out;
    out.add_name("path", path);
    std::vector<std::string> lines;
    for (const ShownStore &store : stores_of(path)) {
        if (json) {
            out.add_to_list("stores", store_json(store, &sound));
        } else {
            const std::vector<std::string> more = store_lines(store, &sound);
            lines.insert(lines.end(), more.begin(), more.end());
        }
    }
    if (json) {
        work.console().line(out.line());
    } else {
        work.console().line(displayed(path) + (lines.empty() ? ": no extended metadata" : ":"));
        for (const std::string &line : lines) {
            work.console().line("  " + line);
        }
    }
    if (!sound) {
        throw StoreError("a store is malformed");
    }
}

void add_show(CLI::App &parent, int &status) {
    const auto json = std::make_shared<bool>(false);
    CLI::App &command = *parent.add_subcommand("show", "Show everything in the stores of a file");
    CLI::Option *const files = add_operands(command, "FILE", "FILE...");
    command.add_flag("--json", *json, "one JSON object per file");
    command.footer("\nA file, or a store itself: a \"._\" file, a stream file, a resource file. The first\n"
                   "bad field of a malformed store is named.\nExample:\n  vexofileop ea show photo.jpg");
    command.callback([&status, json, files] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.empty()) {
            throw UsageError("no file given");
        }
        Work work;
        for (const std::string &file : given) {
            work.each(file, [&](const std::string &path) { show(work, path, *json); });
        }
        status = work.status();
    });
}

std::vector<std::string> differences(const Store::Metadata &one, const Store::Metadata &other) {
    std::vector<std::string> found;
    if (one.finderInfo != other.finderInfo) {
        found.emplace_back("Finder Info differs");
    }
    if (one.fork != other.fork) {
        found.push_back(fmt::format("resource fork differs: {} and {} bytes", one.fork.size(), other.fork.size()));
    }
    if (one.locked != other.locked) {
        found.emplace_back(one.locked ? "only the first is locked" : "only the second is locked");
    }
    std::set<std::string> names;
    for (const auto &[name, value] : one.attributes) {
        names.insert(name);
    }
    for (const auto &[name, value] : other.attributes) {
        names.insert(name);
    }
    for (const std::string &name : names) {
        const auto first = one.attributes.find(name);
        const auto second = other.attributes.find(name);
        if (first == one.attributes.end() || second == other.attributes.end()) {
            found.push_back(fmt::format("attribute {}: only at the {}", displayed(name),
                                        first == one.attributes.end() ? "second" : "first"));
        } else if (first->second != second->second) {
            found.push_back(fmt::format("attribute {} differs: {} and {} bytes", displayed(name), first->second.size(),
                                        second->second.size()));
        }
    }
    return found;
}

void add_diff(CLI::App &parent, int &status) {
    const auto json = std::make_shared<bool>(false);
    CLI::App &command = *parent.add_subcommand("diff", "Compare the metadata of two files");
    CLI::Option *const files = add_operands(command, "A", "A B");
    command.add_flag("--json", *json, "one JSON object");
    command.footer("\nWhatever the two volumes keep it in: the same Finder Info in an attribute and in a\n"
                   "\"._\" file is the same. Exit status: 0 same, 1 different, 2 trouble.\nExample:\n"
                   "  vexofileop ea diff photo.jpg /volume2/backup/photo.jpg");
    command.callback([&status, json, files] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.size() != 2) {
            throw UsageError("two files are needed");
        }
        Console console;
        std::vector<std::string> found;
        try {
            found = differences(Store(absolute_path(given[0])).metadata(), Store(absolute_path(given[1])).metadata());
        } catch (const StoreError &error) {
            console.message(fmt::format("{} {}: {}", displayed(given[0]), displayed(given[1]), error.what()));
            status = exitNone;
            return;
        }
        Json out;
        out.add_flag("same", found.empty());
        for (const std::string &difference : found) {
            if (*json) {
                Json row;
                row.add_text("text", difference);
                out.add_to_list("differences", std::move(row));
            } else {
                console.line(difference);
            }
        }
        if (*json) {
            console.line(out.line());
        }
        status = found.empty() ? exitAll : exitSome;
    });
}

// ---- What the library does with the stores ----

void add_copy(CLI::App &parent, int &status) {
    const auto move = std::make_shared<bool>(false);
    const auto full = std::make_shared<bool>(false);
    CLI::App &command = *parent.add_subcommand("copy", "Carry the metadata of one file to another");
    CLI::Option *const files = add_operands(command, "SRC", "SRC DST");
    command.add_flag("--move", *move, "remove at the source what was carried");
    command.add_flag("--full-dir", *full, "with what else is in its \"@eaDir\", on FAT too");
    command.footer("\nBoth files exist already. Example:\n  vexofileop ea copy photo.jpg /volume2/photo.jpg");
    command.callback([&status, move, full, files] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.size() != 2) {
            throw UsageError("a source and a destination are needed");
        }
        Work work;
        work.each(given[0], [&](const std::string &path) {
            const std::string to = absolute_path(given[1]);
            check_there(to);
            check_there(path);
            check(VEXOEACopy(path.c_str(), to.c_str(), *move ? 1 : 0, *full ? 1 : 0, -1, -1, 0, 0),
                  "cannot be carried");
        });
        status = work.status();
    });
}

void add_rename(CLI::App &parent, int &status) {
    CLI::App &command = *parent.add_subcommand("rename", "Move the metadata after its file was renamed");
    CLI::Option *const files = add_operands(command, "OLD", "OLD NEW");
    command.footer("\nExample:\n  mv a.jpg b.jpg && vexofileop ea rename a.jpg b.jpg");
    command.callback([&status, files] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.size() != 2) {
            throw UsageError("the old and the new name are needed");
        }
        Work work;
        work.each(given[1], [&](const std::string &path) {
            check_there(path);
            check(VEXOEARename(absolute_path(given[0]).c_str(), path.c_str(), -1, 0), "cannot be moved");
        });
        status = work.status();
    });
}

using ForEach = std::function<void(const std::string &path)>;

void add_for_each(CLI::App &parent, int &status, const char *name, const char *text, const char *footer,
                  const ForEach &task) {
    CLI::App &command = *parent.add_subcommand(name, text);
    CLI::Option *const files = add_operands(command, "FILE", "FILE...");
    command.footer(footer);
    command.callback([&status, files, task] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.empty()) {
            throw UsageError("no file given");
        }
        Work work;
        for (const std::string &file : given) {
            work.each(file, task);
        }
        status = work.status();
    });
}

// ---- Upgrade ----

// The stores of the old layout that a file has, by the names that convert them.
std::vector<std::string> old_stores(const std::string &path) {
    char directory[4096];
    std::vector<std::string> stores;
    if (VEXOEADirPath(0, path.c_str(), directory, static_cast<int>(sizeof directory) - 1) != 0) {
        return stores;
    }
    bool attributes = false;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(directory, ignored)) {
        const std::string name = entry.path().filename();
        if (name == "VEXO:Resource") {
            stores.emplace_back("VexoResource");
        } else if (name.starts_with("VEXO") && name.find(':') != std::string::npos) {
            stores.push_back(name);
        } else if (name.find(':') == std::string::npos && !name.starts_with("VEXO") && entry.is_regular_file(ignored)) {
            attributes = true;
        }
    }
    if (attributes) {
        stores.emplace_back("VexoEAStream");
    }
    std::sort(stores.begin(), stores.end());
    return stores;
}

struct UpgradeOptions {
    bool recursive = false, dryRun = false;
};

void upgrade_file(Work &work, const std::string &path, bool dryRun) {
    std::string failure;
    for (const std::string &store : old_stores(path)) {
        if (dryRun) {
            work.console().line(fmt::format("{}: {} would be converted", displayed(path), displayed(store)));
            continue;
        }
        VLIBCErrSetEx(0, "", 0);
        const int result = VEXOEAUpgrade(path.c_str(), store.c_str());
        if (result == 0) {
            work.console().line(fmt::format("{}: {} converted", displayed(path), displayed(store)));
        } else if (result == 1) {
            work.console().line(
                fmt::format("{}: {} is there in the current layout already", displayed(path), displayed(store)));
        } else if (result < 0) {
            failure = fmt::format("{}: {} ({})", displayed(store), reason_of(VLIBCErrGet()), code_text(VLIBCErrGet()));
        }
    }
    if (!failure.empty()) {
        throw StoreError(failure);
    }
}

void add_upgrade(CLI::App &parent, int &status) {
    const auto options = std::make_shared<UpgradeOptions>();
    CLI::App &command = *parent.add_subcommand("upgrade", "Convert stores of the old layout");
    CLI::Option *const files = add_operands(command, "PATH", "PATH...");
    command.add_flag("-r,--recursive", options->recursive, "every file and directory of a tree");
    command.add_flag("--dry-run", options->dryRun, "only list what would be converted");
    command.footer("\nExample:\n  vexofileop ea upgrade -r --dry-run /volume1/photos");
    command.callback([&status, options, files] {
        const std::vector<std::string> given = operands_of(*files);
        if (given.empty()) {
            throw UsageError("no file given");
        }
        Work work;
        for (const std::string &file : given) {
            std::vector<std::string> paths = {absolute_path(file)};
            std::error_code ignored;
            using Walk = std::filesystem::recursive_directory_iterator;
            for (Walk at(paths[0], ignored), end; options->recursive && at != end; at.increment(ignored)) {
                if (VEXOEAIsHiddenDirName(at->path().filename().c_str()) > 0) {
                    at.disable_recursion_pending();
                } else if (at->is_regular_file(ignored) || at->is_directory(ignored)) {
                    paths.push_back(at->path());
                }
            }
            for (const std::string &path : paths) {
                work.each(path, [&](const std::string &one) {
                    check_there(one);
                    upgrade_file(work, one, options->dryRun);
                });
            }
        }
        status = work.status();
    });
}

} // namespace

void add_ea_command(CLI::App &app, int &status) {
    CLI::App &command = *app.add_subcommand("ea", "Extended metadata: attributes, Finder Info, resource forks");
    command.require_subcommand(1);
    const auto common = std::make_shared<Common>();
    add_list(command, status, common);
    add_get(command, status);
    add_set(command, status);
    add_rm(command, status);
    add_show(command, status);
    add_diff(command, status);
    add_copy(command, status);
    add_rename(command, status);
    add_for_each(command, status, "remove", "Remove all metadata of files",
                 "\nThe files themselves stay. Example:\n  vexofileop ea remove photo.jpg",
                 [](const std::string &path) {
                     check_there(path);
                     check(VEXOEARemove(path.c_str(), -1), "cannot be removed");
                 });
    add_for_each(command, status, "repair", "Repair resource files that hold attributes",
                 "\nThe attributes are moved into the attribute stream. Example:\n  vexofileop ea repair photo.jpg",
                 [](const std::string &path) {
                     check_there(path);
                     check(VEXOEAFixErrorAD(path.c_str()), "cannot be repaired");
                 });
    add_upgrade(command, status);
}

} // namespace tool
