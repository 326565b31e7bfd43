#include "model/texts.hpp"

#include "model/plan.hpp"
#include "model/rate.hpp"

namespace tool {

void PrintField(std::size_t width, const Field &field)
{
    std::string line = field.label;
    line.resize(width, ' ');
    PrintLine(Printable(line + field.text));
}

std::vector<Field> Fields(const ZEVO_BANDWIDTH_CONF &rule)
{
    std::vector<Field> fields = {{"state", StateText(rule), StateText(rule)}};
    for (const RateOption &rate : kRates)
        fields.push_back(
            {rate.label, FormatRate(rule.*rate.field), std::to_string(rule.*rate.field)});
    fields.push_back({"plan", PlanText(rule.szSchedulePlan), rule.szSchedulePlan});
    return fields;
}

std::vector<Field> Fields(const ZEVO_BANDWIDTH_GLOBAL_CONF &policy)
{
    std::vector<Field> fields;
    for (const PolicyChoice &choice : kChoices)
        fields.push_back({choice.label, ChoiceText(choice, policy), ChoiceText(choice, policy)});
    fields.push_back({"plan", PlanText(policy.szSchedulePlan), policy.szSchedulePlan});
    return fields;
}

std::string StateText(const ZEVO_BANDWIDTH_CONF &rule)
{
    return ValueName(ZEVO_BW_STATE_LIST, rule.state);
}

bool HasCustomRates(const ZEVO_BANDWIDTH_CONF &rule)
{
    return rule.uploadRateCustom != 0 || rule.downloadRateCustom != 0 ||
           rule.state == ZEVO_BW_STATE_SCHEDULE;
}

std::string OneLine(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    const std::string subject = OwnerText(owner) + ", " + ProtocolName(rule.protocolType) + ": ";
    if (rule.state == ZEVO_BW_STATE_NOT_EXISTED) return subject + StateText(rule);
    const bool onSchedule = rule.state == ZEVO_BW_STATE_SCHEDULE;
    std::string line = subject + StateText(rule);
    for (std::size_t i = 0; i < (HasCustomRates(rule) ? kRates.size() : 2); ++i)
        line += std::string(", ") + kRates[i].label + " " + FormatRate(rule.*kRates[i].field);
    if (onSchedule || rule.szSchedulePlan[0] != '\0')
        line += ", plan " + PlanText(rule.szSchedulePlan);
    return line;
}

Json ToJson(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    Json json = {{"owner", ValueName(ZEVO_BW_OWNER_TYPE_LIST, owner.type)},
                 {"name", ShownName(owner.account)},
                 {"id", owner.account.id},
                 {"protocol", ProtocolName(rule.protocolType)},
                 {"state", StateText(rule)}};
    for (const RateOption &rate : kRates)
        json[rate.key] = LimitJson(rule.*rate.field);
    json["plan"] = rule.szSchedulePlan;
    return json;
}

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

std::string NameOf(const Setting &setting)
{
    const std::string protocol = ProtocolName(setting.protocol());
    return setting.owner ? OwnerText(*setting.owner) + ", " + protocol : "policy of " + protocol;
}

std::string OneLine(const Setting &setting)
{
    return setting.owner ? OneLine(*setting.owner, setting.rule)
                         : "policy of " + OneLine(setting.policy);
}

Json ToJson(const Setting &setting)
{
    return setting.owner ? ToJson(*setting.owner, setting.rule) : ToJson(setting.policy);
}

std::vector<Field> Fields(const Setting &setting)
{
    return setting.owner ? Fields(setting.rule) : Fields(setting.policy);
}

} // namespace tool
