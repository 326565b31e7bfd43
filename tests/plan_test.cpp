// Plans: the language in which they are written, and their coming changes in several time zones.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command.hpp"
#include "model/plan.hpp"

namespace tool {
namespace {

std::string Rule(const std::string &rules, HourState base = HourState::kNormal)
{
    return ParsePlan(PlanOf::kRule, rules, base);
}

// The hours of a day in a plan, 24 characters.
std::string Day(const std::string &plan, std::size_t weekday)
{
    return plan.substr(weekday * kHoursOfDay, kHoursOfDay);
}

TEST(Plan, PutsEachHourWhereItsWeekdayStands)
{
    const std::string plan = Rule("mon 08:00-10:00 custom");
    ASSERT_EQ(plan.size(), 168U);
    EXPECT_EQ(Day(plan, 1), "111111112211111111111111");
    for (const std::size_t weekday : {0U, 2U, 3U, 4U, 5U, 6U})
        EXPECT_EQ(Day(plan, weekday), std::string(24, '1'));
    EXPECT_EQ(Rule("sun 00:00-01:00 off").find('0'), 0U);
    EXPECT_EQ(Rule("sat 23:00-24:00 off").find('0'), 167U);
    EXPECT_EQ(Day(Rule("fri all-day off", HourState::kCustom), 5), std::string(24, '0'));
    EXPECT_EQ(Day(Rule("fri all-day off", HourState::kCustom), 4), std::string(24, '2'));
}

TEST(Plan, NamesDaysInListsRangesAndWords)
{
    const std::vector<std::pair<const char *, const char *>> rows = {
        {"all", "1111111"},          {"weekdays", "0111110"},      {"weekends", "1000001"},
        {"mon-fri", "0111110"},      {"fri-mon", "1100011"},       {"wed-wed", "0001000"},
        {"mon,wed,fri", "0101010"},  {"mon, wed ,fri", "0101010"}, {"sat - sun,tue", "1010001"},
        {"weekends,Wed", "1001001"}, {"MON-FRI", "0111110"}};
    for (const auto &[days, expected] : rows) {
        SCOPED_TRACE(days);
        const std::string plan = Rule(std::string(days) + " 12:00-13:00 normal", HourState::kOff);
        for (std::size_t weekday = 0; weekday < kDaysOfWeek; ++weekday)
            EXPECT_EQ(Day(plan, weekday)[12], expected[weekday]) << weekday;
    }
}

TEST(Plan, RunsOverMidnightAndFromSaturdayIntoSunday)
{
    const std::string night = Rule("sat 22:00-06:00 off");
    EXPECT_EQ(Day(night, 6), "111111111111111111111100");
    EXPECT_EQ(Day(night, 0), "000000111111111111111111");
    const std::string round = Rule("mon 08:00-08:00 off");
    EXPECT_EQ(Day(round, 1), "111111110000000000000000");
    EXPECT_EQ(Day(round, 2), "000000001111111111111111");
    EXPECT_EQ(Rule("all 00:00-00:00 off"), std::string(168, '0'));
    EXPECT_EQ(Rule("tue 22:00-24:00 off"), Rule("tue 22:00-00:00 off"));
}

TEST(Plan, LetsLaterRulesWin)
{
    const std::string plan =
        Rule("all all-day off; weekdays 8:00-12:00,13:00-18:00 custom;\n wed 09:00-10:00 normal;");
    EXPECT_EQ(Day(plan, 0), std::string(24, '0'));
    EXPECT_EQ(Day(plan, 2), "000000002222022222000000");
    EXPECT_EQ(Day(plan, 3), "000000002122022222000000");
}

TEST(Plan, OfAPolicyKnowsOnAndOffOnly)
{
    const std::string plan = ParsePlan(PlanOf::kPolicy, "weekends all-day off", HourState::kNormal);
    EXPECT_EQ(Day(plan, 6), std::string(24, '0'));
    EXPECT_EQ(Day(plan, 5), std::string(24, '1'));
    EXPECT_EQ(ParsePlan(PlanOf::kPolicy, "all all-day on", HourState::kOff),
              ParsePlan(PlanOf::kPolicy, "all all-day normal", HourState::kOff));
    EXPECT_THROW(ParsePlan(PlanOf::kPolicy, "all all-day custom", HourState::kOff), Failure);
    EXPECT_THROW(ParseHourState(PlanOf::kRule, "on"), Failure);
    EXPECT_EQ(HourStateName(PlanOf::kPolicy, HourState::kNormal), "on");
    EXPECT_EQ(HourStateName(PlanOf::kRule, HourState::kNormal), "normal");
}

// The message of the refusal, nothing when there is none.
template <typename Call> std::optional<std::string> Refusal(Call call)
{
    try {
        call();
        return std::nullopt;
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.status(), kWrongUsage);
        return failure.what();
    }
}

TEST(Plan, ThatIsNotUnderstoodIsRefusedWithThePieceAndTheRightForm)
{
    struct Row {
        const char *rules;
        const char *piece;
        const char *form;
    };
    const std::vector<Row> rows = {
        {"", "empty", "DAYS TIMES STATE"},
        {" ; ", "empty", "DAYS TIMES STATE"},
        {"mon custom", "\"mon custom\"", "DAYS TIMES STATE"},
        {"mon 08:00-09:00 off tue", "\"mon 08:00-09:00 off tue\"", "DAYS TIMES STATE"},
        {"monday all-day off", "\"monday\"", "mon, tue"},
        {"mon,,tue all-day off", "\"\"", "mon, tue"},
        {"mon-wed-fri all-day off", "\"wed-fri\"", "mon, tue"},
        {"mon-weekends all-day off", "\"weekends\"", "mon, tue"},
        {"mon all-day fast", "\"fast\"", "off, normal or custom"},
        {"mon 08:00 off", "\"08:00\"", "08:00-18:00"},
        {"mon 8-18 off", "\"8\"", "00:00 to 24:00"},
        {"mon 08:30-09:00 off", "\"08:30\"", "00:00 to 24:00"},
        {"mon 08:00-25:00 off", "\"25:00\"", "00:00 to 24:00"},
        {"mon 08:00-+9:00 off", "\"+9:00\"", "00:00 to 24:00"},
        {"mon 008:00-09:00 off", "\"008:00\"", "00:00 to 24:00"},
        {"mon 08:00-09:00, off", "DAYS TIMES STATE", "DAYS TIMES STATE"},
        {"mon 24:00-06:00 off", "\"24:00-06:00\"", "00:00 of the next day"},
        {"tue all-day off; mon all-day x", "\"mon all-day x\"", "off, normal or custom"}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.rules);
        const auto message = Refusal([&] { Rule(row.rules); });
        ASSERT_TRUE(message);
        EXPECT_NE(message->find(row.piece), std::string::npos) << *message;
        EXPECT_NE(message->find(row.form), std::string::npos) << *message;
    }
}

