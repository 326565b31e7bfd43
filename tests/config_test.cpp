// Which rules bear on a user, and which of them are in force at a moment.
#include "library_box.hpp"

using namespace standins;
using testing::IsEmpty;

namespace {

constexpr char kEnabled[] = "state=enabled\nupload rate=1\n";

class EffectiveConfig : public LibraryTest {
protected:
    void TearDown() override
    {
        ZEVOBandwidthConfigFree(&config);
        EXPECT_EQ(config.pLimit, nullptr);
        EXPECT_EQ(config.iLimit, 0);
        LibraryTest::TearDown();
    }

    int Get(uint32_t uid = kAlice) { return ZEVOBandwidthConfigGet(uid, 4, &config); }

    // The owners of the entries, in their order: "u2001 g3001".
    std::string Owners() const
    {
        std::string owners;
        for (int32_t i = 0; i < config.iLimit; ++i) {
            const ZEVO_BANDWIDTH_CONF &rule = config.pLimit[i].conf;
            owners += (i == 0 ? "" : " ") + std::string(rule.ownerType == 1 ? "u" : "g") +
                      std::to_string(rule.id);
        }
        return owners;
    }

    ZEVO_BANDWIDTH_CONFIG config = {};
};

TEST_F(EffectiveConfig, OnlyRulesThatMayComeIntoForceAreInIt)
{
    const std::string user = "[user-2001]\n";
    const std::string staff = "[group-3001]\n";
    const std::string guests = "[group-3002]\n";
    const struct {
        const char *szPolicy;
        std::string rules;
        const char *szOwners;
        uint32_t user, group; // the two flags
    } kRows[] = {
        {"user-first", "", "", 0, 0},
        {"user-first", user + kEnabled, "u2001", 1, 0},
        {"user-first", guests + kEnabled + staff + kEnabled + user + kEnabled, "u2001 g3001 g3002",
         1, 1},
        {"user-first", user + "state=disabled\n" + guests + kEnabled + staff + kEnabled,
         "g3001 g3002", 0, 1},
        {"min", staff + "state=disabled\n" + guests + "state=schedule\nschedule plan=0\n", "g3002",
         0, 1},
        {"group-only", "[group-2001]\n" + std::string(kEnabled) + staff + "state=NotExisted\n",
         "g2001", 0, 1}, // the primary group
        {"group-only", "[group-3003]\n" + std::string(kEnabled), "", 0, 0},
        {"user-only", user + "state=schedule\n" + staff + kEnabled, "u2001", 1, 0},
        {"user-only", user + "state=disabled\n" + staff + kEnabled, "", 0, 0},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szPolicy + ("\n" + row.rules));
        SetPolicy("enabled", row.szPolicy);
        SetRules(row.rules);
        config.blUserConfExist = config.blGroupConfExist = 9;
        EXPECT_EQ(Get(), 0);
        EXPECT_EQ(Owners(), row.szOwners);
        EXPECT_EQ(config.uid, kAlice);
        EXPECT_EQ(config.blUserConfExist, row.user);
        EXPECT_EQ(config.blGroupConfExist, row.group);
        EXPECT_EQ(config.pLimit == nullptr, config.iLimit == 0);
        ZEVOBandwidthConfigFree(&config);
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(EffectiveConfig, ADisabledProtocolReadsNoRuleAndUserOnlyNoGroup)
{
    SetPolicy("disabled");
    SetRules("[user-2001]\nupload rate=not a number\n");
    EXPECT_EQ(Get(), 0);
    EXPECT_EQ(config.iLimit, 0);
    EXPECT_EQ(config.globalConf.currentState, ZEVO_BW_STATE_DISABLED);
    EXPECT_EQ(ZEVOBandwidthConfCheckEnabled(&config), 0);

    SetPolicy("enabled", "user-only");
    SetRules("[user-4444]\n" + std::string(kEnabled));
    EXPECT_EQ(Get(4444), 0) << "a user that the database does not know";
    EXPECT_EQ(Owners(), "u4444");
    EXPECT_EQ(config.pLimit[0].conf.currentUploadRate, 1U) << "evaluated";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(EffectiveConfig, AFailureSaysWhereItFailedAndLeavesNoList)
{
    const std::string get = "bandwidth_config_get.cpp:# ";
    const std::string init = "bandwidth_limit_init.cpp:# ";
    SetPolicy("enabled", "user-first");
    FailNth(Call::Read, 1, EIO);
    EXPECT_EQ(Get(), -1);
    EXPECT_EQ(LastLine(), get + "ZEVOBandwidthGlobalConfGet failed. uid:[2001] type:[4] "
                                "[0x0A00 section_file.cpp:#]");
    EXPECT_EQ(config.iLimit, 0);

    const auto expectListFailure = [&](uint32_t uid, const std::string &line,
                                       const std::string &slot) {
        SCOPED_TRACE(line);
        EXPECT_EQ(Get(uid), -1);
        EXPECT_EQ(config.iLimit, -1);
        EXPECT_EQ(config.pLimit, nullptr);
        const Lines log = TakeLog();
        ASSERT_GE(log.size(), 2U);
        EXPECT_EQ(log[log.size() - 2], init + line);
        EXPECT_EQ(log.back(), get + "ZEVOBandwidthLimitGet failed. uid:[" + std::to_string(uid) +
                                  "] [" + slot + "]");
        ZEVOBandwidthConfigFree(&config);
    };

    SetRules("[user-2001]\nupload rate=x\n");
    const std::string badRule = "0x4000 bandwidth_conf_convert.cpp:#";
    expectListFailure(kAlice, "ZEVOBandwidthConfGetByID failed. uid:[2001] [" + badRule + "]",
                      badRule);
    SetRules("[group-3001]\nupload rate=x\n");
    expectListFailure(kAlice, "ZEVOBandwidthConfGetByID failed. gid:[3001] [" + badRule + "]",
                      badRule);
    const std::string noUser = "0x2000 user_group.cpp:#";
    expectListFailure(4444, "ZEVOUserGetByUID failed. uid:[4444] [" + noUser + "]", noUser);
    SetRules("[user-2001]\n" + std::string(kEnabled));
    platform::SetGroups({"3001", "12a"});
    expectListFailure(kAlice, "invalid gid [12a]", "0x4000 bandwidth_limit_init.cpp:#");
    platform::SetGroups({});
    expectListFailure(kAlice, "VLIBGroupInfoListGet failed. name:[alice] [0x2000 platform:1]",
                      "0x2000 platform:1");
}

// ---- at a moment ----

class Moment : public LibraryTest {
protected:
    Moment()
    {
        config.pLimit = &limit;
        config.iLimit = 1;
        limit.conf.uploadRate = 10;
        limit.conf.downloadRate = 11;
        limit.conf.uploadRateCustom = 20;
        limit.conf.downloadRateCustom = 21;
    }

    ZEVO_BANDWIDTH_LIMIT limit = {};
    ZEVO_BANDWIDTH_CONFIG config = {};
};

TEST_F(Moment, TheCharacterOfThePlanSaysWhetherAndHowFast)
{
    const struct {
        char character;
        int32_t globalState, ruleState;
        uint64_t up, down; // 1 and 2 where the plan leaves them
    } kRows[] = {
        {'0', 2, 2, 1, 2},
        {'1', 1, 1, 10, 11},
        {'2', 2, 1, 20, 21},
        {'\0', 2, 1, 20, 21}, // no plan
    };
    config.globalConf.state = limit.conf.state = ZEVO_BW_STATE_SCHEDULE;
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.character);
        config.globalConf.szSchedulePlan[0] = limit.conf.szSchedulePlan[0] = row.character;
        limit.conf.currentUploadRate = 1;
        limit.conf.currentDownloadRate = 2;
        EXPECT_EQ(ZEVOBandwidthInitConfig(&config, kSundayMidnight * kUsPerSecond), 1);
        EXPECT_EQ(config.globalConf.currentState, row.globalState);
        EXPECT_EQ(limit.conf.currentState, row.ruleState);
        EXPECT_EQ(limit.conf.currentUploadRate, row.up);
        EXPECT_EQ(limit.conf.currentDownloadRate, row.down);
    }
}

TEST_F(Moment, WithoutAScheduleAnEntryKeepsItsFirstState)
{
    config.globalConf.state = ZEVO_BW_STATE_NOT_EXISTED;
    config.globalConf.currentState = ZEVO_BW_STATE_DISABLED;
    limit.conf.state = ZEVO_BW_STATE_ENABLED;
    EXPECT_EQ(ZEVOBandwidthInitConfig(&config, 1), 0);
    EXPECT_EQ(config.globalConf.currentState, ZEVO_BW_STATE_NOT_EXISTED);
    EXPECT_EQ(limit.conf.currentState, ZEVO_BW_STATE_ENABLED);
    EXPECT_EQ(limit.conf.currentUploadRate, 10U);

    limit.conf.currentState = ZEVO_BW_STATE_DISABLED;
    EXPECT_EQ(ZEVOBandwidthInitConfig(&config, 1), 0);
    EXPECT_EQ(limit.conf.currentState, ZEVO_BW_STATE_DISABLED);

    config.globalConf.state = ZEVO_BW_STATE_SCHEDULE;
    config.iLimit = 0;
    EXPECT_EQ(ZEVOBandwidthInitConfig(&config, 1), 1);
    config.iLimit = -1;
    EXPECT_EQ(ZEVOBandwidthInitConfig(&config, 1), 1);
}

TEST_F(Moment, TheChecksAskTheStatesInForce)
{
    constexpr int32_t kOn = ZEVO_BW_STATE_ENABLED;
    constexpr int32_t kOff = ZEVO_BW_STATE_DISABLED;
    const struct {
        int32_t policy, rule, entries;
        int isRuleInForce, isEnabled;
    } kRows[] = {{kOn, kOn, 1, 1, 1},
                 {kOn, kOff, 1, 0, 1},
                 {kOff, kOff, 1, 0, 0},
                 {kOn, kOn, 0, 0, 0},
                 {kOn, kOn, -1, 0, 1}}; // a failed resolution is not none
    limit.conf.state = config.globalConf.state = kOff;
    for (const auto &row : kRows) {
        limit.conf.currentState = row.rule;
        config.globalConf.currentState = row.policy;
        config.iLimit = row.entries;
        EXPECT_EQ(ZEVOBandwidthIsUserGroupLimitEnable(&config), row.isRuleInForce);
        EXPECT_EQ(ZEVOBandwidthConfCheckEnabled(&config), row.isEnabled);
    }
    EXPECT_EQ(ZEVOBandwidthIsUserGroupLimitEnable(nullptr), 0);
    EXPECT_EQ(ZEVOBandwidthConfCheckEnabled(nullptr), 0);
}

TEST_F(Moment, OccupiedAreTheGroupsOfSomeWeightAtMostAThousandAndTwentyFour)
{
    std::vector<ZEVO_BANDWIDTH_LIMIT> limits(1200, Limit(ZEVO_BW_OWNER_GROUP, 7, 1));
    for (size_t i = 0; i < limits.size(); ++i) {
        limits[i].conf.id = static_cast<uint32_t>(i);
        limits[i].occupyWeight = 1;
    }
    limits[0].conf.ownerType = ZEVO_BW_OWNER_USER;
    limits[2].occupyWeight = 0;
    config.pLimit = limits.data();
    config.iLimit = 4;
    uint32_t ids[ZEVO_BW_MOST_OCC_GROUPS + 1] = {};
    int32_t count = 9;
    EXPECT_EQ(ZEVOBandwidthOccGroupsGet(ids, &count, &config), 0);
    EXPECT_EQ(count, 0) << "no group takes part";
    config.blGroupConfExist = 1;
    EXPECT_EQ(ZEVOBandwidthOccGroupsGet(ids, &count, &config), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(ids[0], 1U);
    EXPECT_EQ(ids[1], 3U);
    config.iLimit = static_cast<int32_t>(limits.size());
    ids[ZEVO_BW_MOST_OCC_GROUPS] = 77;
    EXPECT_EQ(ZEVOBandwidthOccGroupsGet(ids, &count, &config), 0);
    EXPECT_EQ(count, ZEVO_BW_MOST_OCC_GROUPS);
    EXPECT_EQ(ids[ZEVO_BW_MOST_OCC_GROUPS], 77U);
}

} // namespace
