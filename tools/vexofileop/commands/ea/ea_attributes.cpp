// vexofileop ea list, get, set and rm: single attributes.
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/held_entry.h"
#include "tools/vexofileop/arguments/input.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/ea/ea_commands.h"
#include "tools/vexofileop/commands/path_work.h"
#include "tools/vexofileop/output/hex.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

void print_attributes(Console &console, const std::string &path, bool heading) {
    const engine::HeldEntry entry(path);
    const engine::Store store(entry);
    if (heading) {
        console.line(engine::displayed(path) + ":");
    }
    for (const engine::Store::Attribute &attribute : store.list()) {
        console.line(fmt::format("{:>10}  {}", attribute.size, engine::displayed(attribute.name)));
    }
}

void print_json(Console &console, const std::string &path) {
    const engine::HeldEntry entry(path);
    const engine::Store store(entry);
    Json out;
    out.add_name("path", path);
    out.add_text("kept_in", engine::kind_text(store.kind()));
    for (const engine::Store::Attribute &attribute : store.list()) {
        Json row;
        row.add_name("name", attribute.name);
        row.add_number("size", static_cast<int64_t>(attribute.size));
        out.add_to_list("attributes", std::move(row));
    }
    console.line(out.line());
}

void add_list(const Command &ea, int &status) {
    const Command command = ea.add_command("list", "List attribute names and sizes");
    const PathOperands files(command, "FILE", "FILE...");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "one JSON object per file");
    command.set_footer("\nExample:\n  vexofileop ea list photo.jpg");
    command.set_work([&status, json, files] {
        const std::vector<std::string> given = files.all();
        PathWork work;
        work.each(given, [&](const std::string &path) {
            if (*json) {
                print_json(work.console(), path);
            } else {
                print_attributes(work.console(), path, given.size() > 1);
            }
        });
        status = work.finish();
    });
}

