// The speeds that the rules and policies leave a user on a protocol, before any transfer runs.
// Reads the configuration only: running transfers are not counted.

#include "internal/frame.hpp"
#include "internal/guard.hpp"

using namespace bandwidth;

int ZEVOBandwidthPreview(uint32_t uid, int32_t protocol_type, uint64_t *pSpeedBps) noexcept
{
    const CancelScope cancel;
    BW_REQUIRE(pSpeedBps != nullptr, "NULL != pSpeedBps");

    Config config;
    if (::ZEVOBandwidthConfigGet(uid, protocol_type, config.get()) < 0)
        return BW_PASS("ZEVOBandwidthConfigGet failed. uid:[%u] protocol_type:[%d] ", uid,
                       protocol_type);
    for (const int32_t direction : {ZEVO_BW_TRANSFER_UPLOAD, ZEVO_BW_TRANSFER_DOWNLOAD})
        if (::ZEVOBandwidthExpectSpeedEstimateByPolicy(direction, config.get(),
                                                       &pSpeedBps[direction], 0) < 0)
            return BW_PASS("ZEVOBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u],  ", uid);
    return 0;
}
