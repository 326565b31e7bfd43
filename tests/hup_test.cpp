// Notices that limits have changed: who gets them, and what a transfer makes of one.
#include "library_box.hpp"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>

#include <sys/wait.h>
#include <unistd.h>

using namespace standins;
using namespace testing;

namespace {

constexpr char kFile[] = "bandwidth_hup.cpp";
constexpr int kEndedByHup = 128 + SIGHUP;
constexpr int kEndedByKill = 128 + SIGKILL;

// ---- sending ----

class Notice : public LibraryTest {};

// A process whose command line begins with that word, other words behind it.
class Worker {
public:
    explicit Worker(const std::string &word) : child_([&] { return Become(word); })
    {
        for (std::string line; line.rfind(word + '\0', 0) != 0; ::usleep(1000)) {
            std::ifstream in("/proc/" + std::to_string(child_.pid()) + "/cmdline");
            line.assign(std::istreambuf_iterator<char>(in), {});
        }
    }
    // How it ends when it is killed now: by that, or by what came before.
    int End()
    {
        while (HasPending()) // blocked while the shell starts a program; a kill would overtake it
            ::usleep(1000);
        child_.Signal(SIGKILL);
        return child_.Wait();
    }

private:
    bool HasPending() const
    {
        std::ifstream in("/proc/" + std::to_string(child_.pid()) + "/status");
        unsigned long signals = 0;
        for (std::string word; in >> word;) {
            if (word == "State:" && in >> word && word == "Z") return false;
            if (word == "ShdPnd:") in >> std::hex >> signals;
        }
        return signals != 0;
    }
    static int Become(const std::string &word)
    {
        ::signal(SIGHUP, SIG_DFL);
        ::execl("/bin/sh", word.c_str(), "-c", "while :; do sleep 1; done", "ZEVO.Docuhall.Upload",
                nullptr);
        return 1;
    }
    Child child_;
};

TEST_F(Notice, TheWebFileManagersWorkersAreKnownByTheirFirstWord)
{
    const std::string upload = "ZEVO.Docuhall.Upload";
    const struct {
        std::string word;
        int end;
    } kRows[] = {
        {"ZEVO.Docuhall.Download", kEndedByHup},
        {upload, kEndedByHup},
        {"ZEVO.Docuhall.FormUpload", kEndedByHup},
        {"/usr/lib/ZEVO.Docuhall.CopyMove-2", kEndedByHup},
        {"some-shell", kEndedByKill}, // has the name in a later word only
        {"ZEVO.Docuhall.Uploa", kEndedByKill},
        {"zevo.docuhall.upload", kEndedByKill},
        {std::string(127 - upload.size(), 'x') + upload, kEndedByHup},
        {std::string(128 - upload.size(), 'x') + upload, kEndedByKill}, // cut in the name
        {std::string(127, 'x') + upload, kEndedByKill},
        {"line\n" + upload, kEndedByKill}, // only the first line counts
    };
    std::vector<std::unique_ptr<Worker>> workers;
    for (const auto &row : kRows)
        workers.push_back(std::make_unique<Worker>(row.word));
    ZEVOBandwidthHupDocuhall();
    for (size_t i = 0; i < workers.size(); ++i)
        EXPECT_EQ(workers[i]->End(), kRows[i].end) << kRows[i].word;
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Notice, TheWebDAVServersWholeProcessGroupGetsIt)
{
    Box run("/run/httpd");
    run.Make();
    EXPECT_EQ(ZEVOBandwidthHupWebDAV(), 0) << "no server";
    for (const char *szText : {"", "0", "1\n", "-5", "12 13", "httpd"}) {
        run.Write("httpd-webdav.pid", szText);
        EXPECT_EQ(ZEVOBandwidthHupWebDAV(), 0) << szText;
    }

    // The leader lives on and sees its own child, which does not, end by the signal.
    Child server([&] {
        ::setpgid(0, 0);
        sigset_t usr2;
        ::sigemptyset(&usr2);
        ::sigaddset(&usr2, SIGUSR2);
        const pid_t member = ::fork();
        if (member == 0) {
            run.Write("ready", "");
            for (;;)
                ::pause();
        }
        ::sigprocmask(SIG_BLOCK, &usr2, nullptr);
        run.Write("httpd-webdav.pid", std::to_string(::getpid()) + "\n");
        int number = 0;
        ::sigwait(&usr2, &number);
        int status = 0;
        ::waitpid(member, &status, 0);
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGUSR2 ? 42 : 1;
    });
    while (!run.Has("ready") || run.Read("httpd-webdav.pid") != std::to_string(server.pid()) + "\n")
        ::usleep(1000);
    EXPECT_EQ(ZEVOBandwidthHupWebDAV(), 0);
    EXPECT_EQ(server.Wait(), 42);
    errno = 0;
    EXPECT_EQ(ZEVOBandwidthHupWebDAV(), -1) << "the server has gone";
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(Notice, TheSimulatorsAreReachedByTheSystemsProgram)
{
    EXPECT_EQ(ZEVOBandwidthHupSimulator(), 7) << "the program's own result";
    EXPECT_THAT(platform::Executed(), ElementsAre("/usr/bin/killall -sighup zevobandwidth"));
}

// ---- receiving ----

// Alice's upload, registered under her own rule and charged to the group staff.
class Reload : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        SetPolicy("enabled");
        SetRates(100, 100);
        ASSERT_EQ(ZEVOBandwidthConfigGet(kAlice, 4, &config), 0);
        ASSERT_EQ(ZEVOBandwidthStatusInit(&config, 1, "/a file", &timeLast, &status), 0);
        ASSERT_EQ(Listed(), "user group");
        standins::AdvanceClock(500);
        timeLast = 5;
    }
    void TearDown() override
    {
        ZEVOBandwidthConfigFree(&config);
        LibraryTest::TearDown();
    }

