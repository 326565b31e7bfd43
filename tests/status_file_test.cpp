// Running transfers on disk: what a save writes, what a rewrite keeps, and what it does where
// other processes write at the same time and strangers have put something in its way.
#include "library_box.hpp"

#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace standins;
using namespace testing;

namespace {

std::atomic<int> maskChanges{0};

// What writers sleep while they wait for their turn.
int64_t waitedUs = 0;
std::function<void()> duringWait; // called once, at the next such sleep

} // namespace

#pragma GCC visibility push(default)
// The creation mask belongs to the host: is it touched?
extern "C" mode_t umask(mode_t mask) noexcept
{
    static const auto real = reinterpret_cast<decltype(&::umask)>(::dlsym(RTLD_NEXT, "umask"));
    ++maskChanges;
    return real(mask);
}

extern "C" int clock_nanosleep(clockid_t, int, const struct timespec *pTime, struct timespec *)
{
    waitedUs += pTime->tv_nsec / 1000;
    if (const auto action = std::exchange(duringWait, nullptr)) action();
    return 0;
}
#pragma GCC visibility pop

namespace {

constexpr char kConvert[] = "bandwidth_status_convert.cpp";
constexpr char kRewrite[] = "bandwidth_status_set_section.cpp";
constexpr char kAppend[] = "bandwidth_status_add_section.cpp";

mode_t ModeOf(const char *szPath)
{
    struct stat status = {};
    EXPECT_EQ(::lstat(szPath, &status), 0) << szPath;
    return status.st_mode & 07777;
}

// ---- record and hash ----

class StatusConversion : public LibraryTest {};

TEST_F(StatusConversion, ATransferBecomesItsTwelveKeysTheTimeStampLast)
{
    Hash hash{{"left over", ""}};
    ZEVO_BANDWIDTH_STATUS status = Record({});
    status.pid = -1;
    status.id = 4294967295U;
    status.timestamp = -5;
    status.expect_speed = 18446744073709551615U;
    status.owner_type = ZEVO_BW_OWNER_ALL;
    status.progress = 10000;
    EXPECT_EQ(ZEVOBandwidthInitHashFromStatus(hash.address(), &status), 0);
    EXPECT_EQ(hash.Text(), "[s]\npid=-1\nid=4294967295\nuid=2001\nactive=1\n"
                           "current speed=1000\nexpect speed=18446744073709551615\n"
                           "filename=/a file\nowner type=all\nprotocol type=ftp\n"
                           "transfer type=upload\nprogress=10000\ntimestamp=-5\n");
    EXPECT_THAT(TakeLog(), IsEmpty());
    status.transfer_type = 3;
    EXPECT_EQ(ZEVOBandwidthInitHashFromStatus(hash.address(), &status), 0);
    EXPECT_EQ(hash["transfer type"], "(absent)");
    EXPECT_EQ(LastLine(), "bandwidth_status_convert.cpp:# Unknown value [3] for [transfer type]");
}

TEST_F(StatusConversion, TheSignedNumbersIgnoreWhatFollowsAndTheUnsignedOnesFailOnIt)
{
    const struct {
        const char *szKey, *szText, *szRead;
        int failingRow; // -1 for none
    } kRows[] = {
        {"pid", "12abc", "12", -1},
        {"pid", "-1", "-1", -1},
        {"timestamp", "", "0", -1},
        {"timestamp", "8 o'clock", "8", -1},
        {"id", "4294967296", "0", -1},
        {"id", "-1", "4294967295", -1},
        {"uid", "7 ", "7", 2},
        {"active", "0x", "0", 3},
        {"current speed", "12abc", "12", 5},
        {"expect speed", "1.5", "1", 6},
        {"progress", "100%", "100", 11},
        {"owner type", "nobody", "user", -1}, // as before
        {"owner type", "group", "group", -1},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szKey + std::string("=") + row.szText);
        const bool fails = row.failingRow >= 0;
        const Hash hash{{row.szKey, row.szText}};
        Hash after;
        ZEVO_BANDWIDTH_STATUS status = Record({});
        (void)TakeLog();
        EXPECT_EQ(ZEVOBandwidthInitStatusFromHash(&status, hash.get()), fails ? -1 : 0);
        if (fails) {
            ExpectSlot(0x4000, kConvert);
            EXPECT_EQ(TakeLog(), Told(kConvert, {"parm_table[" + std::to_string(row.failingRow) +
                                                 "].fnFromHashStr failed."}));
        }
        EXPECT_EQ(ZEVOBandwidthInitHashFromStatus(after.address(), &status), 0);
        EXPECT_EQ(after[row.szKey], row.szRead);
        EXPECT_EQ(after["filename"], "/a file");
    }
}

