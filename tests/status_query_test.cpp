// Listing and reading running transfers, clearing dead ones on the way, taking transfers away and
// stopping them.
#include "library_box.hpp"

#include <algorithm>
#include <cstring>

#include <fcntl.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace standins;
using namespace testing;

namespace {

constexpr char kRemoveFile[] = "bandwidth_status_remove.cpp";

class Query : public LibraryTest {
protected:
    // As other processes do: the name leads to another file.
    void Replace(const std::string &text)
    {
        box.Write("new", text);
        EXPECT_EQ(::rename(box.Path("new"), Path()), 0);
    }
    const char *Path() { return box.Path("user-2001"); }
    void Write(const std::vector<FiledTransfer> &transfers)
    {
        std::string text;
        for (const FiledTransfer &transfer : transfers)
            text += transfer.Text();
        box.Write("user-2001", text);
    }

    // The listed transfers in their order: "pid:current speed/expect speed".
    Lines List(int32_t protocolMask = 15, uint32_t transferMask = 3, int32_t merge = 0)
    {
        ZEVO_BANDWIDTH_STATUS *pList = nullptr;
        const int count =
            ZEVOBandwidthIStatusGetAll(Path(), protocolMask, transferMask, &pList, merge);
        Lines listed;
        for (const ZEVO_BANDWIDTH_STATUS *p = pList; p != nullptr; p = p->next)
            listed.push_back(std::to_string(p->pid) + ":" + std::to_string(p->current_speed) + "/" +
                             std::to_string(p->expect_speed));
        EXPECT_EQ(count, static_cast<int>(listed.size()));
        ZEVOBandwidthStatusListFree(&pList);
        EXPECT_EQ(pList, nullptr);
        return listed;
    }
};

FiledTransfer Of(int pid, const char *szProtocol, const char *szDirection = "upload",
                 uint64_t speed = 100, uint64_t expect = 1000)
{
    FiledTransfer transfer{pid, kAlice, speed};
    transfer.protocol = szProtocol;
    transfer.transfer = szDirection;
    transfer.expect = expect;
    return transfer;
}

FiledTransfer Aged(int pid, int64_t seconds, const char *szProtocol = "ftp")
{
    FiledTransfer transfer = Of(pid, szProtocol);
    transfer.timestamp = kNow - seconds;
    return transfer;
}

// ---- listing ----

TEST_F(Query, TheMasksAskForABitInCommonAndTheLastComesFirst)
{
    Box("/usr/zevo/etc/bandwidth/addon").Make();
    etc.Write("addon/vault_20.json", "");
    Write({Of(1, "ftp"), Of(2, "rsync", "download"), Of(3, "docuhall"), Of(4, "vault"),
           Of(5, "webdav", "download")});
    const std::string tail = ":100/1000";
    EXPECT_THAT(List(), ElementsAre("5" + tail, "4" + tail, "3" + tail, "2" + tail, "1" + tail));
    EXPECT_THAT(List(15, 1), ElementsAre("4" + tail, "3" + tail, "1" + tail));
    EXPECT_THAT(List(4), ElementsAre("4" + tail, "1" + tail)) << "20 and 4 share a bit";
    EXPECT_THAT(List(16), ElementsAre("4" + tail));
    EXPECT_THAT(List(-1, 2), ElementsAre("5" + tail, "2" + tail));
    EXPECT_THAT(List(0), IsEmpty());
    EXPECT_THAT(List(15, 0), IsEmpty());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Query, MergingSumsTheSpeedsOfEachProtocolAndDirection)
{
    Write({Of(1, "ftp", "upload", 100, 10), Of(2, "ftp", "download", 7, 0),
           Of(3, "ftp", "upload", 200, 20), Of(4, "rsync", "upload", 5, 5),
           Of(5, "ftp", "upload", 300, 30)});
    EXPECT_THAT(List(15, 3, 1), ElementsAre("4:5/5", "2:7/0", "1:600/60"));
    EXPECT_EQ(List(15, 3, 2).size(), 5U) << "only a 1 merges";
    Write({Of(1, "ftp", "upload", 100, 10), Of(2, "ftp", "upload", 0, 20),
           Of(3, "ftp", "upload", 300, 0)});
    EXPECT_THAT(List(15, 3, 1), ElementsAre("1:0/0"));
}

TEST_F(Query, DeadTransfersAreTakenOutOfTheFileWhateverIsLookedFor)
{
    const std::string live = Aged(2, 30).Text() + Aged(3, -500).Text();
    Write({Aged(1, 31, "rsync"), Aged(2, 30), Aged(3, -500), Aged(4, kNow)});
    EXPECT_THAT(List(4, 2), IsEmpty());
    EXPECT_EQ(box.Read("user-2001"), live);
    EXPECT_THAT(List(), ElementsAre("3:100/1000", "2:100/1000"));

    box.Write("user-2001", Aged(1, 31).Text() + Of(2, "ftp").Text() + Aged(1, 40).Text() +
                               Of(1, "ftp").Text()); // a name that stands thrice
    EXPECT_THAT(List(), ElementsAre("2:100/1000"));
    EXPECT_EQ(box.Read("user-2001"), Of(2, "ftp").Text() + Of(1, "ftp").Text());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Query, ASectionCutOffInTheMiddleOfAWriteIsNoTransferAndOneThatLacksALineEndIs)
{
    const std::string live = Aged(2, 30).Text() + Aged(3, -500).Text();
    const std::string last = Aged(9, 0).Text();
    for (size_t cb = 0; cb <= last.size(); ++cb) {
        SCOPED_TRACE(last.substr(0, cb));
        box.Write("user-2001", live + last.substr(0, cb));
        const bool isWhole = cb + 1 >= last.size();
        EXPECT_EQ(List().size(), isWhole ? 3U : 2U);
        // It is cleared away from its whole header on; less than that is nobody's line.
        const bool isSection = cb >= last.find(']') + 1;
        EXPECT_EQ(box.Read("user-2001"), isSection && !isWhole ? live : live + last.substr(0, cb));
    }
}

TEST_F(Query, OneBadSectionHidesNoOther)
{
    const std::string bad = "[9-1]\ncurrent speed=fast\n";
    box.Write("user-2001", Of(1, "ftp").Text() + bad + Of(2, "ftp").Text());
    EXPECT_EQ(List().size(), 2U);
    EXPECT_THAT(TakeLog(),
                ElementsAre("bandwidth_status_convert.cpp:# parm_table[5].fnFromHashStr failed.",
                            "bandwidth_status_get_all.cpp:# Init status from hash failed. [0x4000 "
                            "bandwidth_status_convert.cpp:#]"));
    EXPECT_NE(box.Read("user-2001").find(bad), std::string::npos) << "it stays";
}

TEST_F(Query, WhatStrangersWroteReachesTheLogEscapedAndCut)
{
    const std::string forged = "x\\nsshd[1]: Accepted password\\x1B[2J\\x9B";
    box.Write("user-2001", "[1-1]\nprotocol type=\"" + forged + "\"\n[2-1]\nprotocol type=" +
                               std::string(3'000, 'y') + "\n[3-1]\ntransfer type=\xC3\xBC\n");
    EXPECT_THAT(List(), IsEmpty());
    const Lines lines = TakeLog();
    EXPECT_THAT(lines, Contains(HasSubstr("protocol=x\\x0Asshd[1]: Accepted password\\x1B[2J")));
    for (const std::string &line : lines) {
        EXPECT_LT(line.size(), 1'024U);
        EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char byte) {
            return byte >= ' ' && byte <= '~';
        })) << line;
    }
}

TEST_F(Query, ASectionThatLacksKeysHasNothingOfTheOneBeforeIt)
{
    const std::string bare = "[2-1]\nprotocol type=ftp\ntransfer type=upload\ntimestamp=";
    box.Write("user-2001", Of(1, "rsync").Text() + bare + std::to_string(kNow) + "\n");
    EXPECT_THAT(List(ZEVO_BW_PROTOCOL_FTP), ElementsAre("0:0/0"));
}

TEST_F(Query, AMillionUnknownNamesNeitherFillTheLogNorAreSearchedFor)
{
    Box("/usr/zevo/etc/bandwidth/addon").Make();
    etc.Write("addon/safe_21.json", "");
    std::vector<FiledTransfer> transfers;
    for (int pid = 1; pid <= 64; ++pid)
        transfers.push_back(Of(pid, ("unknown" + std::to_string(pid)).c_str()));
    transfers.push_back(Of(65, "safe"));
    Write(transfers);
    EXPECT_THAT(List(-1), IsEmpty()) << "64 searches were made when it came to the last one";
    const Lines told = TakeLog();
    ASSERT_EQ(told.size(), 65U);
    EXPECT_EQ(told[64], "bandwidth_enum.cpp:# Too much to log about [/tmp/bandwidth/user-2001], "
                        "the rest is left out");

    // What is known needs no search; and what one file causes is not held against the next.
    EXPECT_EQ(ZEVOBandwidthEnumToValue(ZEVO_BW_PROTOCOL_TYPE_LIST, "safe"), 21);
    EXPECT_THAT(List(-1), ElementsAre("65:100/1000"));
    EXPECT_EQ(TakeLog().size(), 65U);
}

TEST_F(Query, ATransferThatIsJustBeingSavedAnewIsNotTakenForDead)
{
    // Between the names and the section it is gone, right after that it is back.
    Write({Of(1, "ftp"), Of(2, "ftp")});
    platform::ReadSectionsApart({[&] { Write({Of(2, "ftp")}); },
                                 [&] {
                                     Write({Of(2, "ftp"), Of(1, "ftp")});
                                 }});
    EXPECT_THAT(List(), ElementsAre("2:100/1000"));
    EXPECT_EQ(box.Read("user-2001"), Of(2, "ftp").Text() + Of(1, "ftp").Text());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Query, ASaveThatComesBeforeThePurgeIsNotPurged)
{
    const std::string saved = Of(1, "ftp").Text() + Aged(2, 31).Text() + Of(3, "rsync").Text();
    constexpr int kNthOpen = 3; // the listing has opened the directory and the file
    for (const auto call : {Call::Open, Call::Fsync, Call::Chmod}) {
        Write({Aged(1, 31), Aged(2, 31), Of(3, "rsync")});
        Before(call, call == Call::Open ? kNthOpen : 1, [&] { Replace(saved); });
        EXPECT_THAT(List(), ElementsAre("3:100/1000"));
        EXPECT_EQ(box.Read("user-2001"), Of(1, "ftp").Text() + Of(3, "rsync").Text())
            << "only what is still stale goes";
        EXPECT_EQ(box.FileCount(), 1);
    }
}

TEST_F(Query, APlatformMayPutALargerHashInTheCallersPlace)
{
    Write({Aged(1, 31), Of(2, "ftp"), Aged(3, 31)});
    platform::ReplaceHashes();
    EXPECT_THAT(List(), ElementsAre("2:100/1000"));
    EXPECT_EQ(box.Read("user-2001"), Of(2, "ftp").Text());
}

TEST_F(Query, AFileThatChangesFasterIsPurgedAnotherTime)
{
    Write({Aged(1, 31), Of(2, "ftp")});
    int defeats = 0;
    const std::function<void()> beFaster = [&] {
        const std::string note = "# " + std::to_string(++defeats) + "\n";
        Replace(note + Aged(1, 31).Text() + Of(2, "ftp").Text());
        Before(Call::Chmod, 1, beFaster);
    };
    Before(Call::Chmod, 1, beFaster);
    EXPECT_THAT(List(), ElementsAre("2:100/1000"));
    EXPECT_EQ(box.Read("user-2001"), "# 6\n" + Aged(1, 31).Text() + Of(2, "ftp").Text());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Query, ADeadTransferThatCannotBeRemovedIsLoggedAndPassedOver)
{
    Write({Aged(1, 31), Of(2, "ftp")});
    FailNext(Call::Rename, EACCES);
    EXPECT_THAT(List(), ElementsAre("2:100/1000"));
    EXPECT_THAT(TakeLog(),
                ElementsAre("bandwidth_status_get_all.cpp:# VLIBCFileRemoveSection failed. "
                            "user:[/tmp/bandwidth/user-2001], section:[1-1] [0x2800 "
                            "status_purge.cpp:#]"));
    EXPECT_EQ(box.Read("user-2001"), Aged(1, 31).Text() + Of(2, "ftp").Text());
}

TEST_F(Query, NothingToListLeavesTheHeadAlone)
{
    ZEVO_BANDWIDTH_STATUS other = {};
    ZEVO_BANDWIDTH_STATUS *pList = &other;
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(Path(), 15, 3, &pList, 0), 0);
    box.Write("user-2001", "# none\n");
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(Path(), 15, 3, &pList, 0), 0);
    Write({Aged(1, 31), Of(2, "ftp")});
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(Path(), 8, 3, &pList, 0), 0);
    EXPECT_EQ(pList, &other);

    FailNth(Call::Open, 2, EACCES);
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(Path(), 15, 3, &pList, 0), -1);
    platform::FailNextHashAlloc();
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(Path(), 15, 3, &pList, 0), -1);
    platform::FailNextListAlloc();
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(Path(), 15, 3, &pList, 0), -1);
    EXPECT_THAT(TakeLog(), IsEmpty()) << "these are told by the caller";
    ExpectFails(ZEVOBandwidthStatusGetAll(9, 1, 15, 3, &pList), "status_get_all",
                "ZEVOBandwidthEnumToName failed, protocol=9");
    EXPECT_EQ(pList, &other);
}

