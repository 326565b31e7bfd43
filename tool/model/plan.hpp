// Weekly plans: how an administrator writes them, and when they next change. A plan has a character
// for each hour of the week. Times are local to the process; no file is read.
#ifndef ZEVOBW_TOOL_MODEL_PLAN_HPP
#define ZEVOBW_TOOL_MODEL_PLAN_HPP

#include <array>
#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

inline constexpr std::size_t kHoursOfDay = 24;
inline constexpr std::size_t kDaysOfWeek = 7;

// A plan's character of a weekday's hour stands at weekday * kHoursOfDay + hour, Sunday first.
inline constexpr std::size_t kHoursOfWeek = kDaysOfWeek * kHoursOfDay;
inline constexpr std::array<std::string_view, kDaysOfWeek> kWeekdays = {"sun", "mon", "tue", "wed",
                                                                        "thu", "fri", "sat"};

inline constexpr std::array<std::size_t, kDaysOfWeek> kDaysFromMonday = {1, 2, 3, 4, 5, 6, 0};

// The same character means different things in a rule's plan and in that of a protocol's policy.
enum class PlanOf { kRule, kPolicy };

enum class HourState : char {
    kOff = '0',    // the rule does not apply; in a policy: no limit applies
    kNormal = '1', // the normal rates; in a policy: limits apply
    kCustom = '2', // the custom rates; not in policies
};

// "off", "normal", "custom"; a policy's are "off" and "on".
std::string HourStateName(PlanOf of, HourState state);

// Reads that name; "normal" is another word for a policy's "on". Throws Failure with kWrongUsage.
HourState ParseHourState(PlanOf of, const std::string &name);

// Reads "DAYS TIMES STATE; ...". A later rule overrides an earlier one. Hours that no rule names
// get the base state. Throws Failure with kWrongUsage that names the wrong part and the right form.
std::string ParsePlan(PlanOf of, const std::string &rules, HourState base);

// Returns the plan if it has 168 characters, each of them an HourState. Throws Failure with
// kWrongUsage that says what is wrong.
const std::string &CheckPlan(PlanOf of, const std::string &plan);

// The help text of every command that takes a plan.
std::string PlanHelp(PlanOf of);

// Whether it has a character for each hour of the week.
bool HasWholePlan(std::string_view plan);

// "168 hours", "none", "167 of 168 hours": how much of a plan there is.
std::string PlanText(std::string_view plan);

// The state of that hour as the library reads it: a missing or unknown character means custom in a
// rule and off in a policy.
HourState StateOfHour(PlanOf of, std::string_view plan, std::size_t hourOfWeek);

// The moment as local time. Throws Failure if the calendar does not reach that far.
std::tm LocalTime(std::time_t moment);

std::size_t HourOfWeek(const std::tm &local);

struct PlanChange {
    std::time_t moment;
    HourState state; // from then on
};

// The next moments at which the state changes, at most so many. Hours that daylight saving skips
// are left out; hours that it repeats come twice.
std::vector<PlanChange> ComingChanges(PlanOf of, std::string_view plan, std::time_t after,
                                      std::size_t most);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_PLAN_HPP
