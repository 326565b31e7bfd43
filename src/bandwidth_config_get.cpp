// The effective configuration of a user: gathering it, evaluating it at a moment, releasing it.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"

#include <cstdlib>
#include <cstring>
#include <ctime>

using namespace bandwidth;

namespace {

constexpr size_t kHoursPerDay = 24;

// The index of a moment in a plan; timeUs 0 is now.
size_t PlanIndex(int64_t timeUs) noexcept
{
    const time_t seconds = timeUs == 0
                               ? std::time(nullptr)
                               : static_cast<time_t>(timeUs / static_cast<int64_t>(kUsPerSecond));
    struct tm local = {};
    (void)::localtime_r(&seconds, &local); // fails only for absurd years: Sunday, midnight
    return static_cast<size_t>(local.tm_wday) * kHoursPerDay + static_cast<size_t>(local.tm_hour);
}

void UseNormalRates(ZEVO_BANDWIDTH_CONF &rule) noexcept
{
    rule.currentUploadRate = rule.uploadRate;
    rule.currentDownloadRate = rule.downloadRate;
}

void UseCustomRates(ZEVO_BANDWIDTH_CONF &rule) noexcept
{
    rule.currentUploadRate = rule.uploadRateCustom;
    rule.currentDownloadRate = rule.downloadRateCustom;
}

void EvaluatePlan(ZEVO_BANDWIDTH_CONF &rule, char hourState) noexcept
{
    rule.currentState = hourState == '0' ? ZEVO_BW_STATE_DISABLED : ZEVO_BW_STATE_ENABLED;
    if (hourState == '1') UseNormalRates(rule);
    if (hourState != '0' && hourState != '1') UseCustomRates(rule);
}

} // namespace

int ZEVOBandwidthConfigGet(uint32_t uid, int32_t protocol_type,
                           ZEVO_BANDWIDTH_CONFIG *pConfig) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(uid != static_cast<uid_t>(-1), "(uid_t)((uid_t) -1) != uid");
    BW_REQUIRE(protocol_type != ZEVO_BW_PROTOCOL_ALL,
               "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type");
    BW_REQUIRE(pConfig != nullptr, "NULL != pConfig");

    pConfig->uid = uid;
    if (::ZEVOBandwidthGlobalConfGet(protocol_type, &pConfig->globalConf) < 0)
        return BW_PASS("ZEVOBandwidthGlobalConfGet failed. uid:[%u] type:[%d] ", uid,
                       protocol_type);
    if (pConfig->globalConf.state == ZEVO_BW_STATE_DISABLED) {
        pConfig->iLimit = 0;
        pConfig->pLimit = nullptr;
    } else {
        pConfig->iLimit =
            ::ZEVOBandwidthLimitInit(uid, &pConfig->globalConf, &pConfig->pLimit,
                                     &pConfig->blUserConfExist, &pConfig->blGroupConfExist);
        if (pConfig->iLimit < 0) return BW_PASS("ZEVOBandwidthLimitGet failed. uid:[%u] ", uid);
    }
    (void)::ZEVOBandwidthInitConfig(pConfig, 0); // the result only says whether there is a plan
    return 0;
}

void ZEVOBandwidthConfigFree(ZEVO_BANDWIDTH_CONFIG *pConfig) noexcept
{
    if (pConfig == nullptr) return;
    std::free(pConfig->pLimit);
    *pConfig = {};
}

int ZEVOBandwidthInitConfig(ZEVO_BANDWIDTH_CONFIG *pConfig, int64_t timeUs) noexcept
{
    const CancelScope cancel;
    ZEVO_BANDWIDTH_GLOBAL_CONF &global = pConfig->globalConf;
    const size_t hour = PlanIndex(timeUs);
    int scheduled = 0;

    global.currentState = global.state;
    if (global.state == ZEVO_BW_STATE_SCHEDULE) {
        global.currentState =
            global.szSchedulePlan[hour] == '1' ? ZEVO_BW_STATE_ENABLED : ZEVO_BW_STATE_DISABLED;
        scheduled = 1;
    }
    for (int32_t i = 0; i < pConfig->iLimit; ++i) {
        ZEVO_BANDWIDTH_CONF &rule = pConfig->pLimit[i].conf;
        if (rule.currentState == ZEVO_BW_STATE_NOT_EXISTED) rule.currentState = rule.state;
        if (rule.state == ZEVO_BW_STATE_ENABLED) UseNormalRates(rule);
        if (rule.state == ZEVO_BW_STATE_SCHEDULE) {
            EvaluatePlan(rule, rule.szSchedulePlan[hour]);
            scheduled = 1;
        }
    }
    return scheduled;
}

int ZEVOBandwidthIsUserGroupLimitEnable(const ZEVO_BANDWIDTH_CONFIG *pConfig) noexcept
{
    if (pConfig == nullptr) return 0;
    for (int32_t i = 0; i < pConfig->iLimit; ++i)
        if (pConfig->pLimit[i].conf.currentState == ZEVO_BW_STATE_ENABLED) return 1;
    return 0;
}

int ZEVOBandwidthConfCheckEnabled(const ZEVO_BANDWIDTH_CONFIG *pConfig) noexcept
{
    if (pConfig == nullptr || pConfig->globalConf.currentState == ZEVO_BW_STATE_DISABLED) return 0;
    return pConfig->iLimit != 0 ? 1 : 0;
}