TEST_F(StatusConversion, ATextWithoutItsEndIsNotReadBeyondItsField)
{
    ZEVO_BANDWIDTH_STATUS status = Record({});
    std::memset(status.filename, 'n', sizeof(status.filename));
    Hash hash;
    EXPECT_EQ(ZEVOBandwidthInitHashFromStatus(hash.address(), &status), 0);
    EXPECT_EQ(hash["filename"], std::string(4095, 'n'));
    ZEVO_BANDWIDTH_CONF rule = Limit(ZEVO_BW_OWNER_USER, kAlice, 1).conf;
    std::memset(rule.szSchedulePlan, '1', sizeof(rule.szSchedulePlan));
    EXPECT_EQ(ZEVOBandwidthInitHashFromConf(hash.address(), &rule), 0);
    EXPECT_EQ(hash["schedule plan"], std::string(255, '1'));
}

// ---- saving ----

class StatusSave : public LibraryTest {
protected:
    StatusSave()
    {
        limits[0] = Limit(ZEVO_BW_OWNER_USER, kAlice, 1);
        limits[0].occupyWeight = 10000;
        limits[1] = Limit(ZEVO_BW_OWNER_GROUP, kStaff, 1);
        limits[1].occupyWeight = 5000;
        limits[1].maxSpeedBps = 3333;
        limits[2] = Limit(ZEVO_BW_OWNER_GROUP, kGuests, 1);
        config.pLimit = limits;
        config.iLimit = 3;
        config.blGroupConfExist = 1;
    }
    int Save() { return ZEVOBandwidthStatusSave(kAlice, &config, &status); }
    void ExpectGivenBack() const
    {
        EXPECT_EQ(status.owner_type, 1U);
        EXPECT_EQ(status.id, kAlice);
        EXPECT_EQ(status.current_speed, 1001U);
        EXPECT_EQ(status.expect_speed, 2000U);
    }

    FiledTransfer transfer{4711, kAlice, 1001};
    ZEVO_BANDWIDTH_STATUS status = Record(transfer);
    ZEVO_BANDWIDTH_LIMIT limits[3] = {};
    ZEVO_BANDWIDTH_CONFIG config = {};
};