TEST(Plan, OfDigitsIsTakenOnlyWholeAndInItsDigits)
{
    const std::string whole = std::string(100, '1') + std::string(67, '0') + "2";
    EXPECT_EQ(CheckPlan(PlanOf::kRule, whole), whole);
    EXPECT_TRUE(Refusal([&] { CheckPlan(PlanOf::kPolicy, whole); })->starts_with("character 168"));
    for (const std::size_t size : {0U, 167U, 169U})
        EXPECT_NE(Refusal([&] {
                      CheckPlan(PlanOf::kRule, std::string(size, '1'));
                  })->find(std::to_string(size) + " instead of 168 characters"),
                  std::string::npos);
}

TEST(Plan, InAFileMeansWhatTheLibraryMakesOfIt)
{
    // The states of the first hours, one after the other.
    const auto read = [](PlanOf of, std::string_view plan) {
        std::string states;
        for (std::size_t hour = 0; hour < 5; ++hour)
            states += static_cast<char>(StateOfHour(of, plan, hour));
        return states;
    };
    EXPECT_EQ(read(PlanOf::kRule, "01x2"), "01222");
    EXPECT_EQ(read(PlanOf::kPolicy, "01x2"), "01000");
}

// ---- coming changes ----

// Local time as the zone says; what the tests that follow do sets it anew.
void LiveIn(const char *zone)
{
    ::setenv("TZ", zone, 1);
    ::tzset();
}

std::string Text(std::time_t moment)
{
    const std::tm local = LocalTime(moment);
    std::string text(64, '\0');
    text.resize(std::strftime(text.data(), text.size(), "%a %d %H:%M %z", &local));
    return text;
}

// Each change as "Sun 29 03:00 +0200 custom".
std::vector<std::string> Changes(const std::string &rules, std::time_t after, std::size_t most)
{
    std::vector<std::string> texts;
    for (const PlanChange &change : ComingChanges(PlanOf::kRule, Rule(rules), after, most))
        texts.push_back(Text(change.moment) + " " + HourStateName(PlanOf::kRule, change.state));
    return texts;
}

