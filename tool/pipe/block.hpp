// The arithmetic of a transfer between two throttle calls: how large a block is, at which speed it
// is moved, and when it is due. Times are arguments, in microseconds of a clock that is never set.
// Speeds are bytes per second and never 0: an unlimited transfer needs none of this.
#ifndef ZEVOBW_TOOL_PIPE_BLOCK_HPP
#define ZEVOBW_TOOL_PIPE_BLOCK_HPP

#include <cstdint>

namespace tool {

constexpr std::int64_t kMicrosPerSecond = 1'000'000;
constexpr std::int64_t kPieceUs = 30'000;

// The transfers that share a limit.
struct Sharing {
    std::uint32_t transfers = 1; // that move data, this one included
    std::uint64_t equalBps = 0;  // the part that this transfer always has; 0 when not known
};

// The time that bytes take at a speed, rounded up.
std::int64_t DurationUs(std::uint64_t bytes, std::uint64_t speedBps) noexcept;

// What is moved in a time, at least one byte.
std::uint64_t BytesIn(std::int64_t us, std::uint64_t speedBps) noexcept;

// The time from one throttle call to the next. It is one piece, about a thirtieth of a second, or
// longer:
// - among many transfers, which would all react to each other's blocks at once;
// - if the work of a call would take more than about a hundredth of the time;
// - if the calls of all transfers together would take more than half a processor.
// A block is moved in pieces, so that a long one still flows evenly. workUs: how long a call takes;
// processorUs: how much processor time it takes.
std::int64_t BlockTimeUs(std::int64_t workUs, std::int64_t processorUs,
                         std::uint32_t transfers) noexcept;

// The length of a piece. It is longer among hundreds of transfers, whose wake-ups would cost more
// than the moving; together they still flow evenly.
std::int64_t PieceTimeUs(std::uint32_t transfers) noexcept;

// How much lateness a transfer may catch up: a piece; among many a whole block.
std::int64_t CreditUs(std::uint32_t transfers) noexcept;

// How long the library's part of a throttle call takes: the median, because single calls also wait
// for the processor.
class WorkEstimate {
public:
    void Add(std::int64_t us) noexcept;
    std::int64_t Us() const noexcept { return us_; }

private:
    std::int64_t us_ = 0;
};

// The processor time of a call: a mean that starts with the first call, because a thousand
// transfers that begin together must not begin with short blocks.
class ProcessorEstimate {
public:
    void Add(std::int64_t us) noexcept;
    std::int64_t Us() const noexcept { return us_; }

private:
    std::int64_t us_ = 0;
};

// The speed that a transfer uses of what it is allowed. A fall counts at once. A rise counts when
// two looks agree, because all transfers see it at the same moment, and it may only be a section
// that is missing during a rewrite. Each transfer takes its part of the rise. The equal part is
// taken at once. Among hundreds of transfers a rise of less than a hundredth of the limit is noise,
// and is ignored.
class Pace {
public:
    void Start(std::uint64_t allowedBps) noexcept;
    void Allow(std::uint64_t allowedBps, const Sharing &sharing) noexcept;
    // After a change of the rules: no second look is needed.
    void AllowAnew(std::uint64_t allowedBps, const Sharing &sharing) noexcept;
    std::uint64_t Bps() const noexcept { return bps_; }

private:
    std::uint64_t bps_ = 0;
    std::uint64_t previousBps_ = 0;
};

// The moment up to which the moved bytes are paid for. A transfer may catch up time that it lost to
// late wake-ups and to work between the blocks, up to a limit and little by little: a piece is due
// at the earliest after six sevenths of its time, so that a tenth of a second holds at most four.
// Time that it lost to a stalled input or output is lost.
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

    // The throttle call allowed less than expected and slept for the rest.
    void Lengthen(std::int64_t us) noexcept;

private:
    std::int64_t settledUs_ = 0;
    std::int64_t endedUs_ = 0;     // when the last piece really ended
    std::uint64_t endedBytes_ = 0; // of this block, by then
};

} // namespace tool

#endif // ZEVOBW_TOOL_PIPE_BLOCK_HPP
