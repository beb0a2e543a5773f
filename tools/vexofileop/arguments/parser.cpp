#include "tools/vexofileop/arguments/parser.h"

#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/near_commands.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <string_view>

namespace tool {
namespace {

constexpr std::string_view kMark = "\x01";

// What CLI11 gives a meaning of its own: "[a,b]" is a list of two to it and "++" ends a command.
bool needs_mark(std::string_view argument) {
    return argument.starts_with('[') || argument.starts_with(kMark) || argument == "++";
}

std::string marked(std::string_view argument, bool always) {
    return std::string(always || needs_mark(argument) ? kMark : "").append(argument);
}

// The command line as CLI11 takes it: in reverse, without "--", and with a mark before what it would give a meaning of
// its own, which Option::values() takes off again. What follows "--" is all marked.
std::vector<std::string> arguments_of(int argc, const char *const *argv) {
    std::vector<std::string> arguments;
    bool optionsEnded = false;
    for (int at = 1; at < argc; ++at) {
        const std::string_view argument = argv[at];
        if (!optionsEnded && argument == "--") {
            optionsEnded = true;
        } else {
            arguments.push_back(marked(argument, optionsEnded));
        }
    }
    std::ranges::reverse(arguments);
    return arguments;
}

// What CLI11 says about an argument, as the user wrote that one.
std::string without_marks(std::string text) {
    std::erase(text, kMark.front());
    return text;
}

[[noreturn]] void refuse_as_command(const CLI::App &at, const std::string &word) {
    const auto commands = at.get_subcommands([](const CLI::App *) { return true; });
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const CLI::App *const command : commands) {
        names.push_back(command->get_name());
    }
    for (const CLI::App *const command : commands) {
        for (const CLI::App *const below : command->get_subcommands([](const CLI::App *) { return true; })) {
            names.push_back(command->get_name() + " " + below->get_name());
        }
    }
    const std::vector<std::string> near = near_commands(word, names);
    throw UsageError(fmt::format("unknown command \"{}\"{}{}{}", engine::displayed(word),
                                 near.empty() ? "" : "; did you mean \"", fmt::join(near, "\" or \""),
                                 near.empty() ? "" : "\"?"));
}

// Throws UsageError for a word in place of a command that there is none of.
void refuse_unknown_command(const CLI::App &program) {
    const CLI::App *at = &program;
    while (!at->get_subcommands().empty()) {
        at = at->get_subcommands().front();
    }
    const std::vector<std::string> words = at->remaining(true);
    const auto commands = at->get_subcommands([](const CLI::App *) { return true; });
    if (!commands.empty() && !words.empty() && !words.front().starts_with('-')) {
        refuse_as_command(*at, without_marks(words.front()));
    }
}

constexpr std::string_view kUnlabelled = "Subcommands"; // CLI11's group of a command that was put into none
constexpr const char *kRare = "More options";           // the group of what --help leaves to --help-all

// How --help looks: one line for each option, what an option takes behind its name, examples at the end.
class HelpFormatter : public CLI::Formatter {
  public:
    HelpFormatter() { column_width(25); }
    std::string make_group(std::string group, bool operands, std::vector<const CLI::Option *> options) const override;
    std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override;
    std::string make_subcommands(const CLI::App *app, CLI::AppFormatMode mode) const override;
    std::string make_usage(const CLI::App *app, std::string name) const override;
    std::string make_positionals(const CLI::App *) const override { return {}; }
    std::string make_option_name(const CLI::Option *option, bool operand) const override;
    std::string make_option_opts(const CLI::Option *option) const override;

