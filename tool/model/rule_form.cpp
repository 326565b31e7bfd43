#include "model/rule_form.hpp"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <sstream>

#include "failure.hpp"
#include "model/rate.hpp"
#include "model/texts.hpp"

namespace tool {

namespace {

constexpr const char *kState = "state";
constexpr const char *kPlan = "plan";
constexpr const char *kNone = "none";

// A row for each day, with its name before it.
std::string PlanRows(const std::string &plan, const std::string &before)
{
    std::string text = "#     0     6     12    18\n";
    for (const std::size_t day : kDaysFromMonday) {
        text += before + std::string(kWeekdays[day]) + " = ";
        for (std::size_t hour = 0; hour < kHoursOfDay; ++hour)
            text += static_cast<char>(StateOfHour(PlanOf::kRule, plan, day * kHoursOfDay + hour));
        text += '\n';
    }
    return text;
}

// ---- from text ----

struct Value {
    std::string text;
    int line = 0;
};

[[noreturn]] void Refuse(int line, const std::string &why)
{
    throw Failure(kFailed, "line " + std::to_string(line) + ": " + why);
}

std::string Trim(const std::string &text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == text.npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

using Values = std::map<std::string, Value>;

Values ReadValues(const std::string &text)
{
    Values values;
    std::istringstream lines(text);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        line = Trim(line);
        if (line.empty() || line.front() == '#') continue;
        const std::size_t equals = line.find('=');
        if (equals == line.npos) Refuse(number, "\"" + line + "\" is no \"name = value\"");
        const std::string name = Trim(line.substr(0, equals));
        if (!values.emplace(name, Value{Trim(line.substr(equals + 1)), number}).second)
            Refuse(number, "\"" + name + "\" stands there twice");
    }
    return values;
}

// Takes the value out of the map. What is left in the end is unknown.
std::optional<Value> Take(Values &values, const std::string &name)
{
    const auto node = values.extract(name);
    return node.empty() ? std::nullopt : std::optional(node.mapped());
}

Value TakeRequired(Values &values, const std::string &name)
{
    if (auto value = Take(values, name)) return *value;
    throw Failure(kFailed, "the line \"" + name + " = ...\" is missing");
}

std::int32_t ReadState(const Value &value)
{
    for (const std::string &name : ValueNames(ZEVO_BW_STATE_LIST))
        if (value.text == name && ValueOf(ZEVO_BW_STATE_LIST, name) != ZEVO_BW_STATE_NOT_EXISTED)
            return ValueOf(ZEVO_BW_STATE_LIST, name);
    Refuse(value.line, "\"" + value.text + "\" is no state: write enabled, disabled or schedule");
}

std::uint64_t ReadRate(const Value &value)
{
    try {
        return ParseRate(value.text).kBps;
    } catch (const Failure &failure) {
        Refuse(value.line, failure.what());
    }
}

void ReadRow(const Value &value, std::size_t day, char *plan)
{
    const std::string &hours = value.text;
    if (hours.size() != kHoursOfDay || hours.find_first_not_of("012") != hours.npos)
        Refuse(
            value.line,
            "the row of " + std::string(kWeekdays[day]) + " must be 24 times 0, 1 or 2" +
                (hours.size() == kHoursOfDay ? "" : ", and has " + std::to_string(hours.size())));
    std::copy(hours.begin(), hours.end(), plan + day * kHoursOfDay);
}

// All seven rows, or "plan = none" in their place.
void ReadPlan(Values &values, char (&plan)[ZEVO_BW_PLAN_SIZE])
{
    std::memset(plan, 0, sizeof(plan));
    if (const auto none = Take(values, kPlan)) {
        if (none->text != kNone) Refuse(none->line, "write \"plan = none\" or seven rows of hours");
        return;
    }
    for (const std::size_t day : kDaysFromMonday)
        ReadRow(TakeRequired(values, std::string(kWeekdays[day])), day, plan);
}

} // namespace

std::string RuleToForm(const Owner &owner, const ZEVO_BANDWIDTH_CONF &rule)
{
    const bool isStored = rule.state != ZEVO_BW_STATE_NOT_EXISTED;
    const bool hasPlan = HasWholePlan(rule.szSchedulePlan);
    std::ostringstream text;
    text << "# The rule of " << Printable(OwnerText(owner)) << " for "
         << Printable(ProtocolName(rule.protocolType)) << ".\n"
         << (isStored ? "# Left as it is, or not saved, nothing changes.\n"
                      : "# There is none yet: it is made when this text is saved changed.\n")
         << "\n# enabled, disabled, or schedule: then the plan below decides hour by hour.\n"
         << kState << " = "
         << ValueName(ZEVO_BW_STATE_LIST, isStored ? rule.state : ZEVO_BW_STATE_ENABLED)
         << "\n\n# 512K, 1.5M, 2G (multiples of 1024 bytes per second), 10MB, 10mbit, or unlimited."
         << "\n# Upload is from the client to this server, download from this server to the client."
         << "\n# The custom rates apply in the hours that a plan marks with 2.\n";
    for (const RateOption &rate : kRates)
        text << rate.label << " = " << FormatRate(rule.*rate.field) << '\n';
    text << "\n# The plan, an hour a mark: 0 this rule does not apply, 1 it applies with its "
            "rates,\n"
            "# 2 with its custom rates. It counts with \"state = schedule\".\n";
    if (hasPlan) {
        text << "# Write \"plan = none\" in place of the rows to do without.\n"
             << PlanRows(rule.szSchedulePlan, "");
    } else {
        if (rule.szSchedulePlan[0] != '\0')
            text << "# The stored one does not have 168 hours and goes when this is saved "
                    "changed.\n";
        text << "# Write seven rows like these in place of \"plan = none\" to have one:\n"
             << kPlan << " = " << kNone << '\n'
             << PlanRows(std::string(kHoursOfWeek, '1'), "#");
    }
    return text.str();
}

ZEVO_BANDWIDTH_CONF RuleFromForm(const std::string &text, ZEVO_BANDWIDTH_CONF rule)
{
    Values values = ReadValues(text);
    rule.state = ReadState(TakeRequired(values, kState));
    for (const RateOption &rate : kRates)
        rule.*rate.field = ReadRate(TakeRequired(values, rate.label));
    ReadPlan(values, rule.szSchedulePlan);
    if (!values.empty())
        Refuse(values.begin()->second.line, "unknown name \"" + values.begin()->first + "\"");
    return rule;
}

} // namespace tool
