// Arguments that are refused: by which function, in which order, with which words. Each row is
// wrong in everything that is checked later, too.
#include "library_box.hpp"

using standins::TakeLog;

namespace {

constexpr char kNotAll[] = "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type";
constexpr char kNoStream[] = "((void *)0) != fp";
constexpr uint32_t kNobody = 4294967295U;

class Arguments : public LibraryTest {};

TEST_F(Arguments, EachIsRefusedInItsOrderAndWordsAndNothingIsTouched)
{
    const auto *const list = ZEVO_BW_STATE_LIST;
    char szText[16] = "";
    uint32_t number = 0;
    int32_t count = 0;
    uint64_t amount = 0;
    uint64_t time = 5;
    VLIB_SZ_HASH *pNone = nullptr;
    Hash hash;
    const ZEVO_BANDWIDTH_CONF rule = {};
    const ZEVO_BANDWIDTH_GLOBAL_CONF policy = {};
    ZEVO_BANDWIDTH_GLOBAL_CONF all = {};
    all.protocolType = ZEVO_BW_PROTOCOL_ALL;
    ZEVO_BANDWIDTH_CONFIG config = {};
    ZEVO_BANDWIDTH_LIMIT *pLimit = nullptr;
    ZEVO_BANDWIDTH_STATUS status = {};
    // clang-format off
#define CALL(call) [&] { return ZEVOBandwidth##call; }
    const struct {
        const char *szFamily; // of the source file that refuses
        std::function<int()> Call;
        const char *szText;
    } kRows[] = {
        {"enum", CALL(EnumToName(nullptr, 1, nullptr, 0)), "((void *)0) != enum_list"},
        {"enum", CALL(EnumToName(list, 1, nullptr, 0)), "((void *)0) != szProtocol"},
        {"enum", CALL(EnumToName(list, 1, szText, 0)), "cbProtocol > 0"},
        {"enum", CALL(EnumToName(list, 1, szText, -1)), "cbProtocol > 0"},
        {"enum", CALL(EnumToValue(nullptr, nullptr)), "((void *)0) != enum_list"},
        {"enum", CALL(EnumToValue(list, nullptr)), "NULL != szName"},
        {"conf_path", CALL(ConfPath(0, nullptr, 9)), "((void *)0) != szConfPath"},
        {"conf_convert", CALL(InitHashFromConf(nullptr, nullptr)), "((void *)0) != ppHash"},
        {"conf_convert", CALL(InitHashFromGlobalConf(nullptr, nullptr)), "((void *)0) != ppHash"},
        {"conf_convert", CALL(InitHashFromConf(&pNone, nullptr)), "((void *)0) != *ppHash"},
        {"conf_convert", CALL(InitHashFromGlobalConf(&pNone, nullptr)), "((void *)0) != *ppHash"},
        {"conf_convert", CALL(InitHashFromConf(hash.address(), nullptr)), "NULL != pConf"},
        {"conf_convert", CALL(InitHashFromGlobalConf(hash.address(), nullptr)), "NULL != pConf"},
        {"conf_convert", CALL(InitConfFromHash(nullptr, nullptr)), "((void *)0) != pHash"},
        {"conf_convert", CALL(InitConfFromHash(nullptr, hash.get())), "NULL != pConf"},
        {"conf_convert", CALL(InitGlobalConfFromHash(nullptr, nullptr)), "((void *)0) != pHash"},
        {"conf_convert", CALL(InitGlobalConfFromHash(nullptr, hash.get())), "NULL != pConf"},
        {"conf_get_by_id", CALL(ConfGetByID(9, 1, 15, nullptr)), kNotAll},
        {"conf_get_by_id", CALL(ConfGetByID(9, 1, 0, nullptr)), "NULL != pConf"},
        {"conf_set_by_id", CALL(ConfSetByID(nullptr)), "((void *)0) != pConf"},
        {"global_conf_get", CALL(GlobalConfGet(15, nullptr)), kNotAll},
        {"global_conf_get", CALL(GlobalConfGet(0, nullptr)), "NULL != pConf"},
        {"global_conf_set", CALL(GlobalConfSet(nullptr)), "((void *)0) != pConf"},
        {"global_conf_set", CALL(GlobalConfSet(&all)), kNotAll},
        {"conf_dump", CALL(ConfDumpHeader(nullptr)), kNoStream},
        {"conf_dump", CALL(ConfDump(nullptr, nullptr)), kNoStream},
        {"conf_dump", CALL(ConfDump(stdout, nullptr)), "NULL != pConf"},
        {"global_conf_dump", CALL(GlobalConfDumpHeader(nullptr)), kNoStream},
        {"global_conf_dump", CALL(GlobalConfDump(nullptr, nullptr)), kNoStream},
        {"global_conf_dump", CALL(GlobalConfDump(stdout, nullptr)), "NULL != pConf"},
        {"status_dump", CALL(StatusDump(nullptr, nullptr)), kNoStream},
        {"status_dump", CALL(StatusDump(stdout, nullptr)), "NULL != pStatus"},
        {"config_get", CALL(ConfigGet(kNobody, 15, nullptr)), "(uid_t)((uid_t) -1) != uid"},
        {"config_get", CALL(ConfigGet(1, 15, nullptr)), kNotAll},
        {"config_get", CALL(ConfigGet(1, 0, nullptr)), "NULL != pConfig"},
        {"limit_init", CALL(LimitInit(kNobody, nullptr, nullptr, nullptr, nullptr)),
         "((uid_t) -1) != uid"},
        {"limit_init", CALL(LimitInit(1, nullptr, nullptr, nullptr, nullptr)),
         "((void *)0) != pGlobalConf"},
        {"limit_init", CALL(LimitInit(1, &policy, nullptr, nullptr, nullptr)),
         "((void *)0) != ppLimit"},
        {"limit_init", CALL(LimitInit(1, &policy, &pLimit, nullptr, nullptr)),
         "((void *)0) != pblUserConfExist"},
        {"limit_init", CALL(LimitInit(1, &policy, &pLimit, &number, nullptr)),
         "NULL != pblGroupConfExist"},
        {"expect_speed_estimate", CALL(ExpectSpeedEstimate(1, nullptr, 3, nullptr, 1)),
         "((void *)0) != pConf"},
        {"expect_speed_estimate", CALL(ExpectSpeedEstimate(1, &rule, 3, nullptr, 1)),
         "((void *)0) != pMaxSpeedBps"},
        {"expect_speed_estimate", CALL(ExpectSpeedEstimate(1, &rule, 3, &amount, 1)),
         "ZEVO_BW_TRANSFER_ALL != transfer_type"},
        {"expect_speed_estimate_by_policy", CALL(ExpectSpeedEstimateByPolicy(3, nullptr, nullptr, 0)),
         "ZEVO_BW_TRANSFER_ALL != transfer_type"},
        {"expect_speed_estimate_by_policy", CALL(ExpectSpeedEstimateByPolicy(1, nullptr, nullptr, 0)),
         "((void *)0) != pConfig"},
        {"expect_speed_estimate_by_policy", CALL(ExpectSpeedEstimateByPolicy(1, &config, nullptr, 0)),
         "NULL != pSpeedBps"},
        {"status_convert", CALL(InitHashFromStatus(nullptr, nullptr)), "((void *)0) != ppHash"},
        {"status_convert", CALL(InitHashFromStatus(&pNone, nullptr)), "((void *)0) != *ppHash"},
        {"status_convert", CALL(InitHashFromStatus(hash.address(), nullptr)), "NULL != pStatus"},
        {"status_convert", CALL(InitStatusFromHash(nullptr, nullptr)), "((void *)0) != pHash"},
        {"status_convert", CALL(InitStatusFromHash(nullptr, hash.get())), "NULL != pStatus"},
        {"status_save", CALL(StatusSave(kNobody, nullptr, nullptr)), "(uid_t)((uid_t) -1) != uid"},
        {"status_save", CALL(StatusSave(1, nullptr, nullptr)), "NULL != pStatus"},
        {"status_set_section", CALL(StatusSetSection(nullptr, nullptr, nullptr)),
         "((void *)0) != szFile"},
        {"status_set_section", CALL(StatusRemoveSection("/none", nullptr)), "NULL != szSection"},
        {"status_get_all", CALL(IStatusGetAll(nullptr, 15, 3, nullptr, 0)),
         "((void *)0) != szStatusFile"},
        {"status_get_all", CALL(IStatusGetAll("/none", 15, 3, nullptr, 0)), "NULL != pStatusList"},
        {"status_get", CALL(IStatusGet(9, 1, -1, 3, nullptr)), "(pid_t)-1 != pid"},
        {"status_get", CALL(IStatusGet(9, 1, 7, 3, nullptr)),
         "ZEVO_BW_TRANSFER_ALL != transfer_type"},
        {"status_get", CALL(StatusGet(9, 1, 1, nullptr)), "NULL != pStatus"},
        {"status_remove", CALL(StatusRemove(nullptr, 3)), "((void *)0) != pConfig"},
        {"status_remove", CALL(StatusForceRemoveAllByUserName(nullptr, 3, -1)),
         "((void *)0) != szUserName"},
        {"status_remove", CALL(StatusSetActiveByUserName(nullptr, 1, 7, 0)),
         "((void *)0) != szUserName"},
        {"status_init", CALL(StatusInit(nullptr, 1, nullptr, nullptr, nullptr)),
         "((void *)0) != pConfig"},
        {"status_init", CALL(StatusInit(&config, 1, nullptr, nullptr, nullptr)),
         "((void *)0) != szFileName"},
        {"status_init", CALL(StatusInit(&config, 1, "f", nullptr, nullptr)),
         "((void *)0) != pTime"},
        {"status_init", CALL(StatusInit(&config, 1, "f", &time, nullptr)), "NULL != pStatus"},
        {"transfer_size_estimate", CALL(TransferSizeEstimate(nullptr, 1, 1, nullptr)),
         "((void *)0) != pConfig"},
        {"transfer_size_estimate", CALL(TransferSizeEstimate(&config, 1, 1, nullptr)),
         "((void *)0) != pTransferBytes"},
        {"sleep_in_loop", CALL(OccGroupsGet(&number, nullptr, nullptr)),
         "((void *)0) != piOccGroups"},
        {"sleep_in_loop", CALL(OccGroupsGet(&number, &count, nullptr)), "NULL != pConfig"},
        {"sleep_in_loop", CALL(SleepInLoop(nullptr, 1, 0, nullptr, nullptr)),
         "((void *)0) != pConfig"},
        {"sleep_in_loop", CALL(SleepInLoop(&config, 1, 0, nullptr, nullptr)),
         "((void *)0) != pTimeLast"},
        {"sleep_in_loop", CALL(SleepInLoop(&config, 1, 0, &time, nullptr)), "NULL != pStatus"},
        {"hup", CALL(HupRecv(nullptr, nullptr, nullptr)), "((void *)0) != pConfig"},
        {"hup", CALL(HupRecv(&config, nullptr, nullptr)), "((void *)0) != pStatus"},
        {"hup", CALL(HupRecv(&config, &status, nullptr)), "NULL != pTime"},
    };
    // clang-format on
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.szFamily + std::string(": ") + row.szText);
        const std::string file = std::string("bandwidth_") + row.szFamily + ".cpp";
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(row.Call(), -1);
        ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, file.c_str());
        EXPECT_EQ(TakeLog(), Refusals(file, {row.szText}));
    }
    EXPECT_EQ(box.FileCount() + etc.FileCount(), 0);
    EXPECT_EQ(time, 5U);
}

