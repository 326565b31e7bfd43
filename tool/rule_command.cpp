// "rule": what one user or group may have on one protocol. Setting changes what is named and keeps
// the rest, and says so when the rule would not bear.
#include <array>
#include <memory>
#include <optional>
#include <string>

#include "command.hpp"
#include "notify.hpp"
#include "options.hpp"
#include "output.hpp"
#include "rate.hpp"
#include "rule_text.hpp"
#include "store.hpp"

namespace tool {

namespace {

struct RuleArguments {
    OwnerOption owner;
    std::string protocol;
    std::array<std::optional<std::string>, kRates.size()> rates;
    std::string state;
};

// ---- set ----

// What is to change, read before anything is looked up: nonsense is refused without touching a
// file.
struct RuleChange {
    std::array<std::optional<Rate>, kRates.size()> rates;
    std::optional<std::int32_t> state;
};

RuleChange ReadChange(const RuleArguments &arguments)
{
    RuleChange change;
    bool changes = !arguments.state.empty();
    if (changes) change.state = ValueOf(ZEVO_BW_STATE_LIST, arguments.state);
    for (std::size_t i = 0; i < kRates.size(); ++i) {
        if (!arguments.rates[i]) continue;
        change.rates[i] = ParseRate(*arguments.rates[i]);
        changes = true;
    }
    if (!changes)
        throw Failure(kWrongUsage, "nothing to change: name at least one of --up, --down, "
                                   "--custom-up, --custom-down, --state");
    return change;
}

void Apply(const RuleChange &change, ZEVO_BANDWIDTH_CONF &rule)
{
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED) rule.state = ZEVO_BW_STATE_ENABLED;
    rule.state = change.state.value_or(rule.state);
    for (std::size_t i = 0; i < kRates.size(); ++i)
        if (change.rates[i]) rule.*kRates[i].field = change.rates[i]->kBps;
}

void NoteRounding(const RuleChange &change)
{
    for (std::size_t i = 0; i < kRates.size(); ++i)
        if (change.rates[i] && !change.rates[i]->note.empty())
            PrintNote(std::string("note: ") + kRates[i].name + " " + change.rates[i]->note);
}

void NotePlan(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    if (rule.state != ZEVO_BW_STATE_SCHEDULE || HasWholePlan(rule.szSchedulePlan)) return;
    PrintNote(
        "warning: the rule of " + OwnerText(owner) +
        " follows a schedule, but has no plan of 168 hours: in every hour that the plan lacks "
        "the custom rates hold. Without a plan choose --state enabled for the normal rates");
}

void NotePolicy(const Owner &owner, std::int32_t protocol)
{
    const ZEVO_BANDWIDTH_GLOBAL_CONF policy = ReadPolicy(protocol);
    const std::string why = WhyNothingIsLimited(policy);
    if (!why.empty()) return PrintNote("note: " + why);
    const bool isUser = owner.type == ZEVO_BW_OWNER_USER;
    const int ignoring =
        isUser ? ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY : ZEVO_BW_USER_GROUP_POLICY_USER_ONLY;
    if (policy.userGroupPolicy == ignoring)
        PrintNote("note: the policy of " + ProtocolName(protocol) + " is " +
                  ValueName(ZEVO_BW_USER_GROUP_POLICY_LIST, ignoring) + ", so the rules of " +
                  (isUser ? "users" : "groups") + " do not bear on it");
}

void SetRule(const RuleArguments &arguments)
{
    const RuleChange change = ReadChange(arguments);
    const Owner owner = arguments.owner.Find();
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    ZEVO_BANDWIDTH_CONF rule = ReadRule(owner, protocol);
    Apply(change, rule);
    WriteRule(rule);
    NotifyServices();
    if (OutputStyle().json)
        PrintJson(ToJson(owner, rule));
    else
        PrintLine(Printable(OneLine(owner, rule)));
    NoteRounding(change);
    NotePlan(owner, rule);
    NotePolicy(owner, protocol);
}

void AddSet(CLI::App &parent)
{
    const auto arguments = std::make_shared<RuleArguments>();
    CLI::App *set = parent.add_subcommand("set", "Change a rule, or make a new one");
    AddOwnerOption(*set, arguments->owner);
    AddProtocolOption(*set, arguments->protocol)->required();
    for (std::size_t i = 0; i < kRates.size(); ++i)
        set->add_option(kRates[i].name, arguments->rates[i], kRates[i].help)->type_name("RATE");
    AddChoice(*set, "--state", arguments->state, "STATE", ZEVO_BW_STATE_LIST,
              "Whether the rule bears; a new rule is enabled");
    AddOutputOptions(*set);
    set->footer(std::string(kRateHelp) +
                "\n\nWhat is not named stays as it is. Running transfers follow at once."
                "\n\nExamples:\n"
                "  zevobandwidth rule set -u alice -p ftp --up 10M --down 2.5M\n"
                "  zevobandwidth rule set -g staff -p rsync --down unlimited --state enabled\n");
    set->callback([arguments] { SetRule(*arguments); });
}

// ---- show ----

void ShowRule(const RuleArguments &arguments)
{
    const Owner owner = arguments.owner.Find();
    const ZEVO_BANDWIDTH_CONF rule = ReadRule(owner, FindProtocol(arguments.protocol));
    if (OutputStyle().json) return PrintJson(ToJson(owner, rule));
    const auto print = [](std::string label, const std::string &value) {
        label.resize(17, ' ');
        PrintLine(Printable(label + value));
    };
    print("owner", OwnerText(owner) + " (" + std::to_string(owner.account.id) + ")");
    print("protocol", ProtocolName(rule.protocolType));
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED) return print("state", "NotExisted (no rule)");
    print("state", StateText(rule));
    for (const RateOption &rate : kRates)
        print(rate.label, FormatRate(rule.*rate.field));
    print("plan", PlanText(rule.szSchedulePlan));
}

