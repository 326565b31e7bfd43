// "export": all rules and policies as one JSON text for import. What import would refuse or change
// is reported now, while the administrator can still correct it.
#include <memory>
#include <set>

#include "check/lines.hpp"
#include "command.hpp"
#include "model/config_json.hpp"
#include "model/section.hpp"
#include "model/whole_file.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

using Faults = std::vector<std::string>;

// The library reads an unknown name as a default, which the export would then hold.
void AddUnknownNames(const std::vector<std::int32_t> &protocols, Faults &faults)
{
    std::set<std::string> names;
    const auto add = [&faults](const std::string &place, const std::string &fault) {
        if (!fault.empty()) faults.push_back(place + ": " + fault);
    };
    Hash pairs = NewHash();
    for (const std::int32_t protocol : protocols) {
        const std::string path = ConfPath(protocol);
        names.insert(ProtocolName(protocol));
        ForEachSection(path, "rules of " + ProtocolName(protocol), [&](const std::string &section) {
            if (ParseOwner(section) && ReadSection(path, section.c_str(), pairs))
                add(PlaceText(path, section), UnknownNameInRule(*pairs));
        });
    }
    const std::string path = ConfPath(ZEVO_BW_PROTOCOL_ALL);
    ForEachSection(path, "policies", [&](const std::string &section) {
        if (names.contains(section) && ReadSection(path, section.c_str(), pairs))
            add(PlaceText(path, section), UnknownNameInPolicy(*pairs));
    });
}

// JSON is UTF-8 and nothing else.
void AddUnfitNames(const std::vector<Setting> &settings, Faults &faults)
{
    for (const Setting &setting : settings) {
        if (!IsUtf8(ProtocolName(setting.protocol())))
            faults.push_back(setting.Place() +
                             ": the name of the add-on is no UTF-8; rename its file, and with "
                             "it this file or section");
        if (setting.owner && !IsUtf8(setting.owner->account.name))
            faults.push_back(setting.Place() +
                             ": the name of the owner is no UTF-8; export ids with --numeric");
    }
}

void Export(const std::string &file)
{
    int failures = 0;
    const std::vector<Setting> settings = ReadSettings(failures);
    Faults faults;
    AddUnknownNames(ProtocolsToList(""), faults);
    AddUnfitNames(settings, faults);
    const ConfigText config = ConfigToText(settings);
    if (faults.empty())
        for (const auto &[line, text] : ConfigFromText(config.text).faults)
            faults.push_back(config.sources.at(line) + ": " + text);
    PrintNotes("zevobandwidth: ", faults);
    const std::size_t all = faults.size() + static_cast<std::size_t>(failures);
    // Nobody would notice an incomplete copy before it is needed.
    if (all != 0)
        throw Failure(kFailed, "nothing was exported: mend the " + Counted(all, "fault") +
                                   " first, in an editor or by setting the rule or policy anew");
    if (file == "-") return PrintLine(config.text);
    WriteWholeFile(file, config.text + "\n");
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
        "What import would refuse is told with its file and section, and nothing is written.\n"
        "\nExamples:\n"
        "  zevobandwidth export limits.json\n"
        "  zevobandwidth export | ssh other zevobandwidth import\n");
    command->callback([file] { Export(*file); });
}

} // namespace tool
