// "rule": the rates of one user or group on one protocol. "rule set" changes what is named, keeps
// the rest, and notes why the rule would not apply.
#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "command.hpp"
#include "commands/rule_command.hpp"
#include "model/rate.hpp"
#include "model/store.hpp"
#include "model/texts.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

struct SetArguments : RuleChange {
    std::array<std::optional<Rate>, kRates.size()> rates;
    std::string state;
    std::string like;
    PlanOptions plan;
};

void Report(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    if (OutputStyle().json)
        PrintJson(ToJson(owner, rule));
    else
        PrintLine(Printable(OneLine(owner, rule)));
}

[[noreturn]] void RefuseForLackOfRule(const Owner &owner, std::int32_t protocol)
{
    throw Failure(kFailed, OwnerText(owner) + " has no rule for " + ProtocolName(protocol) +
                               "; make one with: zevobandwidth rule set " +
                               RuleOptions(owner, protocol) + " --up RATE --down RATE");
}

// ---- set ----

void Apply(const SetArguments &arguments, const std::optional<std::string> &plan,
           ZEVO_BANDWIDTH_CONF &rule)
{
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED)
        rule.state = plan ? ZEVO_BW_STATE_SCHEDULE : ZEVO_BW_STATE_ENABLED;
    if (!arguments.state.empty()) rule.state = ValueOf(ZEVO_BW_STATE_LIST, arguments.state);
    if (plan) CopyPlan(*plan, rule.szSchedulePlan);
    for (std::size_t i = 0; i < kRates.size(); ++i)
        if (arguments.rates[i]) rule.*kRates[i].field = arguments.rates[i]->kBps;
}

// The rule of --like, as if it were the owner's own.
ZEVO_BANDWIDTH_CONF CopyRule(const std::string &like, const Owner &owner, std::int32_t protocol)
{
    OwnerOption option;
    (like.front() == '@' ? option.group : option.user) = like.substr(like.front() == '@' ? 1 : 0);
    if (!option.IsGiven()) throw Failure(kWrongUsage, "--like names USER or @GROUP");
    const Owner model = option.FindOfRule(protocol);
    ZEVO_BANDWIDTH_CONF rule = ReadRule(model, protocol);
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED) RefuseForLackOfRule(model, protocol);
    rule.ownerType = owner.type;
    rule.id = owner.account.id;
    return rule;
}

void NotePlan(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    if (rule.state != ZEVO_BW_STATE_SCHEDULE || HasWholePlan(rule.szSchedulePlan)) return;
    PrintNote(
        "warning: the rule of " + OwnerText(owner) +
        " follows a schedule, but has no plan of 168 hours: in every hour that the plan lacks "
        "the custom rates hold. Without a plan choose --state enabled for the normal rates");
}

void NotePolicy(const Owner &owner, const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    const std::string why = WhyNothingIsLimited(policy);
    if (!why.empty()) return PrintNote("note: " + why);
    const bool isUser = owner.type == ZEVO_BW_OWNER_USER;
    const int ignoring =
        isUser ? ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY : ZEVO_BW_USER_GROUP_POLICY_USER_ONLY;
    if (policy.userGroupPolicy == ignoring)
        PrintNote("note: the policy of " + ProtocolName(policy.protocolType) + " is " +
                  ValueName(ZEVO_BW_USER_GROUP_POLICY_LIST, ignoring) + ", so the rules of " +
                  (isUser ? "users" : "groups") + " do not apply to it");
}

void SetRule(const SetArguments &arguments)
{
    const auto plan = arguments.plan.Read(PlanOf::kRule);
    const auto isGiven = [](const auto &rate) { return rate.has_value(); };
    if (arguments.state.empty() && arguments.like.empty() && !plan &&
        std::none_of(arguments.rates.begin(), arguments.rates.end(), isGiven))
        throw Failure(kWrongUsage, "nothing to change: name at least one of --up, --down, "
                                   "--custom-up, --custom-down, --state, --plan, --plan-raw, "
                                   "--like");
    const Owner owner = arguments.owner.Find();
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    ZEVO_BANDWIDTH_CONF rule = arguments.like.empty() ? ReadRule(owner, protocol)
                                                      : CopyRule(arguments.like, owner, protocol);
    Apply(arguments, plan, rule);
    StoreRule(owner, rule, arguments.change);
    for (std::size_t i = 0; i < kRates.size(); ++i)
        if (arguments.rates[i] && !arguments.rates[i]->note.empty())
            PrintNote(std::string("note: ") + kRates[i].name + " " + arguments.rates[i]->note);
    if (plan)
        NoteSleepingPlan("the rule of " + OwnerText(owner), rule.state,
                         "zevobandwidth rule set " + RuleOptions(owner, protocol));
}

