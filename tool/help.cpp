// Texts in 80 columns.
#include "help.hpp"

#include <sstream>
#include <utility>

#include "output.hpp"

namespace tool {

namespace {

constexpr std::size_t kColumns = 80;

// Indents every line but the first.
std::string Fitting(const std::string &text, std::size_t indent)
{
    return Joined(Wrapped(text, kColumns - indent), "\n" + std::string(indent, ' '));
}

std::string Reflowed(const std::string &text)
{
    std::string reflowed;
    std::string paragraph;
    const auto end = [&] {
        if (!paragraph.empty()) reflowed += Fitting(paragraph, 0) + "\n";
        paragraph.clear();
    };
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool isFixed = line.empty() || line.front() == ' ';
        if (isFixed) {
            end();
            reflowed += line + "\n";
            continue;
        }
        paragraph += (paragraph.empty() ? "" : " ") + line;
        if (line.back() == ':') end();
    }
    end();
    return reflowed;
}

class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override
    {
        std::string help = Formatter::make_help(app, std::move(name), mode);
        // A hidden option leaves a second empty line.
        for (std::size_t at = 0; (at = help.find("\n\n\n", at)) != help.npos;)
            help.erase(at, 1);
        return help;
    }

    std::string make_description(const CLI::App *app) const override
    {
        return Fitting(app->get_description(), 0) + "\n";
    }

    std::string make_footer(const CLI::App *app) const override
    {
        return Reflowed(app->get_footer());
    }

    // The base class indents what follows a line end.
    std::string make_option_desc(const CLI::Option *option) const override
    {
        return Joined(Wrapped(option->get_description(), kColumns - get_column_width()), "\n");
    }

    std::string make_subcommand(const CLI::App *command) const override
    {
        std::string name = "  " + command->get_name();
        name.resize(get_column_width(), ' ');
        return name + Fitting(command->get_description(), get_column_width()) + "\n";
    }
};

} // namespace

std::shared_ptr<CLI::FormatterBase> MakeHelpFormatter()
{
    return std::make_shared<HelpFormatter>();
}

} // namespace tool