TEST_F(Query, APathWithADotIsALeftoverThatGoesAfterTenSeconds)
{
    const char *const szLeftover = box.Path("user-2001.a1B2c3");
    Write({Of(1, "ftp")});
    ZEVO_BANDWIDTH_STATUS *pList = nullptr;
    for (const int64_t age : {int64_t{10}, int64_t{11}}) {
        box.Write("user-2001.a1B2c3", Of(1, "ftp").Text());
        const struct timespec then[2] = {{kNow - age, 0}, {kNow - age, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, szLeftover, then, 0), 0);
        EXPECT_EQ(ZEVOBandwidthIStatusGetAll(szLeftover, 15, 3, &pList, 0), 0);
        EXPECT_EQ(box.Has("user-2001.a1B2c3"), age == 10);
    }
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(szLeftover, 15, 3, &pList, 0), 0) << "gone already";
    ASSERT_EQ(::symlink("user-2001", szLeftover), 0);
    const struct timespec longAgo[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, szLeftover, longAgo, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_EQ(ZEVOBandwidthIStatusGetAll(szLeftover, 15, 3, &pList, 0), 0) << "a link goes itself";
    EXPECT_EQ(pList, nullptr);
    EXPECT_THAT(box.Files(), ElementsAre("user-2001"));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

// ---- one transfer ----

TEST_F(Query, OneTransferIsReadHoweverOldItIs)
{
    Write({Aged(::getpid(), 1000), Of(7, "rsync", "download", 70)});
    ZEVO_BANDWIDTH_STATUS status = {};
    EXPECT_EQ(ZEVOBandwidthStatusGet(1, kAlice, 1, &status), 0);
    EXPECT_EQ(status.timestamp, kNow - 1000);
    EXPECT_EQ(ZEVOBandwidthIStatusGet(1, kAlice, 7, 2, &status), 0);
    EXPECT_EQ(status.pid, 7);
    EXPECT_EQ(status.current_speed, 70U);
    EXPECT_EQ(status.protocol_type, 8U);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Query, AFailedReadSaysWhereItFailed)
{
    ZEVO_BANDWIDTH_STATUS status = {};
    const auto expectFailure = [&](const std::string &line, int32_t owner = 1) {
        ExpectFails(ZEVOBandwidthIStatusGet(owner, kAlice, 7, 1, &status), "status_get", line);
    };
    expectFailure("ZEVOBandwidthEnumToName failed, protocol=9", 9);
    VLIBCErrSetEx(0x1234, "before", 1);
    expectFailure("File [/tmp/bandwidth/user-2001] doesn't exist. [0x1234 before:1]");
    Write({Of(7, "ftp", "download")});
    expectFailure("Get section [7-1] from [/tmp/bandwidth/user-2001] failed. [0x1234 before:1]");
    box.Write("user-2001", "[7-1]\nid=x\n");
    expectFailure("Init status from hash failed. [0x4000 bandwidth_status_convert.cpp:#]");
    platform::FailNextHashAlloc();
    EXPECT_EQ(ZEVOBandwidthIStatusGet(1, kAlice, 7, 1, &status), -1);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

// ---- removing ----

class Removal : public LibraryTest {
protected:
    // Both directions of this process and of another one, in the file of every owner.
    void SetUp() override
    {
        LibraryTest::SetUp();
        for (const char *szFile : {"user-2001", "group-2001", "group-3001", "group-3002"})
            box.Write(szFile, Text({{me, 1}, {me, 2}, {7, 1}, {7, 2}}));
        limits[0] = Limit(ZEVO_BW_OWNER_USER, kAlice, 1);
        limits[0].occupyWeight = 1;
        limits[1] = Limit(ZEVO_BW_OWNER_GROUP, kStaff, 1);
        limits[2] = Limit(ZEVO_BW_OWNER_GROUP, kGuests, 1);
        limits[2].occupyWeight = 1;
        config.uid = kAlice;
        config.pLimit = limits;
        config.iLimit = 3;
        config.blGroupConfExist = 1;
    }

    static std::string Text(const std::vector<std::pair<int, int>> &sections)
    {
        std::string text;
        for (const auto &[pid, direction] : sections)
            text += Of(pid, "ftp", direction == 1 ? "upload" : "download").Text();
        return text;
    }
    // The sections that are left in a file, without mine or the other's: "1", "2", "12", "".
    std::string Left(const char *szFile, int pid)
    {
        const std::string text = box.Read(szFile);
        std::string left;
        for (const char direction : {'1', '2'})
            if (text.find("[" + std::to_string(pid) + "-" + direction + "]") != text.npos)
                left += direction;
        return left;
    }
    // In the files of alice, her own group, staff and guests, for a process.
    Lines AllLeft(int pid)
    {
        return {Left("user-2001", pid), Left("group-2001", pid), Left("group-3001", pid),
                Left("group-3002", pid)};
    }

    const int me = ::getpid();
    ZEVO_BANDWIDTH_LIMIT limits[3] = {};
    ZEVO_BANDWIDTH_CONFIG config = {};
};

TEST_F(Removal, MySectionsLeaveTheUsersFileAndThoseOfTheGroupsCharged)
{
    EXPECT_EQ(ZEVOBandwidthStatusRemove(&config, 0), 0);
    EXPECT_THAT(AllLeft(me), ElementsAre("12", "12", "12", "12"));
    EXPECT_EQ(ZEVOBandwidthStatusRemove(&config, 1), 0);
    EXPECT_THAT(AllLeft(me), ElementsAre("2", "12", "12", "2"));
    config.blGroupConfExist = 0;
    EXPECT_EQ(ZEVOBandwidthStatusRemove(&config, 3), 0);
    EXPECT_THAT(AllLeft(me), ElementsAre("", "12", "12", "2"));
    config.blGroupConfExist = 1;
    config.iLimit = -1;
    EXPECT_EQ(ZEVOBandwidthStatusRemove(&config, 3), 0);
    EXPECT_THAT(AllLeft(me), ElementsAre("", "12", "12", "2"));

    const uint32_t groups[] = {kStaff, 3999, kAlice};
    EXPECT_EQ(ZEVOBandwidthStatusRemoveByOccGroups(nullptr, 0, 3), 0);
    EXPECT_EQ(ZEVOBandwidthStatusRemoveByOccGroups(groups, -1, 3), 0);
    EXPECT_EQ(ZEVOBandwidthStatusRemoveByOccGroups(groups, 3, 2), 0);
    EXPECT_THAT(AllLeft(me), ElementsAre("", "1", "1", "2"));
    EXPECT_THAT(AllLeft(7), ElementsAre("12", "12", "12", "12"));
    EXPECT_EQ(box.FileCount(), 4) << "no file is made or deleted";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Removal, ByForceTheyLeaveTheFilesOfAllGroups)
{
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUserName("alice", 2, 7), 0);
    EXPECT_THAT(AllLeft(7), ElementsAre("1", "1", "1", "1"));
    EXPECT_THAT(AllLeft(me), ElementsAre("12", "12", "12", "12"));
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUID(kAlice, 3), 0);
    EXPECT_THAT(AllLeft(me), ElementsAre("", "", "", ""));
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUserName("dave", 3, 7), 0) << "without any file";
    EXPECT_THAT(AllLeft(7), ElementsAre("1", "1", "1", "1"));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(Removal, TheFirstFailureEndsIt)
{
    const std::string mine = "bandwidth_status_remove.cpp:# ";
    const std::string renamed = "[0x2800 bandwidth_status_set_section.cpp:#]";
    const std::string section = std::to_string(me) + "-1";
    FailNext(Call::Rename, EACCES);
    EXPECT_EQ(ZEVOBandwidthStatusRemove(&config, 3), -1);
    EXPECT_THAT(TakeLog(),
                ElementsAre(mine + "Remove section [" + section + "] from " +
                                "[/tmp/bandwidth/user-2001] failed. " + renamed,
                            mine + "ZEVOBandwidthIStatusRemove failed. uid:[2001] " + renamed));
    EXPECT_THAT(AllLeft(me), ElementsAre("12", "12", "12", "12"));

    FailNth(Call::Rename, 2, EACCES);
    EXPECT_EQ(ZEVOBandwidthStatusRemove(&config, 1), -1);
    EXPECT_EQ(LastLine(), mine + "ZEVOBandwidthIStatusRemove failed. gid:[3002] " + renamed);
    EXPECT_THAT(AllLeft(me), ElementsAre("2", "12", "12", "12")) << "what was removed stays so";

    const uint32_t groups[] = {kAlice, kStaff};
    FailNext(Call::Rename, EACCES);
    EXPECT_EQ(ZEVOBandwidthStatusRemoveByOccGroups(groups, 2, 1), -1);
    EXPECT_EQ(LastLine(), mine + "ZEVOBandwidthIStatusRemove failed. gid:[2001] " + renamed);

    FailNth(Call::Rename, 3, EACCES);
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUserName("alice", 1, 7), -1);
    EXPECT_THAT(AllLeft(7), ElementsAre("2", "2", "12", "12"));
    const Lines log = TakeLog();
    ASSERT_EQ(log.size(), 3U);
    EXPECT_EQ(log[1], mine + "ZEVOBandwidthIStatusRemove failed. gid:[3001] " + renamed);
    EXPECT_EQ(log[2], mine + "ZEVOBandwidthIStatusForceRemoveAll failed. name:[alice] " + renamed);
}

