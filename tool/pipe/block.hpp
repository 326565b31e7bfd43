// The arithmetic of a transfer between two throttle calls: how large a block is, at which speed it
// is moved, and when it is paid for. Pure: times are arguments, in microseconds of a clock that is
// never set; speeds are bytes per second and never 0 (an unlimited transfer needs none of this).
#ifndef ZEVOBW_TOOL_PIPE_BLOCK_HPP
#define ZEVOBW_TOOL_PIPE_BLOCK_HPP

#include <cstdint>

namespace tool {

constexpr std::int64_t kMicrosPerSecond = 1'000'000;
constexpr std::int64_t kPieceUs = 30'000;

// Whom a transfer shares its limits with.
struct Sharing {
    std::uint32_t transfers = 1; // that move data, this one included
    std::uint64_t equalBps = 0;  // the part that no rule takes from it; 0 when not known
};

// The time that bytes take at a speed, rounded up.
std::int64_t DurationUs(std::uint64_t bytes, std::uint64_t speedBps) noexcept;

// What is moved in a time, at least one byte.
std::uint64_t BytesIn(std::int64_t us, std::uint64_t speedBps) noexcept;

// From one throttle call to the next: one piece, about a fortieth of a second; longer among many,
// who would all answer each other's blocks at once; where the work around it would take more than
// about a hundredth of the time; and where the calls of all together would take more than half a
// processor, since each reads what the others have written. A block is moved piece by piece, so that
// its length is not felt. workUs: how long a call takes; processorUs: what it takes of a processor.
std::int64_t BlockTimeUs(std::int64_t workUs, std::int64_t processorUs,
                         std::uint32_t transfers) noexcept;

// How long a piece of a block is: longer among hundreds, whose wake-ups would cost more than the
// moving; in their sum it is not felt.
std::int64_t PieceTimeUs(std::uint32_t transfers) noexcept;

// How much lateness is made good: a piece, a whole block among many.
std::int64_t CreditUs(std::uint32_t transfers) noexcept;

// What the library's part of a throttle call usually takes, the median: one that merely had to wait
// for the processor says little.
class WorkEstimate {
public:
    void Add(std::int64_t us) noexcept;
    std::int64_t Us() const noexcept { return us_; }

private:
    std::int64_t us_ = 0;
};

// What it takes of a processor, which waiting does not blur: a mean that is right from the first call
// on, since a thousand that begin at once must not begin with short blocks.
class ProcessorEstimate {
public:
    void Add(std::int64_t us) noexcept;
    std::int64_t Us() const noexcept { return us_; }

private:
    std::int64_t us_ = 0;
};

// The speed a transfer takes out of what it is allowed. A fall counts at once. A rise is seen by
// all who share a limit in the same moment, and some of it is only a neighbour's section on its way
// from one version of the file to the next: so it counts when two looks agree, and each takes its
// part of it, together the whole. The equal part is everybody's own and is taken at once. Among
// hundreds, a hundredth of the limit that seems to be left over is but the noise of their blocks, and
// many times what is one's own: it is left.
class Pace {
public:
    void Start(std::uint64_t allowedBps) noexcept;
    void Allow(std::uint64_t allowedBps, const Sharing &sharing) noexcept;
    // The rules have changed: no second look is needed.
    void AllowAnew(std::uint64_t allowedBps, const Sharing &sharing) noexcept;
    std::uint64_t Bps() const noexcept { return bps_; }

private:
    std::uint64_t bps_ = 0;
    std::uint64_t previousBps_ = 0;
};

// Up to which moment the bytes moved so far are paid for. What is lost to late wake-ups and to work
// between the blocks stays owed to the transfer within bounds, and is made good little by little:
// a piece follows the last one no sooner than six sevenths of its time after it, so that no tenth
// of a second holds more than four. What is lost to a stalled input or output is lost.
class Ledger {
public:
    void Start(std::int64_t nowUs) noexcept { *this = {}, settledUs_ = endedUs_ = nowUs; }

    // When the bytes moved since the last block are paid for.
    std::int64_t DueUs(std::uint64_t bytes, std::uint64_t speedBps) const noexcept;

    // A piece has ended; bytes: moved since the last block.
    void EndPiece(std::uint64_t bytes, std::int64_t nowUs) noexcept;

    // Ends a block and returns how long it was. heldUpUs: when the last wait for input or output
    // ended; creditUs: see CreditUs().
    std::int64_t Settle(std::uint64_t bytes, std::uint64_t speedBps, std::int64_t heldUpUs,
                        std::int64_t nowUs, std::int64_t creditUs) noexcept;

    // The throttle call allowed the block less than expected and slept the rest off.
    void Lengthen(std::int64_t us) noexcept;

private:
    std::int64_t settledUs_ = 0;
    std::int64_t endedUs_ = 0;     // when the last piece really ended
    std::uint64_t endedBytes_ = 0; // of this block, by then
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_BLOCK_HPP
