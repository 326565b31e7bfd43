// Moments as people and programs read and write them, in local time.
#ifndef ZEVOBW_TOOL_MODEL_MOMENT_HPP
#define ZEVOBW_TOOL_MODEL_MOMENT_HPP

#include <ctime>
#include <string>

namespace tool {

// As strftime() does it.
std::string FormatTime(const std::tm &local, const char *format);

// "+01:00", which strftime() writes without the colon.
std::string OffsetText(const std::tm &local);

// "Sun 2026-03-29 03:00 CEST".
std::string MomentText(std::time_t moment);

// "2026-03-29T03:00:00+02:00", for JSON.
std::string IsoText(std::time_t moment);

// Reads "sun 02:30": the next moment with that day and time. If daylight saving skips that hour, it
// is the moment a week later. Throws Failure with kWrongUsage.
std::time_t ParseComingMoment(const std::string &text, std::time_t now);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_MOMENT_HPP
