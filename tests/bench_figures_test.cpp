// What the measuring programs make of what they saw: figures that everybody relies on and nobody can
// check by looking at them, and whether ours is called worse when it is.
#include <gtest/gtest.h>

#include <functional>

#include "field.hpp"
#include "peer_table.hpp"

using namespace bench;

namespace {

// 1000 bytes each millisecond from one moment to another.
Arrivals Even(std::int64_t from, std::int64_t to)
{
    Arrivals arrivals;
    for (std::int64_t at = from; at < to; at += 1'000)
        arrivals.push_back({at, 1'000});
    return arrivals;
}

Flow FlowOf(const Arrivals &arrivals, std::int64_t to)
{
    Flow flow(0, to);
    flow.Add(arrivals);
    flow.Finish();
    return flow;
}

TEST(Flow, ABurstCountsInEveryWindowThatHoldsIt)
{
    Arrivals arrivals = Even(0, 3 * kSecond);
    arrivals.push_back({kSecond, 100'000});
    const Flow flow = FlowOf(arrivals, 3 * kSecond);
    EXPECT_NEAR(flow.Most(0, 3 * kSecond, kSecond / 10), 2e6, 1);
    EXPECT_NEAR(flow.Most(0, 3 * kSecond, kSecond), 1.1e6, 1);
    EXPECT_NEAR(flow.Most(2 * kSecond, 3 * kSecond, kSecond / 10), 1e6, 1);
    EXPECT_NEAR(flow.Deviation(0, 3 * kSecond, kSecond, 1e6), 0.1, 1e-6);
}

TEST(Flow, IsSettledOnceNoWindowIsOffAnyMore)
{
    Arrivals arrivals = Even(0, 3 * kSecond);
    arrivals.push_back({kSecond, 1'000'000});
    const Flow flow = FlowOf(arrivals, 3 * kSecond);
    EXPECT_NEAR(flow.SettledAfter(0, 3 * kSecond, kSecond / 2, 1e6, 0.1), 1.001, 1e-6);
    EXPECT_EQ(flow.SettledAfter(2 * kSecond, 3 * kSecond, kSecond / 2, 1e6, 0.1), 0);
    // Never: the last window of all is off.
    EXPECT_GE(flow.SettledAfter(0, 3 * kSecond, kSecond / 2, 2e6, 0.1), 2.5);
}

TEST(MeanSpeed, GoesFromBlockToBlockAndNotFromMomentToMoment)
{
    // 30 kB each 300 ms: 100 kB/s, though a second holds three or four of them.
    Arrivals arrivals;
    for (std::int64_t at = 0; at < 4 * kSecond; at += 300'000)
        arrivals.push_back({at, 30'000});
    EXPECT_NEAR(MeanSpeed(arrivals, kSecond, 3 * kSecond), 1e5, 1);
    EXPECT_EQ(MeanSpeed(arrivals, kSecond, 5 * kSecond), 0);
}

TEST(Shares, JainsIndexFallsWithUnfairnessAndPausesAreFound)
{
    std::deque<Stream> streams(2);
    streams[0].arrivals = Even(0, 4 * kSecond);
    streams[1].arrivals = Even(0, 2 * kSecond);
    EXPECT_NEAR(JainIndex(streams, 0, 2 * kSecond), 1, 1e-9);
    EXPECT_NEAR(JainIndex(streams, 2 * kSecond, 4 * kSecond), 0.5, 1e-9);
    EXPECT_NEAR(LongestPause(streams, kSecond), 0.5, 0.002);
}

AloneRow Alone(const char *peer)
{
    AloneRow row;
    row.peer = peer;
    row.limit = "100 MiB/s";
    row.off = 0.002;
    row.most100ms = 1.2;
    row.mostSecond = 1.02;
    row.processor = 0.1;
    return row;
}

SharedRow Shared(const char *peer)
{
    SharedRow row;
    row.peer = peer;
    row.processes = 8;
    row.sum = 0.99;
    row.jain = 0.995;
    row.settled = 0.1;
    row.still = 0.1;
    row.burst100ms = 1.2;
    row.processor = 0.1;
    return row;
}

TEST(PeerTable, OursIsCalledWorseWhereItIs)
{
    const struct {
        const char *what;
        std::function<void(AloneRow &, SharedRow &)> spoil;
        std::size_t worse;
    } rows[] = {
        {"as good", [](AloneRow &, SharedRow &) {}, 0},
        {"a little off", [](AloneRow &alone, SharedRow &) { alone.off = -0.0029; }, 0},
        {"off, below", [](AloneRow &alone, SharedRow &) { alone.off = -0.0031; }, 1},
        {"off, above", [](AloneRow &alone, SharedRow &) { alone.off = 0.0031; }, 1},
        {"peaks", [](AloneRow &alone, SharedRow &) { alone.most100ms = 1.21; }, 1},
        {"cost", [](AloneRow &alone, SharedRow &) { alone.processor = 0.2; }, 1},
        {"sum, beside both", [](AloneRow &, SharedRow &shared) { shared.sum = 1.02; }, 2},
        {"unfair, beside both", [](AloneRow &, SharedRow &shared) { shared.jain = 0.9; }, 2},
        {"still", [](AloneRow &, SharedRow &shared) { shared.still = 0.2; }, 1},
        {"burst", [](AloneRow &, SharedRow &shared) { shared.burst100ms = 1.3; }, 1},
        {"nothing with as many", [](AloneRow &, SharedRow &shared) { shared.processes = 2; }, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        PeerTable table = {{Alone(kOurs), Alone(kPv), Alone("curl --limit-rate")},
                           {Shared(kOurs), Shared(kShaper), Shared("HTB class")}};
        row.spoil(table.alone[0], table.shared[0]);
        EXPECT_EQ(table.Worse().size(), row.worse);
        EXPECT_TRUE(table.Missing().empty());
    }
}

TEST(PeerTable, WhoDoesNotReachTheLimitHasNoPeaksToCompare)
{
    PeerTable table = {{Alone(kOurs), Alone(kPv)}, {}};
    table.alone[0].most100ms = 1.3;
    table.alone[1].off = -0.04;
    EXPECT_EQ(table.Worse().size(), 1U);
    table.alone[1].off = -0.4;
    EXPECT_TRUE(table.Worse().empty());
}

TEST(PeerTable, WhatWasNotMeasuredIsMissingIfOursAndElseNotCompared)
{
    PeerTable table = {{Alone(kOurs), Alone(kPv)}, {Shared(kOurs), Shared(kShaper)}};
    table.alone[0].most100ms = 9;
    table.shared[0].burst100ms = 9;
    table.alone[1].why = table.shared[1].why = "is not installed";
    EXPECT_TRUE(table.Worse().empty());
    EXPECT_TRUE(table.Missing().empty());
    table.alone[0].why = table.shared[0].why = "ended early";
    EXPECT_EQ(table.Missing().size(), 2U);
}

} // namespace