bool is_plain_text(const std::string &value) {
    return engine::is_utf8(value) && std::ranges::none_of(value, [](char byte) {
               return (static_cast<uint8_t>(byte) < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7f;
           });
}

// Raw bytes for a program; on a terminal nothing that would write over it.
void write_value(const std::string &value) {
    const bool shown = ::isatty(STDOUT_FILENO) != 0;
    const std::string text = !shown ? value : is_plain_text(value) ? value + "\n" : hex_dump(value);
    if ((std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) &&
        errno != EPIPE) { // a reader that has seen enough is no failure
        engine::throw_errno("cannot be written out");
    }
}

// A command that works on attributes of one file by their names.
struct WorkByName {
    const char *name, *text, *usage, *footer;
    size_t mostNames;
};

void add_by_name(const Command &ea, int &status, const WorkByName &work,
                 const std::function<void(const std::string &path, const std::string &name)> &task) {
    const Command command = ea.add_command(work.name, work.text);
    const Option operands = command.add_operands("FILE", work.usage);
    command.set_footer(work.footer);
    command.set_work([&status, operands, task, most = work.mostNames] {
        const std::vector<std::string> given = operands.values();
        if (given.size() < 2 || given.size() - 1 > most) {
            throw UsageError("a file and a name are needed");
        }
        PathWork each;
        for (size_t at = 1; at < given.size(); ++at) {
            each.one(given[0], [&](const std::string &path) { task(path, given[at]); });
        }
        status = each.finish();
    });
}

void add_get(const Command &ea, int &status) {
    add_by_name(ea, status,
                {"get", "Print the value of an attribute", "FILE NAME",
                 "\nThe bytes as they are; on a terminal a dump of what is no text.\n"
                 "Example:\n"
                 "  vexofileop ea get photo.jpg com.example.note > note",
                 1},
                [](const std::string &path, const std::string &name) {
                    write_value(engine::Store(engine::HeldEntry(path)).get(name));
                });
}

// What the kernel could give; it gives more than it has, and ends somebody for that.
uint64_t free_memory() {
    std::ifstream table("/proc/meminfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string name;
        uint64_t kilobytes = 0;
        if (words >> name >> kilobytes && name == "MemAvailable:") {
            return kilobytes << 10;
        }
    }
    return UINT64_MAX;
}

// A change of a store holds its values several times.
void check_room(const std::string &path, uint64_t most) {
    constexpr uint64_t times = 4;
    struct stat found {};
    if (path == "-" || ::stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return;
    }
    const auto size = static_cast<uint64_t>(found.st_size);
    const uint64_t there = size <= kMostWithoutSize || size > most ? UINT64_MAX : free_memory();
    if (size * times > there) {
        throw engine::Failure(
            fmt::format("{} has {} bytes, and setting a value takes {} times as much memory, of which "
                        "{} bytes are free: nothing was done",
                        engine::displayed(path), size, times, there));
    }
}

class SetCommand {
  public:
    explicit SetCommand(const Command &command)
        : m_operands(command.add_operands("FILE", "FILE NAME [VALUE]")),
          m_from(command.add_value("--from", "SOURCE", "take the value from this file; - is stdin")),
          m_hex(command.add_value("--hex", "DIGITS", "take the value from hexadecimal digits")),
          m_create(command.add_flag("--create", "fail when the attribute exists")),
          m_replace(command.add_flag("--replace", "fail when it does not exist")) {
        m_replace.excludes(m_create);
        m_from.excludes(m_hex);
    }
    int run() const {
        const std::vector<std::string> given = m_operands.values();
        const bool elsewhere = m_from.given() || m_hex.given();
        if (given.size() != (elsewhere ? 2U : 3U)) {
            throw UsageError("a file, a name and one value are needed");
        }
        const std::string digits = m_hex.given() ? m_hex.values().front() : "";
        const auto bytes = bytes_of_hex(digits);
        if (!bytes) {
            throw UsageError("--hex takes pairs of hexadecimal digits");
        }
        PathWork work;
        work.one(given[0], [&](const std::string &path) {
            const engine::HeldEntry entry(path);
            const engine::Store store(entry);
            if (set_from_file(store, given[1])) {
                return;
            }
            const std::string value = m_from.given() ? input(store.largest_value(given[1]))
                                      : elsewhere    ? *bytes
                                                     : given[2];
            store.set(given[1], value, existing());
        });
        return work.finish();
    }

  private:
    // What is long goes from file to file. False: it is to be read as a whole.
    bool set_from_file(const engine::Store &store, const std::string &name) const {
        constexpr off_t longest = off_t{1} << 20;
        struct stat found {};
        const std::string path = m_from.given() ? m_from.values().front() : "-";
        if (path == "-" || store.kind() == engine::StoreKind::native || ::stat(path.c_str(), &found) != 0 ||
            !S_ISREG(found.st_mode) || found.st_size <= longest ||
            static_cast<uint64_t>(found.st_size) > store.largest_value(name)) {
            return false;
        }
        const engine::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode)) {
            engine::throw_errno(fmt::format("cannot read {}", engine::displayed(path)));
        }
        store.set(name, file.get(), static_cast<uint64_t>(found.st_size), existing());
        return true;
    }
    std::string input(uint64_t most) const {
        try {
            check_room(m_from.values().front(), most);
            std::string value = read_input(m_from.values().front(), most, kMostWithoutSize);
            if (stop_signal() != 0) {
                throw engine::Failure("stopped before all of the value was there");
            }
            return value;
        } catch (const std::bad_alloc &) {
            throw engine::Failure("the value does not fit into memory");
        }
    }
    engine::Store::Existing existing() const {
        return m_create.given()    ? engine::Store::Existing::must_not
               : m_replace.given() ? engine::Store::Existing::must
                                   : engine::Store::Existing::either;
    }
    Option m_operands, m_from, m_hex, m_create, m_replace;
};

void add_set(const Command &ea, int &status) {
    const Command command = ea.add_command("set", "Set an attribute");
    const SetCommand set(command);
    command.set_footer("\nA value has 2 GiB less a byte at most, or what the volume takes where it keeps\n"
                       "attributes itself; of a pipe or device no more than 64 MiB are taken.\n"
                       "Examples:\n  vexofileop ea set photo.jpg com.example.note \"hello\"\n"
                       "  vexofileop ea set photo.jpg com.example.icon --from icon.png");
    command.set_work([&status, set] { status = set.run(); });
}

void add_rm(const Command &ea, int &status) {
    add_by_name(ea, status,
                {"rm", "Remove attributes", "FILE NAME...",
                 "\nThe store goes with the last thing in it. To remove everything: ea remove.\n"
                 "Example:\n"
                 "  vexofileop ea rm photo.jpg com.example.note",
                 SIZE_MAX},
                [](const std::string &path, const std::string &name) {
                    try {
                        engine::Store(engine::HeldEntry(path)).remove(name);
                    } catch (const engine::Failure &failure) {
                        throw engine::Failure(fmt::format("{}: {}", engine::displayed(name), failure.what()));
                    }
                });
}

} // namespace

void add_ea_attribute_commands(const Command &ea, int &status) {
    add_list(ea, status);
    add_get(ea, status);
    add_set(ea, status);
    add_rm(ea, status);
}

} // namespace tool
