#include "tools/vexofileop/help.h"

namespace tool {

HelpFormatter::HelpFormatter() {
    column_width(25);
}

std::string HelpFormatter::make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const {
    std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
    // CLI11 separates every section with an empty line or two; a screen has room for one.
    for (size_t at; (at = text.find("\n\n\n")) != std::string::npos;) {
        text.erase(at, 1);
    }
    return text;
}

std::string HelpFormatter::make_usage(const CLI::App *app, std::string name) const {
    // The description of operands is their usage (add_operands).
    std::string line = "Usage: " + std::move(name);
    if (!app->get_subcommands({}).empty()) {
        return line + " COMMAND ...\n";
    }
    line += " [OPTION...]";
    for (const CLI::Option *const operand :
         app->get_options([](const auto *option) { return option->get_positional(); })) {
        line += " " + operand->get_description();
    }
    return line + "\n";
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const {
    return option->get_option_text().empty() ? "" : " " + option->get_option_text();
}

} // namespace tool
