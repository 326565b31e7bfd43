// Registering a transfer before its first block.

#include "internal/frame.hpp"
#include "internal/guard.hpp"

#include <cstdio>
#include <ctime>

#include <unistd.h>

using namespace bandwidth;

int ZEVOBandwidthStatusInit(ZEVO_BANDWIDTH_CONFIG *pConfig, int32_t transfer_type,
                            const char *szFileName, uint64_t *pTime,
                            ZEVO_BANDWIDTH_STATUS *pStatus) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pConfig != nullptr, "((void *)0) != pConfig");
    BW_REQUIRE(szFileName != nullptr, "((void *)0) != szFileName");
    BW_REQUIRE(pTime != nullptr, "((void *)0) != pTime");
    BW_REQUIRE(pStatus != nullptr, "NULL != pStatus");

    const uint32_t uid = pConfig->uid;
    pStatus->id = uid;
    pStatus->uid = uid;
    pStatus->protocol_type = static_cast<uint32_t>(pConfig->globalConf.protocolType);
    pStatus->transfer_type = static_cast<uint32_t>(transfer_type);
    (void)std::snprintf(pStatus->filename, sizeof(pStatus->filename), "%s", szFileName);
    pStatus->owner_type = ZEVO_BW_OWNER_USER;
    pStatus->pid = ::getpid();
    pStatus->active = 1;
    if (pConfig->globalConf.state == ZEVO_BW_STATE_DISABLED || pConfig->iLimit == 0) return 0;

    if (::ZEVOBandwidthExpectSpeedEstimateByPolicy(transfer_type, pConfig, &pStatus->expect_speed,
                                                   1) < 0)
        return BW_PASS("ZEVOBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u] ", uid);
    if (pStatus->expect_speed == 0) return 0; // nothing limits this transfer

    pStatus->timestamp = std::time(nullptr);
    pStatus->progress = 0;
    pStatus->current_speed = pStatus->expect_speed;
    if (::ZEVOBandwidthStatusSave(uid, pConfig, pStatus) < 0)
        return BW_PASS("save info failed. [%u] ", uid);
    *pTime = ::ZEVOBandwidthCurrTimeGet();
    return 0;
}
