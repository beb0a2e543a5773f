// vexofileop ea list, get, set and rm: single attributes.
#include "tools/vexofileop/ea_commands.h"
#include "tools/vexofileop/ea_store.h"
#include "tools/vexofileop/failure.h"
#include "tools/vexofileop/hex.h"
#include "tools/vexofileop/input.h"
#include "tools/vexofileop/json.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/path_work.h"
#include "tools/vexofileop/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace tool {
namespace {

void print_attributes(Console &console, const std::string &path, bool heading) {
    const Store store(path);
    if (heading) {
        console.line(displayed(path) + ":");
    }
    for (const Store::Attribute &attribute : store.list()) {
        console.line(fmt::format("{:>10}  {}", attribute.size, displayed(attribute.name)));
    }
}

void print_json(Console &console, const std::string &path) {
    const Store store(path);
    Json out;
    out.add_name("path", path);
    out.add_text("kept_in", kind_text(store.kind()));
    for (const Store::Attribute &attribute : store.list()) {
        Json row;
        row.add_name("name", attribute.name);
        row.add_number("size", static_cast<int64_t>(attribute.size));
        out.add_to_list("attributes", std::move(row));
    }
    console.line(out.line());
}

void add_list(CLI::App &ea, int &status) {
    CLI::App &command = *ea.add_subcommand("list", "List attribute names and sizes");
    const PathOperands files(command, "FILE", "FILE...");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "one JSON object per file");
    command.footer("\nExample:\n  vexofileop ea list photo.jpg");
    command.callback([&status, json, files] {
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
    return is_utf8(value) && std::ranges::none_of(value, [](char byte) {
               return (static_cast<uint8_t>(byte) < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7f;
           });
}

// Raw bytes for a program; on a terminal nothing that would write over it.
void write_value(const std::string &value) {
    const bool shown = ::isatty(STDOUT_FILENO) != 0;
    const std::string text = !shown ? value : is_plain_text(value) ? value + "\n" : hex_dump(value);
    if ((std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) &&
        errno != EPIPE) { // a reader that has seen enough is no failure
        throw_errno("cannot be written out");
    }
}

void add_get(CLI::App &ea, int &status) {
    CLI::App &command = *ea.add_subcommand("get", "Print the value of an attribute");
    CLI::Option *const operands = add_operands(command, "FILE", "FILE NAME");
    command.footer("\nThe bytes as they are; on a terminal a dump of what is no text.\n"
                   "Example:\n"
                   "  vexofileop ea get photo.jpg com.example.note > note");
    command.callback([&status, operands] {
        const std::vector<std::string> given = operands_of(*operands);
        if (given.size() != 2) {
            throw UsageError("a file and a name are needed");
        }
        PathWork work;
        work.one(given[0], [&](const std::string &path) { write_value(Store(path).get(given[1])); });
        status = work.finish();
    });
}

class SetCommand {
  public:
    explicit SetCommand(CLI::App &command)
        : m_operands(add_operands(command, "FILE", "FILE NAME [VALUE]")),
          m_from(command.add_option("--from", CLI::callback_t(), "take the value from this file; - is stdin")
                     ->option_text("SOURCE")),
          m_hex(command.add_option("--hex", CLI::callback_t(), "take the value from hexadecimal digits")
                    ->option_text("DIGITS")),
          m_create(command.add_flag("--create")->description("fail when the attribute exists")),
          m_replace(command.add_flag("--replace")->description("fail when it does not exist")) {
        m_replace->excludes(m_create);
        m_from->excludes(m_hex);
    }
    int run() const {
        const std::vector<std::string> given = operands_of(*m_operands);
        const bool elsewhere = m_from->count() + m_hex->count() > 0;
        if (given.size() != (elsewhere ? 2U : 3U)) {
            throw UsageError("a file, a name and one value are needed");
        }
        const std::string digits = m_hex->count() > 0 ? operands_of(*m_hex).front() : "";
        const auto bytes = bytes_of_hex(digits);
        if (!bytes) {
            throw UsageError("--hex takes pairs of hexadecimal digits");
        }
        PathWork work;
        work.one(given[0], [&](const std::string &path) {
            const std::string value = m_from->count() > 0 ? read_input(operands_of(*m_from).front())
                                      : elsewhere         ? *bytes
                                                          : given[2];
            Store(path).set(given[1], value, existing());
        });
        return work.finish();
    }

  private:
    Store::Existing existing() const {
        return m_create->count() > 0    ? Store::Existing::must_not
               : m_replace->count() > 0 ? Store::Existing::must
                                        : Store::Existing::either;
    }
    // The parser owns them.
    CLI::Option *m_operands, *m_from, *m_hex, *m_create, *m_replace;
};

void add_set(CLI::App &ea, int &status) {
    CLI::App &command = *ea.add_subcommand("set", "Set an attribute");
    const SetCommand set(command);
    command.footer("\nExamples:\n  vexofileop ea set photo.jpg com.example.note \"hello\"\n"
                   "  vexofileop ea set photo.jpg com.example.icon --from icon.png");
    command.callback([&status, set] { status = set.run(); });
}

void add_rm(CLI::App &ea, int &status) {
    CLI::App &command = *ea.add_subcommand("rm", "Remove attributes");
    CLI::Option *const operands = add_operands(command, "FILE", "FILE NAME...");
    command.footer("\nThe store goes with the last thing in it. To remove everything: ea remove.\n"
                   "Example:\n"
                   "  vexofileop ea rm photo.jpg com.example.note");
    command.callback([&status, operands] {
        const std::vector<std::string> given = operands_of(*operands);
        if (given.size() < 2) {
            throw UsageError("a file and a name are needed");
        }
        PathWork work;
        for (size_t at = 1; at < given.size(); ++at) {
            work.one(given[0], [&](const std::string &path) {
                try {
                    Store(path).remove(given[at]);
                } catch (const Failure &failure) {
                    throw Failure(fmt::format("{}: {}", displayed(given[at]), failure.what()));
                }
            });
        }
        status = work.finish();
    });
}

} // namespace

void add_ea_attribute_commands(CLI::App &ea, int &status) {
    add_list(ea, status);
    add_get(ea, status);
    add_set(ea, status);
    add_rm(ea, status);
}

} // namespace tool
