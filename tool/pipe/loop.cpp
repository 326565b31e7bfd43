// The transfer keeps its own time. It moves a block, sleeps until the block is due at its speed
// (see Pace), and then makes the throttle call. That call sleeps only if less is allowed by now. So
// the transfer reports the speed that it really had, and the others under the same limit see no
// free speed that does not exist.
#include "pipe/loop.hpp"

#include <algorithm>

#include "model/rate.hpp"
#include "pipe/block.hpp"
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
    return ClockUs(CLOCK_THREAD_CPUTIME_ID);
}

bool ChangedALot(std::uint64_t before, std::uint64_t after) noexcept
{
    const std::uint64_t difference = before > after ? before - after : after - before;
    return difference > std::max(before, after) / 100 * kALotPercent;
}

class PipeLoop {
public:
    PipeLoop(zevobw::Transfer &transfer, Mover &mover, Progress &progress, std::uint64_t size)
        : transfer_(transfer), mover_(mover), progress_(progress), size_(size)
    {
    }

    MoveEnd Run();

private:
    Moved MoveFreely();
    Moved MoveBlock();
    void PayFor(const Moved &moved);
    void Throttle(std::uint64_t bytes, std::int64_t lengthUs);
    std::uint64_t ConfiguredBps();
    void FollowLimits();
    void LookAround(std::int64_t nowUs);
    std::int64_t BlockUs() const noexcept;
    void ShowProgress();
    std::uint32_t ProgressPart() const noexcept;

    zevobw::Transfer &transfer_;
    Mover &mover_;
    Progress &progress_;
    const std::uint64_t size_;
    std::uint64_t total_ = 0;
    std::uint64_t configuredBps_ = 0; // 0: nothing limits the transfer now
    Pace pace_;
    Ledger ledger_;
    WorkEstimate work_;
    ProcessorEstimate processor_;
    Sharing sharing_;
    std::int64_t lookedUs_ = 0;
    std::uint64_t lookedBps_ = 0; // allowed at that look
};

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

// Evaluates the plans for this hour. 0 when nothing limits this transfer now.
std::uint64_t PipeLoop::ConfiguredBps()
{
    const auto bps = transfer_.ConfiguredBps();
    Require(bps, "the limits cannot be worked out");
    return bps.value();
}

// The library gets only the length of a block, measured by a clock that is never set. So a
// correction of the wall clock neither stops a transfer nor speeds it up.
void PipeLoop::Throttle(std::uint64_t bytes, std::int64_t lengthUs)
{
    Require(transfer_.Moved(bytes, ProgressPart(), lengthUs),
            "the transfer cannot be held to its limit");
}

// Before each block: notices, the hour, and the change between limited and unlimited. A limit that
// begins to apply finds no credit and no debt.
void PipeLoop::FollowLimits()
{
    const bool wasLimited = configuredBps_ != 0;
    const bool notice = TakeReloadNotice();
    if (notice)
        Require(transfer_.Reload(wasLimited ? pace_.Bps() : 0),
                "the changed limits cannot be taken up");
    configuredBps_ = ConfiguredBps();
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
    sharing_ = CountSharers(transfer_);
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
    SleepUntil(0);  // lets signals in
    Throttle(0, 0); // notices a new limit
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
    const std::uint64_t configured = ConfiguredBps();
    if (configured != 0) bytes = std::min(bytes, BytesIn(lengthUs, configured));
    const std::int64_t processorUs = ProcessorUs();
    Throttle(bytes, lengthUs);
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

} // namespace

MoveEnd RunLoop(zevobw::Transfer &transfer, Mover &mover, Progress &progress, std::uint64_t size)
{
    return PipeLoop(transfer, mover, progress, size).Run();
}

} // namespace tool
