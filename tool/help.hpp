// How --help looks: no line is wider than a terminal, however long a text stands in the source.
#ifndef ZEVOBW_TOOL_HELP_HPP
#define ZEVOBW_TOOL_HELP_HPP

#include <string>

#include <CLI/CLI.hpp>

namespace tool {

// In footers lines that begin with a blank, or end in a colon, keep their ends; all others run on
// as one paragraph up to an empty line.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override;
    std::string make_description(const CLI::App *app) const override;
    std::string make_footer(const CLI::App *app) const override;
    std::string make_option_desc(const CLI::Option *option) const override;
    std::string make_subcommand(const CLI::App *command) const override;
};

} // namespace tool

#endif // ZEVOBW_TOOL_HELP_HPP