void AddSet(CLI::App &parent)
{
    const auto [set, arguments] =
        AddCommand(parent, "set", "Change a rule, or make a new one", SetRule);
    AddRuleOptions(set, arguments);
    for (std::size_t i = 0; i < kRates.size(); ++i) {
        const auto read = [&rate = arguments.rates[i]](const std::string &text) {
            rate = ParseRate(text);
        };
        set.add_option_function<std::string>(kRates[i].name, read, kRates[i].help)
            ->type_name("RATE");
    }
    AddChoice(set, "--state", arguments.state, "STATE", ZEVO_BW_STATE_LIST,
              "Whether the rule applies; a new rule is enabled, with a plan on schedule");
    AddPlanOptions(set, PlanOf::kRule, arguments.plan);
    set.add_option("--like", arguments.like,
                   "Begin with a copy of that owner's rule for the protocol")
        ->type_name("USER|@GROUP")
        ->check(kNotEmpty);
    AddChangeOptions(set, arguments.change);
    AddOutputOptions(set);
    set.footer(
        std::string(kRateHelp) + "\n\n" + PlanHelp(PlanOf::kRule) +
        "\n\nWhat is not named stays as it is; with --like the copied rule takes the place of\n"
        "the old one first. Running transfers that 'notify' reaches follow at once."
        "\n\nExamples:\n"
        "  zevobandwidth rule set -u alice -p ftp --up 10M --down 2.5M\n"
        "  zevobandwidth rule set -g staff -p rsync --down unlimited --state enabled\n"
        "  zevobandwidth rule set -u alice -p ftp --custom-up 1M \\\n"
        "    --plan 'weekdays 08:00-18:00 custom; weekends all-day off'\n"
        "  zevobandwidth rule set -u bob -p ftp --like alice --dry-run\n");
}

// ---- enable, disable, schedule, clear ----

template <std::int32_t state> void ChangeState(const RuleChange &arguments)
{
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const Owner owner = arguments.owner.FindOfRule(protocol);
    ZEVO_BANDWIDTH_CONF rule = ReadRule(owner, protocol);
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED) RefuseForLackOfRule(owner, protocol);
    rule.state = state;
    const ZEVO_BANDWIDTH_GLOBAL_CONF policy = ReadPolicy(protocol);
    CarryOut(arguments.change, [&rule] { WriteRule(rule); });
    Report(owner, rule);
    NotePlan(owner, rule);
    if (state != ZEVO_BW_STATE_DISABLED) NotePolicy(owner, policy);
}

void AddStateCommands(CLI::App &parent)
{
    struct StateCommand {
        const char *name;
        const char *help;
        void (*run)(const RuleChange &);
    };
    static constexpr std::array kCommands = {
        StateCommand{"enable", "Let a rule apply at all hours", ChangeState<ZEVO_BW_STATE_ENABLED>},
        StateCommand{"disable", "Let a rule not apply, and keep it",
                     ChangeState<ZEVO_BW_STATE_DISABLED>},
        StateCommand{"schedule", "Let a rule apply by its plan",
                     ChangeState<ZEVO_BW_STATE_SCHEDULE>},
    };
    for (const StateCommand &row : kCommands) {
        const auto [command, arguments] = AddCommand(parent, row.name, row.help, row.run);
        AddRuleChangeOptions(command, arguments);
        command.footer(std::string("The rule keeps its rates and its plan. Running transfers that "
                                   "'notify' reaches\nfollow at once.\n\nExample:\n"
                                   "  zevobandwidth rule ") +
                       row.name + " -u alice -p ftp\n");
    }
}