TEST_F(StatusSave, TheFirstOneMakesEverythingForEverybodyAndLaterOnesLeaveTheMaskAlone)
{
    box.Wipe();
    ::umask(077);
    const int before = maskChanges;
    EXPECT_EQ(Save(), 0);
    EXPECT_EQ(ModeOf("/tmp/bandwidth"), 0777U);
    EXPECT_EQ(ModeOf(box.Path("user-2001")), 0666U);
    EXPECT_EQ(ModeOf(box.Path("group-3001")), 0666U);
    EXPECT_EQ(box.Read("user-2001"), "\n" + transfer.Text());

    status.current_speed = transfer.speed = 9;
    EXPECT_EQ(Save(), 0);
    EXPECT_EQ(box.Read("user-2001"), "\n" + transfer.Text());
    status.pid = 4712; // appended
    EXPECT_EQ(Save(), 0);
    EXPECT_EQ(maskChanges, before);
    EXPECT_EQ(::umask(022), 077U);
    EXPECT_THAT(box.Files(), ElementsAre("group-3001", "user-2001"));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(StatusSave, EachOccupiedGroupGetsItsShareAndTheRecordIsGivenBack)
{
    EXPECT_EQ(Save(), 0);
    FiledTransfer copy = transfer;
    copy.owner = "group";
    copy.id = kStaff;
    copy.speed = 500;
    copy.expect = 3333;
    EXPECT_EQ(box.Read("group-3001"), "\n" + copy.Text());
    EXPECT_THAT(box.Files(), ElementsAre("group-3001", "user-2001"));
    ExpectGivenBack();

    box.Make();
    config.blGroupConfExist = 0;
    EXPECT_EQ(Save(), 0);
    EXPECT_EQ(ZEVOBandwidthStatusSave(kAlice, nullptr, &status), 0);
    EXPECT_THAT(box.Files(), ElementsAre("user-2001"));
}

TEST_F(StatusSave, AFailureInTheGroupsStopsThereAndGivesTheRecordBack)
{
    const std::string slot = " failed. [0x0900 bandwidth_status_set_section.cpp:#]";
    limits[2].occupyWeight = 1;
    ASSERT_EQ(::mkdir(box.Path("group-3001"), 0755), 0);
    EXPECT_EQ(Save(), -1);
    ExpectSlot(0x0900, kRewrite);
    EXPECT_EQ(TakeLog(), Told("bandwidth_status_save.cpp",
                              {"Save section [4711-1] to [/tmp/bandwidth/group-3001]" + slot,
                               "Save record for uid: [2001], section:[4711-1]" + slot}));
    EXPECT_THAT(box.Files(), ElementsAre("group-3001", "user-2001"));
    ExpectGivenBack();
}

TEST_F(StatusSave, AFailureSaysWhereItFailed)
{
    constexpr char kMine[] = "bandwidth_status_save.cpp";
    const std::string file = box.Path("user-2001");
    // The line that tells what failed; the one that passes it on follows.
    const auto expectFailure = [&](const std::string &line, const std::string &slot) {
        SCOPED_TRACE(line);
        EXPECT_EQ(ZEVOBandwidthStatusSave(kAlice, nullptr, &status), -1);
        EXPECT_EQ(TakeLog(), Told(kMine, {line, "Save record for uid: [2001], section:[4711-1] "
                                                "failed. [" +
                                                    slot + "]"}));
    };
    platform::FailNextHashAlloc();
    EXPECT_EQ(ZEVOBandwidthStatusSave(1, nullptr, &status), -1);
    ExpectSlot(0x0200, kMine);
    EXPECT_EQ(TakeLog(), Told(kMine, {"VLIBCSzHashAlloc failed.[0x0200 platform:1]"}));
    platform::FailHashSet("uid");
    ExpectFails(ZEVOBandwidthStatusSave(1, nullptr, &status), "status_save",
                "Init hash from status failed. [0x0200 platform:1]");
    platform::FailHashSet("");

    FailNth(Call::Open, 1, EACCES);
    FailNext(Call::Stat, EACCES);
    expectFailure("stat [/tmp/bandwidth/] failed. Permission denied",
                  "0x2700 bandwidth_status_save.cpp:#");
    EXPECT_EQ(box.FileCount(), 0);
    FailNext(Call::Write, ENOSPC);
    const std::string append = "0x0B00 bandwidth_status_add_section.cpp:#";
    expectFailure("Add section [4711-1] to [" + file + "] failed. [" + append + "]", append);

    box.Wipe();
    FailNext(Call::Mkdir, EROFS);
    const std::string noDirectory = "0x0900 directory.cpp:#";
    expectFailure("ZEVOFSMkdirP failed. [/tmp/bandwidth/] [" + noDirectory + "]", noDirectory);
}

TEST_F(StatusSave, WhatIsNoDirectoryIsNeverWrittenThrough)
{
    box.Wipe();
    Box elsewhere("/tmp/elsewhere");
    elsewhere.Make();
    for (const bool isLink : {true, false}) {
        SCOPED_TRACE(isLink ? "link" : "file");
        if (isLink)
            ASSERT_EQ(::symlink(elsewhere.c_str(), "/tmp/bandwidth"), 0);
        else
            Box("/tmp").Write("bandwidth", "");
        EXPECT_EQ(Save(), -1);
        EXPECT_EQ(FirstLine(), "bandwidth_status_save.cpp:# ZEVOFSMkdirP failed. "
                               "[/tmp/bandwidth/] [0x0900 bandwidth_status_save.cpp:#]");
        EXPECT_EQ(elsewhere.FileCount(), 0);
        EXPECT_EQ(::unlink("/tmp/bandwidth"), 0);
    }
    elsewhere.Wipe();
}

TEST_F(StatusSave, AFileThatAnotherProcessMakesMeanwhileIsUsed)
{
    box.Wipe();
    Before(Call::Chmod, 1, [&] { // of the directory that is being made
        box.Make();
        ASSERT_EQ(::chmod(box.c_str(), 0777), 0);
        Before(Call::Chmod, 1, [&] { box.Write("user-2001", "[5-2]\nb=2\n"); });
    });
    EXPECT_EQ(ZEVOBandwidthStatusSave(kAlice, nullptr, &status), 0);
    EXPECT_THAT(box.Read("user-2001"), HasSubstr("[5-2]\nb=2\n[4711-1]\n"));
    EXPECT_EQ(box.FileCount(), 1);
    EXPECT_THAT(Box("/tmp").Files(), Not(Contains(StartsWith("bandwidth."))));
}

// ---- rewriting ----

constexpr char kTwo[] = "# hand-made\n\n[4711-1]\n; mine\npid=4711\n\n#  too\nactive=1\n[5-2]\n"
                        "foreign \x01\xff bytes\n\nactive=0\n# last";

class StatusRewrite : public LibraryTest {
protected:
    int Set(const char *szSection = "4711-1")
    {
        return ZEVOBandwidthStatusSetSection(Path(), szSection, hash.get());
    }
    int Remove(const char *szSection = "4711-1")
    {
        return ZEVOBandwidthStatusRemoveSection(Path(), szSection);
    }
    int Add(const char *szSection = "4711-1")
    {
        return ZEVOBandwidthStatusAddSection(Path(), szSection, hash.get());
    }
    const char *Path() { return box.Path("user-2001"); }
    void Write(const std::string &text)
    {
        box.Write("user-2001", text);
        EXPECT_EQ(::chmod(Path(), 0666), 0); // as the library makes it
    }
    std::string Read() { return box.Read("user-2001"); }
    // As another writer does; -1 when the lock is held.
    int TakeTurn()
    {
        const int fd = ::open(Path(), O_RDONLY | O_CLOEXEC);
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return fd;
        ::close(fd);
        return -1;
    }

    const Hash hash{{"pid", "4711"}, {"active", "0"}};
};

TEST_F(StatusRewrite, ASectionIsReplacedAndAllElseStaysByteForByte)
{
    Write(kTwo);
    ASSERT_EQ(::chmod(Path(), 06642), 0);
    EXPECT_EQ(Set(), 1);
    EXPECT_EQ(Read(), "# hand-made\n\n[4711-1]\npid=4711\nactive=0\n; mine\n#  too\n[5-2]\n"
                      "foreign \x01\xff bytes\n\nactive=0\n# last");
    EXPECT_EQ(ModeOf(Path()), 0642U) << "no set-id bits on a file of ours";
    EXPECT_EQ(Set("5-2"), 1);
    EXPECT_EQ(Read(), "# hand-made\n\n[4711-1]\npid=4711\nactive=0\n; mine\n#  too\n[5-2]\n"
                      "pid=4711\nactive=0\n# last");
    EXPECT_EQ(Remove(), 1);
    EXPECT_EQ(Read(), "# hand-made\n\n; mine\n#  too\n[5-2]\npid=4711\nactive=0\n# last");
    EXPECT_EQ(box.FileCount(), 1);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(StatusRewrite, WhatIsNotThereIsRecordedAndTheFileLeftAlone)
{
    Write(kTwo);
    struct stat before = {};
    ASSERT_EQ(::stat(Path(), &before), 0);
    for (const auto &call : {std::function<int()>([&] { return Set("4711-2"); }),
                             std::function<int()>([&] { return Remove("471-1"); })}) {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(call(), 0);
        ExpectSlot(0x2000, kRewrite);
    }
    struct stat after = {};
    ASSERT_EQ(::stat(Path(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(Read(), kTwo);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(StatusRewrite, AFailureLeavesTheOldFileAndNoTemporaryOne)
{
    const struct {
        Call call;
        int nth, error;
        unsigned code;
    } kRows[] = {
        {Call::Open, 2, EACCES, 0x0900}, // the directory is opened first
        {Call::Stat, 1, EIO, 0x2700},    // of the open file
        {Call::Read, 1, EIO, 0x0A00},     {Call::Open, 3, EACCES, 0x0900}, // the temporary file
        {Call::Write, 1, ENOSPC, 0x0B00}, {Call::Fsync, 1, EIO, 0x0B00},
        {Call::Chmod, 1, EPERM, 0x0B00},  {Call::Rename, 1, EACCES, 0x2800}, //
    };
    Write(kTwo);
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.code);
        for (const auto &call : {std::function<int()>([&] { return Set(); }),
                                 std::function<int()>([&] { return Remove(); })}) {
            standins::Reset();
            FailNth(row.call, row.nth, row.error);
            EXPECT_EQ(call(), -1);
            ExpectSlot(row.code, kRewrite);
            EXPECT_EQ(Read(), kTwo);
            EXPECT_EQ(box.FileCount(), 1);
        }
    }
    EXPECT_THAT(TakeLog(), IsEmpty()) << "the caller tells";
}

TEST_F(StatusRewrite, WhatTheLibraryDidNotMakeIsReplacedAndNeverChangedInPlace)
{
    for (const bool isLinked : {true, false}) { // a second name, or a private file moved there
        SCOPED_TRACE(isLinked);
        Write(kTwo);
        ASSERT_EQ(::chmod(Path(), isLinked ? 0666 : 0600), 0);
        const int fd = ::open(Path(), O_RDONLY | O_CLOEXEC);
        ASSERT_TRUE(!isLinked || ::link(Path(), box.Path("elsewhere")) == 0);
        EXPECT_EQ(Add("1-2"), 1);
        char text[1000] = {};
        EXPECT_GT(::pread(fd, text, sizeof(text) - 1, 0), 0);
        ::close(fd);
        EXPECT_EQ(std::string(text), kTwo) << "the old file";
        EXPECT_EQ(Read(), kTwo + ("\n" + hash.Text().replace(1, 1, "1-2")));
        EXPECT_EQ(ModeOf(Path()), isLinked ? 0666U : 0600U);
        (void)::unlink(box.Path("elsewhere"));
        EXPECT_THAT(box.Files(), ElementsAre("user-2001"));
    }
}

TEST_F(StatusRewrite, ATemporaryFileThatSomebodyRemovesIsMadeAgain)
{
    Write(kTwo);
    Before(Call::Rename, 1, [&] {
        for (const std::string &name : box.Files())
            EXPECT_TRUE(name == "user-2001" || ::unlink(box.Path(name)) == 0);
    });
    EXPECT_EQ(Set("5-2"), 1);
    EXPECT_THAT(Read(), HasSubstr("[5-2]\npid=4711\n"));
    EXPECT_EQ(box.FileCount(), 1);
}

// ---- beside other processes ----

TEST_F(StatusRewrite, WhatAnotherProcessDidMeanwhileIsNotLost)
{
    const struct {
        const char *szWhat;
        std::function<void()> Act;
        std::string text;
    } kRows[] = {
        {"replaced", [&] { EXPECT_EQ(Remove("5-2"), 1); }, "[4711-1]\npid=4711\nactive=0\n"},
        {"appended", [&] { EXPECT_EQ(Add("6-1"), 1); },
         "[4711-1]\npid=4711\nactive=0\n[5-2]\nb=2\n[6-1]\npid=4711\nactive=0\n"},
        {"nothing", [] {}, "[4711-1]\npid=4711\nactive=0\n[5-2]\nb=2\n"},
        {"removed", [&] { EXPECT_EQ(Remove(), 1); }, "[5-2]\nb=2\n"}, // and not put back
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szWhat);
        Write("[4711-1]\na=1\n[5-2]\nb=2\n");
        Before(Call::Fsync, 1, row.Act);
        EXPECT_EQ(Set(), row.szWhat == std::string("removed") ? 0 : 1);
        EXPECT_EQ(Read(), row.text);
        EXPECT_EQ(box.FileCount(), 1);
    }
}

TEST_F(StatusRewrite, AfterFiveDefeatsTheLaterRenameWins)
{
    Write("[4711-1]\na=1\n");
    int defeats = 0;
    const std::function<void()> beFaster = [&] {
        if (standins::Count(Call::Rename) != 0) return; // over: the mode that stays
        Write("[4711-1]\na=1\n#" + std::string(static_cast<size_t>(++defeats), 'x') + "\n");
        Before(Call::Chmod, 1, beFaster);
    };
    Before(Call::Chmod, 1, beFaster);
    EXPECT_EQ(Set(), 1);
    EXPECT_EQ(defeats, 6);
    EXPECT_EQ(Read(), "[4711-1]\npid=4711\nactive=0\n#xxxxx\n");
    EXPECT_EQ(standins::Count(Call::Rename), 1);
    EXPECT_EQ(box.FileCount(), 1);
}

TEST_F(StatusRewrite, AWriterThatHasTheTurnIsWaitedForButNotForever)
{
    const std::string foreign = "[9-2]\nc=3\n";
    const struct {
        std::string before;
        std::function<int()> Change;
    } kRows[] = {
        {"[4711-1]\na=1\n", [&] { return Set(); }},
        {"", [&] { return Add(); }},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.before);
        Write(row.before);
        int turn = TakeTurn();
        waitedUs = 0;
        duringWait = [&] {
            box.Write("new", row.before + foreign);
            EXPECT_EQ(std::rename(box.Path("new"), Path()), 0);
            ::close(turn);
        };
        EXPECT_EQ(row.Change(), 1);
        EXPECT_THAT(Read(), AllOf(HasSubstr(foreign), HasSubstr("pid=4711\n")));
        EXPECT_GT(waitedUs, 0);
        EXPECT_EQ(box.FileCount(), 1);

        Write(row.before);
        turn = TakeTurn(); // by a process that hangs
        waitedUs = 0;
        EXPECT_EQ(row.Change(), 1);
        EXPECT_THAT(Read(), HasSubstr("pid=4711\n"));
        EXPECT_THAT(waitedUs, AllOf(Ge(20'000), Lt(27'000)));
        ::close(turn);
        EXPECT_THAT(standins::Sleeps(), IsEmpty()) << "the throttle loop's sleep is another one";
    }
}

// A child that is forked while the lock is held has a copy of the descriptor.
TEST_F(StatusRewrite, TheTurnEndsWithTheRewriteAlsoBesideAForkedChild)
{
    Write(kTwo);
    std::unique_ptr<Child> child;
    Before(Call::Read, 1, [&] { child = std::make_unique<Child>([] { return ::pause(); }); });
    EXPECT_EQ(Set(), 1);
    EXPECT_EQ(Add("6-1"), 1);
    const int turn = TakeTurn();
    EXPECT_GE(turn, 0) << "the child holds no lock";
    ::close(turn);
}

TEST_F(StatusRewrite, WhatComesAtAnyMomentBeforeTheLastLookCounts)
{
    const std::string other = "[4711-1]\na=1\n[9-2]\nc=3\n";
    for (const auto call : {Call::Stat, Call::Read, Call::Write, Call::Chmod}) {
        Write(kTwo);
        Before(call, 1, [&] {
            box.Write("new", other);
            EXPECT_EQ(std::rename(box.Path("new"), Path()), 0);
        });
        EXPECT_EQ(Set(), 1);
        EXPECT_EQ(Read(), "[4711-1]\npid=4711\nactive=0\n[9-2]\nc=3\n");
    }
}

// ---- appending ----

TEST_F(StatusRewrite, AnAppendStandsOnALineOfItsOwn)
{
    const std::string section = "[4711-1]\npid=4711\nactive=0\n";
    EXPECT_EQ(Add(), 1) << "a missing file is made";
    EXPECT_EQ(Read(), "\n" + section);
    const struct {
        std::string before, after;
    } kRows[] = {
        {"", "\n" + section},
        {"[5-2]\nb=2\n", "[5-2]\nb=2\n" + section},
        {"[5-2]\nb=2", "[5-2]\nb=2\n" + section},
        {"[4711-", "[4711-\n" + section}, // torn in the header
    };
    for (const auto &row : kRows) {
        Write(row.before);
        EXPECT_EQ(Add(), 1);
        EXPECT_EQ(Read(), row.after);
    }
    EXPECT_EQ(Add(), 0) << "there already";
    EXPECT_EQ(Read(), "[4711-\n" + section);
}

TEST_F(StatusRewrite, AnAppendIsOneWriteAndFailsWithIt)
{
    Write("[5-2]\n");
    standins::Reset();
    EXPECT_EQ(Add("6-1"), 1);
    EXPECT_EQ(standins::Count(Call::Write), 1);
    EXPECT_EQ(standins::Count(Call::Rename), 0);

    FailNext(Call::Fsync, EIO);
    EXPECT_EQ(Add("7-1"), 1) << "how soon it is on the disk is no promise";

    const std::string before = Read();
    FailNext(Call::Write, ENOSPC);
    EXPECT_EQ(Add(), -1);
    ExpectSlot(0x0B00, kAppend);
    EXPECT_EQ(Read(), before);
    CutNextWrite(11);
    EXPECT_EQ(Add(), -1);
    ExpectSlot(0x0B00, kAppend);
    EXPECT_EQ(Read(), before + "[4711-1]\npi");

    VLIBCErrSetEx(1, "before", 1);
    FailNext(Call::Read, EIO);
    EXPECT_EQ(Add(), -1);
    ExpectSlot(1, "before");
    FailNth(Call::Open, 2, EACCES);
    EXPECT_EQ(Add(), -1);
    ExpectSlot(0x0900, kAppend);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(StatusRewrite, AnAppendIntoAFileThatWasJustReplacedIsMadeAgain)
{
    Write("[5-2]\nb=2\n[6-1]\nc=3\n");
    Before(Call::Write, 1, [&] { EXPECT_EQ(Remove("5-2"), 1); });
    EXPECT_EQ(Add(), 1);
    EXPECT_EQ(Read(), "[6-1]\nc=3\n[4711-1]\npid=4711\nactive=0\n");
}

} // namespace
