#include "model/plan.hpp"

#include <algorithm>
#include <bitset>
#include <cctype>
#include <sstream>

#include "failure.hpp"

namespace tool {

namespace {

using Days = std::bitset<kDaysOfWeek>;

struct DayRange {
    std::string_view name;
    std::size_t first;
    std::size_t last; // if less than first, the range goes past Saturday
};

constexpr std::array kDayRanges = {DayRange{"all", 0, 6}, DayRange{"weekdays", 1, 5},
                                   DayRange{"weekends", 6, 0}};

struct HourRange {
    std::size_t first = 0;
    std::size_t count = 0;
};

struct StateWord {
    PlanOf of;
    std::string_view name;
    HourState state;
};

// The first name of a state is shown; all are read.
constexpr std::array kStateWords = {
    StateWord{PlanOf::kRule, "off", HourState::kOff},
    StateWord{PlanOf::kRule, "normal", HourState::kNormal},
    StateWord{PlanOf::kRule, "custom", HourState::kCustom},
    StateWord{PlanOf::kPolicy, "on", HourState::kNormal},
    StateWord{PlanOf::kPolicy, "off", HourState::kOff},
    StateWord{PlanOf::kPolicy, "normal", HourState::kNormal},
};

constexpr const char *kRightDays = "no day: write mon, tue, wed, thu, fri, sat, sun, a range such "
                                   "as mon-fri, weekdays, weekends or all, several with commas";
constexpr const char *kRightTimes = "no time: write a range of whole hours such as 08:00-18:00 or "
                                    "22:00-06:00, several with commas, or all-day";
constexpr const char *kRightHour = "no whole hour: write 00:00 to 24:00";

[[noreturn]] void Refuse(std::string_view piece, const std::string &why)
{
    throw Failure(kWrongUsage, "\"" + std::string(piece) + "\" is " + why);
}

std::vector<std::string> Split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream in(text + separator);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

// The words in lower case. A blank beside a comma or a dash does not end a word.
std::vector<std::string> Words(const std::string &text)
{
    const auto joins = [](char c) { return c == ',' || c == '-'; };
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        std::transform(word.begin(), word.end(), word.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (!words.empty() && (joins(words.back().back()) || joins(word.front())))
            words.back() += word;
        else
            words.push_back(word);
    }
    return words;
}

std::size_t ReadDay(const std::string &name)
{
    const auto day = std::find(kWeekdays.begin(), kWeekdays.end(), name);
    if (day == kWeekdays.end()) Refuse(name, kRightDays);
    return static_cast<std::size_t>(day - kWeekdays.begin());
}

DayRange ReadDayRange(const std::string &text)
{
    for (const DayRange &range : kDayRanges)
        if (range.name == text) return range;
    const std::size_t dash = text.find('-');
    const std::size_t first = ReadDay(text.substr(0, dash));
    return {"", first, dash == std::string::npos ? first : ReadDay(text.substr(dash + 1))};
}

Days ReadDays(const std::string &text)
{
    Days days;
    for (const std::string &part : Split(text, ',')) {
        const DayRange range = ReadDayRange(part);
        for (std::size_t day = range.first;; day = (day + 1) % kDaysOfWeek) {
            days.set(day);
            if (day == range.last) break;
        }
    }
    return days;
}

std::size_t ReadHour(const std::string &text)
{
    const std::size_t colon = text.find(':');
    const std::string digits = text.substr(0, colon);
    const bool isNumber = !digits.empty() && digits.size() <= 2 &&
                          digits.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber || colon == std::string::npos || text.substr(colon) != ":00")
        Refuse(text, kRightHour);
    const std::size_t hour = std::stoul(digits);
    if (hour > kHoursOfDay) Refuse(text, kRightHour);
    return hour;
}

HourRange ReadTime(const std::string &text)
{
    if (text == "all-day") return {0, kHoursOfDay};
    const std::size_t dash = text.find('-');
    if (dash == std::string::npos) Refuse(text, kRightTimes);
    const std::size_t first = ReadHour(text.substr(0, dash));
    const std::size_t end = ReadHour(text.substr(dash + 1));
    if (first == kHoursOfDay)
        Refuse(text, "no time: a range may end at 24:00, but begins at 00:00 of the next day");
    return {first, end > first ? end - first : end + kHoursOfDay - first};
}

void ApplyRule(PlanOf of, const std::vector<std::string> &words, std::string &plan)
{
    const Days days = ReadDays(words[0]);
    const HourState state = ParseHourState(of, words[2]);
    for (const std::string &part : Split(words[1], ',')) {
        const HourRange range = ReadTime(part);
        for (std::size_t day = 0; day < kDaysOfWeek; ++day)
            for (std::size_t i = 0; days[day] && i < range.count; ++i)
                plan[(day * kHoursOfDay + range.first + i) % kHoursOfWeek] =
                    static_cast<char>(state);
    }
}

std::string KnownStates(PlanOf of)
{
    return of == PlanOf::kRule ? "off, normal or custom" : "on or off";
}

constexpr const char *kRightRule =
    "DAYS TIMES STATE, such as 'weekdays 08:00-18:00 off', several with semicolons";

constexpr std::time_t kSecondsOfHour = 3600;
// A plan with two states shows both within a week. Daylight saving moves that by less than a week.
constexpr std::time_t kLongestSpan = 2 * kSecondsOfHour * static_cast<std::time_t>(kHoursOfWeek);

// The next moment at which the local hour may change: the full hour, or an earlier moment at which
// the clock is set.
std::time_t NextHour(std::time_t moment)
{
    const std::tm local = LocalTime(moment);
    const std::time_t rest = kSecondsOfHour - local.tm_min * 60 - local.tm_sec;
    std::time_t after = moment + std::max<std::time_t>(rest, 1); // a leap second is the 61st
    if (LocalTime(after).tm_gmtoff == local.tm_gmtoff) return after;
    for (std::time_t before = moment; after - before > 1;) {
        const std::time_t middle = before + (after - before) / 2;
        (LocalTime(middle).tm_gmtoff == local.tm_gmtoff ? before : after) = middle;
    }
    return after;
}

} // namespace

