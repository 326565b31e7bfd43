// A policy in words and as JSON.
#include "model/policy_text.hpp"

#include "model/names.hpp"
#include "model/plan.hpp"

namespace tool {

std::string ChoiceText(const PolicyChoice &choice, const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    return ValueName(choice.table, policy.*choice.field);
}

std::string OneLine(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    std::string line =
        ProtocolName(policy.protocolType) + ": " + ChoiceText(kChoices.front(), policy);
    for (std::size_t i = 1; i < kChoices.size(); ++i)
        line += std::string(", ") + kChoices[i].label + " " + ChoiceText(kChoices[i], policy);
    if (policy.szSchedulePlan[0] != '\0') line += ", plan " + PlanText(policy.szSchedulePlan);
    return line;
}

Json ToJson(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    Json json = {{"protocol", ProtocolName(policy.protocolType)}};
    for (const PolicyChoice &choice : kChoices)
        json[choice.key] = ChoiceText(choice, policy);
    json["plan"] = policy.szSchedulePlan;
    return json;
}

} // namespace tool
