// How large the next block may be.

#include "internal/frame.hpp"
#include "internal/guard.hpp"
#include "internal/speed.hpp"

#include <algorithm>

using namespace bandwidth;

int ZEVOBandwidthTransferSizeEstimate(ZEVO_BANDWIDTH_CONFIG *pConfig, int32_t transfer_type,
                                      uint64_t requestBytes, uint64_t *pTransferBytes) noexcept
{
    const CancelScope cancel;
    constexpr uint64_t kMaxSeconds = 5;
    BW_REQUIRE(pConfig != nullptr, "((void *)0) != pConfig");
    BW_REQUIRE(pTransferBytes != nullptr, "((void *)0) != pTransferBytes");

    uint64_t speedBps = 0;
    if (pConfig->globalConf.currentState != ZEVO_BW_STATE_DISABLED &&
        ::ZEVOBandwidthExpectSpeedEstimateByPolicy(transfer_type, pConfig, &speedBps, 0) < 0)
        return BW_PASS("ZEVOBandwidthExpectSpeedEstimateByPolicy failed. ");
    *pTransferBytes = speedBps == 0
                          ? requestBytes
                          : std::min(requestBytes, MultiplySaturated(speedBps, kMaxSeconds));
    return 0;
}
