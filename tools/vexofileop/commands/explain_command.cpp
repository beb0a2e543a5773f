// vexofileop explain: what an error code means, a class of losses, or a finding of a check of stores.
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/names.h"
#include "tools/engine/stores/finding.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/terminal/console.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>
#include <optional>
#include <variant>

namespace tool {
namespace {

// "0xA400", "a400" or "A400".
std::optional<uint32_t> code_from(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
    }
    uint32_t code = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code, 16);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && code <= 0xFFFF ? std::optional(code) : std::nullopt;
}

// What a comparison tells beside losses.
struct Extra {
    static constexpr const char *name = "extra", *text = "entries that only the second has";
};

void list_all(Console &console) {
    for (const engine::ErrorInfo &row : engine::error_table()) {
        console.line(fmt::format("{}  {}", engine::code_text(row.code), row.reason));
    }
    for (const engine::LossRow &row : engine::kLossTable) {
        console.line(fmt::format("{}  {}", row.name, row.several));
    }
    for (const engine::LossGroup *const group : engine::loss_groups()) {
        console.line(fmt::format("{}  {}", group->name, group->text));
    }
    console.line(fmt::format("{}  {}", Extra::name, Extra::text));
    for (const engine::FindingRow &row : engine::kFindingTable) {
        console.line(fmt::format("{}  {}", row.name, row.text));
    }
}

// "LABEL: TEXT" in lines of at most 79 columns, the later ones indented, without the last line feed.
std::string paragraph(std::string_view label, std::string_view text) {
    constexpr size_t width = 79;
    std::string out = fmt::format("  {}:", label);
    size_t column = out.size();
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(text.size(), word.size() + 1));
        const bool fits = column + 1 + word.size() <= width;
        out += fits ? " " : "\n      ";
        column = (fits ? column + 1 : 6) + word.size();
        out += word;
    }
    return out;
}

uint32_t code_of(const std::string &text) {
    const std::optional<uint32_t> code = code_from(text);
    if (!code) {
        throw UsageError(fmt::format("{}: neither an error code, which looks like 0xA400, nor a class of losses, "
                                     "nor a group of them ({}), nor a finding of \"store check\"",
                                     engine::displayed(text), engine::loss_group_names()));
    }
    return *code;
}

bool explain(Console &console, uint32_t code) {
    const engine::ErrorInfo *const row = engine::find_error(code);
    if (row == nullptr) {
        console.message(fmt::format("{}: no such error code", engine::code_text(code)));
        return false;
    }
    console.line(fmt::format("{}  {}", engine::code_text(row->code), row->reason));
    console.line(paragraph("When", row->cause));
    console.line(paragraph("What helps", row->fix));
    return true;
}

bool explain(Console &console, engine::LossClass cls) {
    const engine::LossRow &row = engine::loss_row(cls);
    console.line(fmt::format("{}  {} ({})", row.name, row.several, engine::severity_name(row.severity)));
    console.line(paragraph("Meaning", row.meaning));
    console.line(paragraph("What helps", row.help));
    return true;
}

// "a, b and c": the classes of a group.
std::string classes_of(const engine::LossGroup &group) {
    const auto set = engine::loss_set(group.name);
    std::vector<std::string> names;
    for (const engine::LossRow &row : engine::kLossTable) {
        if (set->contains(row.cls)) {
            names.emplace_back(row.name);
        }
    }
    const std::string last = names.back();
    names.pop_back();
    return fmt::format("{} and {}", fmt::join(names, ", "), last);
}

bool explain(Console &console, const engine::LossGroup *group) {
    console.line(fmt::format("{}  {} (group)", group->name, group->text));
    console.line(paragraph("Meaning", fmt::format("It stands for {}.", classes_of(*group))));
    return true;
}

bool explain(Console &console, Extra) {
    console.line(fmt::format("{}  {} (of compare)", Extra::name, Extra::text));
    console.line(paragraph("Meaning", "What is compared second has an entry that the first has not, told once for a "
                                      "directory. Of \"compare\", --only and --ignore take it; no copy loses it."));
    console.line(paragraph("What helps", "Remove it, or let \"mirror\" do that."));
    return true;
}

bool explain(Console &console, engine::FindingKind kind) {
    const engine::FindingRow &row = engine::finding_row(kind);
    console.line(fmt::format("{}  {}", row.name, row.text));
    console.line(paragraph("Meaning", row.meaning));
    console.line(paragraph("What helps", row.help));
    return true;
}

using Subject = std::variant<uint32_t, engine::LossClass, const engine::LossGroup *, engine::FindingKind, Extra>;

Subject subject_of(const std::string &text) {
    if (const engine::LossGroup *const group = engine::loss_group(text)) {
        return group;
    }
    if (const auto kind = engine::finding_kind(text)) {
        return *kind;
    }
    if (text == Extra::name) {
        return Extra{};
    }
    const auto cls = engine::loss_class(text);
    return cls ? Subject(*cls) : Subject(code_of(text));
}

int explain_all(const std::vector<std::string> &given) {
    std::vector<Subject> subjects;
    std::ranges::transform(given, std::back_inserter(subjects), subject_of);
    Console console;
    int known = 0, unknown = 0;
    for (const Subject &subject : subjects) {
        ++(std::visit([&](const auto one) { return explain(console, one); }, subject) ? known : unknown);
    }
    if (subjects.empty()) {
        list_all(console);
    }
    const bool written = console.check_output();
    return !written && unknown == 0 ? exitSome : exit_status(known, unknown);
}

} // namespace

void add_explain_command(const Command &program, int &status) {
    const Command command = program.add_command("explain", "Tell what a code, a loss or a finding means");
    const Option codes = command.add_operands("CODE", "[CODE|CLASS|GROUP|FINDING...]");
    command.set_footer("\nWithout one all of them are listed. A group is what --accept takes for several\n"
                       "classes at once, a finding what \"store check\" tells.\n"
                       "Examples:\n"
                       "  vexofileop explain 0xA400\n"
                       "  vexofileop explain acl-access\n"
                       "  vexofileop explain store-orphan");
    command.set_work([&status, codes] { status = explain_all(codes.values()); });
}

} // namespace tool
