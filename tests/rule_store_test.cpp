// Rules and policies: between records and string hashes, and between hashes and files.
#include "library_box.hpp"

#include <cstring>
#include <string_view>
#include <tuple>

#include <sys/stat.h>

using namespace standins;
using namespace testing;

namespace {

constexpr char kConvert[] = "bandwidth_conf_convert.cpp";
constexpr char kFtpFile[] = "/usr/zevo/etc/bandwidth/bandwidth.ftp.conf";
constexpr char kGlobalFile[] = "/usr/zevo/etc/bandwidth/bandwidth.global.conf";

ZEVO_BANDWIDTH_CONF Rule()
{
    ZEVO_BANDWIDTH_CONF rule = {};
    rule.id = 1026;
    rule.state = ZEVO_BW_STATE_ENABLED;
    rule.protocolType = ZEVO_BW_PROTOCOL_FTP;
    rule.ownerType = ZEVO_BW_OWNER_USER;
    rule.uploadRate = 500;
    rule.downloadRate = 18446744073709551615U;
    std::strcpy(rule.szSchedulePlan, "012");
    return rule;
}

// Every field, and the plan with all its bytes.
auto Fields(const ZEVO_BANDWIDTH_CONF &rule)
{
    return std::tuple(rule.id, rule.currentState, rule.state, rule.protocolType, rule.ownerType,
                      rule.currentUploadRate, rule.currentDownloadRate, rule.uploadRate,
                      rule.downloadRate, rule.uploadRateCustom, rule.downloadRateCustom,
                      std::string_view(rule.szSchedulePlan, sizeof(rule.szSchedulePlan)));
}

constexpr char kRuleText[] =
    "[user-1026]\nid=1026\nstate=enabled\nowner type=user\nprotocol type=ftp\n"
    "upload rate=500\ndownload rate=18446744073709551615\n"
    "upload rate custom=0\ndownload rate custom=0\nschedule plan=012\n";

// ---- conversions ----

class Conversion : public LibraryTest {};

TEST_F(Conversion, ARuleBecomesItsKeysInTheirOrderAndNothingElse)
{
    Hash hash{{"left over", "from before"}};
    ZEVO_BANDWIDTH_CONF rule = Rule();
    rule.id = 4294967295U;
    rule.szSchedulePlan[0] = '\0';
    EXPECT_EQ(ZEVOBandwidthInitHashFromConf(hash.address(), &rule), 0);
    EXPECT_EQ(hash.Text(), "[s]\nid=4294967295\nstate=enabled\nowner type=user\nprotocol type=ftp\n"
                           "upload rate=500\ndownload rate=18446744073709551615\n"
                           "upload rate custom=0\ndownload rate custom=0\nschedule plan=\n");
    EXPECT_THAT(TakeLog(), IsEmpty());
    rule.state = 7; // without a name
    EXPECT_EQ(ZEVOBandwidthInitHashFromConf(hash.address(), &rule), 0);
    EXPECT_EQ(hash["state"], "(absent)");
    EXPECT_EQ(LastLine(), "bandwidth_conf_convert.cpp:# Unknown value [7] for [state]");

    const ZEVO_BANDWIDTH_GLOBAL_CONF policy = {0, 3, 4, 6, 4, 4, "1"};
    EXPECT_EQ(ZEVOBandwidthInitHashFromGlobalConf(hash.address(), &policy), 0);
    EXPECT_EQ(hash.Text(), "[s]\nstate=schedule\nuser-group policy=sum\ninter-group policy=min\n"
                           "occupy policy=weighted\nschedule plan=1\n");
}

TEST_F(Conversion, OnlyTheKeysOfTheHashChangeTheRule)
{
    etc.Write("backup_16.json", "");
    const struct {
        const char *szKey;
        std::string text;
        std::function<void(ZEVO_BANDWIDTH_CONF &)> change; // what it does to the record
    } kRows[] = {
        {"upload rate", "300", [](auto &rule) { rule.uploadRate = 300; }},
        {"download rate", "", [](auto &rule) { rule.downloadRate = 0; }},
        {"download rate custom", " +12", [](auto &rule) { rule.downloadRateCustom = 12; }},
        {"id", "4294967297", [](auto &rule) { rule.id = 1; }},
        {"state", "schedule", [](auto &rule) { rule.state = 3; }},
        {"state", "Enabled", [](auto &) {}},
        {"owner type", "group", [](auto &rule) { rule.ownerType = 2; }},
        {"current upload rate", "9", [](auto &) {}},
        {"schedule plan", std::string(300, '1'),
         [](auto &rule) { std::memset(rule.szSchedulePlan, '1', 255); }},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szKey + ("=" + row.text));
        ZEVO_BANDWIDTH_CONF rule = Rule();
        ZEVO_BANDWIDTH_CONF wanted = Rule();
        row.change(wanted);
        const Hash hash{{row.szKey, row.text}};
        EXPECT_EQ(ZEVOBandwidthInitConfFromHash(&rule, hash.get()), 0);
        EXPECT_EQ(Fields(rule), Fields(wanted));
    }
    EXPECT_EQ(LastLine(),
              "bandwidth_conf_convert.cpp:# Unknown string value [Enabled] for [state]");
}