TEST_F(Arguments, SearchesForAddOnsHaveAWordOfTheirOwnAndAppendsNone)
{
    char szText[16] = "";
    EXPECT_EQ(ZEVOBandwidthEnumToNameAddon(1, nullptr, 9), -1);
    EXPECT_EQ(ZEVOBandwidthEnumToNameAddon(1, szText, 0), -1);
    EXPECT_EQ(ZEVOBandwidthEnumToValueAddon(nullptr), -1);
    EXPECT_EQ(ZEVOBandwidthEnumToValueAddon(""), -1);
    ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, "bandwidth_enum.cpp");
    EXPECT_EQ(TakeLog(), Told("bandwidth_enum.cpp", Lines(4, "Bad parameter")));

    const Hash hash;
    EXPECT_EQ(ZEVOBandwidthStatusAddSection(nullptr, "s", hash.get()), -1);
    EXPECT_EQ(ZEVOBandwidthStatusAddSection("/none", nullptr, hash.get()), -1);
    EXPECT_EQ(ZEVOBandwidthStatusAddSection("/none", "s", nullptr), -1);
    ExpectSlot(ZEVO_BW_ERROR_BAD_ARGUMENT, "bandwidth_status_add_section.cpp");
    EXPECT_EQ(TakeLog(), Lines());
}

} // namespace
