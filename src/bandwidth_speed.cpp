// Clock, speed and sleep arithmetic: pure but for the clock, and unable to fail.

#include "internal/speed.hpp"

#include <algorithm>
#include <limits>

#include <sys/time.h>

using namespace bandwidth;

namespace {

// No time at all, or a clock that was set back, counts as the shortest time.
int64_t AtLeastOne(int64_t elapsedUs) noexcept
{
    return elapsedUs <= 0 ? 1 : elapsedUs;
}

} // namespace

uint64_t ZEVOBandwidthCurrTimeGet(void) noexcept
{
    struct timeval now = {};
    (void)::gettimeofday(&now, nullptr); // on failure the time stays 0
    return static_cast<uint64_t>(now.tv_sec) * kUsPerSecond + static_cast<uint64_t>(now.tv_usec);
}

uint64_t ZEVOBandwidthSpeedEstimate(int64_t elapsedUs, uint64_t bytes) noexcept
{
    return bytes * kUsPerSecond / static_cast<uint64_t>(AtLeastOne(elapsedUs));
}

int64_t ZEVOBandwidthSleepEstimate(int64_t elapsedUs, uint64_t bytes, uint64_t speedBps) noexcept
{
    constexpr uint64_t kMaxSigned = std::numeric_limits<int64_t>::max();
    if (speedBps == 0 || bytes > kMaxSigned)
        return 0; // as a signed number such a count is negative
    // Saturated, so that the largest block on the slowest line sleeps long instead of not at all.
    const uint64_t product = std::min(MultiplySaturated(bytes, kUsPerSecond), kMaxSigned);
    const auto neededUs = static_cast<int64_t>(product / speedBps);
    return std::max<int64_t>(neededUs - AtLeastOne(elapsedUs), 0);
}

int ZEVOBandwidthIsLessThan(uint64_t a, uint64_t b) noexcept
{
    if (a == b || a == 0) return 0;
    return b == 0 || a < b ? 1 : 0;
}

int ZEVOBandwidthIsLargerThan(uint64_t a, uint64_t b) noexcept
{
    return ::ZEVOBandwidthIsLessThan(b, a);
}

uint64_t ZEVOBandwidthSum(uint64_t a, uint64_t b) noexcept
{
    return a == 0 || b == 0 ? 0 : a + b;
}
