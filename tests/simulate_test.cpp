// What a user would get, and a transfer that is played out, on a clock that the tests move.
#include "library_box.hpp"

#include <csignal>

#include <unistd.h>

using namespace standins;
using namespace testing;

namespace {

constexpr int kFtp = ZEVO_BW_PROTOCOL_FTP;

// Alice's own rule for FTP, and a policy that goes by it alone.
class OneUser : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        SetPolicy("enabled", "user-only");
        SetRates(8, 16);
    }
    void SetRates(uint64_t upload, uint64_t download)
    {
        SetRules(RuleText("user-2001", upload, download));
    }
    uint64_t speeds[3] = {1, 2, 3};
};

using Preview = OneUser;

TEST_F(Preview, GivesBothSpeedsWhateverIsRunning)
{
    box.Write("user-2001", FiledTransfer{.pid = 1}.Text() + FiledTransfer{.pid = 2}.Text());
    const std::string before = box.Read("user-2001");
    EXPECT_EQ(ZEVOBandwidthPreview(kAlice, kFtp, speeds), 0);
    EXPECT_THAT(speeds, ElementsAre(1U, 8192U, 16384U));
    EXPECT_EQ(box.Read("user-2001"), before);

    EXPECT_EQ(ZEVOBandwidthPreview(kBob, kFtp, speeds), 0);
    EXPECT_THAT(speeds, ElementsAre(1U, 0U, 0U)) << "no rule";
    speeds[1] = speeds[2] = 5;
    SetPolicy("disabled");
    EXPECT_EQ(ZEVOBandwidthPreview(kAlice, kFtp, speeds), 0);
    EXPECT_THAT(speeds, ElementsAre(1U, 0U, 0U)) << "no limits";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Preview, AFailureWritesNothing)
{
    EXPECT_EQ(ZEVOBandwidthPreview(kAlice, kFtp, nullptr), -1);
    ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, "bandwidth_preview.cpp");
    EXPECT_THAT(TakeLog(), Refusals("bandwidth_preview.cpp", {"NULL != pSpeedBps"}));

    ExpectFails(ZEVOBandwidthPreview(kAlice, ZEVO_BW_PROTOCOL_ALL, speeds), "preview",
                "ZEVOBandwidthConfigGet failed. uid:[2001] protocol_type:[15] [0x0D00 "
                "bandwidth_config_get.cpp:#]");

    Box("/usr/zevo/etc/bandwidth/addon").Make();
    etc.Write("addon/odd_9.json", "");
    SetPolicy("enabled", "odd"); // reads as 9, which is no policy
    EXPECT_EQ(ZEVOBandwidthPreview(kAlice, kFtp, speeds), -1);
    EXPECT_THAT(LastLine(), HasSubstr("bandwidth_preview.cpp:# "
                                      "ZEVOBandwidthExpectSpeedEstimateByPolicy failed. "
                                      "uid:[2001],  [0x"));
    EXPECT_THAT(speeds, ElementsAre(1U, 2U, 3U));
}

class Simulation : public OneUser {
protected:
    void SetUp() override
    {
        OneUser::SetUp();
        SetRates(64, 64); // a second a block, less the microsecond that a block takes at least
    }
    void TearDown() override
    {
        ::signal(SIGHUP, SIG_DFL);
        OneUser::TearDown();
    }
    static int Run(uint64_t sizeKB, const char *szUser = "alice")
    {
        return ZEVOBandwidthSimulate(szUser, kFtp, ZEVO_BW_TRANSFER_UPLOAD, sizeKB);
    }
    static std::string File(uint64_t sizeKB)
    {
        return "/volume1/public/" + std::to_string(::getpid()) + "-4-1-" + std::to_string(sizeKB);
    }
    bool IsListed() { return box.Read("user-2001").find(Section()) != std::string::npos; }
    static std::string Section() { return "[" + std::to_string(::getpid()) + "-1]"; }
    void Rewrite(const std::string &from, const std::string &to)
    {
        std::string text = box.Read("user-2001");
        const size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << text;
        box.Write("user-2001", text.replace(at, from.size(), to));
    }
};