TEST_F(Removal, WhatCannotBeIdentifiedIsRefused)
{
    const std::string mine = "bandwidth_status_remove.cpp:# ";
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUserName("alice", 3, -1), -1);
    EXPECT_THAT(TakeLog(),
                ElementsAre(Refusals(kRemoveFile, {"(pid_t)-1 != pid"}).front(),
                            mine + "ZEVOBandwidthIStatusRemove failed. uid:[2001] [0x0D00 "
                                   "bandwidth_status_remove.cpp:#]",
                            mine + "ZEVOBandwidthIStatusForceRemoveAll failed. name:[alice] "
                                   "[0x0D00 bandwidth_status_remove.cpp:#]"));

    const std::string unknown = "[0x2000 user_group.cpp:#]";
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUserName("nemo", 3, 7), -1);
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUID(4444, 3), -1);
    EXPECT_EQ(ZEVOBandwidthStatusSetActiveByUserName("nemo", 1, 7, 0), -1);
    EXPECT_THAT(TakeLog(), ElementsAre(mine + "ZEVOUserGet failed. name:[nemo] " + unknown,
                                       mine + "ZEVOUserGetByUID failed. uid:[4444] " + unknown,
                                       mine + "ZEVOUserGet failed. name:[nemo] " + unknown));
    EXPECT_THAT(AllLeft(me), ElementsAre("12", "12", "12", "12"));

    platform::SetGroups({"2001", "12a", "3001"});
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUID(kAlice, 3), -1);
    ExpectSlot(0x4000, kRemoveFile);
    EXPECT_EQ(FirstLine(), mine + "invalid gid [12a]");
    EXPECT_THAT(AllLeft(me), ElementsAre("", "", "12", "12"));
    platform::SetGroups({});
    EXPECT_EQ(ZEVOBandwidthStatusForceRemoveAllByUID(kAlice, 3), -1);
    EXPECT_EQ(FirstLine(), mine + "VLIBGroupInfoListGet failed. name:[alice] [0x2000 platform:1]");
}

