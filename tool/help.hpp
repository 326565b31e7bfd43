// How --help looks: no line is wider than 80 columns.
#ifndef ZEVOBW_TOOL_HELP_HPP
#define ZEVOBW_TOOL_HELP_HPP

#include <string>

#include <CLI/CLI.hpp>

namespace tool {

// A footer's lines up to an empty line are one paragraph, which is wrapped anew. Lines that begin
// with a blank stay as they are; a line that ends in a colon ends its paragraph.
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