TEST_F(Simulation, IsRegisteredHeldAndRemoved)
{
    std::string during;
    std::string last;
    Before(Call::Sleep, 2, [&] { during = box.Read("user-2001"); });
    Before(Call::Rename, 3, [&] { last = box.Read("user-2001"); }); // the removal
    EXPECT_EQ(Run(100), 0);
    EXPECT_THAT(Sleeps(), ElementsAre(999'999, 999'999));
    EXPECT_THAT(during, HasSubstr("filename=" + File(100) + "\n"));
    EXPECT_THAT(during, HasSubstr("expect speed=65536\n"));
    EXPECT_THAT(during, HasSubstr("progress=6400\n"));
    EXPECT_THAT(last, HasSubstr("progress=12800\n")) << "the last block overshoots";
    EXPECT_FALSE(IsListed());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Simulation, WithoutSizeIsRegisteredAndRemovedOnly)
{
    EXPECT_EQ(Run(0), 0);
    EXPECT_THAT(Sleeps(), IsEmpty());
    EXPECT_TRUE(box.Has("user-2001"));
    EXPECT_FALSE(IsListed());
}

TEST_F(Simulation, ANoticeIsObeyedBeforeTheNextBlock)
{
    Before(Call::Sleep, 2, [&] {
        SetRates(32, 32);
        ::raise(SIGHUP);
    });
    EXPECT_EQ(Run(256), 0);
    EXPECT_THAT(Sleeps(), ElementsAre(999'999, 999'999, 1'999'999, 1'999'999));
    EXPECT_THAT(TakeLog(), IsEmpty());

    Before(Call::Sleep, 1, [&] {
        etc.Write("bandwidth.ftp.conf", "[user-2001]\nupload rate=x\n");
        ::raise(SIGHUP);
    });
    ExpectFails(Run(256), "simulate",
                "Hup recv failed. user:[alice] file:[" + File(256) +
                    "] [0x4000 bandwidth_conf_convert.cpp:#]");
    EXPECT_TRUE(IsListed()) << "left to go stale";
}

TEST_F(Simulation, AStopEndsItAndLeavesItsSection)
{
    Before(Call::Sleep, 2, [&] { Rewrite("active=1", "active=0"); });
    EXPECT_EQ(Run(1024), -1);
    EXPECT_THAT(Sleeps(), SizeIs(2));
    EXPECT_TRUE(IsListed());
    EXPECT_EQ(LastLine(), "bandwidth_simulate.cpp:# Connection was closed. user:[alice] file:[" +
                              File(1024) + "] [0x0300 bandwidth_sleep_in_loop.cpp:#]");
}

TEST_F(Simulation, SaysWhatKeptItFromRunning)
{
    EXPECT_EQ(Run(64, "nobody-here"), -1);
    EXPECT_THAT(LastLine(), HasSubstr("bandwidth_simulate.cpp:# ZEVOUserGetUGID failed. "
                                      "user:[nobody-here] [0x"));
    ExpectFails(ZEVOBandwidthSimulate("alice", ZEVO_BW_PROTOCOL_ALL, 1, 64), "simulate",
                "ZEVOBandwidthConfigGet failed. uid:[2001] [0x0D00 bandwidth_config_get.cpp:#]");
    EXPECT_EQ(ZEVOBandwidthSimulate("alice", kFtp, ZEVO_BW_TRANSFER_ALL, 64), -1);
    EXPECT_THAT(LastLine(), HasSubstr("bandwidth_simulate.cpp:# ZEVOBandwidthStatusInit failed. "
                                      "user:[alice] file:[/volume1/public/"));
    EXPECT_THAT(box.Files(), IsEmpty());

    // The two blocks' saves are the first two renames, the third is the removal.
    standins::FailNth(Call::Rename, 3, EACCES);
    ExpectFails(
        Run(128), "simulate",
        "ZEVOBandwidthStatusRemove failed. uid:[2001] [0x2800 bandwidth_status_set_section.cpp:#]");
}

} // namespace