std::string HourStateName(PlanOf of, HourState state)
{
    for (const StateWord &word : kStateWords)
        if (word.of == of && word.state == state) return std::string(word.name);
    return HourStateName(of, HourState::kOff); // a policy's plan has no custom hours
}

HourState ParseHourState(PlanOf of, const std::string &name)
{
    for (const StateWord &word : kStateWords)
        if (word.of == of && word.name == name) return word.state;
    if (of == PlanOf::kPolicy && name == HourStateName(PlanOf::kRule, HourState::kCustom))
        Refuse(name, "no state of a policy, which has no rates of its own: write " +
                         KnownStates(of) + " here, and custom in the plans of rules");
    Refuse(name, "no state: write " + KnownStates(of));
}

std::string ParsePlan(PlanOf of, const std::string &rules, HourState base)
{
    std::string plan(kHoursOfWeek, static_cast<char>(base));
    bool isEmpty = true;
    for (const std::string &rule : Split(rules, ';')) {
        const std::vector<std::string> words = Words(rule);
        if (words.empty()) continue; // a semicolon at the end
        isEmpty = false;
        if (words.size() != 3) Refuse(rule, "no rule of a plan: write " + std::string(kRightRule));
        try {
            ApplyRule(of, words, plan);
        } catch (const Failure &failure) {
            throw Failure(failure.status(), "in the plan's \"" +
                                                rule.substr(rule.find_first_not_of(" \t\n")) +
                                                "\", " + failure.what());
        }
    }
    if (isEmpty) throw Failure(kWrongUsage, "the plan is empty: write " + std::string(kRightRule));
    return plan;
}

