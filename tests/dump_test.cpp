// The tables of rules, policies and transfers, byte for byte.
#include "library_box.hpp"

#include <clocale>
#include <cstdio>
#include <cstdlib>

using standins::TakeLog;
using namespace testing;

namespace {

class Dump : public LibraryTest {
protected:
    // What a function writes to a stream; "-1" and nothing else when it fails.
    template <class Function, class... Record>
    static std::string Written(Function function, const Record *...pRecord)
    {
        char *szText = nullptr;
        size_t cbText = 0;
        FILE *const fp = ::open_memstream(&szText, &cbText);
        const int result = function(fp, pRecord...);
        EXPECT_EQ(std::fclose(fp), 0);
        const std::string text(szText, cbText);
        std::free(szText);
        EXPECT_TRUE(result == 0 || text.empty()) << "a failure that wrote: " << text;
        return result == 0 ? text : std::to_string(result);
    }

    ZEVO_BANDWIDTH_CONF rule = {
        .id = kAlice,
        .currentState = ZEVO_BW_STATE_ENABLED,
        .state = ZEVO_BW_STATE_SCHEDULE,
        .protocolType = ZEVO_BW_PROTOCOL_FTP,
        .ownerType = ZEVO_BW_OWNER_USER,
        .currentUploadRate = 512,
        .currentDownloadRate = 1024,
        .uploadRate = 7,
        .downloadRate = 7,
        .uploadRateCustom = 7,
        .downloadRateCustom = 7,
        .szSchedulePlan = "",
    };
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {
        .currentState = ZEVO_BW_STATE_ENABLED,
        .state = ZEVO_BW_STATE_ENABLED,
        .protocolType = ZEVO_BW_PROTOCOL_FTP,
        .userGroupPolicy = ZEVO_BW_USER_GROUP_POLICY_USER_FIRST,
        .interGroupPolicy = ZEVO_BW_INTER_GROUP_POLICY_SUM,
        .occupyPolicy = ZEVO_BW_OCCUPY_POLICY_WEIGHTED,
        .szSchedulePlan = "01",
    };
};

TEST_F(Dump, RulesStandUnderTheirHeaderWithTheRatesInForce)
{
    EXPECT_EQ(Written(ZEVOBandwidthConfDumpHeader),
              "     State             Protocol  Type                 Name U/L rate(KB/s) "
              "D/L rate(KB/s)\n");
    EXPECT_EQ(Written(ZEVOBandwidthConfDump, &rule),
              "  schedule                  ftp  user                alice        512       1024\n");
    rule.ownerType = ZEVO_BW_OWNER_GROUP;
    rule.id = kStaff;
    rule.currentUploadRate = UINT64_MAX;
    EXPECT_EQ(Written(ZEVOBandwidthConfDump, &rule),
              "  schedule                  ftp group                staff 18446744073709551615 "
              "      1024\n");
    EXPECT_THAT(TakeLog(), IsEmpty());
    rule.state = 9; // without a name
    EXPECT_THAT(Written(ZEVOBandwidthConfDump, &rule),
                StartsWith("         -                  ftp"));
}

TEST_F(Dump, PoliciesStandUnderTheirHeaderWithTheirWholePlan)
{
    EXPECT_EQ(Written(ZEVOBandwidthGlobalConfDumpHeader),
              "     State             Protocol UserGroupPolicy InterGroupPolicy    OccupyPolicy    "
              "SchedulePlan\n");
    EXPECT_EQ(Written(ZEVOBandwidthGlobalConfDump, &policy),
              "   enabled                  ftp      user-first             sum        weighted"
              "              01\n");
    const std::string plan(168, '1');
    plan.copy(policy.szSchedulePlan, plan.size());
    EXPECT_THAT(Written(ZEVOBandwidthGlobalConfDump, &policy), HasSubstr(" " + plan + "\n"));
    EXPECT_THAT(TakeLog(), IsEmpty());
    policy.occupyPolicy = 9;
    EXPECT_THAT(Written(ZEVOBandwidthGlobalConfDump, &policy), HasSubstr(" sum               - "));
}

TEST_F(Dump, TransfersHaveTwoDecimalsAndNoSign)
{
    ZEVO_BANDWIDTH_STATUS status =
        Record({.speed = 512, .timestamp = 4'000'000'000, .expect = 768});
    status.progress = 5000;
    const std::string line =
        "                         alice        ftp     upload  4711 4000000000 "
        "      0.75       0.50 50.00 /a file\n";
    EXPECT_EQ(Written(ZEVOBandwidthStatusDump, &status), line);
    status.owner_type = ZEVO_BW_OWNER_GROUP;
    status.id = kStaff;
    status.progress = 0;
    status.expect_speed = UINT64_MAX;
    status.pid = -1;
    status.timestamp = -1;
    EXPECT_EQ(Written(ZEVOBandwidthStatusDump, &status),
              "                         staff        ftp     upload 4294967295 4294967295 "
              "18014398509481984.00       0.50 0.00 /a file\n");
    EXPECT_THAT(TakeLog(), IsEmpty());
    status.transfer_type = 9;
    EXPECT_THAT(Written(ZEVOBandwidthStatusDump, &status), HasSubstr("ftp          - 4294967295"));
}

TEST_F(Dump, ADecimalCommaOfTheHostDoesNotGetIn)
{
    ASSERT_EQ(std::system("mkdir -p /tmp/locale && cd /tmp/locale && printf 'LC_NUMERIC\\n"
                          "decimal_point \"<U002C>\"\\nthousands_sep \"\"\\ngrouping -1\\n"
                          "END LC_NUMERIC\\n' >comma && localedef -c -i comma ./xx_XX 2>/dev/null; "
                          "test -e xx_XX/LC_NUMERIC"),
              0);
    ::setenv("LOCPATH", "/tmp/locale", 1);
    ASSERT_NE(std::setlocale(LC_NUMERIC, "xx_XX"), nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
    const ZEVO_BANDWIDTH_STATUS status = Record({.speed = 512, .expect = 768});
    EXPECT_THAT(Written(ZEVOBandwidthStatusDump, &status), HasSubstr(" 0.75       0.50 0.00 "));
    std::setlocale(LC_NUMERIC, "C");
}

TEST_F(Dump, WhoeverIsNotKnownIsLoggedAndNothingIsWritten)
{
    rule.id = 9999;
    EXPECT_EQ(Written(ZEVOBandwidthConfDump, &rule), "-1");
    rule.ownerType = ZEVO_BW_OWNER_GROUP;
    EXPECT_EQ(Written(ZEVOBandwidthConfDump, &rule), "-1");
    EXPECT_THAT(
        TakeLog(),
        ElementsAre(HasSubstr("bandwidth_conf_dump.cpp:# Get User failed. id:[9999] [0x"),
                    HasSubstr("bandwidth_conf_dump.cpp:# Get Group failed. id:[9999] [0x")));
    rule.ownerType = ZEVO_BW_OWNER_ALL;
    EXPECT_EQ(Written(ZEVOBandwidthConfDump, &rule), "-1");
    ExpectSlot(ZEVO_BW_ERROR_OWNER_TYPE, "bandwidth_conf_dump.cpp");
    EXPECT_THAT(TakeLog(), ElementsAre("bandwidth_conf_dump.cpp:# Unknown conf type. id:[9999] "));

    policy.protocolType = 16;
    EXPECT_EQ(Written(ZEVOBandwidthGlobalConfDump, &policy), "-1");
    EXPECT_EQ(LastLine(),
              "bandwidth_global_conf_dump.cpp:# ZEVOBandwidthEnumToName failed, protocol=16");

    ZEVO_BANDWIDTH_STATUS status = Record({.id = 9999});
    EXPECT_EQ(Written(ZEVOBandwidthStatusDump, &status), "-1");
    EXPECT_THAT(LastLine(),
                HasSubstr("bandwidth_status_dump.cpp:# ZEVOUserGetByUID failed. [9999] [0x"));
    status.owner_type = ZEVO_BW_OWNER_ALL; // all but users are looked for among the groups
    EXPECT_EQ(Written(ZEVOBandwidthStatusDump, &status), "-1");
    EXPECT_THAT(LastLine(),
                HasSubstr("bandwidth_status_dump.cpp:# ZEVOGroupGetByGID failed. [9999] [0x"));
}

TEST_F(Dump, WithoutMemoryNothingIsWritten)
{
    const ZEVO_BANDWIDTH_STATUS status = Record({});
    const struct {
        const char *szFile, *szRecord, *szKey;
        std::function<std::string()> Call;
    } kRows[] = {
        {"bandwidth_conf_dump.cpp", "conf", "state",
         [&] { return Written(ZEVOBandwidthConfDump, &rule); }},
        {"bandwidth_global_conf_dump.cpp", "conf", "state",
         [&] { return Written(ZEVOBandwidthGlobalConfDump, &policy); }},
        {"bandwidth_status_dump.cpp", "status", "active",
         [&] { return Written(ZEVOBandwidthStatusDump, &status); }},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szFile);
        platform::FailNextHashAlloc();
        EXPECT_EQ(row.Call(), "-1");
        EXPECT_EQ(LastLine(),
                  row.szFile + std::string(":# VLIBCSzHashAlloc failed.[0x0200 platform:1]"));
        platform::FailHashSet(row.szKey);
        EXPECT_EQ(row.Call(), "-1");
        EXPECT_EQ(LastLine(), row.szFile + std::string(":# Init hash from ") + row.szRecord +
                                  " failed. [0x0200 platform:1]");
    }
}

} // namespace
