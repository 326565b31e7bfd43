// Arguments that are refused: by which function, in which order, with which words. Each row is
// wrong in everything that is checked later, too.
#include "library_box.hpp"

#include <functional>

#include <gmock/gmock.h>

using standins::TakeLog;

namespace {

class Arguments : public LibraryTest {
protected:
    struct Row {
        std::function<int()> Call;
        const char *szText;
    };
    void ExpectRefused(const char *szFile, const std::vector<Row> &rows)
    {
        for (const Row &row : rows) {
            SCOPED_TRACE(row.szText);
            VLIBCErrSetEx(0, "", 0);
            EXPECT_EQ(row.Call(), -1);
            ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, szFile);
            EXPECT_EQ(TakeLog(), Lines{szFile + std::string(":# Invaild Argument (") + row.szText +
                                       ")=[0]\n"});
        }
        EXPECT_EQ(box.FileCount() + etc.FileCount(), 0);
    }

    static constexpr char kNotAll[] = "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type";
    static constexpr uint32_t kNobody = 4294967295U;
    char szText[16] = "";
    uint32_t number = 0;
    int32_t count = 0;
    uint64_t amount = 0;
    VLIB_SZ_HASH *pNone = nullptr;
    Hash hash;
    ZEVO_BANDWIDTH_CONF rule = {};
    ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_LIMIT *pLimit = nullptr;
    ZEVO_BANDWIDTH_STATUS status = {};
};

// clang-format off
#define CALL(call) [&] { return call; }

TEST_F(Arguments, NamesAndPaths)
{
    const auto *const list = ZEVO_BW_STATE_LIST;
    ExpectRefused("bandwidth_enum.cpp", {
        {CALL(ZEVOBandwidthEnumToName(nullptr, 1, nullptr, 0)), "((void *)0) != enum_list"},
        {CALL(ZEVOBandwidthEnumToName(list, 1, nullptr, 0)), "((void *)0) != szProtocol"},
        {CALL(ZEVOBandwidthEnumToName(list, 1, szText, 0)), "cbProtocol > 0"},
        {CALL(ZEVOBandwidthEnumToName(list, 1, szText, -1)), "cbProtocol > 0"},
        {CALL(ZEVOBandwidthEnumToValue(nullptr, nullptr)), "((void *)0) != enum_list"},
        {CALL(ZEVOBandwidthEnumToValue(list, nullptr)), "NULL != szName"}});
    ExpectRefused("bandwidth_conf_path.cpp", {
        {CALL(ZEVOBandwidthConfPath(0, nullptr, 9)), "((void *)0) != szConfPath"}});

    // The searches for add-ons have a word of their own.
    EXPECT_EQ(ZEVOBandwidthEnumToNameAddon(1, nullptr, 9), -1);
    EXPECT_EQ(ZEVOBandwidthEnumToNameAddon(1, szText, 0), -1);
    EXPECT_EQ(ZEVOBandwidthEnumToValueAddon(nullptr), -1);
    EXPECT_EQ(ZEVOBandwidthEnumToValueAddon(""), -1);
    ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, "bandwidth_enum.cpp");
    EXPECT_EQ(TakeLog(), Told("bandwidth_enum.cpp", Lines(4, "Bad parameter")));
}

TEST_F(Arguments, RulesAndPolicies)
{
    for (const auto &ToHash : std::initializer_list<std::function<int(VLIB_SZ_HASH **)>>{
             [](auto **ppHash) { return ZEVOBandwidthInitHashFromConf(ppHash, nullptr); },
             [](auto **ppHash) { return ZEVOBandwidthInitHashFromGlobalConf(ppHash, nullptr); }})
        ExpectRefused("bandwidth_conf_convert.cpp", {
            {CALL(ToHash(nullptr)), "((void *)0) != ppHash"},
            {CALL(ToHash(&pNone)), "((void *)0) != *ppHash"},
            {CALL(ToHash(hash.address())), "NULL != pConf"}});
    ExpectRefused("bandwidth_conf_convert.cpp", {
        {CALL(ZEVOBandwidthInitConfFromHash(nullptr, nullptr)), "((void *)0) != pHash"},
        {CALL(ZEVOBandwidthInitConfFromHash(nullptr, hash.get())), "NULL != pConf"},
        {CALL(ZEVOBandwidthInitGlobalConfFromHash(nullptr, nullptr)), "((void *)0) != pHash"},
        {CALL(ZEVOBandwidthInitGlobalConfFromHash(nullptr, hash.get())), "NULL != pConf"}});
    ExpectRefused("bandwidth_conf_get_by_id.cpp", {
        {CALL(ZEVOBandwidthConfGetByID(9, 1, 15, nullptr)), kNotAll},
        {CALL(ZEVOBandwidthConfGetByID(9, 1, 0, nullptr)), "NULL != pConf"}});
    ExpectRefused("bandwidth_conf_set_by_id.cpp", {
        {CALL(ZEVOBandwidthConfSetByID(nullptr)), "((void *)0) != pConf"}});
    ExpectRefused("bandwidth_global_conf_get.cpp", {
        {CALL(ZEVOBandwidthGlobalConfGet(15, nullptr)), kNotAll},
        {CALL(ZEVOBandwidthGlobalConfGet(0, nullptr)), "NULL != pConf"}});
    ExpectRefused("bandwidth_global_conf_set.cpp", {
        {CALL(ZEVOBandwidthGlobalConfSet(nullptr)), "((void *)0) != pConf"},
        {CALL((policy.protocolType = 15, ZEVOBandwidthGlobalConfSet(&policy))), kNotAll}});
}

