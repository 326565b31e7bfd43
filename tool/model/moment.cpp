// The process stays in the "C" locale for times, so the names of days are English.
#include "model/moment.hpp"

#include <iomanip>
#include <sstream>

#include "failure.hpp"
#include "model/plan.hpp"

namespace tool {

std::string FormatTime(const std::tm &local, const char *format)
{
    std::ostringstream text;
    text << std::put_time(&local, format);
    return text.str();
}

std::string OffsetText(const std::tm &local)
{
    return FormatTime(local, "%z").insert(3, ":");
}

std::string MomentText(std::time_t moment)
{
    return FormatTime(LocalTime(moment), "%a %Y-%m-%d %H:%M %Z");
}

std::string IsoText(std::time_t moment)
{
    const std::tm local = LocalTime(moment);
    return FormatTime(local, "%Y-%m-%dT%H:%M:%S") + OffsetText(local);
}

std::time_t ParseComingMoment(const std::string &text, std::time_t now)
{
    std::tm asked = {};
    asked.tm_wday = -1;
    const char *const end = ::strptime(text.c_str(), "%a %H:%M", &asked);
    if (end == nullptr || *end != '\0' || asked.tm_wday < 0)
        throw Failure(kWrongUsage, "\"" + text +
                                       "\" is no time of the week: give a day and a time from "
                                       "00:00 to 23:59, such as 'sun 02:30'");
    constexpr int kWeek = kDaysOfWeek;
    const std::tm today = LocalTime(now);
    for (int days = (asked.tm_wday - today.tm_wday + kWeek) % kWeek;; days += kWeek) {
        std::tm local = today;
        local.tm_mday += days;
        local.tm_hour = asked.tm_hour;
        local.tm_min = asked.tm_min;
        local.tm_sec = 0;
        local.tm_isdst = -1;
        const std::time_t moment = std::mktime(&local);
        const bool exists = local.tm_hour == asked.tm_hour && local.tm_min == asked.tm_min;
        if (exists && moment / 60 >= now / 60) return moment;
    }
}

} // namespace tool
