// Rates as people write and read them. Files hold KB/s of 1024 bytes, transfers bytes per second,
// and 0 is unlimited in both. All arithmetic is exact and knows no locale.
#ifndef ZEVOBW_TOOL_MODEL_RATE_HPP
#define ZEVOBW_TOOL_MODEL_RATE_HPP

#include <cstdint>
#include <limits>
#include <string>

namespace tool {

inline constexpr std::uint64_t kBytesPerKB = 1024;

// Progress and shares are counted in ten-thousandths of this whole.
inline constexpr std::uint32_t kWhole = 10'000;

// Speeds pass through signed 64-bit arithmetic on their way to a sleep.
inline constexpr std::uint64_t kMaxRateKBps = std::numeric_limits<std::int64_t>::max() / 1024;

struct Rate {
    std::uint64_t kBps = 0; // KB/s of 1024 bytes, 0 unlimited
    std::string note;       // says so when the text was rounded down, else empty
};

// Reads a RATE: "512K", "1.5MiB/s" (1024), "500KB" (1000), "10mbit" (1000 bits), "unlimited".
// Throws Failure with kWrongUsage, whose message shows the right form.
Rate ParseRate(const std::string &text);

// Reads a SIZE in bytes: a bare number, or one with the units of a RATE except bits. Rounds down.
// Throws Failure with kWrongUsage.
std::uint64_t ParseSize(const std::string &text);

// The help text of every option that takes a RATE.
extern const char *const kRateHelp;

// A stored rate, exactly: "10 MiB/s", "1500 KiB/s"; 0 is "unlimited".
std::string FormatRate(std::uint64_t kBps);

// A number of bytes in three digits or so: "812 B", "1.50 MiB", "97.3 MiB".
std::string FormatBytes(std::uint64_t bytes);

// A measured speed: "1.50 MiB/s"; 0 is "0 B/s".
std::string FormatSpeed(std::uint64_t bytesPerSecond);

// An allowed speed: as FormatSpeed(), but 0 is "unlimited".
std::string FormatAllowedSpeed(std::uint64_t bytesPerSecond);

// A time in seconds: "0:42", "1:02:03".
std::string FormatDuration(std::uint64_t seconds);

// Ten-thousandths as a percentage: "42.5 %".
std::string FormatProgress(std::uint32_t tenThousandths);

} // namespace tool

#endif // ZEVOBW_TOOL_MODEL_RATE_HPP
