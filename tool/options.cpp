// Options that several commands take.
#include "options.hpp"

#include <algorithm>
#include <cstring>

#include "command.hpp"
#include "model/notify.hpp"
#include "model/number.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr double kMaxSeconds = 86400;

const CLI::Validator kProcessId(
    [](const std::string &text) {
        const bool isPid = ReadNumber<pid_t>(text).value_or(0) > 0;
        return std::string(isPid ? "" : "must be the number of a process");
    },
    "");

void AddOutputFlag(CLI::App &command, const char *names, bool &flag, const char *help,
                   const char *whySenseless)
{
    if (whySenseless == nullptr) {
        command.add_flag(names, flag, help);
        return;
    }
    const std::string option = std::strstr(names, "--");
    const auto refuse = [name = command.get_name(), option, whySenseless](std::int64_t) {
        throw Failure(kWrongUsage, name + " has no " + option + ": " + whySenseless);
    };
    command.add_flag_function(names, refuse)->group("");
}

std::string StateNames(PlanOf of)
{
    std::string names = HourStateName(of, HourState::kOff);
    names += "," + HourStateName(of, HourState::kNormal);
    return of == PlanOf::kPolicy ? names : names + "," + HourStateName(of, HourState::kCustom);
}

} // namespace

Owner OwnerOption::Find() const
{
    if (!IsGiven()) throw Failure(kWrongUsage, "name the owner: -u USER or -g GROUP");
    if (!group.empty()) return {ZEVO_BW_OWNER_GROUP, FindGroup(group)};
    return {ZEVO_BW_OWNER_USER, FindUser(user)};
}

Owner OwnerOption::FindStored(const std::function<bool(const Owner &)> &isStored) const
{
    try {
        return Find();
    } catch (const Failure &failure) {
        const std::string &text = group.empty() ? user : group;
        const auto id = ReadId(text);
        if (failure.status() != kNotFound || !id) throw;
        Owner owner{group.empty() ? ZEVO_BW_OWNER_USER : ZEVO_BW_OWNER_GROUP,
                    {*id, std::to_string(*id)}};
        if (!isStored(owner)) throw;
        return owner;
    }
}

Owner OwnerOption::FindOfRule(std::int32_t protocol) const
{
    return FindStored([protocol](const Owner &owner) { return IsStored(owner, protocol); });
}

const CLI::Validator kNotEmpty(
    [](const std::string &text) { return std::string(text.empty() ? "must not be empty" : ""); },
    "");

void AddOwnerOption(CLI::App &command, OwnerOption &owner)
{
    CLI::Option *user = command.add_option("-u,--user", owner.user, "The user, by name or uid");
    CLI::Option *group = command.add_option("-g,--group", owner.group, "The group, by name or gid");
    user->type_name("USER")->check(kNotEmpty)->excludes(group);
    group->type_name("GROUP")->check(kNotEmpty)->excludes(user);
}

void AddUserOption(CLI::App &command, std::string &user, const std::string &help)
{
    command.add_option("-u,--user", user, help)->required()->type_name("USER")->check(kNotEmpty);
}

CLI::Option *AddProtocolOption(CLI::App &command, std::string &protocol)
{
    return command
        .add_option("-p,--protocol", protocol,
                    "docuhall, webdav, ftp, rsync or the name of an add-on")
        ->type_name("PROTOCOL")
        ->check(kNotEmpty);
}

CLI::Option *AddChoice(CLI::App &command, const std::string &name, std::string &value,
                       const std::string &type, const ZEVO_BW_ENUM_ENTRY *table,
                       const std::string &help)
{
    std::vector<std::string> names = ValueNames(table);
    names.erase(std::remove(names.begin(), names.end(), "NotExisted"), names.end());
    return command.add_option(name, value, help)->type_name(type)->check(CLI::IsMember(names));
}

void AddDirectionOption(CLI::App &command, std::string &direction)
{
    AddChoice(command, "-d,--direction", direction, "DIRECTION", ZEVO_BW_TRANSFER_TYPE_LIST,
              "upload or download, as the client sees it")
        ->required();
}

