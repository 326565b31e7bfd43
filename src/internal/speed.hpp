// Units, the one place where a rate becomes a speed, and whether a group is charged.
#ifndef INTERNAL_SPEED_HPP
#define INTERNAL_SPEED_HPP

#include "zevobandwidth.h"

namespace bandwidth {

constexpr uint64_t kBytesPerKB = 1024;
constexpr uint64_t kUsPerSecond = 1'000'000;
constexpr uint64_t kWholeWeight = 10'000; // all of a transfer is charged to the group

// The product, or the largest number where it does not fit.
inline uint64_t MultiplySaturated(uint64_t a, uint64_t b) noexcept
{
    uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? UINT64_MAX : product;
}

// Bytes per second that an evaluated rule allows in one direction; 0 is unlimited.
inline uint64_t CurrentSpeed(const ZEVO_BANDWIDTH_CONF &rule, int32_t transferType) noexcept
{
    const uint64_t rateKBps =
        transferType == ZEVO_BW_TRANSFER_UPLOAD ? rule.currentUploadRate : rule.currentDownloadRate;
    return rateKBps * kBytesPerKB;
}

// Whether the transfer is charged to the entry's owner, which is a group then.
inline bool IsCharged(const ZEVO_BANDWIDTH_LIMIT &limit) noexcept
{
    return limit.conf.ownerType != ZEVO_BW_OWNER_USER && limit.occupyWeight != 0;
}

} // namespace bandwidth

#endif // INTERNAL_SPEED_HPP
