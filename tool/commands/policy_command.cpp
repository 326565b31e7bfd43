// "policy": for each protocol, whether its limits apply and how the rules of a user and of the
// groups combine. A protocol without a policy is not limited.
#include <array>
#include <optional>
#include <string>

#include "command.hpp"
#include "model/store.hpp"
#include "model/texts.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

struct PolicyArguments {
    std::string protocol;
    std::array<std::string, kChoices.size()> values;
    PlanOptions plan;
    ChangeOptions change;
};

std::string EffectText(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    if (!WhyNothingIsLimited(policy).empty()) return "nothing is limited";
    return policy.state == ZEVO_BW_STATE_SCHEDULE ? "limits apply by plan" : "limits apply";
}

// ---- set ----

// True when there is something to write.
bool Apply(const PolicyArguments &arguments, const std::optional<std::string> &plan,
           ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    const bool isNew = policy.state == ZEVO_BW_STATE_NOT_EXISTED;
    bool changes = isNew || plan;
    // The library stores a policy with the state NotExisted as disabled.
    if (isNew) policy.state = plan ? ZEVO_BW_STATE_SCHEDULE : ZEVO_BW_STATE_ENABLED;
    if (plan) CopyPlan(*plan, policy.szSchedulePlan);
    for (std::size_t i = 0; i < kChoices.size(); ++i) {
        if (arguments.values[i].empty()) continue;
        policy.*kChoices[i].field = ValueOf(kChoices[i].table, arguments.values[i]);
        changes = true;
    }
    return changes;
}

void SetPolicy(const PolicyArguments &arguments)
{
    const std::optional<std::string> plan = arguments.plan.Read(PlanOf::kPolicy);
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = ReadPolicy(FindProtocol(arguments.protocol));
    if (Apply(arguments, plan, policy))
        CarryOut(arguments.change, [&policy] { WritePolicy(policy); });
    if (OutputStyle().json)
        PrintJson(ToJson(policy));
    else
        PrintLine(Printable(OneLine(policy)));
    const std::string name = ProtocolName(policy.protocolType);
    if (plan)
        NoteSleepingPlan("the policy of " + name, policy.state,
                         "zevobandwidth policy set -p " + name);
    const std::string why = WhyNothingIsLimited(policy);
    if (!why.empty()) PrintNote("note: " + why);
}

void AddSet(CLI::App &parent)
{
    const auto [set, arguments] =
        AddCommand(parent, "set", "Change a protocol's policy, or make a new one", SetPolicy);
    AddProtocolOption(set, arguments.protocol)->required();
    for (std::size_t i = 0; i < kChoices.size(); ++i)
        AddChoice(set, kChoices[i].option, arguments.values[i], i == 0 ? "STATE" : "POLICY",
                  kChoices[i].table, kChoices[i].help);
    AddPlanOptions(set, PlanOf::kPolicy, arguments.plan);
    AddChangeOptions(set, arguments.change);
    AddOutputOptions(set);
    set.footer(
        "What is not named stays as it is; a new policy is enabled, user-first, max, max.\n"
        "Running transfers that 'notify' reaches follow at once. Those of zevobandwidth itself\n"
        "are told of a policy in any case, also with --no-notify.\n\n" +
        PlanHelp(PlanOf::kPolicy) +
        "\n\nExamples:\n"
        "  zevobandwidth policy set -p ftp\n"
        "  zevobandwidth policy set -p rsync --user-group min --occupy weighted\n"
        "  zevobandwidth policy set -p webdav --base off --plan 'weekdays 08:00-18:00 on'\n");
}

// ---- show ----

void ShowPolicy(const PolicyArguments &arguments)
{
    const ZEVO_BANDWIDTH_GLOBAL_CONF policy = ReadPolicy(FindProtocol(arguments.protocol));
    if (OutputStyle().json) return PrintJson(ToJson(policy));
    constexpr std::size_t kLabelWidth = 13;
    std::vector<Field> fields = {{"state", "NotExisted (no policy)"}};
    if (policy.state != ZEVO_BW_STATE_NOT_EXISTED) fields = Fields(policy);
    PrintField(kLabelWidth, {"protocol", ProtocolName(policy.protocolType)});
    for (const Field &field : fields)
        PrintField(kLabelWidth, field);
    PrintField(kLabelWidth, {"effect", EffectText(policy)});
}

void AddShow(CLI::App &parent)
{
    const auto [show, arguments] =
        AddCommand(parent, "show", "Show a protocol's policy", ShowPolicy);
    AddProtocolOption(show, arguments.protocol)->required();
    AddOutputOptions(show);
    show.footer("Example:\n  zevobandwidth policy show -p ftp\n");
}

// ---- list ----

void PrintPolicies(const std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> &policies)
{
    Table table({"PROTOCOL", "STATE", "USER-GROUP", "INTER-GROUP", "OCCUPY", "EFFECT"});
    for (const auto &policy : policies) {
        std::vector<std::string> row = {ProtocolName(policy.protocolType)};
        const bool stored = policy.state != ZEVO_BW_STATE_NOT_EXISTED;
        for (const PolicyChoice &choice : kChoices) {
            const bool shown = stored || &choice == &kChoices.front();
            row.push_back(shown ? ChoiceText(choice, policy) : "-");
        }
        row.push_back(EffectText(policy));
        table.AddRow(std::move(row));
    }
    table.Print();
}

void ListPolicies()
{
    const std::vector<ZEVO_BANDWIDTH_GLOBAL_CONF> policies = ReadPolicies();
    if (!OutputStyle().json) return PrintPolicies(policies);
    PrintJson(JsonArray(policies, [](const auto &policy) { return ToJson(policy); }));
}

void AddList(CLI::App &parent)
{
    CLI::App *list = parent.add_subcommand("list", "List the policies of all protocols");
    AddOutputOptions(*list);
    list->footer("Example:\n  zevobandwidth policy list --json\n");
    list->callback([] { ListPolicies(); });
}

} // namespace

void AddPolicyCommand(CLI::App &app)
{
    CLI::App *policy =
        app.add_subcommand("policy", "Whether a protocol is limited and how its rules combine");
    policy->require_subcommand(1);
    policy->footer("A protocol without a policy is not limited, whatever its rules say.\n\n"
                   "Example:\n  zevobandwidth policy set -p ftp\n");
    AddSet(*policy);
    AddShow(*policy);
    AddList(*policy);
}

} // namespace tool