TEST_F(Arguments, Tables)
{
    constexpr char kNoStream[] = "((void *)0) != fp";
    ExpectRefused("bandwidth_conf_dump.cpp", {
        {CALL(ZEVOBandwidthConfDumpHeader(nullptr)), kNoStream},
        {CALL(ZEVOBandwidthConfDump(nullptr, nullptr)), kNoStream},
        {CALL(ZEVOBandwidthConfDump(stdout, nullptr)), "NULL != pConf"}});
    ExpectRefused("bandwidth_global_conf_dump.cpp", {
        {CALL(ZEVOBandwidthGlobalConfDumpHeader(nullptr)), kNoStream},
        {CALL(ZEVOBandwidthGlobalConfDump(nullptr, nullptr)), kNoStream},
        {CALL(ZEVOBandwidthGlobalConfDump(stdout, nullptr)), "NULL != pConf"}});
    ExpectRefused("bandwidth_status_dump.cpp", {
        {CALL(ZEVOBandwidthStatusDump(nullptr, nullptr)), kNoStream},
        {CALL(ZEVOBandwidthStatusDump(stdout, nullptr)), "NULL != pStatus"}});
}

TEST_F(Arguments, Configurations)
{
    ExpectRefused("bandwidth_config_get.cpp", {
        {CALL(ZEVOBandwidthConfigGet(kNobody, 15, nullptr)), "(uid_t)((uid_t) -1) != uid"},
        {CALL(ZEVOBandwidthConfigGet(1, 15, nullptr)), kNotAll},
        {CALL(ZEVOBandwidthConfigGet(1, 0, nullptr)), "NULL != pConfig"}});
    ExpectRefused("bandwidth_limit_init.cpp", {
        {CALL(ZEVOBandwidthLimitInit(kNobody, nullptr, nullptr, nullptr, nullptr)),
         "((uid_t) -1) != uid"},
        {CALL(ZEVOBandwidthLimitInit(1, nullptr, nullptr, nullptr, nullptr)),
         "((void *)0) != pGlobalConf"},
        {CALL(ZEVOBandwidthLimitInit(1, &policy, nullptr, nullptr, nullptr)),
         "((void *)0) != ppLimit"},
        {CALL(ZEVOBandwidthLimitInit(1, &policy, &pLimit, nullptr, nullptr)),
         "((void *)0) != pblUserConfExist"},
        {CALL(ZEVOBandwidthLimitInit(1, &policy, &pLimit, &number, nullptr)),
         "NULL != pblGroupConfExist"}});
    ExpectRefused("bandwidth_expect_speed_estimate.cpp", {
        {CALL(ZEVOBandwidthExpectSpeedEstimate(1, nullptr, 3, nullptr, 1)), "((void *)0) != pConf"},
        {CALL(ZEVOBandwidthExpectSpeedEstimate(1, &rule, 3, nullptr, 1)),
         "((void *)0) != pMaxSpeedBps"},
        {CALL(ZEVOBandwidthExpectSpeedEstimate(1, &rule, 3, &amount, 1)),
         "ZEVO_BW_TRANSFER_ALL != transfer_type"}});
    ExpectRefused("bandwidth_expect_speed_estimate_by_policy.cpp", {
        {CALL(ZEVOBandwidthExpectSpeedEstimateByPolicy(3, nullptr, nullptr, 0)),
         "ZEVO_BW_TRANSFER_ALL != transfer_type"},
        {CALL(ZEVOBandwidthExpectSpeedEstimateByPolicy(1, nullptr, nullptr, 0)),
         "((void *)0) != pConfig"},
        {CALL(ZEVOBandwidthExpectSpeedEstimateByPolicy(1, &config, nullptr, 0)),
         "NULL != pSpeedBps"}});
}

