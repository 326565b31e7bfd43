// What one rule, and all rules together, leave one transfer; and the arithmetic under it.
#include "library_box.hpp"

#include <limits>

#include <unistd.h>

using namespace standins;
using namespace testing;

namespace {

constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();
constexpr int64_t kLongest = std::numeric_limits<int64_t>::max();

// ---- arithmetic ----

TEST(Arithmetic, ASpeedIsBytesByTimeAndNoTimeIsAMicrosecond)
{
    EXPECT_EQ(ZEVOBandwidthSpeedEstimate(1'000'000, 65536), 65536U);
    EXPECT_EQ(ZEVOBandwidthSpeedEstimate(3'000'000, 10), 3U);
    EXPECT_EQ(ZEVOBandwidthSpeedEstimate(0, 65536), 65'536'000'000U);
    EXPECT_EQ(ZEVOBandwidthSpeedEstimate(-5, 65536), 65'536'000'000U);
    standins::SetClock(1'700'000'000'123'456);
    EXPECT_EQ(ZEVOBandwidthCurrTimeGet(), 1'700'000'000'123'456U);
    standins::Reset();
}

TEST(Arithmetic, ASleepMakesUpTheDifferenceAndIsNeverNegative)
{
    const struct {
        int64_t elapsedUs;
        uint64_t bytes, speedBps;
        int64_t sleepUs;
    } kRows[] = {
        {200'000, 65536, 65536, 800'000},
        {2'000'000, 65536, 65536, 0},
        {0, 65536, 65536, 999'999},
        {-9, 65536, 65536, 999'999},
        {0, kMost, 0, 0},
        {1, 1, 3, 333'332},
        {1, 0, 65536, 0},
        {1, kMost / 2, kMost / 2, 0}, // the product saturates
        {1, kMost / 2, 1, kLongest - 1},
        {1, kMost / 2 + 1, 1, 0}, // a negative count, as a signed number
        {1, kMost, 1, 0},
        {kLongest, 5, 1, 0},
    };
    for (const auto &row : kRows)
        EXPECT_EQ(ZEVOBandwidthSleepEstimate(row.elapsedUs, row.bytes, row.speedBps), row.sleepUs)
            << row.elapsedUs << " " << row.bytes << " " << row.speedBps;
}

TEST(Arithmetic, ZeroIsAboveEverySpeed)
{
    const struct {
        uint64_t a, b;
        int less, larger;
        uint64_t sum;
    } kRows[] = {
        {0, 5, 0, 1, 0}, {5, 0, 1, 0, 0}, {0, 0, 0, 0, 0},     {7, 7, 0, 0, 14},
        {3, 4, 1, 0, 7}, {4, 3, 0, 1, 7}, {kMost, 0, 1, 0, 0}, {kMost, 1, 0, 1, 0},
    };
    for (const auto &row : kRows) {
        EXPECT_EQ(ZEVOBandwidthIsLessThan(row.a, row.b), row.less) << row.a << " " << row.b;
        EXPECT_EQ(ZEVOBandwidthIsLargerThan(row.a, row.b), row.larger) << row.a << " " << row.b;
        EXPECT_EQ(ZEVOBandwidthSum(row.a, row.b), row.sum) << row.a << " " << row.b;
    }
}

// ---- one rule ----

constexpr int kMe = 100; // the calling process, of alice
constexpr uint64_t kRateKBps = 1000;
constexpr uint64_t kRateBps = 1'024'000;

class OneRule : public LibraryTest {
protected:
    uint64_t Estimate(const std::vector<FiledTransfer> &others, int32_t transferType = 1)
    {
        std::string text;
        for (const FiledTransfer &other : others)
            text += other.Text();
        box.Write("group-3001", text);
        uint64_t speed = 99;
        EXPECT_EQ(ZEVOBandwidthExpectSpeedEstimate(kAlice, &rule, transferType, &speed, kMe), 0);
        return speed;
    }

    ZEVO_BANDWIDTH_CONF rule = Limit(ZEVO_BW_OWNER_GROUP, kStaff, kRateKBps).conf;
};

TEST_F(OneRule, ATransferHasWhatTheOthersLeaveAndNeverLessThanAnEqualShare)
{
    // pid, uid, speed, active; from the top of the file
    const struct {
        const char *szWhat;
        std::vector<FiledTransfer> others;
        uint64_t speed;
    } kRows[] = {
        {"alone", {}, kRateBps},
        {"one slow user", {{1, kBob, 100'000}}, 924'000},
        {"one fast user", {{1, kBob, 800'000}}, 512'000},
        {"two of my own", {{1, kAlice, 500'000}, {2, kAlice, 500'000}}, 341'333},
        {"two of my own, slow", {{1, kAlice, 10}, {2, kAlice, 20}}, 1'023'970},
        {"two of mine, one of bob's",
         {{1, kAlice, kRateBps}, {2, kBob, 9}, {3, kAlice, 9}},
         170'666},
        {"two of bob's are one user", {{1, kBob, kRateBps}, {2, kBob, kRateBps}}, 512'000},
        {"bob, carol, bob", {{1, kBob, kRateBps}, {2, kCarol, 1}, {3, kBob, 1}}, 341'333},
        {"faster than the rate", {{1, kBob, kMost}, {2, kBob, kMost}}, 512'000},
        {"my process", {{kMe, kAlice, 800'000}, {1, kBob, 100'000}}, 924'000},
        {"stopped", {{1, kBob, 800'000, 0}}, kRateBps},
        // The list begins with the last of the file: there a stopped record hides its user,
        // with whom nothing is shared then, though his speed is taken off.
        {"bob's last is stopped", {{1, kBob, kRateBps}, {2, kBob, 5, 0}}, kRateBps},
        {"bob's first is stopped", {{1, kBob, 5, 0}, {2, kBob, kRateBps}}, 512'000},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWhat);
        EXPECT_EQ(Estimate(row.others), row.speed);
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(OneRule, AShareThatIsRoundedDownToNothingIsNotUnlimited)
{
    rule.currentUploadRate = 1;
    std::vector<FiledTransfer> others;
    for (uint32_t i = 0; i < 1024; ++i)
        others.push_back({static_cast<pid_t>(10'000 + i), 10'000 + i, 1'000});
    EXPECT_EQ(Estimate(others), 1U);
}

TEST_F(OneRule, OnlyTransfersOfItsProtocolAndDirectionCount)
{
    FiledTransfer other{1, kBob, kRateBps};
    other.protocol = "rsync";
    EXPECT_EQ(Estimate({other}), kRateBps);
    other.protocol = "ftp";
    other.transfer = "download";
    EXPECT_EQ(Estimate({other}), kRateBps);
    rule.currentDownloadRate = 2;
    EXPECT_EQ(Estimate({other}, 2), 1024U);

    standins::Reset();
    rule.currentUploadRate = 0;
    uint64_t speed = 99;
    EXPECT_EQ(ZEVOBandwidthExpectSpeedEstimate(kAlice, &rule, 1, &speed, kMe), 0);
    EXPECT_EQ(speed, 0U);
    EXPECT_EQ(standins::Count(Call::Open), 0) << "without a rate none is looked for";
}

TEST_F(OneRule, AFailureLeavesTheResultAlone)
{
    uint64_t speed = 99;
    rule.ownerType = 9;
    ExpectFails(ZEVOBandwidthExpectSpeedEstimate(1, &rule, 1, &speed, 1), "expect_speed_estimate",
                "ZEVOBandwidthStatusGetAll failed. id:[3001] [0x0600 bandwidth_enum.cpp:#]");
    EXPECT_EQ(speed, 99U);
}

// ---- all rules ----

constexpr uint64_t kNone = kMost; // no such rule

class AllRules : public LibraryTest {
protected:
    // The user's rule and the groups', in KB/s.
    void SetRates(uint64_t user, const std::vector<uint64_t> &groups)
    {
        limits.clear();
        if (user != kNone) limits.push_back(Limit(ZEVO_BW_OWNER_USER, kAlice, user));
        for (const uint64_t group : groups)
            limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, 3001, group));
        config.pLimit = limits.data();
        config.iLimit = static_cast<int32_t>(limits.size());
        config.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
    }
    // In KB/s.
    uint64_t Estimate(int32_t countTransfers = 0)
    {
        uint64_t speed = 77;
        EXPECT_EQ(ZEVOBandwidthExpectSpeedEstimateByPolicy(1, &config, &speed, countTransfers), 0);
        return speed / 1024;
    }
    std::vector<uint64_t> Weights() const
    {
        std::vector<uint64_t> weights;
        for (const ZEVO_BANDWIDTH_LIMIT &limit : limits)
            weights.push_back(limit.occupyWeight);
        return weights;
    }

    std::vector<ZEVO_BANDWIDTH_LIMIT> limits;
    ZEVO_BANDWIDTH_CONFIG config = {};
};

TEST_F(AllRules, TheUserGroupPolicyCombinesTheUserWithTheGroups)
{
    const struct {
        int32_t policy;
        uint64_t neither, user, group;                    // 500 alone, 300 alone
        uint64_t slowUser, fastUser, freeUser, freeGroup; // 300+500, 500+300, 0+500, 300+0
    } kRows[] = {
        {ZEVO_BW_USER_GROUP_POLICY_USER_ONLY, 0, 500, 0, 300, 500, 0, 300},
        {ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY, 0, 0, 300, 500, 300, 500, 0},
        {ZEVO_BW_USER_GROUP_POLICY_USER_FIRST, 0, 500, 300, 300, 500, 0, 300},
        {ZEVO_BW_USER_GROUP_POLICY_GROUP_FIRST, 0, 500, 300, 500, 300, 500, 0},
        {ZEVO_BW_USER_GROUP_POLICY_MIN, 0, 500, 300, 300, 300, 500, 300},
        {ZEVO_BW_USER_GROUP_POLICY_MAX, 0, 500, 300, 500, 500, 0, 0},
        {ZEVO_BW_USER_GROUP_POLICY_SUM, 0, 500, 300, 800, 800, 0, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.policy);
        config.globalConf.userGroupPolicy = row.policy;
        const auto estimate = [&](uint64_t user, const std::vector<uint64_t> &groups) {
            SetRates(user, groups);
            return Estimate();
        };
        EXPECT_EQ(estimate(kNone, {}), row.neither);
        EXPECT_EQ(estimate(500, {}), row.user);
        EXPECT_EQ(estimate(kNone, {300}), row.group);
        EXPECT_EQ(estimate(300, {500}), row.slowUser);
        EXPECT_EQ(estimate(500, {300}), row.fastUser);
        EXPECT_EQ(estimate(0, {500}), row.freeUser);
        EXPECT_EQ(estimate(300, {0}), row.freeGroup);
        // Entries out of force are as good as none.
        SetRates(500, {300});
        limits[0].conf.currentState = limits[1].conf.currentState = ZEVO_BW_STATE_DISABLED;
        EXPECT_EQ(Estimate(), 0U);
        limits[1].conf.currentState = ZEVO_BW_STATE_NOT_EXISTED;
        EXPECT_EQ(Estimate(), row.group);
    }
}

TEST_F(AllRules, TheInterGroupPolicyCombinesTheGroups)
{
    const struct {
        std::vector<uint64_t> groups;
        uint64_t min, max, sum;
    } kRows[] = {
        {{300}, 300, 300, 300}, {{300, 200, 500}, 200, 500, 1000},
        {{0, 200}, 200, 0, 0},  {{200, 0, 300}, 200, 0, 0},
        {{0, 0}, 0, 0, 0},      {{7, 7}, 7, 7, 14},
    };
    config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY;
    for (const auto &row : kRows) {
        SCOPED_TRACE(testing::PrintToString(row.groups));
        SetRates(1, row.groups);
        config.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MIN;
        EXPECT_EQ(Estimate(), row.min);
        config.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
        EXPECT_EQ(Estimate(), row.max);
        config.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_SUM;
        EXPECT_EQ(Estimate(), row.sum);
    }
}

TEST_F(AllRules, TheOccupyPolicyChargesTheGroups)
{
    constexpr uint64_t kAll = 10000;
    const struct {
        int32_t policy;
        std::vector<uint64_t> groups, weights;
    } kRows[] = {
        {ZEVO_BW_OCCUPY_POLICY_NONE, {300, 0}, {0, 0}},
        {ZEVO_BW_OCCUPY_POLICY_ALL, {300, 0}, {kAll, kAll}},
        {ZEVO_BW_OCCUPY_POLICY_MIN, {300, 200, 200}, {0, kAll, 0}},
        {ZEVO_BW_OCCUPY_POLICY_MIN, {0, 0, 9}, {0, 0, kAll}},
        {ZEVO_BW_OCCUPY_POLICY_MIN, {0, 0}, {kAll, 0}},
        {ZEVO_BW_OCCUPY_POLICY_MAX, {300, 500, 500}, {0, kAll, 0}},
        {ZEVO_BW_OCCUPY_POLICY_MAX, {300, 0, 500, 0}, {0, kAll, 0, 0}},
        {ZEVO_BW_OCCUPY_POLICY_MAX, {5}, {kAll}},
        {ZEVO_BW_OCCUPY_POLICY_WEIGHTED, {100, 300}, {2500, 7500}},
        {ZEVO_BW_OCCUPY_POLICY_WEIGHTED, {1, 1, 1}, {3333, 3333, 3333}},
        {ZEVO_BW_OCCUPY_POLICY_WEIGHTED, {0, 300, 0}, {5000, 0, 5000}},
        {9, {100, 300}, {2500, 7500}}, // any other
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(std::to_string(row.policy) + testing::PrintToString(row.groups));
        SetRates(kNone, row.groups);
        config.globalConf.occupyPolicy = row.policy;
        (void)Estimate();
        EXPECT_EQ(Weights(), row.weights);
        // The user's own entry is none of it, whichever policy picks the speed, and no group is
        // charged by what it was before.
        SetRates(1, row.groups);
        for (ZEVO_BANDWIDTH_LIMIT &limit : limits)
            limit.occupyWeight = 77;
        config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_USER_ONLY;
        (void)Estimate();
        std::vector<uint64_t> withUser = row.weights;
        withUser.insert(withUser.begin(), 77);
        EXPECT_EQ(Weights(), withUser);
    }
}

TEST_F(AllRules, WeighingRunsOverGroupsOutOfForceToo)
{
    config.globalConf.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_WEIGHTED;
    SetRates(kNone, {100, 50, 300, 70});
    for (const size_t out : {size_t{1}, size_t{3}}) {
        limits[out].conf.currentState = ZEVO_BW_STATE_DISABLED;
        limits[out].occupyWeight = 77;
    }
    limits[1].maxSpeedBps = 0;           // as it was built
    limits[3].maxSpeedBps = 1024 * 800U; // as it was last in force
    (void)Estimate();
    EXPECT_THAT(Weights(), ElementsAre(2500, 0, 7500, 20000));
    limits[2].conf.currentUploadRate = 0;
    (void)Estimate();
    EXPECT_THAT(Weights(), ElementsAre(0, 10000, 10000, 20000)) << "kept beside an unlimited group";

    for (ZEVO_BANDWIDTH_LIMIT &limit : limits) {
        limit.conf.currentState = ZEVO_BW_STATE_DISABLED;
        limit.occupyWeight = 77;
    }
    EXPECT_EQ(Estimate(), 0U);
    EXPECT_THAT(Weights(), ElementsAre(77, 77, 77, 77)) << "no group in force changes nothing";
}

TEST_F(AllRules, OnlyACountOfOneSharesWithTheRunningTransfers)
{
    SetRates(500, {300});
    box.Write("user-2001", FiledTransfer{1, kAlice, 1024 * 400}.Text());
    box.Write("group-3001", FiledTransfer{1, kBob, 1024 * 100}.Text() +
                                FiledTransfer{::getpid(), kAlice, 1024 * 300}.Text());
    config.uid = kAlice;
    config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_SUM;
    EXPECT_EQ(Estimate(1), 250U + 200U);
    EXPECT_EQ(limits[0].maxSpeedBps, 1024 * 250U);
    EXPECT_EQ(limits[1].maxSpeedBps, 1024 * 200U);
    EXPECT_EQ(Estimate(2), 800U);
    EXPECT_EQ(limits[1].maxSpeedBps, 1024 * 300U);

    limits[1].conf.currentDownloadRate = 1;
    uint64_t speed = 0;
    EXPECT_EQ(ZEVOBandwidthExpectSpeedEstimateByPolicy(2, &config, &speed, 0), 0);
    EXPECT_EQ(speed, 0U) << "the user's download is free";
    EXPECT_EQ(limits[1].maxSpeedBps, 1024U);
}

TEST_F(AllRules, AFailureLeavesTheResultAlone)
{
    constexpr char kMine[] = "bandwidth_expect_speed_estimate_by_policy.cpp";
    const std::string mine = std::string(kMine) + ":# ";
    uint64_t speed = 77;
    const auto expectFailure = [&](const std::string &line) {
        VLIBCErrSetEx(1, "before", 1);
        EXPECT_EQ(ZEVOBandwidthExpectSpeedEstimateByPolicy(1, &config, &speed, 0), -1);
        EXPECT_EQ(speed, 77U);
        EXPECT_EQ(TakeLog(), Lines{mine + line});
        ExpectSlot(1, "before");
    };
    SetRates(kNone, {3, 4});
    config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_GROUP_ONLY;
    config.globalConf.interGroupPolicy = 3;
    expectFailure("unknown inter_group_policy [3] ");
    EXPECT_EQ(limits[0].maxSpeedBps, 3072U);
    limits[1].conf.currentState = ZEVO_BW_STATE_DISABLED;
    EXPECT_EQ(Estimate(), 3U) << "one group needs no policy";

    config.globalConf.userGroupPolicy = 7;
    expectFailure("unknown group policy [7] ");
    config.iLimit = -1;
    expectFailure("unknown group policy [7] ");
    config.iLimit = 0;
    EXPECT_EQ(Estimate(), 0U);
    config.iLimit = -1;
    config.globalConf.userGroupPolicy = 6;
    EXPECT_EQ(Estimate(), 0U) << "a failed resolution limits nothing";

    SetRates(kNone, {3});
    limits[0].conf.ownerType = 9;
    EXPECT_EQ(ZEVOBandwidthExpectSpeedEstimateByPolicy(1, &config, &speed, 1), -1);
    EXPECT_EQ(LastLine(),
              mine + "ZEVOBandwidthExpectSpeedEstimate failed. [0x0600 bandwidth_enum.cpp:#]");
}

} // namespace