void ClearRule(const RuleChange &arguments)
{
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const Owner owner = arguments.owner.FindOfRule(protocol);
    ZEVO_BANDWIDTH_CONF rule{};
    rule.state = ZEVO_BW_STATE_NOT_EXISTED;
    rule.ownerType = owner.type;
    rule.id = owner.account.id;
    rule.protocolType = protocol;
    if (IsStored(owner, protocol))
        CarryOut(arguments.change, [&rule] { WriteRule(rule); });
    else
        PrintNote("note: there was no such rule");
    Report(owner, rule);
}

void AddClear(CLI::App &parent)
{
    const auto [clear, arguments] = AddCommand(parent, "clear", "Take a rule away", ClearRule);
    AddRuleChangeOptions(clear, arguments);
    clear.footer("The owner has no rule then, as before the first 'rule set'; rates and plan are\n"
                 "forgotten. Also takes away a rule that is damaged, and by its id that of an\n"
                 "owner who is gone. Running transfers that 'notify' reaches follow at once.\n"
                 "\nExamples:\n"
                 "  zevobandwidth rule clear -u alice -p ftp\n"
                 "  zevobandwidth rule clear -g 4711 -p rsync --dry-run\n");
}

// ---- show ----

constexpr std::size_t kLabelWidth = 17;

void ShowRule(const RuleChange &arguments)
{
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const Owner owner = arguments.owner.FindOfRule(protocol);
    const ZEVO_BANDWIDTH_CONF rule = ReadRule(owner, protocol);
    if (OutputStyle().json) return PrintJson(ToJson(owner, rule));
    const std::string id = " (" + std::to_string(owner.account.id) + ")";
    PrintField(kLabelWidth, {"owner", OwnerText(owner) + (OutputStyle().numeric ? "" : id)});
    PrintField(kLabelWidth, {"protocol", ProtocolName(protocol)});
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED)
        return PrintField(kLabelWidth, {"state", "NotExisted (no rule)"});
    for (const Field &field : Fields(rule))
        PrintField(kLabelWidth, field);
}

void AddShow(CLI::App &parent)
{
    const auto [show, arguments] = AddCommand(parent, "show", "Show one rule", ShowRule);
    AddRuleOptions(show, arguments);
    AddOutputOptions(show);
    show.footer("Examples:\n"
                "  zevobandwidth rule show -u alice -p ftp\n"
                "  zevobandwidth rule show -g staff -p rsync --json\n");
}

// ---- list ----

struct ListArguments {
    std::vector<std::string> users;
    std::vector<std::string> groups;
    std::string protocol;
    std::string state;
    bool Filters() const { return !users.empty() || !groups.empty() || !state.empty(); }
};

// The owners to list; empty for all.
std::vector<Owner> OwnersAskedFor(const ListArguments &arguments,
                                  const std::vector<StoredRule> &rules)
{
    const auto isStored = [&rules](const Owner &owner) {
        return std::any_of(rules.begin(), rules.end(),
                           [&owner](const StoredRule &rule) { return rule.owner == owner; });
    };
    std::vector<Owner> owners;
    for (const std::string &user : arguments.users)
        owners.push_back(OwnerOption{user, ""}.FindStored(isStored));
    for (const std::string &group : arguments.groups)
        owners.push_back(OwnerOption{"", group}.FindStored(isStored));
    return owners;
}

// A cleared rule is listed only with --state NotExisted.
void Filter(const ListArguments &arguments, std::vector<StoredRule> &rules)
{
    const std::vector<Owner> owners = OwnersAskedFor(arguments, rules);
    std::erase_if(rules, [&](const StoredRule &stored) {
        const bool isListed = arguments.state.empty()
                                  ? stored.rule.state != ZEVO_BW_STATE_NOT_EXISTED
                                  : StateText(stored.rule) == arguments.state;
        return !isListed || (!owners.empty() &&
                             std::find(owners.begin(), owners.end(), stored.owner) == owners.end());
    });
}

