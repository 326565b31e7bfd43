// The C++ layer: what it leaves behind and what it tells, on a clock that the tests move.
#include "zevobandwidth.hpp"

#include "library_box.hpp"

#include <algorithm>
#include <stdexcept>
#include <type_traits>

#include <unistd.h>

using namespace standins;
using namespace testing;
using zevobw::Outcome;
using zevobw::Result;

namespace {

using Upload = zevobw::Transfer;

constexpr uint64_t kBps = 100 * 1024;
constexpr uint64_t kUnlimited = 0;
constexpr int64_t kSecondUs = kUsPerSecond - 1; // no time at all counts as a microsecond

static_assert(!std::is_copy_constructible_v<Upload> && std::is_nothrow_move_assignable_v<Upload> &&
              std::is_nothrow_move_assignable_v<Result<Upload>>);
static_assert(std::is_same_v<std::iterator_traits<zevobw::Transfers::Iterator>::value_type,
                             ZEVO_BANDWIDTH_STATUS>);

// Alice and her group staff may upload 100 KB/s by FTP; a transfer is charged to the group.
class CppLayer : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        SetPolicy("enabled");
        SetRates(100, 100);
    }
    void SetRates(uint64_t user, uint64_t group)
    {
        SetRules(RuleText("user-2001", user) + (group == 0 ? "" : RuleText("group-3001", group)));
    }
    Result<Upload> Begin(uint32_t uid = kAlice)
    {
        return Upload::Begin(uid, ZEVO_BW_PROTOCOL_FTP, ZEVO_BW_TRANSFER_UPLOAD, "/a file",
                             &notices);
    }
    // The files in which this process has an upload.
    std::string Listed() const
    {
        std::string files;
        for (const std::string &file : box.Files())
            if (box.Read(file).find("[" + std::to_string(::getpid()) + "-1]") != std::string::npos)
                files += (files.empty() ? "" : " ") + file;
        return files;
    }
    // As an administrator does it, who is another process.
    static void StopAlice()
    {
        ASSERT_EQ(ZEVOBandwidthStatusSetActiveByUserName("alice", 1, ::getpid(), 0), 0);
    }

    std::atomic<unsigned> notices{0};
};

const char kBoth[] = "group-3001 user-2001";

// ---- what stays behind ----

TEST_F(CppLayer, ATransferIsListedUntilItsScopeIsLeftByWhateverWay)
{
    const struct {
        const char *szWay;
        std::function<void(Upload &)> Leave;
    } kRows[] = {
        {"at its end", [](Upload &) {}},
        {"by an exception", [](Upload &) { throw std::runtime_error("the host's own"); }},
        {"moved on", [](Upload &upload) { const Upload other(std::move(upload)); }},
        {"assigned to", [](Upload &upload) { upload = Upload(); }},
        {"ended before", [](Upload &upload) { EXPECT_TRUE(upload.End()); }},
        {"stopped",
         [](Upload &upload) {
             StopAlice();
             EXPECT_FALSE(upload.Moved(1, 0));
         }},
        {"no longer charged to the group", [this](Upload &) { SetRates(100, 0); }},
        {"no longer limited", [this](Upload &) { SetPolicy("disabled"); }},
        {"out of its group",
         [](Upload &upload) {
             platform::SetGroups({"2001"}); // which the rules, as they were read, do not know
             EXPECT_TRUE(upload.Moved(1, 0));
         }},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWay);
        TearDown();
        SetUp();
        try {
            Upload upload = Begin().ValueOrThrow();
            ASSERT_EQ(Listed(), kBoth);
            ASSERT_TRUE(upload.Moved(1, 0));
            row.Leave(upload);
        } catch (const std::runtime_error &error) {
            EXPECT_STREQ(error.what(), "the host's own");
        }
        EXPECT_EQ(Listed(), "");
        TakeLog();
    }
}