TEST_F(Arguments, StatusFiles)
{
    ExpectRefused("bandwidth_status_convert.cpp", {
        {CALL(ZEVOBandwidthInitHashFromStatus(nullptr, nullptr)), "((void *)0) != ppHash"},
        {CALL(ZEVOBandwidthInitHashFromStatus(&pNone, nullptr)), "((void *)0) != *ppHash"},
        {CALL(ZEVOBandwidthInitHashFromStatus(hash.address(), nullptr)), "NULL != pStatus"},
        {CALL(ZEVOBandwidthInitStatusFromHash(nullptr, nullptr)), "((void *)0) != pHash"},
        {CALL(ZEVOBandwidthInitStatusFromHash(nullptr, hash.get())), "NULL != pStatus"}});
    ExpectRefused("bandwidth_status_save.cpp", {
        {CALL(ZEVOBandwidthStatusSave(kNobody, nullptr, nullptr)), "(uid_t)((uid_t) -1) != uid"},
        {CALL(ZEVOBandwidthStatusSave(1, nullptr, nullptr)), "NULL != pStatus"}});
    ExpectRefused("bandwidth_status_set_section.cpp", {
        {CALL(ZEVOBandwidthStatusSetSection(nullptr, nullptr, nullptr)), "((void *)0) != szFile"},
        {CALL(ZEVOBandwidthStatusRemoveSection("/none", nullptr)), "NULL != szSection"}});
    ExpectRefused("bandwidth_status_get_all.cpp", {
        {CALL(ZEVOBandwidthIStatusGetAll(nullptr, 15, 3, nullptr, 0)),
         "((void *)0) != szStatusFile"},
        {CALL(ZEVOBandwidthIStatusGetAll("/none", 15, 3, nullptr, 0)), "NULL != pStatusList"}});
    ExpectRefused("bandwidth_status_get.cpp", {
        {CALL(ZEVOBandwidthIStatusGet(9, 1, -1, 3, nullptr)), "(pid_t)-1 != pid"},
        {CALL(ZEVOBandwidthIStatusGet(9, 1, 7, 3, nullptr)),
         "ZEVO_BW_TRANSFER_ALL != transfer_type"},
        {CALL(ZEVOBandwidthStatusGet(9, 1, 1, nullptr)), "NULL != pStatus"}});
    ExpectRefused("bandwidth_status_remove.cpp", {
        {CALL(ZEVOBandwidthStatusRemove(nullptr, 3)), "((void *)0) != pConfig"},
        {CALL(ZEVOBandwidthStatusForceRemoveAllByUserName(nullptr, 3, -1)),
         "((void *)0) != szUserName"},
        {CALL(ZEVOBandwidthStatusSetActiveByUserName(nullptr, 1, 7, 0)),
         "((void *)0) != szUserName"}});

    // The append records, and says nothing.
    EXPECT_EQ(ZEVOBandwidthStatusAddSection(nullptr, "s", hash.get()), -1);
    EXPECT_EQ(ZEVOBandwidthStatusAddSection("/none", nullptr, hash.get()), -1);
    EXPECT_EQ(ZEVOBandwidthStatusAddSection("/none", "s", nullptr), -1);
    ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, "bandwidth_status_add_section.cpp");
    EXPECT_EQ(TakeLog(), Lines());
}

TEST_F(Arguments, TheLifeOfATransfer)
{
    uint64_t time = 5;
    ExpectRefused("bandwidth_status_init.cpp", {
        {CALL(ZEVOBandwidthStatusInit(nullptr, 1, nullptr, nullptr, nullptr)),
         "((void *)0) != pConfig"},
        {CALL(ZEVOBandwidthStatusInit(&config, 1, nullptr, nullptr, nullptr)),
         "((void *)0) != szFileName"},
        {CALL(ZEVOBandwidthStatusInit(&config, 1, "f", nullptr, nullptr)), "((void *)0) != pTime"},
        {CALL(ZEVOBandwidthStatusInit(&config, 1, "f", &time, nullptr)), "NULL != pStatus"}});
    ExpectRefused("bandwidth_transfer_size_estimate.cpp", {
        {CALL(ZEVOBandwidthTransferSizeEstimate(nullptr, 1, 1, nullptr)), "((void *)0) != pConfig"},
        {CALL(ZEVOBandwidthTransferSizeEstimate(&config, 1, 1, nullptr)),
         "((void *)0) != pTransferBytes"}});
    ExpectRefused("bandwidth_sleep_in_loop.cpp", {
        {CALL(ZEVOBandwidthOccGroupsGet(&number, nullptr, nullptr)), "((void *)0) != piOccGroups"},
        {CALL(ZEVOBandwidthOccGroupsGet(&number, &count, nullptr)), "NULL != pConfig"},
        {CALL(ZEVOBandwidthSleepInLoop(nullptr, 1, 0, nullptr, nullptr)), "((void *)0) != pConfig"},
        {CALL(ZEVOBandwidthSleepInLoop(&config, 1, 0, nullptr, nullptr)),
         "((void *)0) != pTimeLast"},
        {CALL(ZEVOBandwidthSleepInLoop(&config, 1, 0, &time, nullptr)), "NULL != pStatus"}});
    ExpectRefused("bandwidth_hup.cpp", {
        {CALL(ZEVOBandwidthHupRecv(nullptr, nullptr, nullptr)), "((void *)0) != pConfig"},
        {CALL(ZEVOBandwidthHupRecv(&config, nullptr, nullptr)), "((void *)0) != pStatus"},
        {CALL(ZEVOBandwidthHupRecv(&config, &status, nullptr)), "NULL != pTime"}});
    EXPECT_EQ(time, 5U);
}
// clang-format on

} // namespace
