// The transfer keeps its own time. It moves a block, sleeps until the block is due at its speed
// (see Pace), and then makes the throttle call. That call sleeps only if less is allowed by now. So
// the transfer reports the speed that it really had, and the others under the same limit see no
// free speed that does not exist.
#include "pipe/loop.hpp"

#include <algorithm>
#include <ctime>

#include "model/rate.hpp"
#include "pipe/signal.hpp"

namespace tool {

namespace {

// The longest time between two calls, so that the transfer stays listed and can be stopped.
constexpr std::int64_t kQuietUs = 250'000;

// How often the sharing transfers are counted; earlier if the allowed speed has changed a lot, and
// more seldom if blocks are long.
constexpr std::int64_t kLookUs = 1'000'000;
constexpr std::int64_t kEarlyLookUs = 100'000;
constexpr std::int64_t kLookBlocks = 8;
constexpr std::int64_t kEarlyLookBlocks = 3;
constexpr std::uint64_t kALotPercent = 20;

// The processor time of this thread.
std::int64_t ProcessorUs() noexcept
{
    timespec taken = {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &taken);
    return std::int64_t{taken.tv_sec} * kMicrosPerSecond + taken.tv_nsec / 1'000;
}

bool ChangedALot(std::uint64_t before, std::uint64_t after) noexcept
{
    const std::uint64_t difference = before > after ? before - after : after - before;
    return difference > std::max(before, after) / 100 * kALotPercent;
}

} // namespace

MoveEnd PipeLoop::Run()
{
    for (;;) {
        FollowLimits();
        const Moved moved = configuredBps_ == 0 ? MoveFreely() : MoveBlock();
        ShowProgress();
        if (moved.end == MoveEnd::kEndOfInput || moved.end == MoveEnd::kReaderGone)
            return moved.end;
        if (EndingSignal() != 0) return MoveEnd::kSignal;
    }
}

// Before each block: notices, the hour, and the change between limited and unlimited. A limit that
// begins to apply finds no credit and no debt.
void PipeLoop::FollowLimits()
{
    const bool wasLimited = configuredBps_ != 0;
    const bool notice = TakeReloadNotice();
    if (notice) transfer_.Reload(wasLimited ? pace_.Bps() : 0);
    configuredBps_ = transfer_.ConfiguredBps();
    if (configuredBps_ == 0) return;
    std::uint64_t allowed = std::min(transfer_.AllowedBps(), configuredBps_);
    if (allowed == 0) allowed = configuredBps_; // not asked yet
    if (!wasLimited) {
        pace_.Start(allowed);
        ledger_.Start(NowUs());
    } else if (notice) {
        pace_.AllowAnew(allowed, sharing_);
    } else if (configuredBps_ < pace_.Bps()) {
        pace_.Allow(configuredBps_, sharing_);
    }
    LookAround(NowUs());
}

void PipeLoop::LookAround(std::int64_t nowUs)
{
    const std::int64_t ageUs = nowUs - lookedUs_;
    const std::int64_t blockUs = BlockUs();
    const bool early = ageUs > std::max(kEarlyLookUs, kEarlyLookBlocks * blockUs) &&
                       ChangedALot(lookedBps_, transfer_.AllowedBps());
    if (lookedUs_ != 0 && ageUs < std::max(kLookUs, kLookBlocks * blockUs) && !early) return;
    sharing_ = transfer_.Look();
    lookedUs_ = nowUs;
    lookedBps_ = transfer_.AllowedBps();
}

std::int64_t PipeLoop::BlockUs() const noexcept
{
    return BlockTimeUs(work_.Us(), processor_.Us(), sharing_.transfers);
}

Moved PipeLoop::MoveFreely()
{
    const Moved moved = mover_.Move(UINT64_MAX, NowUs() + kQuietUs);
    total_ += moved.bytes;
    SleepUntil(0); // lets signals in
    transfer_.Touch(ProgressPart());
    return moved;
}

Moved PipeLoop::MoveBlock()
{
    const std::int64_t blockUs = BlockUs();
    const std::int64_t pieceUs = PieceTimeUs(sharing_.transfers);
    const std::int64_t pieces = (blockUs + pieceUs - 1) / pieceUs;
    const std::uint64_t most = BytesIn(blockUs, pace_.Bps());
    const std::uint64_t piece = BytesIn(blockUs / pieces + 1, pace_.Bps());
    const std::int64_t untilUs = NowUs() + std::max(kQuietUs, blockUs);
    Moved block;
    do {
        const Moved moved = mover_.Move(std::min(piece, most - block.bytes), untilUs);
        block.bytes += moved.bytes;
        block.end = moved.end;
        if (moved.heldUpUs != 0) block.heldUpUs = moved.heldUpUs;
        SleepUntil(ledger_.DueUs(block.bytes, pace_.Bps()));
        ledger_.EndPiece(block.bytes, NowUs());
    } while (block.end == MoveEnd::kFull && block.bytes < most && EndingSignal() == 0);
    total_ += block.bytes;
    PayFor(block);
    return block;
}

void PipeLoop::PayFor(const Moved &moved)
{
    const std::int64_t beganUs = NowUs();
    const std::int64_t lengthUs = ledger_.Settle(moved.bytes, pace_.Bps(), moved.heldUpUs, beganUs,
                                                 CreditUs(sharing_.transfers));
    // A block that began in an hour with faster rules does not sleep at the speed of the slower
    // ones.
    std::uint64_t bytes = moved.bytes;
    const std::uint64_t configured = transfer_.ConfiguredBps();
    if (configured != 0) bytes = std::min(bytes, BytesIn(lengthUs, configured));
    const std::int64_t processorUs = ProcessorUs();
    transfer_.Throttle(bytes, lengthUs, ProgressPart());
    processor_.Add(ProcessorUs() - processorUs);
    const std::uint64_t allowed = transfer_.AllowedBps();
    if (allowed == 0) return;
    const std::int64_t sleptUs = DurationUs(bytes, allowed) - lengthUs;
    if (sleptUs > 0)
        ledger_.Lengthen(sleptUs);
    else
        work_.Add(NowUs() - beganUs);
    pace_.Allow(allowed, sharing_);
}

void PipeLoop::ShowProgress()
{
    progress_.Show({.bytes = total_,
                    .size = size_,
                    .allowedBps = configuredBps_ == 0 ? 0 : pace_.Bps(),
                    .configuredBps = configuredBps_,
                    .nowUs = NowUs()});
}

std::uint32_t PipeLoop::ProgressPart() const noexcept
{
    if (size_ == 0) return 0;
    if (total_ >= size_) return kWhole;
    using Wide = unsigned __int128;
    return static_cast<std::uint32_t>(Wide{total_} * kWhole / size_);
}

} // namespace tool
