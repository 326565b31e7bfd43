// The arithmetic between two throttle calls; see the header for the reasons.
#include "pipe_block.hpp"

#include <algorithm>

namespace tool {

namespace {

constexpr std::int64_t kPerTransferUs = 4'000;
constexpr std::int64_t kWorkFactor = 100;

using Wide = unsigned __int128;

} // namespace

std::int64_t DurationUs(std::uint64_t bytes, std::uint64_t speedBps) noexcept
{
    const Wide us = (Wide{bytes} * kMicrosPerSecond + speedBps - 1) / speedBps;
    return static_cast<std::int64_t>(std::min<Wide>(us, INT64_MAX / 2));
}

std::uint64_t BlockBytes(std::uint64_t speedBps, std::int64_t blockUs) noexcept
{
    const Wide bytes = Wide{speedBps} * static_cast<std::uint64_t>(blockUs) / kMicrosPerSecond;
    return static_cast<std::uint64_t>(std::clamp<Wide>(bytes, 1, UINT64_MAX));
}

std::int64_t BlockTimeUs(std::int64_t workUs, std::uint32_t transfers) noexcept
{
    const std::int64_t shared = std::min(transfers * kPerTransferUs, kLongestSharedBlockUs);
    const std::int64_t forWork = std::min(workUs, kLongestBlockUs / kWorkFactor) * kWorkFactor;
    return std::max({kShortestBlockUs, shared, forWork});
}

void WorkEstimate::Add(std::int64_t us) noexcept
{
    if (!any_) us_ = us;
    any_ = true;
    us_ += (us - us_) / (us > us_ ? 16 : 4);
}

void Pace::Start(std::uint64_t allowedBps) noexcept
{
    bps_ = previousBps_ = allowedBps;
}

void Pace::Allow(std::uint64_t allowedBps, const Sharing &sharing) noexcept
{
    const std::uint64_t confirmed = std::min(allowedBps, previousBps_);
    previousBps_ = allowedBps;
    if (allowedBps <= bps_) {
        bps_ = allowedBps;
        return;
    }
    if (confirmed > bps_) bps_ += (confirmed - bps_ + sharing.transfers - 1) / sharing.transfers;
    bps_ = std::max(bps_, std::min(sharing.equalBps, allowedBps));
}

void Pace::AllowAnew(std::uint64_t allowedBps, const Sharing &sharing) noexcept
{
    previousBps_ = allowedBps;
    Allow(allowedBps, sharing);
}

std::int64_t Ledger::DueUs(std::uint64_t bytes, std::uint64_t speedBps) const noexcept
{
    return settledUs_ + DurationUs(bytes, speedBps);
}

std::int64_t Ledger::Settle(std::uint64_t bytes, std::uint64_t speedBps, std::int64_t heldUpUs,
                            std::int64_t nowUs, std::int64_t blockUs) noexcept
{
    const std::int64_t endUs = std::max({DueUs(bytes, speedBps), heldUpUs, nowUs - blockUs / 2});
    const std::int64_t lengthUs = endUs - settledUs_;
    settledUs_ = endUs;
    return lengthUs;
}

} // namespace tool