TransferFilter TransferSelection::Filter() const
{
    TransferFilter filter;
    if (!protocol.empty()) filter.protocol = FindProtocol(protocol);
    if (!direction.empty())
        filter.directions =
            static_cast<std::uint32_t>(ValueOf(ZEVO_BW_TRANSFER_TYPE_LIST, direction));
    return filter;
}

void AddTransferSelection(CLI::App &command, TransferSelection &selection)
{
    AddProtocolOption(command, selection.protocol);
    AddChoice(command, "-d,--direction", selection.direction, "DIRECTION",
              ZEVO_BW_TRANSFER_TYPE_LIST, "Only this direction");
}

void AddEndingOptions(CLI::App &command, EndingOptions &ending, const std::string &yesHelp)
{
    AddUserOption(command, ending.user, "Whose transfers: a name or a numeric id");
    command.add_option("--pid", ending.pid, "Only those of this process")
        ->check(kProcessId)
        ->type_name("PID");
    command.add_flag("-y,--yes", ending.yes, yesHelp);
    AddDryRunFlag(command, ending.isDryRun);
    AddOutputOptions(command);
}

CLI::Option *AddSecondsOption(CLI::App &command, const std::string &name, double &seconds,
                              const std::string &help, double least)
{
    const auto check = [least](const std::string &text) -> std::string {
        const double value = ReadNumber<double>(text).value_or(-1);
        // Refuses "nan", too, which compares false with every number.
        if (value >= least && value <= kMaxSeconds) return "";
        return "must be a number of seconds from " + std::string(least == 0 ? "0" : "0.1") +
               " to 86400";
    };
    return command.add_option(name, seconds, help)
        ->check(CLI::Validator(check, ""))
        ->type_name("SECONDS");
}

void AddOutputOptions(CLI::App &command, const Senseless &senseless)
{
    Style &style = OutputStyle();
    AddOutputFlag(command, "--json", style.json, "Print JSON rather than text", senseless.json);
    AddOutputFlag(command, "-n,--numeric", style.numeric,
                  "Print ids of users and groups, not names", senseless.numeric);
    AddOutputFlag(command, "--no-legend", style.noLegend, "Print no headlines and explanations",
                  senseless.legend);
    command.add_flag("--no-color", style.noColor,
                     "Print without colors, as with NO_COLOR in the environment");
}

CLI::Option *AddDryRunFlag(CLI::App &command, bool &isDryRun)
{
    return command.add_flag("-N,--dry-run", isDryRun, "Print what would hold, and change nothing");
}

void AddChangeOptions(CLI::App &command, ChangeOptions &change)
{
    AddDryRunFlag(command, change.isDryRun);
    command.add_flag("--no-notify", change.isSilent,
                     "Do not tell running services: they follow when they next read the limits");
}

void CarryOut(const ChangeOptions &change, const std::function<void()> &write)
{
    if (change.isDryRun) return PrintNote("dry run: nothing is changed, this would hold:");
    write();
    if (!change.isSilent) NotifyServices();
}

std::optional<std::string> PlanOptions::Read(PlanOf of) const
{
    if (raw) return CheckPlan(of, *raw);
    if (!rules) return std::nullopt;
    return ParsePlan(of, *rules, base ? ParseHourState(of, *base) : HourState::kNormal);
}

void AddPlanOptions(CLI::App &command, PlanOf of, PlanOptions &plan)
{
    const std::string normal = HourStateName(of, HourState::kNormal);
    CLI::Option *rules =
        command.add_option("--plan", plan.rules, "The week's plan: 'DAYS TIMES STATE; ...'");
    rules->type_name("RULES");
    command
        .add_option("--base", plan.base,
                    "State of the hours that --plan does not name, by default " + normal)
        ->type_name("STATE:{" + StateNames(of) + "}") // the form of a choice, which shells complete
        ->needs(rules);
    command.add_option("--plan-raw", plan.raw, "The week's plan as 168 digits")
        ->type_name("DIGITS")
        ->excludes(rules);
}

void NoteSleepingPlan(const std::string &what, std::int32_t state, const std::string &setter)
{
    if (state == ZEVO_BW_STATE_SCHEDULE) return;
    PrintNote("note: the plan is stored, but does not apply: " + what + " is " +
              ValueName(ZEVO_BW_STATE_LIST, state) + ". Let it follow the plan with: " + setter +
              " --state schedule");
}

} // namespace tool
