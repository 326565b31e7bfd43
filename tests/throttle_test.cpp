// The life of a transfer: registering it, the size of its blocks, and the throttle loop, on a clock
// that the tests move.
#include "library_box.hpp"

#include <cstdlib>
#include <ctime>

#include <unistd.h>

using namespace standins;
using namespace testing;

namespace {

constexpr char kLoop[] = "bandwidth_sleep_in_loop.cpp";
constexpr uint64_t kSpeed = 65536; // of a rule of 64 KB/s
constexpr uint64_t kStart = static_cast<uint64_t>(kNow) * kUsPerSecond;

// Alice uploads under her own rule; tests add groups.
class Throttle : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        limits = {Limit(ZEVO_BW_OWNER_USER, kAlice, 64)};
        config.uid = kAlice;
        config.globalConf.state = config.globalConf.currentState = ZEVO_BW_STATE_ENABLED;
        config.globalConf.protocolType = ZEVO_BW_PROTOCOL_FTP;
        config.globalConf.userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_MIN;
        config.globalConf.interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_MAX;
        config.globalConf.occupyPolicy = ZEVO_BW_OCCUPY_POLICY_MAX;
        Attach();
        status = Record(mine);
    }
    void Attach()
    {
        config.pLimit = limits.data();
        config.iLimit = static_cast<int32_t>(limits.size());
        config.blGroupConfExist = limits.size() > 1;
    }
    int Init(const char *szName = "/a file")
    {
        return ZEVOBandwidthStatusInit(&config, 1, szName, &timeLast, &status);
    }
    int Loop(uint64_t bytes = kSpeed, uint32_t progress = 0)
    {
        return ZEVOBandwidthSleepInLoop(&config, bytes, progress, &timeLast, &status);
    }
    // The section that the record stands for now.
    std::string Saved() const
    {
        FiledTransfer saved = mine;
        saved.speed = status.current_speed;
        saved.expect = status.expect_speed;
        saved.timestamp = status.timestamp;
        saved.progress = status.progress;
        return saved.Text();
    }

    const FiledTransfer mine{::getpid()};
    std::vector<ZEVO_BANDWIDTH_LIMIT> limits;
    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_STATUS status = {};
    uint64_t timeLast = kStart;
};

// ---- registering ----

TEST_F(Throttle, ALimitedTransferIsRegisteredAndItsClockStarted)
{
    status = {};
    timeLast = 5;
    config.globalConf.currentState = ZEVO_BW_STATE_DISABLED; // the configured state counts
    EXPECT_EQ(Init(), 0);
    EXPECT_EQ(timeLast, kStart);
    EXPECT_EQ(status.current_speed, kSpeed);
    EXPECT_EQ(status.expect_speed, kSpeed);
    EXPECT_EQ(status.timestamp, kNow);
    EXPECT_EQ(box.Read("user-2001"), "\n" + Saved());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Throttle, AnUnlimitedTransferIsOnlyFilledIn)
{
    const struct {
        const char *szWhat;
        int32_t state, entries;
        uint64_t rateKBps;
    } kRows[] = {{"disabled", 2, 1, 64}, {"no entry", 1, 0, 64}, {"no rate", 1, 1, 0}};
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWhat);
        config.globalConf.state = row.state;
        config.iLimit = row.entries;
        limits[0].conf.currentUploadRate = row.rateKBps;
        status = {};
        timeLast = 5;
        EXPECT_EQ(Init(std::string(5000, 'n').c_str()), 0);
        EXPECT_EQ(timeLast, 5U);
        EXPECT_EQ(status.filename, std::string(4095, 'n'));
        EXPECT_EQ(status.pid, ::getpid());
        EXPECT_EQ(status.id, kAlice);
        EXPECT_EQ(status.uid, kAlice);
        EXPECT_EQ(status.active, 1U);
        EXPECT_EQ(status.owner_type, 1U);
        EXPECT_EQ(status.protocol_type, 4U);
        EXPECT_EQ(status.transfer_type, 1U);
        EXPECT_EQ(box.FileCount(), 0);
    }
}

TEST_F(Throttle, AFailedRegistrationSaysWhereItFailed)
{
    timeLast = 5;
    limits[0].conf.ownerType = 9;
    ExpectFails(Init(), "status_init",
                "ZEVOBandwidthExpectSpeedEstimateByPolicy failed. uid:[2001] [0x0600 "
                "bandwidth_enum.cpp:#]");
    limits[0].conf.ownerType = 1;
    FailNext(Call::Write, ENOSPC);
    ExpectFails(Init(), "status_init",
                "save info failed. [2001] [0x0B00 bandwidth_status_add_section.cpp:#]");
    EXPECT_EQ(timeLast, 5U);
}