  private:
    // What the formatter's callers say to its first function only.
    mutable bool m_all = false, m_program = false;
};

std::string HelpFormatter::make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const {
    m_all = mode == CLI::AppFormatMode::All;
    m_program = app->get_parent() == nullptr;
    std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
    // CLI11 separates every section with an empty line or two; a screen has room for one.
    for (size_t at; (at = text.find("\n\n\n")) != std::string::npos;) {
        text.erase(at, 1);
    }
    if (const size_t at = text.find("\n\n  --help-all"); at != std::string::npos) {
        text.erase(at, 1);
    }
    // The commands of the program and its example fill it.
    if (const size_t at = text.find("\n\nExample"); app->get_parent() == nullptr && at != std::string::npos) {
        text.erase(at, 1);
    }
    return text;
}

std::string HelpFormatter::make_group(std::string group, bool operands,
                                      std::vector<const CLI::Option *> options) const {
    if (m_program && !m_all) {
        return {}; // its options are in its usage: the screen is for the commands
    }
    if (group == kRare && !m_all) {
        return options.size() > 1 ? "  --help-all             print more options\n" : "";
    }
    return CLI::Formatter::make_group(std::move(group), operands, std::move(options));
}

// Those of the program under what they are for, said once.
std::string HelpFormatter::make_subcommands(const CLI::App *app, CLI::AppFormatMode mode) const {
    if (app->get_parent() != nullptr || mode != CLI::AppFormatMode::Normal) {
        return CLI::Formatter::make_subcommands(app, mode);
    }
    std::string lines = "\nSubcommands:\n", label;
    for (const CLI::App *const command : app->get_subcommands({})) {
        const bool said = command->get_group() == label || command->get_group() == kUnlabelled;
        label = command->get_group();
        lines += fmt::format("  {:<7}{:<16}{}\n", said ? "" : label, command->get_name(), command->get_description());
    }
    return lines;
}

std::string HelpFormatter::make_usage(const CLI::App *app, std::string name) const {
    // The description of operands is their usage.
    std::string line = "Usage: " + name;
    const auto operands = app->get_options([](const auto *option) { return option->get_positional(); });
    if (!app->get_subcommands({}).empty()) {
        line += " COMMAND ...\n";
        if (app->get_parent() == nullptr) {
            return line + "       " + name + " help [COMMAND...] | --version\n";
        }
        if (operands.empty()) {
            return line;
        }
        line += "       " + name;
    }
    line += " [OPTION...]";
    for (const CLI::Option *const operand : operands) {
        line += " " + operand->get_description();
    }
    return line + "\n";
}

// Without "{always}", which is CLI11's way to tell the value of the name alone.
std::string HelpFormatter::make_option_name(const CLI::Option *option, bool operand) const {
    const std::string name = CLI::Formatter::make_option_name(option, operand);
    return name.substr(0, name.find('{'));
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const {
    const std::string &text = option->get_option_text();
    return text.empty() || text.front() == '[' ? text : " " + text;
}

void collect_commands(const CLI::App &app, const std::string &above, std::vector<KnownCommand> &known) {
    for (const CLI::App *const command : app.get_subcommands({})) {
        const std::string name = above + command->get_name();
        known.push_back({name, command->get_description()});
        collect_commands(*command, name + " ", known);
    }
}

const CLI::App *command_named(const CLI::App &app, const std::string &name) {
    const auto commands = app.get_subcommands([&name](const CLI::App *command) { return command->check_name(name); });
    return commands.empty() ? nullptr : commands.front();
}

// The options that a command has, out of its sight for a while: CLI11 searches them for each name that is added.
class OptionsAside {
  public:
    OptionsAside(CLI::App &app, bool wanted) : m_app(app), m_wanted(wanted) {
        if (m_wanted) {
            m_before.swap(options());
        }
    }
    OptionsAside(const OptionsAside &) = delete;
    OptionsAside &operator=(const OptionsAside &) = delete;
    ~OptionsAside() {
        if (m_wanted) {
            std::ranges::move(options(), std::back_inserter(m_before));
            m_before.swap(options());
        }
    }

  private:
    struct Reach : CLI::App {
        static auto options() { return &Reach::options_; }
    };
    std::vector<CLI::Option_p> &options() const { return m_app.*Reach::options(); }

    CLI::App &m_app;
    bool m_wanted;
    std::vector<CLI::Option_p> m_before = {};
};

// A command does not take it over with its group.
void add_help_all(CLI::App &app) {
    app.set_help_all_flag("--help-all", "print all options and exit")->group(kRare);
}

} // namespace

bool Option::given() const {
    return m_option->count() > 0;
}

std::vector<std::string> Option::values() const {
    std::vector<std::string> values = m_option->results();
    for (std::string &value : values) {
        if (value.starts_with(kMark)) {
            value.erase(0, kMark.size());
        }
    }
    return values;
}

void Option::needs(const Option &other) const {
    m_option->needs(other.m_option);
}

void Option::excludes(const Option &other) const {
    m_option->excludes(other.m_option);
}

Command Command::rare() const {
    Command same = *this;
    same.m_rare = true;
    return same;
}

Command Command::trusted() const {
    Command same = *this;
    same.m_trusted = true;
    return same;
}

template <typename Add>
CLI::Option &Command::added(const Add &add) const {
    const OptionsAside aside(*m_app, m_trusted);
    CLI::Option &option = *add(*m_app);
    return m_rare ? *option.group(kRare) : option;
}

Command Command::add_command(const char *name, const char *text) const {
    CLI::App &command = *m_app->add_subcommand(name, text);
    add_help_all(command);
    return m_trusted ? Command(command).trusted() : Command(command);
}

bool Command::has_command() const {
    return !m_app->get_subcommands().empty();
}

void Command::refuse_command(const std::string &word) const {
    refuse_as_command(*m_app, word);
}

std::vector<KnownCommand> Command::known_commands() const {
    std::vector<KnownCommand> known;
    collect_commands(*m_app, "", known);
    return known;
}

std::string Command::help_of(const std::vector<std::string> &words) const {
    const CLI::App *at = m_app;
    std::string above;
    for (const std::string &word : words) {
        const CLI::App *const command = command_named(*at, word);
        if (command == nullptr) {
            refuse_as_command(*at, word);
        }
        above += (above.empty() ? "" : " ") + at->get_name();
        at = command;
    }
    return at->help(above);
}

void Command::label_command(const std::string &name, const char *label) const {
    for (CLI::App *const command : m_app->get_subcommands([&](const CLI::App *one) { return one->check_name(name); })) {
        command->group(label);
    }
}

void Command::allow_command() const {
    m_app->require_subcommand(0, 1);
}

void Command::excludes(const Option &option) const {
    m_app->excludes(option.m_option);
}

void Command::require_command() const {
    m_app->require_subcommand(1);
}

Option Command::add_flag(const char *names, const char *text) const {
    return Option(added([&](CLI::App &app) { return app.add_flag(names)->description(text); }));
}

void Command::add_flag(const char *names, bool &value, const char *text) const {
    added([&](CLI::App &app) { return app.add_flag(names, value, text); });
}

Option Command::add_value(const char *name, const char *valueName, const char *text) const {
    return Option(
        added([&](CLI::App &app) { return app.add_option(name, CLI::callback_t(), text)->option_text(valueName); }));
}

Option Command::add_values(const char *name, const char *valueName, const char *text) const {
    const Option option = add_value(name, valueName, text);
    option.m_option->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    return option;
}

Option Command::add_word(const char *name, const char *plain, const char *valueName, const char *text) const {
    const std::string flag = fmt::format("{}{{{}}}", name, plain), value = fmt::format("[={}]", valueName);
    return Option(added([&](CLI::App &app) {
        CLI::Option *const option = app.add_flag(flag)->description(text)->option_text(value);
        return option->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }));
}

void Command::add_number(const char *name, const char *valueName, int &value, int least, int most,
                         const char *text) const {
    added([&](CLI::App &app) {
        return app.add_option(name, value, text)->check(CLI::Range(least, most))->option_text(valueName);
    });
}

Option Command::add_operands(const char *name, const char *usage) const {
    return Option(added([&](CLI::App &app) {
        return app.add_option(name, CLI::callback_t(), usage)->expected(0, -1)->allow_extra_args();
    }));
}

void Command::set_footer(const std::string &text) const {
    m_app->footer(text);
}

void Command::set_work(std::function<void()> work) const {
    m_app->callback(std::move(work));
}

std::vector<Option> Command::given_options() const {
    std::vector<Option> given;
    for (CLI::Option *const option : m_app->parse_order()) {
        given.emplace_back(*option);
    }
    return given;
}

Parser::Parser(const Program &program) : m_app(std::make_unique<CLI::App>(program.description, program.name)) {
    m_app->formatter(std::make_shared<HelpFormatter>());
    m_app->set_help_flag("-h,--help", "print this help and exit");
    add_help_all(*m_app);
    m_app->set_version_flag("--version", program.version, "print the version and exit");
    m_app->require_subcommand(1);
    m_app->footer(program.footer);
}

Parser::~Parser() = default;

Command Parser::program() const {
    return Command(*m_app);
}

std::optional<std::string> Parser::run(int argc, const char *const *argv) const {
    try {
        m_app->parse(arguments_of(argc, argv));
        return std::nullopt;
    } catch (const CLI::CallForHelp &) {
        return m_app->help();
    } catch (const CLI::CallForAllHelp &) {
        return m_app->help("", CLI::AppFormatMode::All);
    } catch (const CLI::CallForVersion &version) {
        return std::string(version.what()) + "\n";
    } catch (const CLI::ParseError &error) {
        refuse_unknown_command(*m_app);
        throw UsageError(engine::displayed(without_marks(error.what())));
    }
}

std::string Parser::command_name() const {
    std::string name = m_app->get_name();
    for (const CLI::App *at = m_app.get(); !at->get_subcommands().empty();) {
        at = at->get_subcommands().front();
        name += " " + at->get_name();
    }
    return name;
}

} // namespace tool
