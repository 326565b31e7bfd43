// "export": all rules and policies as one JSON text.
#include <memory>

#include "command.hpp"
#include "config_json.hpp"
#include "options.hpp"
#include "output.hpp"
#include "whole_file.hpp"

namespace tool {

namespace {

void Export(const std::string &file)
{
    int failures = 0;
    const std::vector<StoredRule> rules = ReadRules(ProtocolsToList(""), failures);
    // An incomplete copy would be found out when it is needed.
    if (failures != 0)
        throw Failure(kFailed, "nothing was exported: " + std::to_string(failures) +
                                   (failures == 1 ? " rule" : " rules") +
                                   " cannot be read; mend them first ('zevobandwidth check')");
    const std::string text = ConfigToText(ReadPolicies(), rules);
    if (file == "-") return PrintLine(text);
    WriteWholeFile(file, text + "\n");
}

} // namespace

void AddExportCommand(CLI::App &app)
{
    const auto file = std::make_shared<std::string>("-");
    CLI::App *command = app.add_subcommand("export", "Write all rules and policies as JSON");
    command->add_option("file", *file, "Where to; without it, or with -, to standard output")
        ->type_name("FILE")
        ->check(kNotEmpty);
    AddOutputOptions(*command);
    command->footer(
        "One line for each policy and each rule: protocols in the order of 'policy list', users\n"
        "before groups, each by name. Owners are written with name and id; with -n, and where the\n"
        "user database does not know them, with the id alone. An existing file is replaced whole.\n"
        "\nExamples:\n"
        "  zevobandwidth export limits.json\n"
        "  zevobandwidth export | ssh other zevobandwidth import\n");
    command->callback([file] { Export(*file); });
}

} // namespace tool