void AddShow(CLI::App &parent)
{
    const auto arguments = std::make_shared<RuleArguments>();
    CLI::App *show = parent.add_subcommand("show", "Show one rule");
    AddOwnerOption(*show, arguments->owner);
    AddProtocolOption(*show, arguments->protocol)->required();
    AddOutputOptions(*show);
    show->footer("Examples:\n"
                 "  zevobandwidth rule show -u alice -p ftp\n"
                 "  zevobandwidth rule show -g staff -p rsync --json\n");
    show->callback([arguments] { ShowRule(*arguments); });
}

// ---- list ----

void PrintRules(const std::vector<StoredRule> &rules)
{
    if (rules.empty()) return PrintNote("There are no rules.");
    Table table({"OWNER", "NAME", "PROTOCOL", "STATE", "UPLOAD", "DOWNLOAD", "CUSTOM-UP",
                 "CUSTOM-DOWN", "PLAN"});
    for (std::size_t column = 4; column < 8; ++column)
        table.AlignRight(column);
    for (const auto &[owner, rule] : rules) {
        std::vector<std::string> row = {ValueName(ZEVO_BW_OWNER_TYPE_LIST, owner.type),
                                        owner.account.name, ProtocolName(rule.protocolType),
                                        StateText(rule)};
        for (const RateOption &rate : kRates)
            row.push_back(FormatRate(rule.*rate.field));
        row.push_back(PlanText(rule.szSchedulePlan));
        table.AddRow(std::move(row));
    }
    table.Print();
}

void ListRules(const RuleArguments &arguments)
{
    int failures = 0;
    const std::vector<StoredRule> rules = ReadRules(ProtocolsToList(arguments.protocol), failures);
    if (OutputStyle().json) {
        Json json = Json::array();
        for (const auto &[owner, rule] : rules)
            json.push_back(ToJson(owner, rule));
        PrintJson(json);
    } else if (failures == 0 || !rules.empty()) {
        PrintRules(rules);
    }
    if (failures != 0)
        throw Failure(kFailed, "the list is incomplete: " + std::to_string(failures) +
                                   (failures == 1 ? " rule" : " rules") + " cannot be read");
}

void AddList(CLI::App &parent)
{
    const auto arguments = std::make_shared<RuleArguments>();
    CLI::App *list = parent.add_subcommand("list", "List the stored rules");
    AddProtocolOption(*list, arguments->protocol);
    AddOutputOptions(*list);
    list->footer("Examples:\n"
                 "  zevobandwidth rule list\n"
                 "  zevobandwidth rule list -p ftp --json\n");
    list->callback([arguments] { ListRules(*arguments); });
}

} // namespace

void AddRuleCommand(CLI::App &app)
{
    CLI::App *rule = app.add_subcommand("rule", "Rates of users and groups");
    rule->require_subcommand(1);
    rule->footer(
        "Upload always means from the client to this server, download from this server to\n"
        "the client.\n\nExample:\n"
        "  zevobandwidth rule set -u alice -p ftp --up 10M\n");
    AddSet(*rule);
    AddShow(*rule);
    AddList(*rule);
}

} // namespace tool
