// The command line: what a command takes is declared here, and read here when it does its work. CLI11 parses, and
// parser.cpp alone includes it: at each start it sets up the whole of its globals anew for every source file that does.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace tool {

class Command;

// A command as it is typed behind the name of the program, "ea show", and its line of the help.
struct KnownCommand {
    std::string name, text;
};

// A flag, an option with a value, or the operands of a command. Copies are the same one, which the Parser owns.
class Option {
  public:
    explicit Option(CLI::Option &option) : m_option(&option) {}
    bool operator==(const Option &) const = default;

    bool given() const;
    // The values as the user wrote them, byte for byte.
    std::vector<std::string> values() const;
    void needs(const Option &other) const;
    void excludes(const Option &other) const;

  private:
    friend class Command;
    CLI::Option *m_option;
};

// A command, or the whole program, which has commands. Copies are the same one, which the Parser owns. Names are those
// of one option, separated by commas; `text` is its line of the help.
class Command {
  public:
    explicit Command(CLI::App &app) : m_app(&app) {}

    // The same one: options that are added through this are shown by --help-all and the manual page, not by --help,
    // which has to fit a screen.
    Command rare() const;
    // The same one: what is added through this is not held against the options that are there already, which takes a
    // third of a short command's instructions. For the one command of a command line; whoever adds all of them has
    // each name told that is there twice.
    Command trusted() const;
    Command add_command(const char *name, const char *text) const;
    // Whether one of its commands was named.
    bool has_command() const;
    // Throws UsageError for a word where one of its commands is expected.
    [[noreturn]] void refuse_command(const std::string &word) const;
    // All below it, those below others too, in the order in which they were added.
    std::vector<KnownCommand> known_commands() const;
    // The help of the one that these words name, or of this one where there are none. Throws UsageError for other
    // words.
    std::string help_of(const std::vector<std::string> &words) const;
    // What the help lists its command `name` under.
    void label_command(const std::string &name, const char *label) const;
    // One of its commands has to be named.
    void require_command() const;
    // At most one.
    void allow_command() const;
    // Where the option of the command above is given it is refused.
    void excludes(const Option &option) const;
    Option add_flag(const char *names, const char *text) const;
    void add_flag(const char *names, bool &value, const char *text) const;
    // The help calls the value `valueName`.
    Option add_value(const char *name, const char *valueName, const char *text) const;
    // The same for one that may be given any number of times.
    Option add_values(const char *name, const char *valueName, const char *text) const;
    // "NAME" or "NAME=VALUE", where `plain` is the value of the name alone. What follows it is no value.
    Option add_word(const char *name, const char *plain, const char *valueName, const char *text) const;
    void add_number(const char *name, const char *valueName, int &value, int least, int most, const char *text) const;
    // Any number of them, which the usage line of the help calls `usage`.
    Option add_operands(const char *name, const char *usage) const;
    // What ends the help.
    void set_footer(const std::string &text) const;
    // What the command does. It may throw UsageError.
    void set_work(std::function<void()> work) const;
    // The options of the command line in their order, one that was repeated as often.
    std::vector<Option> given_options() const;

  private:
    template <typename Add>
    CLI::Option &added(const Add &add) const;

    CLI::App *m_app;
    bool m_rare = false, m_trusted = false;
};

class Parser {
  public:
    struct Program {
        const char *name, *description, *version, *footer;
    };
    explicit Parser(const Program &program);
    ~Parser();

    Command program() const;
    // Runs the work of the command that was named. Where help or the version was asked for, that is the result. Throws
    // UsageError for a command line that makes no sense, and what the work throws.
    std::optional<std::string> run(int argc, const char *const *argv) const;
    // The command line up to the command that was named: "vexofileop reflink check".
    std::string command_name() const;

  private:
    std::unique_ptr<CLI::App> m_app;
};

} // namespace tool
