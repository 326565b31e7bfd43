// Options that several commands take.
#include "options.hpp"

#include <algorithm>

#include "command.hpp"
#include "output.hpp"

namespace tool {

Owner OwnerOption::Find() const
{
    if (!IsGiven()) throw Failure(kWrongUsage, "name the owner: -u USER or -g GROUP");
    if (!group.empty()) return {ZEVO_BW_OWNER_GROUP, FindGroup(group)};
    return {ZEVO_BW_OWNER_USER, FindUser(user)};
}

namespace {

// An empty name would read as an option that was not given.
const CLI::Validator kNotEmpty(
    [](const std::string &text) { return std::string(text.empty() ? "must not be empty" : ""); },
    "");

} // namespace

void AddOwnerOption(CLI::App &command, OwnerOption &owner)
{
    CLI::Option *user = command.add_option("-u,--user", owner.user, "The user, by name or uid");
    CLI::Option *group = command.add_option("-g,--group", owner.group, "The group, by name or gid");
    user->type_name("USER")->check(kNotEmpty)->excludes(group);
    group->type_name("GROUP")->check(kNotEmpty)->excludes(user);
}

CLI::Option *AddProtocolOption(CLI::App &command, std::string &protocol)
{
    return command
        .add_option("-p,--protocol", protocol,
                    "docuhall, webdav, ftp, rsync or the name of an add-on")
        ->type_name("PROTOCOL")
        ->check(kNotEmpty);
}

void AddChoice(CLI::App &command, const std::string &name, std::string &value,
               const std::string &type, const ZEVO_BW_ENUM_ENTRY *table, const std::string &help)
{
    std::vector<std::string> names = ValueNames(table);
    names.erase(std::remove(names.begin(), names.end(), "NotExisted"), names.end());
    command.add_option(name, value, help)->type_name(type)->check(CLI::IsMember(names));
}

void AddOutputOptions(CLI::App &command)
{
    Style &style = OutputStyle();
    command.add_flag("--json", style.json, "Print JSON rather than text");
    command.add_flag("-n,--numeric", style.numeric, "Print ids of users and groups, not names");
    command.add_flag("--no-legend", style.noLegend, "Print no headlines and explanations");
    command.add_flag("--no-color", style.noColor,
                     "Print without colors, as with NO_COLOR in the environment");
}

void AddChangeOptions(CLI::App &command, ChangeOptions &change)
{
    command.add_flag("-N,--dry-run", change.isDryRun, "Print what would hold, and change nothing");
    command.add_flag("--no-notify", change.isSilent,
                     "Do not tell running services: they follow when they next read the limits");
}

} // namespace tool
