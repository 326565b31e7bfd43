// How --help looks: no line is wider than 80 columns.
#ifndef ZEVOBW_TOOL_HELP_HPP
#define ZEVOBW_TOOL_HELP_HPP

#include <memory>

#include <CLI/CLI.hpp>

namespace tool {

// A footer's lines up to an empty line are one paragraph, which is wrapped anew. Lines that begin
// with a blank stay as they are; a line that ends in a colon ends its paragraph.
std::shared_ptr<CLI::FormatterBase> MakeHelpFormatter();

} // namespace tool

#endif // ZEVOBW_TOOL_HELP_HPP
