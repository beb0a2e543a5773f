// How --help looks: one line for each option, what an option takes behind its name, examples at the end.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <string>

namespace tool {

class HelpFormatter : public CLI::Formatter {
  public:
    HelpFormatter();
    std::string make_help(const CLI::App *app, std::string name, CLI::AppFormatMode mode) const override;
    std::string make_usage(const CLI::App *app, std::string name) const override;
    std::string make_positionals(const CLI::App *) const override { return {}; }
    std::string make_option_opts(const CLI::Option *option) const override;
};

} // namespace tool
