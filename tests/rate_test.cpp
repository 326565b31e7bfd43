// Rates and sizes as an administrator types them, and as the tool shows them.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "command.hpp"
#include "model/rate.hpp"

namespace tool {
namespace {

TEST(Rate, IsReadInItsUnit)
{
    struct Row {
        const char *text;
        std::uint64_t kBps;
        bool isRounded;
    };
    const std::vector<Row> rows = {{"1K", 1, false},
                                   {"512K", 512, false},
                                   {"10M", 10240, false},
                                   {"2G", 2 * 1024 * 1024, false},
                                   {"1T", 1024 * 1024 * 1024, false},
                                   {"10MiB", 10240, false},
                                   {"10 MiB/s", 10240, false},
                                   {"10m", 10240, false},
                                   {"1.5M", 1536, false},
                                   {"0.5M", 512, false},
                                   {"1.50000000000000000000000M", 1536, false},
                                   {"0.3M", 307, true},
                                   {"1.0009765625M", 1025, false},
                                   {"500KB", 488, true},
                                   {"10MB", 9765, true},
                                   {"1024KB", 1000, false},
                                   {"1.024MB/s", 1000, false},
                                   {"1GB", 976562, true},
                                   {"800kbit", 97, true},
                                   {"8.192Mbit", 1000, false},
                                   {"1gbit/s", 122070, true},
                                   {"007M", 7168, false},
                                   {"unlimited", 0, false},
                                   {"9007199254740991K", 9007199254740991, false}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        const Rate rate = ParseRate(row.text);
        EXPECT_EQ(rate.kBps, row.kBps);
        EXPECT_EQ(!rate.note.empty(), row.isRounded) << rate.note;
    }
}

TEST(Rate, IsRefusedWithTheRightFormWhenItCanBeMisread)
{
    const std::vector<std::string> texts = {
        "",      "10",    "-5M",  "+5M",   "M",     ".5M",       "5.M",        "1,5M",
        "1e3M",  "0x10M", " 5M",  "5M ",   "5  M",  "5Mbps",     "10mb",       "10Kb",
        "0",     "0K",    "0.5K", "1KB",   "8kbit", "0.0009M",   "5M/s/s",     "5M/h",
        "1.2.3", "inf",   "nan",  "10bit", "/s",    "5\xC2\xB5", "unlimited/s"};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        try {
            const Rate rate = ParseRate(text);
            FAIL() << "read as " << rate.kBps;
        } catch (const Failure &failure) {
            EXPECT_EQ(failure.status(), kWrongUsage);
            EXPECT_NE(std::string(failure.what()).find("1.5M"), std::string::npos);
        }
    }
}

TEST(Rate, ThatOverflowsIsRefusedAndTheLargestIsNot)
{
    // Bytes per second have to fit 63 bits.
    EXPECT_EQ(ParseRate("9007199254740991K").kBps, 9007199254740991U);
    for (const char *text : {"9007199254740992K", "18446744073709551615K", "18446744073709551616K",
                             "99999999999999T", "340282366920938463463374607431768211456G"}) {
        SCOPED_TRACE(text);
        EXPECT_THROW(ParseRate(text), Failure);
    }
}

TEST(Size, IsReadInBytes)
{
    EXPECT_EQ(ParseSize("0"), 0U);
    EXPECT_EQ(ParseSize("123456789"), 123456789U);
    EXPECT_EQ(ParseSize("64B"), 64U);
    EXPECT_EQ(ParseSize("1.5K"), 1536U);
    EXPECT_EQ(ParseSize("2T"), 2ULL << 40);
    EXPECT_EQ(ParseSize("10MB"), 10'000'000U);
    EXPECT_EQ(ParseSize("9223372036854775807"), 9223372036854775807U);
    for (const char *text : {"", "-1", "1.5", "1.5B", "8mbit", "1Mb", "unlimited", "10M/s",
                             "9223372036854775808", "8388608T"}) {
        SCOPED_TRACE(text);
        EXPECT_THROW(ParseSize(text), Failure);
    }
}

TEST(Rate, IsShownExactly)
{
    EXPECT_EQ(FormatRate(0), "unlimited");
    EXPECT_EQ(FormatRate(1), "1 KiB/s");
    EXPECT_EQ(FormatRate(1000), "1000 KiB/s");
    EXPECT_EQ(FormatRate(1500), "1500 KiB/s");
    EXPECT_EQ(FormatRate(1536), "1.5 MiB/s");
    EXPECT_EQ(FormatRate(1280), "1.25 MiB/s");
    EXPECT_EQ(FormatRate(10240), "10 MiB/s");
    EXPECT_EQ(FormatRate(1024 * 1024), "1 GiB/s");
    EXPECT_EQ(FormatRate(9765), "9765 KiB/s");
}

TEST(Rate, ThatIsShownReadsBackAsItself)
{
    for (std::uint64_t kBps = 0; kBps < 3'000'000; kBps += kBps < 5000 ? 1 : 997) {
        const Rate rate = ParseRate(FormatRate(kBps));
        ASSERT_EQ(rate.kBps, kBps);
        ASSERT_EQ(rate.note, "");
    }
}

TEST(Speed, IsShownInThreeDigits)
{
    EXPECT_EQ(FormatSpeed(0), "0 B/s");
    EXPECT_EQ(FormatAllowedSpeed(0), "unlimited");
    EXPECT_EQ(FormatSpeed(1023), "1023 B/s");
    EXPECT_EQ(FormatSpeed(1024), "1.00 KiB/s");
    EXPECT_EQ(FormatSpeed(10 * 1024 * 1024), "10.0 MiB/s");
    EXPECT_EQ(FormatSpeed(10 * 1024 * 1024 - 1), "10.0 MiB/s");
    EXPECT_EQ(FormatSpeed(1024 * 1024 - 1), "1.00 MiB/s");
    EXPECT_EQ(FormatSpeed(102 * 1024), "102 KiB/s");
    EXPECT_EQ(FormatBytes(UINT64_MAX), "16.0 EiB");
}

TEST(Progress, IsShownAsAPercentage)
{
    EXPECT_EQ(FormatProgress(0), "0.0 %");
    EXPECT_EQ(FormatProgress(4259), "42.5 %");
    EXPECT_EQ(FormatProgress(10000), "100.0 %");
}

} // namespace
} // namespace tool
