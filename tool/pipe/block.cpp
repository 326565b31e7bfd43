// The arithmetic between two throttle calls; see the header for the reasons.
#include "pipe/block.hpp"

#include <algorithm>

namespace tool {

namespace {

constexpr std::int64_t kPerTransferUs = 4'000;
// A throttle call costs half as much again for the wake-ups and the moving around it.
constexpr std::int64_t kWorkFactor = 150;
constexpr std::int64_t kLongestSharedBlockUs = 200'000;
constexpr std::int64_t kPiecePerTransferUs = 200;
constexpr std::int64_t kLongestPieceUs = 200'000;
constexpr std::int64_t kLongestBlockUs = 5'000'000; // no limit allows more at once
constexpr std::int64_t kMaxPieces = kLongestBlockUs / kPieceUs;
constexpr std::int64_t kAllCallsPart = 2; // of a processor, the calls of all together
constexpr std::int64_t kRepaidPart = 7;
constexpr std::uint32_t kCrowd = 100; // transfers
constexpr std::uint64_t kNoisePart = 100;

using Wide = unsigned __int128;

std::int64_t SharedUs(std::uint32_t transfers) noexcept
{
    return std::min(transfers * kPerTransferUs, kLongestSharedBlockUs);
}

// The allowed speed without a rise that is noise.
std::uint64_t WithoutNoise(std::uint64_t allowedBps, const Sharing &sharing) noexcept
{
    if (sharing.transfers < kCrowd || allowedBps < sharing.equalBps) return allowedBps;
    const Wide noise = Wide{sharing.equalBps} * sharing.transfers / kNoisePart;
    return allowedBps - sharing.equalBps <= noise ? sharing.equalBps : allowedBps;
}

} // namespace

std::int64_t DurationUs(std::uint64_t bytes, std::uint64_t speedBps) noexcept
{
    const Wide us = (Wide{bytes} * kMicrosPerSecond + speedBps - 1) / speedBps;
    return static_cast<std::int64_t>(std::min<Wide>(us, INT64_MAX / 2));
}

std::uint64_t BytesIn(std::int64_t us, std::uint64_t speedBps) noexcept
{
    const Wide bytes = Wide{speedBps} * static_cast<std::uint64_t>(us) / kMicrosPerSecond;
    return static_cast<std::uint64_t>(std::clamp<Wide>(bytes, 1, UINT64_MAX));
}

std::int64_t BlockTimeUs(std::int64_t workUs, std::int64_t processorUs,
                         std::uint32_t transfers) noexcept
{
    const std::int64_t pieces = (workUs * kWorkFactor + kPieceUs - 1) / kPieceUs;
    const Wide all = Wide{transfers} * static_cast<std::uint64_t>(processorUs) * kAllCallsPart;
    return std::max({SharedUs(transfers),
                     std::clamp<std::int64_t>(pieces, 1, kMaxPieces) * kPieceUs,
                     static_cast<std::int64_t>(std::min<Wide>(all, kLongestBlockUs))});
}

std::int64_t PieceTimeUs(std::uint32_t transfers) noexcept
{
    return std::clamp(transfers * kPiecePerTransferUs, kPieceUs, kLongestPieceUs);
}

std::int64_t CreditUs(std::uint32_t transfers) noexcept
{
    return std::max(PieceTimeUs(transfers), SharedUs(transfers));
}

void WorkEstimate::Add(std::int64_t us) noexcept
{
    const std::int64_t step = us_ / 16 + 4;
    us_ += us > us_ ? step : -std::min(step, us_);
}

void ProcessorEstimate::Add(std::int64_t us) noexcept
{
    us_ = us_ == 0 ? us : (us_ * 7 + us) / 8;
}

void Pace::Start(std::uint64_t allowedBps) noexcept
{
    bps_ = previousBps_ = allowedBps;
}

void Pace::Allow(std::uint64_t allowedBps, const Sharing &sharing) noexcept
{
    allowedBps = WithoutNoise(allowedBps, sharing);
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
    const std::int64_t pieceUs = DurationUs(bytes - endedBytes_, speedBps);
    return std::max(settledUs_ + DurationUs(bytes, speedBps),
                    endedUs_ + pieceUs - pieceUs / kRepaidPart);
}

void Ledger::EndPiece(std::uint64_t bytes, std::int64_t nowUs) noexcept
{
    endedBytes_ = bytes;
    endedUs_ = nowUs;
}

std::int64_t Ledger::Settle(std::uint64_t bytes, std::uint64_t speedBps, std::int64_t heldUpUs,
                            std::int64_t nowUs, std::int64_t creditUs) noexcept
{
    const std::int64_t paidUs = settledUs_ + DurationUs(bytes, speedBps);
    const std::int64_t settledUs = std::max({paidUs, heldUpUs, nowUs - creditUs});
    const std::int64_t lengthUs = settledUs - settledUs_;
    settledUs_ = settledUs;
    EndPiece(0, nowUs);
    return lengthUs;
}

void Ledger::Lengthen(std::int64_t us) noexcept
{
    settledUs_ += us;
    endedUs_ += us;
}

} // namespace tool
