// Rates, sizes and speeds as text. A decimal number is kept as an integer and a power of ten, so
// that 1.5M is exactly 1536 KB/s.
#include "model/rate.hpp"

#include <algorithm>
#include <array>
#include <limits>
#include <regex>
#include <string_view>

#include "failure.hpp"
#include "model/number.hpp"

namespace tool {

const char *const kRateHelp =
    "A RATE is a number with a unit: 512K, 10M, 1.5M, 2G (or KiB, MiB, GiB) count\n"
    "1024 bytes per second; 500KB, 10MB, 1GB count 1000 bytes; 800kbit, 10mbit, 1gbit\n"
    "count 1000 bits; 'unlimited' is no limit. Rates are kept in whole KiB/s: what does\n"
    "not divide is rounded down.\n"
    "Upload always means from the client to this server, download from this server to\n"
    "the client.";

namespace {

using Wide = unsigned __int128;

constexpr std::uint64_t kBitsPerByte = 8;
constexpr std::size_t kLongestText = 100; // the pattern's depth grows with the text
constexpr std::size_t kMaxDecimals = 18;  // 10^18 still fits 64 bits
// Speeds pass through signed 64-bit arithmetic on their way to a sleep.
constexpr std::uint64_t kMaxBytes = std::numeric_limits<std::int64_t>::max();

struct Unit {
    std::string_view name; // in any case
    std::uint64_t bits;
    bool countsBits = false; // for rates only
};

// clang-format off
constexpr std::array kUnits = {
    Unit{"K",  kBitsPerByte << 10},   Unit{"KiB", kBitsPerByte << 10},
    Unit{"M",  kBitsPerByte << 20},   Unit{"MiB", kBitsPerByte << 20},
    Unit{"G",  kBitsPerByte << 30},   Unit{"GiB", kBitsPerByte << 30},
    Unit{"T",  kBitsPerByte << 40},   Unit{"TiB", kBitsPerByte << 40},
    Unit{"KB", kBitsPerByte * 1000},  Unit{"kbit", 1000, true},
    Unit{"MB", kBitsPerByte * 1000 * 1000},               Unit{"mbit", 1000 * 1000, true},
    Unit{"GB", kBitsPerByte * 1000 * 1000 * 1000},        Unit{"gbit", 1000 * 1000 * 1000, true},
    Unit{"TB", kBitsPerByte * 1000 * 1000 * 1000 * 1000},
};
// clang-format on

enum class Fault { kForm, kTooLarge, kAmbiguous };

bool SameWord(std::string_view a, std::string_view b)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : +c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

const Unit *FindUnit(std::string_view name)
{
    for (const Unit &unit : kUnits)
        if (SameWord(name, unit.name)) return &unit;
    return nullptr;
}

// mantissa / scale of the unit.
struct Quantity {
    std::uint64_t mantissa = 0;
    std::uint64_t scale = 1;
    std::string unit;

    explicit Quantity(const std::string &text)
    {
        static const std::regex kForm("([0-9]+)(?:\\.([0-9]*?[1-9]|0)0*)? ?([A-Za-z]*)");
        std::smatch parts;
        if (text.size() > kLongestText || !std::regex_match(text, parts, kForm)) throw Fault::kForm;
        const std::string decimals = parts[2] == "0" ? "" : parts[2].str();
        if (decimals.size() > kMaxDecimals) throw Fault::kForm;
        const auto digits = ReadNumber<std::uint64_t>(parts[1].str() + decimals);
        if (!digits) throw Fault::kTooLarge;
        mantissa = *digits;
        for (std::size_t i = 0; i < decimals.size(); ++i)
            scale *= 10;
        unit = parts[3];
        // "Mb" means a megabit to some people and a megabyte to others.
        if (unit.size() == 2 && unit[1] == 'b' && FindUnit(unit) != nullptr)
            throw Fault::kAmbiguous;
    }