    void SetRates(uint64_t user, uint64_t group, const std::string &state = "enabled")
    {
        SetRules(RuleText("user-2001", user, 0, state) + RuleText("group-3001", group, 0, state));
    }
    int Recv() { return ZEVOBandwidthHupRecv(&config, &status, &timeLast); }

    // Where the transfer stands.
    std::string Listed()
    {
        const std::string header = "[" + std::to_string(::getpid()) + "-1]";
        const bool user = box.Read("user-2001").find(header) != std::string::npos;
        const bool group = box.Read("group-3001").find(header) != std::string::npos;
        return std::string(user ? "user" : "") + (user && group ? " " : "") +
               (group ? "group" : "");
    }
    void ExpectNow() { EXPECT_EQ(timeLast, static_cast<uint64_t>(standins::ClockUs())); }

    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_STATUS status = {};
    uint64_t timeLast = 0;
};

TEST_F(Reload, ATransferThatStaysLimitedKeepsItsUsersSection)
{
    SetRates(200, 50);
    const std::string before = box.Read("user-2001");
    EXPECT_EQ(Recv(), 0);
    ExpectNow();
    EXPECT_EQ(Listed(), "user");
    EXPECT_EQ(box.Read("user-2001"), before);
    ASSERT_EQ(config.iLimit, 2);
    EXPECT_EQ(config.pLimit[0].conf.currentUploadRate, 200U);
    EXPECT_EQ(config.pLimit[1].conf.currentUploadRate, 50U);
    EXPECT_EQ(status.expect_speed, 100 * 1024U) << "the loop works it out";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Reload, ATransferThatIsNoLongerLimitedIsTakenAway)
{
    const struct {
        const char *szWhat;
        std::function<void()> Change;
        int32_t currentState, entries;
    } kRows[] = {
        {"disabled", [&] { SetPolicy("disabled"); }, 2, 0},
        {"not in this hour", [&] { SetPolicy("schedule", "min", std::string(168, '0')); }, 2, 2},
        {"no rule", [&] { SetRates(1, 1, "disabled"); }, 1, 0},
        {"no rule in force", [&] { SetRates(0, 0, "NotExisted"); }, 1, 0},
        {"no rate", [&] { SetRates(0, 0); }, 1, 2},
        {"no policy",
         [&] {
             etc.Write("bandwidth.global.conf", "");
             SetRates(0, 0);
         },
         0, 2},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWhat);
        TearDown();
        SetUp();
        row.Change();
        EXPECT_EQ(Recv(), 0);
        ExpectNow();
        EXPECT_EQ(Listed(), "");
        EXPECT_EQ(config.globalConf.currentState, row.currentState);
        EXPECT_EQ(config.iLimit, row.entries);
        EXPECT_EQ(config.uid, kAlice);
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
}

TEST_F(Reload, WhereTheNewSpeedCannotBeToldTheTransferStays)
{
    Box("/usr/zevo/etc/bandwidth/addon").Make();
    etc.Write("addon/odd_9.json", ""); // a policy by that name reads as 9, which nobody knows
    SetPolicy("enabled", "odd");
    EXPECT_EQ(Recv(), 0);
    EXPECT_EQ(Listed(), "user");
    EXPECT_EQ(config.globalConf.userGroupPolicy, 9);
    EXPECT_THAT(TakeLog(), ElementsAre("bandwidth_expect_speed_estimate_by_policy.cpp:# unknown "
                                       "group policy [9] "));
}

TEST_F(Reload, AFailureKeepsTheOldConfigurationAndTheNewTime)
{
    const ZEVO_BANDWIDTH_LIMIT *const pBefore = config.pLimit;
    FailNext(Call::Rename, EACCES);
    EXPECT_EQ(Recv(), -1);
    ExpectNow();
    EXPECT_EQ(Listed(), "user group");
    EXPECT_EQ(LastLine(), "bandwidth_hup.cpp:# ZEVOBandwidthStatusRemove failed. uid:[2001] "
                          "[0x2800 bandwidth_status_set_section.cpp:#]");

    etc.Write("bandwidth.ftp.conf", "[user-2001]\nupload rate=x\n");
    timeLast = 5;
    EXPECT_EQ(Recv(), -1);
    ExpectNow();
    EXPECT_EQ(Listed(), "user") << "the group's copy had gone before";
    EXPECT_EQ(LastLine(), "bandwidth_hup.cpp:# ZEVOBandwidthConfigGet failed. uid:[2001] "
                          "[0x4000 bandwidth_conf_convert.cpp:#]");
    EXPECT_EQ(config.pLimit, pBefore);
    EXPECT_EQ(config.iLimit, 2);
    EXPECT_EQ(config.pLimit[0].conf.currentUploadRate, 100U);
}

TEST_F(Reload, ARemovalThatFailsAtTheEndIsLeftToTheOthers)
{
    SetPolicy("disabled");
    standins::FailNth(Call::Rename, 2, EACCES); // the first takes the group's copy away
    EXPECT_EQ(Recv(), 0);
    EXPECT_EQ(Listed(), "user");
    EXPECT_EQ(config.iLimit, 0);
    for (const std::string &line : TakeLog())
        EXPECT_EQ(line.find(kFile), std::string::npos) << line;
}

} // namespace