// ---- the size of a block ----

TEST_F(Throttle, ABlockIsAtMostFiveSecondsWorth)
{
    const struct {
        int32_t currentState;
        uint64_t rateKBps, request, answer;
    } kRows[] = {
        {1, 100, 1'048'576, 512'000}, {1, 100, 4096, 4096},           {1, 100, 512'000, 512'000},
        {1, 0, 1'048'576, 1'048'576}, {2, 100, 1'048'576, 1'048'576},
    };
    box.Write("user-2001", FiledTransfer{1, kAlice, 100'000}.Text());
    standins::Reset();
    for (const auto &row : kRows) {
        config.globalConf.currentState = row.currentState;
        limits[0].conf.currentUploadRate = row.rateKBps;
        uint64_t bytes = 0;
        EXPECT_EQ(ZEVOBandwidthTransferSizeEstimate(&config, 1, row.request, &bytes), 0);
        EXPECT_EQ(bytes, row.answer) << row.request << " at " << row.rateKBps;
    }
    EXPECT_EQ(standins::Count(Call::Open), 0) << "the others do not count";

    uint64_t bytes = 77;
    config.globalConf.currentState = 1;
    config.globalConf.userGroupPolicy = 9;
    VLIBCErrSetEx(0x1234, "before", 1);
    EXPECT_EQ(ZEVOBandwidthTransferSizeEstimate(&config, 1, 1, &bytes), -1);
    EXPECT_EQ(bytes, 77U);
    EXPECT_EQ(LastLine(),
              "bandwidth_transfer_size_estimate.cpp:# ZEVOBandwidthExpectSpeedEstimateByPolicy "
              "failed. [0x1234 before:1]");
}

// ---- one call ----

TEST_F(Throttle, ABlockThatWasTooFastSleepsOffTheDifferenceAndOneThatWasNotDoesNot)
{
    const struct {
        int64_t elapsedUs;
        uint64_t bytes;
        std::vector<int64_t> sleeps;
        uint64_t speed;
    } kRows[] = {
        {200'000, kSpeed, {800'000}, kSpeed},
        {2'000'000, kSpeed, {}, kSpeed / 2},
        {1'000'000, kSpeed, {}, kSpeed},
        {250'000, 0, {}, 0},
        {0, kSpeed, {999'999}, kSpeed},
        {-5'000'000, kSpeed, {999'999}, kSpeed * 1'000'000},               // the clock was set back
        {1, kSpeed * 5000, {4'999'999'999 - (int64_t{1} << 32)}, 464'772}, // modulo 2^32
    };
    ASSERT_EQ(Init(), 0);
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.elapsedUs);
        standins::Reset();
        standins::SetClock(static_cast<int64_t>(kStart));
        timeLast = static_cast<uint64_t>(standins::ClockUs() - row.elapsedUs);
        EXPECT_EQ(Loop(row.bytes, 4321), 0);
        EXPECT_EQ(standins::Sleeps(), row.sleeps);
        EXPECT_EQ(status.current_speed, row.speed);
        EXPECT_EQ(status.expect_speed, kSpeed);
        EXPECT_EQ(status.progress, 4321U);
        EXPECT_EQ(status.timestamp, standins::ClockUs() / kUsPerSecond);
        EXPECT_EQ(timeLast, static_cast<uint64_t>(standins::ClockUs()));
        EXPECT_EQ(box.Read("user-2001"), "\n" + Saved());
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
}

// Whatever the clock was before, from the second block on all is as if it had always been so.
TEST_F(Throttle, AClockThatIsSetIsForgottenWithTheNextBlock)
{
    constexpr int64_t kDay = 24 * 3600;
    constexpr int64_t kPast2038 = 0x80000000LL + kDay;
    const struct {
        int64_t from, to;
    } kRows[] = {
        {kNow, kNow + 3600}, {kNow, kNow - 3600}, {kNow, kNow + kDay}, {kNow, kNow - kDay},
        {kNow, kNow - 1},    {kNow, kNow + 31},   {kNow, 100},         {100, kNow},
        {kNow, 0x7FFFFFFE},  {kNow, kPast2038},   {kPast2038, kNow},   {kNow, 0x100000000LL + kDay},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(std::to_string(row.from) + " to " + std::to_string(row.to));
        const auto loop = [&] {
            standins::AdvanceClock(200'000);
            return Loop();
        };
        box.Make();
        standins::Reset();
        standins::SetClock(row.from * kUsPerSecond);
        ASSERT_EQ(Init(), 0);
        EXPECT_EQ(loop(), 0);
        standins::SetClock(row.to * kUsPerSecond);
        EXPECT_EQ(loop(), 0);
        (void)TakeLog(); // a step forth has made the own section stale
        ASSERT_LE(standins::Sleeps().size(), 2U);
        EXPECT_LE(standins::Sleeps().back(), kUsPerSecond) << "no longer than the block alone";
        EXPECT_EQ(loop(), 0);
        EXPECT_EQ(standins::Sleeps().back(), 800'000);
        EXPECT_EQ(status.current_speed, kSpeed);
        EXPECT_EQ(status.timestamp, standins::ClockUs() / kUsPerSecond);
        EXPECT_EQ(box.Read("user-2001"), "\n" + Saved());
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
}

TEST_F(Throttle, ASleepCutShortShowsTheTargetAndAFailedOneWhatWasReached)
{
    ASSERT_EQ(Init(), 0);
    standins::InterruptNextSleep(100'000);
    EXPECT_EQ(Loop(), 0);
    EXPECT_EQ(timeLast, kStart + 100'000);
    EXPECT_EQ(status.current_speed, kSpeed);
    EXPECT_EQ(box.Read("user-2001"), "\n" + Saved());
    EXPECT_THAT(
        TakeLog(),
        ElementsAre("bandwidth_sleep_in_loop.cpp:# usleep failed. Interrupted system call"));

    standins::AdvanceClock(500'000);
    FailNext(Call::Sleep, EINVAL);
    EXPECT_EQ(Loop(), 0);
    EXPECT_EQ(status.current_speed, kSpeed * 2);
    EXPECT_EQ(timeLast, kStart + 600'000);
    EXPECT_THAT(TakeLog(),
                ElementsAre("bandwidth_sleep_in_loop.cpp:# usleep failed. Invalid argument"));
}

TEST_F(Throttle, WithoutAPolicyOrALimitNothingIsTouched)
{
    box.Write("user-2001", mine.Text());
    const auto expectNothing = [&] {
        standins::Reset();
        standins::SetClock(static_cast<int64_t>(kStart) + 1);
        EXPECT_EQ(Loop(), 0);
        EXPECT_EQ(timeLast, kStart);
        EXPECT_EQ(standins::Count(Call::Open) + standins::Count(Call::Stat), 0);
        EXPECT_THAT(standins::Sleeps(), IsEmpty());
        EXPECT_THAT(TakeLog(), IsEmpty());
    };
    config.globalConf.state = ZEVO_BW_STATE_NOT_EXISTED;
    expectNothing();
    EXPECT_EQ(status.expect_speed, 2000U);
    config.globalConf.state = ZEVO_BW_STATE_ENABLED;
    limits[0].conf.currentUploadRate = 0;
    expectNothing();
    EXPECT_EQ(status.expect_speed, 0U);
    EXPECT_EQ(box.Read("user-2001"), mine.Text()) << "still listed";
}

TEST_F(Throttle, WhereTheLimitsAreOffTheTransferIsTakenAway)
{
    for (const bool byPolicy : {true, false}) {
        config.globalConf.currentState = byPolicy ? ZEVO_BW_STATE_DISABLED : ZEVO_BW_STATE_ENABLED;
        limits[0].conf.currentState = byPolicy ? ZEVO_BW_STATE_ENABLED : ZEVO_BW_STATE_DISABLED;
        box.Write("user-2001", mine.Text());
        EXPECT_EQ(Loop(), 0);
        EXPECT_EQ(box.Read("user-2001"), "");
        EXPECT_EQ(timeLast, kStart);
    }
    EXPECT_THAT(standins::Sleeps(), IsEmpty());
    EXPECT_THAT(TakeLog(), IsEmpty());
    box.Write("user-2001", mine.Text());
    FailNext(Call::Rename, EACCES);
    status.id = 9; // told in the log, the configuration's uid in the path
    ExpectFails(
        Loop(), "sleep_in_loop",
        "ZEVOBandwidthStatusRemove failed. uid:[9] [0x2800 bandwidth_status_set_section.cpp:#]");
}

// Two groups; the faster bears the transfer as configured, but is in use, so that the other one
// bears it now.
TEST_F(Throttle, TheCopiesMoveToTheGroupsThatBearTheTransferNow)
{
    limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, kStaff, 40));
    limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, kGuests, 30));
    Attach();
    box.Write("user-2001", mine.Text());
    const std::string other = FiledTransfer{7, kBob, 40 * 1024}.Text();
    box.Write("group-3001", other + mine.Text());
    Before(Call::Sleep, 1, [&] {
        EXPECT_EQ(box.Read("group-3001"), other + mine.Text()) << "before the sleep nothing moves";
        EXPECT_EQ(box.Read("user-2001"), mine.Text());
        EXPECT_EQ(status.expect_speed, 30 * 1024U);
    });
    EXPECT_EQ(Loop(), 0);
    EXPECT_EQ(box.Read("group-3001"), other);
    EXPECT_NE(box.Read("group-3002").find("\nexpect speed=30720\n"), std::string::npos);
    EXPECT_EQ(box.Read("user-2001"), Saved());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Throttle, AStoppedTransferIsNotSavedAndItsGroupCopiesAreGone)
{
    limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, kStaff, 64));
    Attach();
    FiledTransfer stopped = mine;
    stopped.active = 0;
    box.Write("user-2001", mine.Text());
    box.Write("group-3001", mine.Text());
    Before(Call::Sleep, 1, [&] { box.Write("user-2001", stopped.Text()); });
    EXPECT_EQ(Loop(), -1);
    ExpectSlot(0x0300, kLoop);
    EXPECT_THAT(standins::Sleeps(), ElementsAre(1'000'000 - 1));
    EXPECT_EQ(box.Read("user-2001"), stopped.Text());
    EXPECT_EQ(box.Read("group-3001"), "");
    EXPECT_EQ(timeLast, kStart);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Throttle, AStopThatComesBesideItsOwnSaveIsNotLost)
{
    limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, kStaff, 64));
    Attach();
    FiledTransfer stopped = mine;
    stopped.active = 0;
    for (const auto call : {Call::Read, Call::Fsync, Call::Chmod}) { // before the save's last look
        SCOPED_TRACE(static_cast<int>(call));
        box.Write("user-2001", mine.Text());
        box.Write("group-3001", mine.Text());
        Before(Call::Sleep, 1, [&] { // the reading back is over when the save begins to write
            Before(call, call == Call::Read ? 2 : 1, [&] {
                box.Write("stopped", stopped.Text());
                EXPECT_EQ(std::rename(box.Path("stopped"), box.Path("user-2001")), 0);
            });
        });
        EXPECT_EQ(Loop(), -1);
        ExpectSlot(0x0300, kLoop);
        EXPECT_EQ(box.Read("user-2001"), stopped.Text());
        EXPECT_EQ(box.Read("group-3001"), "");
        EXPECT_EQ(timeLast, kStart);
        EXPECT_THAT(TakeLog(), IsEmpty());
        standins::Reset();
        standins::SetClock(static_cast<int64_t>(kStart));
    }
}

TEST_F(Throttle, ATransferWithoutASectionGetsOneAndATornOneStopsNobody)
{
    EXPECT_EQ(Loop(), 0);
    EXPECT_EQ(box.Read("user-2001"), "\n" + Saved());
    EXPECT_EQ(TakeLog().size(), 1U) << "the reading back";
    box.Write("user-2001", "[" + mine.Name() + "]\ntimestamp=" + std::to_string(kNow) + "\n");
    EXPECT_EQ(Loop(), 0);
    EXPECT_EQ(box.Read("user-2001"), Saved());
}

TEST_F(Throttle, AFailedCallSaysWhereItFailedAndLeavesTheTime)
{
    const auto expectFailure = [&](const std::string &line) {
        ExpectFails(Loop(), "sleep_in_loop", line);
        EXPECT_EQ(timeLast, kStart);
    };
    limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, kStaff, 64));
    Attach();
    const std::string estimate = "ZEVOBandwidthExpectSpeedEstimateByPolicy failed. uid:[2001] ";
    config.globalConf.userGroupPolicy = 9;
    VLIBCErrSetEx(0x1234, "before", 1);
    expectFailure(estimate + "[0x1234 before:1]");
    config.globalConf.userGroupPolicy = 4;
    limits[1].conf.ownerType = 9; // fails only where the others are counted
    expectFailure(estimate + "[0x0600 bandwidth_enum.cpp:#]");
    EXPECT_THAT(standins::Sleeps(), IsEmpty());
    limits[1].conf.ownerType = 2;

    box.Write("group-3001", mine.Text());
    status.pid = 1; // saved under this number, the copy under ours has to go
    FailNext(Call::Rename, EACCES);
    expectFailure("ZEVOBandwidthStatusRemove failed. uid:[2001] [0x2800 "
                  "bandwidth_status_set_section.cpp:#]");
    status.pid = ::getpid();
    FailNext(Call::Write, ENOSPC);
    expectFailure("save info failed. [2001] [0x0B00 bandwidth_status_add_section.cpp:#]");
    ExpectSlot(0x0B00, "bandwidth_status_add_section.cpp");
    EXPECT_EQ(box.Read("group-3001"), "") << "nobody counts on what is not saved";

    // The clean-up fails as well: the copies should have been removed before the save.
    box.Write("user-2001", mine.Text());
    Before(Call::Fsync, 1, [&] { // of the user's file
        ASSERT_EQ(::unlink(box.Path("group-3001")), 0);
        ASSERT_EQ(::mkdir(box.Path("group-3001"), 0755), 0);
    });
    expectFailure("ZEVOBandwidthStatusRemove failed. uid:[2001] [0x0900 "
                  "bandwidth_status_set_section.cpp:#]");
    ExpectSlot(0x0900, "bandwidth_status_set_section.cpp");
}

TEST_F(Throttle, AGroupThatBearsTheTransferAgainIsNeverWithoutItsCopy)
{
    limits.push_back(Limit(ZEVO_BW_OWNER_GROUP, kStaff, 64));
    Attach();
    EXPECT_EQ(Loop(), 0);
    const std::string header = "[" + std::to_string(::getpid()) + "-1]";
    int looks = 0;
    const std::function<void()> look = [&] {
        ++looks;
        EXPECT_NE(box.Read("group-3001").find(header), std::string::npos);
        Before(Call::Rename, 1, look);
    };
    Before(Call::Rename, 1, look);
    EXPECT_EQ(Loop(), 0);
    EXPECT_GE(looks, 2) << "the user's section, the copy";
    look();
}

// ---- plans ----

class Schedule : public Throttle {
protected:
    void SetUp() override
    {
        Throttle::SetUp();
        config.globalConf.state = ZEVO_BW_STATE_SCHEDULE;
        SetPlan(std::string(168, '1'));
        At(0);
        box.Write("user-2001", mine.Text());
    }
    void SetPlan(const std::string &plan) { plan.copy(config.globalConf.szSchedulePlan, 168); }
    // Another transfer of the process gets past the check at Sunday, that hour.
    void CheckAt(int64_t hour)
    {
        std::vector<ZEVO_BANDWIDTH_LIMIT> free = {Limit(ZEVO_BW_OWNER_USER, kBob, 0)};
        ZEVO_BANDWIDTH_CONFIG unscheduled = config;
        unscheduled.pLimit = free.data();
        unscheduled.globalConf.state = unscheduled.globalConf.currentState = ZEVO_BW_STATE_ENABLED;
        ZEVO_BANDWIDTH_STATUS bobs = Record({7, kBob});
        uint64_t bobsTime = 0;
        At(hour);
        EXPECT_EQ(ZEVOBandwidthSleepInLoop(&unscheduled, 1, 0, &bobsTime, &bobs), 0);
    }
    static void At(int64_t hour)
    {
        standins::SetClock((kSundayMidnight + hour * 3600) * 1'000'000);
    }
    bool Listed()
    {
        return box.Read("user-2001").find("[" + mine.Name() + "]") != std::string::npos;
    }
};

TEST_F(Schedule, APlanIsLookedAtOncePerHourOfTheDay)
{
    CheckAt(11);
    At(12);
    EXPECT_EQ(Loop(0), 0);
    EXPECT_TRUE(Listed());
    SetPlan(std::string(168, '0'));
    standins::AdvanceClock(3599 * kUsPerSecond);
    EXPECT_EQ(Loop(0), 0);
    EXPECT_TRUE(Listed()) << "still the same hour";
    At(12 + 24);
    EXPECT_EQ(Loop(0), 0);
    EXPECT_TRUE(Listed()) << "the same hour of the day";
    At(13 + 24);
    EXPECT_EQ(Loop(0), 0);
    EXPECT_FALSE(Listed());
    EXPECT_EQ(config.globalConf.currentState, ZEVO_BW_STATE_DISABLED);
}

TEST_F(Schedule, WhereAPlanTakesTheTransferAwayTheHourIsLookedAtAgain)
{
    SetPlan(std::string(168, '0'));
    CheckAt(3);
    At(4);
    timeLast = 5;
    EXPECT_EQ(Loop(), 0);
    EXPECT_FALSE(Listed());
    EXPECT_EQ(timeLast, 5U);
    SetPlan(std::string(168, '1'));
    EXPECT_EQ(Loop(0), 0);
    EXPECT_TRUE(Listed());
    EXPECT_EQ(config.globalConf.currentState, ZEVO_BW_STATE_ENABLED);

    At(5);
    SetPlan(std::string(168, '0'));
    FailNext(Call::Rename, EACCES);
    (void)TakeLog();
    EXPECT_EQ(Loop(), 0) << "a failed removal is only told";
    EXPECT_TRUE(Listed());
    EXPECT_EQ(LastLine(), "bandwidth_sleep_in_loop.cpp:# (" + std::to_string(::getpid()) +
                              ")(1)===============> remove status failed");
}

TEST_F(Schedule, ALookOfAnyTransferOfTheProcessCountsForAll)
{
    CheckAt(8);
    config.globalConf.currentState = ZEVO_BW_STATE_DISABLED; // as it was last evaluated
    EXPECT_EQ(Loop(0), 0);
    EXPECT_FALSE(Listed()) << "not evaluated anew";
    At(9);
    EXPECT_EQ(Loop(0), 0);
    EXPECT_TRUE(Listed());
}

// Zones are spelled out, since not every machine has their files; times are seconds.
struct Zone {
    const char *szTz;
    int64_t changes[2];
    int64_t offsets[3]; // from UTC: before, between and after the changes
};

constexpr Zone kZones[] = {
    {"IST-5:30", {1'711'846'800, 1'729'990'800}, {19'800, 19'800, 19'800}}, // none, by half an hour
    {"CET-1CEST,M3.5.0,M10.5.0/3", {1'711'846'800, 1'729'990'800}, {3'600, 7'200, 3'600}},
    {"EST5EDT,M3.2.0,M11.1.0", {1'710'054'000, 1'730'613'600}, {-18'000, -14'400, -18'000}},
    {"<+1030>-10:30<+11>-11,M10.1.0,M4.1.0",
     {1'712'415'600, 1'728'142'200},
     {39'600, 37'800, 39'600}},
};

// The zone is the one that the process began with, whatever TZ says later.
TEST_F(Schedule, APlanIsFollowedByTheLocalHourThroughDaylightSaving)
{
    std::string plan(168, '0');
    for (size_t hour = 0; hour < plan.size(); hour += hour % 5 == 0 ? 3 : 2)
        plan[hour] = '1';
    SetPlan(plan);
    plan.copy(limits[0].conf.szSchedulePlan, plan.size());
    limits[0].conf.state = ZEVO_BW_STATE_SCHEDULE;
    for (const Zone &zone : kZones) {
        for (const int64_t change : zone.changes) {
            ::setenv("TZ", zone.szTz, 1);
            ::tzset();
            ::setenv("TZ", "XYZ+7:15", 1);
            CheckAt((change - kSundayMidnight) / 3600 - 6); // so that the first look is a new one
            for (int64_t t = change - 4 * 3600; t < change + 4 * 3600; t += 600) {
                SCOPED_TRACE(zone.szTz + (" at " + std::to_string(t)));
                const size_t part = t < zone.changes[0] ? 0 : t < zone.changes[1] ? 1 : 2;
                const int64_t local = t + zone.offsets[part];
                const int64_t hour = (local / 86'400 + 4) % 7 * 24 + local % 86'400 / 3'600;
                const int32_t wanted = plan[static_cast<size_t>(hour)] == '1'
                                           ? ZEVO_BW_STATE_ENABLED
                                           : ZEVO_BW_STATE_DISABLED;
                standins::SetClock(t * kUsPerSecond);
                EXPECT_EQ(Loop(0), 0);
                EXPECT_EQ(config.globalConf.currentState, wanted) << "of a running transfer";
                for (const int64_t timeUs : {int64_t{0}, (t + 599) * kUsPerSecond + 999'999}) {
                    EXPECT_EQ(ZEVOBandwidthInitConfig(&config, timeUs), 1);
                    EXPECT_EQ(config.globalConf.currentState, wanted) << "of one that begins";
                    EXPECT_EQ(limits[0].conf.currentState, wanted);
                }
            }
        }
    }
    (void)TakeLog();
}

} // namespace
