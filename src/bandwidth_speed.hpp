// Where rates become speeds.
#ifndef BANDWIDTH_SPEED_HPP
#define BANDWIDTH_SPEED_HPP

#include "zevobandwidth.h"

namespace bandwidth {

constexpr uint64_t kBytesPerKB = 1024;

// Bytes per second that an evaluated rule allows in one direction; 0 is unlimited.
inline uint64_t CurrentSpeed(const ZEVO_BANDWIDTH_CONF &rule, int32_t transferType) noexcept
{
    const uint64_t rateKBps =
        transferType == ZEVO_BW_TRANSFER_UPLOAD ? rule.currentUploadRate : rule.currentDownloadRate;
    return rateKBps * kBytesPerKB;
}

} // namespace bandwidth

#endif // BANDWIDTH_SPEED_HPP