TEST_F(Conversion, AMalformedNumberEndsItHavingStoredWhatWasRead)
{
    const Hash hash{{"schedule plan", "111"},
                    {"download rate", "12abc"},
                    {"upload rate", "11"},
                    {"upload rate custom", "13"}};
    ZEVO_BANDWIDTH_CONF rule = Rule();
    EXPECT_EQ(ZEVOBandwidthInitConfFromHash(&rule, hash.get()), -1);
    ExpectSlot(0x4000, kConvert);
    EXPECT_EQ(TakeLog(), Lines{"bandwidth_conf_convert.cpp:# parm_table[5].fnFromHashStr failed."});
    EXPECT_EQ(rule.uploadRate, 11U);
    EXPECT_EQ(rule.downloadRate, 12U);
    EXPECT_EQ(rule.uploadRateCustom, 0U);
    EXPECT_STREQ(rule.szSchedulePlan, "012");
}

// ---- rules on disk ----

class RuleStore : public LibraryTest {
protected:
    int Get(ZEVO_BANDWIDTH_CONF *pRule, int32_t ownerType = 1, int32_t protocol = 4)
    {
        return ZEVOBandwidthConfGetByID(ownerType, 1026, protocol, pRule);
    }
};

TEST_F(RuleStore, ARuleThatIsNotStoredReadsAsNotExisted)
{
    ZEVO_BANDWIDTH_CONF defaults = {};
    defaults.id = 1026;
    defaults.protocolType = 4;
    defaults.ownerType = 1;
    for (const bool isFile : {false, true}) {
        if (isFile) etc.Write("bandwidth.ftp.conf", "[group-1026]\nstate=enabled\n[user-10]\n");
        ZEVO_BANDWIDTH_CONF rule;
        std::memset(&rule, 'x', sizeof(rule));
        EXPECT_EQ(Get(&rule), 0);
        EXPECT_EQ(Fields(rule), Fields(defaults));
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
    EXPECT_THAT(etc.Files(), ElementsAre("bandwidth.ftp.conf"));
}

TEST_F(RuleStore, TheFirstRuleMakesDirectoryAndFileForAllToReadAndALaterOneReplacesIt)
{
    ZEVO_BANDWIDTH_CONF rule = Rule();
    for (const mode_t mask : {0000U, 0077U, 0777U, 0022U}) {
        SCOPED_TRACE(mask);
        etc.Wipe();
        ::umask(mask);
        EXPECT_EQ(ZEVOBandwidthConfSetByID(&rule), 0);
        EXPECT_EQ(::umask(022), mask);
        EXPECT_EQ(etc.Read("bandwidth.ftp.conf"), kRuleText);
        struct stat file = {};
        EXPECT_EQ(::stat(kFtpFile, &file), 0);
        EXPECT_EQ(file.st_mode & 07777, 0644U);
    }
    struct stat directory = {};
    EXPECT_EQ(::stat(etc.c_str(), &directory), 0);
    EXPECT_EQ(directory.st_mode & 07777, 0755U);

    rule.ownerType = ZEVO_BW_OWNER_GROUP;
    EXPECT_EQ(ZEVOBandwidthConfSetByID(&rule), 0);
    const std::string group = etc.Read("bandwidth.ftp.conf").substr(std::strlen(kRuleText));
    EXPECT_NE(group.find("[group-1026]\nid=1026\nstate=enabled\nowner type=group\n"),
              std::string::npos);

    rule = Rule();
    rule.state = ZEVO_BW_STATE_NOT_EXISTED;
    EXPECT_EQ(ZEVOBandwidthConfSetByID(&rule), 0);
    std::string changed = kRuleText;
    changed.replace(changed.find("enabled"), 7, "NotExisted");
    EXPECT_EQ(etc.Read("bandwidth.ftp.conf"), changed + group);

    ZEVO_BANDWIDTH_CONF read;
    EXPECT_EQ(Get(&read), 0);
    EXPECT_EQ(Fields(read), Fields(rule));
    EXPECT_THAT(platform::Executed(), IsEmpty()) << "storing a rule tells nobody";
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(RuleStore, AFailedReadSaysWhereItFailed)
{
    constexpr char kMine[] = "bandwidth_conf_get_by_id.cpp";
    ZEVO_BANDWIDTH_CONF rule = Rule();
    const auto expectFailure = [&](const std::string &line, int32_t owner = 1, int32_t type = 4) {
        EXPECT_EQ(Get(&rule, owner, type), -1);
        EXPECT_EQ(LastLine(), Told(kMine, {line}).front());
    };
    const std::string noName = "[0x0600 bandwidth_enum.cpp:#]";
    expectFailure("ZEVOBandwidthConfPath failed for protocol [0] " + noName, 1, 0);
    platform::FailNextHashAlloc();
    expectFailure("malloc failed");
    EXPECT_EQ(Fields(rule), Fields(Rule())) << "untouched until then";
    expectFailure("ZEVOBandwidthEnumToName failed, id=9", 9);
    EXPECT_EQ(rule.ownerType, 9) << "the defaults";

    etc.Write("bandwidth.ftp.conf", "[user-1026]\nupload rate=5 or so\n");
    expectFailure("Init conf from hash failed. [0x4000 bandwidth_conf_convert.cpp:#]");
    FailNext(Call::Read, EIO);
    expectFailure("Get section [user-1026] from [" + std::string(kFtpFile) +
                  "] failed. [0x0A00 section_file.cpp:#]");
}

TEST_F(RuleStore, AFailedWriteSaysWhereItFailedAndLeavesTheFile)
{
    constexpr char kMine[] = "bandwidth_conf_set_by_id.cpp";
    ZEVO_BANDWIDTH_CONF rule = Rule();
    const std::string file = kFtpFile;
    const auto expectFailure = [&](const std::string &line) {
        EXPECT_EQ(ZEVOBandwidthConfSetByID(&rule), -1) << line;
        EXPECT_EQ(LastLine(), Told(kMine, {line}).front());
    };
    rule.protocolType = 0;
    expectFailure("ZEVOBandwidthConfPath failed for protocol [0] [0x0600 bandwidth_enum.cpp:#]");
    rule = Rule();
    platform::FailNextHashAlloc();
    expectFailure("VLIBCSzHashAlloc failed.[0x0200 platform:1]");
    rule.ownerType = 9;
    expectFailure("ZEVOBandwidthEnumToName failed, protocol=9");
    rule = Rule();
    platform::FailHashSet("upload rate");
    EXPECT_EQ(ZEVOBandwidthConfSetByID(&rule), -1);
    EXPECT_THAT(TakeLog(), ElementsAre("bandwidth_conf_convert.cpp:# Set hash value failed. "
                                       "key:[upload rate], val:[500]. [0x0200 platform:1]",
                                       "bandwidth_conf_set_by_id.cpp:# Init hash from conf failed. "
                                       "[0x0200 platform:1]"));
    platform::FailHashSet("");
    EXPECT_EQ(etc.FileCount(), 0) << "nothing was made so far";

    etc.Wipe();
    FailNext(Call::Mkdir, EROFS);
    expectFailure("ZEVOFSMkdirP failed. [/usr/zevo/etc/bandwidth/] [0x0900 directory.cpp:#]");
    etc.Make();
    FailNth(Call::Open, 2, EACCES); // the directory is opened first
    expectFailure("VLIBCFileTouch [" + file + "] failed. [0x0900 bandwidth_conf_set_by_id.cpp:#]");
    FailNext(Call::Rename, EIO);
    expectFailure("Add section [user-1026] to [" + file + "] failed. [0x2800 section_file.cpp:#]");
    EXPECT_EQ(etc.Read("bandwidth.ftp.conf"), "");
    etc.Write("bandwidth.ftp.conf", "[user-1026]\nid=1\n");
    FailNext(Call::Rename, EIO);
    expectFailure("Save section [user-1026] to [" + file + "] failed. [0x2800 section_file.cpp:#]");
    EXPECT_EQ(etc.Read("bandwidth.ftp.conf"), "[user-1026]\nid=1\n");
}

// ---- policies on disk ----

class PolicyStore : public LibraryTest {
protected:
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
};

TEST_F(PolicyStore, WhatIsNotStoredReadsAsTheDefaults)
{
    const auto expect = [&](int32_t interGroup, int32_t occupy) {
        std::memset(&policy, 'x', sizeof(policy));
        EXPECT_EQ(ZEVOBandwidthGlobalConfGet(4, &policy), 0);
        const ZEVO_BANDWIDTH_GLOBAL_CONF wanted = {2, 0, 4, 2, interGroup, occupy, ""};
        EXPECT_EQ(std::memcmp(&policy, &wanted, sizeof(policy)), 0);
    };
    expect(5, 3);
    etc.Write("bandwidth.global.conf", "[rsync]\nstate=enabled\n");
    expect(5, 3);
    etc.Write("bandwidth.global.conf", "[ftp]\noccupy policy=weighted\n");
    expect(5, 4);
    EXPECT_THAT(TakeLog(), IsEmpty());
    etc.Write("bandwidth.global.conf", "[ftp]\ninter-group policy=user-first\n");
    expect(5, 3);
    EXPECT_EQ(LastLine(), "bandwidth_conf_convert.cpp:# Unknown string value [user-first] "
                          "for [inter-group policy]");
}

TEST_F(PolicyStore, AStoredPolicyExistsAndTheSimulatorsHearOfIt)
{
    etc.Wipe();
    EXPECT_EQ(ZEVOBandwidthGlobalConfGet(4, &policy), 0);
    EXPECT_EQ(ZEVOBandwidthGlobalConfSet(&policy), 0);
    EXPECT_EQ(policy.state, ZEVO_BW_STATE_DISABLED);
    EXPECT_EQ(etc.Read("bandwidth.global.conf"),
              "[ftp]\nstate=disabled\nuser-group policy=user-first\ninter-group policy=max\n"
              "occupy policy=max\nschedule plan=\n");
    EXPECT_THAT(platform::Executed(), ElementsAre("/usr/bin/killall -sighup zevobandwidth"));

    std::string text = etc.Read("bandwidth.global.conf");
    text.replace(text.find("disabled"), 8, "enabled");
    policy.state = ZEVO_BW_STATE_ENABLED;
    EXPECT_EQ(ZEVOBandwidthGlobalConfSet(&policy), 0);
    EXPECT_EQ(etc.Read("bandwidth.global.conf"), text);

    Box("/usr/zevo/etc/bandwidth/addon").Make();
    etc.Write("addon/vault_60.json", "");
    policy.protocolType = 60;
    EXPECT_EQ(ZEVOBandwidthGlobalConfSet(&policy), 0);
    EXPECT_NE(etc.Read("bandwidth.global.conf").find("[vault]\nstate=enabled\n"),
              std::string::npos);
    EXPECT_EQ(platform::Executed().size(), 3U);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(PolicyStore, AFailureTellsNobodyButTheLog)
{
    ExpectFails(ZEVOBandwidthGlobalConfGet(0, &policy), "global_conf_get",
                "ZEVOBandwidthEnumToName failed, protocol_type=0");
    etc.Write("bandwidth.global.conf", "[ftp]\n");
    FailNext(Call::Read, EIO);
    ExpectFails(ZEVOBandwidthGlobalConfGet(4, &policy), "global_conf_get",
                "Get section [ftp] from [" + std::string(kGlobalFile) +
                    "] failed. [0x0A00 section_file.cpp:#]");

    policy = {};
    etc.Make();
    constexpr char kMine[] = "bandwidth_global_conf_set.cpp";
    const auto expectFailure = [&](const std::string &line) {
        EXPECT_EQ(ZEVOBandwidthGlobalConfSet(&policy), -1) << line;
        EXPECT_EQ(LastLine(), Told(kMine, {line}).front());
    };
    expectFailure("ZEVOBandwidthEnumToName failed, protocol=0");
    policy.protocolType = 4;
    platform::FailNextHashAlloc();
    expectFailure("VLIBCSzHashAlloc failed.[0x0200 platform:1]");
    EXPECT_EQ(policy.state, 0);
    platform::FailHashSet("state");
    expectFailure("Init hash from conf failed. [0x0200 platform:1]");
    EXPECT_EQ(policy.state, 2) << "turned by then";
    platform::FailHashSet("");
    FailNext(Call::Fsync, EIO);
    expectFailure("Add section [ftp] to [" + std::string(kGlobalFile) +
                  "] failed. [0x0B00 section_file.cpp:#]");
    EXPECT_THAT(platform::Executed(), IsEmpty());
}

} // namespace