// The group that is charged beside the others is another than the one that its rate would choose.
TEST_F(CppLayer, NoGroupKeepsACopyWhoeverWasChargedLast)
{
    const std::string staffsRule = "[group-3001]\nstate=enabled\nupload rate=200\n";
    etc.Write("bandwidth.global.conf", "[ftp]\nstate=enabled\nuser-group policy=group-only\n"
                                       "inter-group policy=max\noccupy policy=max\n");
    const FiledTransfer bobs{.pid = 1, .uid = kBob, .speed = kBps, .owner = "group", .id = kStaff};
    const FiledTransfer daves{
        .pid = 2, .uid = kDave, .speed = kBps, .owner = "group", .id = kStaff};
    const struct {
        const char *szWay;
        std::function<void(Upload &)> Leave;
        const char *szListed;
    } kRows[] = {
        {"at its end", [](Upload &upload) { EXPECT_TRUE(upload.End()); }, ""},
        {"without a user database",
         [](Upload &upload) {
             platform::SetGroups({});
             EXPECT_TRUE(upload.End());
         },
         ""},
        {"its rule is gone",
         [&](Upload &upload) {
             etc.Write("bandwidth.ftp.conf", staffsRule);
             EXPECT_TRUE(upload.Reload());
         },
         "group-3001 user-2001"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWay);
        etc.Write("bandwidth.ftp.conf",
                  staffsRule + "[group-3002]\nstate=enabled\nupload rate=100\n");
        box.Write("group-3001", bobs.Text() + daves.Text());
        platform::SetGroups({"3001", "3002"});
        Upload upload = Begin().ValueOrThrow();
        ASSERT_TRUE(upload.Moved(1, 0));
        ASSERT_EQ(Listed(), "group-3002 user-2001");
        EXPECT_EQ(upload.BlockSize(1), 1U); // by the bare rates, which choose the other group
        row.Leave(upload);
        EXPECT_EQ(Listed(), row.szListed);
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
}

TEST_F(CppLayer, TheScopesEndLeavesTheHostsErrorsAlone)
{
    {
        const Upload upload = Begin().ValueOrThrow();
        errno = EPIPE;
        VLIBCErrSetEx(0x0B00, "host.cpp", 7);
        FailNext(Call::Rename, EACCES);
    }
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(zevobw::Error::FromSlot().Text(), "a file cannot be written [0x0B00 host.cpp:7]");
    TakeLog();
}

TEST_F(CppLayer, AMoveCarriesTheSectionAlongAndLeavesAnEmptyTransfer)
{
    Upload first = Begin().ValueOrThrow();
    Upload last;
    last = std::move(first);
    first = Upload();
    EXPECT_EQ(Listed(), kBoth) << "the one moved from does not own it";
    EXPECT_TRUE(last.End());
    EXPECT_TRUE(last.Moved(kBps, 0)) << "empty: everything passes";
    EXPECT_TRUE(last.Reload());
    EXPECT_EQ(Listed(), "");
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(CppLayer, AFailedRegistrationLeavesNothingAndLimitsNobody)
{
    standins::FailNth(Call::Write, 2, ENOSPC); // the user's copy is written, the group's is not
    Result<Upload> begun = Begin();
    ASSERT_FALSE(begun);
    EXPECT_EQ(begun.error().code(), 0x0B00U);
    EXPECT_STREQ(begun.error().file(), "bandwidth_status_add_section.cpp");
    EXPECT_EQ(Listed(), "");
    EXPECT_EQ(begun.value().BlockSize(1'000'000'000), 1'000'000'000U);
    EXPECT_TRUE(begun.value().Moved(1'000'000'000, 0));
    EXPECT_THAT(standins::Sleeps(), IsEmpty());
    TakeLog();
}

// ---- what failed ----

TEST_F(CppLayer, AFailureIsAValueWithCodeAndPlaceAndAnExceptionOnRequest)
{
    const Result<zevobw::Config> read = zevobw::Config::Read(UINT32_MAX, ZEVO_BW_PROTOCOL_FTP);
    ASSERT_FALSE(read);
    VLIBCErrSetEx(0x0200, "elsewhere.cpp", 7); // the value outlives the slot
    EXPECT_EQ(read.error().code(), 0x0D00U);
    EXPECT_STREQ(read.error().file(), "bandwidth_config_get.cpp");
    EXPECT_GT(read.error().line(), 0);
    EXPECT_EQ(read.error().Text(), "refused argument [0x0D00 bandwidth_config_get.cpp:" +
                                       std::to_string(read.error().line()) + "]");
    EXPECT_EQ(read.value().size(), 0U);
    try {
        (void)Begin(UINT32_MAX).ValueOrThrow();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const zevobw::Failure &failure) {
        EXPECT_EQ(failure.what(), failure.error().Text());
        EXPECT_EQ(failure.error().code(), 0x0D00U);
    }
    EXPECT_NO_THROW(Outcome().OrThrow());
    TakeLog();
}

TEST_F(CppLayer, AFailureThatRecordsNothingIsNotTakenForAnEarlierStop)
{
    Box("/usr/zevo/etc/bandwidth/addon").Make();
    etc.Write("addon/odd_9.json", ""); // a policy by that name reads as 9, which nobody knows
    SetPolicy("enabled", "odd");
    VLIBCErrSetEx(ZEVO_BW_ERROR_STOPPED, "earlier.cpp", 1);
    const Result<Upload> begun = Begin();
    ASSERT_FALSE(begun);
    EXPECT_EQ(begun.error().code(), 0U);
    EXPECT_FALSE(begun.error().IsStop());
    EXPECT_THAT(begun.error().Text(), HasSubstr("see the system log"));
    TakeLog();
}

TEST_F(CppLayer, ABlockThatCannotBeSavedIsSaidAndTheNextOneIs)
{
    Upload upload = Begin().ValueOrThrow();
    FailNext(Call::Rename, EACCES);
    const Outcome paid = upload.Moved(kBps, 0);
    EXPECT_FALSE(paid);
    EXPECT_EQ(paid.error().code(), 0x2800U);
    EXPECT_FALSE(upload.stopped());
    EXPECT_TRUE(upload.Moved(kBps, 5000));
    EXPECT_THAT(box.Read("user-2001"), HasSubstr("progress=5000"));
    EXPECT_THAT(standins::Sleeps(), ElementsAre(kSecondUs, kSecondUs));
    TakeLog();
}

// ---- the transfer's life ----

TEST_F(CppLayer, AStopIsToldWithTheNextBlockOrWhenAskedFor)
{
    Upload upload = Begin().ValueOrThrow();
    EXPECT_FALSE(upload.AskStopped());
    box.Write("user-2001", "[" + std::to_string(::getpid()) + "-1]\nid=2001\n");
    EXPECT_FALSE(upload.AskStopped()) << "a torn section stops nobody";
    EXPECT_TRUE(upload.Moved(1, 0));
    StopAlice();
    EXPECT_TRUE(upload.AskStopped());
    EXPECT_FALSE(upload.stopped()) << "no call has met it";
    const Outcome paid = upload.Moved(1, 0);
    EXPECT_TRUE(paid.error().IsStop());
    EXPECT_TRUE(upload.stopped());
    TakeLog();

    Upload other = Begin().ValueOrThrow();
    StopAlice();
    SetPolicy("disabled");
    EXPECT_TRUE(other.Reload().error().IsStop()) << "a reload must not set the stop aside";
    EXPECT_TRUE(other.stopped());
    TakeLog();
}

TEST_F(CppLayer, ANoticeIsObeyedByEveryTransferAndKeepsItCounted)
{
    Upload mine = Begin().ValueOrThrow();
    Upload bobs = Begin(kBob).ValueOrThrow();
    SetRates(50, 50);
    EXPECT_TRUE(mine.Moved(1, 0));
    EXPECT_EQ(mine.ConfiguredBps().value(), kBps) << "without a notice nothing is read anew";
    ++notices;
    EXPECT_TRUE(mine.Moved(1, 0));
    EXPECT_EQ(mine.ConfiguredBps().value(), kBps / 2);
    EXPECT_EQ(mine.AllowedBps(), kBps / 2);
    EXPECT_EQ(Listed(), "group-3001 user-2001 user-2002") << "listed before the next block";
    EXPECT_TRUE(bobs.Moved(1, 0));
    EXPECT_EQ(bobs.ConfiguredBps().value(), kBps / 2);

    const size_t before = standins::Sleeps().size();
    EXPECT_TRUE(mine.Moved(kBps, 0));
    ASSERT_EQ(standins::Sleeps().size(), before + 1);
    EXPECT_EQ(standins::Sleeps().back(), kUsPerSecond + kSecondUs) << "a block costs the new speed";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(CppLayer, AReloadThatFailsIsTriedAgain)
{
    Upload upload = Begin().ValueOrThrow();
    etc.Write("bandwidth.ftp.conf", "[user-2001]\nupload rate=x\n");
    ++notices;
    EXPECT_EQ(upload.Moved(1, 0).error().code(), 0x4000U);
    EXPECT_EQ(upload.ConfiguredBps().value(), kBps) << "the old limits hold";
    SetRates(50, 50);
    EXPECT_TRUE(upload.Moved(1, 0));
    EXPECT_EQ(upload.ConfiguredBps().value(), kBps / 2);
    TakeLog();
}

TEST_F(CppLayer, ALimitComesAndGoesUnderARunningTransfer)
{
    SetPolicy("disabled");
    Upload upload = Begin().ValueOrThrow();
    EXPECT_EQ(Listed(), "");
    EXPECT_EQ(upload.ConfiguredBps().value(), kUnlimited);
    EXPECT_EQ(upload.BlockSize(1'000'000'000), 1'000'000'000U);
    standins::AdvanceClock(60 * kUsPerSecond);
    EXPECT_TRUE(upload.Moved(1'000'000'000, 0));

    SetPolicy("enabled");
    ++notices;
    EXPECT_TRUE(upload.Moved(1'000'000'000, 0)) << "what moved before the limit is not held to it";
    EXPECT_THAT(standins::Sleeps(), IsEmpty());
    EXPECT_EQ(Listed(), kBoth);
    EXPECT_TRUE(upload.Moved(kBps, 0));
    EXPECT_THAT(standins::Sleeps(), ElementsAre(kSecondUs)) << "no credit of an idle minute";

    SetPolicy("disabled");
    ++notices;
    EXPECT_TRUE(upload.Moved(1, 0));
    EXPECT_EQ(Listed(), "");
    EXPECT_EQ(upload.AllowedBps(), kUnlimited);
    EXPECT_EQ(upload.BlockSize(1'000'000'000), 1'000'000'000U);
    EXPECT_TRUE(upload.Moved(1'000'000'000, 0));
    EXPECT_EQ(standins::Sleeps().size(), 2U);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(CppLayer, EachTransferOfAProcessFollowsThePlanOfTheWeek)
{
    std::string plan(168, '1');
    plan[13] = '0'; // Sunday from 13 to 14
    SetPolicy("schedule", "min", plan);
    Upload first = Begin().ValueOrThrow();
    Upload second = Begin(kBob).ValueOrThrow();
    EXPECT_TRUE(first.Moved(1, 0));
    EXPECT_TRUE(second.Moved(1, 0));
    EXPECT_EQ(Listed(), "group-3001 user-2001 user-2002");
    standins::AdvanceClock(kUsPerHour);
    EXPECT_TRUE(first.Moved(1, 0));
    EXPECT_TRUE(second.Moved(1, 0));
    EXPECT_EQ(Listed(), "") << "the loop itself looks at the hour for one of them";
    EXPECT_EQ(first.BlockSize(1'000'000'000), 1'000'000'000U);
    standins::AdvanceClock(kUsPerHour);
    EXPECT_TRUE(second.Moved(1, 0));
    EXPECT_EQ(second.BlockSize(1'000'000'000), 5 * kBps);
    EXPECT_THAT(Listed(), HasSubstr("user-2002"));
    TakeLog();
}

TEST_F(CppLayer, ABlockIsFiveSecondsOfWhatIsAllowedBesideTheOthers)
{
    SetRates(1000, 100);
    Upload upload = Begin().ValueOrThrow();
    EXPECT_EQ(upload.BlockSize(UINT64_MAX), 5 * kBps);
    EXPECT_EQ(upload.BlockSize(4096), 4096U);
    FiledTransfer other{.pid = 1, .uid = kBob, .speed = kBps, .owner = "group", .id = kStaff};
    box.Write("group-3001", box.Read("group-3001") + other.Text());
    EXPECT_TRUE(upload.Moved(1, 0));
    EXPECT_EQ(upload.AllowedBps(), kBps / 2);
    EXPECT_EQ(upload.BlockSize(UINT64_MAX), 5 * kBps / 2);
}

TEST_F(CppLayer, AHostMayKeepItsOwnTime)
{
    Upload upload = Begin().ValueOrThrow();
    standins::AdvanceClock(3600 * kUsPerSecond / 2); // the clock was set
    EXPECT_TRUE(upload.Moved(kBps, 0, kUsPerSecond / 4));
    EXPECT_THAT(standins::Sleeps(), ElementsAre(kUsPerSecond * 3 / 4));
}

TEST_F(CppLayer, RulesReadBeforehandServeWhereTheyCannotBeSeen)
{
    zevobw::Config config = zevobw::Config::Read(kAlice, ZEVO_BW_PROTOCOL_FTP).ValueOrThrow();
    ASSERT_EQ(std::distance(config.begin(), config.end()), 2);
    etc.Wipe();
    Upload upload =
        Upload::Begin(std::move(config), ZEVO_BW_TRANSFER_UPLOAD, "/a file").ValueOrThrow();
    EXPECT_EQ(Listed(), kBoth);
    EXPECT_TRUE(upload.Moved(kBps, 0));
    EXPECT_THAT(standins::Sleeps(), ElementsAre(kSecondUs));
}

// ---- what runs ----

TEST_F(CppLayer, ARangeListsAnOwnersTransfersAndDropsStaleOnes)
{
    const FiledTransfer fresh{.pid = 5, .speed = 10};
    const FiledTransfer down{.pid = 6, .speed = 20, .transfer = "download"};
    const FiledTransfer stale{.pid = 7, .timestamp = kNow - 31};
    box.Write("user-2001", fresh.Text() + stale.Text() + down.Text());

    std::vector<int> pids;
    for (const auto &transfer : zevobw::Transfers(ZEVO_BW_OWNER_USER, kAlice))
        pids.push_back(transfer.pid);
    EXPECT_THAT(pids, ElementsAre(6, 5));
    EXPECT_EQ(box.Read("user-2001").find(stale.Name()), std::string::npos);

    zevobw::Transfers some(ZEVO_BW_OWNER_USER, kAlice, ZEVO_BW_PROTOCOL_FTP,
                           ZEVO_BW_TRANSFER_DOWNLOAD);
    EXPECT_EQ(some.size(), 1U);
    some = zevobw::Transfers::FromFile(box.Path("user-2001"), zevobw::Transfers::kEveryProtocol,
                                       ZEVO_BW_TRANSFER_ALL, true);
    EXPECT_EQ(some.size(), 2U);
    EXPECT_TRUE(std::any_of(some.begin(), some.end(), [](const ZEVO_BANDWIDTH_STATUS &transfer) {
        return transfer.current_speed == 20;
    }));
    const zevobw::Transfers nobodys(ZEVO_BW_OWNER_GROUP, kGuests);
    EXPECT_TRUE(nobodys.empty());
    EXPECT_TRUE(nobodys.outcome()) << "no file is no failure";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(CppLayer, ARangeThatCannotBeReadIsEmptyAndSaysWhy)
{
    box.Write("user-2001", FiledTransfer{}.Text());
    FailNext(Call::Open, EACCES);
    const zevobw::Transfers transfers(ZEVO_BW_OWNER_USER, kAlice);
    EXPECT_EQ(transfers.begin(), transfers.end());
    EXPECT_FALSE(transfers.outcome());
    EXPECT_EQ(transfers.outcome().error().code(), 0x0900U);
    TakeLog();
}

} // namespace
