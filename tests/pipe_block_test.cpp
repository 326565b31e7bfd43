// The arithmetic by which a piped transfer keeps its time, alone and among others that follow the
// same arithmetic.
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "pipe/block.hpp"

namespace {

using namespace tool;

constexpr std::uint64_t kMiB = 1 << 20;

TEST(BlockTime, FollowsTheSharersAndTheLibrarysWorkWithinItsBounds)
{
    const struct {
        std::int64_t workUs;
        std::uint32_t transfers;
        std::int64_t expectedUs;
        std::int64_t processorUs = 0;
    } rows[] = {
        {0, 1, 30'000},
        {150, 1, 30'000, 150},
        {150, 8, 32'000, 150},
        {150, 32, 128'000, 150},
        {150, 50, 200'000, 150},
        {150, 4'000'000'000U, 200'000},
        {201, 1, 60'000},
        {1'000, 1, 150'000},
        {10'000'000, 1, 4'980'000},
        {600, 1'000, 1'200'000, 600},
        {150, 1'000, 200'000, 90},
        {6'000, 10'000, 5'000'000, 6'000},
        {0, 4'000'000'000U, 5'000'000, INT64_MAX},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.workUs << " us, " << row.transfers << " sharing");
        EXPECT_EQ(BlockTimeUs(row.workUs, row.processorUs, row.transfers), row.expectedUs);
    }
    EXPECT_EQ(PieceTimeUs(1), kPieceUs);
    EXPECT_EQ(PieceTimeUs(500), 100'000);
    EXPECT_EQ(PieceTimeUs(4'000'000'000U), 200'000);
}

TEST(BlockTime, AFewCallsThatWaitedForTheProcessorDoNotLengthenTheBlocks)
{
    WorkEstimate work;
    for (int i = 0; i < 400; ++i)
        work.Add(i % 4 == 0 ? 9'000 : 150);
    EXPECT_LT(work.Us(), 250);
    for (int i = 0; i < 100; ++i)
        work.Add(2'000);
    EXPECT_NEAR(static_cast<double>(work.Us()), 2'000, 150);

    ProcessorEstimate processor;
    processor.Add(600);
    EXPECT_EQ(processor.Us(), 600) << "a thousand that begin together know it at once";
    for (int i = 0; i < 50; ++i)
        processor.Add(300);
    EXPECT_NEAR(static_cast<double>(processor.Us()), 300, 10);
}

TEST(Bytes, TheSmallestSpeedStillMovesAndTheLargestDoesNotOverflow)
{
    EXPECT_EQ(BytesIn(kPieceUs, 1), 1U);
    EXPECT_EQ(BytesIn(kPieceUs, UINT64_MAX), 553'402'322'211'286'548U);
    EXPECT_EQ(BytesIn(2'000'000, UINT64_MAX), UINT64_MAX);
    EXPECT_EQ(DurationUs(1, 3), 333'334);
    EXPECT_EQ(DurationUs(UINT64_MAX, 1), INT64_MAX / 2);
}

TEST(Ledger, WhatLateWakeUpsLoseIsMadeGoodAndTheMeanIsExact)
{
    Ledger ledger;
    ledger.Start(0);
    std::int64_t now = 0;
    const std::uint64_t block = BytesIn(kPieceUs, kMiB);
    for (int i = 0; i < 1'000; ++i) {
        now = ledger.DueUs(block, kMiB) + 300 + i % 7 * 100;
        EXPECT_EQ(ledger.Settle(block, kMiB, 0, now, kPieceUs), DurationUs(block, kMiB));
    }
    EXPECT_NEAR(static_cast<double>(now), 1'000.0 * kPieceUs, 1'500);
}

TEST(Ledger, AfterALongDelayNoMoreThanTheCreditIsMadeGoodAndSlowly)
{
    Ledger ledger;
    ledger.Start(0);
    const std::uint64_t block = BytesIn(kPieceUs, kMiB);
    const std::int64_t late = 10 * kMicrosPerSecond;
    EXPECT_EQ(ledger.Settle(block, kMiB, 0, late, kPieceUs), late - kPieceUs);
    std::int64_t now = late;
    std::int64_t gained = 0;
    for (int i = 0; i < 100; ++i) {
        const std::int64_t due = ledger.DueUs(block, kMiB);
        EXPECT_GE(due - now, kPieceUs - kPieceUs / 7 - 1);
        gained += kPieceUs - (due - now);
        now = due;
        ledger.Settle(block, kMiB, 0, now, kPieceUs);
    }
    EXPECT_NEAR(static_cast<double>(gained), kPieceUs, 150);
}

TEST(Ledger, AStalledInputGivesNoCredit)
{
    Ledger ledger;
    ledger.Start(0);
    const std::uint64_t block = BytesIn(kPieceUs, kMiB);
    const std::int64_t stalled = 400'000;
    EXPECT_EQ(ledger.Settle(block, kMiB, stalled, stalled + 200, kPieceUs), stalled);
    EXPECT_GE(ledger.DueUs(block, kMiB), stalled + kPieceUs - 2);
    // A wait that ended before the block was due costs nothing.
    ledger.Start(0);
    EXPECT_EQ(ledger.Settle(block, kMiB, kPieceUs / 2, kPieceUs + 200, kPieceUs),
              DurationUs(block, kMiB));
}

TEST(Pace, AFallCountsAtOnceARiseOnTheSecondLookAndInParts)
{
    Pace pace;
    const Sharing four = {.transfers = 4, .equalBps = 100};
    pace.Start(1'000);
    pace.Allow(400, four);
    EXPECT_EQ(pace.Bps(), 400U);
    pace.Allow(800, four); // one look may have met a neighbour's section on its way
    EXPECT_EQ(pace.Bps(), 400U);
    pace.Allow(800, four);
    EXPECT_EQ(pace.Bps(), 500U);
    pace.AllowAnew(1'500, four);
    EXPECT_EQ(pace.Bps(), 750U);
    pace.Allow(60, four);
    pace.Allow(2'000, four);
    EXPECT_EQ(pace.Bps(), 100U) << "the equal part is nobody else's";
    pace.Allow(80, four);
    EXPECT_EQ(pace.Bps(), 80U) << "never above what is allowed";
}

TEST(Pace, AmongHundredsNobodyKeepsWhatIsNoise)
{
    Pace pace;
    const Sharing crowd = {.transfers = 1'000, .equalBps = 100};
    pace.Start(500); // when they were fewer
    pace.Allow(500, crowd);
    EXPECT_EQ(pace.Bps(), 100U);
    for (int i = 0; i < 10; ++i)
        pace.Allow(1'100, crowd);
    EXPECT_EQ(pace.Bps(), 100U);
    for (int i = 0; i < 10; ++i)
        pace.Allow(1'200, crowd);
    EXPECT_GT(pace.Bps(), 105U) << "more than a hundredth of the limit is left over";
    pace.Allow(40, crowd);
    EXPECT_EQ(pace.Bps(), 40U);
}

// Transfers of one user under one rule, who all look before any of them reports: the worst case.
class Crowd {
public:
    Crowd(std::uint64_t rate, std::size_t count) : rate_(rate), reported_(count)
    {
        paces_.resize(count);
        for (Pace &pace : paces_)
            pace.Start(rate / count);
        Report();
    }

    void Leave() { paces_.pop_back(), reported_.pop_back(); }
    void SetRate(std::uint64_t rate) { rate_ = rate; }

    // Everybody's section but the one of `hidden` is seen.
    void Look(std::size_t hidden = SIZE_MAX)
    {
        const Sharing sharing = {static_cast<std::uint32_t>(paces_.size()), rate_ / paces_.size()};
        for (std::size_t i = 0; i < paces_.size(); ++i) {
            std::uint64_t others = 0;
            for (std::size_t j = 0; j < paces_.size(); ++j)
                if (j != i && j != hidden) others += reported_[j];
            const std::uint64_t left = others < rate_ ? rate_ - others : 0;
            paces_[i].Allow(std::max(left, rate_ / paces_.size()), sharing);
        }
        Report();
    }

    double SumOfRate() const
    {
        double sum = 0;
        for (const Pace &pace : paces_)
            sum += static_cast<double>(pace.Bps());
        return sum / static_cast<double>(rate_);
    }

private:
    // The library's own work makes what is reported up to a hundredth less than what was moved.
    void Report()
    {
        for (std::size_t i = 0; i < paces_.size(); ++i)
            reported_[i] = paces_[i].Bps() * (i % 2 == 0 ? 99 : 995) / (i % 2 == 0 ? 100 : 1'000);
    }

    std::uint64_t rate_;
    std::vector<Pace> paces_;
    std::vector<std::uint64_t> reported_;
};

TEST(Sharing, TheSumStaysAtTheLimitHoweverManyShareAndThoughASectionIsMissed)
{
    for (const std::size_t count : {1U, 2U, 8U, 32U, 100U}) {
        SCOPED_TRACE(count);
        Crowd crowd(10 * kMiB, count);
        for (int i = 0; i < 200; ++i) {
            const bool isMissed = i >= 150 && i % 3 == 0;
            crowd.Look(isMissed ? 2 : SIZE_MAX);
            ASSERT_GE(crowd.SumOfRate(), 0.999);
            ASSERT_LE(crowd.SumOfRate(), 1.0101);
        }
    }
}

TEST(Sharing, WhatOneLeavesIsTakenOnceAndSoon)
{
    Crowd crowd(10 * kMiB, 8);
    for (int i = 0; i < 10; ++i)
        crowd.Look();
    crowd.Leave();
    for (int i = 0; i < 4; ++i) {
        crowd.Look();
        EXPECT_LE(crowd.SumOfRate(), 1.0101);
    }
    EXPECT_GE(crowd.SumOfRate(), 0.99);
}

} // namespace