    // In units of unitBits, rounded down. exact: whether nothing was cut off.
    std::uint64_t Convert(std::uint64_t bits, std::uint64_t unitBits, bool &exact) const
    {
        const Wide dividend = Wide{mantissa} * bits;
        const Wide divisor = Wide{scale} * unitBits;
        if (dividend / divisor > Wide{kMaxBytes} * kBitsPerByte / unitBits) throw Fault::kTooLarge;
        exact = dividend % divisor == 0;
        return static_cast<std::uint64_t>(dividend / divisor);
    }
};

[[noreturn]] void Refuse(const std::string &text, const std::string &why, const char *right)
{
    throw Failure(kWrongUsage, "\"" + text + "\" " + why + ": " + right);
}

[[noreturn]] void Refuse(const std::string &text, Fault fault, const std::string &kind,
                         const char *right)
{
    Refuse(text,
           fault == Fault::kForm       ? "is not a " + kind
           : fault == Fault::kTooLarge ? "is too large for a " + kind
                                       : "can mean bits or bytes",
           right);
}

constexpr const char *kRightRate = "write a number and a unit, such as 512K, 1.5M, 2G (multiples "
                                   "of 1024 bytes/s), 10MB, 10mbit, or 'unlimited'";
constexpr const char *kRightSize = "write bytes, or a number and a unit, such as 512K, 1.5M, 10MB";

// The number with 0 to 2 decimals.
std::string Decimal(std::uint64_t hundredths, int decimals)
{
    std::string text = std::to_string(hundredths / 100);
    if (decimals == 0) return text;
    const std::string rest = std::to_string(100 + hundredths % 100).substr(1);
    return text + "." + rest.substr(0, static_cast<std::size_t>(decimals));
}

// About three digits, rounded to nearest: 9.87, 98.7, 987.
std::string ThreeDigits(Wide value, std::uint64_t unit)
{
    const auto rounded = [&](std::uint64_t steps) {
        return static_cast<std::uint64_t>((value * steps + unit / 2) / unit);
    };
    if (rounded(100) < 1000) return Decimal(rounded(100), 2);
    if (rounded(10) < 1000) return Decimal(rounded(10) * 10, 1);
    return Decimal(rounded(1) * 100, 0);
}

constexpr std::array<const char *, 7> kByteUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

} // namespace

Rate ParseRate(const std::string &text)
try {
    if (SameWord(text, "unlimited")) return {};
    const Quantity quantity(text.ends_with("/s") ? text.substr(0, text.size() - 2) : text);
    if (quantity.unit.empty()) Refuse(text, "has no unit", kRightRate);
    const Unit *const unit = FindUnit(quantity.unit);
    if (unit == nullptr) throw Fault::kForm;
    Rate rate;
    bool exact = true;
    rate.kBps = quantity.Convert(unit->bits, kBytesPerKB * kBitsPerByte, exact);
    if (rate.kBps == 0)
        Refuse(text, "is below 1 KiB/s, the smallest rate ('unlimited' is no limit)", kRightRate);
    if (!exact)
        rate.note = text + " is not a whole number of KiB/s: rounded down to " +
                    std::to_string(rate.kBps) + " KiB/s";
    return rate;
} catch (Fault fault) {
    Refuse(text, fault, "rate", kRightRate);
}

std::uint64_t ParseSize(const std::string &text)
try {
    constexpr Unit kBytes{"B", kBitsPerByte};
    const Quantity quantity(text);
    const bool bare = quantity.unit.empty() || SameWord(quantity.unit, kBytes.name);
    const Unit *const unit = bare ? &kBytes : FindUnit(quantity.unit);
    if (unit == nullptr || unit->countsBits || (bare && quantity.scale != 1)) throw Fault::kForm;
    bool exact = true; // bytes are never split: what is left over counts for nothing
    return quantity.Convert(unit->bits, kBitsPerByte, exact);
} catch (Fault fault) {
    Refuse(text, fault, "size", kRightSize);
}

std::string FormatRate(std::uint64_t kBps)
{
    if (kBps == 0) return "unlimited";
    if (kBps > UINT64_MAX / 100)
        return std::to_string(kBps) + " KiB/s"; // hundredths would overflow
    // The largest unit in which the rate is a whole number of quarters: two decimals are exact
    // then.
    std::size_t unit = 1;
    std::uint64_t size = 1;
    while (unit + 1 < kByteUnits.size() && kBps >= size * 1024 && kBps % (size * 256) == 0) {
        size *= 1024;
        ++unit;
    }
    const auto hundredths = static_cast<std::uint64_t>(Wide{kBps} * 100 / size);
    const int decimals = hundredths % 100 == 0 ? 0 : hundredths % 10 == 0 ? 1 : 2;
    return Decimal(hundredths, decimals) + " " + kByteUnits[unit] + "/s";
}

std::string FormatBytes(std::uint64_t bytes)
{
    if (bytes < 1024) return std::to_string(bytes) + " B";
    std::size_t unit = 1;
    std::uint64_t size = 1024;
    // A number that rounds to 1024 of a unit is 1 of the next unit.
    while (unit + 1 < kByteUnits.size() && (Wide{bytes} + size / 2) / size >= 1024) {
        size *= 1024;
        ++unit;
    }
    return ThreeDigits(bytes, size) + " " + kByteUnits[unit];
}

std::string FormatSpeed(std::uint64_t bytesPerSecond)
{
    return FormatBytes(bytesPerSecond) + "/s";
}

std::string FormatAllowedSpeed(std::uint64_t bytesPerSecond)
{
    return bytesPerSecond == 0 ? "unlimited" : FormatSpeed(bytesPerSecond);
}

std::string FormatDuration(std::uint64_t seconds)
{
    const auto twoDigits = [](std::uint64_t number) {
        return std::to_string(100 + number % 60).substr(1);
    };
    const std::uint64_t minutes = seconds / 60;
    if (minutes < 60) return std::to_string(minutes) + ":" + twoDigits(seconds);
    return std::to_string(minutes / 60) + ":" + twoDigits(minutes) + ":" + twoDigits(seconds);
}

std::string FormatProgress(std::uint32_t tenThousandths)
{
    return Decimal(tenThousandths, 1) + " %";
}

} // namespace tool
