// "plan": shows the week of a rule or of a policy, and its next changes. "rule set" and "policy
// set" write plans.
#include <ctime>
#include <optional>
#include <string>

#include "command.hpp"
#include "model/moment.hpp"
#include "model/plan.hpp"
#include "model/rate.hpp"
#include "model/store.hpp"
#include "model/texts.hpp"
#include "options.hpp"
#include "output.hpp"

namespace tool {

namespace {

constexpr std::size_t kFewChanges = 10;
constexpr std::size_t kMaxChanges = 1000;

struct PlanArguments {
    OwnerOption owner;
    std::string protocol;
    std::size_t count = kFewChanges;
};

// ---- whose plan ----

struct Subject {
    PlanOf of = PlanOf::kPolicy;
    std::string name;   // "the rule of user alice for ftp"
    std::string setter; // the command that changes it
    std::int32_t state = ZEVO_BW_STATE_NOT_EXISTED;
    std::string plan;
    ZEVO_BANDWIDTH_CONF rule{}; // of a rule's plan only
    ZEVO_BANDWIDTH_GLOBAL_CONF policy{};
    Json json; // the record
    bool Applies() const { return state == ZEVO_BW_STATE_SCHEDULE; }
};

Subject FindSubject(const PlanArguments &arguments)
{
    Subject subject;
    const std::int32_t protocol = FindProtocol(arguments.protocol);
    const std::string protocolName = ProtocolName(protocol);
    if (arguments.owner.IsGiven()) {
        const Owner owner = arguments.owner.FindOfRule(protocol);
        subject.of = PlanOf::kRule;
        subject.name = "the rule of " + OwnerText(owner) + " for " + protocolName;
        subject.setter = "zevobandwidth rule set " + RuleOptions(owner, protocol);
        subject.rule = ReadRule(owner, protocol);
        subject.state = subject.rule.state;
        subject.plan = subject.rule.szSchedulePlan;
        subject.policy = ReadPolicy(protocol);
        subject.json = ToJson(owner, subject.rule);
    } else {
        subject.name = "the policy of " + protocolName;
        subject.setter = "zevobandwidth policy set -p " + protocolName;
        subject.policy = ReadPolicy(protocol);
        subject.state = subject.policy.state;
        subject.plan = subject.policy.szSchedulePlan;
        subject.json = {{"protocol", protocolName},
                        {"state", ValueName(ZEVO_BW_STATE_LIST, subject.state)},
                        {"plan", subject.plan}};
    }
    return subject;
}

// What an hour of that state means.
std::string Meaning(const Subject &subject, HourState state)
{
    const std::string name = HourStateName(subject.of, state) + ": ";
    const bool isOff = state == HourState::kOff;
    if (subject.of == PlanOf::kPolicy)
        return name + (isOff ? "no limit applies to " : "limits apply to ") +
               ProtocolName(subject.policy.protocolType);
    if (isOff) return name + "this rule does not apply";
    const std::size_t first = state == HourState::kCustom ? 2 : 0;
    return name + kRates[0].label + " " + FormatRate(subject.rule.*kRates[first].field) + ", " +
           kRates[1].label + " " + FormatRate(subject.rule.*kRates[first + 1].field);
}

// ---- what should be known beside the plan ----

// What holds at all hours while the plan does not apply.
std::string HoldsAlways(const Subject &subject)
{
    const bool isRule = subject.of == PlanOf::kRule;
    if (subject.state == ZEVO_BW_STATE_ENABLED)
        return isRule ? "its normal rates hold at all hours" : "limits apply at all hours";
    return isRule ? "it applies at no hour" : "no limit applies at any hour";
}

// The state of hours that are missing from the plan.
std::string WhatIsMissing(const Subject &subject)
{
    return HourStateName(subject.of, StateOfHour(subject.of, "", 0));
}

void NoteWholeness(const Subject &subject)
{
    if (HasWholePlan(subject.plan)) return;
    const bool isShort = subject.plan.size() < kHoursOfWeek;
    PrintNote("warning: the plan has " + std::to_string(subject.plan.size()) + " instead of " +
              std::to_string(kHoursOfWeek) + " characters: " +
              (isShort ? "the hours that it lacks count as " + WhatIsMissing(subject)
                       : "those beyond count for nothing"));
}

void NoteState(const Subject &subject)
{
    const bool isRule = subject.of == PlanOf::kRule;
    if (!subject.Applies()) {
        const bool exists = subject.state != ZEVO_BW_STATE_NOT_EXISTED;
        PrintNote("note: the plan does not apply now: " + subject.name + " is " +
                  (exists ? ValueName(ZEVO_BW_STATE_LIST, subject.state) : "not stored") + ", so " +
                  HoldsAlways(subject) + ". Let it follow the plan with: " + subject.setter +
                  " --state schedule");
    }
    const std::string why = isRule ? WhyNothingIsLimited(subject.policy) : "";
    if (!why.empty()) PrintNote("note: " + why);
}

// Prints the notes. False when there is no plan.
bool TellAbout(const Subject &subject)
{
    if (subject.plan.empty()) {
        PrintNote("note: " + subject.name + " has no plan. Give it one with: " + subject.setter +
                  " --plan 'weekdays 08:00-18:00 off'");
        return false;
    }
    NoteWholeness(subject);
    NoteState(subject);
    return true;
}

// ---- moments ----

Json ToJson(const Subject &subject, const PlanChange &change)
{
    return {{"at", IsoText(change.moment)}, {"state", HourStateName(subject.of, change.state)}};
}

std::optional<PlanChange> NextChange(const Subject &subject, std::time_t now)
{
    const auto changes = ComingChanges(subject.of, subject.plan, now, 1);
    return changes.empty() ? std::nullopt : std::optional(changes.front());
}

PlanChange Present(const Subject &subject, std::time_t now)
{
    return {now, StateOfHour(subject.of, subject.plan, HourOfWeek(LocalTime(now)))};
}

// ---- show ----

struct Mark {
    char character; // tells the states apart without colors
    Color color;
};
constexpr Mark kMissing = {'?', Color::kRed};

Mark MarkOf(HourState state)
{
    if (state == HourState::kNormal) return {'#', Color::kOnGreen};
    if (state == HourState::kCustom) return {'+', Color::kOnYellow};
    return {'.', Color::kDim};
}

std::string CellOf(const Mark &mark)
{
    return Paint(mark.color, std::string(" ") + mark.character + " ");
}

std::string PresentCell(char character)
{
    return Paint(Color::kInverse, std::string("[") + character + "]");
}

// Nothing for an hour that is missing from the plan.
std::optional<HourState> StateOf(const Subject &subject, std::size_t hourOfWeek)
{
    if (hourOfWeek >= subject.plan.size()) return std::nullopt;
    return StateOfHour(subject.of, subject.plan, hourOfWeek);
}

std::string DayLabel(std::size_t weekday)
{
    std::string label(kWeekdays[weekday]);
    label.front() = static_cast<char>(label.front() - 'a' + 'A');
    return label;
}

void PrintGrid(const Subject &subject, std::size_t present)
{
    std::string hours = "    ";
    for (std::size_t hour = 0; hour < kHoursOfDay; ++hour)
        hours += std::string(hour < 10 ? " 0" : " ") + std::to_string(hour);
    if (!OutputStyle().noLegend) PrintLine(hours);
    for (const std::size_t weekday : kDaysFromMonday) {
        std::string line = DayLabel(weekday) + " ";
        for (std::size_t hour = 0; hour < kHoursOfDay; ++hour) {
            const std::size_t index = weekday * kHoursOfDay + hour;
            const auto state = StateOf(subject, index);
            const Mark mark = state ? MarkOf(*state) : kMissing;
            line += index == present ? PresentCell(mark.character) : CellOf(mark);
        }
        PrintLine(line);
    }
}

void PrintLegend(const Subject &subject)
{
    const auto print = [](const std::string &cell, const std::string &meaning) {
        PrintLine("    " + cell + " " + Printable(meaning));
    };
    for (const HourState state : {HourState::kNormal, HourState::kCustom, HourState::kOff})
        if (subject.of == PlanOf::kRule || state != HourState::kCustom)
            print(CellOf(MarkOf(state)), Meaning(subject, state));
    if (subject.plan.size() < kHoursOfWeek)
        print(CellOf(kMissing), "not in the plan, counts as " + WhatIsMissing(subject));
    print(PresentCell(' '), "the present hour");
}

void PrintMoments(const Subject &subject, std::time_t now)
{
    const auto text = [&](const PlanChange &change) {
        return MomentText(change.moment) + "  " + HourStateName(subject.of, change.state);
    };
    const std::tm local = LocalTime(now);
    const auto next = NextChange(subject, now);
    PrintLine("time zone    " + FormatTime(local, "%Z") + ", UTC" + OffsetText(local));
    PrintLine("now          " + text(Present(subject, now)));
    PrintLine("next change  " + (next ? text(*next) : "none: every hour is the same"));
}

Json WeekJson(const Subject &subject)
{
    Json week = Json::object();
    for (const std::size_t weekday : kDaysFromMonday)
        for (std::size_t hour = 0; hour < kHoursOfDay; ++hour) {
            const auto state = StateOf(subject, weekday * kHoursOfDay + hour);
            week[std::string(kWeekdays[weekday])].push_back(
                state ? Json(HourStateName(subject.of, *state)) : Json(nullptr));
        }
    return week;
}

void PrintPlanJson(const Subject &subject, std::time_t now)
{
    const std::tm local = LocalTime(now);
    const auto next = NextChange(subject, now);
    const bool isThere = !subject.plan.empty();
    Json json = subject.json;
    json["plan_is_whole"] = HasWholePlan(subject.plan);
    json["plan_bears"] = subject.Applies();
    json["time_zone"] = {{"name", FormatTime(local, "%Z")}, {"utc_offset", OffsetText(local)}};
    json["week"] = isThere ? WeekJson(subject) : Json(nullptr);
    json["now"] = isThere ? ToJson(subject, Present(subject, now)) : Json(nullptr);
    json["next_change"] = isThere && next ? ToJson(subject, *next) : Json(nullptr);
    PrintJson(json);
}

void ShowPlan(const PlanArguments &arguments)
{
    const Subject subject = FindSubject(arguments);
    const std::time_t now = std::time(nullptr);
    if (OutputStyle().json) return PrintPlanJson(subject, now);
    if (!TellAbout(subject)) return;
    const bool withLegend = !OutputStyle().noLegend;
    if (withLegend) {
        PrintLine(Paint(Color::kBold, Printable(subject.name + ": " +
                                                ValueName(ZEVO_BW_STATE_LIST, subject.state))));
        PrintLine("");
    }
    PrintGrid(subject, HourOfWeek(LocalTime(now)));
    if (!withLegend) return;
    PrintLine("");
    PrintLegend(subject);
    PrintLine("");
    PrintMoments(subject, now);
}

// ---- next ----

void ListChanges(const PlanArguments &arguments)
{
    const Subject subject = FindSubject(arguments);
    if (!OutputStyle().json && !TellAbout(subject)) return;
    const auto changes =
        ComingChanges(subject.of, subject.plan, std::time(nullptr), arguments.count);
    Json json = Json::array();
    Table table({"WHEN", "FROM THEN ON"});
    for (const PlanChange &change : changes) {
        json.push_back(ToJson(subject, change));
        table.AddRow({MomentText(change.moment), Meaning(subject, change.state)});
    }
    if (OutputStyle().json) return PrintJson(json);
    if (!changes.empty()) return table.Print();
    PrintNote("The plan never changes: at every hour " +
              Meaning(subject, StateOfHour(subject.of, subject.plan, 0)));
}

void AddPlanOptions(CLI::App &command, PlanArguments &arguments)
{
    AddOwnerOption(command, arguments.owner);
    AddProtocolOption(command, arguments.protocol)->required();
    AddOutputOptions(command);
}

void AddShow(CLI::App &parent)
{
    const auto [show, arguments] = AddCommand(parent, "show", "Draw the week of a plan", ShowPlan);
    AddPlanOptions(show, arguments);
    show.footer("Without -u and -g the plan of the protocol's policy is drawn. Hours are those of\n"
                "the local time zone. Each state has its character, so that nothing is lost\n"
                "without colors; the present hour stands in brackets.\n\nExamples:\n"
                "  zevobandwidth plan show -u alice -p ftp\n"
                "  zevobandwidth plan show -p rsync --no-color\n");
}

void AddNext(CLI::App &parent)
{
    const auto [next, arguments] =
        AddCommand(parent, "next", "List the coming changes", ListChanges);
    AddPlanOptions(next, arguments);
    next.add_option("N", arguments.count, "How many changes to list")
        ->check(CLI::Range(std::size_t{1}, kMaxChanges))
        ->capture_default_str();
    next.footer("Times are local, with the zone that holds then: where daylight saving skips an\n"
                "hour or repeats it, so does the plan.\n\nExamples:\n"
                "  zevobandwidth plan next -g staff -p rsync\n"
                "  zevobandwidth plan next 3 -p ftp --json\n");
}

} // namespace

void AddPlanCommand(CLI::App &app)
{
    CLI::App *plan = app.add_subcommand("plan", "The week of a rule or of a protocol's policy");
    plan->require_subcommand(1);
    plan->footer("Plans are written with 'rule set --plan' and 'policy set --plan'.\n\nExample:\n"
                 "  zevobandwidth plan show -u alice -p ftp\n");
    AddShow(*plan);
    AddNext(*plan);
}

} // namespace tool