using Texts = std::vector<std::string>;

constexpr const char *kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char *kNewYork = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char *kLordHowe = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0";

TEST(ComingChanges, AreListedInOrderFromTheMomentOn)
{
    LiveIn(kBerlin);
    const std::time_t monday = 1'793'602'859; // 2026-11-02 08:00:59 +0100
    EXPECT_EQ(Changes("weekdays 08:00-18:00 custom", monday, 3),
              (Texts{"Mon 02 18:00 +0100 normal", "Tue 03 08:00 +0100 custom",
                     "Tue 03 18:00 +0100 normal"}));
    // A change at the moment itself has happened.
    EXPECT_EQ(Changes("mon 08:00-09:00 off", monday - 59, 1), Texts{"Mon 02 09:00 +0100 normal"});
    EXPECT_EQ(Changes("mon 08:00-09:00 off", monday - 60, 1), Texts{"Mon 02 08:00 +0100 off"});
    EXPECT_EQ(Changes("all all-day custom", monday, 9), Texts{});
    EXPECT_EQ(Changes("sun 00:00-01:00 off", monday, 200).size(), 200U);
}

TEST(ComingChanges, SkipTheHourThatDaylightSavingSkips)
{
    LiveIn(kBerlin);                         // from 02:00 to 03:00 on the 29th of March
    const std::time_t march = 1'774'652'400; // 2026-03-28 00:00 +0100
    EXPECT_EQ(Changes("sun 02:00-03:00 off", march, 1), Texts{"Sun 05 02:00 +0200 off"});
    EXPECT_EQ(Changes("sun 01:00-02:00 off", march, 2),
              (Texts{"Sun 29 01:00 +0100 off", "Sun 29 03:00 +0200 normal"}));
    LiveIn(kNewYork); // from 02:00 to 03:00 on the 8th of March
    EXPECT_EQ(Changes("sun 02:00-04:00 off", 1'772'841'600, 2),
              (Texts{"Sun 08 03:00 -0400 off", "Sun 08 04:00 -0400 normal"}));
}

TEST(ComingChanges, MeetTheHourTwiceThatDaylightSavingRepeats)
{
    LiveIn(kBerlin);                           // from 03:00 back to 02:00 on the 25th of October
    const std::time_t october = 1'792'792'800; // 2026-10-24 00:00 +0200
    EXPECT_EQ(Changes("sun 02:00-03:00 off", october, 2),
              (Texts{"Sun 25 02:00 +0200 off", "Sun 25 03:00 +0100 normal"}));
    LiveIn(kNewYork); // from 02:00 back to 01:00 on the 1st of November
    EXPECT_EQ(Changes("sun 00:00-01:00,02:00-03:00 off", 1'793'419'200, 4),
              (Texts{"Sun 01 00:00 -0400 off", "Sun 01 01:00 -0400 normal",
                     "Sun 01 02:00 -0500 off", "Sun 01 03:00 -0500 normal"}));
}

TEST(ComingChanges, FollowAClockThatIsSetByHalfAnHour)
{
    LiveIn(kLordHowe);
    // From 02:00 to 02:30 on the 4th of October: half of the hour is left.
    EXPECT_EQ(Changes("sun 02:00-03:00 off", 1'790'949'600, 2),
              (Texts{"Sun 04 02:30 +1100 off", "Sun 04 03:00 +1100 normal"}));
    // From 02:00 back to 01:30 on the 5th of April.
    EXPECT_EQ(Changes("sun 01:00-02:00 off", 1'775'224'800, 2),
              (Texts{"Sun 05 01:00 +1100 off", "Sun 05 02:00 +1030 normal"}));
    EXPECT_EQ(Changes("sun 02:00-03:00 off", 1'775'224'800, 2),
              (Texts{"Sun 05 02:00 +1030 off", "Sun 05 03:00 +1030 normal"}));
}

TEST(ComingChanges, AreFoundWhereClocksAreSetWithinAnHour)
{
    LiveIn("NST3:30NDT,M3.2.0/0:01,M11.1.0/0:01"); // back from 00:01 to 23:01 the day before
    EXPECT_EQ(Changes("sun 00:00-01:00 off", 1'793'419'200, 4),
              (Texts{"Sun 01 00:00 -0230 off", "Sat 31 23:01 -0330 normal",
                     "Sun 01 00:00 -0330 off", "Sun 01 01:00 -0330 normal"}));
}

} // namespace
} // namespace tool