const std::string &CheckPlan(PlanOf of, const std::string &plan)
{
    const std::string form = "one of " + std::string(of == PlanOf::kRule ? "0, 1, 2" : "0, 1") +
                             " (" + (of == PlanOf::kRule ? "off, normal, custom" : "off, on") +
                             ") for each hour of the week from Sunday 00:00 on";
    if (!HasWholePlan(plan))
        throw Failure(kWrongUsage, "the plan has " + std::to_string(plan.size()) + " instead of " +
                                       std::to_string(kHoursOfWeek) + " characters: write " + form);
    const std::size_t wrong = plan.find_first_not_of(of == PlanOf::kRule ? "012" : "01");
    if (wrong != std::string::npos)
        throw Failure(kWrongUsage, "character " + std::to_string(wrong + 1) + " of the plan is \"" +
                                       plan[wrong] + "\": write " + form);
    return plan;
}

std::string PlanHelp(PlanOf of)
{
    const bool isRule = of == PlanOf::kRule;
    return std::string("A plan is written DAYS TIMES STATE, several with semicolons, later ones\n"
                       "over earlier ones:\n"
                       "  DAYS   mon .. sun, mon-fri, mon,wed, weekdays, weekends, all\n"
                       "  TIMES  whole hours of local time, 08:00-18:00, several with commas, or\n"
                       "         all-day; what ends at or before its start runs into the next day\n"
                       "  STATE  ") +
           (isRule ? "off (this rule does not apply), normal, custom (the custom rates)\n"
                   : "on (limits apply), off (no limit applies to the protocol)\n") +
           "It replaces the old plan whole. As digits it begins with Sunday 00:00: " +
           (isRule ? "0 off,\n1 normal, 2 custom." : "0 off,\n1 on.") +
           " A plan applies in the state schedule: what is new gets that\n"
           "state with its plan, what is there keeps its own unless --state is given.";
}

bool HasWholePlan(std::string_view plan)
{
    return plan.size() == kHoursOfWeek;
}

std::string PlanText(std::string_view plan)
{
    if (plan.empty()) return "none";
    const std::string size = std::to_string(plan.size());
    const std::string all = std::to_string(kHoursOfWeek);
    return HasWholePlan(plan) ? all + " hours" : size + " of " + all + " hours";
}

HourState StateOfHour(PlanOf of, std::string_view plan, std::size_t hourOfWeek)
{
    const char character = hourOfWeek < plan.size() ? plan[hourOfWeek] : '\0';
    if (character == static_cast<char>(HourState::kNormal)) return HourState::kNormal;
    const bool isOff = of == PlanOf::kPolicy || character == static_cast<char>(HourState::kOff);
    return isOff ? HourState::kOff : HourState::kCustom;
}

std::tm LocalTime(std::time_t moment)
{
    std::tm local{};
    if (::localtime_r(&moment, &local) == nullptr)
        throw Failure(kFailed, "the calendar knows no local time for " + std::to_string(moment) +
                                   " seconds since 1970; check the clock");
    return local;
}

std::size_t HourOfWeek(const std::tm &local)
{
    return static_cast<std::size_t>(local.tm_wday) * kHoursOfDay +
           static_cast<std::size_t>(local.tm_hour);
}

std::vector<PlanChange> ComingChanges(PlanOf of, std::string_view plan, std::time_t after,
                                      std::size_t most)
{
    const auto stateAt = [&](std::time_t moment) {
        return StateOfHour(of, plan, HourOfWeek(LocalTime(moment)));
    };
    std::vector<PlanChange> changes;
    PlanChange last{after, stateAt(after)};
    std::time_t moment = after;
    while (changes.size() < most && moment - last.moment < kLongestSpan) {
        moment = NextHour(moment);
        const HourState state = stateAt(moment);
        if (state == last.state) continue;
        last = {moment, state};
        changes.push_back(last);
    }
    return changes;
}

} // namespace tool