// Fits 80 columns unless names are long: short headlines, and "-" where custom rates do not matter.
void PrintRules(const std::vector<StoredRule> &rules)
{
    Table table(
        {"OWNER", "PROTOCOL", "STATE", "UPLOAD", "DOWNLOAD", "CUST-UP", "CUST-DOWN", "PLAN"},
        {3, 4, 5, 6});
    for (const auto &[owner, rule] : rules) {
        const bool isGroup = owner.type == ZEVO_BW_OWNER_GROUP;
        std::vector<std::string> row = {(isGroup ? "@" : "") + owner.account.name,
                                        ProtocolName(rule.protocolType), StateText(rule)};
        for (std::size_t i = 0; i < kRates.size(); ++i)
            row.push_back(i < 2 || HasCustomRates(rule) ? FormatRate(rule.*kRates[i].field) : "-");
        const std::string_view plan = rule.szSchedulePlan;
        row.push_back(plan.empty() ? "none" : std::to_string(plan.size()) + " h");
        table.AddRow(std::move(row));
    }
    table.Print();
}

void ListRules(const ListArguments &arguments)
{
    int failures = 0;
    std::vector<StoredRule> rules = ReadRules(ProtocolsToList(arguments.protocol), failures);
    Filter(arguments, rules);
    if (OutputStyle().json) {
        PrintJson(JsonArray(
            rules, [](const StoredRule &stored) { return ToJson(stored.owner, stored.rule); }));
    } else if (!rules.empty()) {
        PrintRules(rules);
    } else if (failures == 0) {
        PrintNote(arguments.Filters() ? "No rule is like that." : "There are no rules.");
    }
    if (failures != 0)
        throw Failure(kFailed, "the list is incomplete: " +
                                   Counted(static_cast<std::size_t>(failures), "rule") +
                                   " cannot be read");
}

// May be given several times.
void AddOwnersOption(CLI::App &command, const std::string &name, std::vector<std::string> &owners,
                     const std::string &help)
{
    command.add_option(name, owners, help + "; again for several")
        ->type_name(name.starts_with("-u") ? "USER" : "GROUP")
        ->allow_extra_args(false)
        ->check(kNotEmpty);
}

void AddList(CLI::App &parent)
{
    const auto [list, arguments] = AddCommand(parent, "list", "List the stored rules", ListRules);
    AddOwnersOption(list, "-u,--user", arguments.users, "Rules of this user, by name or uid");
    AddOwnersOption(list, "-g,--group", arguments.groups, "Rules of this group, by name or gid");
    AddProtocolOption(list, arguments.protocol);
    list.add_option("--state", arguments.state, "Rules in this state")
        ->type_name("STATE")
        ->check(CLI::IsMember(ValueNames(ZEVO_BW_STATE_LIST)));
    AddOutputOptions(list);
    list.footer(
        "A group stands behind an at sign. CUST-UP and CUST-DOWN are the rates in the hours\n"
        "that a plan marks as custom, PLAN the number of hours that it has: a whole one\n"
        "has 168.\n"
        "Rules that were cleared are left out unless --state NotExisted asks for them.\n"
        "Owners whom the user database does not know are listed by id.\n\nExamples:\n"
        "  zevobandwidth rule list\n"
        "  zevobandwidth rule list -u alice -g staff --state enabled\n"
        "  zevobandwidth rule list -p ftp --json\n");
}

} // namespace

void AddRuleOptions(CLI::App &command, RuleChange &arguments)
{
    AddOwnerOption(command, arguments.owner);
    AddProtocolOption(command, arguments.protocol)->required();
}

void AddRuleChangeOptions(CLI::App &command, RuleChange &arguments)
{
    AddRuleOptions(command, arguments);
    AddChangeOptions(command, arguments.change);
    AddOutputOptions(command);
}

void StoreRule(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule, const ChangeOptions &change)
{
    // Read first, because a command that fails must not have changed the rule.
    const ZEVO_BANDWIDTH_GLOBAL_CONF policy = ReadPolicy(rule.protocolType);
    CarryOut(change, [&rule] { WriteRule(rule); });
    Report(owner, rule);
    NotePlan(owner, rule);
    NotePolicy(owner, policy);
}

void AddRuleCommand(CLI::App &app)
{
    CLI::App *rule = app.add_subcommand("rule", "Rates of users and groups");
    rule->require_subcommand(1);
    rule->footer(
        "Upload always means from the client to this server, download from this server to\n"
        "the client.\n\nExample:\n"
        "  zevobandwidth rule set -u alice -p ftp --up 10M\n");
    AddSet(*rule);
    AddStateCommands(*rule);
    AddClear(*rule);
    AddShow(*rule);
    AddList(*rule);
    AddRuleEdit(*rule);
}

} // namespace tool