// ---- stopping ----

TEST_F(Removal, StoppingATransferChangesItsFlagInTheUsersFileAlone)
{
    EXPECT_EQ(ZEVOBandwidthStatusSetActiveByUserName("alice", 1, 7, 0), 0);
    std::string wanted = Text({{me, 1}, {me, 2}, {7, 1}, {7, 2}});
    wanted.replace(wanted.find("active=1", wanted.find("[7-1]")), 8, "active=0");
    EXPECT_EQ(box.Read("user-2001"), wanted);
    EXPECT_EQ(box.Read("group-3001").find("active=0"), std::string::npos);
    EXPECT_EQ(ZEVOBandwidthStatusSetActiveByUserName("alice", 1, 7, 1), 0);
    EXPECT_EQ(box.Read("user-2001"), box.Read("group-3001"));

    box.Write("user-2002", "[7-1]\npid=99\n"); // what it says of itself does not move it
    EXPECT_EQ(ZEVOBandwidthStatusSetActiveByUserName("bob", 1, 7, 0), 0);
    EXPECT_EQ(box.Read("user-2002").rfind("[7-1]\npid=7\n", 0), 0U);

    VLIBCErrSetEx(0x1234, "before", 1);
    ExpectFails(ZEVOBandwidthStatusSetActiveByUserName("alice", 1, 8, 0), "status_remove",
                "ZEVOBandwidthStatusGet failed. name:[alice] [0x1234 before:1]");
    const std::string before = box.Read("user-2001");
    Before(Call::Fsync, 1, [&] { // the transfer ends
        EXPECT_EQ(ZEVOBandwidthStatusRemoveSection(box.Path("user-2001"), "7-1"), 1);
    });
    EXPECT_EQ(ZEVOBandwidthStatusSetActiveByUserName("alice", 1, 7, 0), -1);
    ExpectSlot(0x2000, "bandwidth_status_set_section.cpp");
    EXPECT_EQ(box.Read("user-2001").find("[7-1]"), std::string::npos) << "nothing comes back";
    box.Write("user-2001", before);
    (void)TakeLog();
    FailNext(Call::Fsync, EIO);
    ExpectFails(
        ZEVOBandwidthStatusSetActiveByUserName("alice", 1, 7, 0), "status_remove",
        "ZEVOBandwidthStatusSave failed. name:[alice] [0x0B00 bandwidth_status_set_section.cpp:#]");
    EXPECT_EQ(box.Read("user-2001"), box.Read("group-3001"));
}

} // namespace
